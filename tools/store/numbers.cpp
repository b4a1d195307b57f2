#include "tools/store/numbers.h"

#include <algorithm>
#include <iterator>

namespace velmora::usage_stat::store {

namespace {

std::uint64_t SizeOf(std::int64_t first, std::int64_t last) {
  return static_cast<std::uint64_t>(last) - static_cast<std::uint64_t>(first) + 1;
}

}  // namespace

void NumberSet::Add(std::int64_t first, std::int64_t last) {
  if (first > last) return;
  auto run = runs_.upper_bound(first);
  if (run != runs_.begin()) {
    const auto before = std::prev(run);
    if (before->second >= first || before->second + 1 == first) run = before;
  }
  while (run != runs_.end() && (run->first <= last || run->first - 1 == last)) {
    first = std::min(first, run->first);
    last = std::max(last, run->second);
    count_ -= SizeOf(run->first, run->second);
    run = runs_.erase(run);
  }
  runs_.emplace_hint(run, first, last);
  count_ += SizeOf(first, last);
}

bool NumberSet::Overlaps(std::int64_t first, std::int64_t last) const {
  const auto run = runs_.upper_bound(last);
  return run != runs_.begin() && std::prev(run)->second >= first;
}

Runs NumberSet::Others(std::int64_t first, std::int64_t last) const {
  Runs others;
  auto run = runs_.upper_bound(first);
  if (run != runs_.begin() && std::prev(run)->second >= first) --run;
  for (; run != runs_.end() && run->first <= last; ++run) {
    if (first < run->first) others[first] = run->first - 1;
    if (run->second >= last) return others;
    first = run->second + 1;
  }
  if (first <= last) others[first] = last;
  return others;
}

Status AddNumbers(Connection* connection, std::int64_t first, std::int64_t last,
                  NumberSet* numbers) {
  Statement select;
  RETURN_IF_ERROR(
      connection->Prepare("SELECT id FROM records WHERE id BETWEEN ? AND ? ORDER BY id", &select));
  select.Bind(1, first).Bind(2, last);
  while (select.Step()) numbers->Add(select.Int(0));
  return select.status();
}

}  // namespace velmora::usage_stat::store
