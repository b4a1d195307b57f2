// From a database to a page.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "include/usage_stat.h"
#include "src/events/events.h"
#include "tests/support/run_program.h"
#include "tests/tools/store_fixture.h"
#include "tools/base/system.h"
#include "tools/report/figures.h"
#include "tools/report/html.h"
#include "tools/report/page.h"
#include "tools/report/record_counter.h"
#include "tools/report/summary.h"
#include "tools/store/archive.h"

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

  // Keeps a record as its datagram, and as whatever `raw` is when a stranger wrote to the file.
  void Keep(int type, const std::string& event, std::int64_t at_ms, std::string raw) {
    store::RecordRow row = Row(event, at_ms);
    row.type = type;
    row.raw = std::move(raw);
    batch_.records.push_back(row);
  }

  template <class EventClass>
  void Keep(const char* name, std::int64_t at_ms, EventClass event) {
    event.timestamp_ = at_ms;
    std::ostringstream out;
    EXPECT_EQ(event.WriteToStream(out), 0) << name;
    Keep(event.type_, name, at_ms, std::move(out).str());
  }

  void KeepNewBook(std::int64_t at_ms, int book, const std::string& file,
                   const std::string& title) {
    NewBooksEventEx event;
    event.count_ = 1;
    NewBookRecord& record = event.records_.emplace_back();
    record.book_id_ = book;
    record.language_ = "en";
    record.file_name_ = file;
    record.s1_ = title;
    Keep("NewBooksEventEx", at_ms, event);
  }

  void KeepOpening(std::int64_t at_ms, int book, const std::string& file = "") {
    OpenBookEvent event;
    event.book_id_ = book;
    event.language_ = "en";
    event.file_name_ = file;
    Keep("OpenBookEvent", at_ms, event);
  }

  void KeepTurn(std::int64_t at_ms) { Keep("ChangePageEvent", at_ms, ChangePageEvent()); }

  void KeepLaunch(std::int64_t at_ms, int application) {
    StartApplicationEvent event;
    event.application_ = static_cast<std::int16_t>(application);
    Keep("StartApplicationEvent", at_ms, event);
  }

  void KeepOutsideLaunch(std::int64_t at_ms, const std::string& path) {
    StartOutsideApplicationEvent event;
    event.path_ = path;
    Keep("StartOutsideApplicationEvent", at_ms, event);
  }

  void KeepView(std::int64_t at_ms, int view) {
    LibrarySettingsEvent event;
    event.library_view_ = static_cast<char>(view);
    Keep("LibrarySettingsEvent", at_ms, event);
  }

  void KeepFont(std::int64_t at_ms, const std::string& font) {
    SetFontParamsEvent event;
    event.font_ = font;
    Keep("SetFontParamsEvent", at_ms, event);
  }

  void Commit() {
    EXPECT_OK(writer_->Commit(batch_));
    batch_ = {};
  }

  store::Status Read(Range range, Summary* summary) {
    std::unique_ptr<store::History> history;
    RETURN_IF_ERROR(store::History::Open(database_, &history));
    return ReadSummary(history.get(), range, options_, summary);
  }

  // A book with a title, one with a file name and one with neither, two of them read.
  void KeepReading() {
    KeepNewBook(kBegin - 40 * kDay, 1, "one.epub", "One");
    KeepOpening(kBegin - kMinute, 1, "one.epub");
    KeepTurn(kBegin + 4 * kMinute);
    KeepOpening(kBegin + kDay, 2, "two.pdf");
    KeepTurn(kBegin + kDay + kMinute);
    KeepOpening(kBegin + kDay + 2 * kMinute, -3);
    KeepTurn(kBegin + 2 * kDay);  // beyond
  }

  std::unique_ptr<store::Writer> writer_ = OpenWriter();
  store::Batch batch_;
  SummaryOptions options_;
};

TEST_F(ReportTest, SumsUpTheRangeAndNamesTheBooks) {
  KeepReading();
  Commit();
  // Closed records count as those in the database do.
  std::vector<store::Archive> archives;
  EXPECT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  ASSERT_EQ(archives.size(), 1U);
  KeepLaunch(kBegin, 28);
  KeepLaunch(kBegin, 33);
  KeepLaunch(kBegin, 28);
  KeepLaunch(kBegin, 99);
  KeepOutsideLaunch(kBegin, "/mnt/ext1/clock.app");
  KeepView(kBegin + 9, STAT_LIBRARY_VIEW_COVERS);
  KeepView(kBegin + 8, STAT_LIBRARY_VIEW_LIST);
  Keep(EventFactory::kOpenBook, "OpenBookEvent", kBegin + kDay - 1, "not what it should be");
  UseDictionaryEvent lookup;
  lookup.a_ = 1;
  lookup.b_ = "tarn";
  Keep("UseDictionaryEvent", kBegin, lookup);
  batch_.quarantine.push_back({0, 0, kBegin, {1, 1000}, "truncated", "why", {}, 2, "x"});
  batch_.quarantine.push_back({0, 0, kBegin - 1, {1, 1000}, "truncated", "early", {}, 2, "x"});
  batch_.refused[{33, "user not allowed"}] = 4;
  Commit();

  Summary summary;
  ASSERT_OK(Read(kTwoDays, &summary));
  EXPECT_EQ(summary.reading, (Reading{5 * kMinute, 2, 2}));
  EXPECT_EQ(summary.sessions, 2);
  ASSERT_THAT(summary.books, SizeIs(4));
  EXPECT_EQ(summary.books[0].title, "One");
  EXPECT_EQ(summary.books[0].reading, (Reading{4 * kMinute, 1, 1}));
  EXPECT_EQ(summary.books[1].file_name, "two.pdf");
  ASSERT_THAT(summary.applications, SizeIs(4));
  EXPECT_THAT(summary.applications[0].name, HasSubstr("camera.app"));
  EXPECT_EQ(summary.applications[0].count, 2);
  ASSERT_THAT(summary.settings, SizeIs(1));
  const auto& settings = summary.settings[0].settings;  // fields without a name are left out
  EXPECT_THAT(settings, testing::Contains(testing::Field(&Setting::latest, "covers")));
  EXPECT_THAT(settings, testing::Each(testing::Field(&Setting::field, Not("a"))));
  EXPECT_EQ(summary.launches_by_day, (std::map<Day, std::int64_t>{{20000, 5}}));
  EXPECT_EQ(summary.books[0].lookups, 1);
  EXPECT_THAT(summary.words, SizeIs(0));
  ASSERT_THAT(summary.undecodable, SizeIs(1));
  EXPECT_EQ(summary.undecodable[0].example, "why");
  EXPECT_EQ(summary.errors, 1);  // refused today, long after the range

  const std::string page = RenderPage(summary);
  for (const char* text :
       {"<bdi>One</bdi>", "<bdi>two.pdf</bdi>", "<bdi>Book -3</bdi>", "<bdi>clock.app</bdi>",
        "<bdi>application 99</bdi>", "<bdi>covers</bdi>", "of tellhaus"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
  EXPECT_THAT(page, Not(HasSubstr("tarn")));  // words are told by request alone
  options_.with_words = true;
  ASSERT_OK(Read(kTwoDays, &summary));
  EXPECT_THAT(RenderPage(summary), HasSubstr("<bdi>tarn</bdi>"));
}

TEST_F(ReportTest, EmptyAndMissingDatabases) {
  // Today the collector has told that it made the database.
  const Range today{base::NowMs() - kDay, base::NowMs() + kDay};
  for (const Range& range : {kTwoDays, today}) {
    Summary summary;
    ASSERT_OK(Read(range, &summary));
    EXPECT_EQ(summary.records, range.since_ms == today.since_ms ? 1 : 0);
    const std::string page = RenderPage(summary);
    EXPECT_THAT(page, HasSubstr("The database holds no records yet"));
    EXPECT_EQ(page.find("<canvas") == std::string::npos, summary.records == 0);
  }
  std::unique_ptr<store::History> history;
  EXPECT_FALSE(store::History::Open(folder_ / "none.db", &history).ok());
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
  struct stat status {};
  ASSERT_EQ(stat(page.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
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
    before_today.until_ms = BeginOf(LocalClock().At(base::NowMs()).day);
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
  const std::string evil = "</script><img src=x onerror=\"alert(1)\"><!--{{data}}'&";
  KeepNewBook(kBegin, 1, std::string("\0\x1b", 2), evil);
  KeepOpening(kBegin, 1, evil);
  KeepTurn(kBegin + kMinute);
  KeepOutsideLaunch(kBegin, evil);
  KeepFont(kBegin, evil);
  Keep(9999, "</script><b>", kBegin, "no record");
  batch_.quarantine.push_back({0, 0, kBegin, {1, 1}, "<b>", "</script><b>", {}, 2, "x"});
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
    KeepOpening(kBegin + i * kMinute, i);
    KeepTurn(kBegin + i * kMinute + 1000 + i);
    KeepOutsideLaunch(kBegin, "/" + number);
    KeepFont(kBegin, std::string(5000, 'x') + number);
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
}

}  // namespace
}  // namespace velmora::usage_stat::report
