// ZIP archives from strangers, read within limits.
//
// A reader of its own on top of zlib, because a book needs a few entries found by name and nothing
// else, at a cost that its sender can't choose: one directory is read, once, and searched from its
// start to its end.

#ifndef PLATFORM_CORVANE_ARCHIVE_H_
#define PLATFORM_CORVANE_ARCHIVE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/device_files.h"

namespace corvane {

// Failures give an empty result and a static text that says why.
class Archive {
 public:
  // What the directory says of an entry; none of it is believed.
  struct Entry {
    std::uint64_t header = 0;  // where its own header stands
    std::uint64_t compressed_size = 0;
    std::uint64_t size = 0;
    std::uint32_t checksum = 0;
    unsigned method = 0;
    bool encrypted = false;
  };

  static std::optional<Archive> Open(UniqueFd file, const char** problem);
  // The archive that is an entry of `outer`, in place if it is stored and unpacked if not.
  static std::optional<Archive> OpenNested(Archive outer, const Entry& entry, const char** problem);

  // The first entry of that name, or the first whose name ends so, in any case, and is not one of
  // the files that some systems put beside each of a user's own.
  std::optional<Entry> Find(std::string_view name) const;
  std::optional<Entry> FindBySuffix(std::string_view suffix) const;

  // The first `max_size` bytes of an entry, or all of it when it is shorter.
  std::optional<std::string> ReadStart(const Entry& entry, std::size_t max_size,
                                       const char** problem) const;

 private:
  using Sink = std::function<bool(std::string_view)>;

  Archive(UniqueFd file, std::uint64_t start, std::uint64_t size)
      : file_(std::move(file)), start_(start), size_(size) {}

  const char* FindDirectory();
  const char* TakeDirectory(std::uint64_t end, std::uint64_t size, std::uint64_t offset);
  std::optional<Entry> FindIf(const std::function<bool(std::string_view)>& wanted) const;
  std::string ReadAt(std::uint64_t position, std::size_t size) const;
  const char* DataOf(const Entry& entry, std::uint64_t* position) const;
  const char* Unpack(const Entry& entry, std::uint64_t max_size, const Sink& sink) const;

  UniqueFd file_;
  std::uint64_t start_;     // the archive's part of the file
  std::uint64_t size_;      // the bytes from there
  std::uint64_t base_ = 0;  // how far what the archive says of positions is off
  std::string directory_;
};

}  // namespace corvane

#endif  // PLATFORM_CORVANE_ARCHIVE_H_
