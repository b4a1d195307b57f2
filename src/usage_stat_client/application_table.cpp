#include "src/usage_stat_client/application_table.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace velmora::usage_stat {

namespace {

// Texts stand inside the rows, so that the tables need no relocation when the library is loaded.
struct Row {
  char name[20];
  std::int8_t id;
};

constexpr Row kApplications[] = {
#define STAT_APPLICATION(name, id) {name, id},
#include "src/usage_stat_client/application_table.inc"
};

constexpr char kStoreNames[][20] = {
#define STAT_STORE_NAME(name) name,
#include "src/usage_stat_client/application_table.inc"
};

constexpr Row kPartnerStores[] = {
#define STAT_PARTNER_STORE(partner, id) {partner, id},
#include "src/usage_stat_client/application_table.inc"
};

constexpr char kReaderNames[][28] = {
    "AdobeViewer.app",
    "fbreader.app",
    "djviewer.app",
    "eink-reader.app",
    "eink-reader_with_rmsdk.app",
    "eink-reader_with_pdfium.app",
};

std::optional<Stat_ApplicationId> IdOf(const Row* begin, const Row* end, std::string_view name) {
  const Row* row = std::find_if(begin, end, [name](const Row& r) { return name == r.name; });
  if (row == end) return std::nullopt;
  return row->id;
}

}  // namespace

std::optional<Stat_ApplicationId> KnownApplicationId(std::string_view name) {
  return IdOf(std::begin(kApplications), std::end(kApplications), name);
}

bool IsStoreName(std::string_view name) {
  return std::find(std::begin(kStoreNames), std::end(kStoreNames), name) != std::end(kStoreNames);
}

Stat_ApplicationId StoreIdOfPartner(std::string_view partner) {
  return IdOf(std::begin(kPartnerStores), std::end(kPartnerStores), partner)
      .value_or(kDefaultStoreId);
}

bool IsReaderName(std::string_view name) {
  return std::find(std::begin(kReaderNames), std::end(kReaderNames), name) !=
         std::end(kReaderNames);
}

}  // namespace velmora::usage_stat
