// What the collector promises when things go wrong around it, and what it may cost when they don't.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "collector_process.h"
#include "src/events/device_events.h"
#include "src/events/new_books_events.h"
#include "store_fixture.h"
#include "tests/support/child.h"
#include "tests/support/run_program.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/store/archive.h"
#include "tools/store/maintenance.h"
#include "tools/store/pages.h"
#include "tools/store/recover.h"
#include "tools/store/retention.h"
#include "tools/store/schema.h"
#include "tools/store/zstd_file.h"

namespace {
std::time_t g_clock_is_ahead = 0;  // seconds
std::time_t g_time_passed = 0;     // seconds, which the clock has gone along with
}  // namespace

// Stands before the C library's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* now) noexcept {
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  if (clock == CLOCK_REALTIME) now->tv_sec += g_clock_is_ahead;
  if (clock == CLOCK_REALTIME || clock == CLOCK_BOOTTIME) now->tv_sec += g_time_passed;
  return result;
}

namespace usage_stat_test {
namespace {

namespace base = velmora::usage_stat::base;
namespace fs = std::filesystem;
using testing::HasSubstr;
using velmora::usage_stat::records::FieldsOf;

// Whether there is one, and it may trace.
bool HasStrace() { return std::system("strace -o /dev/null true >/dev/null 2>&1") == 0; }

class PromisesTest : public StoreTest {
 protected:
  ~PromisesTest() override {
    if (HasFailure() && collector_) std::cerr << collector_->Err();
    close(socket_);
  }

  void Start(std::vector<std::string> arguments = {},
             const std::string& program = COLLECTOR_COMMAND) {
    arguments.insert(arguments.end(), {"--database", database_});
    fs::remove(folder_ / "err");  // what an earlier one said
    collector_.emplace(program, folder_.path(), std::move(arguments));
    ASSERT_TRUE(Says("listens on the endpoint")) << collector_->Err();
    address_ = base::AddressOf(collector_->endpoint());
  }

  // Starts one whose `calls` are written to trace_; further options of strace may follow them.
  void StartTraced(const std::string& calls, std::vector<std::string> arguments) {
    const std::string script = folder_ / "traced";
    // A sanitizer can't look for leaks in a program that is traced.
    WriteFile(script, "#!/bin/sh\nexec strace -E ASAN_OPTIONS=detect_leaks=0 -D -f -y -o " +
                          trace_ + " --seccomp-bpf -e trace=" + calls +
                          " \"" COLLECTOR_COMMAND "\" \"$@\"\n");
    fs::permissions(script, fs::perms::owner_all);
    Start(std::move(arguments), script);
  }

  int Send(const std::string& bytes) const {
    return sendto(socket_, bytes.data(), bytes.size(), 0, address_->get(), address_->length) < 0
               ? errno
               : 0;
  }
  void SendSurely(const std::string& bytes) const {
    ASSERT_TRUE(Eventually([&] { return Send(bytes) == 0; }));
  }
  // Sends page turns as another user, until `count` of `bytes` were sent or refused by the socket.
  void FloodAs(uid_t uid, const std::string& bytes, int count) const {
    Child child([&] {
      if (setuid(uid) != 0) return 1;
      for (int i = 0; i < count; ++i) (void)Send(bytes);
      return 0;
    });
    ASSERT_EQ(child.Wait(), 0);
  }

  bool Says(const std::string& text) const { return collector_->Says(text); }
  std::int64_t Number(const std::string& sql) const { return NumberIn(database_, sql); }

  void ExpectBalance() const {
    EXPECT_EQ(Number("SELECT (SELECT count(*) FROM records) + (SELECT count(*) FROM quarantine)"),
              Number("SELECT sum(CASE WHEN outcome IN ('archived', 'deleted') THEN -count "
                     "ELSE count END) FROM outcomes WHERE outcome NOT IN ('refused', 'off')"));
  }

  // The numbers that the page turns of sender 0 carry, from database and archives.
  std::vector<int> Turns() const {
    std::vector<int> numbers;
    std::unique_ptr<store::History> history;
    std::vector<std::string> problems;
    EXPECT_OK(store::History::Open(database_, &history));
    const auto visit = [&numbers](const store::RecordRow& row) {
      std::istringstream in(row.raw.substr(10));
      velmora::usage_stat::ChangePageEvent event;
      EXPECT_EQ(velmora::usage_stat::ReadFields(in, &event), 0);
      numbers.push_back(event.a_);
      return true;
    };
    EXPECT_OK(history->ForEach({.events = {"ChangePageEvent"}}, visit, &problems));
    EXPECT_TRUE(problems.empty()) << problems.front();
    return numbers;
  }

  // The damaged database that was set aside; empty when none was.
  std::string Aside() const {
    std::string aside;
    for (const auto& file : fs::directory_iterator(folder_.path())) {
      const std::string path = file.path();
      const bool is_beside = path.ends_with("-wal") || path.ends_with("-shm");
      if (!is_beside && path.find(".damaged-") != std::string::npos) aside = path;
    }
    return aside;
  }
  ProgramResult Recover() const {
    return RunProgram({USAGE_STAT, "recover", Aside(), "--database", database_});
  }

  const std::string trace_ = folder_ / "trace";
  std::optional<CollectorProcess> collector_;
  std::optional<base::EndpointAddress> address_;
  const int socket_ = [] {
    const int opened = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval patience{0, 200'000};
    setsockopt(opened, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    const int room = 1024 * 1024;
    setsockopt(opened, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    return opened;
  }();
};

// ---- Upgrades ----

// Puts a copy of the checked-in database and archive of the first schema into the test's folder.
void CopyFirstSchema(const std::string& folder) {
  fs::copy(FIRST_SCHEMA, folder, fs::copy_options::recursive);
}

// The first twelve records, with their fields as they are called today.
std::vector<std::string> EventsIn(const std::string& database) {
  std::vector<std::string> events;
  std::unique_ptr<store::History> history;
  std::vector<std::string> problems;
  EXPECT_OK(store::History::Open(database, &history));
  EXPECT_OK(history->ForEach(
      {},
      [&](const store::RecordRow& row) {
        if (row.id <= 12) {
          events.push_back(std::to_string(row.id) + row.event +
                           FieldsOf(row.fields, row.raw).dump());
        }
        return true;
      },
      &problems));
  EXPECT_TRUE(problems.empty()) << problems.front();
  return events;
}

TEST_F(PromisesTest, FirstSchemaIsUpgradedWhileTheSocketIsServed) {
  CopyFirstSchema(folder_.path());
  const std::vector<std::string> before = EventsIn(database_);  // it can be read as it is
  ASSERT_EQ(before.size(), 12U);
  // One of the archive, and one of the database; both hold these fields as "a", "b" and so on.
  EXPECT_EQ(before[1], R"(2AddNoteEvent{"book_id":0,"page":2})");
  EXPECT_EQ(before[11],
            R"(12ChangePageEvent{"book_id":1,"b":2,"from_page":3,"to_page":4,"pages":5})");
  const auto by_name = [this] {
    return RunProgram({USAGE_STAT, "sql", "--database", database_, "-o", "csv",
                       "select book_id, page from add_note where id in (2, 9)"})
        .out;
  };
  const std::string found = by_name();
  EXPECT_EQ(found, "book_id,page\r\n0,2\r\n5,2\r\n");
  Start();
  SendSurely(PageTurn(0, 1));
  ASSERT_TRUE(
      Eventually([this] { return Number("SELECT count(*) FROM archives WHERE schema = 1") == 0; }));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(EventsIn(database_), before);
  EXPECT_EQ(by_name(), found);
  EXPECT_EQ(Number("SELECT count(*) FROM quarantine"), 2);
  EXPECT_EQ(Number("SELECT received FROM run_counts WHERE run = 1"), 6);
  EXPECT_EQ(Number("SELECT min(id) FROM records"), 13);
  EXPECT_EQ(Answer(database_, "SELECT count(time) FROM change_page"), "1");
  EXPECT_EQ(Answer(database_, "SELECT records FROM in_archives"), "12");
  EXPECT_FALSE(fs::exists(database_ + ".schema-1"));
  ExpectBalance();

  std::unique_ptr<store::Reader> reader;
  std::vector<store::Archive> archives;
  std::vector<store::Store> stores;
  ASSERT_OK(store::Reader::Open(database_, &reader));
  ASSERT_OK(reader->ReadArchives(&archives));
  ASSERT_EQ(archives.size(), 2U);
  ASSERT_OK(store::Reader::Open(archives[1].path, &reader));
  ASSERT_OK(reader->ReadStores(&stores));
  ASSERT_EQ(stores.size(), 1U);
  EXPECT_EQ(stores[0].id.size(), 16U);
  std::string fields;
  ASSERT_OK(reader->connection().Read(
      "SELECT fields FROM record_list WHERE event = 'ChangePageEvent'", &fields));
  EXPECT_EQ(fields, "[1,2,3,4,5]");
}

TEST_F(PromisesTest, WhoMayOnlyReadSeesTheFirstSchemaAgainWhenItIsUpgraded) {
  if (getuid() != 0) GTEST_SKIP() << "only root can become another user";
  CopyFirstSchema(folder_.path());
  fs::permissions(folder_.path(), fs::perms(0755));
  // How many of the first twelve records, and 100 more when that is said not to be all.
  const auto look = [this] {
    Child child([this] {
      const std::string complaint = "attempt to write a readonly database";
      std::unique_ptr<store::History> history;
      std::vector<std::string> problems;
      int seen = 0;
      if (setuid(12345) != 0) return 255;
      if (const auto status = store::History::Open(database_, &history); !status.ok()) {
        return status.message == complaint ? 100 : 255;
      }
      const auto count = [&seen](const store::RecordRow&) { return ++seen > 0; };
      if (!history->ForEach({.last_id = 12}, count, &problems).ok()) return 255;
      if (problems.empty()) return seen;
      return problems[0].ends_with(complaint) ? 100 + seen : 255;
    });
    return child.Wait();
  };
  EXPECT_EQ(look(), 100) << "at rest";
  auto writer = OpenWriter();
  EXPECT_EQ(look(), 100 + 6) << "of the archive alone while an upgrade goes on";
  writer.reset();
  Start();
  ASSERT_TRUE(
      Eventually([this] { return Number("SELECT count(*) FROM archives WHERE schema = 1") == 0; }));
  EXPECT_EQ(look(), 12) << "upgraded";
}

TEST_F(PromisesTest, AnUpgradeNeedsTheSpaceOfOneUnpackedArchive) {
  constexpr std::size_t kUnpacked = 16U * 1024 * 1024;
  const std::string disk = folder_ / "disk";
  const SmallDisk mounted(disk, "size=38m");
  if (!mounted.is_there()) GTEST_SKIP() << "no right to mount a file system";
  CopyFirstSchema(disk);
  database_ = disk + "/records.db";
  velmora::usage_stat::GoToURLEvent url;
  url.b_ = std::string(100'000, 'u');
  std::ostringstream out;
  url.WriteToStream(out);
  // 17 MB, and twice as much with the fields that are made of the datagrams.
  Answer(database_,
         "WITH RECURSIVE n(i) AS (VALUES(1) UNION ALL SELECT i + 1 FROM n WHERE i < 170) INSERT "
         "INTO records(received_ms, pid, uid, type, event, timestamp_ms, fields, raw) SELECT "
         "i, 1, 0, 2035, 'GoToURLEvent', i, '{}', x'" +
             base::ToHex(out.str()) + "' FROM n; PRAGMA wal_checkpoint(TRUNCATE)");
  ASSERT_GT(fs::file_size(database_), kUnpacked);
  Start();
  ASSERT_TRUE(
      Eventually([this] { return Number("SELECT count(*) FROM archives WHERE schema = 1") == 0; }));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(collector_->Err().find("can't be put in order"), std::string::npos);
  std::unique_ptr<store::Reader> reader;
  std::vector<store::Archive> archives;
  ASSERT_OK(store::Reader::Open(database_, &reader));
  ASSERT_OK(reader->ReadArchives(&archives));
  EXPECT_EQ(archives.size(), 4U);
  std::int64_t records = 0;
  for (const store::Archive& archive : archives) {
    std::int64_t bytes = 0;
    ASSERT_OK(store::Reader::Open(archive.path, &reader));
    ASSERT_OK(reader->connection().Read(
        "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size", &bytes));
    EXPECT_LE(bytes, static_cast<std::int64_t>(kUnpacked));
    records += archive.records;
  }
  EXPECT_EQ(records, 12 + 170);
}

// ---- Ends ----

TEST_F(PromisesTest, ASocketThatIsShutLateLosesNothing) {
  if (!HasStrace()) GTEST_SKIP() << "no strace to delay with";
  const std::string script = folder_ / "delayed";
  WriteFile(script,
            "#!/bin/sh\nexec strace -E ASAN_OPTIONS=detect_leaks=0 -D -f -o /dev/null "
            "--seccomp-bpf -e trace=shutdown -e inject=shutdown:delay_enter=100000 "
            "\"" COLLECTOR_COMMAND "\" \"$@\"\n");
  fs::permissions(script, fs::perms::owner_all);
  collector_.emplace(script, folder_.path(), std::vector<std::string>{"--database", database_});
  ASSERT_TRUE(Says("listens on the endpoint"));
  address_ = base::AddressOf(collector_->endpoint());
  int accepted = 0;
  while (accepted < 10) accepted += Send(PageTurn(0, accepted)) == 0 ? 1 : 0;
  collector_->Signal(SIGTERM);
  for (int error = 0; error == 0 || error == EAGAIN;) {
    error = Send(PageTurn(0, accepted));
    if (error == 0) ++accepted;
  }
  EXPECT_EQ(collector_->Wait(), 0);
  EXPECT_GT(accepted, 10) << "nothing came after the signal";
  EXPECT_EQ(Turns().size(), static_cast<std::size_t>(accepted));
}

// ---- What others do ----

TEST_F(PromisesTest, AReaderThatStaysOpenDoesNotMakeTheLogGrow) {
  constexpr int kBatches = 200;
  auto writer = OpenWriter();
  store::Batch batch;
  for (int i = 0; i < 100; ++i) batch.records.push_back(Row("GoToURLEvent", i));
  for (store::RecordRow& row : batch.records) row.raw.resize(1024, 'u');
  ASSERT_OK(writer->Commit(batch));
  std::unique_ptr<store::History> history;
  ASSERT_OK(store::History::Open(database_, &history));
  int rows = 0;
  // The first row is looked at for as long as 20 MB take to come in.
  ASSERT_OK(history->ForEach({}, [&](const store::RecordRow&) {
    for (int i = 0; rows == 0 && i < kBatches; ++i) EXPECT_OK(writer->Commit(batch));
    return ++rows > 0;
  }));
  EXPECT_EQ(rows, 1 + 100 * (1 + kBatches)) << "what came meanwhile is read as well";
  std::printf("| bytes of log behind an open reader | %ju |\n", fs::file_size(database_ + "-wal"));
  EXPECT_LT(fs::file_size(database_ + "-wal"), 4U * 1024 * 1024);
}

TEST_F(PromisesTest, ArchivesOfOthersTakeNeitherSpaceNorTime) {
  {
    auto writer = OpenWriter();
    ASSERT_OK(writer->Finish());
  }
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE); PRAGMA journal_mode = DELETE");
  // What unpacks for 256 MiB, where its first page tells of some kB.
  fs::resize_file(database_, 256U * 1024 * 1024);
  ASSERT_OK(store::CompressFile(database_, folder_ / "endless.db.zst"));
  EXPECT_LT(fs::file_size(folder_ / "endless.db.zst"), 64U * 1024);
  ASSERT_EQ(mkfifo((folder_ / "fifo.db.zst").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((folder_ / "fifo.db").c_str(), 0600), 0);
  WriteFile(folder_ / "text.db.zst", "a shopping list");
  fs::create_directory(folder_ / "room");
  fs::remove(database_);
  {
    auto writer = OpenWriter();
    ASSERT_OK(writer->Finish());
  }
  Answer(database_,
         "ALTER TABLE records RENAME TO others; CREATE VIEW records AS WITH RECURSIVE n(id) AS "
         "(SELECT 1 UNION ALL SELECT id + 1 FROM n) SELECT id FROM n; "
         "PRAGMA wal_checkpoint(TRUNCATE)");
  ASSERT_OK(store::CompressFile(database_, folder_ / "looping.db.zst"));
  const std::pair<const char*, const char*> cases[] = {{"endless.db.zst", "it holds more than"},
                                                       {"looping.db.zst", "is not sound"},
                                                       {"fifo.db.zst", "is not a file"},
                                                       {"fifo.db", "is not a file"},
                                                       {"text.db.zst", "text.db.zst"}};
  for (const auto& [name, complaint] : cases) {
    SCOPED_TRACE(name);
    // The limit is on each file that is written.
    const ProgramResult result =
        RunProgram({"/bin/sh", "-c", "ulimit -f 2048; exec \"$0\" list --database \"$1\"",
                    USAGE_STAT, folder_ / name},
                   {}, {"TMPDIR=" + (folder_ / "room")});
    EXPECT_EQ(result.exit_code, 1) << result.err;
    EXPECT_THAT(result.err, HasSubstr(complaint));
    EXPECT_TRUE(fs::is_empty(folder_ / "room"));
  }
}

TEST_F(PromisesTest, RefusedUserFillsNoMemory) {
  if (getuid() != 0) GTEST_SKIP() << "only root can send as another user";
  Start();
  store::Connection other;
  ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kWrite, &other));
  ASSERT_OK(other.Execute("BEGIN IMMEDIATE"));
  // While the database is locked, what came waits in the collector.
  FloodAs(12345, std::string(260'000, 'x'), 300);
  ASSERT_OK(other.Execute("COMMIT"));
  EXPECT_EQ(collector_->End(), 0);
  std::printf("| KiB at most under a flood that is refused | %ld |\n", collector_->peak_kib());
  EXPECT_LT(collector_->peak_kib(), 64 * 1024);
  // Those whose bytes are kept would be too many long before.
  EXPECT_GT(Number("SELECT sum(count) FROM outcomes WHERE outcome = 'refused'"), 100);
  EXPECT_LE(std::ranges::count(collector_->Err(), '\n'), 20);
  ExpectBalance();
}

TEST_F(PromisesTest, MaxSizeHoldsUnderAFlood) {
  constexpr std::uintmax_t kLimit = 1024 * 1024;
  Start({"--max-size", "1M"});
  std::uintmax_t largest = 0;
  int turn = 0;
  for (int i = 0; i < 400; ++i) {
    SendSurely(std::string(102'000, 'x'));
    velmora::usage_stat::GoToURLEvent url;
    url.b_ = std::string(50'000, 'u');
    std::ostringstream out;
    url.WriteToStream(out);
    SendSurely(out.str());
    SendSurely(PageTurn(0, turn++));
    std::uintmax_t size = 0;
    for (const char* suffix : {"", "-wal"}) {
      std::error_code error;
      const auto bytes = fs::file_size(database_ + suffix, error);
      if (!error) size += bytes;
    }
    largest = std::max(largest, size);
  }
  EXPECT_EQ(collector_->End(), 0);
  // A round of deleting lags behind a few batches, and the log holds a few more.
  std::printf("| bytes of database and log at most | %ju |\n", largest);
  EXPECT_LT(largest, kLimit + 16 * 1024 * 1024);
  EXPECT_LT(Number("SELECT sum(length(raw)) FROM quarantine"), 1'100'000);
  EXPECT_GT(Number("SELECT sum(count) FROM outcomes WHERE reason = 'flood'"), 100)
      << "those of which only the count is kept";
  EXPECT_EQ(Number("SELECT sum(count) FROM outcomes WHERE outcome = 'quarantined'"), 400);
  ExpectBalance();
}

TEST_F(PromisesTest, WhatCannotBeDeletedHoldsUpNothingElse) {
  auto writer = OpenWriter();
  std::vector<store::Archive> archives;
  store::Batch batch;
  for (int i = 0; i < 100; ++i) batch.records.push_back(Row("GoToURLEvent", i));
  for (store::RecordRow& row : batch.records) row.raw.resize(20'000, 'u');
  ASSERT_OK(writer->Commit(batch));
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  fs::remove(archives[0].path);
  fs::create_directory(archives[0].path);
  ASSERT_OK(writer->Commit(batch));
  const store::Status status =
      store::ApplyRetention(database_, {.keep_days = 0, .max_bytes = 1024 * 1024});
  EXPECT_THAT(status.message, HasSubstr("cannot delete " + archives[0].path));
  EXPECT_LT(Number("SELECT count(*) FROM records"), 60);
}

TEST_F(PromisesTest, NothingButArchivesIsDeleted) {
  const TempFolder elsewhere;
  auto writer = OpenWriter();
  for (const char* name : {"notes", "notes.zst", "records-1-2.db.zst"}) {
    const std::string path = elsewhere / name;
    name == std::string("records-1-2.db.zst") ? fs::create_symlink("notes", path)
                                              : WriteFile(path, "a shopping list");
    Answer(database_, "INSERT INTO archives SELECT NULL, '" + path +
                          "', 'complete', 2, 1, 100, 200, 1, 1, 2, 9000000");
    const store::Status status =
        store::ApplyRetention(database_, {.keep_days = 0, .max_bytes = 1024 * 1024});
    EXPECT_THAT(status.message, HasSubstr("it is no archive"));
    const ProgramResult erased =
        RunProgram({USAGE_STAT, "erase", "--all", "--yes", "--database", database_});
    EXPECT_EQ(erased.exit_code, 0) << erased.err;
    EXPECT_TRUE(fs::exists(path)) << path;
  }
}

TEST_F(PromisesTest, StrangersArchivesFillNoLog) {
  fs::create_directory(folder_ / "archives");
  for (int i = 0; i < 100; ++i) {
    WriteFile(folder_ / ("archives/" + std::to_string(i) + ".db.zst"), "a shopping list");
  }
  Start();
  EXPECT_TRUE(Says("90 more like this"));
  EXPECT_EQ(collector_->End(), 0);
}

TEST_F(PromisesTest, ALimitOnFileSizesIsAFullDisk) {
  const std::string script = folder_ / "limited";
  WriteFile(script, "#!/bin/sh\nulimit -f 300; exec \"" COLLECTOR_COMMAND "\" \"$@\"\n");
  fs::permissions(script, fs::perms::owner_all);
  collector_.emplace(script, folder_.path(), std::vector<std::string>{"--database", database_});
  ASSERT_TRUE(Says("listens on the endpoint")) << collector_->Err();
  address_ = base::AddressOf(collector_->endpoint());
  for (int i = 0; collector_->Err().find("nothing more is received") == std::string::npos; ++i) {
    ASSERT_LT(i, 100'000);
    (void)Send(PageTurn(0, i));
  }
  EXPECT_EQ(collector_->End(), 1);
}

TEST_F(PromisesTest, EndingHasPatienceWithALockedDatabase) {
  for (const bool is_for_a_moment : {true, false}) {
    Start();
    store::Connection other;
    ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kWrite, &other));
    ASSERT_OK(other.Execute("BEGIN IMMEDIATE"));
    for (int i = 0; i < 3; ++i) SendSurely(PageTurn(0, i));
    collector_->Signal(SIGTERM);
    ASSERT_TRUE(Says("cannot write the database"));
    if (is_for_a_moment) {
      ASSERT_OK(other.Execute("COMMIT"));
    }
    EXPECT_EQ(collector_->Wait(), is_for_a_moment ? 0 : 1);
    const bool is_lost = collector_->Err().find("3 datagrams are lost") != std::string::npos;
    EXPECT_EQ(is_lost, !is_for_a_moment) << collector_->Err();
  }
  EXPECT_EQ(Turns().size(), 3U);
}

TEST_F(PromisesTest, ALogThatIsRemovedTakesNothingAlong) {
  Start();
  for (int i = 0; i < 20; ++i) SendSurely(PageTurn(0, i));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 20; }));
  collector_->Signal(SIGSTOP);  // else it may begin a new log between the two
  fs::remove(database_ + "-wal");
  fs::remove(database_ + "-shm");
  collector_->Signal(SIGCONT);
  EXPECT_TRUE(Says("was removed while in use")) << "though nothing more comes";
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 20; }));
  for (int i = 20; i < 40; ++i) SendSurely(PageTurn(0, i));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 40; }));
  collector_->Signal(SIGKILL);
  collector_->Wait();
  EXPECT_EQ(Turns().size(), 40U);
}

TEST_F(PromisesTest, WhatIsRemovedOrMovedIsNoticed) {
  const std::string folder = folder_ / "state";
  const std::string elsewhere = folder_ / "elsewhere";
  database_ = folder + "/records.db";
  const std::string no_inotify = "inotify_init1 -e inject=inotify_init1:error=ENOSYS";
  const auto remove = [&] { fs::remove(database_); };
  struct Case {
    const char* name;
    std::function<void()> harm;
    bool tells_at_once;
    bool has_inotify;
  };
  const Case cases[] = {
      {"removed", remove, true, true},
      {"moved", [&] { fs::rename(database_, elsewhere); }, true, true},
      {"its folder is moved", [&] { fs::rename(folder, elsewhere); }, true, true},
      {"another one takes its place",
       [&] {
         WriteFile(elsewhere, "");
         fs::rename(elsewhere, database_);
       },
       false, true},
      {"removed on a system without inotify", remove, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (!c.has_inotify && !HasStrace()) continue;
    fs::remove_all(folder);
    fs::remove_all(elsewhere);
    c.has_inotify ? Start() : StartTraced(no_inotify, {});
    if (!c.has_inotify) {
      EXPECT_THAT(ReadFile(trace_), HasSubstr("INJECTED"));
    }
    SendSurely(PageTurn(0, 1));
    ASSERT_TRUE(Eventually([this] { return Turns().size() == 1; }));
    c.harm();
    if (!c.tells_at_once) SendSurely(PageTurn(0, 2));
    EXPECT_TRUE(Says("was removed or replaced while in use"));
    if (c.tells_at_once) SendSurely(PageTurn(0, 2));
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_EQ(Turns(), std::vector<int>{2});
  }
}

// Garbles the pages in the second half of the file, as failing flash does.
void Garble(const std::string& path) {
  std::string bytes = ReadFile(path);
  for (std::size_t i = bytes.size() / 2048 * 1024; i + 4096 < bytes.size(); i += 4096)
    bytes[i] = '\x55';
  WriteFile(path, bytes);
}

TEST_F(PromisesTest, DamageIsFoundAndWhatCanBeReadIsRecovered) {
  // An archive, and a database at rest whose pages went bad.
  Start();
  for (int i = 0; i < 50; ++i) SendSurely(PageTurn(0, i));
  EXPECT_EQ(collector_->End(), 0);
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  Start();
  for (int i = 50; i < 2000; ++i) SendSurely(PageTurn(0, i));
  ASSERT_TRUE(Eventually([this] { return Turns().size() > 1900; }));
  collector_->Signal(SIGKILL);
  collector_->Wait();
  const std::size_t kept = Turns().size();
  ASSERT_GT(kept, 1000U);
  store::Connection connection;
  ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kWrite, &connection));
  ASSERT_OK(connection.Execute("PRAGMA wal_checkpoint(TRUNCATE)"));
  connection = store::Connection();
  Garble(database_);

  // Nobody else meets the damage: the check after the kill does.
  Start();
  EXPECT_TRUE(Says("is kept as"));
  ASSERT_TRUE(Says("belongs to it now"));
  SendSurely(PageTurn(0, 5000));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 51; }));
  EXPECT_EQ(collector_->End(), 0);

  const ProgramResult result = Recover();
  EXPECT_EQ(result.exit_code, 0) << result.err;
  long recovered = 0;
  long unreadable = 0;
  ASSERT_EQ(std::sscanf(result.out.c_str(), "%ld records recovered, at most %ld", &recovered,
                        &unreadable),
            2)
      << result.out;
  EXPECT_GT(recovered, 500);
  EXPECT_GT(unreadable, 0);
  const std::vector<int> turns = Turns();
  EXPECT_GT(turns.size(), 500U);
  EXPECT_LT(turns.size(), kept + 1);
  EXPECT_TRUE(std::ranges::is_sorted(turns));
  EXPECT_EQ(turns.back(), 5000);
  EXPECT_EQ(Number("SELECT sum(last_record - first_record + 1) FROM missing "
                   "WHERE reason = 'unreadable'"),
            unreadable);
  EXPECT_EQ(Recover().exit_code, 1) << "its records are there already";
}

TEST_F(PromisesTest, DamageWhileInUseCostsNoMoreThanWhatItHit) {
  struct Case {
    const char* name;
    void (*harm)(const std::string& path);
  };
  const Case cases[] = {
      {"cut",
       [](const std::string& path) { fs::resize_file(path, fs::file_size(path) / 2048 * 1024); }},
      {"garbled", Garble},
  };
  constexpr int kBefore = 2000;
  constexpr int kAfter = 400;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& file : fs::directory_iterator(folder_.path())) fs::remove_all(file);
    Start();
    for (int i = 0; i < kBefore; ++i) SendSurely(PageTurn(0, i));
    ASSERT_TRUE(Eventually([this] { return Turns().size() == kBefore; }));
    // What is in the log only is out of harm's way.
    Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
    c.harm(database_);
    for (int i = 0; i < kAfter; ++i) SendSurely(PageTurn(0, kBefore + i));
    EXPECT_EQ(collector_->End(), 0);
    // Whatever it has met of it by now, the check after a kill finds it.
    Start();
    collector_->Signal(SIGKILL);
    collector_->Wait();
    Start();
    SendSurely(PageTurn(0, kBefore + kAfter));
    ASSERT_TRUE(Eventually([this] { return !Aside().empty(); })) << collector_->Err();
    EXPECT_EQ(collector_->End(), 0);
    const ProgramResult result = Recover();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    const std::vector<int> turns = Turns();
    std::printf("| %s | %zu of %d |\n", c.name, turns.size(), kBefore + kAfter + 1);
    // How much of the rest depends on which pages the tree of the records had there.
    EXPECT_GE(turns.size(), kAfter + 1U);
    const std::int64_t lost = Number(
        "SELECT sum(last_record - first_record + 1) FROM missing WHERE reason = 'unreadable'");
    EXPECT_GE(static_cast<std::int64_t>(turns.size()) + lost, kBefore + kAfter);
    EXPECT_EQ(turns.back(), kBefore + kAfter);
    EXPECT_TRUE(std::ranges::is_sorted(turns));
    const std::string database = database_;
    EXPECT_EQ(Answer(database, "PRAGMA integrity_check"), "ok");
  }
}

TEST_F(PromisesTest, RowsAndTablesThatCannotBeAreDamage) {
  const auto with_schema = [](const std::string& from, const std::string& to) {
    return "PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = replace(sql, '" + from +
           "', '" + to + "')";
  };
  const std::string strict = "uid INTEGER NOT NULL";
  const std::string loose = "uid INTEGER";
  struct Case {
    const char* name;
    std::vector<std::string> harm;
    bool while_in_use;
  };
  const std::vector<std::string> null_uid = {with_schema(strict, loose),
                                             "UPDATE records SET uid = NULL",
                                             with_schema(loose + ",", strict + ",")};
  const Case cases[] = {{"a value is gone", null_uid, false},
                        {"a value is gone while in use", null_uid, true},
                        {"a column has another name", {with_schema("boot ", "boat ")}, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& file : fs::directory_iterator(folder_.path())) fs::remove_all(file);
    Start();
    SendSurely(PageTurn(0, 1));
    ASSERT_TRUE(Eventually([this] { return Turns().size() == 1; }));
    if (!c.while_in_use) collector_->Signal(SIGKILL);
    if (!c.while_in_use) collector_->Wait();
    for (const std::string& sql : c.harm) Answer(database_, sql);
    if (!c.while_in_use) Start();
    // Counts are added up for so many.
    for (int i = 0; i < 1100; ++i) SendSurely(PageTurn(0, i));
    EXPECT_TRUE(Says("is kept as"));
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_FALSE(Aside().empty());
    EXPECT_EQ(Answer(database_, "SELECT max(book_id) FROM change_page"), "1099");
  }
}

TEST_F(PromisesTest, DamageThatIsMetAtTheEndIsNotForgotten) {
  Start();
  for (int i = 0; i < 500; ++i) SendSurely(PageTurn(0, i));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 500; }));
  collector_->Signal(SIGKILL);
  collector_->Wait();
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
  Garble(database_);
  Start();
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_FALSE(Aside().empty()) << collector_->Err();
}

TEST_F(PromisesTest, EveryEighthStartLooksThroughAFileThatIsAlwaysLeftInOrder) {
  auto writer = OpenWriter();
  store::Batch batch;
  batch.records.assign(5000, RowOf(velmora::usage_stat::ChangePageEvent(), 1));
  ASSERT_OK(writer->Commit(batch));
  ASSERT_OK(writer->Finish());
  writer.reset();
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
  std::string bytes = ReadFile(database_);
  std::size_t page = bytes.size() / 2048 * 1024;
  while (bytes[page] != '\x0d') page += 1024;
  bytes[page] = '\x55';  // a page of records, which nobody needs for anything new
  WriteFile(database_, bytes);
  std::vector<int> checked;
  for (int run = 2; run <= 8; ++run) {
    Start();
    EXPECT_EQ(collector_->End(), 0);
    if (!Aside().empty()) {
      checked.push_back(run);
      fs::remove(Aside());
    }
  }
  EXPECT_EQ(checked, std::vector<int>{8});
}

TEST_F(PromisesTest, DamageThatOnlyDeletingMeetsIsNotAFullDisk) {
  // How a page of records breaks, and what SQLite says when it is to be deleted.
  const std::pair<const char*, void (*)(std::string*, std::size_t)> cases[] = {
      {"a type byte", [](std::string* bytes, std::size_t page) { (*bytes)[page] = '\x55'; }},
      // A row that goes on in a page of a number that no file has: "database or disk is full".
      {"a row's size",
       [](std::string* bytes, std::size_t page) {
         const auto byte = [&](std::size_t i) { return static_cast<unsigned char>((*bytes)[i]); };
         const std::size_t last = page + 6 + 2U * byte(page + 4);
         const std::size_t row = page + 256U * byte(last) + byte(last + 1);
         bytes->replace(row, 2, "\x88\x64");
         bytes->replace(row + 100, 20, 20, '\xff');
       }},
  };
  for (const auto& [name, harm] : cases) {
    SCOPED_TRACE(name);
    for (const auto& file : fs::directory_iterator(folder_.path())) fs::remove_all(file);
    auto writer = OpenWriter();
    store::Batch batch;
    const std::int64_t now = base::NowMs();
    for (int i = 0; i < 20'000; ++i) {
      batch.records.push_back(RowOf(velmora::usage_stat::ChangePageEvent(), now));
    }
    ASSERT_OK(writer->Commit(batch));
    ASSERT_OK(writer->Finish());
    writer.reset();
    Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
    std::string bytes = ReadFile(database_);
    std::size_t page = bytes.size() / 8 / 1024 * 1024;
    while (bytes[page] != '\x0d') page += 1024;
    harm(&bytes, page);
    WriteFile(database_, bytes);
    Start({"--keep-days", "1", "--max-size", "1M"});
    EXPECT_TRUE(Says("is kept as"));
    SendSurely(PageTurn(0, 1));
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_EQ(Answer(database_, "SELECT count(*) FROM change_page"), "1");
  }
}

TEST_F(PromisesTest, ALogFollowsTheDatabaseThatWasSetAside) {
  Start();
  for (int i = 0; i < 100; ++i) SendSurely(PageTurn(0, i));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 100; }));
  collector_->Signal(SIGKILL);
  collector_->Wait();
  // Another one, whose log is none of these.
  const std::string other = database_ + ".damaged-1";
  WriteFile(other, ReadFile(database_));
  // Who set it aside was killed before its log had followed.
  const std::string aside = database_ + ".damaged-" + std::to_string(base::NowMs());
  fs::rename(database_, aside);
  Start();
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(ReadFile(other + "-wal"), "");
  EXPECT_EQ(RunProgram({USAGE_STAT, "recover", aside, "--database", database_}).exit_code, 0);
  EXPECT_EQ(Turns().size(), 100U);
  // The log of one that somebody took away is not kept.
  fs::remove(aside + "-wal");
  fs::rename(database_, folder_ / "away");
  Start();
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(ReadFile(aside + "-wal"), "");
}

TEST_F(PromisesTest, AFileWithoutItsHeadIsSetAside) {
  Start();
  for (int i = 0; i < 100; ++i) SendSurely(PageTurn(0, i));
  EXPECT_EQ(collector_->End(), 0);
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
  std::string bytes = ReadFile(database_);
  bytes.replace(0, 100, 100, '\x55');
  WriteFile(database_, bytes);
  Start();
  EXPECT_TRUE(Says("is kept as"));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(Recover().exit_code, 0);
  EXPECT_EQ(Turns().size(), 100U);
}

TEST_F(PromisesTest, RecordsThatAnArchiveHoldsTooAreMetOnce) {
  Start();
  for (int i = 0; i < 50; ++i) SendSurely(PageTurn(0, i));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 50; }));
  collector_->Signal(SIGKILL);
  collector_->Wait();
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
  // A power cut takes back that they were moved.
  fs::copy_file(database_, folder_ / "before");
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  for (const char* beside : {"-wal", "-shm"}) fs::remove(database_ + beside);
  fs::rename(folder_ / "before", database_);
  Start();
  EXPECT_TRUE(Says("records of the same numbers are here"));
  SendSurely(PageTurn(0, 50));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(Turns().size(), 51U);
  // Even where both are listed.
  Answer(database_, "INSERT INTO archives SELECT 7, '" + archives[0].path +
                        "', 'complete', 2, 1, min(id), 51, 51, 1, 9e15, 1 FROM records");
  EXPECT_EQ(Turns().size(), 51U);
}

TEST_F(PromisesTest, ANumberBeyondBeliefIsDamage) {
  Start();
  EXPECT_EQ(collector_->End(), 0);
  const std::string claim = "UPDATE records SET id = 9223372036854775807";
  Answer(database_, claim);
  EXPECT_THAT(
      RunProgram({USAGE_STAT, "sql", "--database", database_, "SELECT count(*) FROM records"}).out,
      HasSubstr("\n1\n"));
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
  fs::create_directory(folder_ / "archives");
  ASSERT_OK(store::CompressFile(database_, folder_ / "archives/records-x-1-1.db.zst"));
  for (int i = 0; i < 2; ++i) {
    Start();
    EXPECT_TRUE(Says("larger than any that was given")) << "the database, then the archive";
    SendSurely(PageTurn(0, 1));
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_EQ(Answer(database_, "SELECT count(*) FROM change_page"), "1");
    fs::remove(database_);
  }
}

// The datagrams of all records that are left of the database and archives at `path`, by number.
std::map<std::int64_t, std::string> RecordsIn(const std::string& path, std::int64_t last) {
  std::map<std::int64_t, std::string> found;
  std::unique_ptr<store::History> history;
  std::vector<std::string> problems;
  EXPECT_OK(store::History::Open(path, &history));
  const auto visit = [&](const store::RecordRow& row) {
    found[row.id] = row.raw;
    return true;
  };
  EXPECT_OK(history->ForEach({.last_id = last}, visit, &problems));
  EXPECT_TRUE(problems.empty()) << problems.front();
  return found;
}

// Begins a database at `path`, beside one that was set aside, and takes up its archives.
void BeginAnew(const std::string& path) {
  std::unique_ptr<store::Writer> writer;
  std::vector<std::string> adopted;
  std::vector<std::string> problems;
  EXPECT_OK(store::Writer::Open(path, "test", &writer));
  EXPECT_OK(store::AdoptArchives(path, store::DefaultArchiveDirectory(path), &adopted, &problems));
  EXPECT_THAT(problems, testing::IsEmpty());
}

// Expects that no number has both a record and a reason to have none, and no archive reaches over
// another.
void ExpectOneOfEach(const std::string& path) {
  std::unique_ptr<store::Reader> reader;
  std::vector<store::Archive> archives;
  std::vector<store::Missing> missing;
  EXPECT_OK(store::Reader::Open(path, &reader));
  EXPECT_OK(reader->ReadArchives(&archives));
  EXPECT_OK(reader->ReadMissing(&missing));
  std::int64_t last = 0;
  for (const store::Archive& archive : archives) {
    EXPECT_GT(archive.first_record, last);
    last = archive.last_record;
  }
  for (const auto& [number, datagram] : RecordsIn(path, INT64_MAX)) {
    for (const store::Missing& run : missing) {
      EXPECT_FALSE(run.first_record <= number && number <= run.last_record) << number;
    }
  }
}

// Recovers copies of the database at `path`, each with another page of its file broken, or part of
// its log. Expects what is saved to be true, and no more than `most` records to be lost. Returns in
// how many cases none was.
int BreakPages(const std::string& path, std::size_t page_size, std::size_t first_page,
               std::size_t most, bool is_log = false) {
  constexpr std::size_t kEach = 5;  // of many
  const std::string log = ReadFile(path + "-wal");
  const std::string bytes = is_log ? log : ReadFile(path);
  const std::size_t head = is_log ? 32 : 0;
  const std::size_t size = page_size + (is_log ? 24 : 0);
  const std::map<std::int64_t, std::string> sound = RecordsIn(path, INT64_MAX);
  const std::int64_t last = sound.rbegin()->first;
  int harmless = 0;
  for (std::size_t page = first_page; head + page * size <= bytes.size(); page += kEach) {
    SCOPED_TRACE("page " + std::to_string(page));
    const TempFolder folder;
    const std::string database = folder / "records.db";
    const std::string aside = database + ".damaged-1";
    const std::string archives = folder / "archives";
    std::string broken = bytes;
    for (std::size_t i = 0; i < size; i += 7) broken[head + (page - 1) * size + i] ^= 0x55;
    // With the first of its frames, the log's own head.
    if (page == 1 && is_log) broken.replace(0, head, head, '\x55');
    WriteFile(aside, is_log ? ReadFile(path) : broken);
    WriteFile(aside + "-wal", is_log ? broken : log);
    fs::copy(fs::path(path).parent_path() / "archives", archives);
    store::Recovered recovered;
    BeginAnew(database);
    EXPECT_OK(store::Recover(aside, database, archives, &recovered));
    // Where the last record was lost without a trace, the new database gives its number again.
    const std::int64_t known =
        std::min(last, NumberIn(database, "SELECT min(id) FROM records") - 1);
    const auto saved = RecordsIn(database, known);
    harmless += saved.size() == sound.size() ? 1 : 0;
    EXPECT_LE(sound.size(), saved.size() + most);
    for (const auto& [number, datagram] : saved) {
      const auto was = sound.find(number);
      // What is wrong within a long text nobody can tell where the fields tell nothing.
      const bool is_sure = page_size == store::kPageSize || datagram.size() < page_size / 2;
      EXPECT_TRUE(was != sound.end() && (!is_sure || datagram == was->second))
          << "there was no such record " << number;
    }
    const std::string missing =
        "SELECT coalesce(sum(last_record - first_record + 1), 0) FROM missing WHERE ";
    EXPECT_EQ(NumberIn(database, missing + "reason = 'unreadable'"), recovered.unreadable);
    EXPECT_GE(static_cast<std::int64_t>(saved.size()) +
                  NumberIn(database, missing + "first_record <= " + std::to_string(known)),
              known)
        << "a number without a record or a reason";
    ExpectOneOfEach(database);
  }
  return harmless;
}

TEST_F(PromisesTest, ABrokenPageCostsItsOwnRecordsAlone) {
  velmora::usage_stat::NewBooksEventEx books;
  books.records_.resize(100);  // more than a page
  books.count_ = 100;
  auto writer = OpenWriter();
  store::Batch batch;
  for (int i = 0; i < 200; ++i) {
    batch.records = {i % 50 == 0 ? RowOf(books, i)
                                 : RowOf(velmora::usage_stat::ChangePageEvent(), i)};
    ASSERT_OK(writer->Commit(batch));
    // What was erased stays so, whatever page is broken; and the log keeps frames of the round
    // before, behind those of this one.
    if (i == 150) {
      Answer(database_,
             "DELETE FROM records WHERE id BETWEEN 60 AND 110;"
             "INSERT INTO missing VALUES(60, 110, 'erased');"
             "PRAGMA wal_checkpoint(RESTART)");
    }
  }
  fs::create_directory(folder_ / "archives");
  constexpr std::size_t kMostInPage = 18;
  // With a frame the next is lost, whose sum goes on from it; older states take their places.
  EXPECT_GT(BreakPages(database_, 1024, 1, 2 * kMostInPage, true), 0);
  ASSERT_OK(writer->Finish());
  writer.reset();
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
  // Most pages hold the texts of the views, or lead to others.
  EXPECT_GT(BreakPages(database_, 1024, 1, kMostInPage), 10);

  // A page that points to one of its rows 200 times.
  std::string bytes = ReadFile(database_);
  std::size_t page = 0;
  for (std::size_t each = 1024; each < bytes.size(); each += 1024) {
    if (bytes[each] == '\x0d' && bytes[each + 4] > 10) page = each;
  }
  bytes[page + 4] = '\xc8';
  for (std::size_t i = 1; i < 200; ++i) bytes.replace(page + 8 + 2 * i, 2, bytes, page + 8, 2);
  WriteFile(database_, bytes);
  store::Pages pages;
  std::map<std::int64_t, int> visits;
  ASSERT_OK(store::Pages::Open(database_, &pages));
  pages.ForEachRow([&](std::int64_t number, auto) { return ++visits[number] > 0; });
  EXPECT_THAT(visits, testing::Each(testing::Pair(testing::_, testing::Le(100))));
}

TEST_F(PromisesTest, WhatIsLockedAtTheStartIsTriedAgain) {
  Start();
  SendSurely(PageTurn(0, 1));
  EXPECT_EQ(collector_->End(), 0);
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  Start();
  collector_->Signal(SIGKILL);
  collector_->Wait();
  Answer(database_, "DELETE FROM archives");
  auto somebody = std::make_unique<store::Maintenance>();
  ASSERT_OK(store::Maintenance::Open(database_, somebody.get()));
  Start();
  EXPECT_TRUE(Says("older files can't be put in order"));
  SendSurely(RowOf(velmora::usage_stat::ForceRotationEvent(), 1).raw);
  EXPECT_TRUE(Says("cannot archive"));
  somebody.reset();
  EXPECT_TRUE(Says("belongs to it now"));
  EXPECT_TRUE(Says("archiving works again"));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(Turns().size(), 1U);
}

TEST_F(PromisesTest, ARecoveredNumberHasOneRecordOrOneReason) {
  auto writer = OpenWriter();
  store::Batch batch;
  for (int i = 0; i < 100; ++i) {
    batch.records.push_back(RowOf(velmora::usage_stat::ChangePageEvent(), i));
  }
  ASSERT_OK(writer->Commit(batch));
  ASSERT_OK(writer->Finish());
  writer.reset();
  {  // An archive between records that are still in the database.
    store::Maintenance maintenance;
    std::unique_ptr<store::Reader> reader;
    store::Archive archive;
    ASSERT_OK(store::Maintenance::Open(database_, &maintenance));
    ASSERT_OK(store::Reader::Open(database_, &reader));
    ASSERT_OK(
        store::MakeArchive(&maintenance, folder_ / "archives", reader.get(), 10, 50, &archive));
    ASSERT_OK(store::FinishArchives(&maintenance));
  }
  Answer(database_, "PRAGMA wal_checkpoint(TRUNCATE)");
  const std::map<std::int64_t, std::string> sound = RecordsIn(database_, INT64_MAX);
  const std::int64_t last = sound.rbegin()->first;

  struct Case {
    const char* name;
    std::string file;      // what happens to the file,
    std::string database;  // and to the new database
    std::size_t gone;      // records
    std::int64_t unreadable;
    std::int64_t left_out;
  };
  const std::string own = " WHERE id = (SELECT max(id) FROM records)";
  const Case cases[] = {
      {"sound", "", "", 0, 0, 0},
      {"made anew by other hands",
       "PRAGMA journal_mode = DELETE; PRAGMA application_id = 0; PRAGMA page_size = 4096; VACUUM",
       "", 0, -1, 0},
      {"claims nearly all numbers",
       "INSERT INTO missing VALUES(5000, 9007199254740990, 'retention')", "", 0, -1, 0},
      {"claims more than it gave", "INSERT INTO missing VALUES(5000, 9000, 'retention')",
       "UPDATE records SET id = 6000" + own, 0, -1, 0},
      {"a missing run that ends before it begins", "INSERT INTO missing VALUES(90, 20, 'erased')",
       "", 0, 0, 0},
      {"its first records are gone", "DELETE FROM records WHERE id < 8", "", 7, 7, 0},
      {"nothing tells of its stores", "DELETE FROM stores", "", 0, 0, 0},
      {"nothing tells of its archive", "DELETE FROM archives", "", 0, 0, 0},
      {"an archive that is somewhere else", "",
       "DELETE FROM archives; INSERT INTO missing VALUES(10, 50, 'unreadable')", 40, 0, 0},
      {"an archive that was deleted", "UPDATE archives SET state = 'deleted'", "", 0, 0, 0},
      {"what was erased since", "", "INSERT INTO missing VALUES(60, 69, 'erased')", 10, 0, 10},
      {"what could not be read before", "", "INSERT INTO missing VALUES(55, 70, 'unreadable')", 0,
       0, 0},
      {"a row whose fields and datagram differ",
       "UPDATE records SET fields = replace(fields, '[0', '[1') WHERE id = 77", "", 1, 1, 0},
      {"a row of another time", "UPDATE records SET timestamp_ms = 5 WHERE id = 78", "", 1, 1, 0},
      {"a row of another event",
       "UPDATE records SET event = (SELECT event FROM records WHERE id = 1) WHERE id = 79", "", 1,
       1, 0},
      {"a row with a number of the archive", "UPDATE records SET id = 20 WHERE id = 80", "", 1, 1,
       1},
      {"nothing tells what was in front", "DELETE FROM stores; DELETE FROM records WHERE id < 51",
       "", 10, 0, 0},
      {"a store in between", "INSERT INTO stores VALUES(60, x'00112233445566778899aabbccddeeff')",
       "", 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const TempFolder folder;
    const std::string database = folder / "records.db";
    const std::string aside = database + ".damaged-1";
    const std::string link = folder / "link";
    const std::string archives = folder / "archives";
    fs::copy_file(database_, aside);
    fs::copy(folder_ / "archives", archives);
    fs::create_symlink(aside, link);
    Answer(aside, c.file);
    BeginAnew(database);
    Answer(database, c.database);
    store::Recovered recovered;
    EXPECT_OK(store::Recover(link, database, archives, &recovered));
    const auto expect_all = [&] {
      EXPECT_EQ(RecordsIn(database, last).size(), sound.size() - c.gone);
      EXPECT_LT(NumberIn(database, "SELECT max(first_record) FROM stores"), 100'000);
      ExpectOneOfEach(database);
    };
    expect_all();
    EXPECT_EQ(recovered.left_out, c.left_out);
    EXPECT_TRUE(c.unreadable < 0 || recovered.unreadable == c.unreadable) << recovered.unreadable;
    // Killed before its last archive, or before nothing.
    const std::string all = "SELECT first_record || hex(store_id) FROM stores";
    const std::string told = Answer(aside, all);
    const std::string stores = Answer(database, all);
    EXPECT_THAT(stores, testing::StartsWith(told));
    const std::string newest =
        " FROM archives WHERE first_record BETWEEN 51 AND " + std::to_string(last);
    EXPECT_TRUE(fs::remove(Answer(database, "SELECT path" + newest)));
    Answer(database, "DELETE" + newest);
    EXPECT_OK(store::Recover(link, database, archives, &recovered));
    EXPECT_EQ(recovered.archives.size(), 1U);
    EXPECT_TRUE(told.empty() || Answer(database, all) == stores);
    expect_all();
    EXPECT_FALSE(store::Recover(link, database, archives, &recovered).ok());
    // What was away comes back.
    BeginAnew(database);
    ExpectOneOfEach(database);
    EXPECT_GE(RecordsIn(database, last).size() + c.gone % 40, sound.size());
    Answer(database, "DELETE FROM archives; DELETE FROM missing; INSERT INTO missing VALUES(1, " +
                         std::to_string(last) + ", 'unreadable')");
    BeginAnew(database);
    ExpectOneOfEach(database);
  }

  // Beside a database that began anew by itself, and one with numbers among these.
  for (const int number : {5, 200}) {
    const TempFolder folder;
    const std::string database = folder / "records.db";
    store::Recovered recovered;
    ASSERT_OK(store::Writer::Open(database, "test", &writer));
    Answer(database, "UPDATE records SET id = " + std::to_string(number) + own);
    EXPECT_EQ(store::Recover(database_, database, folder / "archives", &recovered).ok(),
              number > last);
    ExpectOneOfEach(database);
    ASSERT_OK(writer->Commit(batch));
    EXPECT_EQ(Answer(database, "SELECT count(*) FROM records WHERE id = " + std::to_string(number) +
                                   " UNION ALL SELECT count(*) FROM change_page"),
              "1 100");
  }
  // Nor does anybody walk through a broken tree for ever.
  store::Connection connection;
  std::int64_t count = 0;
  ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kRescue, &connection));
  EXPECT_FALSE(connection
                   .Read("WITH RECURSIVE n(i) AS (VALUES(1) UNION ALL SELECT i + 1 FROM n) "
                         "SELECT count(*) FROM n",
                         &count)
                   .ok());
  connection = store::Connection();
  // The log of a file behind a link.
  const std::string link = folder_ / "link";
  const std::string copy = folder_ / "records.db.damaged-1";
  const std::string log = copy + "-wal";
  writer = OpenWriter();
  ASSERT_OK(writer->Commit(batch));
  fs::copy_file(database_, copy);
  fs::copy_file(database_ + "-wal", log);
  const auto with_log = RecordsIn(database_, INT64_MAX).size();
  writer.reset();
  for (const char* beside : {"", "-wal", "-shm"}) fs::remove(database_ + beside);
  fs::create_symlink(copy, link);
  BeginAnew(database_);
  store::Recovered recovered;
  EXPECT_OK(store::Recover(link, database_, folder_ / "archives", &recovered));
  EXPECT_EQ(RecordsIn(database_, static_cast<std::int64_t>(with_log)).size(), with_log);
}

TEST_F(PromisesTest, ABrokenPageOfTheFirstSchemaCostsItsOwnRecordsAlone) {
  CopyFirstSchema(folder_.path());
  // All but the first, which tells how large the pages are.
  for (std::size_t from = 2; from <= 6; ++from) (void)BreakPages(database_, 4096, from, 6);
  // What is whole tells itself how many numbers were given.
  const TempFolder folder;
  const std::string database = folder / "records.db";
  store::Recovered recovered;
  fs::copy_file(database_, database + ".damaged-1");
  BeginAnew(database);
  EXPECT_OK(store::Recover(database_, database, folder / "archives", &recovered));
  EXPECT_EQ(recovered.records, 6);
  EXPECT_EQ(recovered.unreadable, 0);
}

TEST_F(PromisesTest, AFileOfTheFirstSchemaWithRowsThatCannotBeIsSetAside) {
  const char* const cases[] = {
      "INSERT INTO tally SELECT run, uid, 'own', reason, 1, 1 FROM tally WHERE outcome = 'journal'",
      "UPDATE archives SET last_record = 1 << 60",
      "DROP TABLE archives",
      "ALTER TABLE records RENAME COLUMN pid TO process",
  };
  for (const char* const harm : cases) {
    SCOPED_TRACE(harm);
    for (const auto& file : fs::directory_iterator(folder_.path())) fs::remove_all(file);
    CopyFirstSchema(folder_.path());
    store::Connection connection;
    ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kWrite, &connection));
    ASSERT_OK(connection.Execute(harm));
    connection = store::Connection();
    Start();
    EXPECT_TRUE(Says("is kept as"));
    SendSurely(PageTurn(0, 1));
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_EQ(Recover().exit_code, 0);
    EXPECT_EQ(RecordsIn(database_, 12).size(), 12U);
    EXPECT_EQ(Answer(database_, "SELECT count(*) FROM change_page"), "1");
  }
}

TEST_F(PromisesTest, ABrokenFileOfTheFirstSchemaIsKeptAndHoldsUpNothing) {
  constexpr std::int64_t kLast = 312;
  constexpr std::int64_t kMostInPage = 40;
  struct Case {
    const char* name;
    const char* file;
    bool is_begun;  // the upgrade, when the damage happens
    void (*harm)(std::string* bytes, std::size_t page);
  };
  const auto type_byte = [](std::string* bytes, std::size_t page) { (*bytes)[page] = '\x55'; };
  // SQLite passes over such rows without a word.
  const auto pointers = [](std::string* bytes, std::size_t page) {
    bytes->replace(page + 12, 8, 8, '\0');
  };
  const auto mark = [](std::string* bytes, std::size_t) { (*bytes)[68] = '\0'; };
  const char* const archive = "archives/records-20261125T033943Z-1-6.db.zst";
  const Case cases[] = {
      {"a page", "records.db.schema-1", true, type_byte},
      {"rows", "records.db.schema-1", true, pointers},
      {"the mark in its head", "records.db.schema-1", true, mark},
      {"a page of an archive", archive, true, type_byte},
      {"rows of an archive", archive, true, pointers},
      {"a page, before the upgrade", "records.db", false, type_byte},
      {"rows, before the upgrade", "records.db", false, pointers},
      {"a page, while nothing else is there", "records.db.schema-1", false, type_byte},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& file : fs::directory_iterator(folder_.path())) fs::remove_all(file);
    CopyFirstSchema(folder_.path());
    Answer(database_,
           "WITH RECURSIVE n(i) AS (VALUES(13) UNION ALL SELECT i + 1 FROM n WHERE i < " +
               std::to_string(kLast) +
               ") INSERT INTO records SELECT i, received_ms, pid, uid, type, event, timestamp_ms, "
               "fields, raw FROM n, records WHERE id = 12");
    const std::string file = folder_ / c.file;
    if (c.is_begun) {
      EXPECT_OK(OpenWriter()->Finish());
    }
    if (!fs::exists(file)) fs::rename(database_, file);
    const std::string plain = folder_ / "plain";
    const bool is_archive = file == folder_ / archive;
    if (is_archive) {
      ASSERT_OK(store::UnpackArchive(file, plain));
    }
    std::string bytes = ReadFile(is_archive ? plain : file);
    const char* const event = is_archive ? "AddNoteEvent" : "ChangePageEvent";
    c.harm(&bytes, bytes.find(event) / 4096 * 4096);
    WriteFile(is_archive ? plain : file, bytes);
    if (is_archive) {
      fs::remove(file);
      ASSERT_OK(store::CompressFile(plain, file));
    }

    Start();
    SendSurely(PageTurn(0, 1));
    EXPECT_TRUE(Says("is kept as"));
    EXPECT_TRUE(Eventually(
        [this] { return Number("SELECT count(*) FROM archives WHERE schema = 1") == 0; }));
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_EQ(std::ranges::count(collector_->Err(), '\n'), 3) << collector_->Err();
    const auto is_aside = [](const auto& each) {
      return each.path().string().find(".damaged-") != std::string::npos &&
             each.path().string().find("-wal") == std::string::npos &&
             each.path().string().find("-shm") == std::string::npos;
    };
    EXPECT_EQ(std::ranges::count_if(fs::directory_iterator(folder_.path()), is_aside), 1);
    EXPECT_FALSE(fs::exists(file) && file != database_);
    const auto expect_all = [&] {
      ExpectOneOfEach(database_);
      const std::string known = std::to_string(kLast);
      EXPECT_EQ(static_cast<std::int64_t>(RecordsIn(database_, kLast).size()) +
                    Number("SELECT coalesce(sum(last_record - first_record + 1), 0) FROM missing "
                           "WHERE reason = 'unreadable' AND last_record <= " +
                           known),
                kLast);
      EXPECT_EQ(Answer(database_, "SELECT count(*) FROM change_page"), "1");
    };
    if (c.is_begun) expect_all();
    const ProgramResult result = Recover();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    expect_all();
    EXPECT_GE(static_cast<std::int64_t>(RecordsIn(database_, kLast).size()), kLast - kMostInPage);
  }
}

TEST_F(PromisesTest, StoresTellWhereNumbersMayHaveBeenGivenTwice) {
  Start();
  EXPECT_EQ(collector_->End(), 0);
  Start();
  for (int i = 0; i < 5; ++i) SendSurely(PageTurn(0, i));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 5; }));
  collector_->Signal(SIGKILL);
  collector_->Wait();
  // A power cut takes the log; a reader had seen all that was in it.
  fs::remove(database_ + "-wal");
  fs::remove(database_ + "-shm");
  const std::int64_t before_cut = Number("SELECT max(id) FROM records");
  Start();
  EXPECT_EQ(collector_->End(), 0);
  Start();
  EXPECT_EQ(collector_->End(), 0);
  std::unique_ptr<store::Reader> reader;
  std::vector<store::Store> stores;
  ASSERT_OK(store::Reader::Open(database_, &reader));
  ASSERT_OK(reader->ReadStores(&stores));
  ASSERT_EQ(stores.size(), 2U) << "one for the file, one after the cut, none after an orderly end";
  EXPECT_NE(stores[0].id, stores[1].id);
  EXPECT_EQ(stores[0].first_record, 1);
  EXPECT_EQ(stores[1].first_record, before_cut + 1) << "the first number that was given again";
}

TEST_F(PromisesTest, WhatMustBeOnTheDiskIsThereWhateverIsRead) {
  if (!HasStrace()) GTEST_SKIP() << "no strace to look with";
  Start();
  SendSurely(PageTurn(0, 1));
  EXPECT_EQ(collector_->End(), 0);
  store::Connection reader;  // keeps SQLite from playing in the log, and from syncing it for that
  ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kRead, &reader));
  store::Snapshot snapshot(&reader);
  std::int64_t records = 0;
  ASSERT_OK(snapshot.Begin());
  ASSERT_OK(reader.Read("SELECT count(*) FROM records", &records));

  StartTraced("pwrite64,fdatasync", {});
  std::string last;
  std::istringstream lines(ReadFile(trace_));
  for (std::string line; std::getline(lines, line);) {
    if (line.find("records.db-wal>") != std::string::npos) last = line;
  }
  EXPECT_THAT(last, HasSubstr("fdatasync(")) << "the start of a run";
  EXPECT_EQ(collector_->End(), 0);

  const ProgramResult archived = RunProgram(
      {"/usr/bin/env", "strace", "-E", "ASAN_OPTIONS=detect_leaks=0", "-f", "-y", "-o", trace_,
       "-e", "trace=fdatasync,rename", USAGE_STAT, "archive", "--database", database_});
  ASSERT_EQ(archived.exit_code, 0) << archived.err;
  const std::string calls = ReadFile(trace_);
  ASSERT_THAT(calls, HasSubstr("rename("));
  EXPECT_LT(calls.find("records.db-wal>"), calls.find("rename(")) << "the name of an archive";
}

// ---- Clocks ----

TEST_F(PromisesTest, EachStepOfTheClockIsNotedWhereItFell) {
  const std::time_t clocks[] = {0, 30, -3600, -3600,
                                0};  // half a minute may be a clock that drifts
  auto writer = OpenWriter();
  for (const std::time_t clock : clocks) {
    g_clock_is_ahead = clock;
    ASSERT_OK(writer->Commit({{Row("AddNoteEvent", 1000)}, {}, {}, {}}));
  }
  writer.reset();
  g_clock_is_ahead = 600;
  writer = OpenWriter();  // found out by the run after the step
  g_clock_is_ahead = 0;
  std::unique_ptr<store::Reader> reader;
  std::vector<store::ClockStep> steps;
  ASSERT_OK(store::Reader::Open(database_, &reader));
  ASSERT_OK(reader->ReadClockSteps(&steps));
  std::string told;
  for (const store::ClockStep& step : steps) {
    const auto seconds = std::lround(static_cast<double>(step.step_ms) / 1000);
    told += std::to_string(step.record) + ": " + std::to_string(seconds) + "; ";
  }
  EXPECT_EQ(told, "4: -3630; 6: 3600; 7: 600; ");
}

// What happens on a day, counted from now, while the clock is wrong by so many days.
struct Moment {
  // What is received is committed with whatever happens next.
  enum What { kReceived, kRecord, kUndecodable, kArchive, kNextRun, kNextBoot } what;
  std::string name;
  double day;
  double wrong_by = 0;
};

TEST_F(PromisesTest, AWrongClockDeletesNothing) {
  constexpr store::Retention kRetention{.keep_days = 400, .max_bytes = 0};
  using enum Moment::What;
  const struct {
    const char* what;
    std::vector<Moment> moments;
    const char* left;  // records with z, which came lately; then what is undecodable
  } rows[] = {
      {"always right",
       {{kRecord, "a", -600},
        {kArchive, "", -550},
        {kRecord, "b", -401},
        {kUndecodable, "p", -401},
        {kNextBoot, "", -400},
        {kUndecodable, "q", -399},
        {kRecord, "c", -399}},
       "czq"},
      {"always right, in archives",
       {{kRecord, "a", -600},
        {kArchive, "", -401},
        {kRecord, "b", -401},
        {kArchive, "", -399},
        {kRecord, "c", -399}},
       "bcz"},
      {"far ahead, then in 1970",
       {{kRecord, "a", -300, 5000},
        {kUndecodable, "p", -300, 5000},
        {kNextBoot, "", -299, -20'000},
        {kRecord, "b", -299, -20'000},
        {kNextBoot, "", -298},
        {kRecord, "c", -298}},
       "abczp"},
      {"the firmware's year in a boot of its own",
       {{kRecord, "a", -900},
        {kRecord, "b", -310},
        {kNextBoot, "", -300, -200},
        {kRecord, "c", -300, -200},
        {kUndecodable, "p", -300, -200},
        {kNextBoot, "", -299},
        {kRecord, "d", -299}},
       "bcdzp"},
      {"set back, then another boot",
       {{kRecord, "a", -900},
        {kRecord, "b", -350},
        {kUndecodable, "p", -350},
        {kRecord, "c", -349, -200},
        {kUndecodable, "q", -349, -200},
        {kNextBoot, "", -340},
        {kRecord, "d", -340}},
       "abcdzpq"},
      {"set during a run",
       {{kRecord, "a", -300, -800}, {kUndecodable, "p", -300, -800}, {kRecord, "b", -299}},
       "abzp"},
      {"set between two runs",
       {{kRecord, "a", -300, -800},
        {kNextRun, "", -300, -800},
        {kRecord, "b", -300, -800},
        {kUndecodable, "p", -300, -800},
        {kNextRun, "", -299},
        {kRecord, "c", -299}},
       "abczp"},
      {"set after an archive was made",
       {{kRecord, "a", -300, -800}, {kArchive, "", -300, -800}, {kRecord, "b", -299}},
       "abz"},
      {"set between receiving and keeping",
       {{kReceived, "a", -300, -800}, {kRecord, "b", -300}},
       "abz"},
      {"the firmware's year after all that went",
       {{kRecord, "a", -450},
        {kNextBoot, "", -300, -800},
        {kRecord, "b", -300, -800},
        {kNextBoot, "", -299},
        {kRecord, "c", -299}},
       "bcz"},
      {"an archive in a boot with the firmware's year",
       {{kRecord, "a", -900},
        {kRecord, "b", -350},
        {kArchive, "", -350},
        {kNextBoot, "", -300, -200},
        {kRecord, "c", -300, -200},
        {kArchive, "", -300, -200},
        {kRecord, "d", -300, -200},
        {kNextBoot, "", -299},
        {kRecord, "e", -299}},
       "abcdez"},
      {"an archive of two boots",
       {{kRecord, "a", -900},
        {kRecord, "b", -350},
        {kNextBoot, "", -300, -200},
        {kRecord, "c", -300, -200},
        {kArchive, "", -300, -200},
        {kNextBoot, "", -299},
        {kRecord, "d", -299}},
       "abcdz"},
      {"by hours, and set",
       {{kRecord, "a", -401, 0.5},
        {kRecord, "b", -400.9},
        {kRecord, "c", -400.5, 0.9},
        {kRecord, "d", -400.2}},
       "cz"},
      {"by hours when an archive was made",
       {{kRecord, "a", -401}, {kArchive, "", -400.5, 0.9}, {kRecord, "b", -400.2}},
       "az"},
      // What came before something that is surely too old is so, too.
      {"ages ago",
       {{kRecord, "a", -900, -800},
        {kArchive, "", -900, -800},
        {kNextBoot, "", -800, -800},
        {kRecord, "b", -800, -800},
        {kNextBoot, "", -700, 5000},
        {kRecord, "c", -700, 5000},
        {kUndecodable, "p", -700, 5000},
        {kNextBoot, "", -650, 100},
        {kRecord, "d", -650, 100},
        {kNextBoot, "", -600},
        {kRecord, "e", -600},
        {kRecord, "f", -410}},
       "z"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    database_ = folder_ / std::to_string(&row - rows) + "/records.db";
    std::unique_ptr<store::Writer> writer;
    store::Batch batch;
    const auto happens = [&](const Moment& moment) {
      constexpr double kDay = 24 * 60 * 60;
      g_time_passed = std::lround(moment.day * kDay);
      g_clock_is_ahead = std::lround(moment.wrong_by * kDay);
      if (moment.what == kNextRun || moment.what == kNextBoot) {
        ASSERT_OK(writer->Finish());
        writer.reset();
      }
      // What was this boot is another one from then on.
      if (moment.what == kNextBoot) Answer(database_, "UPDATE runs SET boot = boot || '-'");
      if (!writer) writer = OpenWriter();
      std::vector<store::Archive> archives;
      store::QuarantineRow undecodable;
      undecodable.received_ms = base::NowMs();
      undecodable.kind = moment.name;
      switch (moment.what) {
        case kReceived:
          return batch.records.push_back(Row(moment.name, base::NowMs()));
        case kRecord:
          batch.records.push_back(Row(moment.name, base::NowMs()));
          break;
        case kUndecodable:
          batch.quarantine.push_back(undecodable);
          break;
        case kArchive:
          ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
          break;
        case kNextRun:
        case kNextBoot:
          break;
      }
      ASSERT_OK(writer->Commit(std::exchange(batch, {})));
    };
    const auto left = [&] {
      g_time_passed = g_clock_is_ahead = 0;
      EXPECT_OK(store::ApplyRetention(database_, kRetention));
      ExpectBalance();
      std::unique_ptr<store::History> history;
      EXPECT_OK(store::History::Open(database_, &history));
      std::string names;
      for (const std::string& event : Read(*history)) {
        if (!event.ends_with("Event")) names += event;
      }
      return names +
             Answer(database_, "SELECT coalesce(group_concat(kind, ''), '') FROM quarantine");
    };
    std::string records;
    std::string undecodable;
    for (const Moment& moment : row.moments) {
      (moment.what == kUndecodable ? undecodable : records) += moment.name;
      happens(moment);
    }
    // Nothing was received lately by this clock: it may be wrong.
    EXPECT_EQ(left(), records + undecodable);
    happens({kRecord, "z", -2});
    EXPECT_EQ(left(), row.left);
    EXPECT_EQ(left(), row.left) << "when what told of the clock is gone";
  }
}

// ---- Whom root trusts ----

TEST_F(PromisesTest, RootIsNotLedElsewhere) {
  if (getuid() != 0) GTEST_SKIP() << "only root can be led";
  const TempFolder elsewhere;
  fs::permissions(folder_.path(), fs::perms(0755));
  auto writer = OpenWriter();
  store::Batch batch;
  batch.records = {Row("GoToURLEvent", 1000)};
  ASSERT_OK(writer->Commit(batch));
  ASSERT_OK(writer->Finish());
  writer.reset();
  // The folder belongs to somebody who has put a link where the archives go.
  for (const std::string& path :
       {folder_.path(), database_, database_ + "-wal", database_ + "-shm"}) {
    ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0) << path;
  }
  fs::create_directory_symlink(elsewhere.path(), folder_ / "archives");
  const ProgramResult result = RunProgram({USAGE_STAT, "archive", "--database", database_});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
  fs::remove(folder_ / "archives");
  // A sanitizer can't look for leaks in a program that gave up being root.
  const ProgramResult own = RunProgram({"/usr/bin/env", "ASAN_OPTIONS=detect_leaks=0", USAGE_STAT,
                                        "archive", "--database", database_});
  EXPECT_EQ(own.exit_code, 0) << own.err;
  struct stat status {};
  ASSERT_EQ(stat((folder_ / "archives").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12345U);
}

// ---- Who may read ----

TEST_F(PromisesTest, AMemberOfTheGroupReadsInEveryState) {
  if (getuid() != 0) GTEST_SKIP() << "only root can become another user";
  constexpr gid_t kGroup = 23456;
  fs::permissions(folder_.path(), fs::perms(0750));
  ASSERT_EQ(chown(folder_.path().c_str(), 0, kGroup), 0);
  fs::permissions(folder_.path(), fs::perms::set_gid, fs::perm_options::add);
  const auto reads = [this] {
    Child child([this] {
      if (setgid(kGroup) != 0 || setuid(12345) != 0) return 2;
      std::unique_ptr<store::History> history;
      int count = 0;
      const bool is_read =
          store::History::Open(database_, &history).ok() &&
          history->ForEach({}, [&count](const store::RecordRow&) { return ++count > 0; }).ok();
      return is_read && count > 0 ? 0 : 1;
    });
    return child.Wait() == 0;
  };
  Start();
  SendSurely(PageTurn(0, 1));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 1; }));
  EXPECT_TRUE(reads()) << "while it runs";
  collector_->Signal(SIGKILL);
  collector_->Wait();
  EXPECT_TRUE(reads()) << "killed";
  Start();
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_TRUE(reads()) << "stopped";
  // Again and again until it listens, after an end in order and after a kill.
  for (const int end : {SIGKILL, SIGTERM}) {
    fs::remove(folder_ / "err");
    CollectorProcess collector(COLLECTOR_COMMAND, folder_.path(), {"--database", database_});
    const auto is_up = [&] { return collector.Err().find("listens on") != std::string::npos; };
    ASSERT_TRUE(Eventually([&] {
      const bool was_up = is_up();
      EXPECT_TRUE(reads()) << "starting";
      return was_up;
    }));
    collector.Signal(end);
    collector.Wait();
  }
  // A program that may write takes the log along when it goes last; the next start makes it anew.
  Answer(database_, "SELECT 1 FROM records");
  EXPECT_FALSE(reads());
  Start();
  EXPECT_TRUE(reads());
}

// ---- Where the database is ----

TEST_F(PromisesTest, NoDescriptorStaysForADatabaseThatWasMoved) {
  Start();
  // Those of the file in use come and go with whoever looks through it.
  const auto is_free = [this] {
    std::error_code error;
    const fs::path files = "/proc/" + std::to_string(collector_->pid()) + "/fd";
    return std::ranges::none_of(fs::directory_iterator(files), [&](const auto& file) {
      const std::string target = fs::read_symlink(file, error);
      return target.find("/moved") != std::string::npos || target.ends_with("(deleted)");
    });
  };
  for (int i = 0; i < 8; ++i) {
    fs::rename(database_, folder_ / "moved" + std::to_string(i));
    SendSurely(PageTurn(0, i));
    ASSERT_TRUE(Eventually([this] { return fs::exists(database_) && Turns().size() == 1; }));
    EXPECT_TRUE(Eventually(is_free)) << i;
  }
  EXPECT_EQ(collector_->End(), 0);
}

TEST_F(PromisesTest, WhatLiesBesideALinkedDatabaseLiesBesideItsFile) {
  for (const char* name : {"disk", "links"}) fs::create_directory(folder_ / name);
  const std::string file = folder_ / "disk/kept.db";
  const std::string link = folder_ / "links/records.db";
  fs::create_symlink("../disk/kept.db", link);
  collector_.emplace(COLLECTOR_COMMAND, folder_.path(),
                     std::vector<std::string>{"--database", link});
  ASSERT_TRUE(Says("listens on the endpoint"));
  address_ = base::AddressOf(collector_->endpoint());
  SendSurely(PageTurn(0, 1));
  ASSERT_TRUE(Eventually([&] { return Answer(file, "SELECT count(*) FROM change_page") == "1"; }));
  EXPECT_EQ(RunProgram({USAGE_STAT, "archive", "--database", link}).exit_code, 0);
  EXPECT_TRUE(fs::exists(folder_ / "disk/archives"));
  WriteFile(file, std::string(5000, 'x'));
  SendSurely(PageTurn(0, 2));
  ASSERT_TRUE(Says("kept as " + (folder_ / "disk/kept.db.damaged-")));
  ASSERT_TRUE(Eventually([&] { return fs::exists(file); }));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_ / "links"), fs::directory_iterator()), 1);
  EXPECT_EQ(Answer(file, "SELECT count(*) FROM change_page"), "1");
}

TEST_F(PromisesTest, CollectorsThatStartAtOnceShareTheDatabaseThatOneOfThemMakes) {
  constexpr int kCollectors = 6;
  for (int round = 0; round < 3; ++round) {
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(database_ + suffix);
    std::vector<std::unique_ptr<CollectorProcess>> collectors;
    for (int i = 0; i < kCollectors; ++i) {
      const std::string folder = folder_ / std::to_string(i);
      fs::remove_all(folder);  // with what the last round said
      fs::create_directory(folder);
      collectors.push_back(std::make_unique<CollectorProcess>(
          COLLECTOR_COMMAND, folder, std::vector<std::string>{"--database", database_}));
    }
    for (const auto& collector : collectors) {
      ASSERT_TRUE(Eventually([&] {
        return collector->Err().find("listens on the endpoint") != std::string::npos;
      })) << collector->Err();
      EXPECT_EQ(collector->End(), 0) << collector->Err();
    }
    EXPECT_EQ(Number("SELECT count(*) FROM runs WHERE ended_ms IS NOT NULL"), kCollectors);
    EXPECT_EQ(Number("SELECT count(*) FROM records"), kCollectors);
    EXPECT_FALSE(fs::exists(database_ + ".new"));
  }
}

TEST_F(PromisesTest, AFileSystemThatIsReadOnlyIsNamedAndRead) {
  const std::string disk = folder_ / "disk";
  const SmallDisk mounted(disk, "size=2m");
  if (!mounted.is_there()) GTEST_SKIP() << "no right to mount a file system";
  database_ = disk + "/records.db";
  Start();
  SendSurely(PageTurn(0, 1));
  EXPECT_EQ(collector_->End(), 0);
  fs::create_directory(disk + "/copied");
  fs::copy(database_, disk + "/copied/records.db");
  Answer(disk + "/copied/records.db", "SELECT count(*) FROM records");  // its log goes
  ASSERT_TRUE(mounted.MakeReadOnly());
  for (const std::string& path : {database_, disk + "/none.db"}) {
    CollectorProcess collector(COLLECTOR_COMMAND, folder_.path(), {"--database", path});
    EXPECT_EQ(collector.Wait(), 1);
    EXPECT_THAT(collector.Err(), HasSubstr(path));
  }
  // With its log, and without.
  EXPECT_EQ(Turns().size(), 1U);
  database_ = disk + "/copied/records.db";
  EXPECT_FALSE(fs::exists(database_ + "-wal"));
  EXPECT_GT(Number("SELECT count(*) FROM runs"), 0);
}

// ---- What it costs ----

// How often the threads of a process were given the processor.
std::int64_t Switches(pid_t pid) {
  std::int64_t sum = 0;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    std::istringstream lines(ReadFile(task.path() / "status"));
    for (std::string line; std::getline(lines, line);) {
      if (line.find("ctxt_switches:") != std::string::npos)
        sum += std::stoll(line.substr(line.find(':') + 1));
    }
  }
  return sum;
}

TEST_F(PromisesTest, AnIdleCollectorNeverWakesUp) {
  Start({"--keep-days", "400", "--max-size", "256M"});
  SendSurely(PageTurn(0, 1));
  ASSERT_TRUE(Eventually([this] { return Turns().size() == 1; }));
  // Nothing is deleted from a database that is yet to be made, and no fault is found in that.
  EXPECT_EQ(collector_->Err().find("cannot"), std::string::npos) << collector_->Err();
  // What the beginning brings along is done when nothing has happened for a second.
  std::int64_t before = -1;
  ASSERT_TRUE(Eventually([&] {
    const std::int64_t last = std::exchange(before, Switches(collector_->pid()));
    if (last == before) return true;
    sleep(1);
    return false;
  }));
  sleep(12);  // the rounds that there once were came every ten seconds
  EXPECT_EQ(Switches(collector_->pid()), before);
  EXPECT_EQ(collector_->Err().find("cannot"), std::string::npos) << collector_->Err();
}

// What the system calls of a traced collector have written so far.
struct Written {
  std::int64_t bytes = 0;
  std::int64_t syncs = 0;
};
Written CountWritten(const std::string& trace) {
  Written written;
  std::istringstream lines(ReadFile(trace));
  for (std::string line; std::getline(lines, line);) {
    if (line.find("sync(") != std::string::npos) ++written.syncs;
    const std::size_t result = line.rfind(" = ");
    const bool is_write = line.find("pwrite64(") != std::string::npos ||
                          line.find("pwrite64 resumed") != std::string::npos;
    if (is_write && result != std::string::npos) {
      written.bytes += std::max(0LL, std::atoll(line.c_str() + result + 3));
    }
  }
  return written;
}

TEST_F(PromisesTest, ARecordCostsFewBytesOfFlash) {
  if (!HasStrace()) GTEST_SKIP() << "no strace to count with";
  const auto start = [this](const std::string& interval) {
    StartTraced("pwrite64,fsync,fdatasync", {"--commit-interval", interval});
  };
  start("50");
  const auto count = [this] { return Number("SELECT count(*) FROM records"); };
  const auto send = [&](int number) {
    const std::int64_t before = count();
    SendSurely(PageTurn(0, number));
    ASSERT_TRUE(Eventually([&] { return count() > before; }));
  };
  for (int i = 0; i < 10; ++i) send(i);

  // Each by itself, as they come from a reader.
  constexpr int kSingle = 200;
  Written before = CountWritten(trace_);
  for (int i = 0; i < kSingle; ++i) send(i);
  Written after = CountWritten(trace_);
  const auto single = (after.bytes - before.bytes) / kSingle;
  EXPECT_LE(single, 2000);
  EXPECT_EQ(after.syncs - before.syncs, 0) << "flash is written in bulk";

  EXPECT_EQ(collector_->End(), 0);

  // A burst, from an empty log on; that the log is played into the file comes on top later. How
  // many commits it takes must not depend on how busy this machine is.
  start("1000");
  constexpr int kSenders = 4;
  constexpr int kBurst = 10'000;
  const std::int64_t rows = count();
  store::Connection connection;
  ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kWrite, &connection));
  ASSERT_OK(connection.Execute("PRAGMA wal_checkpoint(TRUNCATE)"));
  before = CountWritten(trace_);
  std::vector<Sender> senders;
  for (int i = 0; i < kSenders; ++i) {
    senders.emplace_back(collector_->endpoint(), i, kBurst / kSenders);
  }
  for (Sender& sender : senders) sender.Wait();
  ASSERT_TRUE(Eventually([&] { return count() == rows + kBurst; }));
  after = CountWritten(trace_);
  const auto burst = (after.bytes - before.bytes) / kBurst;
  EXPECT_LE(burst, 150);
  std::printf("| bytes a record, one by one | %lld |\n| in a burst | %lld |\n",
              static_cast<long long>(single), static_cast<long long>(burst));
  EXPECT_EQ(collector_->End(), 0);
}

}  // namespace
}  // namespace usage_stat_test
