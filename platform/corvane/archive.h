// ZIP archives from strangers, read within limits.

#ifndef PLATFORM_CORVANE_ARCHIVE_H_
#define PLATFORM_CORVANE_ARCHIVE_H_

#include <zip.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/device_files.h"

namespace corvane {

// Failures give an empty result and a static text that says why.
class Archive {
 public:
  static std::optional<Archive> Open(UniqueFd file, const char** problem);

  // The index of the entry of that name, or of the first one whose name ends so, in any case.
  std::optional<std::uint64_t> Find(const std::string& name) const;
  std::optional<std::uint64_t> FindBySuffix(std::string_view suffix) const;

  // The first `max_size` bytes of an entry, or all of it when it is shorter. What the archive says
  // about the size is not believed.
  std::optional<std::string> ReadStart(std::uint64_t index, std::size_t max_size,
                                       const char** problem) const;

 private:
  using Handle = std::unique_ptr<zip_t, void (*)(zip_t*)>;
  explicit Archive(Handle handle) : handle_(std::move(handle)) {}

  Handle handle_;
};

}  // namespace corvane

#endif  // PLATFORM_CORVANE_ARCHIVE_H_
