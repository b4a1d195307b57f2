// Calls amid signals, and from many threads while the collector comes and goes. Each call must say
// the truth: what it reported as sent arrived once, and nothing else did.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "include/usage_stat.h"
#include "tests/support/receiver.h"

namespace usage_stat_test {
namespace {

// Which calls, by thread and number, reported success and which arrived.
class Ledger {
 public:
  Ledger(std::size_t threads, std::size_t calls)
      : sent_(threads, std::vector<int>(calls)), arrived_(sent_) {}

  // Makes one call and returns whether it reported success. Each thread has a row of its own.
  bool Send(std::size_t thread, std::size_t call) {
    const int result =
        Stat_ChangePageEvent(static_cast<int>(thread), 0, static_cast<int>(call), 0, 0);
    EXPECT_GE(result, 0);
    sent_[thread][call] = result == 0 ? 1 : 0;
    ++(result == 0 ? successes_ : failures_);
    return result == 0;
  }

  void NoteArrival(const std::string& message) {
    ASSERT_EQ(message.size(), 28U);
    std::int32_t thread = 0;
    std::int32_t call = 0;
    std::memcpy(&thread, message.data() + 10, sizeof(thread));
    std::memcpy(&call, message.data() + 16, sizeof(call));
    ++arrived_.at(static_cast<std::size_t>(thread)).at(static_cast<std::size_t>(call));
  }

  // For when all threads have ended and all that was sent was received.
  void ExpectBalance() const { EXPECT_EQ(sent_, arrived_); }

  int successes() const { return successes_; }
  int failures() const { return failures_; }

 private:
  std::vector<std::vector<int>> sent_;
  std::vector<std::vector<int>> arrived_;
  std::atomic<int> successes_ = 0;
  std::atomic<int> failures_ = 0;
};

class StormTest : public testing::Test {
 protected:
  StormTest() {
    setenv("CORVANE_LOG_LEVEL", "0", 1);
    receiver_.Announce();
  }

  // Ends like a collector that finishes what it has: nothing new gets in, the rest is taken.
  void StopReceiver(Ledger* ledger) {
    shutdown(receiver_.descriptor(), SHUT_RD);
    while (const auto message = receiver_.TryReceive()) {
      if (message->empty()) break;
      ledger->NoteArrival(*message);
    }
    receiver_.Stop();
  }

  Receiver receiver_;
};

std::atomic<int> g_signals = 0;

TEST_F(StormTest, SignalsArriveThroughout) {
  constexpr std::size_t kCalls = 5'000;
  Ledger ledger(1, kCalls);
  struct sigaction action {};
  action.sa_handler = [](int) { ++g_signals; };  // and no SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
  std::atomic<bool> is_done = false;
  std::thread collector([&] {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    while (!is_done) {
      if (const auto message = receiver_.Receive(1)) ledger.NoteArrival(*message);
    }
  });
  itimerval often{{0, 100}, {0, 100}};
  setitimer(ITIMER_REAL, &often, nullptr);

  for (std::size_t call = 0; call < kCalls; ++call) ledger.Send(0, call);

  often = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  is_done = true;
  collector.join();
  StopReceiver(&ledger);
  EXPECT_GT(g_signals, 0);
  ledger.ExpectBalance();
  std::printf("| a signal every 100 us | 1 | %d | %d | %d signals |\n", ledger.successes(),
              ledger.failures(), g_signals.load());
}

TEST_F(StormTest, ManyThreadsSendWhileTheCollectorRestarts) {
  constexpr std::size_t kThreads = 32;
  constexpr std::size_t kCalls = 20'000;
  constexpr int kRestarts = 100;
  Ledger ledger(kThreads, kCalls);
  std::atomic<bool> is_done = false;
  std::vector<std::thread> applications;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    applications.emplace_back([&, thread] {
      for (std::size_t call = 0; call < kCalls && !is_done;) {
        if (ledger.Send(thread, call)) {
          ++call;
        } else {
          std::this_thread::yield();
        }
      }
    });
  }

  int restarts = 0;
  for (; restarts < kRestarts; ++restarts) {
    for (int i = 0; i < 30; ++i) {
      if (const auto message = receiver_.Receive(100)) ledger.NoteArrival(*message);
    }
    StopReceiver(&ledger);
    receiver_.Start();
  }
  is_done = true;
  // Whoever still waits for room gets it.
  std::atomic<bool> have_ended = false;
  std::thread rest([&] {
    while (!have_ended) {
      if (const auto message = receiver_.Receive(1)) ledger.NoteArrival(*message);
    }
  });
  for (std::thread& application : applications) application.join();
  have_ended = true;
  rest.join();
  StopReceiver(&ledger);

  EXPECT_GT(ledger.successes(), kRestarts);
  EXPECT_GT(ledger.failures(), 0);
  ledger.ExpectBalance();
  std::printf("| the collector restarts %d times | %zu | %d | %d | |\n", restarts, kThreads,
              ledger.successes(), ledger.failures());
}

}  // namespace
}  // namespace usage_stat_test
