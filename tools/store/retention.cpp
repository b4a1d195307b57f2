#include "tools/store/retention.h"

#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "src/events/device_events.h"
#include "tools/store/archive.h"
#include "tools/store/ledger.h"
#include "tools/store/maintenance.h"

namespace velmora::usage_stat::store {

namespace {

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
  Status ReadDoubtful(std::vector<Span>* doubtful);
  Status DeleteOldRecords(std::int64_t before_ms);
  Status DeleteOldQuarantine(std::int64_t before_ms);
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
  Transaction transaction(&connection());
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(SetState(&connection(), archive.id, ArchiveState::kDeleted));
  RETURN_IF_ERROR(
      NoteMissing(&connection(), archive.first_record, archive.last_record, Absence::kRetention));
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

// What came before the clock was set, since its collector was started, has a wrong time.
Status Retainer::ReadDoubtful(std::vector<Span>* doubtful) {
  Statement select;
  RETURN_IF_ERROR(connection().Prepare(
      "SELECT coalesce((SELECT max(first_record) FROM runs WHERE first_record <= record), 0), "
      "record - 1 FROM clock_steps",
      &select));
  while (select.Step()) doubtful->push_back({select.Int(0), select.Int(1)});
  return select.status();
}

Status Retainer::DeleteOldRecords(std::int64_t before_ms) {
  constexpr std::int64_t kRowsInPiece = 1000;
  std::vector<Span> doubtful;
  RETURN_IF_ERROR(ReadDoubtful(&doubtful));
  const auto is_doubtful = [&doubtful](std::int64_t id) {
    for (const Span& span : doubtful) {
      if (id >= span.first && id <= span.last) return true;
    }
    return false;
  };
  // In pieces, so that neither memory nor a transaction grows with the database.
  std::int64_t after = 0;
  for (std::int64_t rows = kRowsInPiece; rows == kRowsInPiece;) {
    std::vector<Span> spans;
    Statement select;
    RETURN_IF_ERROR(connection().Prepare(
        "SELECT id, received_ms FROM records WHERE id > ? ORDER BY id LIMIT ?", &select));
    select.Bind(1, after).Bind(2, kRowsInPiece);
    for (rows = 0; select.Step(); ++rows) {
      after = select.Int(0);
      const std::int64_t received_ms = select.Int(1);
      if (received_ms < kEarliestMs || received_ms >= before_ms || is_doubtful(after)) continue;
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

Status Retainer::DeleteOldQuarantine(std::int64_t before_ms) {
  const std::string condition = "received_ms BETWEEN " + std::to_string(kEarliestMs) + " AND " +
                                std::to_string(before_ms - 1);
  for (std::int64_t deleted = 1; deleted > 0;) {
    RETURN_IF_ERROR(DeleteQuarantine(condition, kByAge, &deleted));
  }
  return {};
}

Status Retainer::ApplyAge(std::int64_t keep_days) {
  const std::int64_t now_ms = NowMs();
  const std::int64_t before_ms = now_ms - keep_days * kDayMs;
  bool is_plausible = false;
  RETURN_IF_ERROR(IsClockPlausible(now_ms, &is_plausible));
  if (!is_plausible) return {};
  std::vector<Archive> archives;
  RETURN_IF_ERROR(ReadArchives(&connection(), ArchiveState::kComplete, &archives));
  for (const Archive& archive : archives) {
    if (archive.created_ms >= before_ms || archive.created_ms < kEarliestMs) continue;
    Note(DeleteArchive(archive));
  }
  RETURN_IF_ERROR(DeleteOldRecords(before_ms));
  return DeleteOldQuarantine(before_ms);
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
