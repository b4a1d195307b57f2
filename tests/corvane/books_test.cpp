#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <zip.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <utility>

#include "corvane/corvane.h"
#include "tests/support/device_root.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using usage_stat_test::DeviceRoot;
using usage_stat_test::StderrCapture;

using Entries = std::vector<std::pair<std::string, std::string>>;

void MakeZip(const std::string& path, const Entries& entries, int method = ZIP_CM_DEFLATE) {
  zip_t* zip = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
  ASSERT_NE(zip, nullptr);
  for (const auto& [name, content] : entries) {
    zip_source_t* source = zip_source_buffer(zip, content.data(), content.size(), 0);
    const zip_int64_t index = zip_file_add(zip, name.c_str(), source, ZIP_FL_OVERWRITE);
    ASSERT_GE(index, 0);
    ASSERT_EQ(zip_set_file_compression(zip, static_cast<zip_uint64_t>(index), method, 0), 0);
  }
  ASSERT_EQ(zip_close(zip), 0);
}

const char kContainer[] =
    "<container><rootfiles><rootfile full-path='p/book.opf'"
    " media-type='application/oebps-package+xml'/></rootfiles></container>";

Entries Epub(const std::string& package) {
  return {{"META-INF/container.xml", kContainer}, {"p/book.opf", package}};
}

std::string Package(const std::string& metadata) {
  return "<?xml version='1.0'?><package xmlns:dc='d' xmlns:opf='o'><metadata>" + metadata +
         "</metadata><manifest/></package>";
}

std::string Fb2(const std::string& description, const std::string& encoding = "utf-8") {
  return "<?xml version=\"1.0\" encoding=\"" + encoding + "\"?><FictionBook><description>" +
         description + "</description><body><p>text</p></body></FictionBook>";
}

// All that GetBookInfo says but the path, with "-" for null.
std::string Describe(const BookInfo* book) {
  if (!book) return "null";
  const auto text = [](const char* field) { return std::string(field ? field : "-"); };
  std::string names;
  for (const char* name : book->names) {
    if (name) names.append("+").append(name);
  }
  return std::to_string(book->file_type) + "|" + text(book->language) + "|" +
         text(book->primary_name) + names + "|" + std::to_string(book->n1) + "|" +
         std::to_string(book->n2) + "|" + text(book->s1) + "|" + text(book->s2) + "|" +
         text(book->s3) + "|" + text(book->isbn);
}

TEST(Books, EpubMetadataFillsTheFields) {
  struct Case {
    std::string metadata;
    std::string description;
  };
  std::string crowd;
  for (int i = 0; i < 10'000; ++i) {
    crowd += "<dc:creator id='c" + std::to_string(i) + "'>" + std::to_string(i) + "</dc:creator>";
  }
  const Case cases[] = {
      {"", "1|-|-|0|0|-|-|-|-"},
      // EPUB 2
      {"<dc:language>de-AT</dc:language><dc:title>T &amp; t</dc:title><dc:title>U</dc:title>"
       "<dc:contributor opf:role='trl'>C</dc:contributor><dc:creator opf:role='ill'>I</dc:creator>"
       "<dc:creator opf:role='Aut' opf:file-as='X'>A</dc:creator><dc:creator>B</dc:creator>"
       "<dc:date opf:event='modification'>2020</dc:date><dc:date>2001-02-03</dc:date>"
       "<dc:date opf:event='publication'>1999</dc:date><dc:publisher>P</dc:publisher>"
       "<dc:identifier opf:scheme='uuid'>9780306406157x</dc:identifier>"
       "<dc:identifier opf:scheme='ISBN'>0-306-40615-2</dc:identifier>"
       "<meta name='calibre:series' content='S'/><meta name='calibre:series_index' content='3.0'/>",
       "1|de-AT|A+B+I+C|1999|3|T & t|S|P|9780306406157"},
      // EPUB 3
      {"<dc:title>Short</dc:title><dc:title id='t'>Main</dc:title>"
       "<meta refines='#t' property='title-type'>main</meta>"
       "<dc:creator id='e'>E</dc:creator><meta refines='#e' property='role'>edt</meta>"
       "<dc:creator id='a'>A</dc:creator><meta refines='#a' property='role'>aut</meta>"
       "<meta property='belongs-to-collection' id='x'>Set</meta>"
       "<meta refines='#x' property='collection-type'>set</meta>"
       "<meta property='belongs-to-collection' id='s'>Series</meta>"
       "<meta refines='#s' property='group-position'>12</meta>"
       "<dc:identifier id='i'>080442957X</dc:identifier>"
       "<meta refines='#i' "
       "property='identifier-type'>02</meta><dc:date>2011-05-06T07:08:09Z</dc:date>",
       "1|-|A+E|2011|12|Main|Series|-|9780804429573"},
      {"<x:title>Other prefix</x:title><x:identifier>urn:isbn:978-0-306-40615-7</x:identifier>",
       "1|-|-|0|0|Other prefix|-|-|9780306406157"},
      {"<dc:identifier>0306406152</dc:identifier><dc:identifier>9780306406158</dc:identifier>"
       "<dc:identifier>isbn:030640615X</dc:identifier><dc:date>20111</dc:date>"
       "<meta property='belongs-to-collection' id='s'>S</meta>"
       "<meta refines='#s' property='group-position'>40000</meta>",
       "1|-|-|0|0|-|S|-|-"},
      // What calibre writes for a date that it doesn't know, the names that others give the event
      // of a publication, and software among the people.
      {"<dc:date>0101-01-01T00:00:00+00:00</dc:date><dc:contributor opf:role='BKP'>calibre"
       "</dc:contributor><dc:contributor opf:role='trl'>T</dc:contributor>",
       "1|-|T|0|0|-|-|-|-"},
      {"<dc:date opf:event='creation'>2003</dc:date><dc:date opf:event='modification'>2004"
       "</dc:date><dc:date opf:event='original-publication'>1925</dc:date><dc:date "
       "opf:event='issued'>2002</dc:date>",
       "1|-|-|1925|0|-|-|-|-"},
      {"<dc:date opf:event='published'>1925</dc:date><dc:date>2001</dc:date>",
       "1|-|-|2001|0|-|-|-|-"},
      {"<dc:date opf:event='conversion'>2003</dc:date><dc:date>0101-01-01</dc:date>"
       "<dc:date opf:event='Publication'>1950</dc:date><dc:date opf:event='publication'>1951"
       "</dc:date>",
       "1|-|-|1950|0|-|-|-|-"},
      // A series among collections, one of which holds another.
      {"<meta property='belongs-to-collection' id='a'>Untyped</meta>"
       "<meta property='belongs-to-collection' id='b'>Typed</meta>"
       "<meta refines='#b' property='collection-type'>series</meta>"
       "<meta refines='#b' property='group-position'>2</meta>"
       "<meta property='belongs-to-collection' id='c' refines='#b'>Outer</meta>"
       "<meta refines='#c' property='collection-type'>series</meta>",
       "1|-|-|0|2|-|Typed|-|-"},
      {"<meta property='belongs-to-collection' refines='#x'>Outer</meta>"
       "<meta property='belongs-to-collection'> </meta>"
       "<meta property='belongs-to-collection'>First</meta>"
       "<meta property='belongs-to-collection'>Second</meta>",
       "1|-|-|0|0|-|First|-|-"},
      {crowd, "1|-|0+1+2+3+4+5+6+7+8+9+10|0|0|-|-|-|-"},
      {"<dc:title> abcd\n\t b&#7;\xFF\xC0\xAF\xED\xA0\x80 \xD0\x96 <!-- c -->d<![CDATA[ "
       "<e>]]></dc:title>",
       "1|-|-|0|0|abcd b \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD "
       "\xD0\x96 d <e>|-|-|-"},
  };
  const DeviceRoot root;
  for (const Case& each : cases) {
    SCOPED_TRACE(each.metadata.substr(0, 500));
    MakeZip(root.HostPath("/b.EPUB"), Epub(Package(each.metadata)));
    const BookInfo* book = GetBookInfo("/b.EPUB");
    EXPECT_EQ(Describe(book), each.description);
    ASSERT_NE(book, nullptr);
    EXPECT_STREQ(book->path, "/b.EPUB");
    const char* isbn = GetBookISBN(book->path);
    EXPECT_EQ(isbn ? std::string(isbn) : "-",
              each.description.substr(each.description.rfind('|') + 1));
  }
}

TEST(Books, IsbnsAreFoundAsPublishersWriteThem) {
  const std::string found = "9780306406157";
  struct Case {
    const char* attributes;
    const char* text;
    bool is_found;
  };
  const Case cases[] = {
      {"opf:scheme='ISBN-10'", "0306406152", true},
      {"opf:scheme='eISBN'", "0306406152", true},
      {"", "ISBN-13: 978-0-306-40615-7", true},
      {"", "ISBN 13 978-0-306-40615-7", true},
      {"", "isbn10:0306406152", true},
      {"", "ISBN0306406152", true},
      {"",
       "978\xE2\x80\x93"
       "0\xE2\x80\x91"
       "306\xE2\x88\x92"
       "40615\xC2\xAD"
       "7",
       true},
      {"",
       "ISBN\xC2\xA0"
       "978\xC2\xA0"
       "0\xE2\x80\xAF"
       "306\xE2\x80\x89"
       "40615 7",
       true},
      {"opf:scheme='ISBN'", "0-306-40615-2 978-0-13-110362-7", true},
      {"opf:scheme='ISBN'", "0-306-40615-9/0-306-40615-2/0-13-110362-8", true},
      {"opf:scheme='ISBN'", "9780306406157 (pbk.) 9780131103627", true},
      {"opf:scheme='ISBN'", "none; 978-0-306-40615-7, paperback", true},
      {"", "9780306406157 (pbk.)", false},  // nobody says that this is an ISBN
      {"", "https://example.org/9780306406157", false},
      {"opf:scheme='ISBN'", "97803064061570", false},
      {"opf:scheme='ISBN'", "9780306406157x", false},
      {"opf:scheme='ISBN'", "1-0306406152", false},  // the rest of something else
      {"opf:scheme='ISBN'", "9770306406158", false},
  };
  const DeviceRoot root;
  for (const auto& [attributes, text, is_found] : cases) {
    SCOPED_TRACE(text);
    MakeZip(root.HostPath("/b.epub"), Epub(Package(std::string("<dc:identifier ") + attributes +
                                                   ">" + text + "</dc:identifier>")));
    const char* isbn = GetBookISBN("/b.epub");
    EXPECT_EQ(isbn ? isbn : "", is_found ? found : "");
  }
}

TEST(Books, LongTextsAreCutBetweenCharacters) {
  const DeviceRoot root;
  for (const std::size_t kept : {997U, 998U, 999U, 1000U}) {
    const std::string start(kept, 'y');
    root.Write("/b.fb2", Fb2("<title-info><book-title>" + start +
                             "\xE2\x82\xAC more</book-title></title-info>"));
    EXPECT_EQ(GetBookInfo("/b.fb2")->s1, kept == 997 ? start + "\xE2\x82\xAC" : start);
  }
}

TEST(Books, Fb2MetadataFillsTheFields) {
  // In windows-1251, where 98 is no character.
  const std::string russian =
      "<title-info><author><nickname>\xC6\x98\x98\xC6</nickname></author></title-info>";
  const std::string declared =
      "<FictionBook><description><title-info><author><nickname>\xC6</nickname></author>"
      "</title-info></description><body/></FictionBook>";
  std::string replaced;
  for (int i = 0; i < 15; ++i) replaced += "\xEF\xBF\xBD";
  struct Case {
    std::string file;
    std::string description;
  };
  const std::string full =
      Fb2("<title-info><author><first-name>A</first-name><last-name>B</last-name></author>"
          "<translator><nickname>N</nickname></translator><author><last-name>C</last-name></author>"
          "<book-title>T</book-title><date value='1998-01-02'>January</date><lang>ru</lang>"
          "<sequence name=''><sequence name='S' number='4'/></sequence></title-info>"
          "<publish-info><publisher>P</publisher><sequence name='E' number='5'/>"
          "<year>2003</year><isbn>none, 978-0-306-40615-7</isbn></publish-info>");
  const Case cases[] = {
      {full, "1|ru|A B+C+N|2003|4|T|S|P|9780306406157"},
      {full.substr(0, full.size() - 30), "1|ru|A B+C+N|2003|4|T|S|P|9780306406157"},
      {full.substr(0, full.find("</description>")), "null"},
      {Fb2("<title-info><date value='1998-01-02'>2</date></title-info><publish-info>"
           "<sequence name='S'/></publish-info>"),
       "1|-|-|1998|0|-|S|-|-"},
      {Fb2(russian, "windows-1251"), "1|-|\xD0\x96??\xD0\x96|0|0|-|-|-|-"},
      // Blanks around the sign are as legal as other names for an encoding.
      {"<?xml version = \"1.0\" encoding = 'CP1251' ?>" + declared, "1|-|\xD0\x96|0|0|-|-|-|-"},
      {Fb2("<title-info><book-title>\xEF\xE2</book-title></title-info>", "ISO-8859-7"),
       "1|-|-|0|0|\xCE\xBF\xCE\xB2|-|-|-"},
      {Fb2("<title-info><book-title>\xEF\xE2</book-title></title-info>", "iso_8859-7"),
       "1|-|-|0|0|\xCE\xBF\xCE\xB2|-|-|-"},
      {Fb2("<title-info><book-title>\xE9</book-title></title-info>", "Latin1"),
       "1|-|-|0|0|\xC3\xA9|-|-|-"},
      {"\n" + Fb2("<title-info><book-title>\xC6</book-title></title-info>", "windows1251"),
       "1|-|-|0|0|\xD0\x96|-|-|-"},
      {Fb2("<title-info><book-title>\x86</book-title></title-info>", "cp866"),
       "1|-|-|0|0|\xD0\x96|-|-|-"},
      // No text is better than one of replacement characters, or of what is left between them.
      {Fb2("<title-info><author><nickname>\xB0\xA1"
           "Hn</nickname></author><book-title>Plain"
           "</book-title><sequence name='\xB0\xA1'/></title-info>",
           "gbk"),
       "1|-|-|0|0|Plain|-|-|-"},
      {Fb2("<title-info><author><nickname>Caf\xE9</nickname></author>"
           "<book-title>\xCF\xE5\xF0 \xE2</book-title></title-info>"),
       "1|-|Caf\xEF\xBF\xBD|0|0|-|-|-|-"},
      // Longer than need be, and beyond the last character.
      {Fb2("<title-info><book-title>\xE0\x80\xAF\xF0\x80\x80\xAF\xF4\x90\x80\x80\xF5\x80\x80\x80"
           " and what can be read</book-title></title-info>"),
       "1|-|-|0|0|" + replaced + " and what can be read|-|-|-"},
      {Fb2("<title-info><book-title>" + std::string(5000, ' ') +
           "T</book-title><sequence/>"
           "<sequence name=' ' number='2'/></title-info><publish-info><sequence name='S' "
           "number='7'/>"
           "<isbn>0-306-40615-9 / 978-0-306-40615-7</isbn></publish-info>"),
       "1|-|-|0|7|T|S|-|9780306406157"},
      {std::string("\xFF\xFE<\0F\0i\0c\0t\0i\0o\0n\0B\0o\0o\0k\0/\0>\0", 30), "null"},
      {"<FictionBook><description/></FictionBook>", "null"},
      {"<!DOCTYPE f [<!ENTITY a 'ha'><!ENTITY b "
       "'&a;&a;&a;'>]><FictionBook><description><title-info>"
       "<book-title>&b;</book-title></title-info></description></FictionBook>",
       "1|-|-|0|0|&b;|-|-|-"},
  };
  const DeviceRoot root;
  const StderrCapture quiet;
  for (const Case& each : cases) {
    SCOPED_TRACE(each.file);
    root.Write("/b.fb2", each.file);
    EXPECT_EQ(Describe(GetBookInfo("/b.fb2")), each.description);
    MakeZip(root.HostPath("/b.fb2.zip"), {{"cover.png", "x"}, {"B.FB2", each.file}});
    EXPECT_EQ(Describe(GetBookInfo("/b.fb2.zip")), each.description);
  }
}

// ---- The parts of an archive, for those that the archive library doesn't make ----

std::string Bytes(std::uint64_t value, int size) {
  std::string bytes;
  for (; size > 0; --size, value >>= 8) bytes += static_cast<char>(value);
  return bytes;
}

std::string EntryHeader(const std::string& name) {
  return "PK\3\4" + std::string(22, '\0') + Bytes(name.size(), 2) + Bytes(0, 2) + name;
}

std::string DirectoryEntry(const std::string& name, std::uint32_t size, std::uint32_t header,
                           const std::string& extra = {}) {
  return "PK\1\2" + std::string(16, '\0') + Bytes(size, 4) + Bytes(size, 4) +
         Bytes(name.size(), 2) + Bytes(extra.size(), 2) + std::string(10, '\0') + Bytes(header, 4) +
         name + extra;
}

std::string End(std::size_t directory_size, std::size_t directory) {
  return "PK\5\6" + std::string(8, '\0') + Bytes(directory_size, 4) + Bytes(directory, 4) +
         Bytes(0, 2);
}

// What stands before `End` in a 64-bit archive, when it starts at `at`.
std::string End64(std::uint64_t directory_size, std::uint64_t directory, std::uint64_t at) {
  return "PK\6\6" + Bytes(44, 8) + std::string(28, '\0') + Bytes(directory_size, 8) +
         Bytes(directory, 8) + "PK\6\7" + Bytes(0, 4) + Bytes(at, 8) + Bytes(1, 4);
}

std::string ContentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(Books, UnusualArchivesAreRead) {
  const DeviceRoot root;
  const std::string fb2 = Fb2("<title-info><book-title>T</book-title></title-info>");
  const Entries epub = Epub(Package("<dc:title>T</dc:title>"));
  MakeZip(root.HostPath("/plain.epub"), epub);
  const std::string plain = ContentOf(root.HostPath("/plain.epub"));
  root.Write("/before.epub", "#!/bin/sh\nexec unpack \"$0\"\n" + plain);
  root.Write("/behind.epub", plain + std::string(1000, '\0'));
  root.Write("/twice.epub.zip", plain);
  MakeZip(root.HostPath("/stored.epub.zip"), {{"a.txt", "a"}, {"b.epub", plain}}, ZIP_CM_STORE);
  MakeZip(root.HostPath("/packed.epub.zip"), {{"__MACOSX/._b.epub", "a"}, {"b.epub", plain}});
  MakeZip(root.HostPath("/mac.fb2.zip"), {{"__MACOSX/._b.fb2", "attributes"}, {"b.fb2", fb2}});
  MakeZip(root.HostPath("/dots.FBZ"), {{"a/._b.fb2", "attributes"}, {"a/b.fb2", fb2}});

  // 70 MiB of it, in an archive whose every number stands in its 64-bit fields.
  constexpr std::uint64_t kSize = std::uint64_t{70} << 20;
  const std::string start = EntryHeader("b.fb2") + fb2;
  const std::string entry = DirectoryEntry("b.fb2", ~0U, ~0U,
                                           Bytes(9, 2) + Bytes(0, 2) + Bytes(1, 2) + Bytes(24, 2) +
                                               Bytes(kSize, 8) + Bytes(kSize, 8) + Bytes(0, 8));
  for (const std::string prefix : {"", "something before"}) {
    const std::string path = prefix.empty() ? "/large.fb2.zip" : "/large-before.fb2.zip";
    root.Write(path, prefix + start);
    const std::uint64_t directory = kSize + EntryHeader("b.fb2").size();
    std::filesystem::resize_file(root.HostPath(path), prefix.size() + directory);
    std::ofstream(root.HostPath(path), std::ios::binary | std::ios::app)
        << entry << End64(entry.size(), directory, directory + entry.size()) << End(~0U, ~0U);
  }

  for (const char* path : {"/plain.epub", "/before.epub", "/behind.epub", "/twice.epub.zip",
                           "/stored.epub.zip", "/packed.epub.zip", "/mac.fb2.zip", "/dots.FBZ",
                           "/large.fb2.zip", "/large-before.fb2.zip"}) {
    EXPECT_EQ(Describe(GetBookInfo(path)), "1|-|-|0|0|T|-|-|-") << path;
  }
}

TEST(Books, HostileFilesGiveNullAndOneLine) {
  const DeviceRoot root;
  const std::string good = Package("<dc:title>T</dc:title>");
  const std::string many_blanks(9 << 20, ' ');
  const std::string deep = [] {
    std::string nested;
    for (int i = 0; i < 300'000; ++i) nested += "<a>";
    return nested;
  }();
  MakeZip(root.HostPath("/bomb.epub"), Epub(good + many_blanks));
  MakeZip(root.HostPath("/deep.epub"), Epub(Package(deep)));
  MakeZip(root.HostPath("/bzip2.epub"), Epub(good), ZIP_CM_BZIP2);
  MakeZip(root.HostPath("/no-package.epub"), {{"META-INF/container.xml", kContainer}});
  MakeZip(root.HostPath("/no-container.epub"), {{"mimetype", "application/epub+zip"}});
  MakeZip(root.HostPath("/bomb.fb2.zip"), {{"b.fb2", many_blanks + Fb2("<title-info/>")}});
  MakeZip(root.HostPath("/cut.epub"), Epub(good));
  std::filesystem::resize_file(root.HostPath("/cut.epub"), 200);
  MakeZip(root.HostPath("/checksum.epub"), Epub(good), ZIP_CM_STORE);
  std::string changed = ContentOf(root.HostPath("/checksum.epub"));
  changed.replace(changed.find(">T<"), 3, ">U<");
  root.Write("/checksum.epub", changed);
  root.Write("/empty.epub", "");
  root.Write("/deep.fb2", Fb2(deep));
  root.Write("/directory.epub", End(0x7FFFFFFF, 0));
  root.Write("/64-bit.epub",
             std::string(56, ' ') + End64(std::uint64_t{1} << 62, 0, 56) + End(~0U, ~0U));
  // Thousands of ends of one directory as large as allowed, whose names all have to be compared.
  const std::string directory = [] {
    std::string entries;
    while (entries.size() < (1 << 20) - 100) entries += DirectoryEntry("aaaaaaaa", 0, 0);
    return entries;
  }();
  std::string ends;
  while (ends.size() < 65'000) ends += End(directory.size(), 0);
  root.Write("/ends.epub", directory + ends);
  // A sound book behind so many blocks of nothing that reaching it takes too long.
  std::string blocks = EntryHeader("b.fb2");
  for (int i = 0; i < 1'000'000; ++i) blocks.append("\0\0\0\xFF\xFF", 5);
  const std::string late =
      Fb2("<title-info><book-title>T</book-title></title-info>") + std::string(1 << 20, ' ');
  for (std::size_t at = 0; at < late.size(); at += 60'000) {
    const std::string piece = late.substr(at, 60'000);
    blocks += std::string(1, '\0') + Bytes(piece.size(), 2) + Bytes(~piece.size(), 2) + piece;
  }
  std::string nothing = DirectoryEntry(
      "b.fb2", static_cast<std::uint32_t>(blocks.size() - EntryHeader("b.fb2").size()), 0);
  nothing[10] = 8;  // deflated
  root.Write("/nothing.fb2.zip", blocks + nothing + End(nothing.size(), blocks.size()));
  std::string secret = DirectoryEntry("b.fb2", 9, 0);
  secret[8] = 1;
  root.Write("/secret.fbz", EntryHeader("b.fb2") + "encrypted" + secret +
                                End(secret.size(), EntryHeader("b.fb2").size() + 9));
  MakeZip(root.HostPath("/large.epub.zip"), {{"b.epub", std::string(33 << 20, ' ')}});
  MakeZip(root.HostPath("/other.epub.zip"), {{"b.txt", "text"}});
  for (const char* zeros : {"/zeros.epub", "/zeros.fb2", "/zeros.fb2.zip"}) {
    root.Write(zeros, "");
    std::filesystem::resize_file(root.HostPath(zeros), std::uintmax_t{2} << 30);
  }
  std::filesystem::create_directories(root.HostPath("/folder.epub/x"));
  ASSERT_EQ(mkfifo(root.HostPath("/fifo.fb2").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", root.HostPath("/device.fb2"));

  struct Case {
    const char* path;
    const char* logged;
  };
  for (const auto& [path, logged] : {Case{"/bomb.epub", "more than 4 MiB"},
                                     Case{"/deep.epub", "no well-formed XML"},
                                     Case{"/bzip2.epub", "compressed in a way"},
                                     Case{"/no-package.epub", "missing"},
                                     Case{"/no-container.epub", "missing"},
                                     Case{"/bomb.fb2.zip", "no whole FB2 description"},
                                     Case{"/cut.epub", "no readable archive"},
                                     Case{"/checksum.epub", "damaged"},
                                     Case{"/empty.epub", "no readable archive"},
                                     Case{"/deep.fb2", "no whole FB2 description"},
                                     Case{"/directory.epub", "directory is too large"},
                                     Case{"/64-bit.epub", "directory is too large"},
                                     Case{"/ends.epub", "is missing"},
                                     Case{"/nothing.fb2.zip", "damaged"},
                                     Case{"/secret.fbz", "encrypted"},
                                     Case{"/large.epub.zip", "more than 32 MiB"},
                                     Case{"/other.epub.zip", "no EPUB file"},
                                     Case{"/zeros.epub", "no readable archive"},
                                     Case{"/zeros.fb2", "no whole FB2 description"},
                                     Case{"/zeros.fb2.zip", "no readable archive"},
                                     Case{"/folder.epub", "Is a directory"},
                                     Case{"/fifo.fb2", "not supported"},
                                     Case{"/device.fb2", "not supported"},
                                     Case{"/missing.fb2", "No such file"}}) {
    SCOPED_TRACE(path);
    StderrCapture capture;
    EXPECT_EQ(GetBookInfo(path), nullptr);
    EXPECT_THAT(capture.Writes(), ElementsAre(HasSubstr(logged)));
    EXPECT_EQ(GetBookISBN(path), nullptr);
  }
  StderrCapture capture;
  for (const char* no_book : {"/text.txt", "/text.zip", "/epub", ""}) {
    EXPECT_EQ(GetBookInfo(no_book), nullptr);
  }
  EXPECT_EQ(GetBookInfo(nullptr), nullptr);
  EXPECT_EQ(GetBookISBN(nullptr), nullptr);
  EXPECT_THAT(capture.Writes(), IsEmpty());
}

TEST(Books, EveryDamagedByteIsSurvived) {
  const DeviceRoot root;
  const StderrCapture quiet;
  const std::string path = root.HostPath("/b.epub");
  MakeZip(path, Epub(Package("<dc:title>T</dc:title>")));
  const std::string good = ContentOf(path);
  for (std::size_t at = 0; at < good.size(); ++at) {
    root.Write("/b.epub", good.substr(0, at));
    EXPECT_EQ(GetBookInfo("/b.epub"), nullptr) << "cut at byte " << at;
    std::string damaged = good;
    damaged[at] = static_cast<char>(~damaged[at]);
    root.Write("/b.epub", damaged);
    GetBookInfo("/b.epub");
  }
}

TEST(Books, TextsStayWhateverAnotherThreadAsks) {
  const DeviceRoot root;
  const auto write = [&](const std::string& name, const std::string& isbn) {
    root.Write(name, Fb2("<title-info><book-title>" + name +
                         "</book-title></title-info><publish-info><isbn>" + isbn +
                         "</isbn></publish-info>"));
  };
  write("/a.fb2", "9780306406157");
  write("/b.fb2", "9791090636071");
  const BookInfo* const book = GetBookInfo("/a.fb2");
  const char* const isbn = GetBookISBN("/a.fb2");
  std::thread([] {
    EXPECT_STREQ(GetBookInfo("/b.fb2")->s1, "/b.fb2");
    EXPECT_STREQ(GetBookISBN("/b.fb2"), "9791090636071");
  }).join();
  EXPECT_STREQ(book->s1, "/a.fb2");
  EXPECT_STREQ(isbn, "9780306406157");
}

TEST(Books, BooksOfOthersAreRead) {
  struct Case {
    const char* path;
    const char* description;
  };
  int found = 0;
  for (const auto& [path, description] :
       {Case{"/usr/share/developers-reference/developers-reference.epub",
             "1|en|Developer's Reference Team+unknown|2023|0|developers-reference|-|"
             "Developer's Reference Team|-"},
        Case{"/usr/share/doc/debian-policy/policy.epub",
             "1|en|The Debian Policy Mailing List+unknown|2022|0|Debian Policy Manual|-|"
             "The Debian Policy Mailing List|-"},
        Case{"/usr/share/doc/ubuntu-packaging-guide-epub-pt-br/ubuntu-packaging-guide.epub",
             "1|pt_BR|Ubuntu Developers+unknown|2021|0|Ubuntu Packaging Guide|-|"
             "Ubuntu Developers|-"}}) {
    if (std::filesystem::exists(path)) {
      EXPECT_EQ(Describe(GetBookInfo(path)), description);
      ++found;
    }
  }
  if (found == 0) GTEST_SKIP() << "none of the packages with books is installed";
}

}  // namespace
