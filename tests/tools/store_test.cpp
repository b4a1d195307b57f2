// The database of the records: what goes in comes out, counts add up, and files of others stay.

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>

#include "src/events/events.h"
#include "store_fixture.h"
#include "tests/support/child.h"
#include "tools/store/archive.h"
#include "tools/store/maintenance.h"
#include "tools/store/retention.h"
#include "tools/store/schema.h"

namespace usage_stat_test {
namespace {

using store::Query;
using Names = std::vector<std::string>;

void Execute(const std::string& path, const std::string& sql) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(database);
  sqlite3_close(database);
}

TEST_F(StoreTest, QueriesFilterAndOrder) {
  auto writer = OpenWriter();
  store::Batch batch;
  batch.records = {Row("A", 100, R"({"application":7,"book_id":1})"),
                   Row("B", 200, R"({"books":[{"book_id":2},{"book_id":1}]})"), Row("A", 150)};
  ASSERT_OK(writer->Commit(batch));

  std::unique_ptr<store::Reader> reader;
  ASSERT_OK(store::Reader::Open(database_, &reader));
  const struct {
    Query query;
    Names expected;
  } cases[] = {
      {{}, {"NewJournalFileEvent", "A", "B", "A"}},
      {{.since_ms = 150, .until_ms = 200}, {"A"}},
      {{.events = {"A", "C"}}, {"A", "A"}},
      {{.after_id = 2}, {"B", "A"}},
      {{.newest = 2}, {"B", "A"}},
      {{.newest = 2, .reverse = true}, {"A", "B"}},
      {{.newest = 0}, {}},
  };
  for (const auto& [query, expected] : cases) EXPECT_EQ(Read(*reader, query), expected);

  store::RecordRow row;
  ASSERT_OK(reader->ForEach({.events = {"B"}}, [&row](const store::RecordRow& found) {
    row = found;
    return true;
  }));
  EXPECT_EQ(row.sender.pid, 42);
  EXPECT_EQ(row.received_ms, 201);
  EXPECT_EQ(row.raw, std::string("\0\xff", 2));
}

TEST_F(StoreTest, CountsFollowTheRows) {
  auto writer = OpenWriter();
  store::Batch batch;
  batch.records = {Row("A", 1)};
  batch.quarantine.resize(2);
  batch.quarantine[0].kind = batch.quarantine[1].kind = "cut short";
  batch.refused[{1000, "uid"}] = 3;
  ASSERT_OK(writer->Commit(batch));
  ASSERT_OK(writer->Commit(batch));

  std::unique_ptr<store::Reader> reader;
  ASSERT_OK(store::Reader::Open(database_, &reader));
  std::vector<store::QuarantineRow> held;
  ASSERT_OK(reader->ForEachQuarantined([&held](const store::QuarantineRow& row) {
    held.push_back(row);
    return true;
  }));
  ASSERT_EQ(held.size(), 4U);
  const store::Reread reread{held[0], Row("Reread", 5)};
  std::int64_t released = 0;
  ASSERT_OK(store::Release(&writer->connection(), {reread, reread}, &released));  // once only
  EXPECT_EQ(released, 1);
  EXPECT_EQ(Read(*reader).back(), "Reread");
  ASSERT_OK(writer->Finish());

  std::vector<store::Run> runs;
  std::vector<store::Tally> tallies;
  ASSERT_OK(reader->ReadRuns(&runs));
  ASSERT_OK(reader->ReadTallies(&tallies));
  std::map<store::Outcome, std::int64_t> by_outcome;
  for (const store::Tally& tally : tallies) by_outcome[tally.outcome] += tally.count;
  EXPECT_EQ(by_outcome, (std::map<store::Outcome, std::int64_t>{{store::Outcome::kStored, 3},
                                                                {store::Outcome::kQuarantined, 3},
                                                                {store::Outcome::kRefused, 6},
                                                                {store::Outcome::kOwn, 1}}));
  ASSERT_EQ(runs.size(), 1U);
  EXPECT_EQ(runs[0].received, 12);
  EXPECT_TRUE(runs[0].ended_ms);
}

TEST_F(StoreTest, FilesOfOthersAreRefusedAndStayAsTheyAre) {
  OpenWriter().reset();
  struct stat file {};
  ASSERT_EQ(stat(database_.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0640U);

  const std::string newer = folder_ / "newer.db";
  std::filesystem::copy(database_, newer);
  Execute(newer, "PRAGMA user_version = 3; PRAGMA wal_checkpoint(TRUNCATE)");
  const std::string foreign = folder_ / "foreign.db";
  Execute(foreign, "PRAGMA journal_mode = WAL; CREATE TABLE records(id)");
  // Of ours, but somebody made another of it: it is sound, and theirs.
  const std::string restored = folder_ / "restored.db";
  std::filesystem::copy(database_, restored);
  Execute(restored, "PRAGMA journal_mode = DELETE; PRAGMA application_id = 0; VACUUM");
  const std::string text = folder_ / "notes.txt";
  WriteFile(text, "a shopping list");
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

  for (const std::string& path : {newer, foreign, restored, text, fifo, folder_.path()}) {
    const std::string before = path == fifo ? "" : ReadFile(path);
    std::unique_ptr<store::Writer> writer;
    std::unique_ptr<store::Reader> reader;
    const store::Status status = store::Writer::Open(path, "test", &writer);
    EXPECT_FALSE(status.ok() || store::IsDamage(status)) << path;
    EXPECT_FALSE(store::Reader::Open(path, &reader).ok()) << path;
    EXPECT_EQ(path == fifo ? "" : ReadFile(path), before) << path;
    EXPECT_FALSE(std::filesystem::exists(path + "-wal")) << path;
  }

  const std::string empty = folder_ / "empty.db";
  WriteFile(empty, "");
  bool created = false;
  store::Connection connection;
  EXPECT_OK(store::OpenForWriting(empty, &connection, &created));
  EXPECT_TRUE(created);
}

TEST_F(StoreTest, AnySqlToolReadsItByEventAndName) {
  velmora::usage_stat::StartOpenBookEvent opening;
  opening.book_id_ = -5;
  opening.application_ = 1;
  auto writer = OpenWriter();
  ASSERT_OK(writer->Commit({{RowOf(opening, 1'790'000'000'123)}, {}, {}, {}}));
  const std::string row =
      "SELECT time || ' ' || book_id || ' ' || application_name || ' ' || typeof(book_id) "
      "FROM start_open_book";
  EXPECT_EQ(Answer(database_, row), "2026-09-21T14:13:20.123Z -5 explorer.app integer");
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  EXPECT_EQ(Answer(database_, row), "");
  EXPECT_EQ(Answer(database_, "SELECT archives || ' ' || records FROM in_archives"), "1 2");
  ASSERT_OK(writer->Finish());
  writer.reset();

  // Written by a program with another dictionary, and by somebody who had a use for a name.
  const auto reopen = [this] {
    store::Connection connection;
    return store::OpenForWriting(database_, &connection, nullptr);
  };
  Execute(database_,
          "DROP VIEW start_open_book; CREATE VIEW start_open_book AS SELECT 1 AS old;"
          "DROP VIEW change_page; CREATE TABLE change_page(mine);"
          "UPDATE value_names SET name = 'old'; CREATE VIEW mine AS SELECT 7 AS id");
  EXPECT_OK(reopen());
  EXPECT_EQ(Answer(database_, "SELECT count(book_id) FROM start_open_book"), "0");
  EXPECT_EQ(Answer(database_, "SELECT count(*) FROM value_names WHERE name = 'old'"), "0");
  EXPECT_EQ(Answer(database_, "SELECT id FROM mine"), "7");
  EXPECT_EQ(Answer(database_, "SELECT count(mine) FROM change_page"), "0");
  // What is as it should be is not written again.
  const std::string version = Answer(database_, "PRAGMA schema_version");
  EXPECT_OK(reopen());
  EXPECT_EQ(Answer(database_, "PRAGMA schema_version"), version);
}

// ---- Archives ----

class ArchiveTest : public StoreTest {
 protected:
  void Add(int count) {
    store::Batch batch;
    for (int i = 0; i < count; ++i) {
      batch.records.push_back(Row(std::to_string(next_), 1000 + next_));
      ++next_;
    }
    ASSERT_OK(writer_->Commit(batch));
  }

  Names Expected() const {
    Names names(static_cast<std::size_t>(next_));
    for (int i = 0; i < next_; ++i) names[static_cast<std::size_t>(i)] = std::to_string(i);
    return names;
  }

  // Everything but what the store wrote about itself.
  Names ReadHistory(Query query = {}) {
    std::unique_ptr<store::History> history;
    EXPECT_TRUE(store::History::Open(database_, &history).ok());
    Names names = Read(*history, query);
    std::erase_if(names, [](const std::string& name) { return name.ends_with("Event"); });
    return names;
  }

  int next_ = 0;
  std::unique_ptr<store::Writer> writer_ = OpenWriter();
  const std::string archives_ = folder_ / "archives";
};

TEST_F(ArchiveTest, ReadsAsIfNothingHadMoved) {
  std::vector<store::Archive> archives;
  Add(10);
  ASSERT_OK(store::ArchiveRecords(database_, archives_, &archives));
  ASSERT_EQ(archives.size(), 1U);
  EXPECT_EQ(archives[0].records, 11);
  struct stat status {};
  ASSERT_EQ(stat(archives[0].path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
  ASSERT_EQ(stat(archives_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0750U);
  {
    store::Maintenance somebody;
    ASSERT_OK(store::Maintenance::Open(database_, &somebody));
    EXPECT_EQ(store::ArchiveRecords(database_, archives_, &archives).code, SQLITE_BUSY);
  }
  EXPECT_EQ(std::filesystem::file_size(database_ + "-wal"), 0U);
  Add(10);
  ASSERT_OK(store::ArchiveRecords(database_, archives_, &archives));
  Add(2);

  EXPECT_EQ(ReadHistory(), Expected());
  EXPECT_EQ(ReadHistory({.since_ms = 1008, .until_ms = 1012}), (Names{"8", "9", "10", "11"}));
  EXPECT_EQ(ReadHistory({.newest = 6}), (Names{"17", "18", "19", "20", "21"}));
  EXPECT_EQ(ReadHistory({.newest = 4, .reverse = true}), (Names{"21", "20", "19"}));

  // A damaged archive is told and costs nothing else.
  std::filesystem::resize_file(archives.at(0).path, 100);
  std::unique_ptr<store::History> history;
  std::vector<std::string> problems;
  int count = 0;
  ASSERT_OK(store::History::Open(database_, &history));
  ASSERT_OK(history->ForEach(
      {}, [&count](const store::RecordRow&) { return ++count; }, &problems));
  EXPECT_EQ(problems.size(), 1U);
  EXPECT_EQ(count, 11 + 3);

  // What was unpacked takes no space once it is read.
  ASSERT_OK(store::History::Open(database_, &history));
  for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    EXPECT_EQ(std::filesystem::read_symlink(file, gone).string().find("usage-stat-archive"),
              std::string::npos);
  }
}

TEST_F(ArchiveTest, KilledAtAnyMomentEveryRecordIsInOnePlace) {
  std::mt19937 random(20);
  for (int round = 0; round < 20; ++round) {
    Add(200);
    {
      const Child killed([this] {
        std::vector<store::Archive> archives;
        return store::ArchiveRecords(database_, archives_, &archives).ok() ? 0 : 1;
      });
      usleep(std::uniform_int_distribution<useconds_t>(0, 60'000)(random));
    }
    ASSERT_OK(store::FinishArchives(database_));
    ASSERT_EQ(ReadHistory(), Expected()) << "round " << round;
  }
  EXPECT_EQ(Answer(database_, "PRAGMA integrity_check"), "ok");
}

// What archives the records at the moment when a reader of theirs begins another statement.
struct Mover {
  std::string database;
  std::string archives;
  int statements_before;

  void Move() const {
    store::Maintenance maintenance;
    std::unique_ptr<store::Reader> reader;
    store::Archive archive;
    ASSERT_OK(store::Maintenance::Open(database, &maintenance));
    ASSERT_OK(store::Reader::Open(database, &reader));
    ASSERT_OK(store::MakeArchive(&maintenance, archives, reader.get(), 0, INT64_MAX - 1, &archive));
    ASSERT_OK(store::FinishArchives(&maintenance));
  }
};

TEST_F(ArchiveTest, RecordsThatMoveWhileTheyAreReadAreMetOnce) {
  const auto move_in_time = [](unsigned, void* context, void*, void*) {
    auto* mover = static_cast<Mover*>(context);
    if (mover->statements_before-- == 0) mover->Move();
    return 0;
  };
  for (const bool reverse : {false, true}) {
    Mover mover{database_, archives_, -1};
    for (int moment = 0; mover.statements_before < 0; ++moment) {
      SCOPED_TRACE(std::to_string(moment) + (reverse ? ", newest first" : ""));
      std::unique_ptr<store::History> history;
      std::int64_t last = 0;
      ASSERT_OK(store::History::Open(database_, &history));
      ASSERT_OK(history->live().LastNumber(&last));
      const Names expected = {std::to_string(next_), std::to_string(next_ + 1)};
      Add(2);
      mover.statements_before = moment;
      sqlite3_trace_v2(history->live().connection().handle(), SQLITE_TRACE_STMT, move_in_time,
                       &mover);
      Names found = Read(*history, {.after_id = last, .reverse = reverse});
      if (reverse) std::ranges::reverse(found);
      std::erase_if(found, [](const std::string& name) { return name.ends_with("Event"); });
      EXPECT_EQ(found, expected);
    }
  }
}

TEST_F(ArchiveTest, RetentionDeletesTheOldestFirst) {
  std::vector<store::Archive> archives;
  Add(2000);
  ASSERT_OK(store::ArchiveRecords(database_, archives_, &archives));
  ASSERT_EQ(archives.size(), 1U);
  Add(2000);

  // By size: the archive goes, then rows until the rest fits.
  ASSERT_OK(store::ApplyRetention(database_, {.keep_days = 0, .max_bytes = 180'000}));
  EXPECT_FALSE(std::filesystem::exists(archives[0].path));
  const Names rest = ReadHistory();
  ASSERT_FALSE(rest.empty());
  EXPECT_LT(rest.size(), 2000U);
  EXPECT_EQ(rest.back(), "3999");
  EXPECT_LE(std::filesystem::file_size(database_), 180'000U);

  std::int64_t rows = 0;
  ASSERT_OK(writer_->connection().Read(
      "SELECT sum(CASE WHEN outcome IN ('archived', 'deleted') THEN -count ELSE count END) "
      "FROM outcomes WHERE outcome <> 'refused'",
      &rows));
  EXPECT_EQ(rows, static_cast<std::int64_t>(rest.size()) + 1);
  // Each number that went, with the archive or by itself, is noted.
  std::int64_t unknown = -1;
  ASSERT_OK(writer_->connection().Read(
      "SELECT (SELECT min(id) - 1 FROM records) - (SELECT sum(last_record - first_record + 1) "
      "FROM missing WHERE reason = 'retention')",
      &unknown));
  EXPECT_EQ(unknown, 0);
}

}  // namespace
}  // namespace usage_stat_test
