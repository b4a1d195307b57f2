// Makes databases of people who do not exist, to try the report and other tools on.

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tools/base/system.h"
#include "tools/command_line/command_line.h"
#include "tools/records/record.h"
#include "tools/report/calendar.h"
#include "tools/sample/person.h"
#include "tools/store/writer.h"

using namespace velmora::usage_stat;

namespace {

struct Options {
  std::string path;
  int devices = 0;  // 0: one, and `path` is its file
  int days = 30;
  int seed = 1;
};

// Collects records and commits them in batches, as a collector does.
class BatchWriter {
 public:
  explicit BatchWriter(store::Writer* writer) : writer_(writer) {}

  void Take(std::int64_t at_ms, std::string_view datagram) {
    constexpr std::size_t kBatchSize = 5000;
    const auto decoded = records::Decode(datagram);
    const auto& record = std::get<records::Record>(decoded);
    store::RecordRow& row = batch_.records.emplace_back();
    row.received_ms = at_ms;
    row.sender = {1200, 1000};
    row.type = record.type;
    row.event = record.event;
    row.timestamp_ms = record.timestamp;
    row.fields = records::Dump(record.values);
    row.raw = datagram;
    if (batch_.records.size() == kBatchSize) Commit();
  }

  // What a faulty and a foreign sender leave behind.
  void TakeErrors(std::int64_t at_ms) {
    using namespace std::string_literals;
    const std::string time = "\xe8\x90\xe4\x0e\xa2\x01\0\0"s;
    for (const std::string& datagram : {"\xf0\x07"s + time + "cut short"s, "\xe7\x03"s + time}) {
      const auto decoded = records::Decode(datagram);
      const auto* damage = std::get_if<records::Damage>(&decoded);
      if (!damage) continue;
      batch_.quarantine.push_back({0,
                                   0,
                                   at_ms,
                                   {1310, 1000},
                                   std::string(damage->kind),
                                   damage->reason,
                                   damage->type,
                                   static_cast<std::int64_t>(datagram.size()),
                                   datagram});
    }
    batch_.refused[{33, store::kUserNotAllowed}] = 4;
  }

  void Commit() {
    if (!status_.ok()) return;
    status_ = writer_->Commit(batch_);
    batch_ = {};
  }

  const base::Status& status() const { return status_; }

 private:
  store::Writer* writer_;
  store::Batch batch_;
  base::Status status_;
};

int Fail(const std::string& message) { return Complain("usage-stat-sample", message); }

// The days end with today, by the clock on the wall.
base::Status MakeDatabase(const Options& options, int number, const std::string& path) {
  std::unique_ptr<store::Writer> writer;
  RETURN_IF_ERROR(store::Writer::Open(path, "sample", &writer));
  BatchWriter batches(writer.get());
  sample::Person person(static_cast<std::uint64_t>(options.seed), number, options.days,
                        [&](const Event& event, std::string_view datagram) {
                          batches.Take(event.timestamp_, datagram);
                        });
  const std::int64_t now_ms = base::NowMs();
  const report::Day today = report::LocalClock().At(now_ms).day;
  for (int day = 0; day < options.days && batches.status().ok(); ++day) {
    const report::Day date = today - options.days + 1 + day;
    person.Live(day, report::WeekdayOf(date), report::BeginOf(date), now_ms);
  }
  if (number % 10 == 0) batches.TakeErrors(now_ms);
  batches.Commit();
  base::Status status = batches.status();
  return status.ok() ? writer->Finish() : status;
}

int Run(const Options& options) {
  // The library's readers log what is wrong with the damaged samples.
  setenv("CORVANE_LOG_LEVEL", "0", 0);
  struct stat there {};
  if (lstat(options.path.c_str(), &there) == 0) {
    return Fail(options.path + " exists; it was left as it is");
  }
  if (options.devices == 0) {
    const base::Status status = MakeDatabase(options, 0, options.path);
    return status.ok() ? kOk : Fail(status.message);
  }
  if (mkdir(options.path.c_str(), S_IRWXU) != 0) {
    return Fail("cannot create the folder " + options.path + ": " + std::strerror(errno));
  }
  for (int number = 0; number < options.devices; ++number) {
    std::string name = std::to_string(number + 1);
    name.insert(0, std::to_string(options.devices).size() - name.size(), '0');
    const base::Status status = MakeDatabase(options, number, options.path + "/" + name + ".db");
    if (!status.ok()) return Fail(status.message);
  }
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CommandLine line("usage-stat-sample",
                   "Makes a database of a reader who does not exist, or of many, to try other "
                   "programs on. The same numbers make the same people.",
                   USAGE_STAT_VERSION);
  Command command = line.main();
  command.Option("--devices", "COUNT", "Make a folder of so many databases, one for each device", 1,
                 1000000, &options.devices);
  command.Option("--days", "COUNT", "Let the last COUNT days pass, today included (default: 30)", 1,
                 3660, &options.days);
  command.Option("--seed", "NUMBER", "Make other people (default: 1)", 0, 1000000, &options.seed);
  command.Argument("PATH", "The file or folder to make; it must not exist", &options.path, true);
  command.OnRun([&options] { return Run(options); });
  return line.Run(argc, argv);
}
