#include "corvane/xml.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <utility>

#include "corvane/text.h"

namespace corvane {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

void SkipBlanks(std::string_view* text) {
  text->remove_prefix(std::min(text->find_first_not_of(kBlanks), text->size()));
}

// The value of the XML declaration's encoding, in lower case; "" if none is declared. Blanks before
// the declaration are a mistake that is as common as harmless.
std::string DeclaredEncoding(std::string_view text) {
  constexpr std::size_t kMaxDeclaration = 200;
  constexpr std::string_view kKey = "encoding";
  SkipBlanks(&text);
  if (!text.starts_with("<?xml")) return {};
  text = text.substr(0, std::min(text.find("?>"), kMaxDeclaration));
  const std::size_t key = text.find(kKey);
  if (key == text.npos) return {};
  text.remove_prefix(key + kKey.size());
  SkipBlanks(&text);
  if (!text.starts_with('=')) return {};
  text.remove_prefix(1);
  SkipBlanks(&text);
  if (text.empty()) return {};
  const char quote = text.front();
  text.remove_prefix(1);
  return ToLower(text.substr(0, text.find(quote)));
}

struct Encoding {
  enum Kind { kUtf8, kConverted, kUnknown } kind = kUtf8;
  std::string name;  // as the converter knows it, of kConverted
};

// The encodings that books really come in, which are those of one byte a character besides UTF-8
// and UTF-16. Others are not handed to the converter: its rarer modules are no place for a
// stranger's file.
Encoding EncodingOf(std::string_view text) {
  using namespace std::string_view_literals;
  for (const auto& [start, name] :
       {std::pair("\xFF\xFE"sv, "utf-16"), std::pair("\xFE\xFF"sv, "utf-16"),
        std::pair("<\0"sv, "utf-16le"), std::pair("\0<"sv, "utf-16be")}) {
    if (text.starts_with(start)) return {Encoding::kConverted, name};
  }
  const std::string declared = DeclaredEncoding(text);
  // One that says UTF-16 here, in single bytes, is mistaken about itself.
  for (const char* utf8 : {"", "utf-8", "utf8", "us-ascii", "ascii", "utf-16"}) {
    if (declared == utf8) return {};
  }
  struct Family {
    const char* prefix;
    int first;
    int last;
    const char* name;  // the converter's prefix
  };
  for (const auto& [prefix, first, last, name] :
       {Family{"windows-", 1250, 1258, "windows-"}, Family{"windows", 1250, 1258, "windows-"},
        Family{"win-", 1250, 1258, "windows-"}, Family{"cp", 1250, 1258, "windows-"},
        Family{"iso-8859-", 1, 16, "iso-8859-"}, Family{"iso8859-", 1, 16, "iso-8859-"},
        Family{"iso_8859-", 1, 16, "iso-8859-"}, Family{"latin", 1, 1, "iso-8859-"},
        Family{"cp", 866, 866, "cp"}, Family{"ibm", 866, 866, "cp"}}) {
    for (int number = first; number <= last; ++number) {
      const std::string text_of_number = std::to_string(number);
      if (declared == prefix + text_of_number) return {Encoding::kConverted, name + text_of_number};
    }
  }
  if (declared == "koi8-r" || declared == "koi8-u") return {Encoding::kConverted, declared};
  return {Encoding::kUnknown, {}};
}

// Converts to UTF-8. A character that can't be converted becomes '?', and one that is cut off at
// the end is dropped.
std::optional<std::string> Convert(std::string* text, const std::string& encoding) {
  iconv_t converter = iconv_open("utf-8", encoding.c_str());
  if (reinterpret_cast<std::intptr_t>(converter) == -1) return std::nullopt;
  std::string converted;
  char* in = text->data();
  std::size_t in_left = text->size();
  const std::size_t unit = encoding.starts_with("utf-16") ? 2 : 1;
  while (in_left > 0) {
    std::array<char, 4096> chunk;
    char* out = chunk.data();
    std::size_t out_left = chunk.size();
    const std::size_t result = iconv(converter, &in, &in_left, &out, &out_left);
    const int error = errno;
    converted.append(chunk.data(), chunk.size() - out_left);
    if (result == static_cast<std::size_t>(-1) && error == EILSEQ) {
      converted.push_back('?');
      const std::size_t skipped = std::min(unit, in_left);
      in += skipped;
      in_left -= skipped;
    } else if (result == static_cast<std::size_t>(-1) && error != E2BIG) {
      break;
    }
  }
  iconv_close(converter);
  return converted;
}

// Empties the texts that can't be read: to say nothing beats a title of replacement characters.
class UnreadableTexts : public pugi::xml_tree_walker {
 public:
  explicit UnreadableTexts(bool (*is_readable)(std::string_view)) : is_readable_(is_readable) {}

 private:
  bool for_each(pugi::xml_node& node) override {
    if (!is_readable_(node.value())) node.set_value("");
    for (pugi::xml_attribute each : node.attributes()) {
      if (!is_readable_(each.value())) each.set_value("");
    }
    return true;
  }

  bool (*const is_readable_)(std::string_view);
};

}  // namespace

bool ParseXml(std::string text, pugi::xml_document* document) {
  Encoding encoding = EncodingOf(text);
  if (encoding.kind == Encoding::kConverted) {
    if (auto converted = Convert(&text, encoding.name)) {
      text = std::move(*converted);
    } else {
      encoding.kind = Encoding::kUnknown;  // this system has no such converter
    }
  }
  const pugi::xml_parse_result result =
      document->load_buffer(text.data(), text.size(), pugi::parse_default, pugi::encoding_utf8);
  // What says UTF-8, or nothing, may be in another encoding all the same.
  const bool is_unknown = encoding.kind == Encoding::kUnknown;
  if (is_unknown || (encoding.kind == Encoding::kUtf8 && !IsUtf8(text))) {
    UnreadableTexts unreadable(is_unknown ? IsUtf8 : IsMostlyUtf8);
    document->traverse(unreadable);
  }
  return result.status == pugi::status_ok;
}

std::string_view LocalName(const char* name) {
  const std::string_view whole(name);
  return whole.substr(whole.find(':') + 1);  // all of it without a colon
}

pugi::xml_node Child(pugi::xml_node parent, std::string_view name) {
  return parent.find_child([&](pugi::xml_node child) { return LocalName(child.name()) == name; });
}

std::string_view Attribute(pugi::xml_node node, std::string_view name) {
  return node
      .find_attribute([&](pugi::xml_attribute each) { return LocalName(each.name()) == name; })
      .value();
}

std::string TextOf(pugi::xml_node node) {
  std::string text;
  for (const pugi::xml_node child : node.children()) {
    const bool is_text = child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata;
    if (is_text) text += child.value();
  }
  return CleanText(text);
}

}  // namespace corvane
