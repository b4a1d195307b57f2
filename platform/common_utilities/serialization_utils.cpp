#include "common_utilities/serialization_utils.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>
#include <streambuf>
#include <type_traits>
#include <utility>

namespace velmora::utilities {
namespace {

constexpr int kDone = 0;
constexpr int kFailed = -1;

// How much memory a length alone, before any byte of the value has arrived, may claim.
constexpr std::size_t kTrustedBytes = 4096;

constexpr std::size_t kLanguageSize = 2;

// Opens the free room of a stream's buffer. Nearly every value fits there, and a copy into it is
// far cheaper than a virtual call for each field. (A derived class may name the protected functions
// of its base, and the pointers so gained work on every stream buffer.)
class PutArea : public std::streambuf {
 public:
  static bool Append(std::streambuf& buffer, const char* bytes, std::size_t size) {
    char* const next = (buffer.*&PutArea::pptr)();
    char* const end = (buffer.*&PutArea::epptr)();
    if (static_cast<std::size_t>(end - next) < size || size > INT_MAX) return false;
    std::copy(bytes, bytes + size, next);
    (buffer.*&PutArea::pbump)(static_cast<int>(size));
    return true;
  }
};

// Bytes move between the caller and the stream's buffer directly: the ceremony of a formatted
// operation around each field costs more than the field.
int WriteBytes(const char* bytes, std::size_t size, std::ostream& out) {
  if (!out.good()) return kFailed;
  std::streambuf& buffer = *out.rdbuf();
  const auto count = static_cast<std::streamsize>(size);
  if (!PutArea::Append(buffer, bytes, size) && buffer.sputn(bytes, count) != count) {
    out.setstate(std::ios_base::badbit);
    return kFailed;
  }
  return kDone;
}

// Returns how many bytes were read; fewer than `size` leave the stream in a failed state.
std::size_t ReadBytes(std::istream& in, char* bytes, std::size_t size) {
  if (!in.good()) {
    in.setstate(std::ios_base::failbit);
    return 0;
  }
  const auto count =
      static_cast<std::size_t>(in.rdbuf()->sgetn(bytes, static_cast<std::streamsize>(size)));
  if (count < size) in.setstate(std::ios_base::eofbit | std::ios_base::failbit);
  return count;
}

// The least significant byte goes first, whatever the order of the processor.
template <typename Integer>
int WriteInteger(Integer value, std::ostream& out) {
  const auto bits = static_cast<std::make_unsigned_t<Integer>>(value);
  std::array<char, sizeof(Integer)> bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>(static_cast<std::uint8_t>((bits >> (8 * i)) & 0xff));
  }
  return WriteBytes(bytes.data(), bytes.size(), out);
}

template <typename Integer>
int ReadInteger(std::istream& in, Integer* value) {
  std::array<char, sizeof(Integer)> bytes;
  if (ReadBytes(in, bytes.data(), bytes.size()) != bytes.size()) return kFailed;
  std::uint64_t bits = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bits |= std::uint64_t{static_cast<std::uint8_t>(bytes[i])} << (8 * i);
  }
  *value = static_cast<Integer>(static_cast<std::make_unsigned_t<Integer>>(bits));
  return kDone;
}

int WriteLength(std::size_t length, std::ostream& out) {
  if (!std::in_range<std::uint32_t>(length)) return kFailed;
  return WriteInteger(static_cast<std::uint32_t>(length), out);
}

// Appends `length` bytes to `text`, which never grows much beyond what has really arrived.
int ReadText(std::istream& in, std::size_t length, std::string* text) {
  while (text->size() < length) {
    const std::size_t held = text->size();
    const std::size_t wanted = std::min(length - held, std::max(held, kTrustedBytes));
    text->resize(held + wanted);
    const std::size_t arrived = ReadBytes(in, text->data() + held, wanted);
    if (arrived != wanted) {
      text->resize(held + arrived);
      return kFailed;
    }
  }
  return kDone;
}

}  // namespace

int SerializationUtils::SerializeInt16(short value, std::ostream& out) {
  static_assert(sizeof(value) == 2);
  return WriteInteger(value, out);
}

int SerializationUtils::SerializeUInt16(unsigned short value, std::ostream& out) {
  static_assert(sizeof(value) == 2);
  return WriteInteger(value, out);
}

int SerializationUtils::SerializeInt32(int value, std::ostream& out) {
  static_assert(sizeof(value) == 4);
  return WriteInteger(value, out);
}

int SerializationUtils::SerializeChar(char value, std::ostream& out) {
  return WriteInteger(value, out);
}

int SerializationUtils::SerializeUChar(unsigned char value, std::ostream& out) {
  return WriteInteger(value, out);
}

int SerializationUtils::SerializeString(const std::string& value, std::ostream& out) {
  const int result = WriteLength(value.size(), out);
  return result == kDone ? WriteBytes(value.data(), value.size(), out) : result;
}

int SerializationUtils::SerializeStringVec(const std::vector<std::string>& value,
                                           std::ostream& out) {
  int result = WriteLength(value.size(), out);
  for (auto text = value.begin(); result == kDone && text != value.end(); ++text) {
    result = SerializeString(*text, out);
  }
  return result;
}

int SerializationUtils::SerializeLanguage(const std::string& value, std::ostream& out) {
  if (value.size() > kLanguageSize || value.find('\0') != std::string::npos) return kFailed;
  std::array<char, kLanguageSize> bytes{};
  std::copy(value.begin(), value.end(), bytes.begin());
  return WriteBytes(bytes.data(), bytes.size(), out);
}

int SerializationUtils::SerializeTimestamp(long long value, std::ostream& out) {
  static_assert(sizeof(value) == 8);
  return WriteInteger(value, out);
}

int SerializationUtils::DeserializeInt16(std::istream& in, short* value) {
  return ReadInteger(in, value);
}

int SerializationUtils::DeserializeUInt16(std::istream& in, unsigned short* value) {
  return ReadInteger(in, value);
}

int SerializationUtils::DeserializeInt32(std::istream& in, int* value) {
  return ReadInteger(in, value);
}

int SerializationUtils::DeserializeChar(std::istream& in, char* value) {
  return ReadInteger(in, value);
}

int SerializationUtils::DeserializeUChar(std::istream& in, unsigned char* value) {
  return ReadInteger(in, value);
}

int SerializationUtils::DeserializeString(std::istream& in, std::string* value) {
  value->clear();
  std::uint32_t length = 0;
  const int result = ReadInteger(in, &length);
  return result == kDone ? ReadText(in, length, value) : result;
}

int SerializationUtils::DeserializeStringVec(std::istream& in, std::vector<std::string>* value) {
  value->clear();
  std::uint32_t count = 0;
  int result = ReadInteger(in, &count);
  value->reserve(std::min<std::size_t>(count, kTrustedBytes / sizeof(std::string)));
  // Every text takes at least its length from the stream, so a count alone can't fill the memory.
  for (std::uint32_t i = 0; result == kDone && i < count; ++i) {
    result = DeserializeString(in, &value->emplace_back());
  }
  return result;
}

int SerializationUtils::DeserializeLanguage(std::istream& in, std::string* value) {
  value->clear();
  std::array<char, kLanguageSize> bytes;
  const std::size_t arrived = ReadBytes(in, bytes.data(), bytes.size());
  const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(arrived);
  value->assign(bytes.begin(), std::find(bytes.begin(), end, '\0'));
  return arrived == bytes.size() ? kDone : kFailed;
}

int SerializationUtils::DeserializeTimestamp(std::istream& in, long long* value) {
  return ReadInteger(in, value);
}

std::string SerializationUtils::ToHex(const std::vector<unsigned char>& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (const unsigned char byte : bytes) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 0x0f];
  }
  return hex;
}

}  // namespace velmora::utilities
