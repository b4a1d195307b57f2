#include "src/events/snapshot_events.h"

namespace velmora::usage_stat {

// ---- Codecs ----

int TwoChars::Write(const std::string& text, std::ostream& out) {
  const int err = Char::Write(text[0], out);
  return err != 0 ? err : Char::Write(text[1], out);
}

int TwoChars::Read(std::istream& in, std::string* text) {
  text->clear();
  for (int i = 0; i < 2; ++i) {
    char c = 0;
    if (const int err = Char::Read(in, &c); err != 0) return err;
    text->push_back(c);
  }
  return 0;
}

int DeviceId::Write(const Bytes& id, std::ostream& out) {
  for (const std::int8_t byte : id) {
    if (const int err = Char::Write(static_cast<char>(byte), out); err != 0) return err;
  }
  return 0;
}

int DeviceId::Read(std::istream& in, Bytes* id) {
  for (std::int8_t& byte : *id) {
    char c = 0;
    if (const int err = Char::Read(in, &c); err != 0) return err;
    byte = static_cast<std::int8_t>(c);
  }
  return 0;
}

// ---- Events ----

int LanguageChangeEvent::WriteStateToStream(std::ostream& out) {
  STAT_RETURN_UNLESS(2 == language_.length(), VM_FAILED);
  const int err = WriteFields(*this, out);
  STAT_RETURN_UNLESS(0 == err, VM_FAILED);
  return 0;
}

STAT_DEFINE_READER(LanguageChangeEvent)

int VersionEvent::WriteStateToStream(std::ostream& out) { return WriteFields(*this, out); }

int VersionEvent::ReadStateFromStream(std::istream& in) { return ReadFields(in, this); }

STAT_DEFINE_STREAM_OPERATIONS(KeyboardSettingsEvent)
STAT_DEFINE_STREAM_OPERATIONS(DeviceInfoEvent)

}  // namespace velmora::usage_stat
