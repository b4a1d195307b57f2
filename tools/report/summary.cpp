#include "tools/report/summary.h"

#include <algorithm>
#include <map>
#include <set>

#include "tools/base/status.h"
#include "tools/report/record_counter.h"
#include "tools/report/sessions.h"

namespace velmora::usage_stat::report {

namespace {

using base::Status;
using store::History;
using store::Query;
using store::RecordRow;

Status CheckRange(const Range& range) {
  if (range.since_ms >= range.until_ms) return Status::Failed("the range of time is empty");
  if (!IsOnCalendar(range.since_ms) || !IsOnCalendar(range.until_ms)) {
    return Status::Failed("the range of time leaves the calendar");
  }
  if (range.until_ms - range.since_ms > kLongestRangeMs) {
    return Status::Failed("the range of time is longer than 100 years");
  }
  return {};
}

constexpr std::size_t kMostSenders = 5;

// Errors of one kind as they come in.
struct ErrorTally {
  std::int64_t count = 0;
  std::set<std::int64_t> senders;  // one more than is told, at most
  std::string example;
};

void AddSender(std::int64_t uid, ErrorTally* tally) {
  if (tally->senders.size() <= kMostSenders) tally->senders.insert(uid);
}

std::vector<SenderError> MostFrequentFirst(const std::map<std::string, ErrorTally>& tallies) {
  std::vector<SenderError> errors;
  for (const auto& [kind, tally] : tallies) {
    SenderError error{kind, tally.count, "", tally.example};
    std::size_t told = 0;
    for (const std::int64_t uid : tally.senders) {
      if (!error.senders.empty()) error.senders += ", ";
      error.senders += told++ < kMostSenders ? std::to_string(uid) : "…";
    }
    errors.push_back(std::move(error));
  }
  std::stable_sort(errors.begin(), errors.end(),
                   [](const SenderError& a, const SenderError& b) { return a.count > b.count; });
  return errors;
}

Status CountUndecodable(store::Reader* reader, Summary* summary) {
  std::map<std::string, ErrorTally> tallies;
  Status status = reader->ForEachQuarantined([&](const store::QuarantineRow& row) {
    if (!summary->range.Holds(row.received_ms)) return true;
    ErrorTally& tally = tallies[row.kind];
    ++tally.count;
    ++summary->errors;
    AddSender(row.sender.uid, &tally);
    tally.example = row.reason;
    return true;
  });
  summary->undecodable = MostFrequentFirst(tallies);
  return status;
}

// Refusals are counted, not kept: a count belongs to the range when its run has met the range and
// the last refusal did not come before it.
Status CountRefused(store::Reader* reader, Summary* summary) {
  std::vector<store::Run> runs;
  RETURN_IF_ERROR(reader->ReadRuns(&runs));
  std::map<std::int64_t, std::int64_t> started_ms;
  for (const store::Run& run : runs) started_ms[run.id] = run.started_ms;

  std::vector<store::Tally> rows;
  RETURN_IF_ERROR(reader->ReadTallies(&rows));
  std::map<std::string, ErrorTally> tallies;
  for (const store::Tally& row : rows) {
    if (row.outcome != store::Outcome::kRefused || row.last_ms < summary->range.since_ms ||
        started_ms[row.run] >= summary->range.until_ms) {
      continue;
    }
    ErrorTally& tally = tallies[row.reason];
    tally.count += row.count;
    summary->errors += row.count;
    AddSender(row.uid, &tally);
  }
  summary->refused = MostFrequentFirst(tallies);
  return {};
}

Status CountRecords(History* history, const Range& range, RecordCounter* counter,
                    std::vector<std::string>* problems) {
  Query query;
  query.until_ms = range.until_ms + kLongestPauseMs;
  query.datagram_only = true;
  return history->ForEach(
      query,
      [&](const RecordRow& row) {
        counter->Add(row);
        return !counter->is_out_of_order();
      },
      problems);
}

}  // namespace

Status ReadSummary(History* history, Range range, SummaryOptions options, Summary* summary) {
  RETURN_IF_ERROR(CheckRange(range));
  std::vector<std::string> problems;
  for (const bool hold_all : {false, true}) {
    RecordCounter counter(range, options, hold_all);
    problems.clear();
    RETURN_IF_ERROR(CountRecords(history, range, &counter, &problems));
    *summary = counter.Finish();
    if (!counter.is_out_of_order()) break;
  }
  std::sort(problems.begin(), problems.end());
  problems.erase(std::unique(problems.begin(), problems.end()), problems.end());
  summary->problems = std::move(problems);

  store::Reader& live = history->live();
  std::int64_t quarantined = 0;
  RETURN_IF_ERROR(live.CountRows(&summary->all_records, &quarantined));
  RETURN_IF_ERROR(CountUndecodable(&live, summary));
  return CountRefused(&live, summary);
}

}  // namespace velmora::usage_stat::report
