// Feeds any datagram to the decoder of the tools and asks for everything that they print of it.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "tools/records/record.h"

namespace records = velmora::usage_stat::records;

namespace {

void Require(bool condition) {
  if (!condition) abort();
}

void RequireValidJson(const records::Json& json) {
  Require(records::Json::accept(records::Dump(json)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view datagram(reinterpret_cast<const char*>(data), size);
  const auto decoded = records::Decode(datagram);
  const records::Trace trace = records::TraceFields(datagram);

  std::size_t traced = 0;
  for (const records::TracedField& field : trace.fields) {
    Require(field.offset == traced);  // no gap, no overlap
    traced += field.size;
    RequireValidJson(field.value);
  }
  Require(traced <= size);

  if (const auto* const record = std::get_if<records::Record>(&decoded)) {
    Require(!trace.damage && trace.event == record->event && traced == size);
    RequireValidJson(records::ToJson(*record));
  } else {
    const auto& damage = std::get<records::Damage>(decoded);
    Require(trace.damage.has_value() && !damage.reason.empty());
    Require(damage.offset <= size && damage.left_over <= size);
    RequireValidJson(damage.fields);
  }
  return 0;
}
