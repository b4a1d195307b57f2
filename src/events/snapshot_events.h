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
  static constexpr std::size_t kLeastSize = 2;
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
    return std::tuple{Field{"language", TwoChars{}, &LanguageChangeEvent::language_}};
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
    return std::tuple{Field{"version", String{}, &VersionEvent::version_}};
  }

  std::string version_;
};

// The number of lists that follow. Deliberately asymmetric: the writer always sends 3, the reader
// takes any number and does not look at it.
struct KeyListCount {
  static constexpr const char* kPrimitive = Int16::kPrimitive;
  static constexpr std::size_t kLeastSize = Int16::kLeastSize;
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

// The key assignments of one mapping set.
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
        Section{"list_count", KeyListCount{}},
        Section{"mappings_0", KeyList<0>{}},
        Section{"mappings_1", KeyList<1>{}},
        Section{"mappings_2", KeyList<2>{}},
    };
  }

  std::array<std::vector<Keymapping>, KeyListCount::kCount> mappings_;  // by mapping set
};

// A device identifier, 20 Chars.
struct DeviceId {
  using Bytes = std::array<std::int8_t, 20>;
  static constexpr const char* kPrimitive = "Char x20";
  static constexpr std::size_t kLeastSize = std::tuple_size_v<Bytes>;
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
        Field{"device_id", DeviceId{}, &DeviceInfoEvent::device_id_},
        Field{"model_code", Int16{}, &DeviceInfoEvent::model_code_},
        Field{"partner_name", String{}, &DeviceInfoEvent::partner_name_},
        Field{"encrypted_serial", String{}, &DeviceInfoEvent::encrypted_serial_},
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
