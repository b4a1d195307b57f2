// The collector as it is started on a device: real processes, sockets, signals, disks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <optional>
#include <random>

#include "collector_process.h"
#include "src/events/device_events.h"
#include "src/events/new_books_events.h"
#include "store_fixture.h"
#include "tests/support/child.h"
#include "tests/support/device_root.h"
#include "tests/support/sample_records.h"
#include "tools/base/system.h"
#include "tools/store/reader.h"
#include "tools/store/schema.h"

namespace usage_stat_test {
namespace {

namespace base = velmora::usage_stat::base;
namespace store = velmora::usage_stat::store;
namespace usage_stat = velmora::usage_stat;
using nlohmann::json;
using testing::HasSubstr;

// The suite is quick; with this variable set it is as thorough as before a release.
int Times(int quick, int thorough) {
  return std::getenv("USAGE_STAT_THOROUGH_TESTS") ? thorough : quick;
}

template <class EventClass>
std::string Bytes(EventClass event) {
  std::ostringstream out;
  event.WriteToStream(out);
  return out.str();
}

class CollectorTest : public testing::Test {
 protected:
  ~CollectorTest() override {
    if (HasFailure() && collector_) std::cerr << collector_->Err();
    close(socket_);
  }

  void Start(std::vector<std::string> arguments = {}) {
    const bool keeps = std::ranges::count(arguments, "--no-store") == 0;
    if (keeps) arguments.insert(arguments.end(), {"--database", database_});
    collector_.emplace(COLLECTOR_COMMAND, folder_.path(), std::move(arguments));
    ASSERT_TRUE(collector_->IsUp()) << collector_->Err();
    // The first record is the collector's own.
    ASSERT_TRUE(!keeps || Eventually([this] {
      store::Connection connection;
      std::int64_t runs = 0;
      return store::OpenForReading(database_, &connection).ok() &&
             connection.Read("SELECT count(*) FROM runs WHERE ended_ms IS NULL", &runs).ok() &&
             runs > 0;
    }));
    address_ = base::AddressOf(collector_->endpoint());
  }

  // 0 or the errno value. A full collector is waited for for a moment.
  int Send(const std::string& bytes) const {
    return sendto(socket_, bytes.data(), bytes.size(), 0, address_->get(), address_->length) < 0
               ? errno
               : 0;
  }

  void SendSurely(const std::string& bytes) const {
    ASSERT_TRUE(Eventually([&] { return Send(bytes) == 0; }));
  }

  bool Says(const std::string& text) const { return collector_->Says(text); }
  std::int64_t Number(const std::string& sql) const { return NumberIn(database_, sql); }

  // The numbers of the page turns of one sender, in the order in which they were received.
  // With store::History those in archives too.
  template <class Source = store::Reader>
  std::vector<int> PageTurns(int sender) const {
    std::vector<int> numbers;
    std::unique_ptr<Source> reader;
    EXPECT_TRUE(Source::Open(database_, &reader).ok());
    const store::Query query = {.events = {"ChangePageEvent"}};
    EXPECT_TRUE(reader
                    ->ForEach(query,
                              [&](const store::RecordRow& row) {
                                const json fields = json::parse(row.fields);
                                if (fields[1] == sender) numbers.push_back(fields[0]);
                                return true;
                              })
                    .ok());
    return numbers;
  }

  int CountWithArchives(const std::string& event) const {
    std::unique_ptr<store::History> history;
    int number = 0;
    EXPECT_TRUE(store::History::Open(database_, &history).ok());
    const auto count = [&number](const store::RecordRow&) { return ++number > 0; };
    EXPECT_TRUE(history->ForEach({.events = {event}}, count).ok());
    return number;
  }

  // Page turns 0, 1, 2 up to at least `least`, and possibly more.
  void ExpectPageTurns(int sender, int least, int most) const {
    const std::vector<int> numbers = PageTurns(sender);
    EXPECT_GE(static_cast<int>(numbers.size()), least);
    EXPECT_LE(static_cast<int>(numbers.size()), most);
    int expected = 0;
    for (const int number : numbers) ASSERT_EQ(number, expected++);
  }

  void ExpectBalance() const {
    EXPECT_EQ(Number("SELECT sum(received) FROM run_counts"),
              Number("SELECT coalesce(sum(count), 0) FROM outcomes "
                     "WHERE outcome IN ('stored', 'quarantined', 'refused')"));
    EXPECT_EQ(Number("SELECT (SELECT count(*) FROM records) + (SELECT count(*) FROM quarantine)"),
              Number("SELECT sum(CASE WHEN outcome IN ('archived', 'deleted') THEN -count "
                     "ELSE count END) FROM outcomes WHERE outcome <> 'refused'"));
    store::Connection connection;
    std::string integrity;
    ASSERT_TRUE(store::OpenForReading(database_, &connection).ok());
    ASSERT_TRUE(connection.Read("PRAGMA integrity_check", &integrity).ok());
    EXPECT_EQ(integrity, "ok");
  }

  static int OpenSocket() {
    const int opened = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval patience{0, 200'000};
    setsockopt(opened, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    const int room = 1024 * 1024;
    setsockopt(opened, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    return opened;
  }

  const TempFolder folder_;
  std::string database_ = folder_ / "records.db";
  std::optional<CollectorProcess> collector_;
  const int socket_ = OpenSocket();
  std::optional<base::EndpointAddress> address_;
};

TEST_F(CollectorTest, ShowsKeepsAndSumsUp) {
  Start({"--print", "json"});
  usage_stat::OrientationEvent turn;
  turn.timestamp_ = 1'700'000'000'123;
  turn.orientation_ = 4464;
  usage_stat::NewBooksEvent books;
  books.count_ = 3;
  for (const std::string& bytes :
       {Bytes(turn), PageTurn(1, 2), Bytes(books), Bytes(turn) + "x", std::string("\xd8"),
        std::string(102'400, 'x'), std::string(102'401, 'x')}) {
    SendSurely(bytes);
  }
  EXPECT_EQ(collector_->End(), 0);

  std::vector<json> shown;
  std::istringstream lines(collector_->Out());
  for (std::string line; std::getline(lines, line);) shown.push_back(json::parse(line));
  ASSERT_EQ(shown.size(), 3U);
  EXPECT_EQ(shown[0],
            json::parse(R"({"event":"OrientationEvent","type":2008,
      "timestamp":1700000000123,"fields":{"orientation":4464}})")
                .patch(json::array({{{"op", "add"}, {"path", "/pid"}, {"value", getpid()}},
                                    {{"op", "add"}, {"path", "/uid"}, {"value", getuid()}}})));
  EXPECT_EQ(shown[1]["event"], "ChangePageEvent");
  EXPECT_EQ(shown[2]["event"], "NewBooksEvent");

  const std::string from =
      " bytes from pid " + std::to_string(getpid()) + " uid " + std::to_string(getuid()) + ": ";
  EXPECT_THAT(collector_->Err(), HasSubstr("undecodable: 13" + from + "1 byte left over"));
  EXPECT_THAT(collector_->Err(), HasSubstr("undecodable: 1" + from + "field type"));
  EXPECT_THAT(collector_->Err(), HasSubstr("undecodable: 102401" + from + "longer than any"));
  EXPECT_THAT(collector_->Err(), HasSubstr("7 received, 3 decoded, 4 quarantined, 0 refused"));
  // Nothing but those lines: the library's own readers are quiet.
  EXPECT_EQ(std::ranges::count(collector_->Err(), '\n'), 6);

  ExpectBalance();
  EXPECT_EQ(Number("SELECT count(*) FROM record_list WHERE event = 'OrientationEvent' AND "
                   "json_extract(fields, '$[0]') = 4464"),
            1);
  EXPECT_EQ(Number("SELECT length(raw) FROM quarantine WHERE kind = 'too long'"), 102'401);
  EXPECT_EQ(
      Number("SELECT count(*) FROM record_list WHERE event = 'NewJournalFileEvent' AND uid = " +
             std::to_string(getuid())),
      1);
  Start();
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(Number("SELECT count(*) FROM record_list WHERE event = 'OpenJournalFileEvent'"), 1);
  EXPECT_EQ(Number("SELECT count(*) FROM runs WHERE ended_ms >= started_ms"), 2);
}

TEST_F(CollectorTest, ShowsTextWithoutKeeping) {
  Start({"--print", "text", "--no-store"});
  usage_stat::SendArchiveEvent event;
  event.archive_ = "\x1b[31m\xc2\x9b";
  SendSurely(Bytes(event));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_THAT(collector_->Out(), HasSubstr(R"( SendArchiveEvent archive="\u001b[31m\u009b")"));
  EXPECT_FALSE(std::filesystem::exists(database_));
}

TEST_F(CollectorTest, MistakesAreTold) {
  Start();
  CollectorProcess second(COLLECTOR_COMMAND, folder_.path(),
                          {"--endpoint", collector_->endpoint(), "--no-store"});
  EXPECT_EQ(second.Wait(), 2);  // an option given twice

  const TempFolder other;
  setenv(kEndpointVariable, collector_->endpoint().c_str(), 1);
  const std::string command =
      std::string(COLLECTOR_COMMAND) + " --database " + (other / "r.db") + " 2>" + (other / "err");
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1);
  unsetenv(kEndpointVariable);
  EXPECT_THAT(ReadFile(other / "err"), HasSubstr("another process listens on the endpoint"));
  EXPECT_FALSE(std::filesystem::exists(other / "r.db"));

  WriteFile(other / "notes", "a shopping list");
  CollectorProcess foreign(COLLECTOR_COMMAND, other.path(), {"--database", other / "notes"});
  EXPECT_EQ(foreign.Wait(), 1);
  EXPECT_THAT(foreign.Err(), HasSubstr("is not a database of usage-stat"));
  EXPECT_EQ(ReadFile(other / "notes"), "a shopping list");

  // As a firmware meets it that goes back to an older version.
  const std::string newer = other / "newer.db";
  {
    store::Connection connection;
    bool created = false;
    ASSERT_TRUE(store::OpenForWriting(newer, &connection, &created).ok());
    ASSERT_TRUE(
        connection.Execute("PRAGMA user_version = 3; PRAGMA wal_checkpoint(TRUNCATE)").ok());
  }
  const std::string before = ReadFile(newer);
  CollectorProcess older(COLLECTOR_COMMAND, other.path(), {"--database", newer});
  EXPECT_EQ(older.Wait(), 1);
  EXPECT_THAT(older.Err(), HasSubstr(newer + " has schema version 3, this program knows version 2; "
                                             "it was left as it is"));
  EXPECT_EQ(ReadFile(newer), before);

  // What it can't use is named, also where nothing can be found any more.
  std::filesystem::create_directory(other / "blocked.db-wal");
  CollectorProcess blocked(COLLECTOR_COMMAND, other.path(), {"--database", other / "blocked.db"});
  EXPECT_EQ(blocked.Wait(), 1);
  EXPECT_THAT(blocked.Err(), HasSubstr(other / "blocked.db: "));
  const std::string nowhere = "mkdir " + (other / "gone") + " && cd " + (other / "gone") +
                              " && rmdir ../gone && exec " + COLLECTOR_COMMAND +
                              " --endpoint nowhere." + std::to_string(getpid()) +
                              " --database r.db 2>" + (other / "err");
  EXPECT_EQ(WEXITSTATUS(std::system(nowhere.c_str())), 1);
  EXPECT_THAT(ReadFile(other / "err"), HasSubstr("r.db"));
}

TEST_F(CollectorTest, KeepsEverythingThatManyProcessesSend) {
  constexpr int kSenders = 8;
  const int count = Times(500, 100'000);
  Start();
  std::vector<Sender> senders;
  for (int i = 0; i < kSenders; ++i) senders.emplace_back(collector_->endpoint(), i, count);
  for (Sender& sender : senders) sender.Wait();
  EXPECT_EQ(collector_->End(), 0);
  for (int i = 0; i < kSenders; ++i) ExpectPageTurns(i, count, count);
  ExpectBalance();
}

TEST_F(CollectorTest, EndsWithEverythingThatWasAccepted) {
  Start();
  std::vector<Sender> senders;
  for (int i = 0; i < 3; ++i) senders.emplace_back(collector_->endpoint(), i, INT_MAX);
  ASSERT_TRUE(Eventually([&] { return senders[2].count() > 100; }));
  EXPECT_EQ(collector_->End(), 0);
  for (int i = 0; i < 3; ++i) {
    Sender& sender = senders[static_cast<std::size_t>(i)];
    sender.Wait();
    ExpectPageTurns(i, sender.count(), sender.count());
  }
}

TEST_F(CollectorTest, KilledItLosesOnlyTheLastMoment) {
  constexpr int kSenders = 3;
  const int rounds = Times(3, 50);
  // The stated time, and what a record may wait in the socket before it is received. The quick
  // rounds run beside other tests and are not about time.
  const auto moment = std::chrono::milliseconds(Times(1000, 100));
  std::mt19937 random(static_cast<unsigned>(rounds));
  for (int round = 0; round < rounds; ++round) {
    std::filesystem::remove(database_);
    Start({"--commit-interval", "50"});
    std::vector<Sender> senders;
    std::vector<int> kept(kSenders);
    // In every other round one record comes alone: no others fill up its commit.
    const int flooding = round % 2 == 0 ? kSenders : 0;
    for (int i = 0; i < flooding; ++i) senders.emplace_back(collector_->endpoint(), i, INT_MAX);
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 200));
    SendSurely(PageTurn(kSenders, 0));
    for (std::size_t i = 0; i < senders.size(); ++i) kept[i] = senders[i].count();
    std::this_thread::sleep_for(moment);
    collector_->Signal(SIGKILL);
    EXPECT_EQ(collector_->Wait(), -SIGKILL);
    ExpectPageTurns(kSenders, 1, 1);
    for (std::size_t i = 0; i < senders.size(); ++i) {
      senders[i].Wait();
      // One more may have arrived before its sender could count it.
      ExpectPageTurns(static_cast<int>(i), kept[i], senders[i].count() + 1);
    }
    ExpectBalance();
  }
}

TEST_F(CollectorTest, WaitsForALockedDatabase) {
  Start();
  store::Connection other;
  ASSERT_TRUE(store::Connection::Open(database_, store::Connection::Mode::kWrite, &other).ok());
  ASSERT_TRUE(other.Execute("BEGIN IMMEDIATE").ok());
  SendSurely(PageTurn(0, 0));
  ASSERT_TRUE(Says("cannot write the database"));
  SendSurely(PageTurn(0, 1));
  ASSERT_TRUE(other.Execute("COMMIT").ok());
  ASSERT_TRUE(Says("can be written again"));
  ExpectPageTurns(0, 1, 2);

  // What is held has a bound in number and in bytes; some more waits in the socket.
  for (const auto& [size, most] : {std::pair<std::size_t, int>(10, 2'100), {100'000, 40}}) {
    ASSERT_TRUE(other.Execute("BEGIN IMMEDIATE").ok());
    int held = 0;
    while (held < 10'000 && Send(std::string(size, 'x')) == 0) ++held;
    EXPECT_LT(held, most) << size;
    if (size > 10) break;
    ASSERT_TRUE(other.Execute("COMMIT").ok());
    ASSERT_TRUE(Eventually([&] { return Number("SELECT count(*) FROM quarantine") >= held; }));
  }
  // A second signal does not wait for the lock.
  collector_->Signal(SIGTERM);
  ASSERT_TRUE(Eventually([this] { return Send("") != 0; }));
  collector_->Signal(SIGTERM);
  EXPECT_EQ(collector_->Wait(), -SIGTERM);
}

TEST_F(CollectorTest, WaitsForAFullDisk) {
  const std::string disk = folder_ / "disk";
  const SmallDisk mounted(disk, "size=2m");
  if (!mounted.is_there()) GTEST_SKIP() << "no right to mount a small file system";
  database_ = disk + "/records.db";
  WriteFile(disk + "/ballast", std::string(1'500'000, 'x'));
  Start();
  int count = 0;
  while (collector_->Err().find("cannot write") == std::string::npos) {
    for (int i = 0; i < 100 && Send(PageTurn(0, count)) == 0; ++i) ++count;
  }
  EXPECT_THAT(collector_->Err(),
              HasSubstr("cannot write the database " + database_ + ": database or disk is full"));
  ASSERT_TRUE(Eventually([&] { return Send(PageTurn(0, count)) != 0 || ++count == 0; }));

  std::filesystem::remove(disk + "/ballast");
  ASSERT_TRUE(Says("can be written again"));
  SendSurely(PageTurn(0, count++));
  EXPECT_EQ(collector_->End(), 0);
  ExpectPageTurns(0, count, count);
  ExpectBalance();
  for (const char* once : {"cannot write", "can be written again"}) {
    EXPECT_EQ(collector_->Err().find(once), collector_->Err().rfind(once)) << "told once";
  }

  // Nor does it wait for ever when it is to end.
  Start();
  WriteFile(disk + "/ballast", std::string(2'000'000, 'x'));
  while (collector_->Err().find("cannot write") == std::string::npos) {
    if (Send(PageTurn(0, count)) == 0) ++count;
  }
  EXPECT_EQ(collector_->End(), 1);
  EXPECT_THAT(collector_->Err(), HasSubstr("datagrams are lost"));
}

TEST_F(CollectorTest, GoesOnWhenItsDatabaseBreaks) {
  const std::string aside = folder_ / "aside";
  const auto spoil = [this](std::size_t from) {
    const std::string before = ReadFile(database_);
    WriteFile(database_, before.substr(0, from) + std::string(before.size() - from, 'x'));
  };
  struct Case {
    std::function<void()> harm;
    const char* notice;
  };
  const Case cases[] = {
      {[&] { std::filesystem::remove(database_); }, "was removed or replaced"},
      {[&] { std::filesystem::rename(database_, aside); }, "was removed or replaced"},
      // Either the next commit or the look through a new file meets it first.
      {[&] { std::filesystem::resize_file(database_, 0); }, "is kept as"},
      {[&] { spoil(0); }, "is kept as"},
      {[&] {
         // The collector would go on with what it remembers if nobody else had written.
         store::Connection other;
         ASSERT_TRUE(
             store::Connection::Open(database_, store::Connection::Mode::kWrite, &other).ok());
         ASSERT_TRUE(
             other.Execute("PRAGMA user_version = 2; PRAGMA wal_checkpoint(TRUNCATE)").ok());
         spoil(1024);
       },
       "is kept as"},
      {[&] {
         EXPECT_EQ(collector_->End(), 0);
         spoil(1024);
         Start();
       },
       "is kept as"},
      {[&] {
         WriteFile(aside, "a shopping list");
         std::filesystem::rename(aside, database_);
         SendSurely(PageTurn(1, 0));
         ASSERT_TRUE(Says("cannot write the database"));
         EXPECT_THAT(collector_->Err(), HasSubstr("is not a database of usage-stat"));
         EXPECT_EQ(ReadFile(database_), "a shopping list");
         std::filesystem::remove(database_);
       },
       "can be written again"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    Start();
    SendSurely(PageTurn(0, 0));
    ASSERT_TRUE(Eventually([this] { return PageTurns(0).size() == 1; }));
    c.harm();
    SendSurely(PageTurn(0, 1));
    EXPECT_TRUE(Says(c.notice)) << collector_->Err();
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_EQ(PageTurns(0), std::vector<int>{1});
    ExpectBalance();
    if (std::filesystem::exists(aside)) {
      // What was moved away holds all that was committed.
      std::filesystem::rename(aside, database_);
      EXPECT_EQ(PageTurns(0), std::vector<int>{0});
    }
    std::filesystem::remove(database_);
  }
}

TEST_F(CollectorTest, AccountsForMutatedDatagrams) {
  const int count = Times(3000, 100'000);
  Start();
  std::vector<std::string> seeds = {PageTurn(0, 1), Bytes(usage_stat::NewBooksEvent())};
  for (const SampleRecord& record : SampleRecords()) seeds.push_back(record.bytes);
  std::mt19937 random(6);
  const auto below = [&random](std::size_t end) { return random() % end; };
  for (int i = 0; i < count; ++i) {
    std::string bytes = seeds[below(seeds.size())];
    switch (below(5)) {
      case 0:
        bytes.resize(below(bytes.size() + 1));
        break;
      case 1:
        bytes += seeds[below(seeds.size())];
        break;
      case 2:
        break;  // as it is
      default:
        for (auto flips = below(4) + 1; flips > 0; --flips) {
          bytes[below(bytes.size())] ^= static_cast<char>(1U << below(8));
        }
    }
    SendSurely(bytes);
  }
  // Descriptors that come along do not stay open.
  constexpr int kDescriptors = 100;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  char byte = 'x';
  iovec part{&byte, 1};
  msghdr message{};
  message.msg_name = &address_->address;
  message.msg_namelen = address_->length;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  std::copy_n(reinterpret_cast<const char*>(&socket_), sizeof(int),
              reinterpret_cast<char*>(CMSG_DATA(CMSG_FIRSTHDR(&message))));
  for (int i = 0; i < kDescriptors; ++i) {
    ASSERT_TRUE(Eventually([&] { return sendmsg(socket_, &message, 0) == 1; }));
  }
  const int sent = count + kDescriptors;
  ASSERT_TRUE(Eventually([&] { return Number("SELECT received FROM run_counts") == sent; }));
  const std::string open_files = "/proc/" + std::to_string(collector_->pid()) + "/fd";
  EXPECT_LT(std::distance(std::filesystem::directory_iterator(open_files), {}), kDescriptors / 2);

  EXPECT_EQ(collector_->End(), 0);
  ExpectBalance();
  EXPECT_EQ(Number("SELECT sum(count) FROM outcomes WHERE outcome IN ('stored', 'quarantined')"),
            sent);
  EXPECT_GT(CountWithArchives("ChangePageEvent"), 0);
  EXPECT_GT(CountWithArchives("NewBooksEvent"), 0);
  EXPECT_EQ(Number("SELECT count(*) FROM records WHERE NOT json_valid(fields)"), 0);
}

TEST_F(CollectorTest, RefusesOtherUsers) {
  if (getuid() != 0) GTEST_SKIP() << "only root can send as another user";
  constexpr uid_t kStranger = 12345;
  constexpr uid_t kFriend = 12346;
  Start({"--allow-uid", std::to_string(kFriend)});
  for (const uid_t uid : {kStranger, kFriend}) {
    Child child(
        [this, uid] { return setuid(uid) == 0 ? Send(PageTurn(0, static_cast<int>(uid))) : 1; });
    EXPECT_EQ(child.Wait(), 0);
  }
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(PageTurns(0), std::vector<int>{kFriend});
  EXPECT_EQ(Number("SELECT count FROM tally WHERE outcome = 'refused' AND uid = 12345"), 1);
  EXPECT_THAT(collector_->Err(), HasSubstr("2 received, 1 decoded, 0 quarantined, 1 refused"));
  ExpectBalance();

  Start({"--allow-any"});
  Child anybody([this] { return setuid(kStranger) == 0 ? Send(PageTurn(0, 1)) : 1; });
  EXPECT_EQ(anybody.Wait(), 0);
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(PageTurns(0), (std::vector<int>{kFriend, 1}));
}

TEST_F(CollectorTest, NobodyHasToReadItsOutput) {
  // A pipe that is never read, and one that is closed.
  for (const bool is_closed : {false, true}) {
    const std::string fifo = folder_ / (is_closed ? "closed" : "full");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const std::string script = folder_ / "script";
    WriteFile(script, "#!/bin/sh\nexec \"" COLLECTOR_COMMAND "\" \"$@\" >" + fifo + "\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    collector_.emplace(script, folder_.path(),
                       std::vector<std::string>{"--print", "json", "--database", database_});
    ASSERT_TRUE(collector_->IsUp());
    if (is_closed) close(reader);
    Sender sender(collector_->endpoint(), is_closed, 2000);
    sender.Wait();
    EXPECT_EQ(collector_->End(), 0);
    EXPECT_THAT(collector_->Err(), HasSubstr("were not shown"));
    ExpectPageTurns(is_closed, 2000, 2000);
    if (!is_closed) close(reader);
  }
}

TEST_F(CollectorTest, RotatesWhenAskedTo) {
  Start();
  SendSurely(PageTurn(0, 0));
  SendSurely(Bytes(usage_stat::ForceRotationEvent()));
  ASSERT_TRUE(Eventually(
      [this] { return Number("SELECT count(*) FROM archives WHERE state = 'complete'") == 1; }));
  // Once a minute at most.
  SendSurely(PageTurn(0, 1));
  SendSurely(Bytes(usage_stat::ForceRotationEvent()));
  ASSERT_TRUE(Eventually([this] { return CountWithArchives("ForceRotationEvent") == 2; }));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(Number("SELECT count(*) FROM archives"), 1);
  EXPECT_EQ(PageTurns(0), std::vector<int>{1});
  EXPECT_EQ(
      Number("SELECT count(*) FROM record_list r, archives a WHERE r.event = 'SendArchiveEvent' "
             "AND json_extract(r.fields, '$[0]') = a.path"),
      1);
  ExpectBalance();
  EXPECT_EQ(CountWithArchives("ChangePageEvent"), 2);
}

// ---- The device's switch ----

TEST_F(CollectorTest, NothingIsKeptWhileStatisticsAreSwitchedOffAndTheSumsAddUp) {
  const DeviceRoot root;
  Start();
  std::vector<Sender> load;
  for (int i = 0; i < 2; ++i) load.emplace_back(collector_->endpoint(), i, 20'000);
  constexpr int kMarker = 7;
  int markers = 0;
  int others = 0;
  const auto mark = [&](int count) {
    for (const int end = markers + count; markers < end; ++markers) {
      SendSurely(PageTurn(kMarker, markers));
    }
  };
  // The file's time is looked at again a millisecond later at the latest.
  const auto turn = [&root](bool on) {
    root.Write(kGlobalConfig, on ? "statistics_enabled=1\n" : "statistics_enabled=0\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  };
  const auto send = [&](const std::string& bytes) {
    SendSurely(bytes);
    ++others;
  };

  // What was sent before a turn is received before it: what counts is when it is received.
  const auto await_marks = [&](std::size_t count) {
    ASSERT_TRUE(Eventually([&] { return PageTurns<store::History>(kMarker).size() == count; }));
  };
  const auto notify = [&](int count) {
    send(Bytes(usage_stat::StatisticsSettingsChangedEvent()));
    ASSERT_TRUE(
        Eventually([&] { return CountWithArchives("StatisticsSettingsChangedEvent") == count; }));
  };

  mark(50);
  await_marks(50);
  turn(false);
  mark(50);
  ASSERT_TRUE(Says("statistics are switched off"));
  send("no record");
  send(Bytes(usage_stat::ForceRotationEvent()));
  mark(50);
  notify(1);
  turn(true);
  mark(50);
  ASSERT_TRUE(Says("statistics are switched on again"));
  await_marks(100);
  // The notification tells at once.
  root.Write(kGlobalConfig, "statistics_enabled=0\n");
  notify(2);
  mark(50);

  int received = markers + others;
  for (Sender& sender : load) {
    sender.Wait();
    received += sender.count();
  }
  EXPECT_EQ(collector_->End(), 0);
  std::vector<int> kept(100);
  std::iota(kept.begin(), kept.begin() + 50, 0);
  std::iota(kept.begin() + 50, kept.end(), 150);
  EXPECT_EQ(PageTurns<store::History>(kMarker), kept);
  EXPECT_EQ(Number("SELECT count(*) FROM quarantine"), 0);
  EXPECT_EQ(CountWithArchives("ForceRotationEvent"), 1);
  EXPECT_EQ(CountWithArchives("StatisticsSettingsChangedEvent"), 2);
  const auto outcome = [this](const std::string& name) {
    return Number("SELECT coalesce(sum(count), 0) FROM outcomes WHERE outcome = '" + name + "'");
  };
  EXPECT_GE(outcome("off"), 151);
  EXPECT_EQ(outcome("stored") + outcome("off"), received);
  EXPECT_EQ(Number("SELECT sum(received) FROM run_counts"), received);
  EXPECT_THAT(collector_->Err(), HasSubstr(std::to_string(outcome("off")) + " off"));

  // It is looked at from the start on.
  Start();
  ASSERT_TRUE(Says("statistics are switched off"));
  SendSurely(PageTurn(kMarker, 1000));
  EXPECT_EQ(collector_->End(), 0);
  EXPECT_EQ(PageTurns<store::History>(kMarker), kept);
}

}  // namespace
}  // namespace usage_stat_test
