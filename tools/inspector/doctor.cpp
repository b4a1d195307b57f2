// usage-stat doctor: what goes wrong in the field, and what to do about it.

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "src/measurements/statistics_switch.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/balance.h"
#include "tools/inspector/listeners.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/record.h"
#include "tools/store/file.h"
#include "tools/store/reader.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::Json;

struct Options {
  std::string database;
  std::string endpoint;
  std::string output;
};

enum class State { kOk, kWarn, kFail };

struct Finding {
  std::string check;
  State state;
  std::string message;
  std::string advice = {};  // empty when all is well
};

using Findings = std::vector<Finding>;

// ---- Checks ----

// Root's processes, one's own, and those of the user whom the records belong to: the service runs
// under a user of its own.
bool IsTrusted(uid_t uid, const std::string& database) {
  struct stat file {};
  return uid == 0 || uid == geteuid() || (stat(database.c_str(), &file) == 0 && uid == file.st_uid);
}

void CheckEndpoint(const std::string& database, Findings* findings) {
  const std::string endpoint = base::EndpointInUse();
  const Listener listener = FindListener(endpoint);
  const auto add = [&](State state, const std::string& message, const std::string& advice) {
    findings->push_back({"endpoint", state, message, advice});
  };
  if (!listener.is_bound) {
    return add(State::kFail, fmt::format("nobody listens on \"{}\"", endpoint),
               "start usage-stat-collector: records that are sent meanwhile are lost");
  }
  if (listener.holders.empty()) {
    return add(State::kWarn, fmt::format("a process of another user listens on \"{}\"", endpoint),
               "run doctor as root to see which: an abstract name has no permissions, so anyone "
               "may have taken it");
  }
  for (const Holder& holder : listener.holders) {
    const std::string who =
        fmt::format("{}, process {} of user {}", holder.program, holder.pid, holder.uid);
    if (!IsTrusted(holder.uid, database)) {
      add(State::kWarn, who + ", receives the records",
          "stop it unless you know it: it is neither root's nor yours nor the database owner's, "
          "and an abstract name has no permissions");
    } else if (holder.program != "usage-stat-collector") {
      add(State::kWarn, who + ", receives the records",
          "stop it unless you know it: it is not usage-stat-collector");
    } else {
      add(State::kOk, who + ", listens", "");
    }
  }
}

void CheckQueue(Findings* findings) {
  constexpr int kKernelDefault = 10;
  int length = 0;
  if (!(std::ifstream("/proc/sys/net/unix/max_dgram_qlen") >> length)) {
    findings->push_back(
        {"queue", State::kWarn, "net.unix.max_dgram_qlen can't be read", "mount /proc"});
  } else if (length <= kKernelDefault) {
    findings->push_back(
        {"queue", State::kWarn,
         fmt::format("{} records may wait for the collector; the next one makes its sender wait",
                     length),
         "sysctl -w net.unix.max_dgram_qlen=512, then restart the collector: its socket keeps the "
         "value of its start"});
  } else {
    findings->push_back(
        {"queue", State::kOk, fmt::format("{} records may wait for the collector", length)});
  }
}

void CheckRoot(Findings* findings) {
  const char* root = std::getenv("CORVANE_ROOT");
  if (!root || !*root) {
    findings->push_back(
        {"root", State::kOk, "CORVANE_ROOT is not set: paths are the device's own"});
    return;
  }
  std::error_code error;
  if (!std::filesystem::is_directory(root, error)) {
    findings->push_back({"root", State::kFail, fmt::format("CORVANE_ROOT, {}, is no folder", root),
                         "unset it, or let it name a copy of a device's files"});
  } else if (root[0] != '/') {
    findings->push_back({"root", State::kWarn, fmt::format("CORVANE_ROOT, {}, is relative", root),
                         "make it absolute: every application has its own current folder"});
  } else if (!std::filesystem::exists(std::string(root) + "/mnt/ext1/system/config", error)) {
    findings->push_back({"root", State::kWarn,
                         fmt::format("CORVANE_ROOT, {}, holds no mnt/ext1/system/config", root),
                         "copy a device's configuration there; without it defaults hold"});
  } else {
    findings->push_back({"root", State::kOk, fmt::format("CORVANE_ROOT is {}", root)});
  }
}

void CheckSetting(Findings* findings) {
  if (IsStatisticsEnabled()) {
    findings->push_back({"setting", State::kOk, "the device's configuration allows statistics"});
  } else {
    findings->push_back({"setting", State::kWarn, "the device's configuration forbids statistics",
                         "set statistics_enabled=1 in global.cfg if records are wanted"});
  }
}

void CheckDisk(const std::string& database, Findings* findings) {
  constexpr std::uint64_t kMiB = 1 << 20;
  const std::string folder = store::FolderOf(database);
  struct statvfs disk {};
  if (statvfs(folder.c_str(), &disk) != 0) {
    findings->push_back({"disk", State::kFail, folder + " can't be looked at",
                         "create it, readable and writable for the collector"});
    return;
  }
  const std::uint64_t free = std::uint64_t{disk.f_bavail} * disk.f_frsize / kMiB;
  const std::string message = fmt::format("{} MiB are free in {}", free, folder);
  const char* advice =
      "make room, or give the collector --keep-days or --max-size: on a full disk senders wait and "
      "then lose their records";
  const State state = free < 1 ? State::kFail : free < 16 ? State::kWarn : State::kOk;
  findings->push_back({"disk", state, message, state == State::kOk ? "" : advice});
}

// ---- Checks that look into the database ----

void CheckClocks(store::Reader* reader, Findings* findings) {
  struct Check {
    const char* what;
    std::string count;
  };
  const Check checks[] = {
      {"records lie in the future",
       "SELECT count(*) FROM records WHERE timestamp_ms > " + std::to_string(base::NowMs() + 1000)},
      {"records differ by more than a minute between sending and receiving",
       "SELECT count(*) FROM records WHERE abs(timestamp_ms - received_ms) > 60000"},
      // What the collector notes of its own work is numbered before what waits for that work to
      // end.
      {"times the clock went back between two records",
       "SELECT count(*) FROM (SELECT received_ms - lag(received_ms) OVER (ORDER BY id) AS step "
       "FROM " +
           std::string(reader->schema() == 1 ? "records" : "record_list") +
           " WHERE event NOT IN ('NewJournalFileEvent', 'OpenJournalFileEvent', "
           "'SendArchiveEvent', 'DeleteArchiveEvent')) WHERE step < -1000"},
  };
  bool is_sound = true;
  for (const Check& check : checks) {
    std::int64_t count = 0;
    const base::Status status = reader->connection().Read(check.count, &count);
    if (status.ok() && count == 0) continue;
    is_sound = false;
    findings->push_back({"clock", State::kWarn,
                         status.ok() ? fmt::format("{} {}", count, check.what) : status.message,
                         "set the clock before applications start, for example by "
                         "systemd-timesyncd; replayed records show up here too"});
  }
  if (is_sound) findings->push_back({"clock", State::kOk, "timestamps and receive times agree"});
}

void CheckBalance(store::Reader* reader, Findings* findings) {
  Balance balance;
  const base::Status status = ReadBalance(reader, base::NowMs(), &balance);
  if (!status.ok() || !balance.adds_up()) {
    findings->push_back(
        {"balance", State::kFail,
         status.ok() ? "what was received and what became of it do not add up" : status.message,
         "usage-stat status shows the numbers; somebody may have changed them"});
    return;
  }
  findings->push_back(
      {"balance", State::kOk,
       fmt::format("all {} received datagrams are accounted for", balance.received)});
  if (balance.in_quarantine > 0) {
    findings->push_back({"quarantine", State::kWarn,
                         base::Plural(balance.in_quarantine, "datagram") + " could not be read",
                         "after an update, usage-stat replay --quarantine reads them again"});
  }
}

// How somebody who may not read the database can come to: by the group that may.
std::string AdviceForStrangers(const std::string& path) {
  const std::string folder = store::FolderOf(path);
  struct stat kept {};  // the file, or its folder where that hides it
  const bool is_known = stat(path.c_str(), &kept) == 0 || stat(folder.c_str(), &kept) == 0;
  const group* const readers = is_known ? getgrgid(kept.st_gid) : nullptr;
  if (!readers || (kept.st_mode & S_IRGRP) == 0) {
    return "run doctor as root, or as the collector's user";
  }
  const std::string name = readers->gr_name;
  const passwd* const user = getpwuid(geteuid());
  const std::string user_name = user ? user->pw_name : "NAME";
  for (char** member = readers->gr_mem; *member; ++member) {
    if (*member != user_name) continue;
    return fmt::format("log in anew: you are a member of its group, {}, since you did", name);
  }
  return fmt::format("members of the group {} may: sudo adduser {} {}, and log in anew", name,
                     user_name, name);
}

// Opens the database when it is there, ours and sound; tells otherwise what to do.
std::unique_ptr<store::Reader> CheckDatabase(const std::string& path, Findings* findings) {
  const auto add = [&](State state, const std::string& message, const std::string& advice) {
    findings->push_back({"database", state, message, advice});
    return nullptr;
  };
  if (access(path.c_str(), R_OK) != 0) {
    if (errno == ENOENT) {
      return add(State::kWarn, "there is no database " + path,
                 "start usage-stat-collector, or name its database with --database");
    }
    return add(State::kWarn, fmt::format("cannot look into {}: {}", path, std::strerror(errno)),
               AdviceForStrangers(path));
  }
  std::unique_ptr<store::Reader> reader;
  std::string verdict;
  base::Status status = store::Reader::Open(path, &reader);
  if (status.ok()) status = reader->connection().Read("PRAGMA quick_check(1)", &verdict);
  if (!status.ok() && !store::IsDamage(status)) {
    return add(State::kFail, status.message,
               "name the collector's own database, or use the version of usage-stat that made it");
  }
  if (!status.ok() || verdict != "ok") {
    return add(
        State::kFail,
        fmt::format("{} is damaged: {}", path, status.ok() ? verdict : status.message),
        "restart the collector, which puts it aside and begins a new one; usage-stat recover "
        "may save what the old one holds");
  }
  struct stat file {};
  if (stat(path.c_str(), &file) == 0 && (file.st_mode & (S_IWGRP | S_IRWXO)) != 0) {
    add(State::kWarn, path + " is sound, and open to other users",
        "chmod 640 it: it tells what its owner reads");
  } else {
    add(State::kOk, path + " is sound", "");
  }
  return reader;
}

// ---- Output ----

struct Word {
  const char* text;
  Colour colour;
};
Word WordFor(State state) {
  constexpr Word kWords[] = {
      {"ok", Colour::kGreen}, {"warn", Colour::kYellow}, {"fail", Colour::kRed}};
  return kWords[static_cast<std::size_t>(state)];
}

void PrintText(const Findings& findings) {
  for (const Finding& finding : findings) {
    const Word word = WordFor(finding.state);
    Print("{}  {:<10}  {}\n", Coloured(word.colour, fmt::format("{:<4}", word.text)), finding.check,
          Printable(finding.message));
    if (!finding.advice.empty()) Print("{:>18}{}\n", "", Printable(finding.advice));
  }
}

void PrintJson(const Findings& findings) {
  Json json = Json::array();
  for (const Finding& finding : findings) {
    json.push_back({{"check", finding.check},
                    {"state", WordFor(finding.state).text},
                    {"message", finding.message},
                    {"advice", finding.advice}});
  }
  Print("{}\n", records::Dump(json, 2));
}

int Run(const Options& options) {
  UseEndpoint(options.endpoint);
  Findings findings;
  CheckEndpoint(options.database, &findings);
  CheckQueue(&findings);
  CheckRoot(&findings);
  CheckSetting(&findings);
  CheckDisk(options.database, &findings);
  if (const auto reader = CheckDatabase(options.database, &findings)) {
    CheckBalance(reader.get(), &findings);
    CheckClocks(reader.get(), &findings);
  }
  (options.output == "json" ? PrintJson : PrintText)(findings);
  for (const Finding& finding : findings) {
    if (finding.state == State::kFail) return kFailed;
  }
  return kOk;
}

}  // namespace

void AddDoctor(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command =
      line->AddCommand("doctor", "Check what goes wrong in the field, and say what to do");
  AddDatabaseOption(command, &options->database);
  AddEndpointOption(command, &options->endpoint);
  AddOutputOption(command, &options->output, {"text", "json"});
  command.Footer("Exit code 1 when a check fails; warnings alone give 0.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
