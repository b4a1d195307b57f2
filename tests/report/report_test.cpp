// From a database to a page.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <string_view>

#include "src/stat_event/event_factory.h"
#include "tests/support/run_program.h"
#include "tests/tools/store_fixture.h"
#include "tools/report/figures.h"
#include "tools/report/html.h"
#include "tools/report/names.h"
#include "tools/report/page.h"
#include "tools/report/record_counter.h"
#include "tools/report/summary.h"
#include "tools/store/archive.h"
#include "tools/store/file.h"

namespace velmora::usage_stat::report {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr std::int64_t kMinute = 60000;
constexpr std::int64_t kDay = 24 * 60 * kMinute;
constexpr std::int64_t kBegin = std::int64_t{20000} * kDay;
constexpr Range kTwoDays{kBegin, kBegin + 2 * kDay};

class ReportTest : public usage_stat_test::StoreTest {
 protected:
  ReportTest() { setenv("TZ", "UTC", 1); }

  void Keep(int type, const std::string& event, std::int64_t at_ms, const std::string& fields) {
    store::RecordRow row = Row(event, at_ms, fields);
    row.type = type;
    batch_.records.push_back(row);
    ++batch_.received;
  }

  void Commit() {
    EXPECT_OK(writer_->Commit(batch_));
    batch_ = {};
  }

  store::Status Read(Range range, Summary* summary) {
    std::unique_ptr<store::Journal> journal;
    if (auto status = store::Journal::Open(database_, &journal); !status.ok()) return status;
    return ReadSummary(journal.get(), range, summary);
  }

  // A book with a title, one with a file name and one with neither, two of them read.
  void KeepReading() {
    Keep(
        2028, "NewBooksEventEx", kBegin - 40 * kDay,
        R"({"count":1,"books":[{"book_id":1,"file_name":"one.epub","s1":"One"}],"application":1})");
    Keep(2010, "OpenBookEvent", kBegin - kMinute, R"({"book_id":1,"file_name":"one.epub"})");
    Keep(2032, "ChangePageEvent", kBegin + 4 * kMinute, "{}");
    Keep(2010, "OpenBookEvent", kBegin + kDay, R"({"book_id":2,"file_name":"two.pdf"})");
    Keep(2032, "ChangePageEvent", kBegin + kDay + kMinute, "{}");
    Keep(2010, "OpenBookEvent", kBegin + kDay + 2 * kMinute, R"({"book_id":-3,"file_name":""})");
    Keep(2032, "ChangePageEvent", kBegin + 2 * kDay, "{}");  // beyond
  }

  std::unique_ptr<store::Writer> writer_ = OpenWriter();
  store::Batch batch_;
};

TEST_F(ReportTest, SumsUpTheRangeAndNamesTheBooks) {
  KeepReading();
  Commit();
  // Closed records count as those in the database do.
  std::optional<store::Archive> archive;
  EXPECT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archive));
  ASSERT_TRUE(archive);
  Keep(2004, "StartApplicationEvent", kBegin, R"({"application":28})");
  Keep(2004, "StartApplicationEvent", kBegin, R"({"application":33})");
  Keep(2004, "StartApplicationEvent", kBegin, R"({"application":28})");
  Keep(2038, "StartOutsideApplicationEvent", kBegin, R"({"path":"/mnt/ext1/clock.app"})");
  Keep(2018, "LibrarySettingsEvent", kBegin + 9, R"({"a":1,"library_view":2})");
  Keep(2018, "LibrarySettingsEvent", kBegin + 8, R"({"a":1,"library_view":0})");
  Keep(2010, "OpenBookEvent", kBegin + kDay - 1, "[]");  // not what it should be
  batch_.quarantine.push_back({0, 0, kBegin, {1, 1000}, "truncated", "why", {}, "{}", "x"});
  batch_.quarantine.push_back({0, 0, kBegin - 1, {1, 1000}, "truncated", "early", {}, "{}", "x"});
  batch_.refused[{33, "user not allowed"}] = 4;
  Commit();

  Summary summary;
  ASSERT_OK(Read(kTwoDays, &summary));
  EXPECT_EQ(summary.reading, (Reading{5 * kMinute, 2}));
  EXPECT_EQ(summary.sessions, 2);
  ASSERT_THAT(summary.books, SizeIs(4));
  EXPECT_EQ(summary.books[0].title, "One");
  EXPECT_EQ(summary.books[0].reading, (Reading{4 * kMinute, 1}));
  EXPECT_EQ(summary.books[1].file_name, "two.pdf");
  ASSERT_THAT(summary.applications, SizeIs(3));
  EXPECT_THAT(summary.applications[0].name, HasSubstr("camera.app"));
  EXPECT_EQ(summary.applications[0].count, 2);
  ASSERT_THAT(summary.settings, SizeIs(1));
  ASSERT_THAT(summary.settings[0].settings, SizeIs(1));  // fields without a name are left out
  EXPECT_EQ(summary.settings[0].settings[0].latest, "covers");
  ASSERT_THAT(summary.undecodable, SizeIs(1));
  EXPECT_EQ(summary.undecodable[0].example, "why");
  EXPECT_EQ(summary.errors, 1);  // refused today, long after the range

  const std::string page = RenderPage(summary);
  for (const char* text : {"<bdi>One</bdi>", "<bdi>two.pdf</bdi>", "<bdi>Book -3</bdi>",
                           "<bdi>clock.app</bdi>", "<bdi>covers</bdi>", "of tellhaus"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
}

TEST_F(ReportTest, EmptyAndMissingDatabases) {
  Summary summary;
  ASSERT_OK(Read(kTwoDays, &summary));
  const std::string page = RenderPage(summary);
  EXPECT_THAT(page, HasSubstr("There are no records in this range"));
  EXPECT_THAT(page, Not(HasSubstr("<canvas")));
  std::unique_ptr<store::Journal> journal;
  EXPECT_FALSE(store::Journal::Open(folder_ / "none.db", &journal).ok());
}

TEST_F(ReportTest, RefusesRangesThatNoPageCanShow) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  Summary summary;
  for (const Range& range : {Range{kBegin, kBegin}, Range{kBegin, kBegin - 1}, Range{-kMost, kMost},
                             Range{kBegin, kMost}, Range{0, kLongestRangeMs + 1}}) {
    EXPECT_FALSE(Read(range, &summary).ok()) << range.since_ms << " " << range.until_ms;
  }
}

TEST_F(ReportTest, CommandWritesAPageOrSaysWhyNot) {
  using usage_stat_test::ReadFile;
  using usage_stat_test::RunProgram;
  const std::string page = folder_ / "page.html";
  struct Case {
    std::vector<std::string> options;
    int exit_code;
    const char* text;
  };
  const Case cases[] = {
      {{"--output", page}, 0, ""},
      {{"--since", "2024-10-04", "--until", "2024-10-05"}, 0, "4 Oct 2024"},
      {{"--since", "today", "--until", "yesterday"}, 2, "--until: it is not after"},
      {{"--since", "never"}, 2, "never"},
      {{"--output", "/dev/full"}, 1, "cannot write /dev/full: No space left"},
      {{"--database", folder_ / "none.db"}, 1, "none.db"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.options));
    std::vector<std::string> words = {USAGE_STAT, "report", "--database", database_};
    if (c.options[0] == "--database") words.resize(2);
    words.insert(words.end(), c.options.begin(), c.options.end());
    const auto result = RunProgram(words);
    EXPECT_EQ(result.exit_code, c.exit_code) << result.err;
    EXPECT_THAT(result.out + result.err, HasSubstr(c.text));
  }
  EXPECT_THAT(ReadFile(page), HasSubstr("<title>Usage report"));
}

TEST_F(ReportTest, SamplesAreMadeOnceAndAlikeAndOverwriteNothing) {
  using usage_stat_test::RunProgram;
  const std::string folder = folder_ / "fleet";
  const std::string file = folder_ / "one.db";
  ASSERT_EQ(RunProgram({USAGE_STAT_SAMPLE, "--days", "7", file}).exit_code, 0);
  ASSERT_EQ(RunProgram({USAGE_STAT_SAMPLE, "--devices", "2", "--days", "7", folder}).exit_code, 0);
  std::int64_t records[3] = {};
  const std::string made[] = {file, folder + "/1.db", folder + "/2.db"};
  for (std::size_t i = 0; i < 3; ++i) {
    std::unique_ptr<store::Reader> reader;
    ASSERT_OK(store::Reader::Open(made[i], &reader));
    store::Query before_today;
    before_today.until_ms = BeginOf(LocalClock().At(store::NowMs()).day);
    ASSERT_OK(
        reader->ForEach(before_today, [&](const store::RecordRow&) { return ++records[i] > 0; }));
  }
  EXPECT_GT(records[0], 100);
  EXPECT_EQ(records[0], records[1]);  // the same person
  EXPECT_NE(records[1], records[2]);
  for (const std::string& path : {file, folder}) {
    const auto again = RunProgram({USAGE_STAT_SAMPLE, path});
    EXPECT_EQ(again.exit_code, 1);
    EXPECT_THAT(again.err, HasSubstr("exists; it was left as it is"));
  }
  EXPECT_EQ(RunProgram({USAGE_STAT_SAMPLE, "--days", "0", file}).exit_code, 2);
}

TEST_F(ReportTest, HostileTextsStayTexts) {
  const std::string evil = R"(</script><img src=x onerror=\"alert(1)\"><!--{{data}}'&)";
  Keep(2028, "NewBooksEventEx", kBegin,
       R"({"books":[{"book_id":1,"s1":")" + evil + R"(","file_name":"\u0000\u001b"}]})");
  Keep(2010, "OpenBookEvent", kBegin, R"({"book_id":1,"file_name":")" + evil + "\"}");
  Keep(2032, "ChangePageEvent", kBegin + kMinute, "{}");
  Keep(2038, "StartOutsideApplicationEvent", kBegin, R"({"path":")" + evil + "\"}");
  Keep(2027, "SetFontParamsEvent", kBegin, R"({")" + evil + R"(":1,"font":")" + evil + "\"}");
  Keep(9999, "</script><b>", kBegin, "not even JSON");
  batch_.quarantine.push_back({0, 0, kBegin, {1, 1}, "<b>", "</script><b>", {}, "{}", "x"});
  Commit();
  Summary summary;
  ASSERT_OK(Read(kTwoDays, &summary));
  const std::string page = RenderPage(summary);
  for (const char* text : {"<img", "<b>", "onerror=\""}) {
    const std::size_t body = page.find("<body>");
    const std::size_t library = page.find("<script>", body);
    EXPECT_EQ(page.substr(body, library - body).find(text), std::string::npos) << text;
  }
  EXPECT_THAT(page, HasSubstr("{{data}}"));  // and not what that slot holds
  std::size_t ends = 0;
  for (std::size_t at = 0; (at = page.find("</script", at)) != std::string::npos; ++at) ++ends;
  EXPECT_EQ(ends, 3U);
  EXPECT_EQ(EscapeHtml("a<b>&\"'\x01"), "a&lt;b&gt;&amp;&quot;&#39;\uFFFD");
}

TEST_F(ReportTest, FloodsOfNamesAreToldAsSums) {
  constexpr int kBooks = 150;
  for (int i = 0; i < kBooks; ++i) {
    const std::string number = std::to_string(i);
    Keep(2010, "OpenBookEvent", kBegin + i * kMinute, R"({"book_id":)" + number + "}");
    Keep(2032, "ChangePageEvent", kBegin + i * kMinute + 1000 + i, "{}");
    Keep(2038, "StartOutsideApplicationEvent", kBegin, R"({"path":"/)" + number + "\"}");
    Keep(2027, "SetFontParamsEvent", kBegin,
         R"({"font":")" + std::string(5000, 'x') + number + "\"}");
  }
  Commit();
  Summary summary;
  ASSERT_OK(Read(kTwoDays, &summary));
  EXPECT_EQ(summary.books.size(), kMostBooks);
  EXPECT_EQ(summary.all_books, kBooks);
  EXPECT_EQ(summary.other_books.turns, kBooks - static_cast<std::int64_t>(kMostBooks));
  EXPECT_EQ(summary.books[0].id, kBooks - 1);
  EXPECT_LT(RenderPage(summary).size(), 400'000U);
  Counts counts(2);
  for (const char* name : {"a", "b", "c", "b"}) counts.Add(name);
  EXPECT_EQ(counts.Sorted()[0].name, "b");
  EXPECT_EQ(counts.uncounted(), 1);
}

TEST(ReportPage, GathersDaysToBars) {
  setenv("TZ", "UTC", 1);
  struct Case {
    int days;
    const char* step;
    std::size_t bars;
  };
  for (const Case& c : {Case{1, "day", 1}, Case{92, "day", 92}, Case{93, "week", 14},
                        Case{800, "month", 27}, Case{4000, "year", 12}}) {
    const Series series = SeriesOf({kBegin, kBegin + c.days * kDay}, {{20000, 7}});
    EXPECT_EQ(series.step, c.step);
    EXPECT_EQ(series.bars.size(), c.bars) << c.days;
    EXPECT_EQ(series.bars[0].value, 7);
  }
}

TEST(ReportPage, WritesNumbersForPeople) {
  EXPECT_EQ(FormatNumber(-1234567), "-1,234,567");
  EXPECT_EQ(FormatNumber(999), "999");
  EXPECT_EQ(FormatDuration(59999), "1 min");
  EXPECT_EQ(FormatDuration(59499), "59 s");
  EXPECT_EQ(FormatDuration(3599999), "1 h 00 min");
  EXPECT_EQ(FormatDuration(std::int64_t{1234} * 3600000 + 65000), "1,234 h 01 min");
  EXPECT_EQ(ApplicationName(99), "application 99");
}

}  // namespace
}  // namespace velmora::usage_stat::report
