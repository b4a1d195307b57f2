// The text of a function's signature, as it stands in log lines: one spelling whichever compiler
// builds the library, since people and scripts search logs for it.

#ifndef STAT_EVENT_SIGNATURE_H_
#define STAT_EVENT_SIGNATURE_H_

#include <cstddef>
#include <string_view>

// The enclosing function's signature, a `const char*` to static storage.
#define STAT_SIGNATURE                                                        \
  (::velmora::usage_stat::kStaticText<::velmora::usage_stat::NormalSignature< \
       ::velmora::usage_stat::NormalSignatureLength(__PRETTY_FUNCTION__)>(__PRETTY_FUNCTION__)>)

namespace velmora::usage_stat {

template <std::size_t kLength>
struct FixedText {
  char text[kLength + 1] = {};
};

// Equal texts are one template argument and therefore one object in the library.
template <FixedText kText>
inline constexpr const char* kStaticText = kText.text;

// Hands `signature` to `put`, one character at a time, in the fixed spelling: `Type *` and `Type &`
// with the blank before the sign only, and margin records with their `struct`. Compilers differ in
// nothing else for the functions of this library.
template <class Put>
constexpr void SpellSignature(std::string_view signature, Put put) {
  constexpr std::string_view kRecord = "Margins";
  constexpr std::string_view kKeyword = "struct ";
  char previous = ' ';
  for (std::size_t i = 0; i < signature.size(); ++i) {
    const char c = signature[i];
    const bool is_sign = c == '*' || c == '&';
    const bool previous_is_sign = previous == '*' || previous == '&';
    if (c == ' ' && previous_is_sign) continue;
    if (is_sign && previous != ' ' && !previous_is_sign) put(' ');
    if (signature.substr(i).starts_with(kRecord) && (previous == ' ' || previous == '(') &&
        !signature.substr(0, i).ends_with(kKeyword)) {
      for (const char k : kKeyword) put(k);
    }
    put(c);
    previous = c;
  }
}

consteval std::size_t NormalSignatureLength(std::string_view signature) {
  std::size_t length = 0;
  SpellSignature(signature, [&length](char) { ++length; });
  return length;
}

template <std::size_t kLength>
consteval FixedText<kLength> NormalSignature(std::string_view signature) {
  FixedText<kLength> result;
  std::size_t length = 0;
  SpellSignature(signature, [&](char c) { result.text[length++] = c; });
  return result;
}

}  // namespace velmora::usage_stat

#endif  // STAT_EVENT_SIGNATURE_H_
