// Timing single calls with Google Benchmark, and the figures that the tables are made of.

#ifndef BENCH_HARNESS_H_
#define BENCH_HARNESS_H_

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

enum class Pace {
  kAwake,  // one call after the other, to a receiver that never sleeps
  kPaced,  // one call every 30 us, so that waking the receiver counts
};

// Whether receivers poll instead of sleeping, while calls are timed so. Shared by all processes
// that are forked after the first use.
std::atomic<bool>& ReceiversStayAwake();

// Adds a benchmark that times each single call. Its figures are "p50", "p99" and "mean" in
// nanoseconds, less what reading the clock costs.
void AddTimedCalls(const std::string& name, Pace pace, std::function<void()> call);

// Adds a benchmark that runs `work` over and over and measures the mean time of a run: for work too
// short to time alone. Its figure is "mean", in nanoseconds.
void AddLoop(const std::string& name, std::function<void()> work);

// The figures of every benchmark that ran, each the median over the repetitions.
class Figures {
 public:
  void Add(const std::string& benchmark, const std::string& figure, double value);
  // Not a number when the benchmark was filtered out.
  double Get(const std::string& benchmark, const std::string& figure) const;

 private:
  std::map<std::string, std::map<std::string, double>> medians_;
};

// Runs what was added. Arguments are those of Google Benchmark and --calls=N, the number of calls
// timed in a repetition.
Figures Run(int argc, char** argv);

// Prints one row of a Markdown table.
void PrintRow(const std::vector<std::string>& cells);
// Prints a table's head, with the columns after the first `texts` aligned to the right.
void PrintHead(const std::vector<std::string>& cells, std::size_t texts);
// A number as a table shows it, followed by `unit`; a dash when there is none.
std::string Cell(double number, int decimals, const char* unit = "");

}  // namespace bench

#endif  // BENCH_HARNESS_H_
