// The collector killed at every one of its system calls that write. What its database showed as
// committed before is there afterwards, in the database or in an archive.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "src/events/device_events.h"
#include "src/events/reading_events.h"
#include "tests/faults/killed_at_write.h"
#include "tests/support/files.h"
#include "tests/support/receiver.h"
#include "tools/base/system.h"
#include "tools/store/reader.h"
#include "tools/store/recover.h"
#include "tools/store/schema.h"
#include "tools/store/writer.h"
#include "tools/store/zstd_file.h"

namespace usage_stat_test {
namespace {

namespace store = velmora::usage_stat::store;
namespace usage_stat = velmora::usage_stat;

template <class EventClass>
std::string Bytes(EventClass event) {
  std::ostringstream out;
  event.WriteToStream(out);
  return out.str();
}

std::string Note(int number) {
  usage_stat::AddNoteEvent event;
  event.a_ = number;
  return Bytes(event);
}

class CollectorKillTest : public testing::Test {
 protected:
  std::vector<std::string> Words() const {
    return {COLLECTOR_COMMAND, "--endpoint",        endpoint_, "--database",
            database_,         "--commit-interval", "1"};
  }

  // Whether the living collector has taken `bytes`.
  bool Send(const KilledAtWrite& collector, const std::string& bytes) const {
    const auto address = usage_stat::base::AddressOf(endpoint_);
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool is_sent = false;
    while (!is_sent && collector.is_alive()) {
      is_sent = sendto(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT, address->get(),
                       address->length) >= 0;
      if (!is_sent) usleep(100);
    }
    close(descriptor);
    return is_sent;
  }

  // Counts rows without a wait for a lock; -1 when the database can't be read yet.
  std::int64_t Number(const std::string& query) const {
    store::Connection connection;
    std::int64_t number = -1;
    return store::OpenForReading(database_, &connection).ok() &&
                   connection.Read(query, &number).ok()
               ? number
               : -1;
  }
  bool Await(const KilledAtWrite& collector, const std::string& query, std::int64_t number) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (Number(query) < number) {
      if (!collector.is_alive() || std::chrono::steady_clock::now() > deadline) return false;
      usleep(500);
    }
    return true;
  }

  // Sends notes, one after the other committed, and has some of them archived. Returns how many
  // were seen committed.
  int Use(const KilledAtWrite& collector) const {
    const std::string notes = "SELECT count(*) FROM record_list WHERE event = 'AddNoteEvent'";
    int committed = 0;
    for (int i = 0; i < kNotes; ++i) {
      if (!Send(collector, Note(committed)) || !Await(collector, notes, i + 1)) return committed;
      ++committed;
    }
    Send(collector, Bytes(usage_stat::ForceRotationEvent()));
    Await(collector, "SELECT count(*) FROM archives WHERE state = 'complete'", 1);
    if (Send(collector, Note(committed)) && Await(collector, notes, 1)) ++committed;
    return committed;
  }

  // The numbers of all notes, from archives and database.
  std::vector<int> Notes() const {
    std::vector<int> numbers;
    std::unique_ptr<store::History> history;
    if (!store::History::Open(database_, &history).ok()) return numbers;
    store::Query query;
    query.events = {"AddNoteEvent"};
    std::vector<std::string> problems;
    const auto visit = [&numbers](const store::RecordRow& row) {
      std::istringstream in(row.raw);
      const std::unique_ptr<usage_stat::Event> event(usage_stat::Event::CreateFromStream(in));
      numbers.push_back(dynamic_cast<usage_stat::AddNoteEvent&>(*event).a_);
      return true;
    };
    EXPECT_TRUE(history->ForEach(query, visit, &problems).ok());
    EXPECT_TRUE(problems.empty()) << problems.front();
    ExpectSound();
    return numbers;
  }

  void ExpectSound() const {
    store::Connection connection;
    std::string verdict;
    EXPECT_TRUE(store::OpenForReading(database_, &connection).ok() &&
                connection.Read("PRAGMA integrity_check", &verdict).ok());
    EXPECT_EQ(verdict, "ok");
  }

  void ExpectNotes(int committed) const {
    const std::vector<int> notes = Notes();
    ASSERT_GE(notes.size(), static_cast<std::size_t>(committed));
    // The one under way when the collector died may be there too.
    ASSERT_LE(notes.size(), static_cast<std::size_t>(committed) + 1);
    for (std::size_t i = 0; i < notes.size(); ++i) EXPECT_EQ(notes[i], static_cast<int>(i));
  }

  static constexpr int kNotes = 2;

  TempFolder folder_;
  const std::string endpoint_ = Receiver::UniqueEndpoint();
  const std::string database_ = folder_ / "records.db";
};

// After how many writes it dies the next time. With this variable set it is as thorough as before a
// release; a sanitizer's programs take long to start.
int StepOf(int usual) {
  if (std::getenv("USAGE_STAT_THOROUGH_TESTS")) return 1;
  return IS_SANITIZED ? 3 * usual : usual;
}

TEST_F(CollectorKillTest, NothingCommittedIsLostWhereverItDies) {
  const int step = StepOf(9);
  int deaths = 0;
  bool was_killed = true;
  for (long kill_at = 1; was_killed && !HasFailure(); kill_at += step) {
    SCOPED_TRACE("killed at write " + std::to_string(kill_at));
    std::filesystem::remove_all(folder_.path());
    std::filesystem::create_directory(folder_.path());
    int committed = 0;
    {
      KilledAtWrite collector(Words(), kill_at);
      committed = Use(collector);
      const int end = collector.End();
      was_killed = end == -SIGKILL;
      ASSERT_TRUE(was_killed || end == 0) << end;
      deaths += was_killed ? 1 : 0;
    }
    ExpectNotes(committed);

    // The next collector goes on where this one was stopped.
    const auto kept = static_cast<int>(Notes().size());
    KilledAtWrite next(Words(), 0);
    ASSERT_TRUE(Send(next, Note(kept)));
    ASSERT_EQ(next.End(), 0);
    ExpectNotes(kept + 1);
  }
  EXPECT_GT(deaths, 10);
  std::printf("| keeps and archives | %d | %s |\n", deaths, step == 1 ? "each" : "some");
}

// The numbers and events of what the checked-in files of the first schema hold.
std::vector<std::string> OldRecords(const std::string& database) {
  std::vector<std::string> found;
  std::vector<std::string> problems;
  std::unique_ptr<store::History> history;
  const store::Status status = store::History::Open(database, &history);
  EXPECT_TRUE(status.ok()) << status.message;
  if (!status.ok()) return found;
  for (const bool reverse : {false, true}) {
    const store::Query query{.last_id = 12, .reverse = reverse};
    const auto visit = [&found](const store::RecordRow& row) {
      found.push_back(std::to_string(row.id) + row.event);
      return true;
    };
    EXPECT_TRUE(history->ForEach(query, visit, &problems).ok());
  }
  EXPECT_TRUE(problems.empty()) << problems.front();
  return found;
}

TEST_F(CollectorKillTest, AnUpgradeHidesNothingWhereverItDies) {
  const int step = StepOf(13);
  const std::string is_done = "SELECT 1 - min(1, count(*)) FROM archives WHERE schema = 1";
  const auto copy = [this] {
    std::filesystem::remove_all(folder_.path());
    std::filesystem::copy(FIRST_SCHEMA, folder_.path(), std::filesystem::copy_options::recursive);
  };
  copy();
  const std::vector<std::string> expected = OldRecords(database_);
  ASSERT_EQ(expected.size(), 24U);
  // Where names change is where readers may find nothing; there it always dies.
  std::set<long> moments;
  {
    KilledAtWrite unharmed(Words(), 0);
    ASSERT_TRUE(Await(unharmed, is_done, 1));
    ASSERT_EQ(unharmed.End(), 0);
    moments = unharmed.namings();
  }
  int deaths = 0;
  bool was_killed = true;
  for (long kill_at = 1; was_killed && !HasFailure(); ++kill_at) {
    if (kill_at % step != 0 && (IS_SANITIZED || !moments.contains(kill_at))) continue;
    SCOPED_TRACE("killed at write " + std::to_string(kill_at));
    copy();
    {
      KilledAtWrite collector(Words(), kill_at);
      Await(collector, is_done, 1);
      was_killed = collector.End() == -SIGKILL;
      deaths += was_killed ? 1 : 0;
    }
    EXPECT_EQ(OldRecords(database_), expected) << "before the next start";
    {
      KilledAtWrite next(Words(), 0);
      ASSERT_TRUE(Await(next, is_done, 1));
      ASSERT_TRUE(Send(next, Note(1)));
      ASSERT_EQ(next.End(), 0);
    }
    EXPECT_EQ(OldRecords(database_), expected);
    EXPECT_EQ(Number("SELECT count(*) FROM quarantine"), 2);
    ExpectSound();
    for (const auto& file : std::filesystem::recursive_directory_iterator(folder_.path())) {
      const std::string name = file.path().filename();
      EXPECT_TRUE(name.starts_with("records.db") ? name.find("new") == std::string::npos &&
                                                       name.find("schema") == std::string::npos
                                                 : name == "archives" || name.ends_with(".zst"))
          << name;
    }
  }
  EXPECT_GT(deaths, 10);
  std::printf("| upgrades from schema 1 | %d | %s |\n", deaths, step == 1 ? "each" : "some");
}

TEST_F(CollectorKillTest, ABrokenFileOfTheFirstSchemaIsKeptWhereverAnUpgradeDies) {
  namespace fs = std::filesystem;
  const int step = StepOf(3);
  const std::string is_done = "SELECT 1 - min(1, count(*)) FROM archives WHERE schema = 1";
  const std::string unreadable =
      "SELECT coalesce(sum(last_record - first_record + 1), 0) FROM missing "
      "WHERE reason = 'unreadable'";
  const std::string archive = folder_ / "archives/records-20261125T033943Z-1-6.db.zst";
  const std::string plain = folder_ / "plain";
  // Four of the six rows of a page can't be found.
  const auto harm = [](const std::string& path) {
    std::string bytes = ReadFile(path);
    bytes.replace(bytes.find("AddNoteEvent") / 4096 * 4096 + 12, 8, 8, '\0');
    WriteFile(path, bytes);
  };
  fs::copy(FIRST_SCHEMA, folder_.path(), fs::copy_options::recursive);
  std::unique_ptr<store::Writer> writer;
  ASSERT_TRUE(store::Writer::Open(database_, "test", &writer).ok());
  ASSERT_TRUE(writer->Finish().ok());
  writer.reset();
  harm(database_ + ".schema-1");
  ASSERT_TRUE(store::UnpackArchive(archive, plain).ok());
  harm(plain);
  fs::remove(archive);
  ASSERT_TRUE(store::CompressFile(plain, archive).ok());
  fs::remove(plain);
  const TempFolder broken;
  fs::copy(folder_.path(), broken.path(), fs::copy_options::recursive);
  int deaths = 0;
  bool was_killed = true;
  for (long kill_at = 1; was_killed && !HasFailure(); kill_at += step) {
    SCOPED_TRACE("killed at write " + std::to_string(kill_at));
    fs::remove_all(folder_.path());
    fs::copy(broken.path(), folder_.path(), fs::copy_options::recursive);
    {
      KilledAtWrite collector(Words(), kill_at);
      Await(collector, is_done, 1);
      was_killed = collector.End() == -SIGKILL;
      deaths += was_killed ? 1 : 0;
    }
    {
      KilledAtWrite next(Words(), 0);
      ASSERT_TRUE(Await(next, is_done, 1));
      ASSERT_TRUE(Send(next, Note(1)));
      ASSERT_EQ(next.End(), 0);
    }
    EXPECT_EQ(Number(unreadable), 12);
    std::vector<std::string> kept;
    for (const auto& file : fs::recursive_directory_iterator(folder_.path())) {
      const std::string path = file.path();
      EXPECT_TRUE(path.find("schema-1") == std::string::npos && !path.ends_with(".new")) << path;
      const bool is_beside = path.ends_with("-wal") || path.ends_with("-shm");
      if (path.find(".damaged-") != std::string::npos && !is_beside) kept.push_back(path);
    }
    EXPECT_EQ(kept.size(), 2U);
    for (const std::string& path : kept) {
      store::Recovered recovered;
      EXPECT_EQ(store::Recover(path, database_, folder_ / "archives", &recovered).message, "");
      EXPECT_EQ(recovered.records, 2);
    }
    EXPECT_EQ(Number(unreadable), 8);
    EXPECT_EQ(OldRecords(database_).size(), 2U * 4);
    ExpectSound();
  }
  EXPECT_GT(deaths, 5);
  std::printf("| keeps broken files of schema 1 | %d | %s |\n", deaths,
              step == 1 ? "each" : "some");
}

}  // namespace
}  // namespace usage_stat_test
