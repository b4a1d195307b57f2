// A real usage-stat-collector in a process of its own, and processes that send to it.

#ifndef USAGE_STAT_TESTS_TOOLS_COLLECTOR_PROCESS_H_
#define USAGE_STAT_TESTS_TOOLS_COLLECTOR_PROCESS_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common_utilities/message_client.h"
#include "src/events/reading_events.h"
#include "src/usage_stat_client/statistics_client.h"
#include "tests/support/child.h"
#include "tests/support/files.h"
#include "tests/support/receiver.h"

namespace usage_stat_test {

// Waits for `condition`, for as long as a slow machine may need.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

class CollectorProcess {
 public:
  // Starts the program `command` with `arguments`; its output goes to files in `folder`.
  CollectorProcess(const std::string& command, const std::string& folder,
                   std::vector<std::string> arguments)
      : folder_(folder) {
    arguments.insert(arguments.begin(), {command, "--endpoint", endpoint_});
    child_.emplace([&] {
      Redirect(STDOUT_FILENO, out_path());
      Redirect(STDERR_FILENO, err_path());
      std::vector<char*> argv;
      for (std::string& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      execv(command.c_str(), argv.data());
      return 127;
    });
  }
  CollectorProcess(const CollectorProcess&) = delete;
  CollectorProcess& operator=(const CollectorProcess&) = delete;

  // Waits until it listens; false when it does not.
  bool IsUp() const {
    return Eventually([this] {
      return ReadFile("/proc/net/unix").find("@" + endpoint_ + "@") != std::string::npos &&
             kill(pid(), 0) == 0;
    });
  }
  void Signal(int signal) const { kill(pid(), signal); }
  // Waits for its end: the exit code, or minus the signal that ended it.
  int Wait() { return child_->Wait(&usage_); }
  int End() {
    Signal(SIGTERM);
    return Wait();
  }

  pid_t pid() const { return child_->pid(); }
  const std::string& endpoint() const { return endpoint_; }
  std::string out_path() const { return folder_ + "/out"; }
  std::string err_path() const { return folder_ + "/err"; }
  std::string Out() const { return ReadFile(out_path()); }
  std::string Err() const { return ReadFile(err_path()); }
  bool Says(const std::string& text) const {
    return Eventually([&] { return Err().find(text) != std::string::npos; });
  }
  long peak_kib() const { return usage_.ru_maxrss; }  // after Wait()

 private:
  static void Redirect(int descriptor, const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, descriptor);
  }

  const std::string folder_;
  const std::string endpoint_ = Receiver::UniqueEndpoint();
  rusage usage_{};
  std::optional<Child> child_;
};

// The bytes of a page turn that carries two numbers.
inline std::string PageTurn(int sender, int number) {
  velmora::usage_stat::ChangePageEvent event;
  event.a_ = number;
  event.b_ = static_cast<std::int16_t>(sender);
  std::ostringstream out;
  event.WriteToStream(out);
  return out.str();
}

// A process that sends page turns numbered 0, 1, 2 as fast as it can. A number is sent again until
// it has arrived, so the numbers that arrived are those before count().
class Sender {
 public:
  // Sends `limit` of them, or until the collector is gone.
  Sender(const std::string& endpoint, int index, int limit)
      : shared_(new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared),
        child_([&, this] {
          Run(endpoint, index, limit);
          return 0;
        }) {}
  Sender(Sender&& other) noexcept
      : shared_(std::exchange(other.shared_, nullptr)), child_(std::move(other.child_)) {}
  Sender& operator=(Sender&&) = delete;
  ~Sender() {
    if (shared_) munmap(shared_, sizeof(Shared));
  }

  void Wait() { child_.Wait(); }
  int count() const { return shared_->count; }

 private:
  struct Shared {
    std::atomic<int> count = 0;
  };

  void Run(const std::string& endpoint, int index, int limit) {
    setenv(kEndpointVariable, endpoint.c_str(), 1);
    while (shared_->count < limit) {
      const std::string message = PageTurn(index, shared_->count);
      velmora::utilities::MessageClient client;
      client.Init("unused", 6, velmora::usage_stat::kLargestStatisticsMessage);
      const int error = client.SendMessage(message.data(), static_cast<unsigned>(message.size()));
      if (error == 0) {
        ++shared_->count;
      } else if (error != EAGAIN) {
        return;
      }
    }
  }

  Shared* shared_;
  Child child_;
};

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_TOOLS_COLLECTOR_PROCESS_H_
