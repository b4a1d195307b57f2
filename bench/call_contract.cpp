// Counts what the representative calls cost, for bench/contract to hold against the ceilings.
//
//   call_contract            prints for each message: its name, system calls and allocations a call
//   call_contract NUMBER     makes kCollected calls of that message for callgrind to count

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <vector>

#include "bench/counting.h"
#include "bench/messages.h"
#include "include/usage_stat.h"
#include "tests/support/receiver.h"

namespace {

constexpr int kWarmUps = 3;
constexpr int kCollected = 100;

// Those that all benches have, and the call that asks the most of the platform.
std::vector<bench::Message> Messages() {
  std::vector<bench::Message> messages(std::begin(bench::kMessages), std::end(bench::kMessages));
  messages.push_back({"key mapping", Stat_KeymappingEvent});
  return messages;
}

void Send(const bench::Message& message) {
  if (message.send() != 0) {
    std::fprintf(stderr, "%s was not sent\n", message.name);
    std::exit(1);
  }
}

void CollectInstructions(const bench::Message& message, usage_stat_test::Receiver& receiver) {
  for (int i = 0; i < kWarmUps + kCollected; ++i) {
    if (i >= kWarmUps) CALLGRIND_TOGGLE_COLLECT;
    Send(message);
    if (i >= kWarmUps) CALLGRIND_TOGGLE_COLLECT;
    receiver.Receive();
  }
}

void PrintCounts(const bench::Message& message, usage_stat_test::Receiver& receiver) {
  constexpr double kReceiving = 1;  // taking the message away is one system call and no allocation
  static char bytes[256 * 1024];
  const bench::CostPerCall cost = bench::CountPerCall([&] {
    Send(message);
    if (recv(receiver.descriptor(), bytes, sizeof(bytes), 0) < 0) std::exit(1);
  });
  std::printf("%s;%.2f;%.2f\n", message.name, cost.system_calls - kReceiving, cost.allocations);
}

}  // namespace

int main(int argc, char** argv) {
  usage_stat_test::Receiver receiver;
  receiver.Announce();
  if (argc > 1) {
    CollectInstructions(Messages().at(static_cast<std::size_t>(std::atoi(argv[1]))), receiver);
    return 0;
  }
  for (const bench::Message& message : Messages()) PrintCounts(message, receiver);
}
