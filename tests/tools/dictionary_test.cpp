// What the dictionary promises: names that stay, values that can be taken out, views that show
// them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "tests/support/files.h"
#include "tests/support/sample_records.h"
#include "tools/base/text.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"
#include "tools/records/text.h"
#include "tools/records/views.h"

namespace velmora::usage_stat::records {
namespace {

using usage_stat_test::ReadFile;
using usage_stat_test::SampleRecord;
using usage_stat_test::SampleRecords;

// Queries and programs of others rely on names, so that a change here is a mistake, except for a
// line that is added: `usage-stat types` and this list grow together.
TEST(Dictionary, KeepsItsNames) {
  std::string names;
  for (const RecordType& type : Catalogue()) {
    names += std::to_string(type.code) + " " + std::string(type.event);
    for (const FieldType& field : type.fields) {
      names += " " + field.name;
      if (!field.name_key.empty()) names += "(" + field.name_key + ")";
    }
    names += "\n";
  }
  EXPECT_EQ(names, ReadFile(SOURCE_DIR "/tests/tools/names.txt"));
}

TEST(Dictionary, SaysWhatIsSensitive) {
  for (const RecordType& type : Catalogue()) {
    for (const FieldType& field : type.fields) {
      SCOPED_TRACE(std::string(type.event) + " " + field.name);
      EXPECT_FALSE(field.meaning.empty());
      EXPECT_EQ(field.meaning.find('\n'), std::string::npos);
      // What is the application's own may be anything at all, and a letter means nothing else.
      const bool is_letter = field.column.size() == 1;
      EXPECT_EQ(is_letter, field.kind == Kind::kOwn);
      if (is_letter) {
        EXPECT_EQ(field.sensitivity, Sensitivity::kContent);
      }
      if (field.kind == Kind::kBookId) {
        EXPECT_EQ(field.primitive, "Int32");
      }
    }
  }
  for (const char* bookless : {"GoToPageEvent", "GoToURLEvent", "StopTtsEvent"}) {
    EXPECT_FALSE(FindEvent(bookless)->carries_book()) << bookless;
  }
}

// Takes out every value that there is.
class Eraser : public FieldEditor {
 public:
  std::int64_t Number(std::size_t field, std::int64_t) override { return Seen(field), 0; }
  void Text(std::size_t field, std::string* value) override {
    Seen(field);
    value->clear();
  }
  void Texts(std::size_t field, std::vector<std::string>* value) override {
    Seen(field);
    value->clear();
  }
  const std::set<std::size_t>& fields() const { return fields_; }

 private:
  void Seen(std::size_t field) { fields_.insert(field); }

  std::set<std::size_t> fields_;
};

TEST(Dictionary, TakesOutAnyValueAndLeavesARecordOfTheSameClass) {
  for (const SampleRecord& sample : SampleRecords()) {
    SCOPED_TRACE(sample.class_name);
    auto read = Read(sample.bytes);
    ASSERT_TRUE(read);
    Eraser eraser;
    read->type->edit(read->event.get(), &eraser);
    std::set<std::size_t> editable;
    for (std::size_t i = 0; i < read->type->fields.size(); ++i) {
      if (!read->type->fields[i].is_structure) editable.insert(i);
    }
    EXPECT_EQ(eraser.fields(), editable);

    std::ostringstream out;
    ASSERT_EQ(read->event->WriteToStream(out), 0);
    const auto again = Read(out.str());
    ASSERT_TRUE(again);
    EXPECT_EQ(again->type, read->type);
    // Nothing is left but what frames lists, zeros and NULs.
    EXPECT_THAT(Dump(again->type->values_of(*again->event)),
                testing::Not(testing::ContainsRegex("[4-9]|text")))
        << sample.class_name;
  }
}

TEST(Dictionary, NamesNumbersThatHaveNames) {
  const auto& type = *FindEvent("KeyboardSettingsEvent");
  const Json values = Json::parse(R"([3,[[0,0,41],[1,0,999]],[],"no list"])");
  EXPECT_EQ(
      Dump(NamedFields(type, values)),
      R"({"list_count":3,"mappings_0":[{"key":0,"kind":0,"action":41,"action_name":"KA_pgdn"},)"
      R"({"key":1,"kind":0,"action":999}],"mappings_1":[],"mappings_2":[]})");
  EXPECT_EQ(ValueName(Kind::kPackedMargins, 0x04040606), "4 4 6 6");
  EXPECT_EQ(ValueName(Kind::kApplication, 5), "acontent.app, notes.app");
  EXPECT_EQ(ValueName(Kind::kApplication, 33),
            "BookStore.app, bookstore.app, zundelstore.app of tellhaus");
  EXPECT_EQ(ValueName(Kind::kLibrarySortBy, 2), "date added");
  EXPECT_EQ(ValueName(Kind::kBookId, 2), "");
  EXPECT_EQ(FieldsLine(*FindEvent("StartOpenBookEvent"), Json::parse(R"([7,37,1,"\u001b"])")),
            R"( book_id=7 application=37(bookshelf.app) a=1 b="\u001b")");
}

// ---- Views ----

class Database {
 public:
  Database() { sqlite3_open(":memory:", &handle_); }
  ~Database() { sqlite3_close(handle_); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // The rows of a query, columns apart by a bar.
  std::string Rows(const std::string& sql) {
    std::string rows;
    char* error = nullptr;
    const auto add = [](void* all, int count, char** values, char**) {
      auto* text = static_cast<std::string*>(all);
      for (int i = 0; i < count; ++i)
        *text += std::string(i > 0 ? "|" : "") + (values[i] ? values[i] : "NULL");
      *text += "\n";
      return 0;
    };
    sqlite3_exec(handle_, sql.c_str(), add, &rows, &error);
    EXPECT_STREQ(error, nullptr) << sql;
    sqlite3_free(error);
    return rows;
  }

 private:
  sqlite3* handle_ = nullptr;
};

TEST(Views, ShowEveryRecordByColumns) {
  Database database;
  database.Rows(
      "CREATE TABLE events(id INTEGER PRIMARY KEY, type INTEGER, name TEXT);"
      "CREATE TABLE records(id INTEGER PRIMARY KEY, received_ms, pid, uid, event, timestamp_ms, "
      "fields)");
  database.Rows(ValueNames().create + ";" + ValueNames().fill);
  for (const View& view : Views()) database.Rows(view.sql);
  int id = 0;
  for (const auto& file : std::filesystem::directory_iterator(SOURCE_DIR "/tests/vectors")) {
    if (file.path().extension() != ".json") continue;
    const Json vector = Json::parse(ReadFile(file.path()));
    const auto read = Read(*base::FromHex(vector["hex"].get<std::string>()));
    if (!read) continue;
    ++id;
    database.Rows("INSERT INTO events VALUES(" + std::to_string(id) + ", 0, '" +
                  std::string(read->type->event) + "')");
    std::string values = Dump(read->type->values_of(*read->event));
    database.Rows("INSERT INTO records VALUES(" + std::to_string(id) + ", 5, 6, 7, " +
                  std::to_string(id) + ", 1790000000123, '" + values + "')");
    // Each column has the value that the vector has under the column's name.
    for (const auto& [name, value] : vector["record"]["fields"].items()) {
      if (value.is_array() && name != "authors" && name != "genres") continue;
      const std::string shown = value.is_string()    ? value.get<std::string>()
                                : value.is_boolean() ? std::to_string(int{value.get<bool>()})
                                                     : Dump(value);
      EXPECT_EQ(database.Rows("SELECT " + name + " FROM " + ViewName(read->type->event) +
                              " WHERE id = " + std::to_string(id)),
                shown + "\n")
          << read->type->event << " " << name;
    }
  }
  EXPECT_EQ(
      database.Rows(
          "SELECT time, timestamp_ms, book_id, from_page, typeof(pages), pid FROM change_page"),
      "2026-09-21T14:13:20.123Z|1790000000123|70000|2|integer|6\n");
  EXPECT_EQ(database.Rows("SELECT row, book_id, title, authors FROM new_books_ex_books"),
            "0|-5|A Book|[\"A. Writer\"]\n1|0||[]\n");
  EXPECT_EQ(database.Rows("SELECT row, key, action, action_name FROM keyboard_settings_mappings_0"),
            "0|0|41|KA_pgdn\n1|1|42|KA_pgup\n");
}

}  // namespace
}  // namespace velmora::usage_stat::records
