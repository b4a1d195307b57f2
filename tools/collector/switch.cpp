#include "tools/collector/switch.h"

#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "src/measurements/statistics_switch.h"
#include "src/stat_event/event_factory.h"
#include "tools/base/bytes.h"
#include "tools/collector/notices.h"

namespace velmora::usage_stat::collector {

namespace {

// Where the platform library looks for the device's configuration.
const std::string& SettingPath() {
  static const std::string path = [] {
    const char* root = std::getenv("CORVANE_ROOT");
    return std::string(root ? root : "") + "/mnt/ext1/system/config/global.cfg";
  }();
  return path;
}

// The type code of a record that is an envelope and nothing else; 0 for every other datagram.
int BareType(std::string_view bytes) {
  constexpr std::size_t kEnvelopeSize = 10;
  if (bytes.size() != kEnvelopeSize) return 0;
  return static_cast<int>(base::LittleEndian(bytes.substr(0, 2)));
}

}  // namespace

Switch::Switch() : file_(StateOfFile()) { Look(); }

bool Switch::Lets(const Datagram& datagram) {
  const int type = BareType(datagram.bytes);
  const auto now = std::chrono::steady_clock::now();
  if (type == EventFactory::kStatisticsSettingsChanged) {
    file_ = StateOfFile();
    Look();
  } else if (now >= next_look_) {
    next_look_ = now + std::chrono::milliseconds(1);
    if (const FileState state = StateOfFile(); state != file_) {
      // Before the setting is read, so that what changes in between shows at the next look.
      file_ = state;
      Look();
    }
  }
  return is_on_ || type == EventFactory::kForceRotation ||
         type == EventFactory::kStatisticsSettingsChanged;
}

void Switch::Look() {
  const bool was_on = is_on_;
  is_on_ = IsStatisticsEnabled();
  if (is_on_ == was_on) return;
  Tell(is_on_ ? "statistics are switched on again"
              : "statistics are switched off: what comes is dropped and counted");
}

Switch::FileState Switch::StateOfFile() {
  struct stat status {};
  if (stat(SettingPath().c_str(), &status) != 0) return {};
  return {static_cast<std::int64_t>(status.st_ino), static_cast<std::int64_t>(status.st_size),
          static_cast<std::int64_t>(status.st_mtim.tv_sec),
          static_cast<std::int64_t>(status.st_mtim.tv_nsec),
          static_cast<std::int64_t>(status.st_ctim.tv_nsec)};
}

}  // namespace velmora::usage_stat::collector
