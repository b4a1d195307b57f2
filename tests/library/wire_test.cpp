// What reaches the collector's socket, through the real platform libraries.

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <chrono>
#include <random>

#include "tests/library/golden_records.h"
#include "tests/support/receiver.h"

namespace usage_stat_test {
namespace {

std::int64_t Now() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::int64_t TimestampOf(const std::string& message) {
  std::uint64_t bits = 0;
  for (std::size_t i = 10; i-- > 2;) bits = bits << 8 | static_cast<std::uint8_t>(message[i]);
  return static_cast<std::int64_t>(bits);
}

TEST(WireTest, EveryFunctionSendsExactlyItsRecord) {
  setenv("CORVANE_ROOT", "/nonexistent", 1);  // a device of which nothing is known
  Receiver receiver;
  receiver.Announce();
  for (const GoldenRecord& golden : GoldenRecords()) {
    if (!golden.send) continue;
    SCOPED_TRACE(std::to_string(golden.code) + " of " + golden.signature);
    const std::int64_t before = Now();
    ASSERT_EQ(golden.send(), 0);
    const std::int64_t after = Now();
    const std::string message = receiver.Receive().value_or("");
    ASSERT_GE(message.size(), 10U);
    EXPECT_EQ(message.substr(0, 2), I16(golden.code));
    EXPECT_LE(before, TimestampOf(message));
    EXPECT_GE(after, TimestampOf(message));
    EXPECT_EQ(message.substr(10), golden.payload);
    EXPECT_EQ(receiver.TryReceive(), std::nullopt);
  }
}

TEST(WireTest, SomeCallsSendNothing) {
  Receiver receiver;
  receiver.Announce();
  EXPECT_EQ(Stat_ChangePageEventEx(1, 2, 3, 4, 5, 'f', 'g', 8, 9), 0);
  EXPECT_EQ(Stat_NewBooksEventSimple(0, kUnknownBooks, 1), -2);
  EXPECT_EQ(Stat_NewBooksEventSimple(2, nullptr, 1), -2);
  for (const char* reader :
       {"AdobeViewer.app", "/opt/fbreader.app", "djviewer.app", "/a/eink-reader.app",
        "eink-reader_with_rmsdk.app", "eink-reader_with_pdfium.app"}) {
    EXPECT_EQ(LaunchByPath(1, reader, {}), -1) << reader;
  }
  EXPECT_EQ(receiver.TryReceive(), std::nullopt);
}

// The rule in plain signed arithmetic.
int BookIdOf(const std::string& path) {
  unsigned char digest[20];
  SHA1(reinterpret_cast<const unsigned char*>(path.data()), path.size(), digest);
  std::int64_t id = 0;
  for (const unsigned char* b = digest; b < digest + 20; b += 4) {
    std::int64_t word = b[3] * 0x1000000LL;
    for (int i = 0; i < 3; ++i) word += (b[i] < 128 ? b[i] : b[i] - 256) * (1LL << 8 * i);
    id ^= word & 0xFFFFFFFF;
  }
  return static_cast<int>(id < 0x80000000 ? id : id - 0x100000000);
}

TEST(WireTest, BookIdsCountLowBytesAsSigned) {
  EXPECT_EQ(Stat_GetBookId("abc"), -645120848);
  EXPECT_EQ(Stat_GetBookId(""), -1756787060);
  std::mt19937 random(7);
  for (int i = 0; i < 5000; ++i) {
    std::string path;
    while (path.size() < static_cast<std::size_t>(i) % 70) {
      path += static_cast<char>(static_cast<std::uint8_t>(1 + random() % 255));
    }
    ASSERT_EQ(Stat_GetBookId(path.c_str()), BookIdOf(path)) << path;
  }
}

}  // namespace
}  // namespace usage_stat_test
