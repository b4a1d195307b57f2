// Files and folders for one test.

#ifndef USAGE_STAT_TESTS_SUPPORT_FILES_H_
#define USAGE_STAT_TESTS_SUPPORT_FILES_H_

#include <stdlib.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace usage_stat_test {

// A new folder that goes with its owner.
class TempFolder {
 public:
  TempFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "usage_stat_test.XXXXXX";
    path_ = mkdtemp(pattern.data());
  }
  ~TempFolder() { std::filesystem::remove_all(path_); }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A small file system of its own at `path`, until its owner goes. Not everybody may mount one.
class SmallDisk {
 public:
  SmallDisk(const std::string& path, const char* size) : path_(path) {
    std::filesystem::create_directory(path);
    is_there_ = mount("tmpfs", path.c_str(), "tmpfs", 0, size) == 0;
  }
  ~SmallDisk() {
    if (is_there_) umount2(path_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool is_there() const { return is_there_; }
  bool MakeReadOnly() const {
    return mount(nullptr, path_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
  }

 private:
  const std::string path_;
  bool is_there_ = false;
};

inline std::string ReadFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path) << content;
}

// Whether every user of the machine can start what lies at `path`; not so below root's home.
inline bool IsReachedByAll(std::filesystem::path path) {
  for (; path != path.root_path(); path = path.parent_path()) {
    const auto rights = std::filesystem::status(path).permissions();
    if ((rights & std::filesystem::perms::others_exec) == std::filesystem::perms::none)
      return false;
  }
  return true;
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_FILES_H_
