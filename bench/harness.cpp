#include "bench/harness.h"

#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

constexpr std::chrono::microseconds kPause{30};
constexpr benchmark::IterationCount kDefaultCalls = 20'000;

struct TimedCalls {
  std::string name;
  Pace pace;
  std::function<void()> call;
};

std::vector<TimedCalls>& Added() {
  static std::vector<TimedCalls> added;
  return added;
}

double Quantile(std::vector<double> numbers, double share) {
  const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(numbers.size() - 1));
  std::nth_element(numbers.begin(), numbers.begin() + rank, numbers.end());
  return numbers[static_cast<std::size_t>(rank)];
}

double ClockCost() {
  static const double cost = [] {
    std::vector<double> gaps(10'000);
    for (double& gap : gaps) {
      const auto start = Clock::now();
      gap = Nanoseconds(Clock::now() - start).count();
    }
    return Quantile(gaps, 0.5);
  }();
  return cost;
}

constexpr int kWakingCalls = 16;

void TimeCalls(benchmark::State& state, const TimedCalls& timed) {
  ReceiversStayAwake() = timed.pace == Pace::kAwake;
  for (int i = 0; i < kWakingCalls; ++i) timed.call();
  std::vector<double> times;
  times.reserve(static_cast<std::size_t>(state.max_iterations));
  auto due = Clock::now();
  double total = 0;
  for ([[maybe_unused]] auto _ : state) {
    if (timed.pace == Pace::kPaced) {
      due = std::max(due + kPause, Clock::now());
      while (Clock::now() < due) {
      }
    }
    const auto start = Clock::now();
    timed.call();
    const double time = std::max(0.0, Nanoseconds(Clock::now() - start).count() - ClockCost());
    times.push_back(time);
    total += time;
    state.SetIterationTime(time / 1e9);
  }
  ReceiversStayAwake() = false;
  state.counters["p50"] = Quantile(times, 0.5);
  state.counters["p99"] = Quantile(times, 0.99);
  state.counters["mean"] = total / static_cast<double>(times.size());
}

// Keeps what each repetition measured, and shows that something happens.
class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      if (run.error_occurred) {
        std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
        std::exit(1);
      }
      auto& figures = repetitions_[run.run_name.function_name];
      for (const auto& [figure, counter] : run.counters) figures[figure].push_back(counter.value);
      if (!run.counters.contains("mean")) {
        figures["mean"].push_back(run.real_accumulated_time * 1e9 /
                                  static_cast<double>(run.iterations));
      }
      std::fputc('.', stderr);
    }
  }

  Figures Medians() const {
    Figures medians;
    for (const auto& [name, figures] : repetitions_) {
      for (const auto& [figure, values] : figures) medians.Add(name, figure, Quantile(values, 0.5));
    }
    return medians;
  }

 private:
  std::map<std::string, std::map<std::string, std::vector<double>>> repetitions_;
};

}  // namespace

void Figures::Add(const std::string& benchmark, const std::string& figure, double value) {
  medians_[benchmark][figure] = value;
}

double Figures::Get(const std::string& benchmark, const std::string& figure) const {
  const auto found = medians_.find(benchmark);
  return found != medians_.end() ? found->second.at(figure) : std::nan("");
}

std::atomic<bool>& ReceiversStayAwake() {
  static void* const shared = mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  static auto* const stay = new (shared) std::atomic<bool>(false);
  return *stay;
}

void AddTimedCalls(const std::string& name, Pace pace, std::function<void()> call) {
  Added().push_back({name, pace, std::move(call)});
}

void AddLoop(const std::string& name, std::function<void()> work) {
  benchmark::RegisterBenchmark(name.c_str(), [work = std::move(work)](benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) work();
  });
}

Figures Run(int argc, char** argv) {
  benchmark::IterationCount calls = kDefaultCalls;
  constexpr std::string_view kCallsFlag = "--calls=";
  if (argc > 1 && std::string_view(argv[1]).starts_with(kCallsFlag)) {
    calls = std::max(1, std::atoi(argv[1] + kCallsFlag.size()));
    argv[1] = argv[0];
    ++argv;
    --argc;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) std::exit(2);
  for (const TimedCalls& timed : Added()) {
    benchmark::RegisterBenchmark(timed.name.c_str(),
                                 [&timed](benchmark::State& state) { TimeCalls(state, timed); })
        ->Iterations(calls)
        ->UseManualTime();
  }
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  std::fputc('\n', stderr);
  return collector.Medians();
}

void PrintRow(const std::vector<std::string>& cells) {
  std::printf("|");
  for (const std::string& cell : cells) std::printf(" %s |", cell.c_str());
  std::printf("\n");
}

void PrintHead(const std::vector<std::string>& cells, std::size_t texts) {
  PrintRow(cells);
  std::vector<std::string> rule(cells.size(), "--:");
  std::fill_n(rule.begin(), texts, "---");
  PrintRow(rule);
}

std::string Cell(double number, int decimals, const char* unit) {
  if (std::isnan(number)) return "-";
  char text[48];
  std::snprintf(text, sizeof(text), "%.*f%s", decimals, number, unit);
  return text;
}

}  // namespace bench
