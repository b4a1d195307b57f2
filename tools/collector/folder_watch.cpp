#include "tools/collector/folder_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "tools/store/file.h"

namespace velmora::usage_stat::collector {

FolderWatch::FolderWatch(const std::string& path)
    : path_(path), events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

void FolderWatch::Renew() {
  (void)inotify_add_watch(events_.get(), store::FolderOf(path_).c_str(),
                          IN_DELETE | IN_MOVED_FROM | IN_MOVE_SELF | IN_ONLYDIR);
}

bool FolderWatch::HasLostAName() {
  std::string name;
  bool is_lost = false;
  std::array<char, 4096> bytes;
  for (ssize_t size = 1; (size = read(events_.get(), bytes.data(), bytes.size())) > 0;) {
    if (name.empty()) name = std::filesystem::path(store::TargetOf(path_)).filename();
    inotify_event event;
    for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(sizeof(event) + event.len)) {
      std::memcpy(&event, bytes.data() + at, sizeof(event));
      const std::string_view gone(event.len > 0 ? bytes.data() + at + sizeof(event) : "");
      is_lost |= gone == name || gone == name + "-wal" || gone == name + "-shm";
      is_lost |= (event.mask & (IN_MOVE_SELF | IN_Q_OVERFLOW)) != 0;
    }
  }
  return is_lost;
}

}  // namespace velmora::usage_stat::collector
