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

// Several names share an id on purpose: to the collector they are one application.
constexpr Row kApplications[] = {
    {"explorer.app", 1},
    {"acontent.app", 5},
    {"audio_player.app", 6},
    {"Dictionary.app", 7},
    {"settings.app", 9},
    {"browser.app", 10},
    {"browser_social.app", 10},
    {"calc.app", 11},
    {"calendar.app", 12},
    {"chess.app", 13},
    {"kosynka.app", 14},
    {"UniversalSync.app", 15},
    {"velmnews.app", 16},
    {"scribble.app", 17},
    {"painter.app", 18},
    {"sudoku.app", 19},
    {"snake.app", 20},
    {"dropboxctl.app", 21},
    {"SendToVelmora.app", 22},
    {"taskmgr.app", 25},
    {"photo_scanner.app", 28},
    {"PhotoScanner.app", 28},
    {"barcode.app", 28},
    {"camera.app", 28},
    {"ocr.app", 28},
    {"notes.app", 5},
    {"bookshelf.app", 37},
    {"music_player.app", 40},
    {"audio_books.app", 41},
};

constexpr char kStoreNames[][20] = {"BookStore.app", "bookstore.app", "zundelstore.app"};

constexpr Stat_ApplicationId kDefaultStoreId = 4;
constexpr Row kPartnerStores[] = {
    {"norvik", 32},  {"tellhaus", 33}, {"varsk", 34},
    {"falkner", 35}, {"dollin", 38},   {"quellmedia", 39},
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
