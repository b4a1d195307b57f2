// Records of every type with canaries in them: a text in every text field, a number in every field
// of content and in every one that identifies. None of them may ever leave a device.

#ifndef USAGE_STAT_TESTS_FLEET_CANARIES_H_
#define USAGE_STAT_TESTS_FLEET_CANARIES_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "src/stat_event/event.h"
#include "tests/support/files.h"
#include "tools/base/text.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"

namespace usage_stat_test {

namespace records = velmora::usage_stat::records;
using velmora::usage_stat::Kind;
using velmora::usage_stat::Sensitivity;

inline const std::string kCanary = "canary-4bKq9";
inline constexpr std::int32_t kCanaryNumber = 0x5ca1ab1e;

class Planter : public records::FieldEditor {
 public:
  Planter(const records::RecordType& type, std::mt19937* random) : type_(type), random_(*random) {}

  std::int64_t Number(std::size_t field, std::int64_t) override {
    // The low bits of the canary, in a narrow field, are no zero either.
    return type_.fields[field].sensitivity < Sensitivity::kContent ? Draw() % 20000 : kCanaryNumber;
  }
  void Text(std::size_t field, std::string* value) override {
    *value = type_.fields[field].kind == Kind::kLanguage ? "zq" : kCanary + std::to_string(Draw());
  }
  void Texts(std::size_t, std::vector<std::string>* value) override {
    value->assign(static_cast<std::size_t>(Draw() % 3 + 1), kCanary);
  }

 private:
  std::int64_t Draw() { return static_cast<std::int64_t>(random_() >> 1); }

  const records::RecordType& type_;
  std::mt19937& random_;
};

// One datagram of every class, as the vectors have them.
inline std::map<std::string, std::string> Examples() {
  std::map<std::string, std::string> examples;
  for (const auto& entry : std::filesystem::directory_iterator(SOURCE_DIR "/tests/vectors")) {
    if (entry.path().extension() != ".json") continue;
    const records::Json json = records::Json::parse(ReadFile(entry.path()));
    const auto datagram = velmora::usage_stat::base::FromHex(json["hex"].get<std::string>());
    const auto read = records::Read(datagram.value_or(""));
    if (read) examples.emplace(read->type->event, *datagram);
  }
  return examples;
}

inline std::string Planted(const std::string& example, std::int64_t timestamp,
                           std::mt19937* random) {
  const std::optional<records::ReadEvent> read = records::Read(example);
  Planter planter(*read->type, random);
  read->type->edit(read->event.get(), &planter);
  read->event->timestamp_ = timestamp;
  std::ostringstream out;
  EXPECT_EQ(read->event->WriteToStream(out), 0);
  return std::move(out).str();
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_FLEET_CANARIES_H_
