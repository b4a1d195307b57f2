// The applications of the device, known by their names.

#ifndef USAGE_STAT_CLIENT_APPLICATION_TABLE_H_
#define USAGE_STAT_CLIENT_APPLICATION_TABLE_H_

#include <cstdint>
#include <optional>
#include <string_view>

#include "include/usage_stat.h"

namespace velmora::usage_stat {

// The id of the store on devices of no known partner.
constexpr Stat_ApplicationId kDefaultStoreId = 4;

struct ApplicationRow {
  enum Kind : std::int8_t {
    kApplication,  // `name` is an application's, `id` its own
    kStore,        // `name` is one of the store's, whose id depends on the device's partner
    kPartner,      // `name` is a partner's, `id` that of the store on its devices
  };

  char name[20];  // inside the row, so that the table needs no relocation when it is loaded
  std::int8_t id;
  Kind kind;
};

// Several names share an id on purpose: to the collector they are one application.
inline constexpr ApplicationRow kApplicationTable[] = {
    {"explorer.app", 1, ApplicationRow::kApplication},
    {"acontent.app", 5, ApplicationRow::kApplication},
    {"audio_player.app", 6, ApplicationRow::kApplication},
    {"Dictionary.app", 7, ApplicationRow::kApplication},
    {"settings.app", 9, ApplicationRow::kApplication},
    {"browser.app", 10, ApplicationRow::kApplication},
    {"browser_social.app", 10, ApplicationRow::kApplication},
    {"calc.app", 11, ApplicationRow::kApplication},
    {"calendar.app", 12, ApplicationRow::kApplication},
    {"chess.app", 13, ApplicationRow::kApplication},
    {"kosynka.app", 14, ApplicationRow::kApplication},
    {"UniversalSync.app", 15, ApplicationRow::kApplication},
    {"velmnews.app", 16, ApplicationRow::kApplication},
    {"scribble.app", 17, ApplicationRow::kApplication},
    {"painter.app", 18, ApplicationRow::kApplication},
    {"sudoku.app", 19, ApplicationRow::kApplication},
    {"snake.app", 20, ApplicationRow::kApplication},
    {"dropboxctl.app", 21, ApplicationRow::kApplication},
    {"SendToVelmora.app", 22, ApplicationRow::kApplication},
    {"taskmgr.app", 25, ApplicationRow::kApplication},
    {"photo_scanner.app", 28, ApplicationRow::kApplication},
    {"PhotoScanner.app", 28, ApplicationRow::kApplication},
    {"barcode.app", 28, ApplicationRow::kApplication},
    {"camera.app", 28, ApplicationRow::kApplication},
    {"ocr.app", 28, ApplicationRow::kApplication},
    {"notes.app", 5, ApplicationRow::kApplication},
    {"bookshelf.app", 37, ApplicationRow::kApplication},
    {"music_player.app", 40, ApplicationRow::kApplication},
    {"audio_books.app", 41, ApplicationRow::kApplication},
    {"BookStore.app", kDefaultStoreId, ApplicationRow::kStore},
    {"bookstore.app", kDefaultStoreId, ApplicationRow::kStore},
    {"zundelstore.app", kDefaultStoreId, ApplicationRow::kStore},
    {"norvik", 32, ApplicationRow::kPartner},
    {"tellhaus", 33, ApplicationRow::kPartner},
    {"varsk", 34, ApplicationRow::kPartner},
    {"falkner", 35, ApplicationRow::kPartner},
    {"dollin", 38, ApplicationRow::kPartner},
    {"quellmedia", 39, ApplicationRow::kPartner},
};

// The id of the application called `name`, stores apart. Exact and case-sensitive.
std::optional<Stat_ApplicationId> KnownApplicationId(std::string_view name);

// Whether `name` is one of the names of the store, which differ between partners in their id only.
bool IsStoreName(std::string_view name);

// The id that the store has on devices of the partner called `partner`.
Stat_ApplicationId StoreIdOfPartner(std::string_view partner);

// Whether `name` is that of a book reader.
bool IsReaderName(std::string_view name);

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_APPLICATION_TABLE_H_
