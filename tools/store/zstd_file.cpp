#include "tools/store/zstd_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "tools/store/file.h"
#include "tools/store/pages.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::store {

namespace {

// Archives are made here with much less; larger windows would let a stranger's file choose how much
// memory its reading takes.
constexpr int kLargestWindowLog = 23;

constexpr std::size_t kBufferSize = std::size_t{256} * 1024;

// Reads up to `buffer->size()` bytes; -1 and errno on failure.
ssize_t ReadSome(int file, std::vector<char>* buffer) {
  ssize_t size = 0;
  do {
    size = read(file, buffer->data(), buffer->size());
  } while (size < 0 && errno == EINTR);
  return size;
}

bool WriteAll(int file, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(file, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Two open files and a buffer for each.
struct Files {
  Descriptor from;
  Descriptor to;
  std::vector<char> in = std::vector<char>(kBufferSize);
  std::vector<char> out = std::vector<char>(kBufferSize);
};

Status OpenFiles(const std::string& from, const std::string& to, int flags, Files* files) {
  files->from = Descriptor(open(from.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!files->from.is_open()) return Status::Errno("cannot open " + from);
  struct stat source {};
  if (fstat(files->from.get(), &source) != 0 || !S_ISREG(source.st_mode)) {
    return Status::Failed(from + " is not a file");
  }
  files->to =
      Descriptor(open(to.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | flags, kFileMode));
  if (!files->to.is_open()) return Status::Errno("cannot create " + to);
  return {};
}

// Compresses one chunk, and ends the frame after the last one.
Status CompressChunk(ZSTD_CCtx* context, ZSTD_inBuffer input, bool is_last, Files* files) {
  for (bool is_done = false; !is_done;) {
    ZSTD_outBuffer output{files->out.data(), files->out.size(), 0};
    const std::size_t rest =
        ZSTD_compressStream2(context, &output, &input, is_last ? ZSTD_e_end : ZSTD_e_continue);
    if (ZSTD_isError(rest)) return Status::Failed(ZSTD_getErrorName(rest));
    if (!WriteAll(files->to.get(), files->out.data(), output.pos)) return Status::Errno("write");
    is_done = is_last ? rest == 0 : input.pos == input.size;
  }
  return {};
}

// How large the file that is being unpacked may become: as large as its head says, so that few
// bytes can't fill the folder that they are unpacked to.
class Bound {
 public:
  // Whether this may follow.
  bool Allows(std::string_view bytes) {
    if (head_.size() < kHeadSize) {
      head_ += bytes.substr(0, kHeadSize - head_.size());
      if (head_.size() == kHeadSize) limit_ = LimitOf(head_);
    }
    size_ += bytes.size();
    return head_.size() < kHeadSize || size_ <= limit_;
  }

 private:
  static std::uint64_t LimitOf(const std::string& head) {
    // One page and a little over what is put into an archive; archives of the first schema held all
    // that there was.
    constexpr std::uint64_t kLargest = kLargestUnpacked + std::int64_t{1024} * 1024;
    constexpr std::uint64_t kLargestOfFirstSchema = std::uint64_t{1024} * 1024 * 1024;
    const DatabaseHead said = ReadHead(head);
    return std::min(said.bytes, said.version == 1 ? kLargestOfFirstSchema : kLargest);
  }

  std::string head_;
  std::uint64_t size_ = 0;
  std::uint64_t limit_ = 0;
};

// `rest` is 0 when the chunk ends where the frame does.
Status DecompressChunk(ZSTD_DCtx* context, ZSTD_inBuffer input, Files* files, Bound* bound,
                       std::size_t* rest) {
  // What is left in the decoder can be more than one buffer of a well-compressed chunk.
  for (bool is_full = false; input.pos < input.size || is_full;) {
    ZSTD_outBuffer output{files->out.data(), files->out.size(), 0};
    *rest = ZSTD_decompressStream(context, &output, &input);
    if (ZSTD_isError(*rest)) return Status::Failed(ZSTD_getErrorName(*rest));
    if (!bound->Allows({files->out.data(), output.pos})) {
      return Status::Failed("it holds more than a database of its kind");
    }
    if (!WriteAll(files->to.get(), files->out.data(), output.pos)) return Status::Errno("write");
    is_full = output.pos == output.size && *rest != 0;
  }
  return {};
}

// Hands the source chunk by chunk to `step(chunk, is_last)`, the last chunk being empty.
template <class Step>
Status ForEachChunk(Files* files, Step step) {
  for (bool is_last = false; !is_last;) {
    const ssize_t size = ReadSome(files->from.get(), &files->in);
    if (size < 0) return Status::Errno("read");
    is_last = size == 0;
    const ZSTD_inBuffer chunk{files->in.data(), static_cast<std::size_t>(size), 0};
    RETURN_IF_ERROR(step(chunk, is_last));
  }
  return {};
}

}  // namespace

Status CompressFile(const std::string& from, const std::string& to) {
  Files files;
  RETURN_IF_ERROR(OpenFiles(from, to, O_EXCL, &files));
  const std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context(ZSTD_createCCtx(),
                                                                     &ZSTD_freeCCtx);
  ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
  Status status = ForEachChunk(&files, [&](const ZSTD_inBuffer& chunk, bool is_last) {
    return CompressChunk(context.get(), chunk, is_last, &files);
  });
  if (status.ok() && fsync(files.to.get()) != 0) status = Status::Errno("fsync");
  if (status.ok()) return {};
  unlink(to.c_str());
  return Status::Failed("cannot compress " + from + " into " + to + ": " + status.message);
}

bool IsArchive(const std::string& path) { return path.ends_with(".zst"); }

Status UnpackArchive(const std::string& from, const std::string& to) {
  Files files;
  RETURN_IF_ERROR(OpenFiles(from, to, O_TRUNC, &files));
  const std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context(ZSTD_createDCtx(),
                                                                     &ZSTD_freeDCtx);
  ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, kLargestWindowLog);
  std::size_t rest = 1;
  Bound bound;
  Status status = ForEachChunk(&files, [&](const ZSTD_inBuffer& chunk, bool) {
    return DecompressChunk(context.get(), chunk, &files, &bound, &rest);
  });
  if (status.ok() && rest != 0) status = Status::Failed("it ends early");
  if (status.ok()) return {};
  return Status::Failed("cannot unpack " + from + ": " + status.message);
}

}  // namespace velmora::usage_stat::store
