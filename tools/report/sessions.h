// Reading time, derived from when books were opened and pages turned, and from nothing else: what
// the events carry is the applications' own business.
//
// A session runs from the opening of a book to the last page event before the next opening or
// before a pause of more than ten minutes. Page events after such a pause belong to no session
// until a book is opened again: nobody knows whether the book in hand is still the same.

#ifndef TOOLS_REPORT_SESSIONS_H_
#define TOOLS_REPORT_SESSIONS_H_

#include <cstdint>
#include <optional>

namespace velmora::usage_stat::report {

// The longest time between two events of one session, in milliseconds.
constexpr std::int64_t kLongestPauseMs = std::int64_t{10} * 60 * 1000;

// A stretch of reading between two events of one session, not longer than kLongestPauseMs.
struct ReadingSpan {
  std::int64_t session = 0;  // counts openings from 1
  std::int32_t book_id = 0;
  std::int64_t begin_ms = 0;
  std::int64_t end_ms = 0;
};

// Follows one reader through events in order of time.
class SessionTracker {
 public:
  // A book was opened.
  void Open(std::int64_t at_ms, std::int32_t book_id) {
    running_ = true;
    ++session_;
    book_id_ = book_id;
    last_ms_ = at_ms;
  }

  // A page event. Tells the reading time that it ends; nothing when it is outside any session.
  std::optional<ReadingSpan> TurnPage(std::int64_t at_ms) {
    if (running_ && IsPause(last_ms_, at_ms)) running_ = false;
    if (!running_) return std::nullopt;
    const ReadingSpan span{session_, book_id_, last_ms_, at_ms};
    last_ms_ = at_ms;
    return span;
  }

 private:
  // Unsigned, because timestamps are whatever the senders say and their difference may overflow.
  static bool IsPause(std::int64_t from_ms, std::int64_t to_ms) {
    return static_cast<std::uint64_t>(to_ms) - static_cast<std::uint64_t>(from_ms) >
           static_cast<std::uint64_t>(kLongestPauseMs);
  }

  bool running_ = false;
  std::int64_t session_ = 0;
  std::int32_t book_id_ = 0;
  std::int64_t last_ms_ = 0;
};

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_SESSIONS_H_
