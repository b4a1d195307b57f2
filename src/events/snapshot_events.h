// The payloads of the device snapshots.

#ifndef EVENTS_SNAPSHOT_EVENTS_H_
#define EVENTS_SNAPSHOT_EVENTS_H_

#include <array>

#include "src/events/keymapping.h"
#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

// A text of two Chars, without a length. Write needs a text of exactly two: its event looks.
struct TwoChars {
  static constexpr const char* kPrimitive = "Char x2";
  static constexpr Extent kExtent{Extent::kFixed, 2};
  static int Write(const std::string& text, std::ostream& out);
  static int Read(std::istream& in, std::string* text);
};

// The interface language.
class LanguageChangeEvent : public Event {
 public:
  LanguageChangeEvent() : Event(EventFactory::kLanguageChange) {}
  // Fails, writing nothing, unless the language has exactly 2 characters.
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{Field{"language", TwoChars{}, &LanguageChangeEvent::language_,
                            Meaning{Kind::kLanguage, Sensitivity::kTechnical,
                                    "language of the interface, two letters; ?? when unknown"}}};
  }

  std::string language_;
};

// The software version. It has no type code of its own and travels only inside its measurement; the
// results of its primitive pass through unlogged.
class VersionEvent : public Event {
 public:
  VersionEvent() : Event(EventFactory::kNone) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"version", String{}, &VersionEvent::version_,
              Meaning{Kind::kText, Sensitivity::kTechnical, "version of the software"}}};
  }

  std::string version_;
};

// The number of lists that follow. Deliberately asymmetric: the writer always sends 3, the reader
// takes any number and does not look at it.
struct KeyListCount {
  static constexpr const char* kPrimitive = Int16::kPrimitive;
  static constexpr Extent kExtent = Int16::kExtent;
  static constexpr std::int16_t kCount = 3;
  template <class Owner>
  static int Write(const Owner&, std::ostream& out) {
    return Int16::Write(kCount, out);
  }
  template <class Owner>
  static int Read(std::istream& in, Owner*) {
    std::int16_t ignored = 0;
    return Int16::Read(in, &ignored);
  }
};

// A byte of a key code on the wire, with its sign.
struct KeyByte {
  static constexpr const char* kPrimitive = "Int8";
  static constexpr Extent kExtent{Extent::kFixed, 1};
  static int Write(std::int8_t value, std::ostream& out) {
    return Char::Write(static_cast<char>(value), out);
  }
  static int Read(std::istream& in, std::int8_t* value) {
    char byte = 0;
    const int err = Char::Read(in, &byte);
    if (err == 0) *value = static_cast<std::int8_t>(byte);
    return err;
  }
};

// The second byte of a key code, as readers rebuild it: with 1 taken away after a first byte below
// 0.
struct KeyKindByte : KeyByte {};

// One key assignment as its list carries it; SerializeKeyMapping and DeserializeKeyMapping do.
struct KeyAssignment {
  static constexpr auto Fields() {
    return std::tuple{
        Field{"key", KeyByte{}, &Keymapping::key,
              Meaning{Kind::kKey, Sensitivity::kInteraction, "button index, 0 to 31"}},
        Field{"kind", KeyKindByte{}, &Keymapping::kind,
              Meaning{Kind::kNumber, Sensitivity::kInteraction,
                      "0: the key's first action, 1: its second; read one less after a key below "
                      "0"}},
        Field{"action", Int16{}, &Keymapping::action,
              Meaning{Kind::kKeyAction, Sensitivity::kInteraction, "what the key does"}},
    };
  }
};

inline constexpr Meaning kKeyList{Kind::kRows, Sensitivity::kInteraction,
                                  "key assignments of one mapping set"};

// The key assignments of one mapping set: its number, their count, then the assignments.
template <std::int16_t kSet>
struct KeyList {
  template <class Owner>
  static int Write(const Owner& owner, std::ostream& out) {
    return SerializeKeyMapping(kSet, owner.mappings_[kSet], out);
  }
  template <class Owner>
  static int Read(std::istream& in, Owner* owner) {
    return DeserializeKeyMapping(in, kSet, &owner->mappings_[kSet]);
  }
};

// The actions that the user has assigned to the keys.
class KeyboardSettingsEvent : public Event {
 public:
  KeyboardSettingsEvent() : Event(EventFactory::kKeyboardSettings) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Section{"list_count", KeyListCount{},
                Meaning{Kind::kReserved, Sensitivity::kTechnical, "lists that follow, always 3"}},
        Section{"mappings_0", KeyList<0>{}, kKeyList},
        Section{"mappings_1", KeyList<1>{}, kKeyList},
        Section{"mappings_2", KeyList<2>{}, kKeyList},
    };
  }

  std::array<std::vector<Keymapping>, KeyListCount::kCount> mappings_;  // by mapping set
};

// A device identifier, 20 Chars.
struct DeviceId {
  using Bytes = std::array<std::int8_t, 20>;
  static constexpr const char* kPrimitive = "Char x20";
  static constexpr Extent kExtent{Extent::kFixed, std::tuple_size_v<Bytes>};
  static int Write(const Bytes& id, std::ostream& out);
  static int Read(std::istream& in, Bytes* id);
};

// The identity of the device. It has no type code of its own and travels only inside its
// measurement.
class DeviceInfoEvent : public Event {
 public:
  DeviceInfoEvent() : Event(EventFactory::kNone) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"device_id", DeviceId{}, &DeviceInfoEvent::device_id_,
              Meaning{Kind::kIdentifier, Sensitivity::kIdentifying,
                      "what tells this device from all others"}},
        Field{"model_code", Int16{}, &DeviceInfoEvent::model_code_,
              Meaning{Kind::kDeviceModel, Sensitivity::kTechnical,
                      "model of the device; 0 when unknown"}},
        Field{"partner_name", String{}, &DeviceInfoEvent::partner_name_,
              Meaning{Kind::kText, Sensitivity::kTechnical,
                      "partner that sells the device; empty for none"}},
        Field{"encrypted_serial", String{}, &DeviceInfoEvent::encrypted_serial_,
              Meaning{Kind::kIdentifier, Sensitivity::kIdentifying,
                      "serial number: an initialisation vector, then AES-256-CBC, in hexadecimal; "
                      "empty for partners whose serial numbers are not reported"}},
    };
  }

  DeviceId::Bytes device_id_{};
  std::int16_t model_code_ = 0;
  std::string partner_name_;
  // Hexadecimal: the initialisation vector, then the encrypted serial number. Empty for partners
  // whose serial numbers are not reported.
  std::string encrypted_serial_;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_SNAPSHOT_EVENTS_H_
