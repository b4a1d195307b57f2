// What the collector takes in, and how much memory it needs for it, beside a bare receiving loop:
// several processes send page turns as fast as they can. Afterwards every page turn that was
// accepted must be in the database once, each process's in order. And what a page turn writes.

#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/statfs.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "tests/tools/collector_process.h"
#include "tools/collector/endpoint.h"
#include "tools/command_line/command_line.h"
#include "tools/store/reader.h"

namespace {

using namespace usage_stat_test;
namespace usage_stat = velmora::usage_stat;
namespace collector = velmora::usage_stat::collector;
namespace store = velmora::usage_stat::store;
using Clock = std::chrono::steady_clock;

struct Load {
  int senders = 8;
  int count = 100'000;  // for each sender
};

void Report(const char* receiver, const Load& load, Clock::duration time, long peak_kib) {
  const double seconds = std::chrono::duration<double>(time).count();
  fmt::print("| {} | {} | {:.2f} | {:.0f} | {:.1f} |\n", receiver, load.senders * load.count,
             seconds, load.senders * load.count / seconds, static_cast<double>(peak_kib) / 1024);
  std::fflush(stdout);
}

void SendAll(const std::string& endpoint, const Load& load) {
  std::vector<Sender> senders;
  for (int i = 0; i < load.senders; ++i) senders.emplace_back(endpoint, i, load.count);
  for (Sender& sender : senders) sender.Wait();
}

// Receives as many datagrams as will be sent, and does nothing with them.
void ReceiveBare(const Load& load, const std::string& endpoint) {
  Receiver receiver(endpoint);
  std::vector<char> buffer(collector::kKeptBytes);
  for (int left = load.senders * load.count; left > 0;) {
    if (recv(receiver.descriptor(), buffer.data(), buffer.size(), 0) > 0) --left;
  }
}

bool RunBare(const Load& load) {
  const std::string endpoint = Receiver::UniqueEndpoint();
  usage_stat_test::Child receiver([&] {
    ReceiveBare(load, endpoint);
    return 0;
  });
  if (!Eventually([&] { return ReadFile("/proc/net/unix").find(endpoint) != std::string::npos; })) {
    return false;
  }
  const auto start = Clock::now();
  SendAll(endpoint, load);
  rusage usage{};
  receiver.Wait(&usage);
  Report("bare loop", load, Clock::now() - start, usage.ru_maxrss);
  return true;
}

// Whether the database holds each sender's page turns once and in order.
bool IsComplete(const std::string& database, const Load& load) {
  std::unique_ptr<store::Reader> reader;
  std::vector<int> next(static_cast<std::size_t>(load.senders));
  bool is_ordered = true;
  const auto visit = [&](const store::RecordRow& row) {
    const auto fields = nlohmann::json::parse(row.fields);
    int& expected = next.at(fields.at(1).get<std::size_t>());
    is_ordered = fields.at(0) == expected++;
    return is_ordered;
  };
  return store::Reader::Open(database, &reader).ok() &&
         reader->ForEach({.events = {"ChangePageEvent"}}, visit).ok() && is_ordered &&
         next == std::vector<int>(next.size(), load.count);
}

bool RunCollector(const std::string& command, const Load& load) {
  const TempFolder folder;
  const std::string database = folder / "records.db";
  CollectorProcess process(command, folder.path(), {"--database", database});
  if (!process.IsUp()) return false;
  const auto start = Clock::now();
  SendAll(process.endpoint(), load);
  const bool is_clean = process.End() == 0;
  Report("collector", load, Clock::now() - start, process.peak_kib());
  std::fputs(process.Err().c_str(), stderr);
  return is_clean && IsComplete(database, load);
}

// ---- What is written ----

// By a process so far, as the kernel counts it.
struct Written {
  std::int64_t calls = 0;  // bytes that it passed to write calls
  std::int64_t disk = 0;   // pages of the cache that it made dirty, in bytes; 0 on a tmpfs
};

Written WrittenBy(pid_t pid) {
  Written written;
  std::istringstream lines(ReadFile("/proc/" + std::to_string(pid) + "/io"));
  std::int64_t number = 0;
  for (std::string name; lines >> name >> number;) {
    if (name == "wchar:") written.calls = number;
    if (name == "write_bytes:") written.disk = number;
  }
  return written;
}

class FlashBench {
 public:
  FlashBench(const std::string& command, const std::string& interval)
      : process_(command, folder_.path(),
                 {"--database", database_, "--commit-interval", interval}) {
    struct statfs disk {};
    is_ready_ = process_.IsUp() && Eventually([this] { return Count() > 0; }) &&
                statfs(folder_.path().c_str(), &disk) == 0;
    has_disk_ = disk.f_type != TMPFS_MAGIC;
  }

  // Has `senders` processes send `count` page turns each, `times` times over, each time when those
  // before are committed and at least `pause` later; and prints what that has cost.
  bool Run(const char* work, int senders, int count, int times, std::chrono::seconds pause) {
    const Written before = WrittenBy(process_.pid());
    for (int i = 0; i < times && is_ready_; ++i) {
      const auto next = Clock::now() + pause;
      const std::int64_t rows = Count() + senders * count;
      SendAll(process_.endpoint(), {senders, count});
      is_ready_ = Eventually([&] { return Count() >= rows; });
      std::this_thread::sleep_until(next);
    }
    const Written after = WrittenBy(process_.pid());
    const int records = senders * count * times;
    const auto each = [records](std::int64_t bytes) { return bytes / records; };
    fmt::print("| {} | {} | {} | {} |\n", work, records, each(after.calls - before.calls),
               has_disk_ ? std::to_string(each(after.disk - before.disk)) : "on a tmpfs");
    std::fflush(stdout);
    return is_ready_;
  }

 private:
  std::int64_t Count() const {
    std::unique_ptr<store::Reader> reader;
    std::int64_t records = -1;
    std::int64_t quarantined = 0;
    if (store::Reader::Open(database_, &reader).ok())
      (void)reader->CountRows(&records, &quarantined);
    return records;
  }

  const TempFolder folder_;
  const std::string database_ = folder_ / "records.db";
  CollectorProcess process_;
  bool is_ready_ = false;
  bool has_disk_ = false;
};

bool MeasureFlash(const std::string& collector, int seconds) {
  constexpr std::chrono::seconds kSecond{1};
  constexpr std::chrono::seconds kNoPause{0};
  fmt::print(
      "\n| work | page turns | bytes in write calls for each | `write_bytes` for each |\n"
      "|---|--:|--:|--:|\n");
  FlashBench single(collector, "50");
  FlashBench burst(collector, "1000");
  return single.Run("one a second", 1, 1, seconds, kSecond) &&
         single.Run("one when the other is committed", 1, 1, 20 * seconds, kNoPause) &&
         burst.Run("a burst, one commit a second", 4, 2500, 1, kNoPause);
}

// ---- All of it ----

int Measure(const std::string& collector, const Load& load, int rounds, int seconds) {
  fmt::print(
      "| receiver | page turns | seconds | per second | peak MiB |\n|---|---|---|---|---|\n");
  for (int round = 0; round < rounds; ++round) {
    if (!RunBare(load) || !RunCollector(collector, load)) {
      std::fputs("collector_bench: a page turn is missing, doubled or out of order\n", stderr);
      return usage_stat::kFailed;
    }
  }
  if (MeasureFlash(collector, seconds)) return usage_stat::kOk;
  std::fputs("collector_bench: a page turn was not committed\n", stderr);
  return usage_stat::kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  Load load;
  int rounds = 3;
  int seconds = 120;
  std::string collector;
  usage_stat::CommandLine line(
      "collector_bench", "Measures the collector beside a bare receiving loop, and what it writes.",
      "");
  usage_stat::Command command = line.main();
  command.Argument("collector", "The program", &collector, true);
  command.Option("--senders", "COUNT", "Processes that send", 1, 1000, &load.senders);
  command.Option("--count", "COUNT", "Page turns for each of them", 1, 10'000'000, &load.count);
  command.Option("--rounds", "COUNT", "How often both are measured, in turn", 0, 1000, &rounds);
  command.Option("--seconds", "COUNT", "How long one page turn a second is sent", 1, 100'000,
                 &seconds);
  command.OnRun([&] { return Measure(collector, load, rounds, seconds); });
  return line.Run(argc, argv);
}
