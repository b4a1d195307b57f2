#include "tools/store/retention.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>
#include <vector>

#include "src/events/device_events.h"
#include "tools/store/archive.h"
#include "tools/store/ledger.h"
#include "tools/store/maintenance.h"
#include "tools/store/numbers.h"

namespace velmora::usage_stat::store {

namespace {

// Rows are looked at and deleted in pieces, so that neither memory nor a transaction grows with the
// database.
constexpr std::int64_t kRowsInPiece = 1000;
constexpr std::int64_t kRowsAtOnce = 100;
constexpr std::int64_t kDayMs = 24LL * 60 * 60 * 1000;

// Before this no such records were made: a device whose battery was flat begins again in 1970, or
// in the year of its firmware.
constexpr std::int64_t kEarliestMs = 1'577'836'800'000;  // 2020

// Numbers of records that follow one another.
struct Span {
  std::int64_t first = 0;
  std::int64_t last = 0;
};

// What the clock has shown in the course of the numbers, and so which times can be believed.
class ClockHistory {
 public:
  Status Read(Connection* connection, std::int64_t now_ms);

  // Whether what came with `record` can have come at `time_ms`, as far as is known. `latest_ms`
  // is the latest time among those asked about before, in the order of their numbers; at first 0.
  bool Believes(std::int64_t record, std::int64_t time_ms, std::int64_t* latest_ms) const;

 private:
  // From this number on it was this time, or later.
  struct Mark {
    std::int64_t record = 0;
    std::int64_t time_ms = 0;
  };

  std::int64_t now_ms_ = 0;
  std::vector<Mark> marks_;
  NumberSet before_it_was_set_;
};

// Runs, archives and steps are few beside the records, and stay when those are deleted. Of an
// archive it counts when what is in it was sent: one that was recovered was made after what follows
// it. Runs of the first schema have no boot, and no place among the numbers.
Status ClockHistory::Read(Connection* connection, std::int64_t now_ms) {
  constexpr std::int64_t kApartMs = kDayMs / 4;  // so that many short runs are few marks
  now_ms_ = now_ms;
  Statement select;
  RETURN_IF_ERROR(connection->Prepare(
      "SELECT record, time_ms FROM ("
      "SELECT first_record AS record, started_ms AS time_ms FROM runs WHERE boot <> '' "
      "UNION ALL SELECT first_record, (SELECT received_ms FROM records WHERE id < first_record "
      "ORDER BY id DESC LIMIT 1) FROM runs WHERE boot <> '' "
      "UNION ALL SELECT last_record, last_timestamp_ms FROM archives "
      "UNION ALL SELECT record, wall_ms FROM clock_steps) "
      "WHERE time_ms BETWEEN ? AND ? ORDER BY record",
      &select));
  select.Bind(1, kEarliestMs).Bind(2, now_ms);
  while (select.Step()) {
    if (marks_.empty() || select.Int(1) >= marks_.back().time_ms + kApartMs) {
      marks_.push_back({select.Int(0), select.Int(1)});
    }
  }
  RETURN_IF_ERROR(select.status());
  // A step is found out by the next record, or by the next run of the same boot.
  RETURN_IF_ERROR(connection->Prepare(
      "SELECT coalesce((SELECT min(first_record) FROM runs WHERE boot = (SELECT boot FROM runs "
      "WHERE first_record < record ORDER BY id DESC LIMIT 1)), 0), record - 1 FROM clock_steps "
      "WHERE abs(step_ms) > ?",
      &select));
  select.Bind(1, kDayMs);
  while (select.Step()) before_it_was_set_.Add(select.Int(0), select.Int(1));
  return select.status();
}

// Times of the future tell nothing about what came after them: the clock was ahead, and then right.
// A day is no reason for doubt: clocks are set by minutes, time zones by hours.
bool ClockHistory::Believes(std::int64_t record, std::int64_t time_ms,
                            std::int64_t* latest_ms) const {
  const auto behind = std::ranges::upper_bound(marks_, record, {}, &Mark::record);
  if (behind != marks_.begin()) *latest_ms = std::max(*latest_ms, std::prev(behind)->time_ms);
  if (time_ms < kEarliestMs || time_ms > now_ms_) return false;
  const bool is_in_order = time_ms >= *latest_ms - kDayMs;
  *latest_ms = std::max(*latest_ms, time_ms);
  return is_in_order && !before_it_was_set_.Contains(record);
}

// What is too old.
struct Age {
  ClockHistory clock;
  std::int64_t before_ms = 0;
  std::int64_t now_ms = 0;

  bool IsYoung(std::int64_t time_ms) const { return time_ms >= before_ms && time_ms <= now_ms; }
};

class Retainer {
 public:
  Retainer(Maintenance* maintenance, std::string database_path)
      : maintenance_(maintenance), database_path_(std::move(database_path)) {}

  Status ApplyAge(std::int64_t keep_days);
  Status ApplySize(std::int64_t max_bytes);
  bool has_removed() const { return has_removed_; }
  // The first archive that could not be deleted: the rest is looked after all the same.
  const Status& failure() const { return failure_; }

 private:
  Connection& connection() { return maintenance_->connection; }

  Status IsClockPlausible(std::int64_t now_ms, bool* is_plausible);
  Status FindLastOld(const std::string& sql, const Age& age, std::int64_t* last);
  Status DeleteOldRecords(const Age& age, std::int64_t last);
  Status DeleteOldQuarantine(const Age& age, std::int64_t last_record);
  Status DeleteSpans(const std::vector<Span>& spans, std::string_view reason);
  Status DeleteQuarantine(const std::string& condition, std::string_view reason,
                          std::int64_t* deleted);
  Status DeleteArchive(const Archive& archive);
  Status DatabaseBytes(std::int64_t* bytes);

  Maintenance* const maintenance_;
  const std::string database_path_;
  void Note(Status status) {
    if (failure_.ok()) failure_ = std::move(status);
  }

  bool has_removed_ = false;
  Status failure_;
};

Status Retainer::DeleteArchive(const Archive& archive) {
  RETURN_IF_ERROR(DeleteFile(database_path_, archive));
  DeleteArchiveEvent event;
  event.archive_ = archive.path;
  NumberSet held;
  Transaction transaction(&connection());
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(SetState(&connection(), archive.id, ArchiveState::kDeleted));
  RETURN_IF_ERROR(AddHeld(&connection(), archive.first_record, archive.last_record, &held));
  RETURN_IF_ERROR(NoteMissing(&connection(), held.Others(archive.first_record, archive.last_record),
                              Absence::kRetention));
  RETURN_IF_ERROR(AddOwnRecord(&connection(), &event));
  return transaction.Commit();
}

Status Retainer::DeleteSpans(const std::vector<Span>& spans, std::string_view reason) {
  if (spans.empty()) return {};
  Transaction transaction(&connection());
  RETURN_IF_ERROR(transaction.Begin());
  for (const Span& span : spans) {
    std::int64_t removed = 0;
    RETURN_IF_ERROR(
        RemoveRecords(&connection(), span.first, span.last, Outcome::kDeleted, reason, &removed));
    RETURN_IF_ERROR(NoteMissing(&connection(), span.first, span.last, Absence::kRetention));
  }
  has_removed_ = true;
  RETURN_IF_ERROR(connection().Execute("PRAGMA incremental_vacuum"));
  return transaction.Commit();
}

Status Retainer::DeleteQuarantine(const std::string& condition, std::string_view reason,
                                  std::int64_t* deleted) {
  std::int64_t run = 0;
  Transaction transaction(&connection());
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(LatestRun(&connection(), &run));
  RETURN_IF_ERROR(
      connection().Execute("DELETE FROM quarantine WHERE id IN (SELECT id FROM "
                           "quarantine WHERE " +
                           condition + " ORDER BY id LIMIT " + std::to_string(kRowsAtOnce) + ")"));
  *deleted = connection().Changes();
  if (*deleted == 0) return {};
  has_removed_ = true;
  RETURN_IF_ERROR(Count(
      &connection(), {run, getuid(), Outcome::kDeleted, std::string(reason), *deleted, NowMs()}));
  RETURN_IF_ERROR(connection().Execute("PRAGMA incremental_vacuum"));
  return transaction.Commit();
}

// ---- By age ----

// A clock that is wrong now would delete what is young: one start in 2040 everything. It is
// believed when something was received by it from a day to a month ago. A device that lay in a
// drawer for years keeps what it has for one day more.
Status Retainer::IsClockPlausible(std::int64_t now_ms, bool* is_plausible) {
  std::int64_t found = 0;
  RETURN_IF_ERROR(connection().Read(
      "SELECT EXISTS (SELECT 1 FROM records WHERE received_ms BETWEEN " +
          std::to_string(now_ms - 30 * kDayMs) + " AND " + std::to_string(now_ms - kDayMs) +
          " ORDER BY id DESC) OR EXISTS (SELECT 1 FROM archives WHERE state = '" +
          std::string(NameOf(ArchiveState::kComplete)) + "' AND created_ms BETWEEN " +
          std::to_string(now_ms - 30 * kDayMs) + " AND " + std::to_string(now_ms - kDayMs) + ")",
      &found));
  *is_plausible = now_ms >= kEarliestMs && found != 0;
  return {};
}

// The last row of `sql`, which tells rows' ids, times and the numbers that they came with, in
// pieces, of which it can be believed that it is too old. Rows are in order: whatever is in front
// of that one is too old as well, though its time may tell nothing. So what came while the clock
// was wrong goes when something goes that came later.
Status Retainer::FindLastOld(const std::string& sql, const Age& age, std::int64_t* last) {
  std::int64_t latest_ms = 0;
  std::int64_t after = 0;
  *last = 0;
  for (std::int64_t rows = kRowsInPiece; rows == kRowsInPiece;) {
    Statement select;
    RETURN_IF_ERROR(connection().Prepare(sql, &select));
    select.Bind(1, after).Bind(2, kRowsInPiece);
    for (rows = 0; select.Step(); ++rows) {
      after = select.Int(0);
      const std::int64_t time_ms = select.Int(1);
      const bool is_believed = age.clock.Believes(select.Int(2), time_ms, &latest_ms);
      if (is_believed && time_ms < age.before_ms) *last = after;
    }
    RETURN_IF_ERROR(select.status());
    // What comes behind is young, or not to be believed.
    if (latest_ms >= age.before_ms + kDayMs) break;
  }
  return {};
}

Status Retainer::DeleteOldRecords(const Age& age, std::int64_t last) {
  std::int64_t after = 0;
  for (std::int64_t rows = kRowsInPiece; rows == kRowsInPiece;) {
    std::vector<Span> spans;
    Statement select;
    RETURN_IF_ERROR(connection().Prepare(
        "SELECT id, received_ms FROM records WHERE id > ? AND id <= ? ORDER BY id LIMIT ?",
        &select));
    select.Bind(1, after).Bind(2, last).Bind(3, kRowsInPiece);
    for (rows = 0; select.Step(); ++rows) {
      after = select.Int(0);
      if (age.IsYoung(select.Int(1))) continue;
      const bool follows = !spans.empty() && spans.back().last == after - 1 &&
                           spans.back().last - spans.back().first < kRowsAtOnce;
      if (follows) {
        spans.back().last = after;
      } else {
        spans.push_back({after, after});
      }
    }
    RETURN_IF_ERROR(select.status());
    select = Statement();
    RETURN_IF_ERROR(DeleteSpans(spans, kByAge));
  }
  return {};
}

// What is undecodable has no number: it came with the first record of its run, or later, and before
// the next run.
Status Retainer::DeleteOldQuarantine(const Age& age, std::int64_t last_record) {
  std::int64_t last = 0;
  RETURN_IF_ERROR(FindLastOld(
      "SELECT quarantine.id, received_ms, coalesce(first_record, 0) FROM quarantine "
      "LEFT JOIN runs ON runs.id = run WHERE quarantine.id > ? ORDER BY quarantine.id LIMIT ?",
      age, &last));
  const std::string condition =
      "(id <= " + std::to_string(last) +
      " OR run < (SELECT max(id) FROM runs WHERE boot <> '' AND first_record <= " +
      std::to_string(last_record) + ")) AND received_ms NOT BETWEEN " +
      std::to_string(age.before_ms) + " AND " + std::to_string(age.now_ms);
  for (std::int64_t deleted = 1; deleted > 0;) {
    RETURN_IF_ERROR(DeleteQuarantine(condition, kByAge, &deleted));
  }
  return {};
}

Status Retainer::ApplyAge(std::int64_t keep_days) {
  Age age;
  age.now_ms = NowMs();
  age.before_ms = age.now_ms - keep_days * kDayMs;
  bool is_plausible = false;
  RETURN_IF_ERROR(IsClockPlausible(age.now_ms, &is_plausible));
  if (!is_plausible) return {};
  std::int64_t last = 0;
  std::vector<Archive> archives;
  RETURN_IF_ERROR(age.clock.Read(&connection(), age.now_ms));
  RETURN_IF_ERROR(FindLastOld(
      "SELECT id, received_ms, id FROM records WHERE id > ? ORDER BY id LIMIT ?", age, &last));
  RETURN_IF_ERROR(ReadArchives(&connection(), ArchiveState::kComplete, &archives));
  for (const Archive& archive : archives) {
    std::int64_t latest_ms = 0;  // one that was recovered may be younger than those behind it
    const bool is_believed =
        age.clock.Believes(archive.last_record, archive.created_ms, &latest_ms);
    if (is_believed && archive.created_ms < age.before_ms) {
      last = std::max(last, archive.last_record);
    }
  }
  for (const Archive& archive : archives) {
    if (archive.last_record > last || age.IsYoung(archive.created_ms)) continue;
    Note(DeleteArchive(archive));
  }
  RETURN_IF_ERROR(DeleteOldRecords(age, last));
  return DeleteOldQuarantine(age, last);
}

// ---- By size ----

// The bytes of the pages in use.
Status Retainer::DatabaseBytes(std::int64_t* bytes) {
  return connection().Read(
      "SELECT (page_count - freelist_count) * page_size "
      "FROM pragma_page_count, pragma_freelist_count, pragma_page_size",
      bytes);
}

Status Retainer::ApplySize(std::int64_t max_bytes) {
  std::vector<Archive> archives;
  std::int64_t bytes = 0;
  RETURN_IF_ERROR(ReadArchives(&connection(), ArchiveState::kComplete, &archives));
  RETURN_IF_ERROR(DatabaseBytes(&bytes));
  for (const Archive& archive : archives) bytes += archive.bytes;
  for (const Archive& archive : archives) {
    if (bytes <= max_bytes) return {};
    Note(DeleteArchive(archive));
    bytes -= archive.bytes;
  }
  for (;;) {
    RETURN_IF_ERROR(DatabaseBytes(&bytes));
    if (bytes <= max_bytes) return {};
    std::int64_t quarantine_is_older = 0;
    RETURN_IF_ERROR(connection().Read(
        "SELECT coalesce((SELECT received_ms FROM quarantine ORDER BY id LIMIT 1) < "
        "coalesce((SELECT received_ms FROM records ORDER BY id LIMIT 1), 9e18), 0)",
        &quarantine_is_older));
    if (quarantine_is_older != 0) {
      std::int64_t deleted = 0;
      RETURN_IF_ERROR(DeleteQuarantine("1", kBySize, &deleted));
      continue;
    }
    Span span;
    RETURN_IF_ERROR(connection().Read("SELECT coalesce(min(id), 0) FROM records", &span.first));
    if (span.first == 0) return {};
    RETURN_IF_ERROR(
        connection().Read("SELECT max(id) FROM (SELECT id FROM records ORDER BY id LIMIT " +
                              std::to_string(kRowsAtOnce) + ")",
                          &span.last));
    RETURN_IF_ERROR(DeleteSpans({span}, kBySize));
  }
}

}  // namespace

Status ApplyRetention(const std::string& database_path, const Retention& retention) {
  Maintenance maintenance;
  RETURN_IF_ERROR(Maintenance::Open(database_path, &maintenance));
  Retainer retainer(&maintenance, database_path);
  Status status;
  if (retention.keep_days > 0) status = retainer.ApplyAge(retention.keep_days);
  if (status.ok() && retention.max_bytes > 0) status = retainer.ApplySize(retention.max_bytes);
  if (retainer.has_removed()) maintenance.GiveBackSpace();
  return status.ok() ? retainer.failure() : status;
}

}  // namespace velmora::usage_stat::store
