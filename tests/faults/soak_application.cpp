// An application that sends one event of every kind after another until it is asked to end.

#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "tests/library/golden_records.h"

namespace {
volatile sig_atomic_t g_is_ending = 0;
}

int main() {
  signal(SIGTERM, [](int) { g_is_ending = 1; });
  const std::vector<usage_stat_test::GoldenRecord> records = usage_stat_test::GoldenRecords();
  long sent = 0;
  long lost = 0;
  while (!g_is_ending) {
    for (const usage_stat_test::GoldenRecord& record : records) {
      if (record.send) ++(record.send() == 0 ? sent : lost);
    }
    usleep(20'000);
  }
  std::printf("the application: %ld events sent, %ld lost while no collector was there\n", sent,
              lost);
}
