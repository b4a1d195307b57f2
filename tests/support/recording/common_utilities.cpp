#include <common_utilities/message_client.h>
#include <common_utilities/serialization_utils.h>

#include <istream>
#include <ostream>
#include <string_view>

#include "tests/support/recording/recorder.h"

namespace velmora::utilities {

using usage_stat_test::Note;
using usage_stat_test::Recorded;

namespace {

constexpr int kStepError = 77;

// Counts the primitive that begins.
bool IsFailing() { return ++Recorded().steps == Recorded().failing_step; }

int WriteSilently(std::string_view bytes, std::ostream& out) {
  out.rdbuf()->sputn(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return 0;
}

template <class Value>
int Write(const char* primitive, const Value& value, std::ostream& out) {
  out << primitive << ' ' << value << "; ";
  return 0;
}

// Writes what Write() does, the way of a platform that knows a text's head only after the text:
// goes back to fill it in, reads the text again, and takes up where it was.
int WritePatching(const std::string& text, std::ostream& out) {
  const std::ostream::pos_type head = out.tellp();
  out << "?????? " << text;
  out.seekp(head) << "String";
  std::string read(text.size(), '?');
  std::streambuf& buffer = *out.rdbuf();
  buffer.pubseekpos(head + std::streamoff{7}, std::ios_base::in);
  buffer.sgetn(read.data(), static_cast<std::streamsize>(read.size()));
  out.seekp(0, std::ios_base::end) << "; ";
  // Neither position goes beyond what was written, and both can't move by what one of them was.
  const std::streambuf::pos_type failed(std::streamoff{-1});
  const bool is_bound = buffer.pubseekoff(1, std::ios_base::end) == failed &&
                        buffer.pubseekoff(0, std::ios_base::cur) == failed;
  return read == text && is_bound && out ? 0 : kStepError;
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) joined += '[' + text + ']';
  return joined;
}

}  // namespace

MessageClient::MessageClient() : address_(), address_length_(0), capacity_(0) {
  Recorded().steps = 0;
  Note([] { return "MessageClient"; });
}

MessageClient::~MessageClient() {
  Note([] { return "~MessageClient"; });
}

int MessageClient::Init(const char* name, unsigned int name_length, unsigned int capacity) {
  Note([=] { return "Init " + std::string(name, name_length) + ' ' + std::to_string(capacity); });
  return Recorded().init_result;
}

int MessageClient::SendMessage(const char* data, unsigned int size) {
  Note([=] {
    Recorded().message.assign(data, size);
    return "SendMessage";
  });
  return Recorded().send_result;
}

#define RECORDED_PRIMITIVE(Primitive, Value, Text)                                      \
  int SerializationUtils::Serialize##Primitive(Value value, std::ostream& out) {        \
    if (IsFailing()) return kStepError;                                                 \
    if (Recorded().is_silent) return WriteSilently(#Primitive, out);                    \
    return Write(#Primitive, Text, out);                                                \
  }                                                                                     \
  int SerializationUtils::Deserialize##Primitive(std::istream&, std::decay_t<Value>*) { \
    return kStepError;                                                                  \
  }

RECORDED_PRIMITIVE(Int16, short, value)
RECORDED_PRIMITIVE(UInt16, unsigned short, value)
RECORDED_PRIMITIVE(Int32, int, value)
RECORDED_PRIMITIVE(Char, char, int{static_cast<unsigned char>(value)})
RECORDED_PRIMITIVE(UChar, unsigned char, int{value})
RECORDED_PRIMITIVE(StringVec, const std::vector<std::string>&, Joined(value))
RECORDED_PRIMITIVE(Language, const std::string&, value)
RECORDED_PRIMITIVE(Timestamp, long long, value > 0 ? "now" : "never")

#undef RECORDED_PRIMITIVE

int SerializationUtils::SerializeString(const std::string& value, std::ostream& out) {
  if (IsFailing()) return kStepError;
  if (Recorded().is_silent) return WriteSilently(value, out);
  return Recorded().patches_texts ? WritePatching(value, out) : Write("String", value, out);
}
int SerializationUtils::DeserializeString(std::istream&, std::string*) { return kStepError; }

std::string SerializationUtils::ToHex(const std::vector<unsigned char>&) { return "hex"; }

}  // namespace velmora::utilities
