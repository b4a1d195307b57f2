// How often each of many texts occurs, in bounded memory.

#ifndef TOOLS_REPORT_COUNTS_H_
#define TOOLS_REPORT_COUNTS_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace velmora::usage_stat::report {

struct Count {
  std::string name;
  std::int64_t count = 0;
};

// Counts up to `limit` different names; those that come later share one count, so that a sender of
// ever new texts costs nothing.
class Counts {
 public:
  explicit Counts(std::size_t limit = 10000) : limit_(limit) {}

  void Add(const std::string& name, std::int64_t count = 1) {
    const auto known = counts_.find(name);
    if (known != counts_.end()) {
      known->second += count;
    } else if (counts_.size() < limit_) {
      counts_.emplace(name, count);
    } else {
      uncounted_ += count;
    }
  }

  // Most frequent first, by name where counts are equal.
  std::vector<Count> Sorted() const {
    std::vector<Count> sorted;
    sorted.reserve(counts_.size());
    for (const auto& [name, count] : counts_) sorted.push_back({name, count});
    std::sort(sorted.begin(), sorted.end(), [](const Count& a, const Count& b) {
      return a.count != b.count ? a.count > b.count : a.name < b.name;
    });
    return sorted;
  }

  // What Sorted() leaves out.
  std::int64_t uncounted() const { return uncounted_; }

 private:
  std::size_t limit_;
  std::unordered_map<std::string, std::int64_t> counts_;
  std::int64_t uncounted_ = 0;
};

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_COUNTS_H_
