// Batches there and back, against the vectors, and against everything that is not one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>

#include "fleet/batch/shapes.h"
#include "fleet/batch/wire.h"
#include "tests/support/batch_frame.h"
#include "tests/support/sample_records.h"
#include "tools/base/text.h"

namespace velmora::usage_stat::fleet {
namespace {

using nlohmann::json;
using usage_stat_test::MessageAround;
using namespace std::string_literals;

json ToJson(const Batch& batch) {
  json out = {{"id", ToText(batch.id)},         {"store", ToText(batch.store)},
              {"policy", ToText(batch.policy)}, {"first", batch.store_first},
              {"after", batch.after},           {"through", batch.through},
              {"level", batch.level},           {"sent_ms", batch.sent_ms},
              {"runs", json::array()},          {"clock_steps", json::array()},
              {"shapes", json::array()},        {"records", json::array()}};
  for (const Run& run : batch.runs) out["runs"].push_back({run.first, run.last, run.reason});
  for (const ClockStep& step : batch.clock_steps) {
    out["clock_steps"].push_back({step.record, step.step_ms});
  }
  for (const Shape& shape : batch.shapes) {
    out["shapes"].push_back({shape.type, shape.layout, base::ToHex(shape.actions)});
  }
  for (const BatchRecord& record : batch.records) {
    out["records"].push_back(
        {record.number, record.shape, record.timestamp_ms, base::ToHex(record.payload)});
  }
  return out;
}

TEST(Batch, VectorsReadAsTheyTellAndAreWrittenAgain) {
  int vectors = 0;
  for (const auto& file : std::filesystem::directory_iterator(SOURCE_DIR "/tests/vectors/batch")) {
    if (file.path().extension() != ".json") continue;
    SCOPED_TRACE(file.path());
    std::ifstream in(file.path());
    const json vector = json::parse(in);
    const Decoded decoded = Decode(base::FromHex(vector["hex"].get<std::string>()).value());
    EXPECT_EQ(decoded.problem, "");
    ASSERT_EQ(decoded.verdict, Verdict::kGood);
    EXPECT_EQ(ToJson(decoded.batch), vector["batch"]);

    std::string message;
    EXPECT_EQ(Encode(decoded.batch, &message), "");
    const Decoded again = Decode(message);
    ASSERT_EQ(again.verdict, Verdict::kGood);
    EXPECT_EQ(ToJson(again.batch), vector["batch"]);
    ++vectors;
  }
  EXPECT_EQ(vectors, 2);
}

// A batch of every type, some of them unreadable, with runs before, between and behind.
Batch SampleBatch() {
  Batch batch;
  batch.id.fill(1);
  batch.store.fill(2);
  batch.store_first = 5;
  batch.after = 9;
  batch.level = Level::kBasic;
  batch.runs = {{10, 12, Reason::kErased}};
  std::uint64_t number = 12;
  for (const auto& sample : usage_stat_test::SampleRecords()) {
    AddRecord(++number, sample.bytes, "\1\2", &batch);
    AddRecord(++number, sample.bytes + "left over", "", &batch);
    AddRecord(++number, std::string_view(sample.bytes).substr(0, kEnvelopeSize), "", &batch);
    batch.runs.push_back({number + 1, number + 2, Reason::kWithheld});
    number += 2;
  }
  AddRecord(++number, "\x7f\x7f" + std::string(8, '\xff') + "of no known type", "", &batch);
  batch.clock_steps = {{13, -1}, {number, 1}};
  batch.through = number;
  return batch;
}

TEST(Batch, EveryRecordComesBackAsTheDatagramItWas) {
  const Batch batch = SampleBatch();
  std::string message;
  ASSERT_EQ(Encode(batch, &message), "");
  const Decoded decoded = Decode(message);
  ASSERT_EQ(decoded.verdict, Verdict::kGood) << decoded.problem;
  EXPECT_EQ(ToJson(decoded.batch), ToJson(batch));
  std::size_t i = 0;
  for (const auto& sample : usage_stat_test::SampleRecords()) {
    EXPECT_EQ(DatagramOf(decoded.batch, decoded.batch.records[i]), sample.bytes);
    EXPECT_EQ(DatagramOf(decoded.batch, decoded.batch.records[i + 1]), sample.bytes + "left over");
    i += 3;
  }
  std::string again;
  EXPECT_EQ(Encode(decoded.batch, &again), "");
  EXPECT_EQ(again, message) << "equal batches give equal bytes";
  Batch none;
  EXPECT_FALSE(AddRecord(1, "too short", "", &none));
}

TEST(Batch, WhatDoesNotAddUpIsRefusedOnBothSides) {
  struct Case {
    const char* problem;
    std::function<void(Batch*)> spoil;
  };
  const Case cases[] = {
      {"do not add up", [](Batch* b) { ++b->through; }},
      {"do not add up", [](Batch* b) { --b->through; }},
      {"do not add up", [](Batch* b) { b->runs.pop_back(); }},
      {"do not add up", [](Batch* b) { b->runs[1].last += 1; }},
      {"do not add up", [](Batch* b) { b->runs[1].first -= 1; }},
      {"do not add up", [](Batch* b) { b->runs.insert(b->runs.begin(), b->runs[0]); }},
      {"do not add up",
       [](Batch* b) {
         b->runs.back() = {14, b->through + 9, Reason::kErased};
       }},
      {"do not add up", [](Batch* b) { b->records.pop_back(); }},
      {"do not add up", [](Batch* b) { b->records[3].number = b->records[4].number; }},
      {"do not add up", [](Batch* b) { b->records.push_back(b->records.back()); }},
      {"ends before", [](Batch* b) { b->through = b->after - 1; }},
      {"ends too late", [](Batch* b) { b->through = ~std::uint64_t{0}; }},
      {"before the store", [](Batch* b) { b->store_first = b->after + 2; }},
      {"begins at 0", [](Batch* b) { b->store_first = 0; }},
      {"clock step", [](Batch* b) { b->clock_steps[0].record = b->after; }},
      {"clock step", [](Batch* b) { b->clock_steps[1].record = b->through + 1; }},
      {"clock step", [](Batch* b) { std::swap(b->clock_steps[0], b->clock_steps[1]); }},
      {"level", [](Batch* b) { b->level = static_cast<Level>(3); }},
      {"consent", [](Batch* b) { b->level = Level::kNone; }},
      {"layout", [](Batch* b) { b->shapes[0].layout = "r4"; }},
      {"layout", [](Batch* b) { b->shapes[0].layout = "3"; }},
      {"action", [](Batch* b) { b->shapes[0].actions.assign(1, '\4'); }},
      {"no shape", [](Batch* b) { b->records[0].shape = b->shapes.size(); }},
      {"does not fit", [](Batch* b) { b->records[0].payload += 'x'; }},
      {"too large",
       [](Batch* b) {
         b->shapes[0].layout = "r";
         b->records[0].payload.assign(kLargestContent, 'x');
       }},
  };
  for (const Case& c : cases) {
    Batch batch = SampleBatch();
    c.spoil(&batch);
    std::string message;
    EXPECT_THAT(Encode(batch, &message), testing::HasSubstr(c.problem));
  }
}

// The content of SampleBatch() up to its runs, with the interval 10..`through`.
std::string Head(std::uint64_t after, std::uint64_t span) {
  std::string head = std::string(16, '\1') + std::string(16, '\2') + '\5';
  PutNumber(after, &head);
  PutNumber(span, &head);
  return head + '\1' + std::string(16, '\0') + '\0';
}

TEST(Batch, HostileMessagesAreRefusedForWhatTheyAre) {
  const std::string most(9, '\xff');  // the first nine bytes of 2^64 - 1
  const std::string huge = most + '\1';

  const std::string one_shape = "\0\0\1\2"s;
  const struct {
    const char* problem;
    std::string message;
  } cases[] = {
      {"no batch", ""},
      {"no batch", "USR\1"},
      {"no batch", std::string(kLargestMessage + 1, 'x')},
      {"version 2", "USB\2"},
      {"no frame", "USB\1"},
      {"no frame", "USB\1not a frame"},
      {"declares too much", MessageAround("x", kLargestContent + 1)},
      {"declares too much", MessageAround("x", ~std::uint64_t{0} - 2)},
      {"damaged", MessageAround("x", kLargestContent)},
      {"does not end", MessageAround("x") + 'x'},
      {"does not declare", "USB\1\x28\xb5\x2f\xfd\0\x58\x09\0\0x"s},
      {"head is cut", MessageAround("")},
      {"ends too late", MessageAround(Head(9, ~std::uint64_t{0}))},
      {"head is cut", MessageAround(Head(9, 1).substr(0, 33) + most + "\2")},  // 65 bits
      {"are cut short", MessageAround(Head(9, 1) + huge)},                     // runs
      {"are cut short", MessageAround(Head(9, 1) + '\0' + huge)},              // clock steps
      {"are cut short", MessageAround(Head(9, 1) + "\0\0"s + huge)},           // shapes
      {"too many records", MessageAround(Head(9, 1) + "\0\0\0"s + huge)},
      {"a run is out", MessageAround(Head(9, 1) + '\1' + huge + "\0\1"s)},
      {"a run is out", MessageAround(Head(9, 1) + "\1\0"s + huge + '\1')},
      {"clock step is out", MessageAround(Head(9, 1) + "\0\1\0\0\0\0"s)},
      {"a type is none", MessageAround(Head(9, 1) + "\0\0\1\xff\xff\x7f\0\0\0\0"s)},
      {"no shape", MessageAround(Head(9, 1) + "\0\0\0\1\0\0"s)},
      {"payloads of type 1", MessageAround(Head(9, 1) + one_shape + "\1s\0\1\0\0"s + "\0"s +
                                           std::string(8, '\0') + huge)},
      {"payloads of type 1", MessageAround(Head(9, 1) + one_shape + "\1v\0\1\0\0"s + "\0"s +
                                           std::string(8, '\0') + huge)},
      // 65,536 records of 63 constant numbers, in a few hundred bytes.
      {"payloads of type 1",
       MessageAround(Head(9, 65536) + one_shape + "\x3f"s + std::string(63, '8') +
                     "\0\x80\x80\4\0\0\0"s + std::string(8 + 63 * 9, '\0'))},
      {"left over", MessageAround(Head(9, 0) + "\0\0\0\0x"s)},
      {"do not add up", MessageAround(Head(9, 1) + "\0\0\0\0"s)},
  };
  for (const auto& [problem, message] : cases) {
    const Decoded decoded = Decode(message);
    EXPECT_THAT(decoded.problem, testing::HasSubstr(problem))
        << base::ToHex(message).substr(0, 200);
    EXPECT_EQ(decoded.verdict,
              decoded.problem.starts_with("version") ? Verdict::kNewer : Verdict::kMalformed);
  }
}

TEST(Batch, IsReadWholeOrNotAtAll) {
  std::ifstream in(SOURCE_DIR "/tests/vectors/batch/records.json");
  const std::string message = base::FromHex(json::parse(in)["hex"].get<std::string>()).value();
  constexpr std::size_t kContentAt = 4 + 4 + 1 + 8 + 3;
  const std::string content = message.substr(kContentAt);
  for (std::size_t size = 0; size < message.size(); ++size) {
    EXPECT_NE(Decode(std::string_view(message).substr(0, size)).verdict, Verdict::kGood) << size;
  }
  for (std::size_t size = 0; size < content.size(); ++size) {
    EXPECT_NE(Decode(MessageAround(std::string_view(content).substr(0, size))).verdict,
              Verdict::kGood)
        << size;
  }
  // Whatever one byte says instead, what is taken is a batch that adds up.
  for (std::size_t i = 0; i < content.size(); ++i) {
    for (const int change : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
      std::string other = content;
      other[i] = static_cast<char>(static_cast<std::uint8_t>(other[i]) ^ change);
      const Decoded decoded = Decode(MessageAround(other));
      std::string again;
      if (decoded.verdict == Verdict::kGood) {
        EXPECT_EQ(Encode(decoded.batch, &again), "") << i;
      }
    }
  }
}

TEST(Receipt, IsReadBackOrRefused) {
  Receipt receipt;
  receipt.batch.fill(7);
  receipt.store.fill(8);
  receipt.answer = Answer::kForgotten;
  receipt.cursor = ~std::uint64_t{0};
  const std::string message = EncodeReceipt(receipt);
  Receipt read;
  ASSERT_TRUE(DecodeReceipt(message, &read));
  EXPECT_EQ(EncodeReceipt(read), message);
  EXPECT_FALSE(DecodeReceipt(message + 'x', &read));
  EXPECT_FALSE(DecodeReceipt("USB" + message.substr(3), &read));
  for (std::size_t size = 0; size < message.size(); ++size) {
    EXPECT_FALSE(DecodeReceipt(message.substr(0, size), &read)) << size;
  }
  Id id{};
  EXPECT_TRUE(DecodeForget(EncodeForget(receipt.batch), &id));
  EXPECT_EQ(id, receipt.batch);
  EXPECT_FALSE(DecodeForget(message, &id));
  EXPECT_TRUE(FromText("000102030405060708090a0b0c0d0eff", &id));
  EXPECT_EQ(ToText(id), "000102030405060708090a0b0c0d0eff");
  for (const char* text :
       {"", "00", "000102030405060708090A0b0c0d0eff", "0001020304050607 8090a0b0c0d0eff"}) {
    EXPECT_FALSE(FromText(text, &id)) << text;
  }
}

}  // namespace
}  // namespace velmora::usage_stat::fleet
