#include "src/usage_stat_client/application_table.h"

#include <algorithm>
#include <iterator>

namespace velmora::usage_stat {

namespace {

constexpr char kReaderNames[][28] = {
    "AdobeViewer.app",
    "fbreader.app",
    "djviewer.app",
    "eink-reader.app",
    "eink-reader_with_rmsdk.app",
    "eink-reader_with_pdfium.app",
};

const ApplicationRow* Find(ApplicationRow::Kind kind, std::string_view name) {
  const ApplicationRow* row =
      std::find_if(std::begin(kApplicationTable), std::end(kApplicationTable),
                   [=](const ApplicationRow& r) { return r.kind == kind && name == r.name; });
  return row == std::end(kApplicationTable) ? nullptr : row;
}

}  // namespace

std::optional<Stat_ApplicationId> KnownApplicationId(std::string_view name) {
  const ApplicationRow* row = Find(ApplicationRow::kApplication, name);
  if (!row) return std::nullopt;
  return row->id;
}

bool IsStoreName(std::string_view name) { return Find(ApplicationRow::kStore, name); }

Stat_ApplicationId StoreIdOfPartner(std::string_view partner) {
  const ApplicationRow* row = Find(ApplicationRow::kPartner, partner);
  return row ? row->id : kDefaultStoreId;
}

bool IsReaderName(std::string_view name) {
  return std::find(std::begin(kReaderNames), std::end(kReaderNames), name) !=
         std::end(kReaderNames);
}

}  // namespace velmora::usage_stat
