// What a call costs in things that can be counted exactly.

#ifndef BENCH_COUNTING_H_
#define BENCH_COUNTING_H_

#include <cstdint>
#include <functional>

namespace bench {

// Allocations that this thread has made: malloc and all that is built on it, in whichever library.
std::uint64_t Allocations();

struct CostPerCall {
  double system_calls;
  double allocations;
};

// Runs `call` a few hundred times, after some calls to warm up. System calls are counted by the
// kernel, in a traced child process; what the vDSO answers without entering the kernel is not one.
CostPerCall CountPerCall(const std::function<void()>& call);

}  // namespace bench

#endif  // BENCH_COUNTING_H_
