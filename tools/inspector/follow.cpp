// usage-stat follow: records as they come in.

#include <poll.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <string>

#include "tools/base/status.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/rows.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/store/reader.h"

namespace velmora::usage_stat::inspector {

namespace {

using base::Status;

struct Options {
  std::string database;
  std::string output;
  std::optional<std::int64_t> newest = 10;
  store::Query query;
  std::string book;
};

constexpr int kPollMs = 100;

volatile std::sig_atomic_t is_ended = 0;

void EndOnSignals() {
  for (const int number : {SIGINT, SIGTERM}) {
    struct sigaction action {};
    action.sa_handler = [](int) { is_ended = 1; };
    sigaction(number, &action, nullptr);
  }
}

// Waits for the next look. False at the end: a signal came, or whoever reads the output has gone.
bool Wait() {
  Flush();
  pollfd output{STDOUT_FILENO, 0, 0};
  if (is_ended == 0 && poll(&output, 1, kPollMs) > 0) return false;
  return is_ended == 0;
}

// Names the file at a path, as opposed to another one that took its place.
struct FileId {
  dev_t device = 0;
  ino_t number = 0;
  bool operator==(const FileId&) const = default;
};
FileId IdOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

// The database of a collector and how far its records were seen.
class Tail {
 public:
  explicit Tail(std::string path) : path_(std::move(path)) {}

  Status Open() {
    file_ = IdOf(path_);
    Status status = store::History::Open(path_, &history_);
    if (status.ok()) status = Read("PRAGMA data_version", &version_);
    return status;
  }

  // Shows the last so many records of `query`; later ones are new.
  Status ShowLast(std::int64_t count, store::Query query, const RowPrinter& printer) {
    // Ids are counted on even when the newest records have moved to an archive.
    Status status = history_->live().LastNumber(&last_id_);
    if (!status.ok() || count == 0) return status;
    query.newest = count;
    return Show(query, printer);
  }

  // Shows what has come since. A database that was replaced is read from its beginning.
  Status ShowNew(store::Query query, const RowPrinter& printer) {
    const FileId now = IdOf(path_);
    if (now == FileId{}) return {};  // it was removed; a collector may begin a new one
    bool is_changed = false;
    if (now != file_) {
      RETURN_IF_ERROR(Open());
      last_id_ = 0;
      is_changed = true;
    }
    std::int64_t version = version_;
    RETURN_IF_ERROR(Read("PRAGMA data_version", &version));
    is_changed = is_changed || version != version_;
    version_ = version;
    if (!is_changed) return {};
    query.after_id = last_id_;
    return Show(query, printer);
  }

 private:
  Status Read(std::string_view sql, std::int64_t* value) {
    return history_->live().connection().Read(sql, value);
  }

  Status Show(const store::Query& query, const RowPrinter& printer) {
    return history_->ForEach(query, [this, &printer](const store::RecordRow& row) {
      printer.Print(row);
      last_id_ = std::max(last_id_, row.id);
      return is_ended == 0;
    });
  }

  std::string path_;
  FileId file_;
  std::unique_ptr<store::History> history_;
  std::int64_t version_ = 0;  // changes with each commit of somebody else
  std::int64_t last_id_ = 0;
};

int Run(const Options& options) {
  EndOnSignals();
  Tail tail(options.database);
  const RowPrinter printer({options.output});
  printer.PrintHead();
  store::Query query = options.query;
  Status status = FindBook(options.database, options.book, &query);
  if (status.ok()) status = tail.Open();
  if (status.ok()) status = tail.ShowLast(*options.newest, query, printer);
  while (status.ok() && Wait()) {
    status = tail.ShowNew(query, printer);
    if ((status.code & 0xff) == SQLITE_BUSY) status = {};  // the next look sees more
  }
  return status.ok() ? kOk : Complain(kFailed, status.message);
}

}  // namespace

void AddFollow(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("follow", "Show records as they come in");
  AddDatabaseOption(command, &options->database);
  AddFilterOptions(command, &options->query, &options->book);
  AddCountOption(command, &options->newest, "Begin with the last so many records (default: 10)");
  AddOutputOption(command, &options->output, RowFormats());
  command.Footer("SIGINT (Ctrl+C) and SIGTERM end it with exit code 0.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
