#include "corvane/xml.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>

#include "corvane/text.h"

namespace corvane {
namespace {

// The value of the XML declaration's encoding, in lower case; "" if none is declared.
std::string DeclaredEncoding(std::string_view text) {
  constexpr std::size_t kMaxDeclaration = 200;
  constexpr std::string_view kKey = "encoding=";
  if (!text.starts_with("<?xml")) return {};
  text = text.substr(0, std::min(text.find("?>"), kMaxDeclaration));
  const std::size_t key = text.find(kKey);
  if (key == text.npos || key + kKey.size() >= text.size()) return {};
  text.remove_prefix(key + kKey.size());
  const char quote = text.front();
  text.remove_prefix(1);
  return ToLower(text.substr(0, text.find(quote)));
}

// The encodings besides UTF-8 that books really come in. Anything else is taken for UTF-8 rather
// than handed to the converter: its rarer modules are no place for a stranger's file.
const char* ForeignEncoding(std::string_view text) {
  if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF")) return "utf-16";
  constexpr std::array kKnown = {"windows-1250", "windows-1251", "windows-1252", "windows-1254",
                                 "koi8-r",       "koi8-u",       "iso-8859-1",   "iso-8859-2",
                                 "iso-8859-5",   "iso-8859-15"};
  const std::string declared = DeclaredEncoding(text);
  const auto* const found = std::find(kKnown.begin(), kKnown.end(), declared);
  return found == kKnown.end() ? nullptr : *found;
}

// Converts to UTF-8. A character that can't be converted becomes '?', and one that is cut off at
// the end is dropped.
std::optional<std::string> Convert(std::string* text, const char* encoding) {
  iconv_t converter = iconv_open("utf-8", encoding);
  if (reinterpret_cast<std::intptr_t>(converter) == -1) return std::nullopt;
  std::string converted;
  char* in = text->data();
  std::size_t in_left = text->size();
  const std::size_t unit = std::string_view(encoding) == "utf-16" ? 2 : 1;
  while (in_left > 0) {
    std::array<char, 16384> chunk;
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

}  // namespace

bool ParseXml(std::string text, pugi::xml_document* document) {
  if (const char* encoding = ForeignEncoding(text)) {
    auto converted = Convert(&text, encoding);
    if (!converted) return false;
    text = std::move(*converted);
  }
  const pugi::xml_parse_result result =
      document->load_buffer(text.data(), text.size(), pugi::parse_default, pugi::encoding_utf8);
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
  constexpr std::size_t kEnough = 4 * kMaxText;  // even with much white space in between
  std::string text;
  for (const pugi::xml_node child : node.children()) {
    const bool is_text = child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata;
    if (is_text && text.size() < kEnough) {
      text += std::string_view(child.value()).substr(0, kEnough);
    }
  }
  return CleanText(text);
}

}  // namespace corvane
