#include "fleet/batch/shapes.h"

#include <algorithm>
#include <map>

#include "fleet/batch/columns.h"
#include "tools/base/bytes.h"
#include "tools/records/catalogue.h"

namespace velmora::usage_stat::fleet {

namespace {

constexpr std::string_view kAsItIs = "r";

// The letter of one field of the dictionary.
char LetterOf(const records::FieldType& field) {
  switch (field.extent.form) {
    case Extent::kText:
      return 's';
    case Extent::kTexts:
      return 'v';
    case Extent::kFixed:
      break;
  }
  static const std::map<std::size_t, char> letters = {
      {1, '1'}, {2, '2'}, {4, '4'}, {8, '8'}, {20, 'A'}};
  const auto letter = letters.find(field.extent.least);
  return letter == letters.end() ? 'r' : letter->second;
}

// What repeats, repeats to the end.
std::string LayoutOf(const records::RecordType& type) {
  std::string layout;
  for (const records::FieldType& field : type.fields) {
    const bool repeats = field.name.find("[]") != std::string::npos;
    layout.push_back(repeats ? 'r' : LetterOf(field));
    if (layout.back() == 'r') break;
  }
  return layout;
}

// The layouts of the classes that write `type`, the shorter one first.
std::string_view LayoutFor(int type, std::string_view payload) {
  static const auto layouts = [] {
    std::multimap<int, std::string> made;
    for (const records::RecordType& each : records::Catalogue()) {
      made.emplace(each.code, LayoutOf(each));
    }
    return made;
  }();
  std::string_view found = kAsItIs;
  const auto [begin, end] = layouts.equal_range(type);
  for (auto layout = begin; layout != end; ++layout) {
    if (Fits(layout->second, payload)) found = layout->second;
  }
  return found;
}

}  // namespace

bool AddRecord(std::uint64_t number, std::string_view datagram, std::string_view actions,
               Batch* batch) {
  if (datagram.size() < kEnvelopeSize) return false;
  const std::uint64_t timestamp = base::LittleEndian(datagram.substr(2, 8));
  const std::string_view payload = datagram.substr(kEnvelopeSize);
  Shape shape;
  shape.type = static_cast<std::int16_t>(base::LittleEndian(datagram.substr(0, 2)));
  shape.layout = LayoutFor(shape.type, payload);
  shape.actions = actions;

  const auto known = std::ranges::find(batch->shapes, shape);
  const auto index = static_cast<std::size_t>(known - batch->shapes.begin());
  if (known == batch->shapes.end()) batch->shapes.push_back(std::move(shape));
  batch->records.push_back(
      {number, index, static_cast<std::int64_t>(timestamp), std::string(payload)});
  return true;
}

std::string DatagramOf(const Batch& batch, const BatchRecord& record) {
  std::string datagram;
  base::PutLittleEndian(static_cast<std::uint16_t>(batch.shapes[record.shape].type), 2, &datagram);
  base::PutLittleEndian(static_cast<std::uint64_t>(record.timestamp_ms), 8, &datagram);
  return datagram + record.payload;
}

}  // namespace velmora::usage_stat::fleet
