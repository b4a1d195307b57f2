// The first look-up of a process decides on the id of the store, so each scenario runs in a process
// of its own; that of the tests never looks up anything.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "include/usage_stat.h"
#include "tests/support/recording/recorder.h"

namespace usage_stat_test {
namespace {

using testing::ExitedWithCode;

[[noreturn]] void ExitWith(bool passed) { _exit(passed ? 0 : 1); }

[[noreturn]] void LookUpStores(const char* partner, int id) {
  Recorded().partner_name = partner;
  bool passed = true;
  for (const char* store : {"BookStore.app", "bookstore.app", "zundelstore.app"}) {
    passed = passed && Stat_GetApplicationId(store) == id;
    Recorded().partner_name = "dollin";  // too late
  }
  ExitWith(passed && Stat_GetApplicationId("/BookStore.app") == -1);
}

TEST(ApplicationIdTest, StoresDependOnThePartner) {
  using Stores = std::vector<std::pair<const char*, int>>;
  for (const auto& [partner, id] : Stores{{"norvik", 32},
                                          {"tellhaus", 33},
                                          {"varsk", 34},
                                          {"falkner", 35},
                                          {"dollin", 38},
                                          {"quellmedia", 39},
                                          {"", 4},
                                          {"Norvik", 4}}) {
    EXPECT_EXIT(LookUpStores(partner, id), ExitedWithCode(0), "") << partner;
  }
}

[[noreturn]] void LookUpWithoutPartner() {
  int thrown = 0;
  for (const char* path : {static_cast<const char*>(nullptr), "explorer.app"}) {
    Recorded().partner_name = nullptr;
    try {
      Stat_GetApplicationId(path);
    } catch (const std::logic_error&) {
      ++thrown;
    }
  }
  // The diagnostic line comes before the look-up.
  const char* no_arguments = nullptr;
  try {
    Stat_StartApplicationByPathEvent(1, "explorer.app", 0, &no_arguments);
  } catch (const std::logic_error&) {
    thrown += Recorded().log.size() == 1;
  }
  Recorded().partner_name = "varsk";
  ExitWith(thrown == 3 && Stat_GetApplicationId("bookstore.app") == 34);
}

TEST(ApplicationIdTest, NullPartnerNameLeavesTheNextCallToTryAgain) {
  EXPECT_EXIT(LookUpWithoutPartner(), ExitedWithCode(0), "");
}

[[noreturn]] void LookUpFromManyThreads() {
  Recorded().partner_name = "tellhaus";
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&right] {
      right += Stat_GetApplicationId("bookstore.app") == 33;
      right += Stat_GetApplicationId("ocr.app") == 28;
    });
  }
  for (std::thread& thread : threads) thread.join();
  ExitWith(right == 16);
}

TEST(ApplicationIdTest, ManyThreadsMayLookUpFirst) {
  for (int i = 0; i < 20; ++i) EXPECT_EXIT(LookUpFromManyThreads(), ExitedWithCode(0), "");
}

[[noreturn]] void LookUpNames() {
  bool passed = Stat_GetApplicationId(nullptr) == -1;
  std::istringstream rows(
      "explorer.app 1 acontent.app 5 audio_player.app 6 Dictionary.app 7 settings.app 9 "
      "browser.app 10 browser_social.app 10 calc.app 11 calendar.app 12 chess.app 13 "
      "kosynka.app 14 UniversalSync.app 15 velmnews.app 16 scribble.app 17 painter.app 18 "
      "sudoku.app 19 snake.app 20 dropboxctl.app 21 SendToVelmora.app 22 taskmgr.app 25 "
      "photo_scanner.app 28 PhotoScanner.app 28 barcode.app 28 camera.app 28 ocr.app 28 "
      "notes.app 5 bookshelf.app 37 music_player.app 40 audio_books.app 41 Explorer.app -1 "
      "explorer -1 explorer.appx -1 /explorer.app -1 x/notes.app -1 explorer.app/ -1 / -1");
  std::string name;
  for (int id = 0; rows >> name >> id;) {
    if (Stat_GetApplicationId(name.c_str()) != id) {
      passed = false;
      std::cerr << name << " is not " << id << "; ";
    }
  }
  ExitWith(passed);
}

TEST(ApplicationIdTest, NamesAreExactAndPathsAreUnknown) {
  EXPECT_EXIT(LookUpNames(), ExitedWithCode(0), "");
}

}  // namespace
}  // namespace usage_stat_test
