// usage-stat as its users start it: the subcommands that need no database.

#include <gmock/gmock.h>

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/files.h"
#include "tests/support/receiver.h"
#include "tests/support/run_program.h"
#include "tools/base/text.h"

namespace usage_stat_test {
namespace {

using testing::HasSubstr;
using testing::Not;
using Json = nlohmann::ordered_json;
using Words = std::vector<std::string>;

ProgramResult UsageStat(Words words, const std::string& input = {}, Words environment = {}) {
  words.insert(words.begin(), USAGE_STAT);
  return RunProgram(std::move(words), input, std::move(environment));
}

TEST(UsageStat, TellsWhatItKnowsAndRefusesTheRest) {
  struct Case {
    Words words;
    int exit_code;
    const char* text;
  };
  const Case cases[] = {
      {{"--help"}, 0, "Subcommands"},
      {{"--version"}, 0, "usage-stat 1."},
      {{"send", "--help"}, 0, "null:"},
      {{}, 2, "subcommand is required"},
      {{"bogus"}, 2, "no subcommand bogus"},
      {{"lsit"}, 2, "no subcommand lsit; did you mean list?; see"},
      {{"list", "--databse"}, 2, "--databse; did you mean --database?; see usage-stat list --help"},
      {{"types", "-o", "xml"}, 2, "xml"},
      {{"types", "--bogus"}, 2, "--bogus"},
      {{"decode", "/nowhere"}, 1, "cannot read /nowhere"},
      {{"decode", "/"}, 1, "cannot read /"},
      {{"list", "-n", "x"}, 2, "-n: \"x\" is no count; see usage-stat list --help"},
      {{"list", "--since", "@5", "--until", "@5"}, 2, "--until: it is not after"},
      {{"send", "--list", "x"}, 2, "takes no function"},
      {{"decode", "--hex", "--raw"}, 2, "excludes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const ProgramResult result = UsageStat(c.words);
    EXPECT_EQ(result.exit_code, c.exit_code);
    EXPECT_THAT(result.out + result.err, HasSubstr(c.text));
  }
}

TEST(UsageStat, CompletesWhatItKnows) {
  const std::string script = "source " SOURCE_DIR
                             "/packaging/completion/usage-stat\n"
                             R"(
    complete_words() {
      COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _usage_stat )" USAGE_STAT R"(
      echo "${COMPREPLY[*]}"
    }
    complete_words usage-stat de
    complete_words usage-stat list --re
    complete_words usage-stat decode -o ''
    complete_words usage-stat list --event ChangePageEventE
    complete_words usage-stat send Stat_GoToU)";
  EXPECT_EQ(RunProgram({"/bin/bash", "-c", script}).out,
            "decode\n--reverse\ntext json\nChangePageEventEx\nStat_GoToURLEvent\n");
}

TEST(Types, AreDocumentedAsTheyAre) {
  EXPECT_EQ(UsageStat({"types", "-o", "markdown"}).out, ReadFile(SOURCE_DIR "/docs/records.md"))
      << "run make records";
  const Json types = Json::parse(UsageStat({"types", "-o", "json"}).out);
  EXPECT_GT(types["records"].size(), 40U);
  EXPECT_THAT(UsageStat({"types"}).out, HasSubstr("2032  ChangePageEvent  kChangePage"));
}

TEST(Decode, TellsWhereAndWhyARecordIsDamaged) {
  struct Case {
    std::string hex;
    const char* reason;
    int offset;
    const char* field;
    std::int64_t missing;
    int left_over;
  };
  const std::string time = "7b6c50c4a0010000";
  const Case cases[] = {
      {"", "field type (Int16) at offset 0 lacks 2 bytes", 0, "type", 2, 0},
      {"e5", "field type (Int16) at offset 0 lacks 1 byte", 0, "type", 1, 0},
      {"e5077b6c", "field timestamp (Timestamp) at offset 2 lacks 6 bytes", 2, "timestamp", 6, 0},
      {"f407" + time, "unknown type code 2036", 0, "type", 0, 0},
      {"e507" + time + "05000107", "field to_page (Int16) at offset 13 lacks 1 byte", 13, "to_page",
       1, 0},
      {"f307" + time + "030005000000616263", "field url (String) at offset 12 lacks 2 bytes", 12,
       "url", 2, 0},
      // A count and a length that together are more than 32 bits hold.
      {"da07" + time + "d2040000656effffffff" + "fcffffff00", "field authors (StringVec) at", 16,
       "authors", 0xfffffffb, 0},
      {"e707" + time + "d4feff", "1 byte left over after the record", 12, "", 0, 1},
      {"e007" + time + "0300" + "0100", "field mappings_0.type (Int16) at offset 12 holds", 12,
       "mappings_0.type", 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    const ProgramResult json = UsageStat({"decode", "-o", "json"}, c.hex);
    EXPECT_EQ(json.exit_code, 1);
    const Json damage = Json::parse(json.out)["damage"];
    EXPECT_THAT(damage["reason"].get<std::string>(), HasSubstr(c.reason));
    EXPECT_EQ(damage["offset"], c.offset);
    EXPECT_EQ(damage["field"], c.field);
    EXPECT_EQ(damage["missing"], c.missing);
    EXPECT_EQ(damage["left_over"], c.left_over);
    const ProgramResult text = UsageStat({"decode"}, c.hex);
    EXPECT_EQ(text.exit_code, 1);
    EXPECT_THAT(text.out, HasSubstr(c.reason));
  }
  EXPECT_THAT(UsageStat({"decode"}, "e507").out, HasSubstr("2021 (GoToPageEvent)"));
  EXPECT_THAT(UsageStat({"decode"}, "f007").out,
              HasSubstr("2032 (ChangePageEvent or ChangePageEventEx)"));
  EXPECT_THAT(UsageStat({"decode"}, "f407").out, HasSubstr("2036 (unknown)"));
}

// What stands between the parentheses after `function` in the public header, as names.
std::vector<std::string> ParametersInHeader(const std::string& header,
                                            const std::string& function) {
  const std::size_t begin = header.find(" " + function + "(") + function.size() + 2;
  std::stringstream list(header.substr(begin, header.find(')', begin) - begin));
  std::vector<std::string> names;
  for (std::string parameter; std::getline(list, parameter, ',');) {
    const std::size_t name = parameter.find_last_of(" *\n") + 1;
    if (parameter != "void") names.push_back(parameter.substr(name));
  }
  return names;
}

TEST(Types, HeaderNamesArgumentsAsRecordsNameFields) {
  const std::string header = ReadFile(SOURCE_DIR "/include/usage_stat.h");
  std::map<std::string, std::map<std::string, std::string>> fields;  // their meanings
  std::map<std::string, std::set<std::string>> meanings;             // of one name
  std::string book_info;
  const Json dictionary = Json::parse(UsageStat({"types", "-o", "json"}).out);
  for (const Json& record : dictionary["records"]) {
    for (const Json& field : record["fields"]) {
      fields[record["name"]][field["name"]] = field["meaning"];
      meanings[field["name"]].insert(field["meaning"]);
      if (record["name"] != "NewBooksEventEx" || field["name"] != "books") continue;
      for (const Json& column : field["rows"]) {
        book_info +=
            column["name"].get<std::string>() + ": " + column["meaning"].get<std::string>() + "\n";
      }
    }
  }
  std::string agreed;  // names that mean the same wherever they stand
  int checked = 0;
  for (const Json& function : Json::parse(UsageStat({"send", "--list", "-o", "json"}).out)) {
    const std::string name = function["function"];
    SCOPED_TRACE(name);
    std::vector<std::string> names;
    for (const Json& parameter : function["parameters"]) names.push_back(parameter["name"]);
    EXPECT_EQ(ParametersInHeader(header, name), names);
    const std::string record = function["record"];
    for (const std::string& parameter : names) {
      // The margins are one argument and several fields, `e` is accepted and not sent.
      if (record.empty() || parameter == "margins" ||
          (record.starts_with("SetFontParams") && parameter == "e")) {
        continue;
      }
      EXPECT_EQ(fields[record].count(parameter), 1) << parameter;
      ++checked;
      if (parameter.size() == 1 || meanings[parameter].size() != 1) continue;
      const std::string line = " *   " + parameter + std::string(21 - parameter.size(), ' ') +
                               fields[record][parameter] + "\n";
      if (agreed.find(line) == std::string::npos) agreed += line;
    }
  }
  EXPECT_GT(checked, 80);
  EXPECT_THAT(header, HasSubstr("what each means:\n *\n" + agreed + " */")) << "renew the comment";

  // The members of the record are letters here and there: their comments give the names.
  std::string members;
  const std::regex member(R"(\n  (?:const char\*|int|int16_t)[^;\n]*;\s*/\* (\w+: [^*]*) \*/)");
  const std::size_t begin = header.find("typedef struct Stat_BookInfo {");
  const std::string record = header.substr(begin, header.find("} Stat_BookInfo;") - begin);
  for (std::sregex_iterator i(record.begin(), record.end(), member), end; i != end; ++i) {
    members += i->str(1) + "\n";
  }
  EXPECT_EQ(members, book_info);
}

TEST(Decode, ReadsBytesAndDigitsAlikeAndAccountsForEachByte) {
  const std::string path = SOURCE_DIR "/tests/vectors/2028-NewBooksEventEx.json";
  const std::string hex = Json::parse(ReadFile(path))["hex"];
  const std::string raw = velmora::usage_stat::base::FromHex(hex).value();
  std::string spaced;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    spaced += hex.substr(i, 2) + (i % 32 == 0 ? "\n" : " ");
  }
  const ProgramResult from_hex = UsageStat({"decode", "-o", "json"}, spaced);
  EXPECT_EQ(from_hex.exit_code, 0);
  EXPECT_EQ(UsageStat({"decode", "-o", "json", "-"}, raw).out, from_hex.out);
  const std::string line = R"({"id":7,"raw":")" + hex + "\"}";
  for (const std::string& argument : {hex, line, path}) {
    EXPECT_EQ(UsageStat({"decode", "-o", "json", argument}).out, from_hex.out) << argument;
  }
  EXPECT_EQ(UsageStat({"decode", "-o", "json"}, line).out, from_hex.out);
  for (const std::string& several : {line + "\n" + line + "\n", hex + "\n" + hex + "\n"}) {
    EXPECT_THAT(UsageStat({"decode"}, several).err, HasSubstr("one record at a time"));
  }
  EXPECT_THAT(UsageStat({"decode"}, "{\n").err, HasSubstr("not one JSON object"));
  std::string joined;
  const Json decoded = Json::parse(from_hex.out);
  for (const Json& field : decoded["fields"]) {
    EXPECT_EQ(joined.size(), 2 * field["offset"].get<std::size_t>());
    joined += field["bytes"];
  }
  EXPECT_EQ(joined, hex);
  EXPECT_EQ(UsageStat({"decode", "--raw"}, hex).exit_code, 1) << "digits are not the record";
}

TEST(Decode, NeverHandsControlCharactersToTheTerminal) {
  // GoToURLEvent with an escape sequence, a C1 control, a bidirectional override, a broken byte.
  const std::string url =
      "1b5b324a"
      "c29b"
      "e280ae"
      "ff"
      "0a"
      "c3a4";
  const ProgramResult result = UsageStat({"decode"},
                                         "f3077b6c50c4a00100000300"
                                         "0d000000" +
                                             url);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.out, HasSubstr("\"\\u001b[2J\\u009b\\u202e\xEF\xBF\xBD\\n\xC3\xA4\""));
  for (const char* raw : {"\x1b", "\xC2\x9B", "\xE2\x80\xAE", "\xFF"}) {
    EXPECT_THAT(result.out, Not(HasSubstr(raw)));
  }
}

TEST(Send, KnowsEveryExportedFunction) {
  std::set<std::string> exported;
  const std::string map = ReadFile(SOURCE_DIR "/src/libusage_stat.map");
  const std::regex name("Stat(Utils)?_[A-Za-z0-9]+");
  for (std::sregex_iterator i(map.begin(), map.end(), name), end; i != end; ++i) {
    if (i->str() != "Stat_") exported.insert(i->str());
  }
  std::set<std::string> listed;
  for (const Json& row : Json::parse(UsageStat({"send", "--list", "-o", "json"}).out)) {
    listed.insert(row["function"]);
  }
  EXPECT_EQ(listed, exported);
}

TEST(Send, HandsArgumentsToTheLibrary) {
  Receiver receiver;
  struct Case {
    Words words;
    std::string payload;
  };
  using namespace std::string_literals;
  const Case cases[] = {
      {{"Stat_SendOrientationEvent", "-2"}, "\xFE\xFF"},
      {{"GoToPageEvent", "5", "7", "-9", "true"}, "\5\0\1\7\0\xF7\xFF"s},
      {{"GoToURLEvent", "3", "list"}, "\3\0\4\0\0\0list"s},
      {{"GoToURLEvent", "3", "--help"}, "\3\0\6\0\0\0--help"s},
      {{"GoToURLEvent", "3", "text:null:"}, "\3\0\5\0\0\0null:"s},
      {{"MediaExplorer3SettingsEvent", "9", "255", "257"}, "\x09\0\xFF\1"s},
      {{"SetFontParamsEvent", "1", "2", "", "-1", "0", "6", "1,2,3,-4", "7", "1", "0"},
       "\1\0\0\0\2\0\0\0\0\0\xFF\6\0\xFC\xFF\xFF\xFF\7\1\0"s},
      {{"SendOpenBookEvent", "abc", "null:", "a,b", "", "[\"c,\"]", "1", "2", "3", "4", "5",
        "null:", "", "", ""},
       "\xB0\x3C\x8C\xD9"s + "\0\0"s + "\2\0\0\0\1\0\0\0a\1\0\0\0b"s + "\0\0\0\0"s +
           "\1\0\0\0\2\0\0\0c,"s + "\1\0\2\0\3\0\0\0\4\0\5\0\0\0"s + "\3\0\0\0abc"s +
           std::string(16, '\0')},
      {{"NewBooksEventEx", "1",
        R"([{"book_id": 7, "language": "en", "series_number": -1, "title": "x"}])", "4"},
       "\1\0\0\0"s + "\7\0\0\0en"s + std::string(12, '\0') + "\0\0\0\0\xFF\xFF"s + "\0\0\0\0"s +
           "\1\0\0\0x"s + std::string(12, '\0') + "\4\0"s},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words[0]);
    Words words = {"send", "--endpoint", receiver.endpoint()};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const ProgramResult result = UsageStat(words);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    const auto datagram = receiver.TryReceive();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->substr(10), c.payload);
  }
}

TEST(Send, ReportsResultsAndWrongArguments) {
  struct Case {
    Words words;
    int exit_code;
    const char* text;
  };
  const Case cases[] = {
      {{"GetBookId", "abc"}, 0, "Stat_GetBookId(\"abc\") = -645120848\n"},
      {{"StatUtils_GetStatList"}, 0, "StatUtils_GetStatList() = []\n"},
      {{"GoToURLEvent", "3", "x"}, 1, "Stat_GoToURLEvent(3, \"x\") = 111 ECONNREFUSED ("},
      {{"NewBooksEventSimple", "0", "null:", "1"}, 1, "= -2 VM_INVAL ("},
      {{"NewBooksEventSimple", "1", ".zip", "1"}, 1, "raised an exception"},
      {{"GoToURLEvent", "3"}, 2, "takes 2 arguments, not 1: Stat_GoToURLEvent(int16_t a, "},
      {{"GoToURLEvent", "32768", "x"},
       2,
       "argument 1 (a) is 32768, not a whole number from -32768"},
      {{"GoToURLEvent", "1.0", "x"}, 2, "argument 1 (a) is 1.0"},
      {{"GoToURLEvent", "3", "null:"}, 2, "argument 2 (url) must not be null"},
      {{"NewBooksEventEx", "1", "/no/book.epub", "1"}, 2, "argument 2 (books)"},
      {{"SetFontParamsEvent", "1", "2", "", "0", "0", "6", "1,2,128,4", "7", "1", "0"},
       2,
       "argument 7 (margins)"},
      {{"Bogus"}, 2, "no function Bogus"},
      {{}, 2, "which function"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Words words = {"send", "--endpoint", Receiver::UniqueEndpoint()};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const ProgramResult result = UsageStat(words);
    EXPECT_EQ(result.exit_code, c.exit_code);
    EXPECT_THAT(result.out + result.err, HasSubstr(c.text));
  }
}

}  // namespace
}  // namespace usage_stat_test
