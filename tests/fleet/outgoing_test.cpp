// What leaves: batches as they are made from a real database, under a consent that changes.

#include "fleet/uplink/outgoing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zstd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "fleet/batch/shapes.h"
#include "fleet/consent/device.h"
#include "fleet/uplink/outbox.h"
#include "tests/fleet/canaries.h"
#include "tests/support/device_root.h"
#include "tests/support/run_program.h"
#include "tests/tools/store_fixture.h"
#include "tools/store/archive.h"
#include "tools/store/retention.h"

namespace velmora::usage_stat::uplink {
namespace {

using consent::Level;
using testing::ElementsAre;
using usage_stat_test::Examples;
using usage_stat_test::kCanary;
using usage_stat_test::kCanaryNumber;
using usage_stat_test::Planted;

constexpr const char* kPolicy = SOURCE_DIR "/fleet/consent/policy.json";
constexpr std::int64_t kHour = std::int64_t{60} * 60 * 1000;
constexpr std::int64_t kStart = 1'790'000'000'123;

class OutgoingTest : public usage_stat_test::StoreTest {
 protected:
  OutgoingTest() { EXPECT_OK(consent::Policy::Load(kPolicy, &policy_)); }

  void Receive(const std::vector<std::string>& datagrams) {
    if (!writer_) writer_ = OpenWriter();
    store::Batch batch;
    for (const std::string& datagram : datagrams) {
      const auto decoded = records::Decode(datagram);
      const auto& record = std::get<records::Record>(decoded);
      store::RecordRow row = Row(std::string(record.event), record.timestamp);
      row.fields = records::Dump(record.values);
      row.type = record.type;
      row.raw = datagram;
      batch.records.push_back(std::move(row));
    }
    ASSERT_OK(writer_->Commit(batch));
  }

  std::unique_ptr<consent::State> OpenState() {
    std::unique_ptr<consent::State> state;
    EXPECT_OK(consent::State::Open(consent::StatePath(folder_.path()), consent::State::Mode::kWrite,
                                   &state));
    return state;
  }

  void Agree(Level level) {
    consent::Numbers numbers;
    ASSERT_OK(consent::ReadNumbers(database_, &numbers));
    ASSERT_OK(OpenState()->Agree(level, policy_, numbers, consent::ReceivedSinceIn(database_), 1));
  }

  // The next batch after `after`; all of the interval up to `through` again when that is given.
  fleet::Batch Next(std::uint64_t after, const Outgoing::Limits& limits = {},
                    std::uint64_t through = 0) {
    const auto state = OpenState();
    std::unique_ptr<Outgoing> outgoing;
    fleet::Batch batch;
    EXPECT_OK(consent::LookAt(database_, state.get()));
    EXPECT_OK(Outgoing::Open(database_, state.get(), policy_, &outgoing));
    const StoreRange& store = outgoing->stores().at(0);
    EXPECT_OK(through == 0 ? outgoing->Fill(store, after, limits, kStart, &batch)
                           : outgoing->FillAgain(store, after, through, kStart, &batch));
    EXPECT_EQ(fleet::Encode(batch, &message_), "");
    name_bytes_ = std::string(state->name()->begin(), state->name()->end());
    return batch;
  }

  // The batch in short: "basic 1-4: withheld 1-2, 2 records".
  static std::string Short(const fleet::Batch& batch) {
    std::string text = std::string(consent::NameOf(batch.level)) + " " +
                       std::to_string(batch.after + 1) + "-" + std::to_string(batch.through) + ":";
    for (const fleet::Run& run : batch.runs) {
      text += " " + std::to_string(static_cast<int>(run.reason)) + "x" + std::to_string(run.first) +
              "-" + std::to_string(run.last);
    }
    return text + " " + std::to_string(batch.records.size());
  }

  // What the message says before it is compressed.
  std::string Content() const {
    constexpr std::size_t kHead = 4;
    std::string content(fleet::kLargestContent, '\0');
    const std::size_t size = ZSTD_decompress(content.data(), content.size(),
                                             message_.data() + kHead, message_.size() - kHead);
    EXPECT_FALSE(ZSTD_isError(size));
    content.resize(size);
    return content;
  }

  consent::Policy policy_;
  std::unique_ptr<store::Writer> writer_;
  std::string message_;
  std::string name_bytes_;
};

TEST_F(OutgoingTest, NoCanaryAndAtBasicNoTimeIsInABatchOfAllTypes) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Receive({});
  for (const Level level : {Level::kBasic, Level::kFull}) {
    Agree(level);
    consent::Numbers numbers;
    ASSERT_OK(consent::ReadNumbers(database_, &numbers));
    std::vector<std::string> datagrams;
    for (int round = 0; round < 10; ++round) {
      for (const auto& [event, example] : Examples()) {
        datagrams.push_back(
            Planted(example, kStart + static_cast<std::int64_t>(random()), &random));
      }
    }
    Receive(datagrams);
    usage_stat_test::Answer(database_, "INSERT INTO clock_steps(record, wall_ms, step_ms) VALUES(" +
                                           std::to_string(numbers.next + 3) +
                                           ", 1790000000123, 5000123)");
    const fleet::Batch batch = Next(static_cast<std::uint64_t>(numbers.next) - 1);
    ASSERT_EQ(batch.level, level);
    ASSERT_EQ(batch.records.size(), datagrams.size());
    EXPECT_EQ(Content().find(kCanary), std::string::npos);
    const fleet::Decoded decoded = fleet::Decode(message_);
    ASSERT_EQ(decoded.verdict, fleet::Verdict::kGood) << decoded.problem;
    const std::string number(reinterpret_cast<const char*>(&kCanaryNumber), sizeof(kCanaryNumber));
    for (const fleet::BatchRecord& record : decoded.batch.records) {
      const std::string datagram = fleet::DatagramOf(decoded.batch, record);
      EXPECT_TRUE(records::Read(datagram));
      EXPECT_EQ(datagram.find(kCanary), std::string::npos);
      EXPECT_EQ(datagram.find(number), std::string::npos);
      if (level == Level::kBasic) {
        EXPECT_EQ(record.timestamp_ms % kHour, 0);
      }
    }
    EXPECT_EQ(decoded.batch.sent_ms, level == Level::kBasic ? kStart / kHour * kHour : kStart);
    ASSERT_EQ(decoded.batch.clock_steps.size(), 1U);
    EXPECT_EQ(decoded.batch.clock_steps[0].step_ms, level == Level::kBasic ? kHour : 5000123);
  }
}

TEST_F(OutgoingTest, EachBatchHasOneLevelAndEveryNumberIsAccountedFor) {
  const std::string turn = Examples().at("ChangePageEvent");
  const auto turns = [&](std::size_t count) { Receive(std::vector<std::string>(count, turn)); };
  turns(9);  // 2-10, after the record of the opening
  Agree(Level::kBasic);
  turns(10);
  Agree(Level::kFull);
  turns(10);
  EXPECT_EQ(Short(Next(0)), "basic 1-20: 4x1-10 10");
  EXPECT_EQ(Short(Next(20)), "full 21-30: 10");
  EXPECT_EQ(Short(Next(22, {.records = 3})), "full 23-25: 3");
  EXPECT_EQ(Short(Next(30)), "none 31-30: 0");
  EXPECT_TRUE(Next(30).is_question());
  // An interval that was sent and not answered goes again as it may leave now.
  Agree(Level::kBasic);
  EXPECT_EQ(Short(Next(20, {}, 25)), "basic 21-25: 5");
  EXPECT_EQ(Short(Next(10, {}, 25)), "basic 11-25: 15");
  Agree(Level::kNone);
  EXPECT_EQ(Short(Next(20, {}, 25)), "none 21-25: 4x21-25 0");
  Agree(Level::kFull);
  EXPECT_EQ(Short(Next(10, {}, 25)), "basic 11-25: 15");  // it had one level, and has one now
  EXPECT_EQ(Short(Next(10)), "basic 11-20: 10");
}

TEST_F(OutgoingTest, ConsentThatIsTakenBackEndsAVisitThatIsUnderWay) {
  Receive({});
  Agree(Level::kFull);
  Receive(std::vector<std::string>(10, Examples().at("ChangePageEvent")));
  const auto state = OpenState();  // of the process that sends
  ASSERT_OK(consent::LookAt(database_, state.get()));
  std::unique_ptr<Outgoing> outgoing;
  std::unique_ptr<Outbox> outbox;
  Prepared prepared;
  ASSERT_OK(Outgoing::Open(database_, state.get(), policy_, &outgoing));
  ASSERT_OK(Outbox::Open(state.get(), outgoing.get(), true, &outbox));
  ASSERT_OK(outbox->Prepare({}, kStart, &prepared));
  EXPECT_EQ(prepared.batch.records.size(), 10U);
  Agree(Level::kBasic);  // by another one
  ASSERT_OK(outbox->Prepare({}, kStart, &prepared));
  EXPECT_EQ(prepared.batch.level, Level::kBasic);
  Agree(Level::kNone);
  ASSERT_OK(outbox->Prepare({}, kStart, &prepared));
  EXPECT_EQ(prepared.message, "");
}

TEST_F(OutgoingTest, WhileStatisticsAreOffNobodyIsCalled) {
  if (std::string(STRACE).empty()) GTEST_SKIP() << "needs strace, on the machine itself";
  usage_stat_test::DeviceRoot root;
  Receive({});
  Agree(Level::kFull);
  Receive({Examples().at("ChangePageEvent")});
  usage_stat_test::WriteFile(folder_ / "uplink.conf", "host=127.0.0.1\nport=1\n");
  for (const bool is_on : {true, false}) {
    root.Write(usage_stat_test::kGlobalConfig,
               is_on ? "statistics_enabled=1\n" : "statistics_enabled=0\n");
    // A sanitizer can't look for leaks in a program that is traced.
    usage_stat_test::RunProgram({STRACE, "-E", "ASAN_OPTIONS=detect_leaks=0", "-f", "-o",
                                 folder_ / "calls", "-e", "trace=%network,execve", UPLINK_COMMAND,
                                 "send", "--now", "--config", folder_ / "uplink.conf", "--state",
                                 folder_.path(), "--database", database_, "--policy", kPolicy});
    const std::string calls = usage_stat_test::ReadFile(folder_ / "calls");
    ASSERT_THAT(calls, testing::HasSubstr("execve"));
    EXPECT_EQ(calls.find("socket(AF_INET") != std::string::npos, is_on) << calls;
  }
}

TEST_F(OutgoingTest, StepsOfTheClockOfATimeWithoutConsentStay) {
  const std::string turn = Examples().at("ChangePageEvent");
  Receive(std::vector<std::string>(9, turn));  // 2-10
  Agree(Level::kFull);
  Receive(std::vector<std::string>(9, turn));  // 11-19
  usage_stat_test::Answer(database_,
                          "INSERT INTO clock_steps(record, wall_ms, step_ms) "
                          "VALUES(5, 1790000000123, 123457), (15, 1790000000123, 60123)");
  const fleet::Batch batch = Next(0);
  ASSERT_EQ(Short(batch), "full 1-19: 4x1-10 9");
  ASSERT_EQ(batch.clock_steps.size(), 1U);
  EXPECT_EQ(batch.clock_steps[0].step_ms, 60123);
}

TEST_F(OutgoingTest, RecordsInArchivesLeaveToo) {
  const std::string turn = Examples().at("ChangePageEvent");
  Receive({});
  Agree(Level::kFull);
  Receive(std::vector<std::string>(10, turn));
  std::vector<store::Archive> archives;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &archives));
  Receive(std::vector<std::string>(5, turn));
  const fleet::Batch batch = Next(1);
  EXPECT_EQ(batch.records.size(), 16U);  // and the record of the archive
  EXPECT_TRUE(batch.runs.empty());
}

TEST_F(OutgoingTest, WhatGoesWhileItIsReadIsDeclaredWithItsReason) {
  const std::string turn = Examples().at("ChangePageEvent");
  Receive({});
  Agree(Level::kFull);
  Receive(std::vector<std::string>(1009, turn));
  std::vector<store::Archive> first;
  std::vector<store::Archive> second;
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &first));
  Receive(std::vector<std::string>(5, turn));
  ASSERT_OK(store::ArchiveRecords(database_, folder_ / "archives", &second));
  Receive(std::vector<std::string>(5, turn));
  const auto state = OpenState();
  std::unique_ptr<Outgoing> outgoing;
  ASSERT_OK(consent::LookAt(database_, state.get()));
  ASSERT_OK(Outgoing::Open(database_, state.get(), policy_, &outgoing));
  // Behind its back retention takes the first archive, and a broken disk the second.
  const auto place = [&](const store::Archive& each) {
    return store::LocateArchive(database_, each);
  };
  std::filesystem::resize_file(place(second.at(0)), 100);
  const auto size = static_cast<std::int64_t>(std::filesystem::file_size(database_));
  ASSERT_OK(store::ApplyRetention(database_, {.keep_days = 0, .max_bytes = size + 4000}));
  EXPECT_FALSE(std::filesystem::exists(place(first.at(0))));
  fleet::Batch batch;
  ASSERT_OK(outgoing->Fill(outgoing->stores().at(0), 10, {}, kStart, &batch));
  EXPECT_EQ(Short(batch), "full 11-1022: 1x11-1010 3x1011-1016 6");
}

TEST_F(OutgoingTest, PreviewShowsTheBytesAndWhatTheyWereMadeFrom) {
  const auto run = [this](const std::string& format) {
    const auto result =
        usage_stat_test::RunProgram({UPLINK_COMMAND, "preview", "--state", folder_.path(),
                                     "--database", database_, "--policy", kPolicy, "-o", format});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return result.out;
  };
  Receive({});
  EXPECT_EQ(run("text"), "");
  Agree(Level::kBasic);
  Receive({Examples().at("ChangePageEvent")});
  const std::string raw = run("raw");
  const fleet::Decoded decoded = fleet::Decode(raw);
  ASSERT_EQ(decoded.verdict, fleet::Verdict::kGood) << decoded.problem;
  EXPECT_EQ(decoded.batch.records.size(), 1U);
  const records::Json json = records::Json::parse(run("json"));
  EXPECT_EQ(json["bytes"], base::ToHex(raw));
  const records::Json& book = json["records"][0]["fields"][0];
  EXPECT_EQ(book["field"], "book_id");
  EXPECT_TRUE(book["leaves"].is_null());
  EXPECT_EQ(book["was"], 70000);
  EXPECT_EQ(book["why"], "dropped: identifying, book_id");
  EXPECT_THAT(run("text"), testing::HasSubstr("book_id=null  was 70000  dropped: identifying"));
}

}  // namespace
}  // namespace velmora::usage_stat::uplink
