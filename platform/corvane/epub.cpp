// EPUB 2 and 3: an archive whose container file names a package file, which describes the book.

#include <limits>
#include <map>
#include <utility>

#include "corvane/archive.h"
#include "corvane/book.h"
#include "corvane/text.h"
#include "corvane/xml.h"

namespace corvane {
namespace {

// A package lists every file of its book; the largest take some hundred KiB.
constexpr std::size_t kMaxXml = std::size_t{4} * 1024 * 1024;

std::optional<std::string> ReadXmlEntry(const Archive& archive, const std::string& name,
                                        const char** problem) {
  const auto entry = archive.Find(name);
  if (!entry) {
    *problem = "a file that an EPUB needs is missing";
    return std::nullopt;
  }
  auto content = archive.ReadStart(*entry, kMaxXml + 1, problem);
  if (content && content->size() > kMaxXml) {
    *problem = "a description of more than 4 MiB";
    return std::nullopt;
  }
  return content;
}

// The name of the package file.
std::string PackageName(const pugi::xml_document& container) {
  const pugi::xml_node files = Child(Child(container, "container"), "rootfiles");
  for (const pugi::xml_node file : files.children()) {
    if (Attribute(file, "media-type") == "application/oebps-package+xml") {
      return std::string(Attribute(file, "full-path"));
    }
  }
  return {};
}

// The metadata of a package. EPUB 2 tells what an element means by attributes of its own, EPUB 3 by
// `meta` elements that refine it; here both look the same.
class Metadata {
 public:
  explicit Metadata(pugi::xml_node metadata) : metadata_(metadata) {
    for (const pugi::xml_node meta : metadata.children()) {
      const std::string_view refined = Attribute(meta, "refines");
      if (refined.starts_with('#')) {
        const auto key = std::pair(refined.substr(1), Attribute(meta, "property"));
        if (!refinements_.contains(key)) refinements_.emplace(key, TextOf(meta));
      }
    }
  }

  // Calls `visit` with each element of that local name.
  template <typename Visit>
  void ForEach(std::string_view name, Visit visit) const {
    for (const pugi::xml_node node : metadata_.children()) {
      if (LocalName(node.name()) == name) visit(node);
    }
  }

  // What an attribute or a refinement of that name says about `node`; "" for nothing.
  std::string Detail(pugi::xml_node node, std::string_view name) const {
    const std::string_view own = Attribute(node, name);
    if (!own.empty()) return CleanText(own);
    const auto found = refinements_.find(std::pair(Attribute(node, "id"), name));
    return found == refinements_.end() ? std::string() : found->second;
  }

  // The first text that stands in an element of that local name; "" for none.
  std::string FirstText(std::string_view name) const {
    std::string first;
    ForEach(name, [&](pugi::xml_node node) {
      if (first.empty()) first = TextOf(node);
    });
    return first;
  }

 private:
  pugi::xml_node metadata_;
  // The texts of `meta` elements by the id that they refine and the property that they give. Each
  // is cleaned once: thousands of elements may share one id.
  std::map<std::pair<std::string_view, std::string_view>, std::string> refinements_;
};

// A book may have several titles, such as a short one; EPUB 3 marks the main one.
std::string MainTitle(const Metadata& metadata) {
  std::string title;
  metadata.ForEach("title", [&](pugi::xml_node node) {
    if (title.empty() && metadata.Detail(node, "title-type") == "main") title = TextOf(node);
  });
  return title.empty() ? metadata.FirstText("title") : title;
}

// Creators are authors unless a role says otherwise; the authors come first.
std::vector<std::string> People(const Metadata& metadata) {
  std::vector<std::string> authors;
  std::vector<std::string> others;
  const auto add = [&](pugi::xml_node node, std::vector<std::string>* people) {
    if (people->size() < kMaxPeople) {
      std::string name = TextOf(node);
      if (!name.empty()) people->push_back(std::move(name));
    }
  };
  metadata.ForEach("creator", [&](pugi::xml_node node) {
    const std::string role = ToLower(metadata.Detail(node, "role"));
    add(node, role.empty() || role == "aut" ? &authors : &others);
  });
  metadata.ForEach("contributor", [&](pugi::xml_node node) {
    // Software that made the file signs as the book's producer.
    if (ToLower(metadata.Detail(node, "role")) != "bkp") add(node, &others);
  });
  for (std::string& name : others) {
    if (authors.size() < kMaxPeople) authors.push_back(std::move(name));
  }
  return authors;
}

// How well the date of such an event tells when a book was published; less is better. EPUB 2 may
// give several dates and names events as it likes ("issued", "original-publication").
std::optional<int> RankOfEvent(std::string_view event) {
  if (event == "publication") return 0;
  if (event.empty()) return 1;
  if (event == "creation" || event == "modification" || event == "conversion")
    return {};  // a file's
  return 2;
}

int PublicationYear(const Metadata& metadata) {
  int year = 0;
  int best_rank = std::numeric_limits<int>::max();
  metadata.ForEach("date", [&](pugi::xml_node node) {
    const auto rank = RankOfEvent(ToLower(CleanText(Attribute(node, "event"))));
    if (!rank || *rank >= best_rank) return;
    if (const int candidate = ParseYear(TextOf(node)); candidate != 0) {
      year = candidate;
      best_rank = *rank;
    }
  });
  return year;
}

std::string Isbn(const Metadata& metadata) {
  std::string isbn;
  metadata.ForEach("identifier", [&](pugi::xml_node node) {
    // In the trade's code list 5, which EPUB 3 books use, 02 and 15 are the two lengths of ISBN.
    const std::string type = metadata.Detail(node, "identifier-type");
    const bool marked = ToLower(Attribute(node, "scheme")).find("isbn") != std::string::npos ||
                        type == "02" || type == "15";
    if (isbn.empty()) isbn = ParseIsbn(TextOf(node), marked);
  });
  return isbn;
}

// EPUB 3 knows collections, and a series is one of that type, or else one of no known type; a
// collection that refines another holds that, not the book. Before there were any, a custom of
// e-book software was followed.
void ReadSeries(const Metadata& metadata, Book* book) {
  std::string custom_series;
  std::string custom_number;
  bool is_typed = false;
  metadata.ForEach("meta", [&](pugi::xml_node meta) {
    const std::string_view name = Attribute(meta, "name");
    if (name == "calibre:series") {
      custom_series = CleanText(Attribute(meta, "content"));
    } else if (name == "calibre:series_index") {
      custom_number = CleanText(Attribute(meta, "content"));
    } else if (Attribute(meta, "property") == "belongs-to-collection" &&
               Attribute(meta, "refines").empty()) {
      const std::string type = metadata.Detail(meta, "collection-type");
      const bool better = type == "series" ? !is_typed : type != "set" && book->series.empty();
      std::string series = better ? TextOf(meta) : std::string();
      if (series.empty()) return;
      book->series = std::move(series);
      book->series_number = ParseSeriesNumber(metadata.Detail(meta, "group-position"));
      is_typed = type == "series";
    }
  });
  if (book->series.empty() && !custom_series.empty()) {
    book->series = custom_series;
    book->series_number = ParseSeriesNumber(custom_number);
  }
}

constexpr const char* kContainer = "META-INF/container.xml";

std::optional<Book> ReadFrom(const Archive& archive, const char** problem) {
  pugi::xml_document container;
  auto xml = ReadXmlEntry(archive, kContainer, problem);
  if (!xml) return std::nullopt;
  if (!ParseXml(std::move(*xml), &container)) {
    *problem = "the container file is no well-formed XML";
    return std::nullopt;
  }
  pugi::xml_document package;
  xml = ReadXmlEntry(archive, PackageName(container), problem);
  if (!xml) return std::nullopt;
  const bool well_formed = ParseXml(std::move(*xml), &package);
  const pugi::xml_node description = Child(Child(package, "package"), "metadata");
  if (!well_formed || !description) {
    *problem = "the package file is no well-formed XML with metadata";
    return std::nullopt;
  }

  const Metadata metadata(description);
  Book book;
  book.language = metadata.FirstText("language");
  book.title = MainTitle(metadata);
  book.people = People(metadata);
  book.publisher = metadata.FirstText("publisher");
  book.year = PublicationYear(metadata);
  book.isbn = Isbn(metadata);
  ReadSeries(metadata, &book);
  return book;
}

}  // namespace

std::optional<Book> ReadEpub(UniqueFd file, const char** problem) {
  const auto archive = Archive::Open(std::move(file), problem);
  return archive ? ReadFrom(*archive, problem) : std::nullopt;
}

std::optional<Book> ReadZippedEpub(UniqueFd file, const char** problem) {
  auto archive = Archive::Open(std::move(file), problem);
  if (!archive) return std::nullopt;
  if (archive->Find(kContainer))
    return ReadFrom(*archive, problem);  // a book with one name too many
  const auto entry = archive->FindBySuffix(".epub");
  if (!entry) {
    *problem = "no EPUB file in the archive";
    return std::nullopt;
  }
  archive = Archive::OpenNested(std::move(*archive), *entry, problem);
  return archive ? ReadFrom(*archive, problem) : std::nullopt;
}

}  // namespace corvane
