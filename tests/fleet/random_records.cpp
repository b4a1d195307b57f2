// Datagrams as lines of hexadecimal digits: every vector, and then records of all classes with
// values that nobody chose.
//
// usage: random_records VECTORS COUNT SEED

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/stat_event/event.h"
#include "tools/base/text.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"

using namespace velmora::usage_stat;

namespace {

class Dice : public records::FieldEditor {
 public:
  Dice(const records::RecordType& type, std::mt19937_64* random) : type_(type), random_(*random) {}

  std::int64_t Number(std::size_t, std::int64_t) override {
    constexpr std::array<std::int64_t, 9> kEdges{0,     1,      -1,        127,      128,
                                                 32767, -32768, INT32_MAX, INT32_MIN};
    switch (Draw(3)) {
      case 0:
        return kEdges[Draw(kEdges.size())];
      case 1:
        return static_cast<std::int64_t>(Draw(1000));
      default:
        return static_cast<std::int64_t>(random_());
    }
  }
  void Text(std::size_t field, std::string* value) override {
    static const std::vector<std::string> pieces = {
        "a", "Z",  "0", " ",  "'",  "\"", "\\",   "\\N",  "\n",   "\t",           ",", "|", "-",
        "ж", "語", "😀", "{}", "[]", "%",  "\x7f", "\x01", "null", "\xef\xbf\xbd", "&"};
    value->clear();
    if (type_.fields[field].kind == Kind::kLanguage) {
      for (int i = 0; i < 2; ++i) *value += static_cast<char>('a' + Draw(26));
      return;
    }
    for (std::size_t left = Draw(12); left > 0; --left) *value += pieces[Draw(pieces.size())];
  }
  void Texts(std::size_t field, std::vector<std::string>* value) override {
    value->resize(Draw(4));
    for (std::string& text : *value) Text(field, &text);
  }

 private:
  std::size_t Draw(std::size_t below) { return static_cast<std::size_t>(random_() % below); }

  const records::RecordType& type_;
  std::mt19937_64& random_;
};

std::vector<std::string> Vectors(const std::string& folder) {
  std::set<std::string> files;
  std::vector<std::string> datagrams;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.path().extension() == ".json") files.insert(entry.path());
  }
  for (const std::string& file : files) {
    std::ifstream in(file);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    const auto json = records::Json::parse(text, nullptr, false);
    if (!json.is_object() || !json.contains("hex")) continue;
    const auto datagram = base::FromHex(json["hex"].get<std::string>());
    if (datagram && records::Read(*datagram)) datagrams.push_back(*datagram);
  }
  return datagrams;
}

}  // namespace

int main(int argc, char** argv) {
  setenv("CORVANE_LOG_LEVEL", "0", 0);
  if (argc != 4) return 2;
  std::mt19937_64 random(std::strtoull(argv[3], nullptr, 10));
  const std::vector<std::string> vectors = Vectors(argv[1]);
  for (const std::string& datagram : vectors) std::printf("%s\n", base::ToHex(datagram).c_str());
  for (long left = std::atol(argv[2]); left > 0; --left) {
    const auto chosen = static_cast<std::size_t>(random() % vectors.size());  // 32 bits on ARM
    const auto read = records::Read(vectors[chosen]);
    Dice dice(*read->type, &random);
    read->type->edit(read->event.get(), &dice);
    // Mostly of these years, some of any time.
    read->event->timestamp_ =
        left % 16 == 0 ? static_cast<std::int64_t>(random())
                       : 1'600'000'000'000 + static_cast<std::int64_t>(random() % 180'000'000'000);
    std::ostringstream out;
    if (read->event->WriteToStream(out) != 0) return 1;
    // A random value may make the record one of another class, or of none.
    if (const std::string datagram = out.str(); records::Read(datagram)) {
      std::printf("%s\n", base::ToHex(datagram).c_str());
    }
  }
  return 0;
}
