// One record of every type: no field empty, no two numbers alike where their range allows it.

#ifndef USAGE_STAT_TESTS_SUPPORT_SAMPLE_RECORDS_H_
#define USAGE_STAT_TESTS_SUPPORT_SAMPLE_RECORDS_H_

#include <array>
#include <concepts>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "src/events/events.h"
#include "src/measurements/measurements.h"

namespace usage_stat_test {

struct SampleRecord {
  const char* class_name;
  std::string bytes;
};

// Fills events from their own lists of fields, so that a new class or field needs nothing here.
class SampleFiller {
 public:
  template <class Owner>
  void FillFields(Owner* owner) {
    std::apply([&](const auto&... field) { (Fill(field, owner), ...); }, Owner::Fields());
  }

 private:
  template <class Codec, class Owner, class Member>
  void Fill(const velmora::usage_stat::Field<Codec, Owner, Member>& field, auto* owner) {
    using velmora::usage_stat::Language;
    using velmora::usage_stat::TwoChars;
    if constexpr (std::same_as<Codec, Language> || std::same_as<Codec, TwoChars>) {
      owner->*field.member = "en";
    } else {
      Set(&(owner->*field.member));
    }
  }

  template <class Codec, class Owner>
  void Fill(const velmora::usage_stat::Section<Codec>&, Owner* owner) {
    if constexpr (requires { owner->records_; }) {
      owner->count_ = 2;
      owner->records_.resize(2);
      for (auto& record : owner->records_) FillFields(&record);
    } else if constexpr (requires { owner->mappings_; }) {
      for (auto& mapping : owner->mappings_) {
        const int code = Next();
        mapping = {Keymapping::FromKeyCode(code, 7), Keymapping::FromKeyCode(code + 256, 8)};
      }
    } else {
      FillFields(&owner->event_);
    }
  }

  void Set(std::integral auto* number) {
    *number = static_cast<std::remove_pointer_t<decltype(number)>>(Next());
  }
  void Set(std::string* text) { *text = "text " + std::to_string(Next()); }
  void Set(std::vector<std::string>* texts) {
    texts->resize(2);
    for (std::string& text : *texts) Set(&text);
  }
  template <std::size_t kSize>
  void Set(std::array<std::int8_t, kSize>* bytes) {
    for (std::int8_t& byte : *bytes) Set(&byte);
  }

  int Next() { return ++last_; }

  int last_ = 0;
};

template <class EventClass>
SampleRecord MakeSampleRecord(const char* class_name) {
  constexpr long long kSomeTime = 1'700'000'000'123;
  EventClass event;
  event.timestamp_ = kSomeTime;
  SampleFiller().FillFields(&event);
  std::ostringstream out;
  event.WriteToStream(out);
  return {class_name, out.str()};
}

inline std::vector<SampleRecord> SampleRecords() {
  using namespace velmora::usage_stat;
  return {
#define STAT_EVENT_TYPE(code, enumerator, Class) MakeSampleRecord<Class>(#Class),
#include "src/stat_event/event_types.inc"
#undef STAT_EVENT_TYPE
  };
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_SAMPLE_RECORDS_H_
