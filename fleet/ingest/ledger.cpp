#include "fleet/ingest/ledger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <utility>
#include <variant>

#include "fleet/batch/shapes.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::fleet {

using base::Status;

namespace {

// Malformed messages that are kept of each device, so that nobody can fill the disk with them.
constexpr int kKeptRejections = 10;

std::string_view View(const Id& id) {
  return {reinterpret_cast<const char*>(id.data()), id.size()};
}

std::string ReasonName(Reason reason) {
  switch (reason) {
    case Reason::kRetention:
      return "retention";
    case Reason::kErased:
      return "erased";
    case Reason::kUnreadable:
      return "unreadable";
    case Reason::kWithheld:
      return "withheld";
    case Reason::kNeverUsed:
      return "never used";
  }
  return "reason " + std::to_string(static_cast<int>(reason));
}

// A text that the database could not hold, mended.
void Mend(records::Json* json) {
  if (json->is_structured()) {
    for (records::Json& item : *json) Mend(&item);
  } else if (json->is_string()) {
    std::string text = base::ToUtf8(json->get_ref<const std::string&>());
    constexpr std::string_view kReplacement = "\xef\xbf\xbd";
    for (auto at = text.find('\0'); at != std::string::npos; at = text.find('\0', at)) {
      text.replace(at, 1, kReplacement);
    }
    *json = std::move(text);
  }
}

// Puts null where the policy dropped a value.
void Blank(const records::RecordType& type, std::string_view actions, records::Json* values) {
  const auto blank = [actions](std::size_t field, records::Json* value) {
    const bool dropped =
        field < actions.size() && actions[field] == static_cast<char>(Action::kDrop);
    if (dropped) *value = nullptr;
  };
  for (std::size_t i = 0; i < type.slots.size() && i < values->size(); ++i) {
    const records::Slot& slot = type.slots[i];
    if (!slot.is_list) {
      blank(slot.first, &(*values)[i]);
      continue;
    }
    for (records::Json& row : (*values)[i]) {
      for (std::size_t column = 0; column < row.size(); ++column) {
        blank(slot.first + column, &row[column]);
      }
    }
  }
}

// What a record becomes in the database: its class and values, or why it stays in quarantine.
struct Reading {
  std::string event;
  std::string fields;
  std::string damage;
};

Reading Read(const std::string& datagram, std::string_view actions) {
  Reading reading;
  const auto decoded = records::Decode(datagram);
  if (const auto* damage = std::get_if<records::Damage>(&decoded)) {
    reading.damage = damage->reason;
  } else {
    records::Json values = std::get<records::Record>(decoded).values;
    reading.event = std::get<records::Record>(decoded).event;
    Mend(&values);
    if (const auto* type = records::FindEvent(reading.event)) Blank(*type, actions, &values);
    reading.fields = records::Dump(values);
#ifdef USAGE_STAT_UNKNOWN_EVENT
    // An earlier version, for a trial of what becomes of records that it does not know.
    if (reading.event == USAGE_STAT_UNKNOWN_EVENT) reading = {"", "", "of an unknown type"};
#endif
  }
  return reading;
}

// A row of records; a day is counted from the first of the year 2000.
struct RecordRow {
  std::uint64_t number;
  std::int64_t time_ms;
  std::int64_t device;
  std::int64_t store;
  std::int64_t day;
  std::int64_t event;
  std::int64_t level;
};

constexpr const char* kRecordColumns =
    "records(number, time_ms, device, store, day, event, level, fields, payload)";

void PutRecord(const RecordRow& row, std::string_view fields, std::string_view payload,
               CopyRows* out) {
  constexpr int kColumns = 9;
  out->Begin(kColumns);
  out->Int64(static_cast<std::int64_t>(row.number));
  out->Int64(row.time_ms);
  out->Int32(row.device);
  out->Int32(row.store);
  out->Int32(row.day);
  out->Int16(row.event);
  out->Int16(row.level);
  out->Bytes(fields);
  out->Bytes(payload);
}

}  // namespace

// The devices of a transaction that the fleet has not forgotten, and the day.
struct Ledger::Entered {
  std::map<std::string, std::int64_t> devices;
  std::string day;
  std::int64_t day_number = 0;  // since the first of the year 2000
};

// A store's cursor while its row is locked.
struct Ledger::Store {
  std::int64_t id = 0;
  std::int64_t device = 0;
  std::uint64_t first = 1;
  std::uint64_t cursor = 0;
  std::string last_batch;
  std::string recent;       // ids of batches and questions, the newest last
  std::int64_t stored = 0;  // added by this transaction, like the next two
  std::int64_t quarantined = 0;
  std::int64_t forks = 0;
  int level = -1;  // of the last batch in this transaction; questions have none
  bool changed = false;

  // Notes that `asked`, a batch or a question, was answered well.
  void Remember(const Id& asked) {
    constexpr std::size_t kRemembered = 32;
    recent += View(asked);
    if (recent.size() > kRemembered * asked.size()) recent.erase(0, asked.size());
    changed = true;
  }
  bool Remembers(const Id& asked) const {
    for (std::size_t at = 0; at < recent.size(); at += asked.size()) {
      if (std::string_view(recent).substr(at, asked.size()) == View(asked)) return true;
    }
    return false;
  }
};

// The deliveries of one transaction, read.
struct Ledger::Pending {
  struct One {
    const Delivery* delivery;
    Decoded decoded;
    bool is_forget = false;
    Id request{};
  };
  std::vector<One> all;
};

Status Ledger::Open(const std::string& conninfo, const std::string& tombstones, Ledger* ledger) {
  ledger->tombstones_ = tombstones;
  RETURN_IF_ERROR(Database::Open(conninfo, &ledger->database_));
  RETURN_IF_ERROR(PrepareSchema(&ledger->database_));
  RETURN_IF_ERROR(LoadEvents(&ledger->database_, &ledger->events_));
  RETURN_IF_ERROR(ledger->ChooseSlot());
  ledger->day_.clear();
  return ledger->ApplyTombstones();
}

// Counters have a row for each ingester at work, so that none waits for another.
Status Ledger::ChooseSlot() {
  constexpr int kLock = 20818;
  constexpr int kMostIngesters = 1000;
  for (slot_ = 0; slot_ < kMostIngesters; ++slot_) {
    Rows rows;
    RETURN_IF_ERROR(database_.Run("SELECT pg_try_advisory_lock($1::int, $2::int)",
                                  {std::to_string(kLock), std::to_string(slot_)}, &rows));
    if (rows.Text(0, 0) == "t") return {};
  }
  return Status::Failed("too many ingesters");
}

// Begins the transaction that takes `pending`: locks its devices and gives them rows. Whoever
// forgets a device holds the same lock, so that nothing of it can arrive meanwhile. The values that
// stand in the statements are digits, checked before.
Status Ledger::EnterDevices(const Pending& pending, Transaction* transaction, Entered* entered) {
  std::set<std::string> unique;
  for (const auto& one : pending.all) unique.insert(one.delivery->name);
  const std::string names =
      "unnest('" + ArrayOf({unique.begin(), unique.end()}) + "'::text[]) AS n";
  Rows rows;
  RETURN_IF_ERROR(transaction->Begin(
      "SELECT pg_advisory_xact_lock(h) FROM (SELECT DISTINCT hashtextextended(n, 0) AS h FROM " +
          names +
          " ORDER BY h) s;"
          "INSERT INTO devices(name) SELECT n FROM " +
          names +
          " WHERE NOT EXISTS (SELECT FROM devices WHERE name = n) "
          "AND NOT EXISTS (SELECT FROM forgotten WHERE name = n) ORDER BY n;"
          "SELECT n, d.id, (now() AT TIME ZONE 'UTC')::date, "
          "(now() AT TIME ZONE 'UTC')::date - '2000-01-01'::date FROM " +
          names + " LEFT JOIN devices d ON d.name = n",
      &rows));
  for (int row = 0; row < rows.size(); ++row) {
    if (!rows.IsNull(row, 1)) entered->devices.emplace(rows.Text(row, 0), rows.Int(row, 1));
    entered->day = rows.Text(row, 2);
    entered->day_number = rows.Int(row, 3);
  }
  return {};
}

// Locks the cursors of all stores that are named, and makes those that are new.
Status Ledger::EnterStores(const Pending& pending, const Entered& entered, Stores* stores) {
  std::string wanted;
  for (const auto& one : pending.all) {
    const auto device = entered.devices.find(one.delivery->name);
    if (one.decoded.verdict != Verdict::kGood || device == entered.devices.end()) continue;
    const Batch& batch = one.decoded.batch;
    Store& store = (*stores)[{one.delivery->name, batch.store}];
    if (store.device != 0) continue;
    store.device = device->second;
    wanted += (wanted.empty() ? "(" : ",(") + std::to_string(store.device) + ",'\\x" +
              ToText(batch.store) + "'::bytea," + std::to_string(batch.store_first) + "::bigint)";
  }
  if (wanted.empty()) return {};
  wanted = "(VALUES " + wanted + ") AS n(d, k, f) ";
  Rows rows;
  RETURN_IF_ERROR(database_.Execute(
      "INSERT INTO stores(device, store_id, first, cursor) SELECT d, k, f, f - 1 FROM " + wanted +
          "WHERE NOT EXISTS (SELECT FROM stores WHERE device = d AND store_id = k) "
          "ORDER BY d, k;"
          "SELECT d.name, s.store_id, s.id, s.first, s.cursor, s.last_batch, s.recent FROM " +
          wanted +
          "JOIN stores s ON s.device = n.d AND s.store_id = n.k "
          "JOIN devices d ON d.id = s.device ORDER BY s.id FOR UPDATE OF s",
      &rows));
  for (int row = 0; row < rows.size(); ++row) {
    Id key{};
    std::ranges::copy(rows.Bytes(row, 1), key.begin());
    Store& store = (*stores)[{std::string(rows.Text(row, 0)), key}];
    store.id = rows.Int(row, 2);
    store.first = static_cast<std::uint64_t>(rows.Int(row, 3));
    store.cursor = static_cast<std::uint64_t>(rows.Int(row, 4));
    store.last_batch = rows.Bytes(row, 5);
    store.recent = rows.Bytes(row, 6);
  }
  return {};
}

Status Ledger::Reject(std::int64_t device, const std::string& problem, const std::string& message) {
  const std::string id = std::to_string(device);
  RETURN_IF_ERROR(database_.Run("UPDATE devices SET refused = refused + 1 WHERE id = $1", {id}));
  return database_.Run(
      "INSERT INTO rejected(device, reason, message) SELECT $1::int, $2, $3::bytea "
      "WHERE (SELECT count(*) FROM rejected WHERE device = $1::int) < $4::int",
      {id, problem, ByteaOf(message), std::to_string(kKeptRejections)});
}

// What moves the cursors that were changed.
std::string Ledger::SaveStatement(const Stores& stores) {
  std::string rows;
  for (const auto& [key, store] : stores) {
    if (!store.changed) continue;
    rows += (rows.empty() ? "(" : ",(") + std::to_string(store.id) + "," +
            std::to_string(store.device) + "," + std::to_string(store.cursor) + ",'" +
            ByteaOf(store.last_batch) + "'::bytea,'" + ByteaOf(store.recent) + "'::bytea," +
            std::to_string(store.stored) + "," + std::to_string(store.quarantined) + "," +
            std::to_string(store.forks) + "," + std::to_string(store.level) + ")";
  }
  if (rows.empty()) return {};
  rows = " FROM (VALUES " + rows +
         ") AS n(id, device, cursor, last, recent, stored, quarantined, forks, level) ";
  return "UPDATE stores s SET cursor = n.cursor, last_batch = nullif(n.last, ''), "
         "recent = n.recent, stored = s.stored + n.stored, quarantined = s.quarantined + "
         "n.quarantined, "
         "forks = s.forks + n.forks" +
         rows +
         "WHERE s.id = n.id;"
         "UPDATE devices d SET last_seen = now(), level = CASE WHEN n.level < 0 THEN d.level ELSE "
         "n.level END" +
         rows + "WHERE d.id = n.device;";
}

// What adds to the counters of this ingester.
std::string Ledger::CountStatement(const std::string& day, const Tallies& tallies) const {
  std::string rows;
  for (const auto& [outcome, tally] : tallies) {
    if (!rows.empty()) rows += ',';
    rows.append("('").append(day).append("',").append(std::to_string(slot_));
    rows.append(",'").append(NameOf(outcome)).append("',").append(std::to_string(tally.batches));
    rows.append(",").append(std::to_string(tally.records)).append(")");
  }
  return "INSERT INTO ingestion VALUES " + rows +
         " ON CONFLICT(day, ingester, outcome) DO UPDATE SET "
         "batches = ingestion.batches + excluded.batches, "
         "records = ingestion.records + excluded.records;";
}

Status Ledger::Attempt(const std::vector<Delivery>& deliveries, std::vector<Reply>* replies) {
  Pending pending;
  for (const Delivery& delivery : deliveries) {
    Pending::One one{&delivery, {}};
    one.is_forget = DecodeForget(delivery.message, &one.request);
    if (!one.is_forget) one.decoded = Decode(delivery.message);
    // Its integers are signed, and have one bit less.
    if (one.decoded.batch.through > static_cast<std::uint64_t>(INT64_MAX)) {
      one.decoded.verdict = Verdict::kMalformed;
      one.decoded.problem = "the interval ends too late";
    }
    pending.all.push_back(std::move(one));
  }

  Transaction transaction(&database_);
  Entered entered;
  Stores stores;
  RETURN_IF_ERROR(EnterDevices(pending, &transaction, &entered));
  if (entered.day != day_) {
    RETURN_IF_ERROR(transaction.Commit());
    RETURN_IF_ERROR(PreparePartition(&database_, entered.day));
    day_ = entered.day;
    return Attempt(deliveries, replies);
  }
  RETURN_IF_ERROR(EnterStores(pending, entered, &stores));
  const std::int64_t day = entered.day_number;

  CopyRows record_rows;
  CopyRows missing_rows;
  CopyRows step_rows;
  CopyRows quarantine_rows;
  Tallies tallies;
  const auto append = [&](const Batch& batch, Store* store) {
    for (const BatchRecord& record : batch.records) {
      const Shape& shape = batch.shapes[record.shape];
      const Reading reading = Read(DatagramOf(batch, record), shape.actions);
      const auto event = events_.find(reading.event);
      if (reading.damage.empty() && event != events_.end()) {
        PutRecord({record.number, record.timestamp_ms, store->device, store->id, day, event->second,
                   static_cast<int>(batch.level)},
                  reading.fields, record.payload, &record_rows);
        ++store->stored;
        continue;
      }
      quarantine_rows.Begin(10);
      quarantine_rows.Int32(store->device);
      quarantine_rows.Int32(store->id);
      quarantine_rows.Int32(day);
      quarantine_rows.Int64(static_cast<std::int64_t>(record.number));
      quarantine_rows.Int64(record.timestamp_ms);
      quarantine_rows.Int16(shape.type);
      quarantine_rows.Int16(static_cast<int>(batch.level));
      quarantine_rows.Bytes(shape.actions);
      quarantine_rows.Bytes(record.payload);
      quarantine_rows.Bytes(reading.damage);
      ++store->quarantined;
    }
    for (const Run& run : batch.runs) {
      missing_rows.Begin(6);
      missing_rows.Int32(store->device);
      missing_rows.Int32(store->id);
      missing_rows.Int32(day);
      missing_rows.Int64(static_cast<std::int64_t>(run.first));
      missing_rows.Int64(static_cast<std::int64_t>(run.last));
      missing_rows.Bytes(ReasonName(run.reason));
    }
    for (const ClockStep& step : batch.clock_steps) {
      step_rows.Begin(4);
      step_rows.Int32(store->device);
      step_rows.Int32(store->id);
      step_rows.Int64(static_cast<std::int64_t>(step.record));
      step_rows.Int64(step.step_ms);
    }
  };

  for (const Pending::One& one : pending.all) {
    const Batch& batch = one.decoded.batch;
    const std::string& name = one.delivery->name;
    Reply reply{name, {batch.id, Answer::kRefused, batch.store, 0}};
    Outcome outcome{};
    const auto device = entered.devices.find(name);
    if (device == entered.devices.end()) {
      if (one.is_forget) reply.receipt.batch = one.request;
      reply.receipt.answer = Answer::kForgotten;
      outcome = Outcome::kForgotten;
    } else if (one.decoded.verdict == Verdict::kNewer) {
      reply.receipt = {{}, Answer::kLater, {}, 0};
      outcome = Outcome::kLater;
    } else if (one.decoded.verdict != Verdict::kGood) {
      reply.receipt = {{}, Answer::kRefused, {}, 0};
      outcome = Outcome::kMalformed;
      RETURN_IF_ERROR(Reject(device->second, one.decoded.problem, one.delivery->message));
    } else {
      Store& store = stores.at({name, batch.store});
      if (!batch.is_question()) store.level = static_cast<int>(batch.level);
      if (store.last_batch == View(batch.id)) {
        reply.receipt.answer = Answer::kStored;
        outcome = Outcome::kRepeated;
      } else if (batch.after == store.cursor && batch.is_question()) {
        reply.receipt.answer = Answer::kCursor;
        outcome = Outcome::kQuestion;
        store.Remember(batch.id);
      } else if (batch.after == store.cursor) {
        append(batch, &store);
        store.cursor = batch.through;
        store.last_batch = View(batch.id);
        reply.receipt.answer = Answer::kStored;
        outcome = Outcome::kStored;
        tallies[outcome].records += batch.records.size();
        store.Remember(batch.id);
      } else if (batch.after > store.cursor) {
        reply.receipt.answer = Answer::kCursor;
        outcome = Outcome::kCursor;
      } else if (store.Remembers(batch.id)) {
        // Where every ingester sees every batch, one may come to it late, when the device has gone
        // on with the answer of another. That is no copy of the store.
        reply.receipt.answer = batch.is_question() ? Answer::kCursor : Answer::kStored;
        outcome = Outcome::kRepeated;
      } else {
        ++store.forks;
        reply.receipt.answer = Answer::kForked;
        outcome = Outcome::kForked;
        store.changed = true;
      }
      reply.receipt.cursor = store.cursor;
    }
    ++tallies[outcome].batches;
    replies->push_back(std::move(reply));
  }

  RETURN_IF_ERROR(database_.Copy(kRecordColumns, record_rows));
  RETURN_IF_ERROR(database_.Copy("missing(device, store, day, first, last, reason)", missing_rows));
  RETURN_IF_ERROR(database_.Copy("clock_steps(device, store, number, step_ms)", step_rows));
  RETURN_IF_ERROR(database_.Copy(
      "quarantine(device, store, day, number, time_ms, type, level, actions, payload, reason)",
      quarantine_rows));
  RETURN_IF_ERROR(transaction.Commit(SaveStatement(stores) + CountStatement(day_, tallies)));
  for (const auto& [outcome, tally] : tallies) {
    tallies_[outcome].batches += tally.batches;
    tallies_[outcome].records += tally.records;
  }
  return {};
}

Status Ledger::Take(const std::vector<Delivery>& deliveries, std::vector<Reply>* replies) {
  replies->clear();
  // Requests to be forgotten take their own road, before what came along with them is looked at.
  for (const Delivery& delivery : deliveries) {
    Id request{};
    if (DecodeForget(delivery.message, &request)) RETURN_IF_ERROR(Forget(delivery.name));
  }
  Status status = Attempt(deliveries, replies);
  if (status.ok() || deliveries.size() == 1 || !database_.is_connected()) return status;
  // One of them is to blame, and must not keep the others from getting through.
  replies->clear();
  for (const Delivery& delivery : deliveries) {
    std::vector<Reply> own;
    status = Attempt({delivery}, &own);
    if (!database_.is_connected()) return status;
    if (status.ok()) std::ranges::move(own, std::back_inserter(*replies));
  }
  return {};
}

Status Ledger::Replay(std::int64_t* released) {
  *released = 0;
  constexpr int kAtOnce = 1000;
  std::string today;
  RETURN_IF_ERROR(Today(&database_, &today));
  RETURN_IF_ERROR(PreparePartition(&database_, today));
  for (std::int64_t last_id = 0;;) {
    Transaction transaction(&database_);
    Rows rows;
    RETURN_IF_ERROR(transaction.Begin());
    RETURN_IF_ERROR(database_.Run(
        "SELECT q.id, q.device, q.store, q.number, q.time_ms, q.type, q.level, q.actions, "
        "q.payload, $3::date - '2000-01-01'::date FROM quarantine q WHERE id > $1::bigint "
        "ORDER BY id LIMIT $2::int FOR UPDATE SKIP LOCKED",
        {std::to_string(last_id), std::to_string(kAtOnce), today}, &rows));
    if (rows.size() == 0) return {};
    CopyRows record_rows;
    std::vector<std::string> ids;
    for (int row = 0; row < rows.size(); ++row) {
      last_id = rows.Int(row, 0);
      Batch batch;
      batch.shapes.push_back({static_cast<std::int16_t>(rows.Int(row, 5)), "r", ""});
      const BatchRecord record{0, 0, rows.Int(row, 4), rows.Bytes(row, 8)};
      const Reading reading = Read(DatagramOf(batch, record), rows.Bytes(row, 7));
      const auto event = events_.find(reading.event);
      if (!reading.damage.empty() || event == events_.end()) continue;
      PutRecord(
          {static_cast<std::uint64_t>(rows.Int(row, 3)), record.timestamp_ms, rows.Int(row, 1),
           rows.Int(row, 2), rows.Int(row, 9), event->second, rows.Int(row, 6)},
          reading.fields, record.payload, &record_rows);
      ids.emplace_back(rows.Text(row, 0));
    }
    if (ids.empty()) continue;
    RETURN_IF_ERROR(database_.Copy(kRecordColumns, record_rows));
    RETURN_IF_ERROR(database_.Run(
        "WITH gone AS (DELETE FROM quarantine WHERE id = ANY($1::bigint[]) RETURNING store), "
        "sums AS (SELECT store, count(*) AS n FROM gone GROUP BY store) "
        "UPDATE stores SET stored = stored + n, quarantined = quarantined - n "
        "FROM sums WHERE stores.id = sums.store",
        {ArrayOf(ids)}));
    RETURN_IF_ERROR(transaction.Commit());
    *released += static_cast<std::int64_t>(ids.size());
  }
}

// ---- Forgetting ----

namespace {

// Adds `names`, each a line, to the file of tombstones and brings them to the disk. The file is
// made when it is missing.
Status Entomb(const std::string& path, const std::string& names) {
  const base::Descriptor file(
      open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR));
  std::string lines = names;
  if (file.is_open()) {
    // A line that a full disk cut short must not spoil the next.
    char last = '\n';
    const off_t end = lseek(file.get(), 0, SEEK_END);
    if (end > 0 && pread(file.get(), &last, 1, end - 1) == 1 && last != '\n') lines.insert(0, "\n");
  }
  if (!file.is_open() ||
      write(file.get(), lines.data(), lines.size()) != static_cast<ssize_t>(lines.size()) ||
      fsync(file.get()) != 0) {
    return Status::Errno("cannot write the tombstones in " + path);
  }
  const std::string folder = path.substr(0, path.find_last_of('/') + 1);
  const base::Descriptor directory(
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.is_open() || fsync(directory.get()) != 0) {
    return Status::Errno("cannot bring the tombstones in " + path + " to the disk");
  }
  return {};
}

}  // namespace

Status Ledger::Forget(const std::string& name) {
  if (!tombstones_.empty()) RETURN_IF_ERROR(Entomb(tombstones_, name + "\n"));
  return Delete(name);
}

Status Ledger::Delete(const std::string& name) {
  Transaction transaction(&database_);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(database_.Run("SELECT pg_advisory_xact_lock(hashtextextended($1, 0))", {name}));
  RETURN_IF_ERROR(
      database_.Run("INSERT INTO forgotten(name) VALUES($1) ON CONFLICT DO NOTHING", {name}));
  for (const char* table : {"records", "quarantine"}) {
    const std::string sql = std::string("DELETE FROM ") + table +
                            " WHERE device IN (SELECT id FROM devices WHERE name = $1)";
    RETURN_IF_ERROR(database_.Run(sql.c_str(), {name}));
  }
  RETURN_IF_ERROR(database_.Run("DELETE FROM devices WHERE name = $1", {name}));
  return transaction.Commit();
}

// A database that was restored from a dump may know devices that were forgotten since. The other
// way round, names come into the file that an ingester with another file has buried.
Status Ledger::ApplyTombstones() {
  if (tombstones_.empty()) return {};
  RETURN_IF_ERROR(Entomb(tombstones_, ""));
  Rows rows;
  RETURN_IF_ERROR(database_.Run("SELECT name FROM forgotten", {}, &rows));
  std::set<std::string> known;
  for (int row = 0; row < rows.size(); ++row) known.emplace(rows.Text(row, 0));
  std::ifstream file(tombstones_);
  std::set<std::string> buried;
  for (std::string name; std::getline(file, name);) {
    Id id{};
    if (FromText(name, &id)) buried.insert(name);
  }
  if (!file.eof() || file.bad()) {
    return Status::Failed("cannot read the tombstones in " + tombstones_);
  }
  std::string unburied;
  for (const std::string& name : known) {
    if (!buried.contains(name)) unburied.append(name).append("\n");
  }
  if (!unburied.empty()) RETURN_IF_ERROR(Entomb(tombstones_, unburied));
  for (const std::string& name : buried) {
    if (!known.contains(name)) RETURN_IF_ERROR(Delete(name));
  }
  return {};
}

Status Ledger::Retire(std::int64_t days, std::int64_t* dropped, std::int64_t* kept) {
  *dropped = *kept = 0;
  Rows rows;
  RETURN_IF_ERROR(database_.Run(
      "SELECT c.relname, coalesce(e.records, -1) FROM pg_inherits i JOIN pg_class c ON "
      "c.oid = i.inhrelid "
      "LEFT JOIN exports e ON c.relname = 'records_' || to_char(e.day, 'YYYYMMDD') "
      "WHERE i.inhparent = 'records'::regclass AND c.relname < 'records_' || "
      "to_char((now() AT TIME ZONE 'UTC')::date - $1::int, 'YYYYMMDD')",
      {std::to_string(days)}, &rows));
  for (int row = 0; row < rows.size(); ++row) {
    // In one transaction, so that what is counted is what goes. Fewer than were exported are fine:
    // somebody was forgotten. More would be lost.
    const std::string table(rows.Text(row, 0));
    const std::int64_t exported = rows.Int(row, 1);
    Transaction transaction(&database_);
    Rows count;
    RETURN_IF_ERROR(transaction.Begin());
    if (exported >= 0) {
      RETURN_IF_ERROR(database_.Run("SELECT to_regclass($1) IS NULL", {table}, &count));
      if (count.Text(0, 0) == "t") continue;
      RETURN_IF_ERROR(database_.Execute("LOCK TABLE " + table + " IN ACCESS EXCLUSIVE MODE"));
      RETURN_IF_ERROR(database_.Execute("SELECT count(*) FROM " + table, &count));
    }
    if (exported < 0 || count.Int(0, 0) > exported) {
      ++*kept;
      continue;
    }
    RETURN_IF_ERROR(database_.Execute("DROP TABLE " + table));
    RETURN_IF_ERROR(transaction.Commit());
    ++*dropped;
  }
  return {};
}

}  // namespace velmora::usage_stat::fleet
