// What one call costs, beside the least that any sender must do and beside what applications use
// instead. Every figure of the table comes from one run.

#include <common_utilities/message_client.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>

#include "bench/counting.h"
#include "bench/harness.h"
#include "bench/messages.h"
#include "bench/peers.h"
#include "src/usage_stat_client/statistics_client.h"
#include "tests/support/receiver.h"

namespace {

using bench::Figures;
using bench::Pace;

struct Row {
  std::string message;
  bench::Sender sender;
  bench::CostPerCall cost;

  std::string Benchmark(Pace pace) const {
    return message + "/" + sender.name + (pace == Pace::kPaced ? "/paced" : "/awake");
  }
};

// On a busy machine the receiver may stay full for longer than a call waits.
void Check(int result) {
  if (result != 0 && result != EAGAIN) std::abort();
}

bench::Sender LibraryCall(const bench::Message& message) {
  return {"**this library**", [send = message.send] { Check(send()); }};
}

// What is left of a call once its record is written.
bench::Sender SendingAlone(const std::string& bytes) {
  return {"of it: sending", [bytes] {
            velmora::utilities::MessageClient client;
            const std::string name = std::string("\0x\0", 3);
            Check(client.Init(name.data(), static_cast<unsigned>(name.size()),
                              velmora::usage_stat::kLargestStatisticsMessage));
            Check(client.SendMessage(bytes.data(), static_cast<unsigned>(bytes.size())));
          }};
}

void PrintTable(const std::deque<Row>& rows, const Figures& figures) {
  bench::PrintHead({"message", "sender", "awake p50", "x floor", "p99", "x floor", "paced p50",
                    "x floor", "p99", "x floor", "system calls", "allocations"},
                   2);
  const Row* floor = nullptr;
  for (const Row& row : rows) {
    if (row.sender.name == "the floor") floor = &row;
    std::vector<std::string> cells = {row.message, row.sender.name};
    for (const Pace pace : {Pace::kAwake, Pace::kPaced}) {
      for (const char* const figure : {"p50", "p99"}) {
        const double time = figures.Get(row.Benchmark(pace), figure);
        cells.push_back(bench::Cell(time / 1000, 2, " us"));
        cells.push_back(bench::Cell(time / figures.Get(floor->Benchmark(pace), figure), 2));
      }
    }
    cells.push_back(bench::Cell(row.cost.system_calls, 1));
    cells.push_back(bench::Cell(row.cost.allocations, 1));
    bench::PrintRow(cells);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string endpoint = "usage_stat_bench." + std::to_string(getpid());
  setenv(usage_stat_test::kEndpointVariable, endpoint.c_str(), 1);
  const auto receiver = bench::DrainEndpoint(endpoint);

  std::deque<Row> rows;
  const auto add = [&rows](const char* message, bench::Sender sender) {
    const bench::CostPerCall cost = bench::CountPerCall(sender.call);
    rows.push_back({message, std::move(sender), cost});
  };
  for (const bench::Message& message : bench::kMessages) {
    const std::string bytes = bench::Capture(message.send);
    add(message.name, bench::Floor(endpoint, bytes));
    add(message.name, bench::FloorWithLook(endpoint, bytes));
    add(message.name, LibraryCall(message));
    add(message.name, SendingAlone(bytes));
    add(message.name, bench::PlainSocketContract(endpoint, bytes));
    if (&message == bench::kMessages) {
      for (bench::Sender& peer : bench::StartPeers()) add(message.name, std::move(peer));
    }
  }
  for (const Row& row : rows) {
    for (const Pace pace : {Pace::kAwake, Pace::kPaced}) {
      bench::AddTimedCalls(row.Benchmark(pace), pace, row.sender.call);
    }
  }
  PrintTable(rows, bench::Run(argc, argv));
}
