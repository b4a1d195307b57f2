#include "tools/store/pages.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <iterator>
#include <set>
#include <vector>

#include "tools/base/bytes.h"
#include "tools/store/file.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::store {

namespace {

// The format of file and log is SQLite's, which has promised to keep it: sqlite.org/fileformat2.
constexpr char kTableLeaf = 0x0d;
constexpr std::size_t kLeafHeadSize = 8;
constexpr std::size_t kLogHeadSize = 32;
constexpr std::size_t kFrameHeadSize = 24;
constexpr std::size_t kRoundSize = 8;  // of two random words that all frames of a round carry
// Of ours, a table has at most 11 columns, and a row much less than this.
constexpr std::size_t kMostColumns = 16;
// What is behind this in a file, or said to be, is nobody's on a device.
constexpr std::int64_t kLargestFile = std::int64_t{4} * 1024 * 1024 * 1024;
constexpr std::uint64_t kLargestRow = std::uint64_t{4} * 1024 * 1024;

std::uint32_t ByteAt(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint8_t>(bytes[at]);
}

std::uint32_t WordAt(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint32_t>(base::BigEndian(bytes.substr(at, 4)));
}

// Takes a number of one to nine bytes from the front: seven bits of each, eight of the ninth.
bool TakeVarint(std::string_view* bytes, std::uint64_t* number) {
  constexpr std::size_t kLongest = 9;
  *number = 0;
  for (std::size_t i = 0; i < std::min(bytes->size(), kLongest); ++i) {
    const std::uint32_t byte = ByteAt(*bytes, i);
    const bool is_last = i + 1 == kLongest;
    *number = is_last ? *number << 8 | byte : *number << 7 | (byte & 0x7f);
    if (!is_last && byte >= 0x80) continue;
    bytes->remove_prefix(i + 1);
    return true;
  }
  return false;
}

// Where in a page a row is, and its key.
struct Cell {
  std::size_t place = 0;
  std::int64_t key = 0;
};

// The rows of a leaf whose head is at `start`. In a sound page their keys ascend; where they don't,
// as few as possible are left out: a broken key would give a record the number of another.
std::vector<Cell> CellsInOrder(std::string_view page, std::size_t start) {
  std::vector<Cell> cells;
  const std::size_t first = start + kLeafHeadSize;
  const std::uint64_t count = std::min<std::uint64_t>(base::BigEndian(page.substr(start + 3, 2)),
                                                      (page.size() - first) / 2);
  for (std::size_t i = 0; i < count; ++i) {
    const auto place = static_cast<std::size_t>(base::BigEndian(page.substr(first + 2 * i, 2)));
    std::string_view cell = page.substr(std::min(place, page.size()));
    std::uint64_t size = 0;
    std::uint64_t key = 0;
    if (place == 0 || !TakeVarint(&cell, &size) || !TakeVarint(&cell, &key)) continue;
    cells.push_back({place, static_cast<std::int64_t>(key)});
  }
  // The longest ascending part: for each length the end of the one that ends lowest.
  constexpr std::size_t kNone = SIZE_MAX;
  std::vector<std::size_t> ends;
  std::vector<std::size_t> before(cells.size(), kNone);
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const auto end = std::ranges::lower_bound(
        ends, cells[i].key, {}, [&cells](std::size_t each) { return cells[each].key; });
    if (end != ends.begin()) before[i] = *std::prev(end);
    if (end == ends.end()) {
      ends.push_back(i);
    } else {
      *end = i;
    }
  }
  std::vector<Cell> in_order;
  for (std::size_t i = ends.empty() ? kNone : ends.back(); i != kNone; i = before[i]) {
    in_order.push_back(cells[i]);
  }
  std::ranges::reverse(in_order);
  return in_order;
}

// How a row tells what its columns are.
struct Layout {
  std::size_t head_size = 0;
  std::array<std::uint64_t, kMostColumns> types{};
  std::size_t columns = 0;
};

std::uint64_t SizeOf(std::uint64_t type) {
  constexpr std::array<std::uint64_t, 12> kSizes = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0, 0, 0};
  return type < kSizes.size() ? kSizes[static_cast<std::size_t>(type)] : (type - 12) / 2;
}

// Reads the head of a row of `size` bytes; false unless all of it fits together, which hardly
// anything does that is not a row.
bool ReadLayout(std::string_view front, std::uint64_t size, Layout* layout) {
  std::uint64_t head_size = 0;
  std::string_view rest = front;
  if (!TakeVarint(&rest, &head_size) || head_size > front.size()) return false;
  layout->head_size = static_cast<std::size_t>(head_size);
  layout->columns = 0;
  const std::size_t taken = front.size() - rest.size();
  if (taken > layout->head_size) return false;
  rest = rest.substr(0, layout->head_size - taken);
  std::uint64_t sum = head_size;
  while (!rest.empty()) {
    std::uint64_t type = 0;
    if (layout->columns == kMostColumns || !TakeVarint(&rest, &type)) return false;
    sum += SizeOf(type);
    if (sum > size) return false;
    layout->types[layout->columns++] = type;
  }
  return sum == size;
}

// False for a fractional number, which none of our tables has.
bool ReadColumn(std::uint64_t type, std::string_view bytes, Column* column) {
  constexpr std::uint64_t kReal = 7;
  constexpr std::uint64_t kZero = 8;
  constexpr std::uint64_t kOne = 9;
  constexpr std::uint64_t kFirstBlob = 12;
  *column = {};
  if (type == 0) return true;
  if (type >= kFirstBlob) {
    column->type = type % 2 == 0 ? Column::Type::kBlob : Column::Type::kText;
    column->bytes = bytes;
    return true;
  }
  if (type == kReal || type > kOne) return false;
  column->type = Column::Type::kInteger;
  if (type == kZero || type == kOne) {
    column->integer = type == kOne ? 1 : 0;
    return true;
  }
  // Two's complement, of fewer bytes than we have.
  const std::uint64_t sign = std::uint64_t{1} << (8 * bytes.size() - 1);
  column->integer = static_cast<std::int64_t>((base::BigEndian(bytes) ^ sign) - sign);
  return true;
}

bool ReadColumns(const Layout& layout, std::string_view row, std::vector<Column>* columns) {
  columns->resize(layout.columns);
  row.remove_prefix(layout.head_size);
  for (std::size_t i = 0; i < layout.columns; ++i) {
    const auto size = static_cast<std::size_t>(SizeOf(layout.types[i]));
    if (!ReadColumn(layout.types[i], row.substr(0, size), &(*columns)[i])) return false;
    row.remove_prefix(size);
  }
  return true;
}

// How many bytes of a row of `size` stand in its own page of `usable` bytes.
std::uint64_t SizeInPage(std::uint64_t size, std::uint64_t usable) {
  const std::uint64_t most = usable - 35;
  if (size <= most) return size;
  const std::uint64_t least = (usable - 12) * 32 / 255 - 23;
  const std::uint64_t filling = least + (size - least) % (usable - 4);
  return filling <= most ? filling : least;
}

bool ReadBytes(const base::Descriptor& file, std::int64_t offset, std::size_t size,
               std::string* bytes) {
  bytes->resize(size);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = pread(file.get(), bytes->data() + done, size - done,
                                static_cast<off_t>(offset) + static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

std::int64_t SizeOfFile(const base::Descriptor& file) {
  struct stat status {};
  return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

// A log's sum over `bytes`, which is going on from `sum`.
void AddUp(std::string_view bytes, bool is_big_endian, std::array<std::uint32_t, 2>* sum) {
  const auto word = [&](std::size_t at) {
    const std::uint32_t big = WordAt(bytes, at);
    return is_big_endian ? big : __builtin_bswap32(big);
  };
  auto& [first, second] = *sum;
  for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
    first = static_cast<std::uint32_t>(std::uint64_t{first} + word(at) + second);
    second = static_cast<std::uint32_t>(std::uint64_t{second} + word(at + 4) + first);
  }
}

}  // namespace

DatabaseHead ReadHead(std::string_view head) {
  constexpr std::string_view kMagic("SQLite format 3\0", 16);
  DatabaseHead said;
  if (head.size() < kHeadSize || !head.starts_with(kMagic)) return said;
  const auto size = static_cast<std::uint32_t>(base::BigEndian(head.substr(16, 2)));
  if (size >= 512 && std::has_single_bit(size)) said.page_size = size;
  if (size == 1) said.page_size = 65536;
  said.bytes = std::uint64_t{WordAt(head, 28)} * said.page_size;
  said.version = WordAt(head, 60);
  said.is_ours = WordAt(head, 68) == kApplicationId;
  return said;
}

Status Pages::Open(const std::string& path, Pages* pages) {
  // Opening a FIFO would wait for its other end.
  pages->file_ = base::Descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!pages->file_.is_open()) return Status::Errno("cannot open " + path);
  const std::int64_t size = SizeOfFile(pages->file_);
  if (size < 0) return Status::Failed(path + " is not a file");
  std::string head;
  if (ReadBytes(pages->file_, 0, kHeadSize, &head)) pages->head_ = ReadHead(head);
  // Without its head, a file is taken for one of the present schema. None of ours keeps a part of
  // its pages for others.
  pages->page_size_ = pages->head_.page_size > 0 ? pages->head_.page_size : kPageSize;
  pages->pages_ = static_cast<std::uint32_t>(std::min(size, kLargestFile) / pages->page_size_);
  pages->ReadLog(TargetOf(path) + "-wal");
  return {};
}

std::int64_t Pages::bytes() const {
  const std::int64_t present =
      (std::int64_t{pages_} + static_cast<std::int64_t>(in_log_.size())) * page_size_;
  constexpr auto kMost = static_cast<std::uint64_t>(kLargestFile);
  return std::max(present, static_cast<std::int64_t>(std::min(head_.bytes, kMost)));
}

// A frame counts when it is of the log's present round and its own sum is right. SQLite ends at
// the first that is not; here those behind it count as well, up to the last that ends a
// transaction. They are newer than those in front; only of a file that was set aside right after a
// power cut they may be some that were given up.
void Pages::ReadLog(const std::string& path) {
  constexpr std::uint32_t kMagic = 0x377f0682;  // or the next number, for sums in big-endian words
  constexpr std::int64_t kMostRead = std::int64_t{1024} * 1024 * 1024;
  log_ = base::Descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string head;
  std::string frame;
  const std::size_t frame_size = kFrameHeadSize + page_size_;
  if (!log_.is_open() || SizeOfFile(log_) < 0 || !ReadBytes(log_, 0, kLogHeadSize, &head)) return;
  bool is_big_endian = WordAt(head, 0) == kMagic + 1;
  std::string round = head.substr(16, kRoundSize);
  std::array<std::uint32_t, 2> sum{};
  std::array<std::uint32_t, 2> said = {WordAt(head, 24), WordAt(head, 28)};
  AddUp(std::string_view(head).substr(0, 24), is_big_endian, &sum);
  if ((WordAt(head, 0) & ~1U) != kMagic || sum != said) {
    // The first frame whose sum goes on from the one before it tells which round it is.
    is_big_endian = false;
    round.clear();
  } else if (WordAt(head, 8) != page_size_) {
    return;
  }
  std::map<std::uint32_t, std::int64_t> open_transaction;
  for (std::int64_t at = kLogHeadSize; at < kMostRead && ReadBytes(log_, at, frame_size, &frame);
       at += static_cast<std::int64_t>(frame_size)) {
    sum = said;
    said = {WordAt(frame, 16), WordAt(frame, 20)};
    AddUp(std::string_view(frame).substr(0, 8), is_big_endian, &sum);
    AddUp(std::string_view(frame).substr(kFrameHeadSize), is_big_endian, &sum);
    if (sum != said) continue;
    if (round.empty()) round = frame.substr(8, kRoundSize);
    if (frame.compare(8, kRoundSize, round) != 0) continue;
    open_transaction[WordAt(frame, 0)] = at + static_cast<std::int64_t>(kFrameHeadSize);
    const std::uint32_t pages = WordAt(frame, 4);
    if (pages == 0) continue;
    for (const auto& [number, place] : open_transaction) in_log_[number] = place;
    open_transaction.clear();
    // What lies behind has been given back.
    in_log_.erase(in_log_.upper_bound(pages), in_log_.end());
    pages_ = std::min(pages_, pages);
  }
}

bool Pages::ReadPage(std::uint32_t number, std::string* page) const {
  const auto place = in_log_.find(number);
  if (place == in_log_.end() && (number == 0 || number > pages_)) return false;
  return place != in_log_.end()
             ? ReadBytes(log_, place->second, page_size_, page)
             : ReadBytes(file_, (std::int64_t{number} - 1) * page_size_, page_size_, page);
}

std::int64_t Pages::ForEachRow(const Visitor& visit, std::int64_t most) const {
  std::string page;
  std::string row;
  std::string further;
  Layout layout;
  std::vector<Column> columns;
  // A page belongs to one row at most: broken chains take no longer than sound ones.
  std::set<std::uint32_t> taken;

  // Reads the row whose part in its own page begins `cell`, and the chain of its further pages.
  const auto read_row = [&](std::string_view cell) {
    std::uint64_t size = 0;
    std::uint64_t key = 0;
    if (!TakeVarint(&cell, &size) || !TakeVarint(&cell, &key) || size > kLargestRow) return false;
    const auto in_page = static_cast<std::size_t>(SizeInPage(size, page_size_));
    const auto whole = static_cast<std::size_t>(size);
    const bool is_whole = in_page == whole;
    if (cell.size() < in_page + (is_whole ? 0 : 4)) return false;
    if (!ReadLayout(cell.substr(0, in_page), size, &layout)) return false;
    row = cell.substr(0, in_page);
    std::uint32_t next = is_whole ? 0 : WordAt(cell, in_page);
    while (row.size() < whole) {
      if (next == 0 || !taken.insert(next).second || !ReadPage(next, &further)) return false;
      next = WordAt(further, 0);
      row.append(further, 4, std::min(std::size_t{page_size_} - 4, whole - row.size()));
    }
    return ReadColumns(layout, row, &columns);
  };

  std::int64_t whole_pages = 0;
  bool has_enough = false;
  const auto visit_page = [&](std::uint32_t number) {
    const std::size_t start = number == 1 ? kHeadSize : 0;
    if (!ReadPage(number, &page) || page[start] != kTableLeaf) return;
    const std::vector<Cell> cells = CellsInOrder(page, start);
    bool is_whole = cells.size() == base::BigEndian(page.substr(start + 3, 2));
    for (auto cell = cells.begin(); cell != cells.end() && !has_enough; ++cell) {
      const bool is_row = read_row(std::string_view(page).substr(cell->place));
      is_whole = is_whole && is_row;
      if (is_row) has_enough = !visit(cell->key, columns);
    }
    if (is_whole) ++whole_pages;
  };

  const auto last = static_cast<std::uint32_t>(std::min<std::int64_t>(pages_, most / page_size_));
  for (std::uint32_t number = 1; number <= last && !has_enough; ++number) visit_page(number);
  for (auto newer = in_log_.upper_bound(pages_); newer != in_log_.end() && !has_enough; ++newer) {
    visit_page(newer->first);
  }
  return whole_pages * page_size_;
}

}  // namespace velmora::usage_stat::store
