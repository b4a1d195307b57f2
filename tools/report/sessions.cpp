#include "tools/report/sessions.h"

namespace velmora::usage_stat::report {

namespace {

// Unsigned, because timestamps are whatever the senders say and their difference may overflow.
bool IsPause(std::int64_t from_ms, std::int64_t to_ms) {
  return static_cast<std::uint64_t>(to_ms) - static_cast<std::uint64_t>(from_ms) >
         static_cast<std::uint64_t>(kLongestPauseMs);
}

}  // namespace

void SessionTracker::Open(std::int64_t at_ms, std::int32_t book_id) {
  running_ = true;
  ++session_;
  book_id_ = book_id;
  last_ms_ = at_ms;
}

std::optional<ReadingSpan> SessionTracker::TurnPage(std::int64_t at_ms) {
  if (running_ && IsPause(last_ms_, at_ms)) running_ = false;
  if (!running_) return std::nullopt;
  const ReadingSpan span{session_, book_id_, last_ms_, at_ms};
  last_ms_ = at_ms;
  return span;
}

}  // namespace velmora::usage_stat::report
