// What a call meets when the collector is missing, stuck or can't take the message, and many calls
// at once, through the real platform libraries.

#include <gmock/gmock.h>

#include <cerrno>
#include <map>
#include <thread>

#include "tests/library/golden_records.h"
#include "tests/support/receiver.h"

namespace usage_stat_test {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// The result of `call` and what it logged, from the function's signature on.
std::pair<int, std::string> Outcome(int (*call)()) {
  CaptureStderr();
  const int result = call();
  const std::string log = GetCapturedStderr();
  return {result, log.substr(std::min(log.size(), log.find(": [pid:")))};
}

std::string ErrorOf(int error) {
  return ": [pid:" + std::to_string(getpid()) + "] err:[" + std::to_string(error) + "] \n";
}

TEST(TransportTest, WithoutACollectorCallsAreRefused) {
  Receiver receiver;
  receiver.Announce();
  receiver.Stop();
  EXPECT_EQ(Outcome(Stat_ForceRotationEvent), std::pair(ECONNREFUSED, ErrorOf(ECONNREFUSED)));
  receiver.Start();
  EXPECT_EQ(Outcome(Stat_ForceRotationEvent), std::pair(0, std::string()));
}

TEST(TransportTest, AnApplicationWhoseErrorsNobodyReadsGoesOn) {
  Receiver receiver;
  receiver.Announce();
  receiver.Stop();
  int unread[2];
  ASSERT_EQ(pipe(unread), 0);
  const int saved = dup(STDERR_FILENO);
  dup2(unread[1], STDERR_FILENO);
  int refused = 0;
  for (int i = 0; i < 3000; ++i) {
    // Different texts, so that the lines are not left out as equal ones.
    setenv("CORVANE_LOG_LEVEL", "3", 1);
    LaunchByPath(i, ("/opt/" + std::to_string(i)).c_str(), {});
    refused += Stat_ForceRotationEvent() == ECONNREFUSED;
  }
  unsetenv("CORVANE_LOG_LEVEL");
  dup2(saved, STDERR_FILENO);
  for (const int descriptor : {saved, unread[0], unread[1]}) close(descriptor);
  EXPECT_EQ(refused, 3000);
}

TEST(TransportTest, AStuckCollectorCostsTheMessageAndNoMore) {
  Receiver receiver;
  receiver.Announce();
  int sent = 0;
  CaptureStderr();
  while (Stat_ForceRotationEvent() == 0) ++sent;
  GetCapturedStderr();
  EXPECT_GT(sent, 0);
  EXPECT_EQ(Outcome(Stat_ForceRotationEvent), std::pair(EAGAIN, ErrorOf(EAGAIN)));
  while (receiver.TryReceive()) --sent;
  EXPECT_EQ(sent, 0);
  EXPECT_EQ(Stat_ForceRotationEvent(), 0);
}

// A description whose record has `size` bytes.
int SendBooks(int count, std::size_t size) {
  const std::string title(size - 48, 't');
  const char* titles[] = {title.c_str(), nullptr};
  Stat_BookInfo book = {};
  book.first_list = titles;
  const std::vector<const Stat_BookInfo*> books(static_cast<std::size_t>(count), &book);
  return Stat_NewBooksEventEx(count, books.data(), 1);
}

TEST(TransportTest, MessagesUpTo100KiBArriveWholeAndLargerOnesNotAtAll) {
  constexpr std::size_t kFrame = 10 + 4 + 2;  // envelope, count, application
  Receiver receiver;
  receiver.Announce();
  for (const std::size_t size : {500U, 1023U}) {
    EXPECT_EQ(SendBooks(100, size), 0);
    EXPECT_EQ(receiver.Receive().value_or("").size(), 100 * size + kFrame);
  }
  EXPECT_EQ(Outcome([] { return SendBooks(100, 1024); }), std::pair(EMSGSIZE, ErrorOf(EMSGSIZE)));
  static const std::string text(16 << 20, 'x');
  EXPECT_EQ(Outcome([] { return Stat_GoToURLEvent(1, text.c_str()); }),
            std::pair(EMSGSIZE, ErrorOf(EMSGSIZE)));
  EXPECT_FALSE(receiver.TryReceive());
}

TEST(TransportTest, ManyThreadsSendAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kCalls = 50;
  Receiver receiver;
  receiver.Announce();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kCalls; ++i) {
        const std::string word(static_cast<std::size_t>(i), 'w');
        while (Stat_UseDictionaryEvent(t, word.c_str()) == EAGAIN) continue;
      }
    });
  }
  std::map<std::string, int> payloads;
  for (int i = 0; i < kThreads * kCalls; ++i)
    ++payloads[receiver.Receive().value_or("").substr(10)];
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(receiver.TryReceive());
  for (int i = 0; i < kThreads * kCalls; ++i) {
    const std::string word(static_cast<std::size_t>(i % kCalls), 'w');
    EXPECT_EQ(payloads[I32(i / kCalls) + Text(word)], 1);
  }
}

}  // namespace
}  // namespace usage_stat_test
