// The vectors, read and written by the library's classes.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tools/base/text.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::records {
namespace {

std::string DatagramOf(const Json& vector) {
  return base::FromHex(vector["hex"].get<std::string>()).value_or("");  // one of them is empty
}

TEST(Vectors, ReadAsTheyTellAndAreWrittenAgain) {
  std::set<std::string> events;
  for (const auto& file : std::filesystem::directory_iterator(SOURCE_DIR "/tests/vectors")) {
    if (file.path().extension() != ".json") continue;
    SCOPED_TRACE(file.path());
    std::ifstream in(file.path());
    const Json vector = Json::parse(in);
    const std::string datagram = DatagramOf(vector);
    const auto decoded = Decode(datagram);
    const auto* record = std::get_if<Record>(&decoded);
    ASSERT_TRUE(record);
    EXPECT_EQ(Dump(ToJson(*record)), Dump(vector["record"]));
    events.emplace(record->event);

    const auto& types = Catalogue();
    const auto type = std::find_if(types.begin(), types.end(), [record](const RecordType& row) {
      return row.event == record->event;
    });
    constexpr std::size_t kEnvelope = 10;
    std::istringstream payload(datagram.substr(kEnvelope));
    const auto event = type->read(payload);
    event->timestamp_ = record->timestamp;
    std::ostringstream out;
    EXPECT_EQ(event->WriteToStream(out), 0);
    EXPECT_EQ(out.str(), datagram);
  }
  EXPECT_EQ(events.size(), Catalogue().size()) << "a type without a vector";
}

TEST(Vectors, OddOnesReadAsTheyTellAndTheRefusedAreRefused) {
  int read = 0;
  int refused = 0;
  for (const char* folder : {"odd", "refused"}) {
    const std::string path = std::string(SOURCE_DIR "/tests/vectors/") + folder;
    for (const auto& file : std::filesystem::directory_iterator(path)) {
      SCOPED_TRACE(file.path());
      std::ifstream in(file.path());
      const Json vector = Json::parse(in);
      const auto decoded = Decode(DatagramOf(vector));
      const auto* record = std::get_if<Record>(&decoded);
      EXPECT_EQ(!record, !vector.contains("record")) << vector["about"];
      if (!record) {
        ++refused;
        continue;
      }
      ++read;
      EXPECT_EQ(Dump(ToJson(*record)), Dump(vector["record"])) << vector["about"];
      // Decoding byte by byte says the same of keys whose code is rebuilt.
      for (const TracedField& field : TraceFields(DatagramOf(vector)).fields) {
        if (field.name == "mappings_0[1].kind") {
          EXPECT_EQ(field.value, record->values[1][1][1]);
        }
      }
    }
  }
  EXPECT_GE(read, 8);
  EXPECT_GE(refused, 15);
}

}  // namespace
}  // namespace velmora::usage_stat::records
