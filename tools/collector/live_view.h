// The live view: a line for each record on standard output, as long as somebody reads it.

#ifndef TOOLS_COLLECTOR_LIVE_VIEW_H_
#define TOOLS_COLLECTOR_LIVE_VIEW_H_

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace velmora::usage_stat::collector {

// Writes on a thread of its own. Lines that a slow reader does not fetch are left out, and their
// number is told; a closed output ends the view, not the collection.
class LiveView {
 public:
  LiveView() : thread_([this] { Run(); }) {}
  // Gives the reader a second for each line that is left.
  ~LiveView();
  LiveView(const LiveView&) = delete;
  LiveView& operator=(const LiveView&) = delete;

  void Show(std::string line);

 private:
  static constexpr std::size_t kMostBytes =
      std::size_t{4} * 1024 * 1024;  // waiting for a slow reader

  void Run();
  // Takes the next line; false at the end.
  bool Next(std::string* line);
  // Waits for the reader as long as the view goes on. False when the output is closed or stuck.
  bool Write(const std::string& line) const;

  std::mutex mutex_;
  std::condition_variable has_lines_;
  std::deque<std::string> lines_;
  std::size_t bytes_ = 0;
  long long left_out_ = 0;
  std::atomic<bool> is_ending_ = false;
  bool is_closed_ = false;  // the output
  std::thread thread_;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_LIVE_VIEW_H_
