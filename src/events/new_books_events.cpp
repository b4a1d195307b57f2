#include "src/events/new_books_events.h"

#include <algorithm>

namespace velmora::usage_stat {

int NewBookRecords::Write(const NewBooksEventEx& event, std::ostream& out) {
  if (!event.CarriesRecords()) return 0;
  const std::size_t count = std::min(static_cast<std::size_t>(event.count_), event.records_.size());
  for (std::size_t i = 0; i < count; ++i) {
    if (const int err = WriteFields(event.records_[i], out); err != 0) return err;
  }
  return 0;
}

int NewBookRecords::Read(std::istream& in, NewBooksEventEx* event) {
  if (!event->CarriesRecords()) return 0;
  for (std::int32_t i = 0; i < event->count_; ++i) {
    if (const int err = ReadFields(in, &event->records_.emplace_back()); err != 0) return err;
  }
  return 0;
}

}  // namespace velmora::usage_stat
