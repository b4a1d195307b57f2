#include "tools/inspector/listeners.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/base/text.h"

namespace velmora::usage_stat::inspector {

namespace {

namespace fs = std::filesystem;

// The inode of the datagram socket that has the endpoint's name. The kernel shows the NULs of an
// abstract name as @.
std::optional<std::string> InodeOf(const std::string& endpoint) {
  const std::string wanted = '@' + endpoint + '@';
  std::ifstream table("/proc/net/unix");
  for (std::string line; std::getline(table, line);) {
    std::istringstream columns(line);
    std::string address, references, protocol, flags, type, state, inode;
    columns >> address >> references >> protocol >> flags >> type >> state >> inode;
    std::string name;
    std::getline(columns >> std::ws, name);
    constexpr const char* kDatagram = "0002";
    if (type == kDatagram && name == wanted) return inode;
  }
  return std::nullopt;
}

bool Holds(const fs::path& process, const std::string& socket) {
  std::error_code error;
  fs::directory_iterator descriptor(process / "fd", error);
  for (; !error && descriptor != fs::directory_iterator(); descriptor.increment(error)) {
    std::error_code gone;
    if (fs::read_symlink(descriptor->path(), gone) == socket) return true;
  }
  return false;
}

Holder HolderOf(pid_t pid, const fs::path& process) {
  Holder holder;
  holder.pid = pid;
  struct stat status {};
  if (stat(process.c_str(), &status) == 0) holder.uid = status.st_uid;
  std::error_code error;
  std::string program = fs::read_symlink(process / "exe", error).filename();
  // A program that was replaced by an update while it runs.
  constexpr std::string_view kDeleted = " (deleted)";
  if (program.ends_with(kDeleted)) program.resize(program.size() - kDeleted.size());
  if (error) std::getline(std::ifstream(process / "comm"), program);
  holder.program = program;
  return holder;
}

}  // namespace

Listener FindListener(const std::string& endpoint) {
  Listener listener;
  const auto inode = InodeOf(endpoint);
  listener.is_bound = inode.has_value();
  if (!inode) return listener;
  const std::string socket = "socket:[" + *inode + "]";
  std::error_code error;
  fs::directory_iterator process("/proc", error);
  for (; !error && process != fs::directory_iterator(); process.increment(error)) {
    const auto pid = base::ParseWhole<pid_t>(process->path().filename().native());
    if (pid && Holds(process->path(), socket)) {
      listener.holders.push_back(HolderOf(*pid, process->path()));
    }
  }
  return listener;
}

}  // namespace velmora::usage_stat::inspector
