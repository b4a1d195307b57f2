// usage-stat as its users start it: the subcommands around a database.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>

#include "src/events/events.h"
#include "tests/support/run_program.h"
#include "tests/tools/collector_process.h"
#include "tests/tools/store_fixture.h"
#include "tools/base/text.h"
#include "tools/inspector/moment.h"
#include "tools/records/record.h"
#include "tools/store/archive.h"

namespace usage_stat_test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using velmora::usage_stat::records::Json;
using Words = std::vector<std::string>;

class InspectorTest : public StoreTest {
 protected:
  ProgramResult UsageStat(Words words, const std::string& input = {}) {
    return RunProgram(Started(std::move(words)), input, environment_);
  }
  Words Started(Words words) const {
    words.insert(words.begin(), USAGE_STAT);
    return words;
  }
  Json Status(int exit_code = 0) {
    const ProgramResult result = UsageStat({"status", "-o", "json"});
    EXPECT_EQ(result.exit_code, exit_code) << result.err;
    return Json::parse(result.out);
  }

  // A database with records of a first run that was killed, and a second run.
  void Fill() {
    velmora::usage_stat::GoToURLEvent url;
    url.a_ = 3;
    url.b_ = "x\x1b[31m\"é\u009b";
    velmora::usage_stat::StartOpenBookEvent opening;
    opening.book_id_ = -645120848;
    opening.application_ = 33;  // the store of a partner
    velmora::usage_stat::NewBooksEventEx books;
    books.count_ = 1;
    books.application_ = 1;
    books.records_.resize(1);
    books.records_[0].book_id_ = 7;
    books.records_[0].s1_ = "The Alder Walk";
    velmora::usage_stat::GoToPageEvent jump;
    jump.a_ = 5;
    auto first = OpenWriter();
    store::Batch batch;
    batch.records = {
        RowOf(url, 1000),
        RowOf(opening, 2000),
        RowOf(books, 3000),
    };
    batch.quarantine = {{0, 0, 4000, {42, 7}, "cut short", "lacks 2 bytes", 2021, 2, "ab"}};
    batch.refused = {{{1000, "uid"}, 2}};
    batch.off = {{{1000, ""}, 5}};
    ASSERT_OK(first->Commit(batch));
    first.reset();
    auto second = OpenWriter();
    ASSERT_OK(second->Commit({{RowOf(jump, 5000)}, {}, {}, {}}));
    ASSERT_OK(second->Finish());
  }

  Words environment_ = {"USAGE_STAT_DATABASE=" + database_, "TZ=UTC"};
};

std::string EventsOf(const std::string& json_lines) {
  std::string events;
  std::istringstream in(json_lines);
  for (std::string line; std::getline(in, line);) {
    if (!events.empty()) events += ' ';
    events += Json::parse(line)["event"].get<std::string>();
  }
  return events;
}

TEST_F(InspectorTest, ListsWhatIsAskedFor) {
  Fill();
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  auto writer = OpenWriter();
  ASSERT_OK(writer->Commit({{Row("ChangePageEvent", 6000)}, {}, {}, {}}));

  struct Case {
    Words words;
    const char* events;
  };
  const Case cases[] = {
      {{"--event", "GoToURL", "--event", "gotopageevent"}, "GoToURLEvent GoToPageEvent"},
      {{"--event", "2032", "--event", "kStartOpenBook"}, "StartOpenBookEvent ChangePageEvent"},
      {{"--app", "33"}, "StartOpenBookEvent"},
      {{"--app", "explorer.app"}, "NewBooksEventEx"},
      {{"--app", "Explorer"}, "NewBooksEventEx"},
      {{"--app", "bookstore"}, "StartOpenBookEvent"},
      {{"--book", "abc"}, "StartOpenBookEvent"},
      {{"--book", "the alder walk"}, "NewBooksEventEx"},
      {{"--book", "7"}, "NewBooksEventEx"},
      {{"--since", "1970-01-01 00:00:02", "--until", "@5"}, "StartOpenBookEvent NewBooksEventEx"},
      {{"--until", "@6", "-n", "2"}, "NewBooksEventEx GoToPageEvent"},
      {{"--until", "@6", "-n", "2", "-r"}, "GoToPageEvent NewBooksEventEx"},
      {{"--since", "tomorrow"}, ""},
      {{"--file", archives.at(0).path, "--app", "33"}, "StartOpenBookEvent"},
      {{"--file", database_, "--event", "2032"}, "ChangePageEvent"},
  };
  for (const Case& c : cases) {
    Words words = {"list", "-o", "json"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const ProgramResult result = UsageStat(words);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(EventsOf(result.out), c.events);
  }
  for (const Words& wrong :
       {Words{"--event", "nope"}, Words{"--app", "no.app"}, Words{"--since", "2026-02-30"},
        Words{"-n", "-1"}, Words{"--fields", "id"}, Words{"--iso", "-r"},
        Words{"--quarantine", "-r"}}) {
    EXPECT_EQ(UsageStat({"list", wrong[0], wrong[1]}).exit_code, 2) << wrong[1];
  }
  const ProgramResult unknown = UsageStat({"list", "--book", "The Elder Walk"});
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_THAT(unknown.err, HasSubstr("no such record names the book The Elder Walk"));
  WriteFile(folder_ / "foreign", "hello");
  for (const char* file : {"foreign", "missing"}) {
    const ProgramResult result = UsageStat({"list", "--file", folder_ / file});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.err, HasSubstr(folder_ / file));
  }
}

TEST_F(InspectorTest, WritesRecordsInEveryForm) {
  Fill();
  const std::string raw =
      "f307e8030000000000000300"
      "0b000000"
      "781b5b33316d22c3a9c29b";
  const std::map<std::string, std::string> expected = {
      {"short", "1970-01-01 00:00:01.000 GoToURLEvent[42] a=3 url=\"x\\u001b[31m\\\"é\\u009b\"\n"},
      {"json", R"({"id":2,"received":1001,"pid":42,"uid":7,"event":"GoToURLEvent","type":2035,)"
               R"("timestamp":1000,"fields":{"a":3,"url":"x\u001b[31m\"é\u009b"},"raw":")" +
                   raw + "\"}\n"},
      {"csv",
       "id,received,pid,uid,event,type,timestamp,a,url,raw\r\n"
       R"(2,1001,42,7,GoToURLEvent,2035,1000,3,"x\x1b[31m""é\u009b",)" +
           raw + "\r\n"},
      {"raw", raw + "\n"},
  };
  for (const auto& [format, text] : expected) {
    EXPECT_EQ(UsageStat({"list", "--event", "2035", "-o", format}).out, text);
  }
  EXPECT_EQ(
      UsageStat({"list", "--event", "GoToURL", "-o", "csv", "--fields", "timestamp,a", "--iso"})
          .out,
      "timestamp,a\r\n1970-01-01T00:00:01.000Z,3\r\n");
  EXPECT_EQ(UsageStat({"list", "-o", "csv", "--fields", "nothing"}).exit_code, 2);
  EXPECT_EQ(UsageStat({"list", "--quarantine", "-o", "csv", "--fields", "kind,size,raw"}).out,
            "kind,size,raw\r\ncut short,2,6162\r\n");
  EXPECT_THAT(UsageStat({"list", "--quarantine"}).out, HasSubstr("cut short[42] 2 bytes: lacks 2"));
  EXPECT_EQ(UsageStat({"list", "--event", "2035", "-o", "csv", "--fields", "time"}).err,
            "usage-stat: there is no column time here, but id, received, pid, uid, event, type, "
            "timestamp, a, url, raw\n");
  const std::string pretty = UsageStat({"list", "--event", "2035", "-o", "json-pretty"}).out;
  EXPECT_EQ(Json::parse(pretty), Json::parse(expected.at("json")));
}

TEST_F(InspectorTest, QueriesTheDatabaseAndItsArchivesAsOne) {
  Fill();
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  auto writer = OpenWriter();
  // More archives than SQLite attaches files.
  for (int i = 0; i < 12; ++i) {
    velmora::usage_stat::ChangePageEvent turn;
    turn.a_ = 7;
    turn.d_ = i;
    ASSERT_OK(writer->Commit({{RowOf(turn, 10'000 + i)}, {}, {}, {}}));
    if (i < 11) {
      ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
    }
  }
  const auto query = [this](const std::string& sql) {
    const ProgramResult result = UsageStat({"sql", sql, "-o", "csv"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return result.out;
  };
  EXPECT_EQ(query("select count(*) n, sum(to_page) s, min(timestamp_ms) m from change_page where "
                  "book_id = 7"),
            "n,s,m\r\n12,66,10000\r\n");
  EXPECT_EQ(
      query("select title, application_name from new_books_ex_books join new_books_ex using (id)"),
      "title,application_name\r\nThe Alder Walk,explorer.app\r\n");
  EXPECT_EQ(query("select to_page from change_page where timestamp_ms >= 10010 order by 1 desc"),
            "to_page\r\n11\r\n10\r\n");
  EXPECT_EQ(query("select name, hex(substr(raw, 1, 2)) h from records join events on events.id = "
                  "event where records.id = 2"),
            "name,h\r\nGoToURLEvent,F307\r\n");
  EXPECT_EQ(query("select archives, records > 11 m from in_archives"), "archives,m\r\n12,1\r\n");
  for (const char* wrong : {"delete from runs", "select 1; select 2", "attach 'x' as y",
                            "pragma writable_schema = 1", "select", ""}) {
    EXPECT_EQ(UsageStat({"sql", wrong}).exit_code, 2) << wrong;
  }
  WriteFile(archives.at(0).path, "damaged");
  EXPECT_EQ(UsageStat({"sql", "select count(*) from change_page"}).exit_code, 1);
}

TEST_F(InspectorTest, QueriesMeetEachRecordOnceWhileItIsArchived) {
  constexpr int kRows = 5000;
  const std::vector rows(kRows, RowOf(velmora::usage_stat::AddNoteEvent(), 1000));
  const std::string gate = folder_ / "gate";
  const auto writer = OpenWriter();
  std::vector<store::Archive> archives;
  ASSERT_OK(writer->Commit({rows, {}, {}, {}}));
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  // The query is held up among records of the database, which are more than a pipe holds, while all
  // of them go to an archive.
  Program query(
      {"/bin/sh", "-c",
       std::string(USAGE_STAT) +
           " sql -o csv \"select id, printf('%200d', id) from add_note\" | { read -r first; "
           "echo \"$first\"; cat '" +
           gate + "'; awk '{ ++all; once += !seen[$1]++ } END { print all, once }'; }"},
      {}, environment_);
  ASSERT_TRUE(query.AwaitOutput("id")) << query.err();
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  WriteFile(gate, "");
  EXPECT_THAT(query.Wait().out, EndsWith("\n5000 5000\n"));
}

TEST_F(InspectorTest, EndsWhenItsOutputEnds) {
  Fill();
  const std::string list = std::string(USAGE_STAT) + " list";
  EXPECT_EQ(RunProgram({"/bin/sh", "-c", list + " > /dev/full"}, "", environment_).exit_code, 1);
  // The reader is gone before the first byte comes.
  const std::string piped = "{ sleep 0.2; " + list + "; echo $? >&2; } | :";
  EXPECT_EQ(RunProgram({"/bin/sh", "-c", piped}, "", environment_).err, "0\n");
}

TEST_F(InspectorTest, FollowsRecordsThroughRotationAndReplacement) {
  auto writer = OpenWriter();
  ASSERT_OK(writer->Commit({{Row("GoToURLEvent", 1)}, {}, {}, {}}));
  Program follow(Started({"follow", "-n", "1"}), "", environment_);
  ASSERT_TRUE(follow.AwaitOutput("GoToURLEvent")) << follow.err();

  ASSERT_OK(writer->Commit({{Row("StartTtsEvent", 2)}, {}, {}, {}}));
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  ASSERT_OK(writer->Commit({{Row("StopTtsEvent", 3)}, {}, {}, {}}));
  ASSERT_TRUE(follow.AwaitOutput("StopTtsEvent"));

  writer.reset();
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(database_ + suffix);
  writer = OpenWriter();
  ASSERT_OK(writer->Commit({{Row("AddNoteEvent", 4)}, {}, {}, {}}));
  ASSERT_TRUE(follow.AwaitOutput("AddNoteEvent"));

  follow.Signal(SIGINT);
  const ProgramResult result = follow.Wait();
  EXPECT_EQ(result.exit_code, 0) << result.err;
  for (const char* event : {"GoToURLEvent", "StartTtsEvent", "StopTtsEvent", "AddNoteEvent"}) {
    const std::size_t first = result.out.find(event);
    EXPECT_NE(first, std::string::npos) << event;
    EXPECT_EQ(result.out.find(event, first + 1), std::string::npos) << event << " came twice";
  }
}

TEST_F(InspectorTest, BalancesWhatWasReceived) {
  ASSERT_OK(OpenWriter()->Finish());
  EXPECT_THAT(UsageStat({"status"}).out, HasSubstr("no application has sent anything yet"));
  std::filesystem::remove(database_);
  Fill();
  const Json status = Status();
  EXPECT_EQ(status["received"], 12);
  EXPECT_EQ(status["stored"], 4);
  EXPECT_EQ(status["off"], 5);
  EXPECT_EQ(status["quarantined_by_kind"], Json({{"cut short", 1}}));
  EXPECT_EQ(status["refused_by_reason"], Json({{"uid", 2}}));
  EXPECT_EQ(status["senders"].size(), 2U);
  EXPECT_EQ(status["runs"][0]["ended"], Json());
  EXPECT_EQ(status["runs"][0]["state"], "killed") << "its process lives, but does not listen";
  EXPECT_EQ(status["runs"][1]["state"], "ended");
  EXPECT_GE(status["runs"][1]["gap_before"], 0);
  EXPECT_THAT(UsageStat({"status"}).out, HasSubstr("gap of "));

  EXPECT_EQ(UsageStat({"archive"}).exit_code, 0);
  EXPECT_TRUE(Status()["adds_up"]);

  store::Connection connection;
  ASSERT_OK(store::Connection::Open(database_, store::Connection::Mode::kWrite, &connection));
  ASSERT_OK(connection.Execute("DELETE FROM quarantine"));
  EXPECT_FALSE(Status(1)["adds_up"]);
}

// The state that doctor finds for each check, the worst where there are several.
std::map<std::string, std::string> StatesOf(const ProgramResult& doctor) {
  std::map<std::string, std::string> states;
  for (const Json& finding : Json::parse(doctor.out)) {
    std::string& state = states[finding["check"]];
    if (state != "fail" && finding["state"] != "ok") state = finding["state"];
    if (state.empty()) state = "ok";
    EXPECT_EQ(finding["state"] == "ok", finding["advice"] == "");
  }
  return states;
}

TEST_F(InspectorTest, FindsWhatIsWrong) {
  const Words doctor = {"doctor", "-o", "json"};
  const auto examine = [&](const Words& more, int exit_code) {
    Words words = doctor;
    words.insert(words.end(), more.begin(), more.end());
    const ProgramResult result = UsageStat(words);
    EXPECT_EQ(result.exit_code, exit_code);
    return StatesOf(result);
  };
  CollectorProcess collector(COLLECTOR_COMMAND, folder_.path(), {"--database", database_});
  ASSERT_TRUE(collector.IsUp());
  ASSERT_TRUE(Eventually([this] {
    std::unique_ptr<store::Reader> reader;
    std::vector<store::Run> runs;
    return store::Reader::Open(database_, &reader).ok() && reader->ReadRuns(&runs).ok() &&
           !runs.empty();
  }));
  // Under an emulator the program that listens is the emulator.
  const auto program =
      std::filesystem::read_symlink("/proc/" + std::to_string(collector.pid()) + "/exe").filename();
  auto states = examine({"--endpoint", collector.endpoint()}, 0);
  EXPECT_EQ(states["endpoint"], program == "usage-stat-collector" ? "ok" : "warn");
  EXPECT_EQ(states["database"], "ok");
  EXPECT_EQ(states["balance"], "ok");
  EXPECT_EQ(states["clock"], "ok");
  EXPECT_EQ(Status()["runs"][0]["state"], "running");
  EXPECT_EQ(collector.End(), 0);

  // The end of the collector was noted while a record waited: its clock did not go back.
  auto writer = OpenWriter();
  store::RecordRow waited = Row("GoToURLEvent", velmora::usage_stat::base::NowMs() - 5000);
  ASSERT_OK(writer->Commit({{waited}, {}, {}, {}}));
  writer.reset();
  EXPECT_EQ(examine({"--endpoint", Receiver::UniqueEndpoint()}, 1)["clock"], "ok");

  const Receiver squatter;
  environment_.push_back("CORVANE_ROOT=" + folder_.path());
  states = examine({"--endpoint", squatter.endpoint()}, 0);
  EXPECT_EQ(states["endpoint"], "warn");
  EXPECT_EQ(states["root"], "warn");
  EXPECT_EQ(states["setting"], "ok");
  std::filesystem::create_directories(folder_ / "mnt/ext1/system/config");
  WriteFile(folder_ / "mnt/ext1/system/config/global.cfg", "statistics_enabled=0\n");
  states = examine({"--endpoint", squatter.endpoint()}, 0);
  EXPECT_EQ(states["root"], "ok");
  EXPECT_EQ(states["setting"], "warn");

  writer = OpenWriter();
  store::RecordRow late = Row("GoToURLEvent", 1000);
  late.received_ms += 100'000;
  ASSERT_OK(writer->Commit({{late}, {}, {}, {}}));
  chmod(database_.c_str(), 0644);
  environment_.back() = "CORVANE_ROOT=" + folder_.path() + "/nowhere";
  states = examine({"--endpoint", Receiver::UniqueEndpoint()}, 1);
  EXPECT_EQ(states["endpoint"], "fail");
  EXPECT_EQ(states["root"], "fail");
  EXPECT_EQ(states["clock"], "warn");
  EXPECT_EQ(states["database"], "warn");

  writer.reset();
  environment_.pop_back();
  WriteFile(database_, ReadFile(database_).substr(0, 6000));
  EXPECT_EQ(examine({"--endpoint", squatter.endpoint()}, 1)["database"], "fail");
}

TEST_F(InspectorTest, TellsStrangersWhichGroupMayRead) {
  if (getuid() != 0) GTEST_SKIP() << "only root can become another user";
  if (!IsReachedByAll(USAGE_STAT)) GTEST_SKIP() << "the tree lies where others cannot go";
  constexpr gid_t kDaemon = 1;
  ASSERT_EQ(chown(folder_.path().c_str(), 0, kDaemon), 0);
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(02750));
  OpenWriter();
  const auto advice = [this](const std::string& group) {
    const ProgramResult doctor =
        RunProgram({"/usr/bin/setpriv", "--reuid=12345", "--regid=" + group, "--clear-groups",
                    USAGE_STAT, "doctor", "-o", "json"},
                   {}, environment_);
    for (const Json& finding : Json::parse(doctor.out)) {
      if (finding["check"] == "database") return finding["advice"].get<std::string>();
    }
    return doctor.err;
  };
  EXPECT_EQ(advice("12345"),
            "members of the group daemon may: sudo adduser NAME daemon, and log in anew");
  EXPECT_EQ(advice("daemon"), "");
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0700));
  EXPECT_EQ(advice("12345"), "run doctor as root, or as the collector's user");
}

// The vectors as lines of hexadecimal digits.
std::string VectorLines() {
  std::string lines;
  for (const auto& file : std::filesystem::directory_iterator(SOURCE_DIR "/tests/vectors")) {
    if (file.path().extension() != ".json") continue;
    lines += Json::parse(ReadFile(file.path()))["hex"].get<std::string>() + "\n";
  }
  return lines;
}

TEST_F(InspectorTest, ReplaysEveryRecordAsItWas) {
  CollectorProcess collector(COLLECTOR_COMMAND, folder_.path(), {"--database", database_});
  ASSERT_TRUE(collector.IsUp());
  const std::string vectors = VectorLines();
  const auto replay = [&](const Words& more, const std::string& input) {
    Words words = {"replay", "--endpoint", collector.endpoint(), "--speed", "max"};
    words.insert(words.end(), more.begin(), more.end());
    const ProgramResult result = UsageStat(words, input);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return result.out;
  };
  const std::string count = std::to_string(std::count(vectors.begin(), vectors.end(), '\n'));
  EXPECT_EQ(replay({"--raw", "-"}, vectors),
            "0 sent through exported functions, " + count + " as bytes, 0 left out, 0 failed\n");
  // Whichever has a function goes through it; what a collector wrote about itself stays here.
  const std::string again = replay({"-"}, vectors);
  int through_functions = 0;
  int as_bytes = 0;
  int left_out = 0;
  ASSERT_EQ(
      std::sscanf(again.c_str(), "%d sent through exported functions, %d as bytes, %d left out",
                  &through_functions, &as_bytes, &left_out),
      3);
  EXPECT_GE(through_functions, 24);
  EXPECT_EQ(left_out, 4);
  EXPECT_EQ(std::to_string(through_functions + as_bytes + left_out), count);
  // A damaged record is sent as it is, or not at all.
  EXPECT_EQ(replay({"-"}, "f407\n"),
            "0 sent through exported functions, 0 as bytes, 1 left out, 0 failed\n");
  EXPECT_EQ(collector.End(), 0);

  // Everything arrived twice, the second time with another timestamp and nothing else. What a
  // collector writes about itself is left aside here.
  const auto payloads = [](const std::string& lines, int times) {
    std::vector<std::string> found;
    std::istringstream in(lines);
    for (std::string hex; std::getline(in, hex);) {
      const int code = std::stoi(hex.substr(2, 2) + hex.substr(0, 2), nullptr, 16);
      if (code >= 2012 && code <= 2015) continue;
      for (int i = 0; i < times; ++i) found.push_back(hex.substr(0, 4) + hex.substr(20));
    }
    std::sort(found.begin(), found.end());
    return found;
  };
  EXPECT_EQ(payloads(UsageStat({"list", "-o", "raw"}).out, 1), payloads(vectors, 2));

  // What was captured is read from a database, its JSON and its bytes alike.
  WriteFile(folder_ / "session.json", UsageStat({"list", "-o", "json", "-n", "5"}).out);
  Receiver receiver;
  for (const Words& source : {Words{database_}, Words{folder_ / "session.json"}}) {
    Program program(Started({"replay", "--raw", "--speed", "max", "--endpoint", receiver.endpoint(),
                             source[0]}),
                    "", environment_);
    const auto first = receiver.Receive();
    EXPECT_TRUE(first);
    while (program.out().empty() && receiver.Receive(100)) {
    }
  }
  // A clock that was set meanwhile, from 1970 to today and back, is no pause.
  std::string around_a_step;
  for (const std::int64_t at : {1000LL, 1'790'000'000'000LL, 2000LL}) {
    around_a_step +=
        velmora::usage_stat::base::ToHex(RowOf(velmora::usage_stat::GoToPageEvent(), at).raw) +
        "\n";
  }
  const Receiver patient;
  Program stepping(Started({"replay", "--raw", "--endpoint", patient.endpoint(), "-"}),
                   around_a_step, environment_);
  EXPECT_TRUE(stepping.AwaitOutput("3 as bytes"));
  receiver.Stop();
  EXPECT_EQ(UsageStat({"replay", "-"}, "00ff\nnonsense\n").exit_code, 1);
  EXPECT_EQ(UsageStat({"replay", "--speed", "0", "-"}, "").exit_code, 2);
  EXPECT_THAT(UsageStat({"replay", "--raw", "--endpoint", receiver.endpoint(), "-"}, "00ff\n").err,
              HasSubstr("no collector"));
}

TEST_F(InspectorTest, ReleasesFromTheQuarantineWhatNowReads) {
  const std::string datagram = PageTurn(1, 2);
  auto writer = OpenWriter();
  store::Batch batch;
  constexpr int kReadable = 150;
  batch.quarantine.assign(
      kReadable, {0, 0, 4000, {42, 7}, "unknown type", "unknown type", 2032, 28, datagram});
  batch.quarantine[7].raw = "ab";
  batch.quarantine.push_back(batch.quarantine[0]);
  ASSERT_OK(writer->Commit(batch));
  EXPECT_EQ(UsageStat({"replay", "--quarantine"}).out,
            "150 of 151 moved from the quarantine to the records\n");
  const Json row = Json::parse(UsageStat({"list", "-n", "1", "-o", "json"}).out);
  EXPECT_EQ(row["event"], "ChangePageEvent");
  EXPECT_EQ(row["received"], 4000);
  EXPECT_EQ(row["pid"], 42);
  EXPECT_EQ(row["fields"]["book_id"], 2);
  const Json status = Status();
  EXPECT_EQ(status["stored"], kReadable);
  EXPECT_EQ(status["in_quarantine"], 1);
}

TEST(Moment, IsReadInTheFormsThatPeopleWrite) {
  using velmora::usage_stat::inspector::ParseMoment;
  setenv("TZ", "Europe/Berlin", 1);
  tzset();
  constexpr std::int64_t kNow =
      1'774'778'400'500;  // 2026-03-29 12:00:00.5, 9 hours into summer time
  constexpr std::int64_t kHour = 3'600'000;
  constexpr std::int64_t kMidnight = kNow - 500 - 11 * kHour;
  struct Case {
    const char* text;
    std::optional<std::int64_t> moment;
  };
  const Case cases[] = {
      {"now", kNow},
      {"today", kMidnight},
      {"yesterday", kMidnight - 24 * kHour},
      {"tomorrow", kMidnight + 23 * kHour},
      {"2 hours ago", kNow - 2 * kHour},
      {"1h 30min ago", kNow - kHour * 3 / 2},
      {"-1d2h", kNow - 26 * kHour},
      {"+3s", kNow + 3000},
      {"@12", 12'000},
      {"2026-03-29", kMidnight},
      {"2026-03-29 12:00", kNow - 500},
      {"2026-03-29T10:00:00Z", kNow - 500},
      {"2026-03-29 10:00 UTC", kNow - 500},
      {"2026-03-29T10:00:00.5Z", kNow},
      {"2026-03-29 12:00:00.500999", kNow},
      {"2026-03-29T05:30:00.5-04:30", kNow},
      {"2026-03-29+02:00", kMidnight - kHour},
      {"11:59:59", kNow - 1500},
      {"@12.0625", 12'062},
      {"1 week ago", kNow - 7 * 24 * kHour},
      {"1 month ago", kNow - 2'629'800'000},
      {"2y ago", kNow - 2 * 12 * 2'629'800'000},
      {"2026-02-30", std::nullopt},
      {"2026-13-01", std::nullopt},
      {"-1fortnight", std::nullopt},
      {"-1", std::nullopt},
      {"--1h", std::nullopt},
      {"@", std::nullopt},
      {"@1.x", std::nullopt},
      {"12:00.5", std::nullopt},
      {"12:00:00.", std::nullopt},
      {"@99999999999999999999", std::nullopt},
      {"-99999999999999w", std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(ParseMoment(c.text, kNow), c.moment) << c.text;
}

}  // namespace
}  // namespace usage_stat_test
