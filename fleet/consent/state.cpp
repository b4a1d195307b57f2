#include "fleet/consent/state.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "tools/base/system.h"
#include "tools/store/file.h"

namespace velmora::usage_stat::consent {

using base::Status;

namespace {

constexpr int kApplicationId = 0x5573756C;  // "Usul"
constexpr int kSchemaVersion = 1;

// A rollback journal, not a write-ahead log: reading the file then leaves nothing behind, and its
// few writes matter more than their speed. What is deleted is overwritten.
constexpr const char* kPragmas =
    "PRAGMA journal_mode=DELETE; PRAGMA synchronous=EXTRA; PRAGMA secure_delete=ON;";

constexpr const char* kTables = R"sql(
CREATE TABLE standing(level TEXT NOT NULL, policy BLOB NOT NULL, since_ms INTEGER NOT NULL);
CREATE TABLE policies(id BLOB PRIMARY KEY, rules TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE consent(
  store BLOB NOT NULL,
  first INTEGER NOT NULL,
  level TEXT NOT NULL,
  policy BLOB NOT NULL,
  since_ms INTEGER NOT NULL,  -- what was received before does not count; 0 once that is settled
  PRIMARY KEY(store, first)) WITHOUT ROWID;
CREATE TABLE stores_seen(store BLOB PRIMARY KEY, next INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE identity(name BLOB NOT NULL, key BLOB NOT NULL);
CREATE TABLE forgetting(since_ms INTEGER NOT NULL);
)sql";

std::string_view BytesOf(const fleet::Id& id) {
  return {reinterpret_cast<const char*>(id.data()), id.size()};
}

template <std::size_t kSize>
bool Assign(std::string_view bytes, std::array<std::uint8_t, kSize>* array) {
  if (bytes.size() != kSize) return false;
  std::copy(bytes.begin(), bytes.end(), array->begin());
  return true;
}

Status Draw(std::uint8_t* bytes, std::size_t size) {
  return RAND_bytes(bytes, static_cast<int>(size)) == 1
             ? Status()
             : Status::Failed("the system gives no random numbers");
}

std::set<std::string, std::less<>> KnownStores(store::Connection* connection, Status* status) {
  std::set<std::string, std::less<>> known;
  store::Statement select;
  *status = connection->Prepare("SELECT DISTINCT store FROM consent", &select);
  if (!status->ok()) return known;
  while (select.Step()) known.emplace(select.Text(0));
  *status = select.status();
  return known;
}

// What is being removed has this name, so that one that was killed at it goes on the next time.
std::string GonePath(const std::string& path) { return path + ".gone"; }

}  // namespace

Status State::Open(const std::string& path, Mode mode, std::unique_ptr<State>* state) {
  state->reset(new State);
  State& opened = **state;
  opened.path_ = path;
  struct stat found {};
  RETURN_IF_ERROR(store::ShredFile(GonePath(path)));
  const bool is_there = stat(path.c_str(), &found) == 0 && found.st_size > 0;
  if (!is_there && mode == Mode::kRead) {
    return errno == ENOENT || errno == 0 ? Status() : Status::Errno("cannot open " + path);
  }
  if (mode == Mode::kWrite && !is_there) {
    const base::Descriptor file(
        open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file.is_open()) return Status::Errno("cannot create " + path);
  }
  // A process that was killed while it wrote left a journal of what has to be taken back first,
  // which a reader can't do.
  if (mode == Mode::kRead && access((path + "-journal").c_str(), F_OK) == 0) {
    store::Connection writer;
    std::int64_t tables = 0;
    RETURN_IF_ERROR(store::Connection::Open(path, store::Connection::Mode::kWrite, &writer));
    RETURN_IF_ERROR(writer.Read("SELECT count(*) FROM sqlite_schema", &tables));
  }
  RETURN_IF_ERROR(store::Connection::Open(
      path, mode == Mode::kRead ? store::Connection::Mode::kRead : store::Connection::Mode::kWrite,
      &opened.connection_));
  std::int64_t application_id = 0;
  std::int64_t version = 0;
  if (!is_there) {
    store::Transaction transaction(&opened.connection_);
    RETURN_IF_ERROR(opened.connection_.Execute(kPragmas));
    RETURN_IF_ERROR(transaction.Begin());
    RETURN_IF_ERROR(opened.connection_.Execute(
        kTables + ("PRAGMA application_id=" + std::to_string(kApplicationId)) +
        ";PRAGMA user_version=" + std::to_string(kSchemaVersion)));
    RETURN_IF_ERROR(transaction.Commit());
  }
  RETURN_IF_ERROR(opened.connection_.Read("PRAGMA application_id", &application_id));
  RETURN_IF_ERROR(opened.connection_.Read("PRAGMA user_version", &version));
  if (application_id != kApplicationId || version != kSchemaVersion) {
    return Status::Failed(path + " is not the uplink's, or of a newer version");
  }
  if (mode == Mode::kWrite) RETURN_IF_ERROR(opened.connection_.Execute(kPragmas));
  return opened.ReadAll();
}

Status State::ReadAll() {
  level_ = Level::kNone;
  since_ms_ = 0;
  agreed_ = Policy();
  name_.reset();
  key_ = {};
  store::Statement select;
  RETURN_IF_ERROR(connection_.Prepare("SELECT level, policy, since_ms FROM standing", &select));
  if (select.Step()) {
    level_ = LevelNamed(select.Text(0)).value_or(Level::kNone);
    policy_id_ = select.Text(1);
    since_ms_ = select.Int(2);
  }
  RETURN_IF_ERROR(select.status());
  if (level_ != Level::kNone) RETURN_IF_ERROR(ReadPolicy(policy_id_, &agreed_));
  RETURN_IF_ERROR(connection_.Prepare("SELECT name, key FROM identity", &select));
  if (select.Step()) {
    fleet::Id name{};
    if (!Assign(select.Text(0), &name) || !Assign(select.Text(1), &key_)) {
      return Status::Failed(path_ + " holds no sound identity");
    }
    name_ = name;
  }
  RETURN_IF_ERROR(select.status());
  std::int64_t requests = 0;
  RETURN_IF_ERROR(connection_.Read("SELECT count(*) FROM forgetting", &requests));
  is_forgetting_ = requests != 0;
  return {};
}

Status State::ReadPolicy(std::string_view id, Policy* policy) {
  store::Statement select;
  RETURN_IF_ERROR(connection_.Prepare("SELECT rules FROM policies WHERE id = ?", &select));
  select.BindBlob(1, id);
  *policy = select.Step() ? Policy::FromRules(select.Text(0)) : Policy();
  return select.status();
}

Status State::Note(const fleet::Id& store, std::int64_t first, Level level, std::string_view policy,
                   std::int64_t since_ms) {
  store::Statement insert;
  RETURN_IF_ERROR(
      connection_.Prepare("INSERT OR REPLACE INTO consent(store, first, level, policy, since_ms) "
                          "VALUES(?, ?, ?, ?, ?)",
                          &insert));
  insert.BindBlob(1, BytesOf(store)).Bind(2, first).Bind(3, NameOf(level)).BindBlob(4, policy);
  return insert.Bind(5, level == Level::kNone ? 0 : since_ms).Run();
}

Status State::IsStanding(const fleet::Id& store, bool* is_standing) {
  store::Statement select;
  RETURN_IF_ERROR(connection_.Prepare(
      "SELECT level, policy FROM consent WHERE store = ? ORDER BY first DESC LIMIT 1", &select));
  select.BindBlob(1, BytesOf(store));
  *is_standing = select.Step() && select.Text(0) == NameOf(level_) && select.Text(1) == policy_id_;
  return select.status();
}

// Where a level begins: the records in front that were received before it was agreed to are of the
// level before. As long as there are no others nothing is settled.
Status State::Settle(const Numbers& numbers, const ReceivedSince& received_since) {
  for (std::size_t i = 0; i < numbers.live.size(); ++i) {
    const Numbers::Store& store = numbers.live[i];
    const bool is_over = i + 1 < numbers.live.size();
    struct Row {
      std::int64_t first = 0;
      Level level = Level::kNone;
      std::string policy;
      std::int64_t since_ms = 0;
    };
    std::vector<Row> rows;
    store::Statement select;
    RETURN_IF_ERROR(connection_.Prepare(
        "SELECT first, level, policy, since_ms FROM consent WHERE store = ? ORDER BY first",
        &select));
    select.BindBlob(1, BytesOf(store.id));
    while (select.Step()) {
      rows.push_back({select.Int(0), LevelNamed(select.Text(1)).value_or(Level::kNone),
                      std::string(select.Text(2)), select.Int(3)});
    }
    RETURN_IF_ERROR(select.status());
    for (std::size_t r = 0; r < rows.size(); ++r) {
      const Row& row = rows[r];
      if (row.since_ms == 0) continue;
      const bool is_last = r + 1 == rows.size();
      const std::int64_t next = !is_last  ? rows[r + 1].first
                                : is_over ? numbers.live[i + 1].first
                                          : numbers.next;
      std::int64_t begin = row.first;
      if (row.first < next) {
        RETURN_IF_ERROR(received_since(row.first, next - 1, row.since_ms, &begin));
      }
      if (begin >= next && is_last && !is_over) continue;
      if (begin > row.first) {
        const Row before = r > 0 ? rows[r - 1] : Row();
        RETURN_IF_ERROR(Note(store.id, row.first, before.level, before.policy, 0));
      }
      if (begin < next || begin == row.first) {
        RETURN_IF_ERROR(Note(store.id, begin, row.level, row.policy, 0));
      }
    }
  }
  return {};
}

Status State::NoteSeen(const Numbers& numbers) {
  store::Statement insert;
  RETURN_IF_ERROR(
      connection_.Prepare("INSERT INTO stores_seen(store, next) VALUES(?, ?) ON CONFLICT DO UPDATE "
                          "SET next = excluded.next WHERE next <> excluded.next",
                          &insert));
  for (std::size_t i = 0; i < numbers.live.size(); ++i) {
    const bool is_last = i + 1 == numbers.live.size();
    insert.BindBlob(1, BytesOf(numbers.live[i].id))
        .Bind(2, is_last ? numbers.next : numbers.live[i + 1].first);
    RETURN_IF_ERROR(insert.Run());
  }
  return {};
}

Status State::LookAround(const Numbers& numbers, const ReceivedSince& received_since) {
  Status status;
  const auto known = KnownStores(&connection_, &status);
  RETURN_IF_ERROR(status);
  // A database lists its stores in order: what stands before a known one is older than that.
  std::size_t first_new = numbers.live.size();
  while (first_new > 0 && !known.contains(BytesOf(numbers.live[first_new - 1].id))) --first_new;
  for (std::size_t i = 0; i < first_new; ++i) {
    const Numbers::Store& store = numbers.live[i];
    if (!known.contains(BytesOf(store.id))) {
      RETURN_IF_ERROR(Note(store.id, store.first, Level::kNone, {}, 0));
    }
  }
  bool is_certain = false;
  if (first_new > 0) RETURN_IF_ERROR(IsStanding(numbers.live[first_new - 1].id, &is_certain));
  for (std::size_t i = first_new; i < numbers.live.size(); ++i) {
    RETURN_IF_ERROR(Note(numbers.live[i].id, numbers.live[i].first, level_, policy_id_,
                         is_certain ? 0 : since_ms_));
  }
  RETURN_IF_ERROR(Settle(numbers, received_since));
  return NoteSeen(numbers);
}

Status State::Look(const Numbers& numbers, const ReceivedSince& received_since) {
  store::Transaction transaction(&connection_);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(LookAround(numbers, received_since));
  return transaction.Commit();
}

Status State::Change(Level level, const Policy& policy, const Numbers& numbers,
                     const ReceivedSince& received_since, std::int64_t now_ms) {
  RETURN_IF_ERROR(LookAround(numbers, received_since));
  // A store that is not in use now may be put back later, and go on where it was: what it takes in
  // then is of a time of which nothing is known here.
  RETURN_IF_ERROR(
      connection_.Execute("INSERT OR REPLACE INTO consent(store, first, level, policy, since_ms) "
                          "SELECT store, next, 'none', x'', 0 FROM stores_seen"));

  const std::string rules = policy.Rules();
  const fleet::Id policy_id = IdOf(rules);
  if (level != Level::kNone) {
    store::Statement insert;
    RETURN_IF_ERROR(
        connection_.Prepare("INSERT OR IGNORE INTO policies(id, rules) VALUES(?, ?)", &insert));
    insert.BindBlob(1, BytesOf(policy_id)).Bind(2, rules);
    RETURN_IF_ERROR(insert.Run());
  }
  policy_id_ = level == Level::kNone ? std::string_view() : BytesOf(policy_id);
  if (!numbers.live.empty()) {
    // Under a lower level it does not matter which of the two a record was received under.
    const std::int64_t since_ms = level < level_ ? 0 : now_ms;
    RETURN_IF_ERROR(Note(numbers.live.back().id, numbers.next, level, policy_id_, since_ms));
  }
  RETURN_IF_ERROR(connection_.Execute("DELETE FROM standing"));
  store::Statement insert;
  RETURN_IF_ERROR(connection_.Prepare(
      "INSERT INTO standing(level, policy, since_ms) VALUES(?, ?, ?)", &insert));
  insert.Bind(1, NameOf(level)).BindBlob(2, policy_id_).Bind(3, now_ms);
  return insert.Run();
}

Status State::Agree(Level level, const Policy& policy, const Numbers& numbers,
                    const ReceivedSince& received_since, std::int64_t now_ms) {
  if (is_forgetting_) {
    return Status::Failed(
        "this device is being forgotten: nothing can be agreed to until the fleet has answered");
  }
  store::Transaction transaction(&connection_);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(Change(level, policy, numbers, received_since, now_ms));
  if (level != Level::kNone && !name_) {
    fleet::Id name{};
    Pseudonyms::Key key{};
    RETURN_IF_ERROR(Draw(name.data(), name.size()));
    RETURN_IF_ERROR(Draw(key.data(), key.size()));
    store::Statement insert;
    RETURN_IF_ERROR(connection_.Prepare("INSERT INTO identity(name, key) VALUES(?, ?)", &insert));
    insert.BindBlob(1, BytesOf(name))
        .BindBlob(2, {reinterpret_cast<const char*>(key.data()), key.size()});
    RETURN_IF_ERROR(insert.Run());
  }
  RETURN_IF_ERROR(transaction.Commit());
  return ReadAll();
}

Status State::Forget(const Numbers& numbers, const ReceivedSince& received_since,
                     std::int64_t now_ms) {
  if (!name_)
    return Status::Failed("nothing was ever agreed to: the fleet doesn't know this device");
  if (is_forgetting_) return {};
  store::Transaction transaction(&connection_);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(Change(Level::kNone, Policy(), numbers, received_since, now_ms));
  RETURN_IF_ERROR(connection_.Execute("INSERT INTO forgetting(since_ms) VALUES(" +
                                      std::to_string(now_ms) + ")"));
  RETURN_IF_ERROR(transaction.Commit());
  return ReadAll();
}

Status State::Forgotten() {
  connection_ = {};
  if (rename(path_.c_str(), GonePath(path_).c_str()) != 0) {
    return Status::Errno("cannot remove " + path_);
  }
  // Not by deleting rows: SQLite's journal would hold what is overwritten.
  return store::ShredFile(GonePath(path_));
}

Status State::SpansOf(const fleet::Id& store, std::int64_t first, std::int64_t last,
                      const Policy& shipped, std::vector<Span>* spans) {
  spans->clear();
  const auto add = [spans](Span span) {
    if (span.first > span.last) return;
    if (!spans->empty() && spans->back().level == span.level &&
        (span.level == Level::kNone || spans->back().table->id() == span.table->id())) {
      spans->back().last = span.last;
    } else {
      spans->push_back(std::move(span));
    }
  };
  Span open{first, last, Level::kNone, nullptr};
  if (level_ != Level::kNone && !is_forgetting_) {
    store::Statement select;
    RETURN_IF_ERROR(
        connection_.Prepare("SELECT first, level, policy, since_ms FROM consent WHERE store = ? "
                            "AND first <= ? ORDER BY first",
                            &select));
    select.BindBlob(1, BytesOf(store)).Bind(2, last);
    bool is_noted = false;
    while (select.Step()) {
      is_noted = true;
      open.last = select.Int(0) - 1;
      if (select.Int(3) != 0) {  // not settled: it waits
        last = open.last;
        break;
      }
      add(open);
      open = {std::max(first, select.Int(0)), last, Level::kNone, nullptr};
      const Level then = LevelNamed(select.Text(1)).value_or(Level::kNone);
      open.level = std::min(then, level_);
      if (open.level == Level::kNone) continue;
      Policy agreed_then;
      RETURN_IF_ERROR(ReadPolicy(select.Text(2), &agreed_then));
      open.table = std::make_shared<const Table>(
          agreed_then.At(open.level).And(agreed_.At(open.level)).And(shipped.At(open.level)));
    }
    RETURN_IF_ERROR(select.status());
    // Begun since the last look. It waits for the next one: what is once declared as withheld is
    // lost to the fleet.
    if (!is_noted) return {};
  }
  open.last = last;
  add(std::move(open));
  return {};
}

}  // namespace velmora::usage_stat::consent
