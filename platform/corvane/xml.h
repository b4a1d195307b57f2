// XML from strangers, by local names: the prefixes of namespaces differ from book to book.

#ifndef PLATFORM_CORVANE_XML_H_
#define PLATFORM_CORVANE_XML_H_

#include <pugixml.hpp>
#include <string>
#include <string_view>

namespace corvane {

// Parses what `text` holds, in any encoding that books use, into `*document`. Returns whether it
// was well-formed to its end; if not, `*document` holds what came before the fault. Entities that
// the text defines itself are not expanded. Where the declared encoding can't be read, only the
// texts that are UTF-8 nevertheless are kept, and the others are empty.
bool ParseXml(std::string text, pugi::xml_document* document);

// The name without a namespace's prefix.
std::string_view LocalName(const char* name);

// The first child element of that local name; null if there is none.
pugi::xml_node Child(pugi::xml_node parent, std::string_view name);

// The value of the attribute of that local name; "" if there is none.
std::string_view Attribute(pugi::xml_node node, std::string_view name);

// What stands directly in an element, cleaned.
std::string TextOf(pugi::xml_node node);

}  // namespace corvane

#endif  // PLATFORM_CORVANE_XML_H_
