// What may leave a device: policies, rewritten records, pseudonyms, and consent by record number.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <usage_stat.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "fleet/consent/policy.h"
#include "fleet/consent/rewrite.h"
#include "fleet/consent/state.h"
#include "src/stat_event/event.h"
#include "tests/fleet/canaries.h"
#include "tests/support/files.h"
#include "tools/base/text.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::consent {
namespace {

using records::Catalogue;
using records::FieldType;
using records::Json;
using records::RecordType;
using testing::ElementsAre;
using testing::HasSubstr;
using usage_stat_test::Examples;
using usage_stat_test::kCanary;
using usage_stat_test::kCanaryNumber;
using usage_stat_test::Planted;
using usage_stat_test::ReadFile;
using usage_stat_test::TempFolder;

constexpr std::int64_t kHour = std::int64_t{60} * 60 * 1000;

Policy Shipped() {
  Policy policy;
  const base::Status status = Policy::Load(SOURCE_DIR "/fleet/consent/policy.json", &policy);
  EXPECT_TRUE(status.ok()) << status.message;
  return policy;
}

// ---- Policy files ----

// The shipped policy with one change: `value` at the JSON pointer `place`; removed for null.
std::string Changed(const std::string& place, const Json& value) {
  Json json = Json::parse(ReadFile(SOURCE_DIR "/fleet/consent/policy.json"));
  const Json::json_pointer pointer(place);
  if (value.is_null()) {
    json[pointer.parent_pointer()].erase(pointer.back());
  } else {
    json[pointer] = value;
  }
  return json.dump();
}

TEST(PolicyFileTest, MistakesAreToldWithTheirPlace) {
  struct Case {
    std::string text;
    std::string error;  // empty: none
  };
  std::vector<Case> cases = {
      {"", "the file is no JSON object"},
      {R"({"version":1,"version":1,"levels":{}})", "the key version stands twice"},
  };
  for (const Json& change : Json::parse(ReadFile(SOURCE_DIR "/tests/fleet/policies.json"))) {
    cases.push_back({Changed(change["place"], change["value"]), change["error"]});
  }
  for (const auto& c : cases) {
    std::vector<std::string> errors;
    const bool is_good = Policy::Parse(c.text, &errors).has_value();
    EXPECT_EQ(is_good, errors.empty());
    if (c.error.empty()) {
      EXPECT_THAT(errors, ElementsAre()) << c.text;
    } else {
      EXPECT_THAT(errors, testing::Contains(HasSubstr(c.error))) << c.text;
    }
  }
  Json loud = Json::parse(Changed("/levels/full/fields", {{"UseDictionaryEvent.word", "keep"}}));
  loud["levels"]["full"]["lets_through"] = {"UseDictionaryEvent.word"};
  std::vector<std::string> errors;
  EXPECT_TRUE(Policy::Parse(loud.dump(), &errors)) << testing::PrintToString(errors);
}

TEST(PolicyFileTest, RulesKeepWhatWasAgreedToAndDropWhatTheyDontName) {
  const Policy shipped = Shipped();
  const std::string rules = shipped.Rules();
  EXPECT_EQ(Policy::FromRules(rules).Rules(), rules);
  const std::string name = "LibrarySettingsEvent.library_mode ";
  std::string cut = rules;
  cut.erase(cut.find(name), cut.find('\n', cut.find(name)) - cut.find(name) + 1);
  EXPECT_THAT(Widened(shipped.At(Level::kFull), Policy::FromRules(cut).At(Level::kFull)),
              ElementsAre("LibrarySettingsEvent.library_mode"));
  EXPECT_EQ(Policy::FromRules("").At(Level::kFull).id(), Table().id());
}

// ---- Records ----

// All values of a record: a number as its digits, several texts one after another.
class Lister : public records::FieldEditor {
 public:
  std::int64_t Number(std::size_t field, std::int64_t value) override {
    values.emplace_back(field, std::to_string(value));
    return value;
  }
  void Text(std::size_t field, std::string* value) override { values.emplace_back(field, *value); }
  void Texts(std::size_t field, std::vector<std::string>* value) override {
    std::string& all = values.emplace_back(field, "").second;
    for (const std::string& text : *value) all += text;
  }

  std::vector<std::pair<std::size_t, std::string>> values;
};

TEST(RewriteTest, NoCanaryOfAnyRecordLeavesAtAnyLevelOfTheShippedPolicy) {
  const std::map<std::string, std::string> examples = Examples();
  ASSERT_EQ(examples.size(), Catalogue().size());
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const Policy policy = Shipped();
  std::string number_bytes;
  for (int shift = 0; shift < 32; shift += 8) {
    number_bytes += static_cast<char>(kCanaryNumber >> shift & 0xFF);
  }
  for (const Level level : {Level::kBasic, Level::kFull}) {
    const Rewriter rewriter(std::make_shared<const Table>(policy.At(level)), {1, 2, 3});
    for (int round = 0; round < 20; ++round) {
      for (const auto& [event, example] : examples) {
        SCOPED_TRACE(event);
        const std::int64_t timestamp = static_cast<std::int64_t>(random()) * 1000 + 7;
        const std::string datagram = Planted(example, timestamp, &random);
        const RecordType* type = nullptr;
        const std::optional<std::string> bytes = rewriter.Rewrite(datagram, &type);
        ASSERT_TRUE(bytes);
        EXPECT_EQ(type->event, event);
        EXPECT_EQ(bytes->find(kCanary), std::string::npos);
        EXPECT_EQ(bytes->find(number_bytes), std::string::npos);
        const auto read = records::Read(*bytes);
        ASSERT_TRUE(read);
        ASSERT_EQ(read->type, type);
        EXPECT_EQ(read->event->timestamp_,
                  level == Level::kBasic ? CoarsenTime(timestamp) : timestamp);
        Lister lister;
        type->edit(read->event.get(), &lister);
        for (const auto& [place, value] : lister.values) {
          const FieldType& field = type->fields[place];
          if (field.sensitivity < Sensitivity::kContent) continue;
          const bool is_nothing =
              value == "0" || value.find_first_not_of('\0') == std::string::npos;
          const bool is_pseudonym = level == Level::kFull && field.kind == Kind::kBookId;
          EXPECT_NE(is_nothing, is_pseudonym) << field.name << "=" << value;
        }
      }
    }
  }
}

TEST(RewriteTest, EachActionDoesWhatItSaysAndNothingElse) {
  // ChangePageEvent: book 0x01020304, b 7, from page 346 to page 347 of 1234.
  const std::string turn =
      *base::FromHex("f007 8877665544010000 04030201 0700 5a010000 5b010000 d2040000");
  const RecordType* type = nullptr;
  const Policy policy = Shipped();
  const Rewriter basic(std::make_shared<const Table>(policy.At(Level::kBasic)), {});
  const Rewriter full(std::make_shared<const Table>(policy.At(Level::kFull)), {});
  const auto values_by = [&](const Rewriter& rewriter) {
    const auto read = records::Read(rewriter.Rewrite(turn, &type).value_or(""));
    Lister lister;
    if (read) read->type->edit(read->event.get(), &lister);
    std::vector<std::string> values;
    for (const auto& [place, value] : lister.values) values.push_back(value);
    return values;
  };
  EXPECT_THAT(values_by(basic), ElementsAre("0", "0", "200", "200", "1000"));
  const std::string pseudonym = std::to_string(Pseudonyms({}).Of("book_id", 0x01020304));
  EXPECT_THAT(values_by(full), ElementsAre(pseudonym, "0", "346", "347", "1234"));
  // What can't be read stays.
  EXPECT_FALSE(full.Rewrite(turn.substr(1), &type));
  EXPECT_FALSE(full.Rewrite(turn + "x", &type));
}

TEST(RewriteTest, QuantitiesAndTimesBecomeCoarser) {
  const struct {
    std::int64_t number, coarse;
  } kNumbers[] = {{0, 0},
                  {-1, -1},
                  {1, 1},
                  {4, 2},
                  {5, 5},
                  {9, 5},
                  {10, 10},
                  {347, 200},
                  {-347, -200},
                  {999, 500},
                  {1000, 1000},
                  {INT64_MAX, 5'000'000'000'000'000'000},
                  {INT64_MIN, -5'000'000'000'000'000'000}};
  for (const auto& c : kNumbers) EXPECT_EQ(Coarsen(c.number), c.coarse) << c.number;
  const struct {
    std::int64_t ms, hour;
  } kTimes[] = {{0, 0}, {kHour - 1, 0}, {kHour, kHour}, {-1, -kHour}, {-kHour, -kHour}};
  for (const auto& c : kTimes) EXPECT_EQ(CoarsenTime(c.ms), c.hour) << c.ms;
  for (const std::int64_t edge : {INT64_MAX, INT64_MIN}) {
    EXPECT_EQ(CoarsenTime(edge) % kHour, 0);
    EXPECT_LT(CoarsenTime(edge) / 2 - edge / 2, kHour);
  }
}

// ---- Pseudonyms ----

TEST(PseudonymTest, AreEqualOnOneDeviceDifferBetweenTwoAndLeaveNothingsAlone) {
  const Pseudonyms mine({1});
  const Pseudonyms also_mine({1});
  const Pseudonyms yours({2});
  for (const std::int32_t id : {1, -2, 943781977, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(mine.Of("book_id", id), also_mine.Of("book_id", id));
    EXPECT_NE(mine.Of("book_id", id), yours.Of("book_id", id));
    EXPECT_NE(mine.Of("book_id", id), mine.Of("other", id));
  }
  EXPECT_EQ(mine.Of("book_id", 0), 0);
  EXPECT_EQ(mine.Of("book_id", -1), -1);
  EXPECT_EQ(mine.Of("text", ""), "");
  EXPECT_THAT(mine.Of("text", "Anna"), testing::MatchesRegex("[0-9a-f]{32}"));
  EXPECT_EQ(mine.Of("text", "Anna"), also_mine.Of("text", "Anna"));
  EXPECT_NE(mine.Of("text", "Anna"), yours.Of("text", "Anna"));
}

TEST(PseudonymTest, AListOfAMillionPathsDoesNotFindThem) {
  // What somebody tries who has the list and not the key: the ids themselves, and pseudonyms by an
  // empty key and by another device's.
  const Pseudonyms device({0x5f, 0x11, 0x9a, 0xc3});
  std::unordered_set<std::int32_t> seen;
  constexpr int kPaths = 1'000'000;
  const auto path = [](int i) {
    return "/mnt/ext1/Books/author " + std::to_string(i % 1000) + "/book " + std::to_string(i) +
           ".epub";
  };
  for (int i = 0; i < kPaths; i += 1000) {
    seen.insert(device.Of("book_id", Stat_GetBookId(path(i).c_str())));
  }
  const Pseudonyms without_key({});
  const Pseudonyms other({0x5f, 0x11, 0x9a, 0xc4});
  int found = 0;
  for (int i = 0; i < kPaths; ++i) {
    const std::int32_t id = Stat_GetBookId(path(i).c_str());
    const Pseudonyms& tried = i % 2 == 0 ? without_key : other;
    for (const std::int32_t guess : {id, tried.Of("book_id", id)}) found += seen.contains(guess);
  }
  // 2 million guesses at a thousand of 2^32 numbers hit half a one by chance.
  EXPECT_LE(found, 8);
}

// ---- Consent ----

fleet::Id StoreId(std::uint8_t number) { return {number}; }

// A device whose records go on while its person changes their mind.
class ConsentTest : public testing::Test {
 protected:
  ConsentTest() { Begin(1, 1); }

  // A new store in the same database file.
  void Begin(std::uint8_t store, std::int64_t first) {
    numbers_.live.push_back({StoreId(store), first});
    numbers_.next = first;
  }
  void NewFile(std::uint8_t store) {
    numbers_ = {};
    Begin(store, 1);
  }
  void Receive(std::int64_t count) { numbers_.next += count; }

  std::unique_ptr<State> Open(State::Mode mode = State::Mode::kWrite) {
    std::unique_ptr<State> state;
    const base::Status status = State::Open(path_, mode, &state);
    EXPECT_TRUE(status.ok()) << status.message;
    return state;
  }
  void Agree(Level level, const Policy& policy) {
    const base::Status status = Open()->Agree(level, policy, numbers_, received_since_, 1000);
    EXPECT_TRUE(status.ok()) << status.message;
  }
  void Agree(Level level) { Agree(level, policy_); }
  void Look() { EXPECT_TRUE(Open()->Look(numbers_, received_since_).ok()); }

  // How the numbers from 1 on leave: "none 1-4, basic 5-9".
  std::string Leaving(std::uint8_t store, std::int64_t last) {
    std::vector<Span> spans;
    if (std::filesystem::exists(path_)) Look();
    EXPECT_TRUE(Open(State::Mode::kRead)->SpansOf(StoreId(store), 1, last, policy_, &spans).ok());
    std::string text;
    for (const Span& span : spans) {
      EXPECT_EQ(!span.table, span.level == Level::kNone);
      text += (text.empty() ? "" : ", ") + std::string(NameOf(span.level)) + " " +
              std::to_string(span.first) + "-" + std::to_string(span.last);
    }
    return text;
  }

  TempFolder folder_;
  const std::string path_ = folder_ / "uplink.db";
  const Policy policy_ = Shipped();
  Numbers numbers_;
  std::int64_t received_late_ = 0;  // the first number received since the last change
  State::ReceivedSince received_since_ = [this](std::int64_t first, std::int64_t last, std::int64_t,
                                                std::int64_t* number) {
    *number = std::clamp(received_late_, first, last + 1);
    return base::Status();
  };
};

TEST_F(ConsentTest, WithoutConsentThereIsNoFile) {
  EXPECT_EQ(Open(State::Mode::kRead)->level(), Level::kNone);
  EXPECT_EQ(Leaving(1, 9), "none 1-9");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ConsentTest, AStoreThatBeganSinceTheLastLookWaits) {
  Agree(Level::kFull);
  Begin(2, 10);
  std::vector<Span> spans;
  ASSERT_TRUE(Open(State::Mode::kRead)->SpansOf(StoreId(2), 10, 20, policy_, &spans).ok());
  EXPECT_TRUE(spans.empty());
  Receive(11);
  EXPECT_EQ(Leaving(2, 20), "none 1-9, full 10-20");
}

TEST_F(ConsentTest, TheFileIsItsOwnersAloneAndOfOneName) {
  Agree(Level::kBasic);
  struct stat file {};
  ASSERT_EQ(stat(path_.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0600U);
  const auto name = Open()->name();
  const auto key = Open()->key();
  Agree(Level::kNone);
  Agree(Level::kFull);
  EXPECT_TRUE(name);
  EXPECT_EQ(Open()->name(), name);
  EXPECT_EQ(Open()->key(), key);
  EXPECT_NE(key, Pseudonyms::Key{});
  EXPECT_THAT(ReadFile(path_), testing::StartsWith("SQLite format 3"));
}

TEST_F(ConsentTest, TheLowerLevelOfThenAndNowHoldsAndNothingReachesBack) {
  Receive(10);  // 1-10 before anything was agreed to
  Agree(Level::kBasic);
  Receive(10);
  EXPECT_EQ(Leaving(1, 20), "none 1-10, basic 11-20");
  Agree(Level::kFull);
  Receive(10);
  EXPECT_EQ(Leaving(1, 30), "none 1-10, basic 11-20, full 21-30");
  Agree(Level::kBasic);
  Receive(10);
  EXPECT_EQ(Leaving(1, 40), "none 1-10, basic 11-40");
  Agree(Level::kNone);
  Receive(10);
  EXPECT_EQ(Leaving(1, 50), "none 1-50");
  Agree(Level::kFull);
  Receive(10);
  EXPECT_EQ(Leaving(1, 60),
            "none 1-10, basic 11-20, full 21-30, basic 31-40, none 41-50, full 51-60");
  // Twice in a row, without a record between.
  Agree(Level::kNone);
  Agree(Level::kBasic);
  Receive(5);
  EXPECT_EQ(Leaving(1, 65), "none 1-10, basic 11-40, none 41-50, basic 51-65");
}

TEST_F(ConsentTest, StoresTakeTheLevelOfTheTimeTheyBeganIn) {
  Receive(10);
  Begin(2, 11);
  Receive(10);
  Agree(Level::kBasic);  // at 21
  Receive(5);
  Begin(3, 26);
  Receive(5);
  Look();
  EXPECT_EQ(Leaving(1, 10), "none 1-10");
  EXPECT_EQ(Leaving(2, 25), "none 1-20, basic 21-25");
  EXPECT_EQ(Leaving(3, 30), "none 1-25, basic 26-30");
  Begin(4, 31);
  Receive(5);
  Agree(Level::kNone);  // finds 4 before it changes anything
  Begin(5, 36);
  Receive(5);
  Agree(Level::kFull);
  EXPECT_EQ(Leaving(4, 35), "none 1-30, basic 31-35");
  Receive(1);
  EXPECT_EQ(Leaving(5, 41), "none 1-40, full 41-41");
}

TEST_F(ConsentTest, ADatabaseThatNothingIsKnownOfLeavesAsFarAsItWasReceivedSince) {
  Agree(Level::kBasic);
  const Numbers first_file = numbers_;
  NewFile(2);
  Receive(10);
  received_late_ = 4;  // an old file that was put back
  Look();
  EXPECT_EQ(Leaving(2, 10), "none 1-3, basic 4-10");
  // The first file comes back after a time without consent, in which it may have been in use.
  Agree(Level::kNone);
  numbers_ = first_file;
  Receive(10);
  Agree(Level::kBasic);
  Receive(10);
  EXPECT_EQ(Leaving(1, 20), "none 1-10, basic 11-20");
}

TEST_F(ConsentTest, WhatWasReceivedBeforeAndStoredAfterIsOfTheLevelBefore) {
  Receive(10);
  Agree(Level::kFull);  // the last ones received under none are still to be stored
  received_late_ = 14;
  Receive(3);
  EXPECT_EQ(Leaving(1, 13), "none 1-10");  // nothing is known of the rest
  Receive(3);
  EXPECT_EQ(Leaving(1, 16), "none 1-13, full 14-16");
  received_late_ = 0;
  EXPECT_EQ(Leaving(1, 16), "none 1-13, full 14-16");  // that is settled
  Agree(Level::kBasic);
  received_late_ = 19;  // both leave at basic
  Receive(5);
  EXPECT_EQ(Leaving(1, 21), "none 1-13, basic 14-21");
  Agree(Level::kFull);
  received_late_ = 24;
  Receive(5);
  EXPECT_EQ(Leaving(1, 26), "none 1-13, full 14-16, basic 17-23, full 24-26");
}

TEST_F(ConsentTest, AStoreThatNobodySawBehindOneThatWasNotInUseIsLookedThrough) {
  Agree(Level::kFull);
  Receive(3);
  Agree(Level::kNone);
  const Numbers first_file = numbers_;
  NewFile(2);
  Agree(Level::kFull);
  numbers_ = first_file;
  Begin(3, 4);  // begun under none, while nobody looked
  Receive(10);
  received_late_ = 9;
  EXPECT_EQ(Leaving(3, 13), "none 1-8, full 9-13");
}

TEST_F(ConsentTest, AnUpdateOfThePolicyNarrowsAtOnceAndWidensOnlyWhatIsAgreedToAgain) {
  const auto with = [](const std::string& place, const Json& value) {
    std::vector<std::string> errors;
    const auto policy = Policy::Parse(Changed(place, value), &errors);
    EXPECT_TRUE(policy) << testing::PrintToString(errors);
    return *policy;
  };
  const Policy narrow = with("/levels/basic/kinds/page", "drop");
  const Policy wide = with("/levels/basic/kinds/page", "keep");
  const auto first_number = [&](const Policy& shipped, std::int64_t number) {
    std::vector<Span> spans;
    Look();
    EXPECT_TRUE(Open()->SpansOf(StoreId(1), number, number, shipped, &spans).ok());
    const RecordType& type = *records::FindShorterType(EventFactory::kChangePage);
    return spans.at(0).table->Of(type, 2);
  };
  Agree(Level::kBasic, policy_);
  Receive(10);
  EXPECT_EQ(first_number(policy_, 1), Action::kCoarsen);
  EXPECT_EQ(first_number(narrow, 1), Action::kDrop);
  EXPECT_EQ(first_number(wide, 1), Action::kCoarsen);
  Agree(Level::kBasic, wide);
  Receive(10);
  EXPECT_EQ(first_number(wide, 11), Action::kKeep);
  EXPECT_EQ(first_number(wide, 10), Action::kCoarsen);  // received under the narrower one
}

TEST_F(ConsentTest, ForgettingEndsEverythingButTheRequest) {
  EXPECT_FALSE(Open()->Forget(numbers_, received_since_, 1).ok());  // nobody knows it
  Agree(Level::kFull);
  Receive(10);
  ASSERT_EQ(Leaving(1, 10), "full 1-10");
  const auto name = Open()->name();
  const auto key = Open()->key();
  ASSERT_TRUE(Open()->Forget(numbers_, received_since_, 2000).ok());
  EXPECT_TRUE(Open()->is_forgetting());
  EXPECT_EQ(Open()->name(), name);  // the fleet has to be told whom to forget
  EXPECT_EQ(Leaving(1, 10), "none 1-10");
  EXPECT_FALSE(Open()->Agree(Level::kFull, policy_, numbers_, received_since_, 3000).ok());
  // With another hold on the file, to see what becomes of its blocks.
  std::filesystem::create_hard_link(path_, folder_ / "kept");
  ASSERT_TRUE(Open()->Forgotten().ok());
  EXPECT_FALSE(std::filesystem::exists(path_));
  const std::string bytes = ReadFile(folder_ / "kept");
  EXPECT_EQ(bytes.find(std::string(name->begin(), name->end())), std::string::npos);
  EXPECT_EQ(bytes.find(std::string(key.begin(), key.end())), std::string::npos);
  // One that was killed at it goes on when the file is next asked for.
  usage_stat_test::WriteFile(path_ + ".gone", "key");
  EXPECT_EQ(Open(State::Mode::kRead)->name(), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(path_ + ".gone"));
  // As on the first day; a new name, and nothing of before.
  Agree(Level::kFull);
  EXPECT_NE(Open()->name(), name);
  EXPECT_NE(Open()->key(), key);  // and so other pseudonyms, of the stores too
  Receive(1);
  EXPECT_EQ(Leaving(1, 11), "none 1-10, full 11-11");
}

}  // namespace
}  // namespace velmora::usage_stat::consent
