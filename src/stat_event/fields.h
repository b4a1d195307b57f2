// How an event states its payload once, and the runner that writes and reads it.
//
// An event class lists its fields in wire order:
//
//   static constexpr auto Fields() {
//     return std::tuple{Field{"page", Int16{}, &AddNoteEvent::b_, kPage}, ...};
//   }
//
// and has both stream operations by STAT_DEFINE_STREAM_OPERATIONS(Class) in src/events/events.cpp.
// Writer, reader, and everything that the tools know of a field run over that one list. The codec
// belongs to the list because it does not always follow from the member's type.
//
// The name is the one that people use: the member's own where it has one, else the one that the
// applications have agreed on (include/usage_stat.h), else its letter. Names never change again:
// queries, files and programs that others wrote depend on them.
//
// Each class repeats its constructor and the two declarations, though a base template could have
// them once: a failed step is logged with the signature of the class's own operation and with the
// source unit of its family. Log filters look for both, so the operations have to be members of the
// very class, defined in a source file of its unit.

#ifndef STAT_EVENT_FIELDS_H_
#define STAT_EVENT_FIELDS_H_

#include <common_utilities/serialization_utils.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "src/stat_event/check.h"

namespace velmora::usage_stat {

// ---- Codecs: one value on the wire. Write and Read return 0 or the primitive's failure. ----
//
// Each says what documentation calls it, and how many bytes its values take.

// What tools go by where they only have the bytes: to tell what a cut record lacks, or where a
// value stands.
struct Extent {
  enum Form : std::uint8_t {
    kFixed,  // `least`, always
    kText,   // a length in `least` bytes, then as many bytes
    kTexts,  // a count in `least` bytes, then as many texts
  };
  Form form;
  std::size_t least;
};

// The codec of a primitive that carries a member of type `Value` as it is.
#define STAT_PRIMITIVE_CODEC(Primitive, Value, form, least)                    \
  struct Primitive {                                                           \
    static constexpr const char* kPrimitive = #Primitive;                      \
    static constexpr Extent kExtent{Extent::form, least};                      \
    static int Write(const Value& value, std::ostream& out) {                  \
      return utilities::SerializationUtils::Serialize##Primitive(value, out);  \
    }                                                                          \
    static int Read(std::istream& in, Value* value) {                          \
      return utilities::SerializationUtils::Deserialize##Primitive(in, value); \
    }                                                                          \
  };

STAT_PRIMITIVE_CODEC(Int16, std::int16_t, kFixed, 2)
STAT_PRIMITIVE_CODEC(UInt16, std::uint16_t, kFixed, 2)
STAT_PRIMITIVE_CODEC(Int32, std::int32_t, kFixed, 4)
STAT_PRIMITIVE_CODEC(Char, char, kFixed, 1)
STAT_PRIMITIVE_CODEC(UChar, std::uint8_t, kFixed, 1)
STAT_PRIMITIVE_CODEC(String, std::string, kText, 4)
STAT_PRIMITIVE_CODEC(StringVec, std::vector<std::string>, kTexts, 4)
STAT_PRIMITIVE_CODEC(Language, std::string, kFixed, 2)

#undef STAT_PRIMITIVE_CODEC

// A 32-bit member of which only the low 16 bits travel; reading extends their sign.
struct NarrowInt16 {
  static constexpr const char* kPrimitive = Int16::kPrimitive;
  static constexpr Extent kExtent = Int16::kExtent;
  static int Write(std::int32_t value, std::ostream& out) {
    return Int16::Write(static_cast<std::int16_t>(value), out);
  }
  static int Read(std::istream& in, std::int32_t* value) {
    std::int16_t narrow = 0;
    const int err = Int16::Read(in, &narrow);
    if (err == 0) *value = narrow;
    return err;
  }
};

// A flag that travels as a Char 0 or 1; any other byte than 0 reads as true.
struct FlagChar {
  static constexpr const char* kPrimitive = Char::kPrimitive;
  static constexpr Extent kExtent = Char::kExtent;
  static int Write(bool value, std::ostream& out) { return Char::Write(value ? 1 : 0, out); }
  static int Read(std::istream& in, bool* value) {
    char byte = 0;
    const int err = Char::Read(in, &byte);
    if (err == 0) *value = byte != 0;
    return err;
  }
};

// ---- What a field means ----
//
// For tools alone: nothing of it is in the library of the device.

// How a value is to be taken. tools/records/kinds.cpp has the words for people, and the names of
// the values that have some.
enum class Kind : std::uint8_t {
  kOwn,       // the application's own: it means what application and analyst agree on
  kReserved,  // no meaning yet
  kNumber,
  kCount,
  kRowCount,  // the number of rows that follow
  kRows,      // a list whose rows have fields of their own
  kFlag,      // 0 or 1
  kBookId,    // Stat_GetBookId of the book's path; a record with one is a record of that book
  kPage,      // a page number
  kPages,     // how many pages a book has
  kApplication,
  kProcessId,
  kKey,
  kKeyAction,
  kDeviceModel,
  kPackedMargins,  // four bytes, the first margin in the highest
  kText,
  kTexts,
  kLanguage,
  kIdentifier,
  // The enumerations of the public header.
  kLibraryMode,
  kLibraryFilter,
  kLibraryGroupBy,
  kLibrarySortBy,
  kLibraryView,
  kLibraryShowMemory,
  kExplorer3Mode,
  kExplorer3GroupBy,
  kExplorer3SortBy,
  kExplorer3Direction,
  kExplorer3View,
  kReadingMode,
  kScaleType,
  kCropType,
  kLineBreak,
  kUpdateMode,
};

// What a value may tell about a person. Policies on what leaves a device go by it.
enum class Sensitivity : std::uint8_t {
  kTechnical,    // the device and its software
  kInteraction,  // what somebody does with the device
  kContent,      // what somebody reads, writes or looks up, or anything at all
  kIdentifying,  // tells one device or one book from all others
};

template <class...>
inline constexpr bool kNever = false;

struct Meaning {
  constexpr Meaning(Kind its_kind, Sensitivity its_sensitivity, const char* its_text)
      : kind(its_kind), sensitivity(its_sensitivity), text(its_text) {}

  template <class... Given>
  constexpr explicit Meaning(Kind, Given...) {
    static_assert(
        kNever<Given...>,
        "a Meaning lacks something: it takes a Kind, a Sensitivity and a text of one line "
        "(src/stat_event/fields.h)");
  }

  Kind kind;
  Sensitivity sensitivity;
  const char* text;  // one line: unit and range, and what 0 or an empty text stands for
};

// Meanings that many fields share.
inline constexpr Meaning kOwn{Kind::kOwn, Sensitivity::kContent, "the application's own"};
inline constexpr Meaning kBook{Kind::kBookId, Sensitivity::kIdentifying,
                               "the book, by the id of its path"};
inline constexpr Meaning kBookLanguage{Kind::kLanguage, Sensitivity::kContent,
                                       "language of the book, two letters; empty when unknown"};
inline constexpr Meaning kFileType{Kind::kText, Sensitivity::kContent,
                                   "type of the file, such as .epub or .fb2.zip"};
inline constexpr Meaning kFileName{Kind::kText, Sensitivity::kContent,
                                   "name of the book's file, without folders"};
inline constexpr Meaning kPages{Kind::kPages, Sensitivity::kInteraction,
                                "pages that the book has, as it is displayed"};

// ---- Fields ----

// One member of an event and its place in the payload.
template <class FieldCodec, class Owner, class Member>
struct Field {
  using Codec = FieldCodec;

  constexpr Field(const char* field_name, Codec, Member Owner::*field_member, Meaning field_meaning)
      : name(field_name), member(field_member), meaning(field_meaning) {}

  template <class... Given>
  constexpr Field(const char*, Codec, Member Owner::*, Given...) : meaning(kOwn) {
    static_assert(
        kNever<Given...>,
        "a Field lacks its Meaning: what it means to people, of which kind it is, and how "
        "sensitive; kOwn for what is the application's own (src/stat_event/fields.h)");
  }

  int Write(const Owner& owner, std::ostream& out) const {
    return Codec::Write(owner.*member, out);
  }
  int Read(std::istream& in, Owner* owner) const { return Codec::Read(in, &(owner->*member)); }

  const char* name;
  Member Owner::*member;
  Meaning meaning;
};

template <class Codec, class Owner, class Member, class... Given>
Field(const char*, Codec, Member Owner::*, Given...) -> Field<Codec, Owner, Member>;

// A piece of the payload that is not one member: its codec sees the whole event.
template <class SectionCodec>
struct Section {
  using Codec = SectionCodec;

  constexpr Section(const char* section_name, Codec, Meaning section_meaning)
      : name(section_name), meaning(section_meaning) {}

  template <class... Given>
  constexpr Section(const char*, Codec, Given...) : meaning(kOwn) {
    static_assert(kNever<Given...>, "a Section lacks its Meaning (src/stat_event/fields.h)");
  }

  template <class Owner>
  int Write(Owner& owner, std::ostream& out) const {
    return Codec::Write(owner, out);
  }
  template <class Owner>
  int Read(std::istream& in, Owner* owner) const {
    return Codec::Read(in, owner);
  }

  const char* name;
  Meaning meaning;
};

template <class Codec, class... Given>
Section(const char*, Codec, Given...) -> Section<Codec>;

// The fields of an event class as a constant, so that each step of the runners below has its member
// built in and no list is made at run time.
template <class Owner>
inline constexpr auto kFields = Owner::Fields();

// Writes or reads the fields of `owner` in order. Stops at the first step that fails and returns
// its result.
template <class Owner>
int WriteFields([[maybe_unused]] Owner& owner, [[maybe_unused]] std::ostream& out) {
  int err = 0;
  std::apply(
      [&](const auto&... field) {
        static_cast<void>((... && ((err = field.Write(owner, out)) == 0)));
      },
      kFields<std::remove_const_t<Owner>>);
  return err;
}

template <class Owner>
int ReadFields([[maybe_unused]] std::istream& in, [[maybe_unused]] Owner* owner) {
  int err = 0;
  std::apply(
      [&](const auto&... field) {
        static_cast<void>((... && ((err = field.Read(in, owner)) == 0)));
      },
      kFields<Owner>);
  return err;
}

}  // namespace velmora::usage_stat

// Define the stream operations of an event class from its Fields(). They stand in one source
// file, so that each signature text exists once.
#define STAT_DEFINE_STREAM_OPERATIONS(Class) \
  STAT_DEFINE_WRITER(Class)                  \
  STAT_DEFINE_READER(Class)

#define STAT_DEFINE_WRITER(Class)                    \
  int Class::WriteStateToStream(std::ostream& out) { \
    const int err = WriteFields(*this, out);         \
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);         \
    return 0;                                        \
  }

#define STAT_DEFINE_READER(Class)                    \
  int Class::ReadStateFromStream(std::istream& in) { \
    const int err = ReadFields(in, this);            \
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);         \
    return 0;                                        \
  }

#endif  // STAT_EVENT_FIELDS_H_
