// Writes the inputs that fuzzers start from into the folders FOLDER/records, FOLDER/inspector,
// FOLDER/batches and FOLDER/books: valid records of every class, alone and in batches, and books.
//
//   make_seeds FOLDER

#include <zstd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "fleet/batch/shapes.h"
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

// Small batches of two types each, and what makes a batch odd; as messages and as contents.
void WriteBatches(const std::filesystem::path& folder) {
  namespace fleet = velmora::usage_stat::fleet;
  const auto records = usage_stat_test::SampleRecords();
  for (std::size_t i = 0; i < records.size(); ++i) {
    fleet::Batch batch;
    batch.level = fleet::Level::kFull;
    batch.store_first = 1;
    batch.runs = {{1, 2, fleet::Reason::kErased}, {6, 9, fleet::Reason::kWithheld}};
    batch.clock_steps = {{3, 60'001}};
    for (std::uint64_t number = 3; number < 6; ++number) {
      const auto& record = records[(i + number / 5) % records.size()];
      fleet::AddRecord(number, record.bytes, "\1\2", &batch);
    }
    batch.through = 9;
    std::string message;
    if (!fleet::Encode(batch, &message).empty()) abort();
    Write(folder / "batches" / (std::string(records[i].class_name) + ".message"), '\0' + message);
    std::string content(fleet::kLargestContent, '\0');
    const std::string frame = message.substr(4);
    content.resize(ZSTD_decompress(content.data(), content.size(), frame.data(), frame.size()));
    Write(folder / "batches" / (std::string(records[i].class_name) + ".content"), '\1' + content);
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
  WriteBatches(argv[1]);
  WriteBooks(argv[1]);
}
