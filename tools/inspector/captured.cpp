#include "tools/inspector/captured.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iostream>
#include <memory>

#include "tools/base/status.h"
#include "tools/base/text.h"
#include "tools/records/record.h"
#include "tools/store/reader.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::inspector {

namespace {

using base::Status;

bool IsDatabase(std::istream& file) {
  std::string head(15, '\0');
  file.read(head.data(), static_cast<std::streamsize>(head.size()));
  file.clear();
  file.seekg(0);
  return head == "SQLite format 3";
}

template <class Source>
Status ReadRows(const std::string& path, std::vector<std::string>* datagrams) {
  std::unique_ptr<Source> source;
  RETURN_IF_ERROR(Source::Open(path, &source));
  return source->ForEach({}, [datagrams](const store::RecordRow& row) {
    datagrams->push_back(row.raw);
    return true;
  });
}

Status ReadLines(std::istream& in, const std::string& path, std::vector<std::string>* datagrams) {
  std::size_t number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    if (std::all_of(line.begin(), line.end(), [](unsigned char c) { return std::isspace(c); })) {
      continue;
    }
    auto datagram = DatagramIn(line);
    if (!datagram) {
      return Status::Failed(
          fmt::format("line {} of {} holds no record: neither hexadecimal digits "
                      "nor JSON with \"raw\"",
                      number, path));
    }
    datagrams->push_back(*std::move(datagram));
  }
  return in.bad() ? Status::Failed("cannot read " + path) : Status();
}

}  // namespace

std::optional<std::string> DatagramIn(std::string_view line) {
  if (!line.starts_with('{')) return base::FromHex(line);
  const auto json = records::Json::parse(line, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  for (const char* name : {"raw", "hex"}) {
    const auto digits = json.find(name);
    if (digits != json.end() && digits->is_string())
      return base::FromHex(digits->get<std::string>());
  }
  return std::nullopt;
}

Status ReadCaptured(const std::string& path, std::vector<std::string>* datagrams) {
  if (path == "-") return ReadLines(std::cin, "standard input", datagrams);
  if (store::IsArchive(path)) return ReadRows<store::Reader>(path, datagrams);
  std::ifstream file(path, std::ios::binary);
  if (!file) return Status::Failed("cannot read " + path);
  if (!IsDatabase(file)) return ReadLines(file, path, datagrams);
  file.close();
  return ReadRows<store::History>(path, datagrams);
}

}  // namespace velmora::usage_stat::inspector
