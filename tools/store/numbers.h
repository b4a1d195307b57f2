// Numbers of records, as they follow one another.

#ifndef TOOLS_STORE_NUMBERS_H_
#define TOOLS_STORE_NUMBERS_H_

#include <cstdint>
#include <map>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// From the first number of each run to its last. Runs neither overlap nor touch.
using Runs = std::map<std::int64_t, std::int64_t>;

// A set of numbers, of any size: what it costs is its runs. Takes whatever a damaged file claims.
class NumberSet {
 public:
  // Adds the numbers from `first` to `last`; none when `last` is smaller.
  void Add(std::int64_t first, std::int64_t last);
  void Add(std::int64_t number) { Add(number, number); }

  bool Contains(std::int64_t number) const { return Overlaps(number, number); }
  bool Overlaps(std::int64_t first, std::int64_t last) const;
  // The numbers from `first` to `last` that are not in it.
  Runs Others(std::int64_t first, std::int64_t last) const;

  bool empty() const { return runs_.empty(); }
  // How many there are, modulo 2^64.
  std::int64_t count() const { return static_cast<std::int64_t>(count_); }
  std::int64_t lowest() const { return empty() ? 1 : runs_.begin()->first; }
  std::int64_t highest() const { return empty() ? 0 : runs_.rbegin()->second; }
  const Runs& runs() const { return runs_; }

 private:
  Runs runs_;
  std::uint64_t count_ = 0;
};

// Adds the numbers from `first` to `last` that a database has records of.
Status AddNumbers(Connection* connection, std::int64_t first, std::int64_t last,
                  NumberSet* numbers);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_NUMBERS_H_
