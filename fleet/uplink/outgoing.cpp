#include "fleet/uplink/outgoing.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "fleet/batch/shapes.h"
#include "fleet/consent/device.h"
#include "fleet/consent/rewrite.h"

namespace velmora::usage_stat::uplink {

using base::Status;
using consent::Action;
using consent::Level;
using consent::Span;

namespace {

fleet::Reason ReasonOf(store::Absence absence) {
  switch (absence) {
    case store::Absence::kRetention:
      return fleet::Reason::kRetention;
    case store::Absence::kErased:
      return fleet::Reason::kErased;
    case store::Absence::kUnreadable:
      break;
  }
  return fleet::Reason::kUnreadable;
}

// Adds a run behind the last one, or to it when it goes on for the same reason.
void AddRun(std::uint64_t first, std::uint64_t last, fleet::Reason reason, fleet::Batch* batch) {
  if (first > last) return;
  const bool goes_on = !batch->runs.empty() && batch->runs.back().last + 1 == first &&
                       batch->runs.back().reason == reason;
  if (goes_on) {
    batch->runs.back().last = last;
  } else {
    batch->runs.push_back({first, last, reason});
  }
}

std::string BytesOf(const std::vector<Action>& actions) {
  std::string bytes;
  for (const Action action : actions) bytes += static_cast<char>(action);
  return bytes;
}

}  // namespace

Status Outgoing::Open(const std::string& path, consent::State* state,
                      const consent::Policy& shipped, std::unique_ptr<Outgoing>* outgoing) {
  outgoing->reset(new Outgoing(state, shipped));
  Outgoing& opened = **outgoing;
  consent::Numbers numbers;
  RETURN_IF_ERROR(consent::ReadNumbers(path, &numbers));
  for (std::size_t i = 0; i < numbers.live.size(); ++i) {
    const std::int64_t next =
        i + 1 < numbers.live.size() ? numbers.live[i + 1].first : numbers.next;
    opened.stores_.push_back({numbers.live[i].id, static_cast<std::uint64_t>(numbers.live[i].first),
                              static_cast<std::uint64_t>(next - 1)});
  }
  RETURN_IF_ERROR(store::History::Open(path, &opened.history_));
  RETURN_IF_ERROR(opened.history_->live().ReadMissing(&opened.missing_));
  return opened.history_->live().ReadClockSteps(&opened.clock_steps_);
}

bool Outgoing::IsExplained(std::uint64_t first, std::uint64_t last) const {
  for (const store::Missing& run : missing_) {
    if (static_cast<std::uint64_t>(run.first_record) > first) break;
    first = std::max(first, static_cast<std::uint64_t>(run.last_record) + 1);
  }
  return first > last;
}

Status Outgoing::AddAbsent(std::uint64_t first, std::uint64_t last, fleet::Batch* batch) {
  if (first > last) return {};
  // What went while the records were read has been noted since.
  if (!IsExplained(first, last)) RETURN_IF_ERROR(history_->live().ReadMissing(&missing_));
  for (const store::Missing& run : missing_) {
    const std::uint64_t run_first = std::max(first, static_cast<std::uint64_t>(run.first_record));
    const std::uint64_t run_last = std::min(last, static_cast<std::uint64_t>(run.last_record));
    if (run_first > run_last) continue;
    AddRun(first, run_first - 1, fleet::Reason::kUnreadable, batch);
    AddRun(run_first, run_last, ReasonOf(run.reason), batch);
    first = run_last + 1;
  }
  AddRun(first, last, fleet::Reason::kUnreadable, batch);
  return {};
}

Status Outgoing::FillSpan(const Span& span, const Limits& limits, fleet::Batch* batch) {
  const consent::Rewriter rewriter(span.table, state_->key());
  std::uint64_t next = static_cast<std::uint64_t>(span.first);
  std::size_t bytes = 0;
  bool is_full = false;
  Status status;
  const store::Query query{.after_id = span.first - 1, .last_id = span.last};
  RETURN_IF_ERROR(history_->ForEach(
      query,
      [&](const store::RecordRow& row) {
        const auto number = static_cast<std::uint64_t>(row.id);
        status = AddAbsent(next, number - 1, batch);
        const records::RecordType* type = nullptr;
        const std::optional<std::string> datagram = rewriter.Rewrite(row.raw, &type);
        if (!datagram ||
            !fleet::AddRecord(number, *datagram, BytesOf(span.table->ActionsOf(*type)), batch)) {
          AddRun(number, number, fleet::Reason::kWithheld, batch);
        } else {
          bytes += datagram->size();
        }
        next = number + 1;
        is_full = batch->records.size() >= limits.records || bytes >= limits.bytes;
        return status.ok() && !is_full;
      },
      &problems_));
  RETURN_IF_ERROR(status);
  if (!is_full) {
    RETURN_IF_ERROR(AddAbsent(next, static_cast<std::uint64_t>(span.last), batch));
    next = static_cast<std::uint64_t>(span.last) + 1;
  }
  batch->through = next - 1;
  return {};
}

// What the clock was set by tells times too, those of a time without consent included.
void Outgoing::AddClockSteps(const std::vector<Span>& spans, bool is_exact,
                             fleet::Batch* batch) const {
  constexpr std::int64_t kHalfHour = std::int64_t{30} * 60 * 1000;
  for (const store::ClockStep& step : clock_steps_) {
    const auto record = static_cast<std::uint64_t>(step.record);
    const bool leaves = std::ranges::any_of(spans, [&step](const Span& span) {
      return span.level != Level::kNone && step.record >= span.first && step.record <= span.last;
    });
    if (!leaves || record <= batch->after || record > batch->through) continue;
    const std::int64_t step_ms =
        is_exact ? step.step_ms : consent::CoarsenTime(step.step_ms + kHalfHour);
    if (step_ms != 0) batch->clock_steps.push_back({record, step_ms});
  }
}

Status Outgoing::FillSpans(const std::vector<Span>& spans, const Limits& limits,
                           std::int64_t now_ms, fleet::Batch* batch) {
  bool is_exact = false;
  for (const Span& span : spans) {
    if (span.level == Level::kNone) {
      AddRun(static_cast<std::uint64_t>(span.first), static_cast<std::uint64_t>(span.last),
             fleet::Reason::kWithheld, batch);
      batch->through = static_cast<std::uint64_t>(span.last);
      continue;
    }
    batch->level = span.level;
    batch->policy = span.table->id();
    is_exact = span.table->time() == Action::kKeep;
    RETURN_IF_ERROR(FillSpan(span, limits, batch));
  }
  // Nothing in the batch tells a time closer than its records may.
  batch->sent_ms = is_exact ? now_ms : consent::CoarsenTime(now_ms);
  AddClockSteps(spans, is_exact, batch);
  return {};
}

Status Outgoing::Begin(const StoreRange& store, std::uint64_t after, std::uint64_t through,
                       std::int64_t now_ms, fleet::Batch* batch, std::vector<Span>* spans) {
  *batch = {};
  batch->store = store.id;
  batch->store_first = store.first;
  batch->after = batch->through = after;
  batch->sent_ms = consent::CoarsenTime(now_ms);
  spans->clear();
  if (after >= through) return {};
  return state_->SpansOf(store.id, static_cast<std::int64_t>(after) + 1,
                         static_cast<std::int64_t>(through), shipped_, spans);
}

Status Outgoing::Fill(const StoreRange& store, std::uint64_t after, const Limits& limits,
                      std::int64_t now_ms, fleet::Batch* batch) {
  std::vector<Span> spans;
  RETURN_IF_ERROR(Begin(store, after, store.last, now_ms, batch, &spans));
  // One level, one policy: what never leaves, and then the first that does.
  const auto leaves = [](const Span& span) { return span.level != Level::kNone; };
  if (const auto first = std::ranges::find_if(spans, leaves); first != spans.end()) {
    spans.erase(first + 1, spans.end());
  }
  return FillSpans(spans, limits, now_ms, batch);
}

Status Outgoing::FillAgain(const StoreRange& store, std::uint64_t after, std::uint64_t through,
                           std::int64_t now_ms, fleet::Batch* batch) {
  std::vector<Span> spans;
  // What a power cut took of the interval belongs to the next store by now.
  const std::uint64_t last = std::max(after, std::min(through, store.last));
  RETURN_IF_ERROR(Begin(store, after, last, now_ms, batch, &spans));
  // A level that was raised since may have split what left in one way.
  std::shared_ptr<const consent::Table> table;
  Level level = Level::kFull;
  for (const Span& span : spans) {
    if (span.level == Level::kNone) continue;
    level = std::min(level, span.level);
    table = table ? std::make_shared<const consent::Table>(table->And(*span.table)) : span.table;
  }
  for (Span& span : spans) {
    if (span.level == Level::kNone) continue;
    span.level = level;
    span.table = table;
  }
  constexpr Limits kAll{std::numeric_limits<std::size_t>::max(),
                        std::numeric_limits<std::size_t>::max()};
  RETURN_IF_ERROR(FillSpans(spans, kAll, now_ms, batch));
  AddRun(last + 1, through, fleet::Reason::kUnreadable, batch);
  batch->through = through;
  return {};
}

Status Outgoing::ForEachRaw(const fleet::Batch& batch, const RawVisitor& visit) {
  auto record = batch.records.begin();
  return history_->ForEach({.after_id = static_cast<std::int64_t>(batch.after),
                            .last_id = static_cast<std::int64_t>(batch.through)},
                           [&](const store::RecordRow& row) {
                             const auto number = static_cast<std::uint64_t>(row.id);
                             while (record != batch.records.end() && record->number < number)
                               ++record;
                             if (record == batch.records.end()) return false;
                             if (record->number == number) visit(*record, row.raw);
                             return true;
                           });
}

}  // namespace velmora::usage_stat::uplink
