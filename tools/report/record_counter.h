// Counts records, one after another, to a summary.

#ifndef TOOLS_REPORT_RECORD_COUNTER_H_
#define TOOLS_REPORT_RECORD_COUNTER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/report/sessions.h"
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

// Takes records in any order, and memory for a fixed number of them: page events count in order of
// time, and are held only until so many later ones came.
class RecordCounter {
 public:
  // What a page event says of its book.
  struct Activity {
    enum class Kind : std::uint8_t { kOpening, kJump, kTurn };

    std::int64_t at_ms = 0;
    std::int32_t book_id = 0;  // 0: not told
    std::int32_t from_page = 0;
    std::int32_t to_page = 0;
    std::int32_t pages = 0;
    Kind kind = Kind::kOpening;
  };

  // With `hold_all`, page events may come in any order at all, and are all held.
  RecordCounter(Range range, SummaryOptions options, bool hold_all = false);
  ~RecordCounter();
  RecordCounter(const RecordCounter&) = delete;
  RecordCounter& operator=(const RecordCounter&) = delete;

  // Counts `row`. Records outside the range count as far as a session reaches into it, and tell
  // what books are called: give those before it too, and those up to kLongestPauseMs after it.
  void Add(const store::RecordRow& row);

  // Whether a page event came so late that it could not be counted in order of time. What Finish()
  // gives is wrong then; count again and hold all.
  bool is_out_of_order() const { return is_out_of_order_; }

  // Everything but the sender errors and the size of the database.
  Summary Finish();

 private:
  struct SettingValues {
    std::string latest;
    Counts values{50};
  };
  struct Settings {
    std::int64_t records = 0;
    std::int64_t latest_ms = 0;
    std::vector<std::pair<std::string, SettingValues>> fields;  // in the order of the record
  };
  struct BookNames {
    std::string title;
    std::string file_name;
  };
  class Payload;

  void AddBefore(const store::RecordRow& row);
  void CountEvent(const std::string& event);
  Activity ReadActivity(const store::RecordRow& row);
  BookReading& BookOf(std::int32_t id);
  void Hold(const Activity& activity);
  void CountHeld(std::size_t count);
  void CountActivity(const Activity& activity);
  void FollowBook(const Activity& turn);
  void AddLaunch(const store::RecordRow& row);
  void AddSettings(const store::RecordRow& row);
  void AddLookup(const store::RecordRow& row);
  void LearnNewBooks(const store::RecordRow& row);
  void LearnNames(std::int32_t book_id, std::string title, std::string file_name);

  Range range_;
  SummaryOptions options_;
  bool hold_all_;
  bool is_out_of_order_ = false;
  bool holds_range_ = false;                      // something at or after its begin has come
  std::optional<std::int64_t> opened_before_ms_;  // the last opening before the range so far
  std::unique_ptr<Payload> payload_;

  std::vector<Activity> held_;
  std::int64_t counted_ms_;  // the latest page event that was counted
  SessionTracker tracker_;
  std::int64_t counted_session_ = 0;
  LocalClock clock_;

  Summary summary_;
  using Books = std::unordered_map<std::int32_t, BookReading>;
  Books books_;
  Books::value_type* book_ = nullptr;  // the last one that was asked for
  std::unordered_map<std::int32_t, BookNames> names_;
  Counts applications_;
  Counts events_;
  std::string event_;  // the class of the last record, and how many in a row
  std::int64_t of_event_ = 0;
  Counts words_;
  std::map<std::string, Settings> settings_;
};

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_RECORD_COUNTER_H_
