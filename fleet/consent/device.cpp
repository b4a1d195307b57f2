#include "fleet/consent/device.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "tools/store/reader.h"

namespace velmora::usage_stat::consent {

using base::Status;

std::string DefaultStateFolder() {
  const char* folder = std::getenv("STATE_DIRECTORY");
  return folder && *folder ? folder : "/var/lib/usage-stat-uplink";
}

std::string StatePath(const std::string& folder) { return folder + "/uplink.db"; }

std::string DefaultPolicyPath() { return USAGE_STAT_POLICY; }

Status ActAsOwnerOf(const std::string& folder) {
  // Nobody else is to read what is written from here on.
  (void)umask(077);
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    return errno == ENOENT ? Status() : Status::Errno("cannot look at " + folder);
  }
  const uid_t self = geteuid();
  if (self == status.st_uid) return {};
  const passwd* owner = getpwuid(status.st_uid);
  const std::string name = owner ? owner->pw_name : std::to_string(status.st_uid);
  if (self != 0) {
    return Status::Failed("only " + name + ", whose " + folder + " is, and root may do this");
  }
  // The owner's groups let it read the database, which is the collector's.
  const gid_t group = owner ? owner->pw_gid : status.st_gid;
  if ((owner ? initgroups(owner->pw_name, group) : setgroups(0, nullptr)) != 0 ||
      setgid(group) != 0 || setuid(status.st_uid) != 0) {
    return Status::Errno("cannot act as " + name);
  }
  return {};
}

Status ReadNumbers(const std::string& path, Numbers* numbers) {
  *numbers = {};
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return {};
  std::unique_ptr<store::Reader> reader;
  RETURN_IF_ERROR(store::Reader::Open(path, &reader));
  // Numbers before stores: what is begun in between is found by the next look.
  RETURN_IF_ERROR(reader->LastNumber(&numbers->next));
  ++numbers->next;
  std::vector<store::Store> stores;
  RETURN_IF_ERROR(reader->ReadStores(&stores));
  for (const store::Store& store : stores) {
    Numbers::Store& known = numbers->live.emplace_back();
    known.first = store.first_record;
    if (store.id.size() != known.id.size()) return Status::Failed(path + " names a store wrongly");
    std::copy(store.id.begin(), store.id.end(), known.id.begin());
  }
  return {};
}

State::ReceivedSince ReceivedSinceIn(const std::string& path) {
  return [path](std::int64_t first, std::int64_t last, std::int64_t ms,
                std::int64_t* number) -> Status {
    *number = first;
    std::unique_ptr<store::History> history;
    RETURN_IF_ERROR(store::History::Open(path, &history));
    // Numbers without records count to those in front of them.
    std::int64_t end = first;
    RETURN_IF_ERROR(history->ForEach({.after_id = first - 1, .last_id = last},
                                     [&](const store::RecordRow& row) {
                                       if (row.received_ms < ms) *number = row.id + 1;
                                       end = row.id + 1;
                                       return true;
                                     }));
    if (*number == end) *number = last + 1;
    return {};
  };
}

Status LookAt(const std::string& path, State* state) {
  Numbers numbers;
  RETURN_IF_ERROR(ReadNumbers(path, &numbers));
  return state->Look(numbers, ReceivedSinceIn(path));
}

}  // namespace velmora::usage_stat::consent
