#include "tools/inspector/balance.h"

#include <algorithm>
#include <numeric>
#include <set>

#include "tools/base/status.h"

namespace velmora::usage_stat::inspector {

namespace {

using base::Status;
using store::Outcome;

std::int64_t SumOf(const std::map<std::string, std::int64_t>& counts) {
  return std::accumulate(counts.begin(), counts.end(), std::int64_t{0},
                         [](std::int64_t sum, const auto& entry) { return sum + entry.second; });
}

void Count(const store::Tally& tally, Outcomes* outcomes) {
  if (tally.outcome == Outcome::kStored) outcomes->stored += tally.count;
  if (tally.outcome == Outcome::kQuarantined) outcomes->quarantined[tally.reason] += tally.count;
  if (tally.outcome == Outcome::kRefused) outcomes->refused[tally.reason] += tally.count;
  if (tally.outcome == Outcome::kOff) outcomes->off += tally.count;
}

void Count(const store::Tally& tally, Balance* balance) {
  if (tally.outcome == Outcome::kOwn) balance->own += tally.count;
  if (tally.outcome == Outcome::kArchived) balance->archived += tally.count;
  if (tally.outcome == Outcome::kDeleted) balance->deleted += tally.count;
  Outcomes outcomes;
  Count(tally, &outcomes);
  if (outcomes.Sum() == 0) return;  // no datagrams, or all of them were released
  Count(tally, &balance->total);
  Count(tally, &balance->senders[tally.uid]);
  const auto run = std::ranges::lower_bound(balance->runs, tally.run, {},
                                            [](const RunBalance& r) { return r.run.id; });
  if (run != balance->runs.end() && run->run.id == tally.run) Count(tally, &run->outcomes);
}

// Takes the runs and tells how they follow one another.
void AddRuns(const std::vector<store::Run>& runs, Balance* balance) {
  for (const store::Run& run : runs) {
    std::optional<std::int64_t> gap_ms;
    if (!balance->runs.empty()) {
      const store::Run& before = balance->runs.back().run;
      const std::int64_t end_ms = before.ended_ms.value_or(before.last_commit_ms);
      gap_ms = std::max<std::int64_t>(0, run.started_ms - end_ms);
    }
    balance->runs.push_back({run, {}, gap_ms});
    balance->received += run.received;
  }
  std::set<std::string> endpoints;
  for (auto run = balance->runs.rbegin(); run != balance->runs.rend(); ++run) {
    run->is_latest = endpoints.insert(run->run.endpoint).second;
  }
}

Status ReadCounts(store::Reader* reader, Balance* balance) {
  std::vector<store::Run> runs;
  std::vector<store::Tally> tallies;
  RETURN_IF_ERROR(reader->ReadRuns(&runs));
  RETURN_IF_ERROR(reader->ReadTallies(&tallies));
  AddRuns(runs, balance);
  for (const store::Tally& tally : tallies) Count(tally, balance);
  return reader->CountRows(&balance->records, &balance->in_quarantine);
}

Status ReadRates(store::Reader* reader, std::int64_t now_ms, Balance* balance) {
  Status status = reader->ForEach({.newest = 1}, [balance](const store::RecordRow& row) {
    balance->last = row;
    return true;
  });
  struct Rate {
    std::int64_t span_ms;
    std::int64_t* count;
  };
  for (const Rate& rate :
       {Rate{60'000, &balance->last_minute}, Rate{3'600'000, &balance->last_hour},
        Rate{86'400'000, &balance->last_day}}) {
    if (!status.ok()) break;
    status = reader->connection().Read(
        "SELECT count(*) FROM records WHERE received_ms > " + std::to_string(now_ms - rate.span_ms),
        rate.count);
  }
  return status;
}

}  // namespace

std::int64_t Outcomes::Sum() const { return stored + SumOf(quarantined) + SumOf(refused) + off; }

std::int64_t Balance::expected_rows() const {
  return total.stored + SumOf(total.quarantined) + own - archived - deleted;
}

bool Balance::adds_up() const {
  return std::all_of(runs.begin(), runs.end(),
                     [](const RunBalance& run) { return run.adds_up(); }) &&
         total.Sum() == received && records + in_quarantine == expected_rows();
}

Status ReadBalance(store::Reader* reader, std::int64_t now_ms, Balance* balance) {
  store::Connection& connection = reader->connection();
  RETURN_IF_ERROR(connection.Execute("BEGIN"));
  Status status = ReadCounts(reader, balance);
  if (status.ok()) status = ReadRates(reader, now_ms, balance);
  const Status end = connection.Execute("COMMIT");
  return status.ok() ? end : status;
}

}  // namespace velmora::usage_stat::inspector
