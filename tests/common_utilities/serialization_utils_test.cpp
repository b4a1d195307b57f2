#include "common_utilities/serialization_utils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using velmora::utilities::SerializationUtils;
using namespace std::string_literals;  // NOLINT(google-build-using-namespace): literals only

// One value and its bytes, written by hand.
struct Encoding {
  std::string bytes;
  std::function<int(std::ostream&)> write;
  // Also checks what is read: the value, or after a failure that a number is untouched.
  std::function<int(std::istream&)> read;
};

template <typename Value>
Value ValueOf(int (*read)(std::istream&, Value*));

template <auto kWrite, auto kRead, typename Value = decltype(ValueOf(kRead))>
Encoding Encode(const Value& value, std::string bytes) {
  return {std::move(bytes), [value](std::ostream& out) { return kWrite(value, out); },
          [value](std::istream& in) {
            Value got{};
            if constexpr (std::is_arithmetic_v<Value>) {
              got = 42;
            }
            const int result = kRead(in, &got);
            if (result == 0) {
              EXPECT_EQ(got, value);
            } else if constexpr (std::is_arithmetic_v<Value>) {
              EXPECT_EQ(got, Value{42});
            }
            return result;
          }};
}

std::vector<Encoding> Encodings() {
  using S = SerializationUtils;
  using Texts = std::vector<std::string>;
  constexpr auto int16 = Encode<S::SerializeInt16, S::DeserializeInt16>;
  constexpr auto uint16 = Encode<S::SerializeUInt16, S::DeserializeUInt16>;
  constexpr auto int32 = Encode<S::SerializeInt32, S::DeserializeInt32>;
  constexpr auto character = Encode<S::SerializeChar, S::DeserializeChar>;
  constexpr auto uchar = Encode<S::SerializeUChar, S::DeserializeUChar>;
  constexpr auto timestamp = Encode<S::SerializeTimestamp, S::DeserializeTimestamp>;
  constexpr auto text = Encode<S::SerializeString, S::DeserializeString>;
  constexpr auto texts = Encode<S::SerializeStringVec, S::DeserializeStringVec>;
  constexpr auto language = Encode<S::SerializeLanguage, S::DeserializeLanguage>;
  const std::string long_text(70'000, '\xee');  // several growth steps of the reader
  return {
      int16(0x1234, "\x34\x12"),
      int16(-2, "\xfe\xff"),
      int16(SHRT_MIN, "\x00\x80"s),
      uint16(0xfedc, "\xdc\xfe"),
      int32(0x12345678, "\x78\x56\x34\x12"),
      int32(-1, "\xff\xff\xff\xff"),
      int32(INT_MIN, "\x00\x00\x00\x80"s),
      character('a', "a"),
      character('\x80', "\x80"),
      uchar(255, "\xff"),
      timestamp(0x0123456789abcdef, "\xef\xcd\xab\x89\x67\x45\x23\x01"),
      timestamp(-1, "\xff\xff\xff\xff\xff\xff\xff\xff"),
      timestamp(LLONG_MIN, "\0\0\0\0\0\0\0\x80"s),
      text("", "\0\0\0\0"s),
      text("a\0\xff"s, "\3\0\0\0a\0\xff"s),
      text(long_text, "\x70\x11\1\0"s + long_text),
      texts({}, "\0\0\0\0"s),
      texts({"", "bc"}, "\2\0\0\0\0\0\0\0\2\0\0\0bc"s),
      texts(Texts(200, "x"),
            [] {
              std::string bytes = "\xc8\0\0\0"s;
              for (int i = 0; i < 200; ++i) bytes += "\1\0\0\0x"s;
              return bytes;
            }()),
      language("en", "en"),
      language("e", "e\0"s),
      language("", "\0\0"s),
  };
}

TEST(SerializationUtilsTest, EveryValueHasItsBytes) {
  for (const Encoding& encoding : Encodings()) {
    SCOPED_TRACE(testing::PrintToString(encoding.bytes.substr(0, 20)));
    std::ostringstream out;
    EXPECT_EQ(encoding.write(out), 0);
    EXPECT_EQ(out.str(), encoding.bytes);

    std::istringstream in(encoding.bytes + "!");
    EXPECT_EQ(encoding.read(in), 0);
    EXPECT_EQ(in.get(), '!');
  }
}

// Takes a fixed number of bytes, each by a call of its own, then no more.
class Sink : public std::streambuf {
 public:
  explicit Sink(std::size_t room) : left_(room) {}

 protected:
  int overflow(int byte) override {
    return left_ == 0 ? traits_type::eof() : (--left_, traits_type::not_eof(byte));
  }

 private:
  std::size_t left_;
};

// Takes a fixed number of bytes into room that it offers, then no more.
class Area : public std::streambuf {
 public:
  explicit Area(std::size_t room) : bytes_(room, '\0') {
    setp(bytes_.data(), bytes_.data() + room);
  }

 private:
  std::string bytes_;
};

template <typename Buffer>
void ExpectToFit(const Encoding& encoding, std::size_t room) {
  Buffer buffer(room);
  std::ostream out(&buffer);
  const bool fits = room >= encoding.bytes.size();
  EXPECT_EQ(encoding.write(out) == 0, fits) << room;
  EXPECT_EQ(out.bad(), !fits) << room;
}

TEST(SerializationUtilsTest, FailsWhereverTheStreamEnds) {
  for (const Encoding& encoding : Encodings()) {
    SCOPED_TRACE(testing::PrintToString(encoding.bytes.substr(0, 20)));
    // Every byte of a short value; a sample of the long ones.
    const std::size_t step = encoding.bytes.size() / 1000 + 1;
    for (std::size_t size = 0; size < encoding.bytes.size(); size += step) {
      std::istringstream in(encoding.bytes.substr(0, size));
      EXPECT_NE(encoding.read(in), 0) << size;
      EXPECT_TRUE(in.eof() && in.fail()) << size;
      ExpectToFit<Sink>(encoding, size);
      ExpectToFit<Area>(encoding, size);
    }
    ExpectToFit<Sink>(encoding, encoding.bytes.size());
    ExpectToFit<Area>(encoding, encoding.bytes.size());
  }
}

TEST(SerializationUtilsTest, FailedStreamsStayFailedAndUntouched) {
  for (const Encoding& encoding : Encodings()) {
    std::ostringstream out;
    out.setstate(std::ios_base::failbit);
    EXPECT_NE(encoding.write(out), 0);
    EXPECT_EQ(out.str(), "");

    std::istringstream in(encoding.bytes);
    in.setstate(std::ios_base::failbit);
    EXPECT_NE(encoding.read(in), 0);
    in.clear();
    EXPECT_EQ(in.tellg(), 0);
  }
  std::ostream nowhere(nullptr);
  EXPECT_NE(SerializationUtils::SerializeChar('a', nowhere), 0);
}

TEST(SerializationUtilsTest, FailedReadsKeepThePartThatWasRead) {
  std::string text = "old";
  std::istringstream short_text("\x05\0\0\0ab"s);
  EXPECT_NE(SerializationUtils::DeserializeString(short_text, &text), 0);
  EXPECT_EQ(text, "ab");

  std::vector<std::string> texts = {"old"};
  std::istringstream short_list("\x03\0\0\0\1\0\0\0a\2\0\0\0b"s);
  EXPECT_NE(SerializationUtils::DeserializeStringVec(short_list, &texts), 0);
  EXPECT_THAT(texts, testing::ElementsAre("a", "b"));

  int number = 7;
  std::istringstream short_number("\x05\0\0"s);
  EXPECT_NE(SerializationUtils::DeserializeInt32(short_number, &number), 0);
  EXPECT_EQ(number, 7);
}

TEST(SerializationUtilsTest, LanguagesAreTwoBytesWithoutNul) {
  for (const std::string& refused : {"abc"s, "\0"s, "a\0"s, "\0a"s}) {
    std::ostringstream out;
    EXPECT_NE(SerializationUtils::SerializeLanguage(refused, out), 0);
    EXPECT_EQ(out.str(), "");
    EXPECT_TRUE(out.good());
  }
  std::istringstream in("\0a"s);
  std::string text = "old";
  EXPECT_EQ(SerializationUtils::DeserializeLanguage(in, &text), 0);
  EXPECT_EQ(text, "");
}

TEST(SerializationUtilsTest, HexIsLowerCaseInOrder) {
  EXPECT_EQ(SerializationUtils::ToHex({0x00, 0x0f, 0xa9, 0xff}), "000fa9ff");
  EXPECT_EQ(SerializationUtils::ToHex({}), "");
}

}  // namespace
