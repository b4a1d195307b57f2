// FB2: one XML file, alone or packed in an archive, that begins with the description of its book.

#include <algorithm>
#include <utility>

#include "corvane/archive.h"
#include "corvane/book.h"
#include "corvane/text.h"
#include "corvane/xml.h"

namespace corvane {
namespace {

// Only the start of a book is read: its description comes before the text and the pictures.
constexpr std::size_t kMaxStart = std::size_t{1024} * 1024;

std::string PersonName(pugi::xml_node person) {
  std::string name;
  for (const char* part : {"first-name", "middle-name", "last-name"}) {
    name += TextOf(Child(person, part)) + " ";
  }
  name = CleanText(name);
  return name.empty() ? TextOf(Child(person, "nickname")) : name;
}

void AddPeople(pugi::xml_node title_info, std::string_view role, Book* book) {
  for (const pugi::xml_node node : title_info.children()) {
    if (LocalName(node.name()) == role && book->people.size() < kMaxPeople) {
      std::string name = PersonName(node);
      if (!name.empty()) book->people.push_back(std::move(name));
    }
  }
}

// The year of this edition, else that of the text; a date is written out beside its exact value.
int PublicationYear(pugi::xml_node title_info, pugi::xml_node publish_info) {
  const pugi::xml_node date = Child(title_info, "date");
  for (const std::string& text :
       {TextOf(Child(publish_info, "year")), CleanText(Attribute(date, "value")), TextOf(date)}) {
    if (const int year = ParseYear(text); year != 0) return year;
  }
  return 0;
}

// The series of the text, else that of this edition. One may stand in another, and writing software
// leaves empty ones behind.
pugi::xml_node Series(pugi::xml_node title_info, pugi::xml_node publish_info) {
  const auto is_named_series = [](pugi::xml_node node) {
    return LocalName(node.name()) == "sequence" && !CleanText(Attribute(node, "name")).empty();
  };
  const pugi::xml_node of_text = title_info.find_node(is_named_series);
  return of_text ? of_text : publish_info.find_node(is_named_series);
}

std::optional<Book> ReadStartOfFb2(std::string start, const char** problem) {
  pugi::xml_document document;
  const bool complete = ParseXml(std::move(start), &document);
  const pugi::xml_node description = Child(Child(document, "FictionBook"), "description");
  const pugi::xml_node title_info = Child(description, "title-info");
  // What follows the description need not be there or be whole, but the description must.
  if (!title_info || (!complete && !description.next_sibling())) {
    *problem = "no whole FB2 description in its first MiB";
    return std::nullopt;
  }
  const pugi::xml_node publish_info = Child(description, "publish-info");
  const pugi::xml_node sequence = Series(title_info, publish_info);
  Book book;
  book.language = TextOf(Child(title_info, "lang"));
  book.title = TextOf(Child(title_info, "book-title"));
  AddPeople(title_info, "author", &book);
  AddPeople(title_info, "translator", &book);
  book.publisher = TextOf(Child(publish_info, "publisher"));
  book.year = PublicationYear(title_info, publish_info);
  book.series = CleanText(Attribute(sequence, "name"));
  book.series_number = ParseSeriesNumber(CleanText(Attribute(sequence, "number")));
  book.isbn = ParseIsbn(TextOf(Child(publish_info, "isbn")), true);
  return book;
}

}  // namespace

std::optional<Book> ReadFb2(UniqueFd file, const char** problem) {
  std::string start;
  if (ReadUpTo(file.get(), kMaxStart, &start) != 0) {
    *problem = "can't be read";
    return std::nullopt;
  }
  return ReadStartOfFb2(std::move(start), problem);
}

std::optional<Book> ReadZippedFb2(UniqueFd file, const char** problem) {
  const auto archive = Archive::Open(std::move(file), problem);
  if (!archive) return std::nullopt;
  const auto entry = archive->FindBySuffix(".fb2");
  if (!entry) {
    *problem = "no FB2 file in the archive";
    return std::nullopt;
  }
  auto start = archive->ReadStart(*entry, kMaxStart, problem);
  return start ? ReadStartOfFb2(std::move(*start), problem) : std::nullopt;
}

}  // namespace corvane
