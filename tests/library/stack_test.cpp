// How much of a thread's stack a call takes, through the real platform libraries.

#include <gtest/gtest.h>

#include <algorithm>

#include "fuzz/archives.h"
#include "tests/library/golden_records.h"
#include "tests/support/device_root.h"
#include "tests/support/painted_stack.h"
#include "tests/support/receiver.h"

namespace usage_stat_test {
namespace {

// As the head of usage_stat.h promises it.
constexpr std::size_t kLibrary = 4096;
constexpr std::size_t kHostPlatform = 16 * 1024;

TEST(StackTest, EveryCallKeepsToWhatTheHeaderPromises) {
  const DeviceRoot root;
  root.Write("/b.epub",
             fuzz::EpubAround("<package><metadata><dc:title "
                              "xmlns:dc=\"http://purl.org/dc/elements/1.1/\">T</dc:title>"
                              "</metadata></package>"));
  root.Write("/b.fb2",
             "<FictionBook><description><title-info><book-title>T</book-title>"
             "</title-info></description></FictionBook>");
  Receiver receiver;
  receiver.Announce();
  std::vector<std::pair<std::string, int (*)()>> calls = {
      {"a batch by paths",
       [] {
         const char* const paths[] = {"/b.epub", "/b.fb2", "/none.epub"};
         return Stat_NewBooksEventSimple(3, paths, 1);
       }},
      {"the new-book list",
       [] {
         StatUtils_AddNewBookToStatList("/b.epub");
         StatUtils_FreeStatList();
         return 0;
       }},
  };
  for (const GoldenRecord& golden : GoldenRecords()) {
    if (golden.send) calls.emplace_back(golden.signature, golden.send);
  }
  const auto expect_within_bound = [&](const char* when) {
    std::size_t most = 0;
    for (const auto& [name, call] : calls) {
      const std::size_t used = StackUsedBy(call);
      EXPECT_LE(used, kLibrary + kHostPlatform) << name << ", " << when;
      most = std::max(most, used);
      while (receiver.TryReceive()) continue;
    }
    RecordProperty(when, std::to_string(most));
    printf("most bytes %s: %zu\n", when, most);
  };
  expect_within_bound("when all goes well");
  receiver.Stop();
  testing::internal::CaptureStderr();
  expect_within_bound("when nobody listens");
  testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace usage_stat_test
