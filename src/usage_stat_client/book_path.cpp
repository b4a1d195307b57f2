#include "src/usage_stat_client/book_path.h"

namespace velmora::usage_stat {

namespace {

constexpr char kZip[] = ".zip";
constexpr std::size_t kNone = std::string::npos;

// The last dot before position `end`.
std::size_t DotBefore(const std::string& path, std::size_t end) {
  return end == 0 ? kNone : path.rfind('.', end - 1);
}

}  // namespace

std::string_view FileName(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string NewBookFileName(const std::string& path) {
  return path.find('/') == kNone ? std::string() : std::string(FileName(path));
}

std::string BatchFileType(const std::string& path) {
  const std::size_t dot = path.rfind('.');
  if (dot == kNone) return {};
  std::string type = path.substr(dot);
  return type == kZip ? path.substr(DotBefore(path, dot)) : type;
}

std::string ListFileType(const std::string& path) {
  const std::size_t dot = path.rfind('.');
  if (dot == kNone) return {};
  std::string type = path.substr(dot);
  const std::size_t earlier = DotBefore(path, dot);
  if (type == kZip && earlier != kNone && path.substr(earlier) == ".fb2.zip") return ".fb2.zip";
  return type;
}

}  // namespace velmora::usage_stat
