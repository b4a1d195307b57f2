// The primitives of the record format: how one value becomes bytes, and back.
//
// This header is the contract between the statistics library and the platform. On a device the
// firmware brings the implementation; the host implementation lives in platform/common_utilities
// and encodes as follows (little-endian, no padding, no tags):
//
//   Int16, UInt16   2 bytes
//   Int32           4 bytes
//   Char, UChar     1 byte
//   Timestamp       8 bytes, signed milliseconds since the Unix epoch
//   String          UInt32 length, then the bytes
//   StringVec       UInt32 count, then that many Strings
//   Language        2 bytes, padded with NULs

#ifndef COMMON_UTILITIES_SERIALIZATION_UTILS_H_
#define COMMON_UTILITIES_SERIALIZATION_UTILS_H_

#include <iosfwd>
#include <string>
#include <vector>

namespace velmora::utilities {

// Every operation returns 0 on success and non-zero on failure. All are safe to call from several
// threads on different streams.
//
// The stream that a record is written to is as a string stream: writers may go back in it, to put
// in a length that they know afterwards, and read what was written. (Those of the host only
// append.) They fail when the stream is, or goes, into a failed state. Readers fail when the stream
// ends early; they never trust a length they read, so memory stays bounded by what the stream
// really holds. A destination must not be null; after a failed read of a number it holds what it
// held before, after a failed read of a text or list it holds the part that was read (the last text
// of the list may be cut short). What the stream's own buffer or an allocation throws passes
// through.
class __attribute__((visibility("default"))) SerializationUtils {
 public:
  static int SerializeInt16(short value, std::ostream& out);
  static int SerializeUInt16(unsigned short value, std::ostream& out);
  static int SerializeInt32(int value, std::ostream& out);
  static int SerializeChar(char value, std::ostream& out);
  static int SerializeUChar(unsigned char value, std::ostream& out);
  // Fails, writing nothing, on a text of 4 GiB or more.
  static int SerializeString(const std::string& value, std::ostream& out);
  static int SerializeStringVec(const std::vector<std::string>& value, std::ostream& out);
  // Fails, writing nothing, on a text longer than 2 bytes or one that holds a NUL.
  static int SerializeLanguage(const std::string& value, std::ostream& out);
  static int SerializeTimestamp(long long value, std::ostream& out);

  static int DeserializeInt16(std::istream& in, short* value);
  static int DeserializeUInt16(std::istream& in, unsigned short* value);
  static int DeserializeInt32(std::istream& in, int* value);
  static int DeserializeChar(std::istream& in, char* value);
  static int DeserializeUChar(std::istream& in, unsigned char* value);
  static int DeserializeString(std::istream& in, std::string* value);
  static int DeserializeStringVec(std::istream& in, std::vector<std::string>* value);
  // The text ends at the first NUL.
  static int DeserializeLanguage(std::istream& in, std::string* value);
  static int DeserializeTimestamp(std::istream& in, long long* value);

  // Two lower-case hexadecimal digits for each byte, in order.
  static std::string ToHex(const std::vector<unsigned char>& bytes);
};

}  // namespace velmora::utilities

#endif  // COMMON_UTILITIES_SERIALIZATION_UTILS_H_
