#include "corvane/archive.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "corvane/text.h"

namespace corvane {
namespace {

// Books have some hundreds of entries, each with about a hundred bytes in the directory.
constexpr std::uint32_t kMaxDirectorySize = 1024 * 1024;

// Bounds the time that a stream takes which never gives a byte.
constexpr std::uint64_t kMaxCompressedSize = std::uint64_t{64} * 1024 * 1024;

std::uint32_t LittleEndian32(std::string_view bytes) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<std::uint8_t>(bytes[i]);
  return value;
}

// The archive library reads the whole directory first and looks each name up among those before it,
// which takes quadratic time when somebody chose the names so that their hashes are equal (24 s for
// 8 MiB of them). So the size is looked at here: it must be sane wherever the end of the file could
// be taken for the end of a directory, and the 64-bit form, which keeps it elsewhere, is for no
// book.
const char* ProblemOfDirectory(int fd) {
  constexpr std::string_view kEndMark("PK\5\6", 4);
  constexpr std::string_view kEndMark64("PK\6\7", 4);
  constexpr std::size_t kSizeOffset = 12;  // from the mark to the directory's size
  constexpr std::size_t kEndSize = 22;
  constexpr std::size_t kEnd64Size = 20;
  constexpr std::size_t kMaxTail = 65535 + kEndSize + kEnd64Size;  // with the longest comment

  const off_t size = lseek(fd, 0, SEEK_END);
  std::string tail;
  if (size == -1 || lseek(fd, std::max<off_t>(size - off_t{kMaxTail}, 0), SEEK_SET) == -1 ||
      ReadUpTo(fd, kMaxTail, &tail) != 0) {
    return "can't be read";
  }
  for (std::size_t at = tail.find(kEndMark); at != tail.npos; at = tail.find(kEndMark, at + 1)) {
    if (at >= kEnd64Size && tail.compare(at - kEnd64Size, kEndMark64.size(), kEndMark64) == 0) {
      return "a 64-bit archive";
    }
    const std::string_view end = std::string_view(tail).substr(at);
    if (end.size() >= kEndSize && LittleEndian32(end.substr(kSizeOffset)) > kMaxDirectorySize) {
      return "the archive's directory is too large";
    }
  }
  return nullptr;
}

}  // namespace

std::optional<Archive> Archive::Open(UniqueFd file, const char** problem) {
  *problem = ProblemOfDirectory(file.get());
  if (*problem) return std::nullopt;
  int error = 0;
  Handle handle(zip_fdopen(file.get(), 0, &error), zip_discard);
  if (!handle) {
    *problem = "no readable archive";
    return std::nullopt;
  }
  file.Release();  // the archive has it now
  return Archive(std::move(handle));
}

std::optional<std::uint64_t> Archive::Find(const std::string& name) const {
  const zip_int64_t index = zip_name_locate(handle_.get(), name.c_str(), 0);
  if (index < 0) return std::nullopt;
  return static_cast<std::uint64_t>(index);
}

std::optional<std::uint64_t> Archive::FindBySuffix(std::string_view suffix) const {
  const zip_int64_t entries = zip_get_num_entries(handle_.get(), 0);
  for (zip_int64_t i = 0; i < entries; ++i) {
    const auto index = static_cast<std::uint64_t>(i);
    const char* name = zip_get_name(handle_.get(), index, 0);
    if (name && EndsWithIgnoringCase(name, suffix)) return index;
  }
  return std::nullopt;
}

std::optional<std::string> Archive::ReadStart(std::uint64_t index, std::size_t max_size,
                                              const char** problem) const {
  zip_stat_t status;
  constexpr zip_uint64_t kWanted = ZIP_STAT_COMP_METHOD | ZIP_STAT_COMP_SIZE;
  if (zip_stat_index(handle_.get(), index, 0, &status) != 0 ||
      (status.valid & kWanted) != kWanted || status.comp_size > kMaxCompressedSize) {
    *problem = "an entry of the archive is too large";
    return std::nullopt;
  }
  // The two methods that books may use; the others could ask for gigabytes of working memory.
  if (status.comp_method != ZIP_CM_STORE && status.comp_method != ZIP_CM_DEFLATE) {
    *problem = "an entry of the archive is compressed in a way that books don't use";
    return std::nullopt;
  }
  const std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> entry(
      zip_fopen_index(handle_.get(), index, 0), zip_fclose);
  std::string content;
  std::array<char, 16384> chunk;
  zip_int64_t got = entry ? 1 : -1;
  while (got > 0 && content.size() < max_size) {
    got = zip_fread(entry.get(), chunk.data(), std::min(chunk.size(), max_size - content.size()));
    content.append(chunk.data(), static_cast<std::size_t>(std::max<zip_int64_t>(got, 0)));
  }
  if (got < 0) {
    *problem = "an entry of the archive is damaged";
    return std::nullopt;
  }
  return content;
}

}  // namespace corvane
