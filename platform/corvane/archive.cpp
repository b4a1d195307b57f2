#include "corvane/archive.h"

#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "corvane/text.h"

namespace corvane {
namespace {

// Books have some hundreds of entries, each with about a hundred bytes in the directory.
constexpr std::uint64_t kMaxDirectorySize = std::uint64_t{1024} * 1024;

// A book that was packed a second time is unpacked into memory.
constexpr std::uint64_t kMaxNestedSize = std::uint64_t{32} * 1024 * 1024;

constexpr std::size_t kChunk = 32768;

constexpr const char* kUnreadable = "no readable archive";
constexpr const char* kDamaged = "an entry of the archive is damaged";

constexpr std::uint32_t kIn64BitField = 0xFFFFFFFF;  // a number that stands elsewhere, in 64 bits

// The parts of the format that are read: where their fields are, and what they measure.
namespace end_record {
constexpr std::string_view kMark("PK\5\6", 4);
constexpr std::size_t kDirectorySize = 12, kDirectoryOffset = 16, kCommentSize = 20, kSize = 22;
}  // namespace end_record
namespace end_record_64 {
constexpr std::string_view kMark("PK\6\6", 4);
constexpr std::string_view kLocatorMark("PK\6\7", 4);
constexpr std::size_t kDirectorySize = 40, kDirectoryOffset = 48, kSize = 56;
constexpr std::size_t kOffsetInLocator = 8, kLocatorSize = 20;
}  // namespace end_record_64
namespace directory_entry {
constexpr std::string_view kMark("PK\1\2", 4);
constexpr std::size_t kFlags = 8, kMethod = 10, kChecksum = 16, kCompressedSize = 20;
constexpr std::size_t kUncompressedSize = 24, kNameSize = 28, kExtraSize = 30, kCommentSize = 32;
constexpr std::size_t kHeader = 42, kSize = 46;
constexpr unsigned kEncrypted = 1;
}  // namespace directory_entry
namespace entry_header {
constexpr std::string_view kMark("PK\3\4", 4);
constexpr std::size_t kNameSize = 26, kExtraSize = 28, kSize = 30;
}  // namespace entry_header

enum Method : unsigned { kStored = 0, kDeflated = 8 };

// The number of `size` bytes that starts at `at`; the caller has seen that they are there.
std::uint64_t Number(std::string_view bytes, std::size_t at, std::size_t size) {
  std::uint64_t value = 0;
  while (size-- > 0) value = value << 8 | static_cast<std::uint8_t>(bytes[at + size]);
  return value;
}

// A length of two bytes.
std::size_t Length(std::string_view bytes, std::size_t at) {
  return static_cast<std::size_t>(Number(bytes, at, 2));
}

// Replaces the numbers that say so by those of the 64-bit field, where they stand in this order.
void Widen(std::string_view extra, Archive::Entry* entry) {
  constexpr std::uint64_t kId = 1;
  while (extra.size() >= 4) {
    const std::uint64_t id = Number(extra, 0, 2);
    std::string_view field = extra.substr(4, Length(extra, 2));
    extra.remove_prefix(4 + field.size());
    if (id != kId) continue;
    for (std::uint64_t* number : {&entry->size, &entry->compressed_size, &entry->header}) {
      if (*number != kIn64BitField || field.size() < 8) continue;
      *number = Number(field, 0, 8);
      field.remove_prefix(8);
    }
    return;
  }
}

// Takes the first entry off `directory`; empty at its end.
std::optional<Archive::Entry> NextEntry(std::string_view* directory, std::string_view* name) {
  using namespace directory_entry;
  if (directory->size() < kSize || !directory->starts_with(kMark)) return std::nullopt;
  const std::string_view fixed = *directory;
  const std::size_t name_size = Length(fixed, kNameSize);
  const std::size_t extra_size = Length(fixed, kExtraSize);
  const std::size_t whole =
      kSize + name_size + extra_size + static_cast<std::size_t>(Number(fixed, kCommentSize, 2));
  if (directory->size() < whole) return std::nullopt;
  *name = fixed.substr(kSize, name_size);
  Archive::Entry entry{.header = Number(fixed, kHeader, 4),
                       .compressed_size = Number(fixed, kCompressedSize, 4),
                       .size = Number(fixed, kUncompressedSize, 4),
                       .checksum = static_cast<std::uint32_t>(Number(fixed, kChecksum, 4)),
                       .method = static_cast<unsigned>(Number(fixed, kMethod, 2)),
                       .encrypted = (Number(fixed, kFlags, 2) & kEncrypted) != 0};
  Widen(fixed.substr(kSize + name_size, extra_size), &entry);
  directory->remove_prefix(whole);
  return entry;
}

// What a Mac puts into the archives that it makes: a file of attributes beside each of the user's.
bool IsAttributeFile(std::string_view name) {
  return name.starts_with("__MACOSX/") ||
         name.substr(name.rfind('/') + 1).starts_with("._");  // all of it without a slash
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written == -1 && errno != EINTR) return false;
    bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  }
  return true;
}

// Ends a decompressor when it goes.
class Inflater {
 public:
  Inflater() : ready_(inflateInit2(&stream_, -MAX_WBITS) == Z_OK) {}
  ~Inflater() {
    if (ready_) inflateEnd(&stream_);
  }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  // Takes from `*in` and appends at most `room` bytes to `*out`. False: no such data.
  bool Step(std::string_view* in, std::size_t room, std::string* out) {
    if (!ready_) return false;
    const std::size_t before = out->size();
    out->resize(before + room);
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in->data()));
    stream_.avail_in = static_cast<uInt>(in->size());
    stream_.next_out = reinterpret_cast<Bytef*>(out->data() + before);
    stream_.avail_out = static_cast<uInt>(room);
    const int result = inflate(&stream_, Z_NO_FLUSH);
    out->resize(before + room - stream_.avail_out);
    in->remove_prefix(in->size() - stream_.avail_in);
    ended_ = result == Z_STREAM_END;
    return result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR;
  }
  bool ended() const { return ended_; }

 private:
  z_stream stream_ = {};
  bool ready_;
  bool ended_ = false;
};

}  // namespace

std::optional<Archive> Archive::Open(UniqueFd file, const char** problem) {
  const off_t size = lseek(file.get(), 0, SEEK_END);
  Archive archive(std::move(file), 0, static_cast<std::uint64_t>(std::max<off_t>(size, 0)));
  *problem = archive.FindDirectory();
  if (*problem) return std::nullopt;
  return archive;
}

std::optional<Archive> Archive::OpenNested(Archive outer, const Entry& entry,
                                           const char** problem) {
  if (entry.method == kStored) {
    std::uint64_t position = 0;
    *problem = outer.DataOf(entry, &position);
    if (*problem) return std::nullopt;
    const std::uint64_t size = std::min(entry.compressed_size, outer.size_ - position);
    Archive archive(std::move(outer.file_), outer.start_ + position, size);
    *problem = archive.FindDirectory();
    if (*problem) return std::nullopt;
    return archive;
  }
  UniqueFd unpacked(memfd_create("book", MFD_CLOEXEC));
  *problem = outer.Unpack(entry, kMaxNestedSize + 1,
                          [&](std::string_view bytes) { return WriteAll(unpacked.get(), bytes); });
  if (*problem) return std::nullopt;
  if (lseek(unpacked.get(), 0, SEEK_END) > static_cast<off_t>(kMaxNestedSize)) {
    *problem = "a book of more than 32 MiB that was packed twice";
    return std::nullopt;
  }
  return Open(std::move(unpacked), problem);
}

// The archive ends with a record that tells where its directory is, and a comment of any bytes. The
// last record that leads to a directory counts; only that directory is read. Returns the problem.
const char* Archive::FindDirectory() {
  constexpr std::size_t kMaxComment = 65535;
  constexpr std::size_t kMaxTail = kMaxComment + end_record::kSize + end_record_64::kLocatorSize;
  const std::uint64_t tail_start = size_ - std::min<std::uint64_t>(size_, kMaxTail);
  const std::string tail_text = ReadAt(tail_start, kMaxTail);
  const std::string_view tail = tail_text;
  const char* problem = kUnreadable;
  for (std::size_t at = tail.rfind(end_record::kMark); at != tail.npos;
       at = at == 0 ? tail.npos : tail.rfind(end_record::kMark, at - 1)) {
    const std::string_view end = tail.substr(at);
    if (end.size() < end_record::kSize ||
        end.size() - end_record::kSize < Length(end, end_record::kCommentSize)) {
      continue;
    }
    std::uint64_t position = tail_start + at;
    std::uint64_t size = Number(end, end_record::kDirectorySize, 4);
    std::uint64_t offset = Number(end, end_record::kDirectoryOffset, 4);
    const std::size_t locator = at - std::min(at, end_record_64::kLocatorSize);
    if (tail.substr(locator, at - locator).starts_with(end_record_64::kLocatorMark) &&
        at - locator == end_record_64::kLocatorSize) {
      // The record stands before its locator, or where that says when it is longer than usual.
      for (const std::uint64_t record :
           {tail_start + locator - end_record_64::kSize,
            Number(tail, locator + end_record_64::kOffsetInLocator, 8)}) {
        const std::string end_64 = ReadAt(record, end_record_64::kSize);
        if (end_64.size() != end_record_64::kSize || !end_64.starts_with(end_record_64::kMark)) {
          continue;
        }
        position = record;
        size = Number(end_64, end_record_64::kDirectorySize, 8);
        offset = Number(end_64, end_record_64::kDirectoryOffset, 8);
        break;
      }
    }
    const char* const problem_here = TakeDirectory(position, size, offset);
    if (!problem_here) return nullptr;
    problem = problem_here;
  }
  return problem;
}

// Reads the directory that ends at `end`, or stands at `offset` when something lies between. What
// comes before an archive (a program that unpacks it, say) moves all positions alike.
const char* Archive::TakeDirectory(std::uint64_t end, std::uint64_t size, std::uint64_t offset) {
  if (size > kMaxDirectorySize) return "the archive's directory is too large";
  for (const std::uint64_t start : {end - std::min(end, size), offset}) {
    if (start < offset || ReadAt(start, directory_entry::kMark.size()) != directory_entry::kMark) {
      continue;
    }
    base_ = start - offset;
    directory_ = ReadAt(start, static_cast<std::size_t>(size));
    return nullptr;
  }
  return kUnreadable;
}

std::optional<Archive::Entry> Archive::FindIf(
    const std::function<bool(std::string_view)>& wanted) const {
  std::string_view rest = directory_;
  std::string_view name;
  while (const auto entry = NextEntry(&rest, &name)) {
    if (wanted(name)) return entry;
  }
  return std::nullopt;
}

std::optional<Archive::Entry> Archive::Find(std::string_view name) const {
  return FindIf([&](std::string_view each) { return each == name; });
}

std::optional<Archive::Entry> Archive::FindBySuffix(std::string_view suffix) const {
  return FindIf([&](std::string_view each) {
    return EndsWithIgnoringCase(each, suffix) && !IsAttributeFile(each);
  });
}

// Fewer bytes when the archive ends before.
std::string Archive::ReadAt(std::uint64_t position, std::size_t size) const {
  std::string bytes;
  if (position >= size_) return bytes;
  bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(size, size_ - position)));
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got = pread(file_.get(), bytes.data() + filled, bytes.size() - filled,
                              static_cast<off_t>(start_ + position + filled));
    if (got == 0 || (got == -1 && errno != EINTR)) break;
    filled += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
  }
  bytes.resize(filled);
  return bytes;
}

// Where the bytes of an entry start, after its own header. Returns the problem.
const char* Archive::DataOf(const Entry& entry, std::uint64_t* position) const {
  if (entry.encrypted) return "an entry of the archive is encrypted";
  // The two methods that books may use; the others could ask for gigabytes of working memory.
  if (entry.method != kStored && entry.method != kDeflated) {
    return "an entry of the archive is compressed in a way that books don't use";
  }
  if (entry.header >= size_) return kDamaged;
  const std::string header = ReadAt(base_ + entry.header, entry_header::kSize);
  if (header.size() != entry_header::kSize || !header.starts_with(entry_header::kMark)) {
    return kDamaged;
  }
  *position = base_ + entry.header + entry_header::kSize + Length(header, entry_header::kNameSize) +
              Length(header, entry_header::kExtraSize);
  return *position < size_ ? nullptr : kDamaged;
}

// Hands the first `max_size` bytes of an entry, or all of them, to `sink` in pieces until it
// returns false. Returns the problem.
const char* Archive::Unpack(const Entry& entry, std::uint64_t max_size, const Sink& sink) const {
  std::uint64_t position = 0;
  if (const char* problem = DataOf(entry, &position)) return problem;
  // Bounds the time that a stream takes which hardly gives a byte: what is worth reading is never
  // much longer packed than unpacked.
  const std::uint64_t end = position + std::min(entry.compressed_size, 2 * max_size + kChunk);
  std::uint64_t left = max_size;
  uLong checksum = crc32(0, nullptr, 0);
  Inflater inflater;
  std::string packed;
  std::string_view in;
  std::string out;
  bool ended = entry.method == kStored && entry.compressed_size == 0;
  while (left > 0 && !ended) {
    if (in.empty()) {
      packed = ReadAt(position, static_cast<std::size_t>(std::min<std::uint64_t>(
                                    end - std::min(end, position), kChunk)));
      position += packed.size();
      in = packed;
    }
    const auto room = static_cast<std::size_t>(std::min<std::uint64_t>(left, kChunk));
    out.clear();
    if (entry.method == kStored) {
      out = in.substr(0, room);
      in.remove_prefix(out.size());
      ended = in.empty() && position == end;
    } else {
      if (!inflater.Step(&in, room, &out)) return kDamaged;
      ended = inflater.ended();
    }
    if (out.empty() && packed.empty() && !ended) return kDamaged;  // it ends too early
    left -= out.size();
    checksum =
        crc32(checksum, reinterpret_cast<const Bytef*>(out.data()), static_cast<uInt>(out.size()));
    if (!sink(out)) return "can't be unpacked";
  }
  return ended && checksum != entry.checksum ? kDamaged : nullptr;
}

std::optional<std::string> Archive::ReadStart(const Entry& entry, std::size_t max_size,
                                              const char** problem) const {
  std::string content;
  *problem = Unpack(entry, max_size, [&](std::string_view bytes) {
    content += bytes;
    return true;
  });
  if (*problem) return std::nullopt;
  return content;
}

}  // namespace corvane
