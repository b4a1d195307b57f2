// Values of any origin as arguments of the C functions, checked: one template for each kind of
// parameter.

#ifndef TOOLS_INSPECTOR_ARGUMENT_H_
#define TOOLS_INSPECTOR_ARGUMENT_H_

#include <fmt/format.h>

#include <array>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "include/usage_stat.h"
#include "tools/inspector/functions.h"

namespace velmora::usage_stat::inspector {

using records::Json;

// Holds one argument of type T:
//   Type(), Expected()  for people
//   kShape              how it is written
//   Set(value)          false when `value` does not fit
//   Get()               the argument, valid as long as the holder
template <class T>
struct Argument;

// ---- Numbers ----

// The name of an enumeration, as the compiler knows it.
template <class Enum>
std::string EnumName() {
  const std::string_view function =
      __PRETTY_FUNCTION__;  // "... [with Enum = Stat_ReadingMode; ..."
  constexpr std::string_view kBefore = "Enum = ";
  const std::size_t begin = function.find(kBefore) + kBefore.size();
  return std::string(function.substr(begin, function.find_first_of(";]", begin) - begin));
}

template <class T>
requires(std::integral<T> || std::is_enum_v<T>) struct Argument<T> {
  static constexpr Shape kShape = Shape::kNumber;
  static constexpr bool kIsFlag = std::same_as<T, bool>;
  // The values of one byte are accepted with and without a sign.
  static constexpr bool kIsByte = std::same_as<T, char>;
  using Limits = std::numeric_limits<std::conditional_t<std::is_enum_v<T>, std::int32_t, T>>;
  static constexpr std::int64_t kMin = kIsByte ? -128 : std::int64_t{Limits::min()};
  static constexpr std::int64_t kMax = kIsByte ? 255 : std::int64_t{Limits::max()};

  static std::string Type() {
    if constexpr (std::is_enum_v<T>) return EnumName<T>();
    if constexpr (kIsFlag) return "bool";
    if constexpr (kIsByte) return "char";
    if constexpr (std::same_as<T, std::uint8_t>) return "uint8_t";
    return sizeof(T) == sizeof(std::int16_t) ? "int16_t" : "int";
  }
  static std::string Expected() {
    return kIsFlag ? "true, false, 1 or 0"
                   : fmt::format("a whole number from {} to {}", kMin, kMax);
  }
  bool Set(const Json& json) {
    if (kIsFlag && json.is_boolean()) {
      value = static_cast<T>(json.get<bool>());
      return true;
    }
    if (!json.is_number_integer()) return false;
    const auto number = json.get<std::int64_t>();
    const bool is_huge = json.is_number_unsigned() && number < 0;
    value = static_cast<T>(number);
    return !is_huge && number >= kMin && number <= kMax;
  }
  T Get() const { return value; }

  T value{};
};

// ---- Texts ----

// A C string ends at its first NUL, so a text that holds one can't be passed.
inline std::optional<std::string> TextOf(const Json& json) {
  if (!json.is_string()) return std::nullopt;
  std::string text = json.get<std::string>();
  if (text.find('\0') != std::string::npos) return std::nullopt;
  return text;
}

template <>
struct Argument<const char*> {
  static constexpr Shape kShape = Shape::kText;
  static std::string Type() { return "const char *"; }
  static std::string Expected() { return "a text"; }
  bool Set(const Json& json) {
    text = TextOf(json);
    return text || json.is_null();
  }
  const char* Get() const { return text ? text->c_str() : nullptr; }

  std::optional<std::string> text;
};

// A list of texts that ends with a null pointer.
class TextList {
 public:
  bool Set(const Json& json) {
    is_null_ = json.is_null();
    if (is_null_) return true;
    if (!json.is_array()) return false;
    for (const Json& element : json) {
      auto text = TextOf(element);
      if (!text) return false;
      texts_.push_back(*std::move(text));
    }
    for (const std::string& text : texts_) pointers_.push_back(text.c_str());
    pointers_.push_back(nullptr);
    return true;
  }
  const char** Get() { return is_null_ ? nullptr : pointers_.data(); }

 private:
  bool is_null_ = false;
  std::vector<std::string> texts_;
  std::vector<const char*> pointers_;
};

struct TextListArgument : TextList {
  static constexpr Shape kShape = Shape::kTexts;
  static std::string Expected() { return "texts separated by commas"; }
};
template <>
struct Argument<const char* const*> : TextListArgument {
  static std::string Type() { return "const char *const *"; }
};
template <>
struct Argument<const char**> : TextListArgument {
  static std::string Type() { return "const char **"; }
};

// ---- Records ----

template <>
struct Argument<Margins> {
  static constexpr Shape kShape = Shape::kNumbers;
  static std::string Type() { return "struct Margins"; }
  static std::string Expected() { return "4 whole numbers from -128 to 127 separated by commas"; }
  // Takes the packed number of a record too, if there are margins that give it.
  bool Set(const Json& json) {
    std::array<Argument<std::int8_t>, 4> numbers;
    if (json.is_number_integer()) return Unpack(json.get<std::int64_t>());
    if (!json.is_array() || json.size() != numbers.size()) return false;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      if (!numbers[i].Set(json[i])) return false;
    }
    value = {numbers[0].value, numbers[1].value, numbers[2].value, numbers[3].value};
    return true;
  }
  Margins Get() const { return value; }

  Margins value{};

 private:
  bool Unpack(std::int64_t packed) {
    const auto margin = [packed](int shift) { return static_cast<std::int8_t>(packed >> shift); };
    value = {margin(24), margin(16), margin(8), margin(0)};
    // A negative margin sets every bit above its own byte.
    return std::int64_t{value.margin_1} * 0x1000000 == packed - (packed & 0xFFFFFF) &&
           (value.margin_2 >= 0 || value.margin_1 == -1) &&
           (value.margin_3 >= 0 || value.margin_2 == -1) &&
           (value.margin_4 >= 0 || value.margin_3 == -1);
  }
};

template <>
struct Argument<MarginsEx> {
  static constexpr Shape kShape = Shape::kTexts;
  static std::string Type() { return "struct MarginsEx"; }
  static std::string Expected() { return "8 texts of at most 31 bytes each, separated by commas"; }
  bool Set(const Json& json) {
    const std::array<char*, 8> margins = {value.margin_1, value.margin_2, value.margin_3,
                                          value.margin_4, value.margin_5, value.margin_6,
                                          value.margin_7, value.margin_8};
    if (!json.is_array() || json.size() != margins.size()) return false;
    for (std::size_t i = 0; i < margins.size(); ++i) {
      const auto text = TextOf(json[i]);
      if (!text || text->size() >= sizeof(value.margin_1)) return false;
      std::memcpy(margins[i], text->c_str(), text->size() + 1);
    }
    return true;
  }
  MarginsEx Get() const { return value; }

  MarginsEx value{};
};

// The books of a batch: paths, described as the new-book list describes them, or whole descriptions
// as records have them.
template <>
struct Argument<const Stat_BookInfo* const*> {
  static constexpr Shape kShape = Shape::kTexts;
  static std::string Type() { return "const Stat_BookInfo *const *"; }
  static std::string Expected() {
    return "paths of books that the device can read, separated by commas, or a JSON array of "
           "descriptions";
  }
  bool Set(const Json& json) {
    is_null = json.is_null();
    if (is_null) return true;
    if (!json.is_array()) return false;
    StatUtils_FreeStatList();
    for (const Json& element : json) {
      if (!(element.is_object() ? AddDescribed(element) : AddFromPath(element))) return false;
    }
    books.insert(books.end(), StatUtils_GetStatList(),
                 StatUtils_GetStatList() + StatUtils_StatListSize());
    // However many books are announced, the batch ends here.
    books.push_back(nullptr);
    return true;
  }
  const Stat_BookInfo* const* Get() const { return is_null ? nullptr : books.data(); }

  bool is_null = false;
  std::vector<const Stat_BookInfo*> books;

 private:
  struct Description {
    Stat_BookInfo info{};
    std::array<Argument<const char*>, 7> texts;
    std::array<TextList, 2> lists;
  };

  static bool AddFromPath(const Json& json) {
    const auto path = TextOf(json);
    const int size = StatUtils_StatListSize();
    if (path) StatUtils_AddNewBookToStatList(path->c_str());
    return StatUtils_StatListSize() > size;
  }

  bool AddDescribed(const Json& json) {
    Description& book = descriptions.emplace_back();
    const auto member = [&json](const char* name) { return json.value(name, Json()); };
    const char* const names[] = {"language", "file_type", "file_name", "title",
                                 "series",   "isbn",      "publisher"};
    for (std::size_t i = 0; i < book.texts.size(); ++i) {
      if (!book.texts[i].Set(member(names[i]))) return false;
    }
    if (!book.lists[0].Set(member("authors")) || !book.lists[1].Set(member("other_people"))) {
      return false;
    }
    Argument<int> book_id;
    Argument<int> n1;
    Argument<std::int16_t> n2;
    if (!book_id.Set(json.value("book_id", Json(0))) || !n1.Set(json.value("year", Json(0))) ||
        !n2.Set(json.value("series_number", Json(0)))) {
      return false;
    }
    const auto text = [&book](std::size_t i) { return book.texts[i].Get(); };
    book.info = {book_id.Get(),
                 text(0),
                 book.lists[0].Get(),
                 text(1),
                 book.lists[1].Get(),
                 n1.Get(),
                 n2.Get(),
                 text(2),
                 text(3),
                 text(4),
                 text(5),
                 text(6)};
    books.push_back(&book.info);
    return true;
  }

  std::list<Description> descriptions;  // never moved: the books point into them
};

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_ARGUMENT_H_
