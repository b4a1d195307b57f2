// Reads every primitive from any bytes, writes back what was read, and writes any text and list.

#include <common_utilities/serialization_utils.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Utils = velmora::utilities::SerializationUtils;

void Require(bool condition) {
  if (!condition) abort();
}

// Reads one value from the front of `bytes`. What was read must write the same bytes again, unless
// the value has several spellings.
template <class Value, class Read, class Write>
void CheckReading(const std::string& bytes, Read read, Write write, bool has_one_spelling = true) {
  std::istringstream in(bytes);
  Value value{};
  if (read(in, &value) != 0) {
    Require(!in.good());
    return;
  }
  const auto consumed = static_cast<std::size_t>(in.tellg());
  std::ostringstream out;
  Require(write(value, out) == 0);
  Require(out.str().size() == consumed);
  Require(!has_one_spelling || out.str() == bytes.substr(0, consumed));
}

// Writes `value`, which must read back as it was, or fails and writes nothing.
template <class Value, class Read, class Write>
void CheckWriting(const Value& value, Read read, Write write) {
  std::stringstream stream;
  if (write(value, stream) != 0) {
    Require(stream.str().empty());
    return;
  }
  Value back;
  Require(read(stream, &back) == 0 && back == value);
  Require(stream.peek() == std::char_traits<char>::eof());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  switch (input.ConsumeIntegralInRange(0, 11)) {
    case 0:
      CheckReading<short>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeInt16,
                          Utils::SerializeInt16);
      break;
    case 1:
      CheckReading<unsigned short>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeUInt16,
                                   Utils::SerializeUInt16);
      break;
    case 2:
      CheckReading<int>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeInt32,
                        Utils::SerializeInt32);
      break;
    case 3:
      CheckReading<char>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeChar,
                         Utils::SerializeChar);
      break;
    case 4:
      CheckReading<unsigned char>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeUChar,
                                  Utils::SerializeUChar);
      break;
    case 5:
      CheckReading<long long>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeTimestamp,
                              Utils::SerializeTimestamp);
      break;
    case 6:
      CheckReading<std::string>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeString,
                                Utils::SerializeString);
      break;
    case 7:
      CheckReading<std::vector<std::string>>(input.ConsumeRemainingBytesAsString(),
                                             Utils::DeserializeStringVec,
                                             Utils::SerializeStringVec);
      break;
    case 8:  // what follows the NUL of a language is lost
      CheckReading<std::string>(input.ConsumeRemainingBytesAsString(), Utils::DeserializeLanguage,
                                Utils::SerializeLanguage, false);
      break;
    case 9:
      CheckWriting(input.ConsumeRemainingBytesAsString(), Utils::DeserializeString,
                   Utils::SerializeString);
      break;
    case 10:
      CheckWriting(input.ConsumeRemainingBytesAsString(), Utils::DeserializeLanguage,
                   Utils::SerializeLanguage);
      break;
    default: {
      std::vector<std::string> texts;
      while (input.remaining_bytes() > 0) texts.push_back(input.ConsumeRandomLengthString());
      CheckWriting(texts, Utils::DeserializeStringVec, Utils::SerializeStringVec);
    }
  }
  return 0;
}
