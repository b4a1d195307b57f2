// Texts, numbers and the endpoint's address, as every tool reads and writes them.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "tools/base/system.h"
#include "tools/base/text.h"

namespace usage_stat_test {
namespace {

namespace base = velmora::usage_stat::base;

TEST(BaseTest, ReadsWholeNumbersOnly) {
  EXPECT_EQ(base::ParseWhole<int>("-12"), -12);
  EXPECT_EQ(base::ParseWhole<int>("ff", 16), 255);
  for (const char* text : {"", " 1", "1 ", "+1", "1.0", "0x1", "99999999999"}) {
    EXPECT_EQ(base::ParseWhole<int>(text), std::nullopt) << text;
  }
  EXPECT_EQ(base::ParseWhole<std::uint8_t>("256"), std::nullopt);
  EXPECT_EQ(base::ParseWhole<unsigned>("-1"), std::nullopt);
}

TEST(BaseTest, HexadecimalGoesThereAndBack) {
  const std::string bytes("\x00\x7f\x80\xff", 4);
  EXPECT_EQ(base::ToHex(bytes), "007f80ff");
  EXPECT_EQ(base::FromHex("00 7F\t80\nff"), bytes);
  for (const char* text : {"", " ", "0", "0g", "+1", "-1", "0x"}) {
    EXPECT_EQ(base::FromHex(text), std::nullopt) << text;
  }
}

TEST(BaseTest, KnowsUtf8) {
  const struct {
    std::string_view text;
    char32_t code;
    std::size_t size;  // 0: no character
  } cases[] = {
      {"a\xff", 'a', 1},
      {"\u00e9x", 0xE9, 2},
      {"\U0001F4D6", 0x1F4D6, 4},
      {"\xc3", 0, 0},              // cut short
      {"\xc0\xaf", 0, 0},          // too long a form
      {"\x80", 0, 0},              // begins in the middle
      {"\xf4\x90\x80\x80", 0, 0},  // beyond the last
  };
  for (const auto& [text, code, size] : cases) {
    SCOPED_TRACE(base::ToHex(text));
    const base::Character first = base::FirstCharacter(text);
    EXPECT_EQ(first.size, size);
    EXPECT_EQ(first.code, code);
    EXPECT_TRUE(base::IsUtf8(base::ToUtf8(text)));
    EXPECT_EQ(base::IsUtf8(text), base::ToUtf8(text) == text);
  }
  EXPECT_EQ(base::FirstCharacter("\xed\xa0\x80").size, 0U);  // half of a pair
  EXPECT_EQ(base::CutUtf8("a\u00e9\u00e9", 4), "a\u00e9");
  EXPECT_EQ(base::CutUtf8("a\u00e9", 3), "a\u00e9");
}

TEST(BaseTest, AddressesAreThoseOfTheTransport) {
  const auto address = base::AddressOf(base::kDefaultEndpoint);
  ASSERT_TRUE(address);
  EXPECT_EQ(std::memcmp(address->address.sun_path, "\0usage_stat_event1\0", 19), 0);
  EXPECT_EQ(address->length, offsetof(sockaddr_un, sun_path) + 19);
  EXPECT_TRUE(base::AddressOf(std::string(base::kLongestEndpointName, 'n')));
  EXPECT_FALSE(base::AddressOf(std::string(base::kLongestEndpointName + 1, 'n')));
  EXPECT_FALSE(base::AddressOf(""));
}

}  // namespace
}  // namespace usage_stat_test
