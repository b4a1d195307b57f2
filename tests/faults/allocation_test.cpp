// Memory that runs out at every single allocation of every exported function.

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "tests/faults/failing_memory.h"
#include "tests/library/golden_records.h"
#include "tests/support/receiver.h"

namespace usage_stat_test {
namespace {

// What became of the calls of one function.
struct Tally {
  int failed_allocations = 0;
  int exceptions = 0;
  int codes = 0;
  int successes = 0;
};
using Tallies = std::map<std::string, Tally>;

void Print(const Tallies& tallies) {
  for (const auto& [name, tally] : tallies) {
    std::printf("| %s | %d | %d | %d | %d |\n", name.c_str(), tally.failed_allocations,
                tally.exceptions, tally.codes, tally.successes);
  }
}

constexpr int kThrew = -1000;

int CallWithFailure(long fail_at, bool once, const std::function<int()>& call, long* held) {
  const FailingMemory memory(fail_at, once);
  int result = kThrew;
  try {
    result = call();
  } catch (const std::bad_alloc&) {
  }
  ERR_clear_error();  // frees what libcrypto keeps of its own failures
  *held = memory.held();
  return result;
}

// Fails each allocation of `call` in turn: it must hold no memory afterwards, and the next call
// must succeed. `check` is told each result.
void FailEachAllocation(const std::string& name, const std::function<int()>& call,
                        const std::function<void(int result)>& check, Tallies* tallies) {
  Tally& tally = (*tallies)[name];
  // The first calls fill caches that stay: the kept socket, the C library's and OpenSSL's own.
  for (int i = 0; i < 3; ++i) check(call());
  ERR_clear_error();
  long allocations = 0;
  int expected = 0;
  {
    const FailingMemory memory(0, false);
    expected = call();
    allocations = memory.count();
  }
  check(expected);
  for (const bool once : {true, false}) {
    for (long n = 1; n <= allocations; ++n) {
      SCOPED_TRACE(name + ", allocation " + std::to_string(n) +
                   (once ? "" : " and all later ones"));
      long held = 0;
      const int result = CallWithFailure(n, once, call, &held);
      EXPECT_EQ(held, 0);
      ++tally.failed_allocations;
      ++(result == kThrew ? tally.exceptions : result == 0 ? tally.successes : tally.codes);
      check(result);
      EXPECT_EQ(call(), expected);
      check(expected);
    }
  }
}

// Whether `message` is `expected`; an id that there was no memory to compute is 0.
bool IsTrue(const std::string& message, const std::string& expected) {
  if (message.size() != expected.size()) return false;
  for (std::size_t i = 0; i < message.size(); ++i) {
    if (message[i] != expected[i] && message[i] != 0) return false;
  }
  return true;
}

TEST(AllocationFaultTest, EveryAllocationOfEverySenderMayFail) {
  setenv("CORVANE_ROOT", "/nonexistent", 1);
  setenv("CORVANE_LOG_LEVEL", "0", 1);
  Receiver receiver;
  receiver.Announce();
  Tallies tallies;
  for (const GoldenRecord& golden : GoldenRecords()) {
    if (!golden.send) continue;
    const std::string name = golden.signature.substr(4, golden.signature.find('(') - 4);
    FailEachAllocation(
        name, golden.send,
        [&](int result) {
          const std::optional<std::string> message = receiver.TryReceive();
          // What arrives is whole and true, even if memory ran out on the way.
          if (message.has_value()) {
            EXPECT_TRUE(IsTrue(message->substr(10), golden.payload)) << *message;
          }
          if (result == 0) {
            EXPECT_TRUE(message.has_value());
          }
          EXPECT_EQ(receiver.TryReceive(), std::nullopt);
        },
        &tallies);
  }
  Print(tallies);
}

TEST(AllocationFaultTest, TheOtherFunctionsToo) {
  const std::filesystem::path root =
      std::filesystem::temp_directory_path() / Receiver::UniqueEndpoint();
  std::filesystem::create_directory(root);
  std::ofstream(root / "a.fb2")
      << "<FictionBook><description><title-info>"
         "<book-title>A title of some length</book-title>"
         "<author><first-name>An</first-name><last-name>Author</last-name>"
         "</author></title-info></description></FictionBook>";
  std::filesystem::create_directories(root / "mnt/ext1/system/config");
  std::ofstream(root / "mnt/ext1/system/config/global.cfg")
      << "language=more than a string holds without an allocation\n";
  setenv("CORVANE_ROOT", root.c_str(), 1);
  setenv("CORVANE_LOG_LEVEL", "0", 1);
  Receiver receiver;
  receiver.Announce();
  const auto no_check = [](int) {};
  const auto arrived_once = [&receiver](int result) {
    const std::optional<std::string> message = receiver.TryReceive();
    if (result == 0) {
      EXPECT_TRUE(message.has_value());
    }
    EXPECT_EQ(receiver.TryReceive(), std::nullopt);
  };
  Tallies tallies;

  static const char* const paths[] = {"/a.fb2", "/none.epub"};
  FailEachAllocation(
      "Stat_NewBooksEventSimple", [] { return Stat_NewBooksEventSimple(2, paths, 1); },
      arrived_once, &tallies);
  static const char* arguments[] = {"--of-some-length", "/mnt/ext1/a.fb2", nullptr};
  FailEachAllocation(
      "Stat_StartApplicationByPathEvent",
      [] { return Stat_StartApplicationByPathEvent(1, "/mnt/ext1/a.app", 2, arguments); },
      arrived_once, &tallies);
  // Such a language is never sent, but read.
  FailEachAllocation(
      "Stat_LangEvent, a long text", [] { return Stat_LangEvent() + 1; }, no_check, &tallies);
  const int id = Stat_GetBookId("/mnt/ext1/book.epub");
  FailEachAllocation(
      "Stat_GetBookId", [id] { return Stat_GetBookId("/mnt/ext1/book.epub") - id; }, no_check,
      &tallies);
  FailEachAllocation(
      "Stat_GetApplicationId", [] { return Stat_GetApplicationId("explorer.app") - 1; }, no_check,
      &tallies);
  const auto collect_a_book = [] {
    struct Release {
      ~Release() { StatUtils_FreeStatList(); }
    } release;
    StatUtils_AddNewBookToStatList("/a.fb2");
    if (StatUtils_StatListSize() == 0) return -1;
    const Stat_BookInfo& book = *StatUtils_GetStatList()[0];
    EXPECT_STREQ(book.s1, "A title of some length");
    EXPECT_TRUE(book.file_name && book.file_type && book.first_list[0] && book.second_list[9]);
    return 0;
  };
  FailEachAllocation("StatUtils_AddNewBookToStatList", collect_a_book, no_check, &tallies);
  Print(tallies);
  std::filesystem::remove_all(root);
}

}  // namespace
}  // namespace usage_stat_test
