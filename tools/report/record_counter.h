// Counts records, one after another, to a summary.

#ifndef TOOLS_REPORT_RECORD_COUNTER_H_
#define TOOLS_REPORT_RECORD_COUNTER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/report/summary.h"
#include "tools/store/row.h"

namespace velmora::usage_stat::report {

// How often each of many texts occurs, in bounded memory: names that come after `limit` different
// ones share one count, so that a sender of ever new texts costs nothing.
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

// Takes records in any order. Keeps 16 bytes for each page event and opening, and little else.
class RecordCounter {
 public:
  explicit RecordCounter(Range range) : range_(range) {}

  // Counts `row`. Records outside the range count as far as a session reaches into it: give those
  // since the last opening before it, and those up to kLongestPauseMs after it.
  void Add(const store::RecordRow& row);

  // Everything but the books' names, the sender errors and the size of the database.
  Summary Finish();

 private:
  struct Activity {
    std::int64_t at_ms = 0;
    std::int32_t book_id = 0;
    bool opening = false;
  };
  struct SettingValues {
    std::string latest;
    Counts values{50};
  };
  struct Settings {
    std::int64_t records = 0;
    std::int64_t latest_ms = 0;
    std::vector<std::pair<std::string, SettingValues>> fields;  // in the order of the record
  };

  void AddLaunch(const store::RecordRow& row);
  void AddSettings(const store::RecordRow& row);
  void CountReading(Summary* summary);

  Range range_;
  std::int64_t records_ = 0;
  std::vector<Activity> activities_;
  std::unordered_map<std::int32_t, BookReading> books_;
  std::int64_t launches_ = 0;
  Counts applications_;
  Counts events_;
  std::map<std::string, Settings> settings_;
};

// Learns what books are called from the records that tell it.
class BookNames {
 public:
  // Only the names of these are kept.
  explicit BookNames(std::vector<BookReading>* books);

  // Takes records in order of time; later names win. Titles come with descriptions of new books,
  // file names with those and with openings.
  void Add(const store::RecordRow& row);

 private:
  std::unordered_map<std::int32_t, BookReading*> books_;
};

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_RECORD_COUNTER_H_
