// Records and the classes that write and read them, on the real primitives.

#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "src/events/events.h"
#include "src/measurements/measurements.h"
#include "src/stat_event/event.h"
#include "tests/library/golden_records.h"
#include "tests/support/recording/recorder.h"

namespace usage_stat_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace velmora::usage_stat;

// The binary interface to applications, on every machine.
static_assert(sizeof(std::time_t) == 8, "timestamps must outlive 2038");
static_assert(sizeof(Stat_LibraryMode) == 4 && sizeof(Stat_UpdateMode) == 4);
static_assert(sizeof(Stat_ApplicationId) == 4);
static_assert(sizeof(Margins) == 4 && sizeof(MarginsEx) == 256);
static_assert(sizeof(Stat_BookInfo) == (sizeof(void*) == 8 ? 88 : 48));

constexpr long long kIn2100 = 4'102'444'800'123;

std::string Record(int code, const std::string& payload) {
  return I16(code) + Little(kIn2100, 8) + payload;
}

std::unique_ptr<Event> Read(const std::string& record) {
  Recorded().log.clear();
  std::istringstream in(record);
  return std::unique_ptr<Event>(Event::CreateFromStream(in));
}

template <class EventClass>
std::unique_ptr<EventClass> ReadAs(int code, const std::string& payload) {
  return std::unique_ptr<EventClass>(
      dynamic_cast<EventClass*>(Read(Record(code, payload)).release()));
}

std::string Written(Event& event) {
  std::ostringstream out;
  EXPECT_EQ(event.WriteToStream(out), 0);
  return out.str();
}

// A stream that takes no more than `room` bytes.
class FullBuffer : public std::streambuf {
 public:
  explicit FullBuffer(std::size_t room) : bytes_(room, '\0') {
    setp(bytes_.data(), bytes_.data() + room);
  }

 private:
  std::string bytes_;
};

constexpr char kCreate[] =
    "static velmora::usage_stat::Event *velmora::usage_stat::Event::CreateFromStream(std::istream "
    "&)";
constexpr char kWrite[] = "int velmora::usage_stat::Event::WriteToStream(std::ostream &)";

std::string Condition(const std::string& condition, const std::string& result) {
  return "[pid:4711]Condition: \"" + condition + "\", return(\"" + result + "\")]";
}

// What was logged, as "function: message".
std::vector<std::string> Lines() {
  std::vector<std::string> lines;
  for (const LogLine& line : Recorded().log) lines.push_back(line.function + ": " + line.message);
  return lines;
}

std::string MethodLine(const std::string& event_class, const std::string& method) {
  return "virtual int velmora::usage_stat::" + event_class + "::" + method + ": " +
         Condition("0 == err", "VM_FAILED");
}

// Measurements and the version pass failures through without a line of their own.
bool IsSilent(const GoldenRecord& golden, std::size_t payload_size) {
  return golden.event_class == "VersionEvent" || (golden.code <= 6 && payload_size < 2);
}

TEST(RecordsTest, EveryRecordIsReadBackToItsBytes) {
  std::set<int> codes;
  for (const GoldenRecord& golden : GoldenRecords()) {
    SCOPED_TRACE(std::to_string(golden.code) + ' ' + golden.event_class);
    const std::string record = Record(golden.code, golden.payload);
    const std::unique_ptr<Event> event = Read(record);
    if (!golden.readable) {
      const std::string reader = golden.code == 2028 ? "NewBooksEventEx" : "ChangePageEventEx";
      EXPECT_EQ(event, nullptr);
      EXPECT_THAT(Lines(), ElementsAre(MethodLine(reader, "ReadStateFromStream(std::istream &)")));
      continue;
    }
    ASSERT_NE(event, nullptr);
    EXPECT_THAT(Recorded().log, IsEmpty());
    EXPECT_EQ(event->type_, golden.code);
    EXPECT_EQ(event->timestamp_, kIn2100);
    EXPECT_EQ(Written(*event), record);
    codes.insert(golden.code);
  }
  for (int code = INT16_MIN; code <= INT16_MAX; ++code) {
    const auto type = static_cast<EventFactory::EventType>(code);
    const std::unique_ptr<Event> event(EventFactory::CreateEvent(type));
    ASSERT_EQ(!event, !codes.contains(code)) << code;
    if (event) continue;
    ASSERT_EQ(Read(Record(code, "")), nullptr);
    ASSERT_THAT(Lines(), ElementsAre(std::string(kCreate) + ": " +
                                     Condition("!event || event->type_ != type", "NULL")));
  }
}

// Whether key lists that are cut to `size` bytes fail with a line of their own beside the event's:
// where the number of a list is wrong, as a missing one is except for list 0, or an assignment is
// missing; not where the count is.
bool IsToldByItsList(const std::string& record, std::size_t size) {
  std::size_t at = record.starts_with(I16(2016)) ? 12 : 14;
  for (int set = 0; set < 3; ++set) {
    if (size < at + 2) return size >= at && set > 0;
    if (size < at + 4) return false;
    const auto count = static_cast<std::size_t>(record[at + 2]);
    at += 4 + 4 * count;
    if (size < at) return true;
  }
  return false;
}

TEST(RecordsTest, RecordsCutShortAreRefusedWithOneLine) {
  for (const GoldenRecord& golden : GoldenRecords()) {
    if (!golden.readable) continue;
    const std::string record = Record(golden.code, golden.payload);
    for (std::size_t size = 0; size < record.size(); ++size) {
      SCOPED_TRACE(golden.event_class + ' ' + std::to_string(golden.code) + " cut to " +
                   std::to_string(size));
      EXPECT_EQ(Read(record.substr(0, size)), nullptr);
      std::vector<std::string> lines = Lines();
      if (size >= 10 && IsSilent(golden, size - 10)) {
        EXPECT_THAT(lines, IsEmpty());
        continue;
      }
      if (golden.event_class == "KeyboardSettingsEvent" && IsToldByItsList(record, size)) {
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_TRUE(lines[0].starts_with(
            "int DeserializeKeyMapping(std::istream &, int16_t, std::vector<Keymapping> *): "));
        lines.erase(lines.begin());
      }
      EXPECT_THAT(
          lines, ElementsAre(size < 10 ? std::string(kCreate) + ": " + Condition("0 == err", "NULL")
                                       : MethodLine(golden.event_class,
                                                    "ReadStateFromStream(std::istream &)")));
    }
  }
}

TEST(RecordsTest, WritersStopWhereTheStreamIsFull) {
  for (const GoldenRecord& golden : GoldenRecords()) {
    if (!golden.readable) continue;
    const std::string record = Record(golden.code, golden.payload);
    const std::unique_ptr<Event> event = Read(record);
    for (std::size_t size = 0; size < record.size(); ++size) {
      SCOPED_TRACE(golden.event_class + " with room for " + std::to_string(size));
      Recorded().log.clear();
      FullBuffer buffer(size);
      std::ostream out(&buffer);
      EXPECT_EQ(event->WriteToStream(out), -1);
      if (size >= 10 && IsSilent(golden, size - 10)) {
        EXPECT_THAT(Lines(), IsEmpty());
        continue;
      }
      ASSERT_FALSE(Lines().empty());
      EXPECT_EQ(Lines().back(),
                size < 10 ? std::string(kWrite) + ": " + Condition("0 == err", "VM_FAILED")
                          : MethodLine(golden.event_class, "WriteStateToStream(std::ostream &)"));
      const std::size_t payload = golden.code == 2016 ? 10 : 12;
      const bool is_in_list =
          golden.event_class == "KeyboardSettingsEvent" && size >= payload + sizeof(std::int16_t);
      EXPECT_EQ(Lines().size(), is_in_list ? 2U : 1U);
    }
  }
}

TEST(RecordsTest, EventsWithoutATypeAreNotWritten) {
  Recorded().log.clear();
  VersionEvent event;
  std::ostringstream out;
  EXPECT_EQ(event.WriteToStream(out), -1);
  EXPECT_EQ(out.str(), "");
  EXPECT_THAT(Lines(), ElementsAre(std::string(kWrite) + ": " +
                                   Condition("EventFactory::kNone == type_", "VM_FAILED")));
}

TEST(RecordsTest, WhatAClassReturnsIsPassedOn) {
  class Failing : public Event {
   public:
    Failing() : Event(EventFactory::kTurnOn) {}
    int WriteStateToStream(std::ostream&) override { return 77; }
    int ReadStateFromStream(std::istream&) override { return 77; }
  };
  Recorded().log.clear();
  std::ostringstream out;
  EXPECT_EQ(Failing().WriteToStream(out), 77);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST(RecordsTest, ReadersFollowTheirOwnRules) {
  EXPECT_TRUE(ReadAs<GoToPageEvent>(2021, I16(1) + Ch(2) + I16(3) + I16(4))->b_);
  EXPECT_TRUE(ReadAs<GoToPageEventNew>(2031, I16(1) + Ch(0x80) + std::string(16, 0))->f_);
  EXPECT_EQ(ReadAs<StartApplicationEvent>(2004, I16(1) + I16(2) + I16(40000) + Text(""))->c_,
            -25536);
  for (const auto& [flag, expected] : {std::pair(1, true), {2, false}, {-1, false}, {257, false}}) {
    const std::string book = I32(1) + "en" + Texts({}) + Text("") + Texts({}) + I16(flag) + I16(0) +
                             I32(0) + I16(0) + I32(0) + NoText(5);
    EXPECT_EQ(ReadAs<OpenBookEvent>(2010, book)->d_, expected) << flag;
  }
  LanguageChangeEvent language;
  language.language_ = "old";
  std::istringstream one_letter("e");
  EXPECT_EQ(language.ReadStateFromStream(one_letter), -1);
  EXPECT_EQ(language.language_, "e");

  // A member whose field can't be read keeps its value.
  std::istringstream empty;
  OrientationEvent orientation;
  orientation.orientation_ = 70000;
  EXPECT_EQ(orientation.ReadStateFromStream(empty), -1);
  EXPECT_EQ(orientation.orientation_, 70000);
  std::istringstream page(I16(5));
  GoToPageEvent jump;
  jump.b_ = true;
  EXPECT_EQ(jump.ReadStateFromStream(page), -1);
  EXPECT_TRUE(jump.b_);
  std::istringstream cut(I32(1) + "en" + Texts({}) + Text("") + Texts({}) + Ch(0));
  OpenBookEvent book;
  book.d_ = true;
  EXPECT_EQ(book.ReadStateFromStream(cut), -1);
  EXPECT_TRUE(book.d_);
}

TEST(RecordsTest, KeyListsAreReadByTheirOwnRules) {
  const auto key = [](int first, int second) { return Ch(first) + Ch(second) + I16(-7); };
  // The number of lists may be any; an empty list may have a negative count; keys count as signed.
  const auto event =
      ReadAs<KeyboardSettingsEvent>(2016, I16(9) + I16(0) + I16(3) + key(0x80, 1) + key(0x7F, 1) +
                                              key(0xFF, 0) + I16(1) + I16(-1) + I16(2) + I16(0));
  ASSERT_NE(event, nullptr);
  std::vector<std::vector<int>> keys;
  for (const Keymapping& k : event->mappings_[0]) keys.push_back({k.key, k.kind, k.action});
  EXPECT_THAT(keys, ElementsAre(ElementsAre(-128, 0, -7), ElementsAre(127, 1, -7),
                                ElementsAre(-1, -1, -7)));
  EXPECT_THAT(event->mappings_[1], IsEmpty());

  const std::string function =
      "int DeserializeKeyMapping(std::istream &, int16_t, std::vector<Keymapping> *): ";
  const std::string event_line =
      MethodLine("KeyboardSettingsEvent", "ReadStateFromStream(std::istream &)");
  EXPECT_EQ(Read(Record(2016, I16(3) + I16(1) + I16(0))), nullptr);
  EXPECT_THAT(Lines(),
              ElementsAre(function + Condition("actual_type == type", "VM_FAILED"), event_line));
  EXPECT_EQ(Read(Record(2016, I16(3) + I16(0) + I16(2) + key(1, 0) + Ch(2))), nullptr);
  EXPECT_THAT(Lines(), ElementsAre(function + Condition("0 == err", "VM_FAILED"), event_line));

  Recorded().log.clear();
  std::istringstream in(I16(5) + I16(1) + key(1, 0));
  EXPECT_EQ(DeserializeKeyMapping(in, 5, nullptr), -1);
  EXPECT_THAT(Lines(), ElementsAre(function + Condition("mapping", "VM_FAILED")));
  std::vector<Keymapping> mapping(1);
  EXPECT_EQ(DeserializeKeyMapping(in, 5, &mapping), 0);
  EXPECT_EQ(mapping.size(), 2U);  // appended
}

// Any bytes are read or refused, and what is read can be written and read again.
TEST(RecordsTest, RandomDatagramsDoNoHarm) {
  const char* count = std::getenv("USAGE_STAT_RANDOM_DATAGRAMS");
  const int datagrams = count ? std::atoi(count) : 20'000;
  const std::vector<GoldenRecord> goldens = GoldenRecords();
  std::mt19937_64 random(20'311);
  const auto below = [&random](std::size_t bound) {
    return static_cast<std::size_t>(random() % bound);
  };
  int read = 0;
  for (int i = 0; i < datagrams; ++i) {
    const GoldenRecord& golden = goldens[below(goldens.size())];
    std::string datagram = Record(golden.code, golden.payload);
    if (below(2) == 0) {  // bytes at random behind a code that is known
      datagram.resize(2);
      for (std::size_t size = below(200); size > 0; --size)
        datagram += Ch(static_cast<int>(below(256)));
    } else {  // a good record, damaged
      for (std::size_t damages = below(4); damages > 0; --damages) {
        const std::size_t at = below(datagram.size());
        const std::size_t kind = below(4);
        if (kind == 0) datagram.resize(at + 1);
        if (kind == 1) datagram[at] = Ch(static_cast<int>(below(256)))[0];
        if (kind == 2) datagram.insert(at, datagram.substr(below(datagram.size())));
        if (kind == 3) datagram.replace(at, 4, I32(-1));
      }
    }
    const std::unique_ptr<Event> event = Read(datagram);
    if (!event) continue;
    ++read;
    // Keys of 0x80 and above deliberately do not come back as they were.
    if (event->type_ == 2016 || event->type_ == 3) continue;
    const std::string written = Written(*event);
    const std::unique_ptr<Event> again = Read(written);
    ASSERT_NE(again, nullptr);
    ASSERT_EQ(Written(*again), written);
  }
  EXPECT_GT(read, datagrams / 10);
}

}  // namespace
}  // namespace usage_stat_test
