#include "corvane/config.h"

#include <ini.h>
#include <pthread.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "corvane/corvane.h"
#include "corvane/log.h"

struct CorvaneConfig {
  explicit CorvaneConfig(const char* device_path) : file(device_path) {}

  std::mutex mutex;  // guards the rest
  corvane::ConfigFile file;
  std::shared_ptr<const corvane::ConfigValues> values;  // null until they are needed
};

namespace {

// Lives as long as the process, since other libraries may log or send while it ends.
//
// No thread is at it while the process forks: the child would wait for ever for one that it does
// not have.
CorvaneConfig* GlobalConfig() {
  static auto* const config = new CorvaneConfig("/mnt/ext1/system/config/global.cfg");
  constexpr auto kUnlock = [] { config->mutex.unlock(); };
  pthread_atfork([] { config->mutex.lock(); }, kUnlock, kUnlock);
  return config;
}

}  // namespace

CorvaneState g_corvane = {GlobalConfig()};

namespace corvane {
namespace {

// A configuration is written by hand; more than this is some other file.
constexpr std::size_t kMaxConfigSize = std::size_t{1024} * 1024;

// Gives inih the next line of the text. Indentation is dropped, since inih would take an indented
// line for the continuation of the value before it. A line that does not fit inih's buffer becomes
// an empty one: cut in pieces, its tail could pass for another key.
char* NextLine(char* line, int capacity, void* stream) {
  auto& rest = *static_cast<std::string_view*>(stream);
  if (rest.empty()) return nullptr;
  std::string_view next = rest.substr(0, rest.find('\n'));
  rest.remove_prefix(std::min(rest.size(), next.size() + 1));
  next.remove_prefix(std::min(next.size(), next.find_first_not_of(" \t\r\v\f")));
  if (next.size() >= static_cast<std::size_t>(capacity)) {
    CORVANE_LOG(kLogError, "a line of %zu bytes is too long and was ignored", next.size());
    next = {};
  }
  line[next.copy(line, next.size())] = '\0';
  return line;
}

struct Parsed {
  ConfigValues values;
  bool is_out_of_memory = false;
};

// Keeps keys outside sections only: this interface has no sections, so the same key of two sections
// could not be told apart. The last of several assignments counts. Lack of memory is noted, not
// thrown: on ARM no exception gets through the frames of a library in C, and the process would end.
int StoreValue(void* user, const char* section, const char* key, const char* value) {
  auto& parsed = *static_cast<Parsed*>(user);
  if (*section != '\0') return 1;
  try {
    parsed.values.insert_or_assign(key, value);
  } catch (const std::bad_alloc&) {
    parsed.is_out_of_memory = true;
  }
  return 1;
}

// Reads the file of `config` if that has not been done yet. The caller holds the lock.
const ConfigValues& LoadedValues(CorvaneConfig* config) {
  if (!config->values) config->values = config->file.Read();
  return *config->values;
}

}  // namespace

ConfigValues ParseConfig(std::string_view text) {
  Parsed parsed;
  const int bad_line = ini_parse_stream(NextLine, &text, StoreValue, &parsed);
  if (parsed.is_out_of_memory) throw std::bad_alloc();
  if (bad_line != 0) {
    CORVANE_LOG(kLogWarning, "line %d is no key=value line and was ignored", bad_line);
  }
  return std::move(parsed.values);
}

std::shared_ptr<const ConfigValues> ConfigFile::Read() {
  // Looked at before the file is read: what changes meanwhile shows the next time.
  std::optional<FileState> state = StateOf(path_.c_str());
  if (state && state == state_) return values_;
  if (state && !state->IsSettled()) state.reset();
  std::string text;
  const int error = ReadRegularFile(path_.c_str(), kMaxConfigSize, &text);
  if (error != 0 && error != ENOENT && error != ENOTDIR) {
    CORVANE_LOG(kLogError, "can't read %s: %s", path_.c_str(), strerrordesc_np(error));
    state.reset();
  }
  ConfigValues values = ParseConfig(text);
  if (!values_ || *values_ != values) {
    values_ = std::make_shared<const ConfigValues>(std::move(values));
  }
  state_ = state;  // when nothing more can fail: memory may have run out above
  return values_;
}

// Each thread has its own, so that none waits for another, in a child after fork() least of all.
std::shared_ptr<const ConfigValues> ReadDeviceConfig() {
  thread_local ConfigFile file("/mnt/ext1/system/config/device.cfg");
  return file.Read();
}

const std::string* Find(const ConfigValues& values, std::string_view key) {
  const auto found = values.find(key);
  return found == values.end() ? nullptr : &found->second;
}

std::optional<int> ParseInt(std::string_view text) {
  int number = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

int IntOf(const ConfigValues& values, std::string_view key, int default_value) {
  const std::string* text = Find(values, key);
  return text ? ParseInt(*text).value_or(default_value) : default_value;
}

}  // namespace corvane

CorvaneConfig* OpenConfig(const char* path, int flags) {
  if (!path || flags != 0) return nullptr;
  auto config = std::make_unique<CorvaneConfig>(path);
  RefreshConfig(config.get());
  return config.release();
}

const char* ReadString(CorvaneConfig* config, const char* key, const char* default_value) {
  if (!config || !key) return default_value;
  const std::lock_guard lock(config->mutex);
  const std::string* text = corvane::Find(corvane::LoadedValues(config), key);
  return text ? text->c_str() : default_value;
}

int ReadInt(CorvaneConfig* config, const char* key, int default_value) {
  if (!config || !key) return default_value;
  const std::lock_guard lock(config->mutex);
  return corvane::IntOf(corvane::LoadedValues(config), key, default_value);
}

void CloseConfigNoSave(CorvaneConfig* config) {
  if (config != g_corvane.global_config) delete config;
}

void RefreshConfig(CorvaneConfig* config) {
  if (!config) return;
  const std::lock_guard lock(config->mutex);
  config->values = config->file.Read();
}
