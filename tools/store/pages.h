// A database's file read without SQLite: its head, and the rows that its pages hold.

#ifndef TOOLS_STORE_PAGES_H_
#define TOOLS_STORE_PAGES_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "tools/base/status.h"
#include "tools/base/system.h"

namespace velmora::usage_stat::store {

using base::Status;

// What the first bytes of a database say about it.
constexpr std::size_t kHeadSize = 100;
struct DatabaseHead {
  bool is_ours = false;
  std::uint32_t version = 0;    // of the schema
  std::uint32_t page_size = 0;  // in bytes; 0 when it is no database, or no longer one
  std::uint64_t bytes = 0;      // of the file, when it was last complete
};
DatabaseHead ReadHead(std::string_view head);

struct Column {
  enum class Type { kNull, kInteger, kText, kBlob };
  Type type = Type::kNull;
  std::int64_t integer = 0;
  std::string_view bytes;  // of a text or blob
};

// A database file and the log beside it. SQLite finds a row through the table of tables and the
// pages above the row's own, and where one of these is broken, nothing below it. Here each page
// stands for itself: whatever else is damaged, a page that is whole gives its rows.
//
// Deleted rows hardly come back: the store has SQLite overwrite them, and of a page that stands in
// file and log only the newest state counts. Where that is the broken one, an older may still have
// them.
class Pages {
 public:
  // Opens what is at `path`, which must be a file.
  static Status Open(const std::string& path, Pages* pages);

  // What the file's first bytes say; they may be damaged, too.
  const DatabaseHead& head() const { return head_; }
  // How large the file is, or was when it was last complete, in bytes.
  std::int64_t bytes() const;

  // Hands out each row of a table that has one number for a key, in the order of the pages. A page
  // that can't be read is passed over, and so is a row that is not whole or has more columns than
  // any of ours. `columns` is valid during the call. Ends when `visit` returns false, or after the
  // first `most` bytes of the file. Returns how many bytes the pages have that gave all of their
  // rows.
  using Visitor = std::function<bool(std::int64_t number, std::span<const Column> columns)>;
  std::int64_t ForEachRow(const Visitor& visit, std::int64_t most = INT64_MAX) const;

 private:
  void ReadLog(const std::string& path);
  bool ReadPage(std::uint32_t number, std::string* page) const;

  base::Descriptor file_;
  base::Descriptor log_;
  DatabaseHead head_;
  std::uint32_t page_size_ = 0;                   // in bytes
  std::uint32_t pages_ = 0;                       // in the file, as far as they count
  std::map<std::uint32_t, std::int64_t> in_log_;  // where in the log a page's newest state is
};

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_PAGES_H_
