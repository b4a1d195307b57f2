// Erasing: what was erased is in no file under the store, and everything else still is.

#include "tools/store/erase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "src/events/events.h"
#include "tests/faults/killed_at_write.h"
#include "tests/tools/store_fixture.h"
#include "tools/records/record.h"
#include "tools/store/archive.h"
#include "tools/store/ledger.h"
#include "tools/store/maintenance.h"
#include "tools/store/retention.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat {
namespace {

using usage_stat_test::Answer;
using usage_stat_test::ReadFile;
using usage_stat_test::WriteFile;

constexpr std::int32_t kBook = 0x0b00c001;
constexpr std::int32_t kOther = 0x0b00c002;
constexpr std::int64_t kDay = std::int64_t{24} * 60 * 60 * 1000;
constexpr std::int64_t kStart = 1'790'000'000'000;

class EraseTest : public usage_stat_test::StoreTest {
 protected:
  // What a reader of `book` leaves behind, with `text` wherever a text can be.
  static std::vector<std::unique_ptr<Event>> Traces(std::int32_t book, const std::string& text) {
    std::vector<std::unique_ptr<Event>> events;
    auto open = std::make_unique<OpenBookEvent>();
    open->book_id_ = book;
    open->file_name_ = open->c_ = text;
    open->first_list_ = {text};
    auto turn = std::make_unique<ChangePageEvent>();
    turn->a_ = book;
    auto word = std::make_unique<UseDictionaryEvent>();
    word->a_ = book;
    word->b_ = text;
    auto found = std::make_unique<NewBooksEventEx>();
    found->count_ = 2;
    found->records_.resize(2);
    found->records_[0].book_id_ = kOther + 1;
    found->records_[1].book_id_ = book;
    found->records_[1].s1_ = text;
    events.push_back(std::move(open));
    events.push_back(std::move(turn));
    events.push_back(std::move(word));
    events.push_back(std::move(found));
    return events;
  }

  static std::string Datagram(Event* event) {
    std::ostringstream out;
    EXPECT_EQ(event->WriteToStream(out), 0);
    return std::move(out).str();
  }

  // `rounds` of both books' traces, an hour apart from `start` on.
  void Write(store::Writer* writer, int rounds, std::int64_t start) {
    for (int i = 0; i < rounds; ++i) {
      store::Batch batch;
      for (const auto& [book, text] : std::map<std::int32_t, std::string>{
               {kBook, "secret-of-the-one"}, {kOther, "kept-of-the-other"}}) {
        for (const auto& event : Traces(book, text)) {
          event->timestamp_ = start + i * 3'600'000;
          batch.records.push_back(RowOf(Datagram(event.get()), event->timestamp_));
        }
      }
      ASSERT_OK(writer->Commit(batch));
    }
  }

  static store::RecordRow RowOf(const std::string& datagram, std::int64_t received_ms) {
    const auto decoded = records::Decode(datagram);
    const auto& record = std::get<records::Record>(decoded);
    store::RecordRow row;
    row.received_ms = received_ms;
    row.type = record.type;
    row.event = std::string(record.event);
    row.timestamp_ms = record.timestamp;
    row.fields = records::Dump(records::ToJson(record)["fields"]);
    row.raw = datagram;
    return row;
  }

  // Everything the folder holds, archives unpacked.
  std::string Everything() { return Everything(folder_.path()); }
  static std::string Everything(const std::string& folder) {
    std::string bytes;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      if (!entry.is_regular_file()) continue;
      std::string path = entry.path();
      if (store::IsArchive(path)) {
        const std::string unpacked = path + ".unpacked";
        if (store::UnpackArchive(path, unpacked).ok()) bytes += ReadFile(unpacked);
        std::filesystem::remove(unpacked);
      }
      bytes += ReadFile(path);
    }
    return bytes;
  }

  // The numbers of all records, and those that are noted as missing; together all that were given.
  void ExpectNumbersAddUp(std::size_t erased) { EXPECT_EQ(NumbersMissing(database_), erased); }
  static std::size_t NumbersMissing(const std::string& database) {
    std::unique_ptr<store::History> history;
    EXPECT_OK(store::History::Open(database, &history));
    std::multiset<std::int64_t> numbers;
    EXPECT_OK(history->ForEach({}, [&](const store::RecordRow& row) {
      numbers.insert(row.id);
      return true;
    }));
    std::vector<store::Missing> missing;
    std::int64_t last = 0;
    std::size_t noted = 0;
    EXPECT_OK(history->live().ReadMissing(&missing));
    EXPECT_OK(history->live().LastNumber(&last));
    for (const store::Missing& run : missing) {
      EXPECT_EQ(run.reason, store::Absence::kErased);
      for (std::int64_t n = run.first_record; n <= run.last_record; ++n, ++noted) numbers.insert(n);
    }
    EXPECT_EQ(numbers.size(), static_cast<std::size_t>(last));
    for (std::int64_t n = 1; n <= last; ++n) EXPECT_EQ(numbers.count(n), 1U) << n;
    return noted;
  }

  void Archive() {
    std::vector<store::Archive> archives;
    ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
    ASSERT_FALSE(archives.empty());
  }
};

TEST_F(EraseTest, ABookIsGoneFromEveryFileAndTheOtherStays) {
  auto writer = OpenWriter();
  Write(writer.get(), 30, kStart);
  Archive();
  Write(writer.get(), 30, kStart + 2 * kDay);
  store::Batch batch;
  auto traces = Traces(kBook, "secret-of-the-one");
  const std::string cut = Datagram(traces[0].get());
  batch.quarantine.push_back({0, 0, kStart, {}, "cut short", "", 2010, 9, cut.substr(0, 40)});
  ASSERT_OK(writer->Commit(batch));
  WriteFile(database_ + ".damaged-1", "secret-of-the-one");
  WriteFile(database_ + ".damaged-1-wal", "secret-of-the-one");
  ASSERT_NE(Everything().find("secret-of-the-one"), std::string::npos);

  store::Erased counted;
  store::Erased erased;
  const store::Query query{.book_id = kBook};
  ASSERT_OK(store::CountErasable(database_, query, "", &counted));
  ASSERT_NE(Everything().find("secret-of-the-one"), std::string::npos);
  ASSERT_OK(store::Erase(database_, query, "", &erased));  // the writer is still at it
  EXPECT_EQ(erased.records, 240);
  EXPECT_EQ(erased.quarantined, 1);
  EXPECT_EQ(erased.files.size(), 2U);
  EXPECT_EQ(counted.records, erased.records);
  EXPECT_EQ(counted.files, erased.files);

  EXPECT_EQ(Everything().find("secret-of-the-one"), std::string::npos);
  EXPECT_NE(Everything().find("kept-of-the-other"), std::string::npos);
  ExpectNumbersAddUp(240);
  Write(writer.get(), 1, kStart + 4 * kDay);
  ASSERT_OK(store::Erase(database_, query, "", &erased));
  EXPECT_EQ(erased.records, 4);
  ExpectNumbersAddUp(244);
}

TEST_F(EraseTest, AllBeforeADateOneEventAndOneRecordGoAsTheyAreAskedFor) {
  const auto erase = [this](const store::Query& query) {
    store::Erased erased;
    EXPECT_OK(store::Erase(database_, query, "", &erased));
    return erased.records;
  };
  auto writer = OpenWriter();  // its own record is number 1
  Write(writer.get(), 10, kStart);
  Archive();  // and the archive's
  Write(writer.get(), 10, kStart + kDay);
  EXPECT_EQ(erase({.after_id = 4, .last_id = 5}), 1);
  EXPECT_EQ(erase({.after_id = 4, .last_id = 5}), 0);
  EXPECT_EQ(erase({.until_ms = kStart + 3'600'000}), 7);  // the first round's eight but one
  EXPECT_EQ(erase({.events = {"UseDictionaryEvent"}}), 38);
  ExpectNumbersAddUp(46);
  ASSERT_OK(writer->Finish());
  writer.reset();
  EXPECT_GT(erase({}), 100);
  const std::string bytes = Everything();
  EXPECT_EQ(bytes.find("secret-of-the-one"), std::string::npos);
  EXPECT_EQ(bytes.find("kept-of-the-other"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_empty(folder_ / "archives"));
}

TEST_F(EraseTest, ArchivesThatTheDatabaseDoesNotListAreReachedToo) {
  auto writer = OpenWriter();
  Write(writer.get(), 10, kStart);
  Archive();
  ASSERT_OK(writer->Finish());
  writer.reset();
  for (const char* ending : {"", "-wal", "-shm"}) std::filesystem::remove(database_ + ending);
  writer = OpenWriter();  // begun anew beside the archive, which it can take up
  Write(writer.get(), 10, kStart + kDay);
  // None of these can be taken up: a copy, one that can't be read, and one elsewhere.
  const std::string elsewhere = folder_ / "elsewhere";
  std::filesystem::create_directory(elsewhere);
  const std::string archive = std::filesystem::directory_iterator(folder_ / "archives")->path();
  std::filesystem::copy_file(archive, folder_ / "archives/records-copy.db.zst");
  std::filesystem::copy_file(archive, elsewhere + "/records-other.db.zst");
  WriteFile(folder_ / "archives/records-cut.db.zst", "secret-of-the-one");
  WriteFile(folder_ / "archives/unfinished.db", "secret-of-the-one");
  WriteFile(folder_ / "records.db.schema-1-17", "secret-of-the-one");

  store::Erased erased;
  ASSERT_OK(store::Erase(database_, {.book_id = kOther + 9}, elsewhere, &erased));
  EXPECT_EQ(erased.records, 0);
  EXPECT_THAT(erased.files, testing::ElementsAre(folder_ / "records.db.schema-1-17",
                                                 folder_ / "archives/records-cut.db.zst"));
  ASSERT_OK(store::Erase(database_, {.book_id = kBook}, elsewhere, &erased));
  EXPECT_EQ(erased.records, 80);
  EXPECT_THAT(erased.files, testing::ElementsAre(folder_ / "archives/records-copy.db.zst",
                                                 elsewhere + "/records-other.db.zst"));
  EXPECT_EQ(Everything().find("secret-of-the-one"), std::string::npos);
  EXPECT_NE(Everything().find("kept-of-the-other"), std::string::npos);
  ExpectNumbersAddUp(80);
}

#ifdef INSPECTOR_COMMAND
TEST_F(EraseTest, WhereverItIsKilledTheSecondTimeEndsIt) {
  const std::string whole = folder_ / "whole";
  const std::string live = folder_ / "live";
  const std::string temporary = folder_ / "tmp";
  std::filesystem::create_directory(live);
  std::filesystem::create_directory(temporary);
  const std::string database = live + "/records.db";
  {
    std::unique_ptr<store::Writer> writer;
    std::vector<store::Archive> archives;
    ASSERT_OK(store::Writer::Open(database, "test", &writer));
    Write(writer.get(), 3, kStart);
    ASSERT_OK(store::ArchiveRecords(database, live + "/archives", &archives));
    Write(writer.get(), 3, kStart + kDay);
    ASSERT_OK(writer->Finish());
  }
  WriteFile(database + ".damaged-1", "secret-of-the-one");
  WriteFile(live + "/archives/records-cut.db.zst", "secret-of-the-one");
  std::filesystem::rename(live, whole);
  setenv("TMPDIR", temporary.c_str(), 1);
  const auto run = [&](const std::vector<std::string>& choice, long kill_at) {
    std::vector<std::string> words = {INSPECTOR_COMMAND, "erase", "--yes", "--database",
                                      live + "/records.db"};
    words.insert(words.end(), choice.begin(), choice.end());
    usage_stat_test::KilledAtWrite program(words, kill_at);
    while (program.is_alive()) usleep(1000);
    return program.End();
  };
  // With this variable set the suite is as thorough as before a release.
  const int step = std::getenv("USAGE_STAT_THOROUGH_TESTS") ? 1 : 19;
  for (const bool is_all : {false, true}) {
    const std::vector<std::string> choice =
        is_all ? std::vector<std::string>{"--all"}
               : std::vector<std::string>{"--book", std::to_string(kBook)};
    int deaths = 0;
    for (long kill_at = 1; !HasFailure(); kill_at += step) {
      SCOPED_TRACE(choice[0] + ", killed at write " + std::to_string(kill_at));
      std::filesystem::remove_all(live);
      std::filesystem::copy(whole, live, std::filesystem::copy_options::recursive);
      const int end = run(choice, kill_at);
      ASSERT_TRUE(end == 0 || end == -SIGKILL) << end;
      // Nothing else is lost meanwhile.
      if (!is_all) {
        EXPECT_NE(Everything(live).find("kept-of-the-other"), std::string::npos);
      }
      ASSERT_EQ(run(choice, 0), 0);
      const std::string bytes = Everything(live) + Everything(temporary);
      EXPECT_EQ(bytes.find("secret-of-the-one"), std::string::npos);
      EXPECT_EQ(bytes.find("kept-of-the-other") == std::string::npos, is_all);
      EXPECT_EQ(NumbersMissing(live + "/records.db"), is_all ? 50U : 24U);
      if (end == 0) break;
      ++deaths;
    }
    EXPECT_GE(deaths, 4);
  }
  unsetenv("TMPDIR");
  // A name that is mistyped takes nothing, whatever can't be read.
  std::filesystem::remove_all(live);
  std::filesystem::copy(whole, live, std::filesystem::copy_options::recursive);
  EXPECT_NE(run({"--book", "no such book.epub"}, 0), 0);
  EXPECT_TRUE(std::filesystem::exists(live + "/records.db.damaged-1"));
}
#endif

TEST_F(EraseTest, WhatARetentionTookLaterIsNotedOnce) {
  auto writer = OpenWriter();
  Write(writer.get(), 10, kStart);
  Archive();
  store::Erased erased;
  ASSERT_OK(store::Erase(database_, {.book_id = kBook}, "", &erased));
  store::Maintenance maintenance;
  ASSERT_OK(store::Maintenance::Open(database_, &maintenance));
  ASSERT_OK(store::NoteMissing(&maintenance.connection, 1, 90, store::Absence::kRetention));
  std::unique_ptr<store::Reader> reader;
  ASSERT_OK(store::Reader::Open(database_, &reader));
  std::vector<store::Missing> missing;
  ASSERT_OK(reader->ReadMissing(&missing));
  std::int64_t next = 1;
  std::int64_t noted_erased = 0;
  for (const store::Missing& run : missing) {
    EXPECT_EQ(run.first_record, next);
    if (run.reason == store::Absence::kErased)
      noted_erased += run.last_record - run.first_record + 1;
    next = run.last_record + 1;
  }
  EXPECT_EQ(next, 91);
  EXPECT_EQ(noted_erased, 40);
}

TEST_F(EraseTest, ARangeThatADamagedRowClaimsTakesNoOthersNumbers) {
  constexpr std::int64_t kClaimed = 1 << 22;
  constexpr long kMostKib = 65'536;
  const auto peak_kib = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  };
  const std::function<void()> cases[] = {
      [this] {
        store::Erased erased;
        ASSERT_OK(store::Erase(database_, {.book_id = kBook}, "", &erased));
        EXPECT_EQ(erased.records, 36);
      },
      // The first archive is too large.
      [this] {
        ASSERT_OK(store::ApplyRetention(database_, {.keep_days = 0, .max_bytes = 1 << 24}));
      },
  };
  for (const std::function<void()>& act : cases) {
    SCOPED_TRACE(&act - cases);
    for (const auto& file : std::filesystem::directory_iterator(folder_.path())) {
      std::filesystem::remove_all(file);
    }
    auto writer = OpenWriter();
    Write(writer.get(), 3, kStart);
    Archive();
    Write(writer.get(), 3, kStart + kDay);
    Archive();
    Write(writer.get(), 3, kStart + 2 * kDay);
    ASSERT_OK(writer->Finish());
    // Fewer records than noted: as if an erasing had been killed.
    Answer(database_, "UPDATE archives SET records = records + 1, bytes = 1 << 30, last_record = " +
                          std::to_string(kClaimed) + " WHERE first_record = 1");
    const long before_kib = peak_kib();
    act();
    EXPECT_LT(peak_kib() - before_kib, kMostKib);
    std::unique_ptr<store::History> history;
    std::vector<store::Missing> missing;
    std::int64_t left = 0;
    std::int64_t noted = 0;
    ASSERT_OK(store::History::Open(database_, &history));
    ASSERT_OK(history->live().ReadMissing(&missing));
    for (const store::Missing& run : missing) noted += run.last_record - run.first_record + 1;
    ASSERT_OK(history->ForEach({}, [&](const store::RecordRow& row) {
      left += row.id <= kClaimed ? 1 : 0;
      EXPECT_TRUE(std::ranges::none_of(missing, [&row](const store::Missing& run) {
        return run.first_record <= row.id && row.id <= run.last_record;
      })) << row.id;
      return true;
    }));
    EXPECT_EQ(left + noted, kClaimed);
  }
}

}  // namespace
}  // namespace velmora::usage_stat
