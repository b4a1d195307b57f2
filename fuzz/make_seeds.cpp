// Writes the inputs that fuzzers start from into the folders FOLDER/records, FOLDER/inspector and
// FOLDER/books: valid records of every class, and books.
//
//   make_seeds FOLDER

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "fuzz/archives.h"
#include "tests/support/sample_records.h"

namespace {

void Write(const std::filesystem::path& file, const std::string& bytes) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << bytes;
}

void WriteRecords(const std::filesystem::path& folder) {
  using namespace velmora::usage_stat;
  std::vector<usage_stat_test::SampleRecord> records = usage_stat_test::SampleRecords();
  // The two shorter classes of codes that the factory knows by their longer ones.
  records.push_back(usage_stat_test::MakeSampleRecord<ChangePageEvent>("ChangePageEvent"));
  records.push_back(usage_stat_test::MakeSampleRecord<NewBooksEvent>("NewBooksEvent"));
  for (const auto& [name, bytes] : records) {
    Write(folder / "records" / name, bytes);
    // There the first byte chooses options.
    Write(folder / "inspector" / (std::string(name) + ".text"), '\0' + bytes);
    Write(folder / "inspector" / (std::string(name) + ".json"), '\1' + bytes);
  }
}

// The first byte chooses a reader.
void WriteBooks(const std::filesystem::path& folder) {
  const std::string package =
      "<package><metadata><dc:title id=\"t\">A title</dc:title><dc:language>en</dc:language>"
      "<meta refines=\"#t\" property=\"title-type\">main</meta>"
      "<dc:creator opf:role=\"aut\">An Author</dc:creator><dc:publisher>P</dc:publisher>"
      "<dc:date>2019-05-01</dc:date><dc:identifier>urn:isbn:9780306406157</dc:identifier>"
      "<meta property=\"belongs-to-collection\" id=\"c\">S</meta>"
      "<meta refines=\"#c\" property=\"group-position\">2</meta>"
      "<meta name=\"calibre:series\" content=\"S\"/></metadata></package>";
  const std::string fiction_book =
      "<FictionBook><description><title-info><author><first-name>An</first-name>"
      "<last-name>Author</last-name></author><book-title>A title</book-title><lang>en</lang>"
      "<date value=\"2019-05-01\"/><sequence name=\"S\" number=\"2\"/></title-info>"
      "<publish-info><publisher>P</publisher><year>2019</year><isbn>978-0-306-40615-7</isbn>"
      "</publish-info></description></FictionBook>";
  Write(folder / "books" / "epub", '\0' + fuzz::EpubAround(package));
  Write(folder / "books" / "fb2", '\1' + fiction_book);
  Write(folder / "books" / "fb2.zip", '\2' + fuzz::Archive({{"a.fb2", fiction_book}}));
  Write(folder / "books" / "package", '\3' + package);
  Write(folder / "books" / "epub.zip",
        '\4' + fuzz::Archive({{"a.epub", fuzz::EpubAround(package)}}));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  WriteRecords(argv[1]);
  WriteBooks(argv[1]);
}
