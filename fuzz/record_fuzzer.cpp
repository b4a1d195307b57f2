// Feeds any bytes to the reader of records. What reads back must also write the same bytes again.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>

#include "src/stat_event/event.h"

namespace {

using velmora::usage_stat::Event;
using velmora::usage_stat::EventFactory;

using Types = std::initializer_list<EventFactory::EventType>;

// The classes whose readers deliberately take more than their writers produce. Their records may
// come back with other bytes, yet never with another length.
constexpr Types kTolerantReaders = {
    EventFactory::kGoToPage,     // a flag may be any byte
    EventFactory::kGoToPageNew,  // a flag may be any byte
    EventFactory::kOpenBook,     // a flag may be any number; a language ends at its NUL
    EventFactory::kNewBooks,     // a language ends at its NUL
};

// The same, and reading them once more changes them again: a key of 0x80 or more takes 1 away from
// its kind each time. Besides, the number of lists is ignored and a list's count may be negative.
constexpr Types kBorrowingReaders = {
    EventFactory::kKeyboardSettings,
    EventFactory::kKeyboardMappingMeasurement,
};

bool IsOneOf(Types types, const Event& event) {
  return std::ranges::find(types, event.type_) != types.end();
}

std::unique_ptr<Event> Read(const std::string& bytes, std::size_t* consumed) {
  std::istringstream in(bytes);
  std::unique_ptr<Event> event(Event::CreateFromStream(in));
  if (event) *consumed = static_cast<std::size_t>(in.tellg());
  return event;
}

std::string Write(Event* event) {
  std::ostringstream out;
  if (event->WriteToStream(out) != 0) abort();  // whatever was read can be written
  return out.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::string record(reinterpret_cast<const char*>(data), size);
  std::size_t consumed = 0;
  const auto event = Read(record, &consumed);
  if (!event) return 0;
  record.resize(consumed);

  const std::string written = Write(event.get());
  const bool borrows = IsOneOf(kBorrowingReaders, *event);
  if (written != record && !borrows && !IsOneOf(kTolerantReaders, *event)) abort();
  if (written.size() != record.size()) abort();

  const auto again = Read(written, &consumed);
  if (!again || consumed != written.size()) abort();
  if (!borrows && Write(again.get()) != written) abort();
  return 0;
}
