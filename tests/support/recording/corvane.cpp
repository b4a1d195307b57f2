#include <corvane/corvane.h>

#include <cstdarg>
#include <cstdio>

#include "tests/support/recording/recorder.h"

using usage_stat_test::Note;
using usage_stat_test::Recorded;
using usage_stat_test::Recording;

struct CorvaneConfig {};

namespace {

CorvaneConfig g_global_config;
CorvaneConfig g_opened_config;

const char* NameOf(const CorvaneConfig* config) {
  if (config == &g_global_config) return "global";
  return config == &g_opened_config ? "opened" : "unknown";
}

template <class Map, class Key>
const char* TextOrNull(const Map& texts, const Key& key) {
  const auto found = texts.find(key);
  return found == texts.end() ? nullptr : found->second;
}

void Log(int level, const char* file, int line, const char* function, const char* format,
         va_list arguments) {
  if (line < 1) format = "a line without its number";
  char message[4096];
  std::vsnprintf(message, sizeof(message), format, arguments);
  Recorded().log.push_back({level, file, function, format, message});
}

}  // namespace

Recording& usage_stat_test::Recorded() {
  static Recording recording;
  return recording;
}

int g_process_pid = usage_stat_test::kRecordedPid;
CorvaneState g_corvane = {&g_global_config};

void vm_print_log2(int level, const char* file, int line, const char* function, const char* format,
                   ...) {
  va_list arguments;
  va_start(arguments, format);
  if (!Recorded().is_silent) Log(level, file, line, function, format, arguments);
  va_end(arguments);
}

CorvaneConfig* OpenConfig(const char* path, int flags) {
  Note([=] { return "OpenConfig " + std::string(path) + ' ' + std::to_string(flags); });
  return &g_opened_config;
}

const char* ReadString(CorvaneConfig* config, const char* key, const char* default_value) {
  Note([=] {
    return "ReadString " + std::string(NameOf(config)) + ' ' + key + ' ' + default_value;
  });
  return Recorded().language;
}

int ReadInt(CorvaneConfig* config, const char* key, int default_value) {
  Note([=] {
    return "ReadInt " + std::string(NameOf(config)) + ' ' + key + ' ' +
           std::to_string(default_value);
  });
  return Recorded().statistics_enabled;
}

void CloseConfigNoSave(CorvaneConfig* config) {
  Note([=] { return "CloseConfigNoSave " + std::string(NameOf(config)); });
}

void RefreshConfig(CorvaneConfig* config) {
  Note([=] { return "RefreshConfig " + std::string(NameOf(config)); });
}

const unsigned char* GetDeviceID(void) { return Recorded().device_id; }
const char* GetSerialNumber(void) { return Recorded().serial_number; }
const char* GetDeviceModel(void) { return Recorded().device_model; }
const char* GetSoftwareVersion(void) { return Recorded().software_version; }
const char* GetCustomizedPartnerName(void) { return Recorded().partner_name; }

int GetCustomizedPartner(void) {
  Note([=] { return "GetCustomizedPartner"; });
  return Recorded().partner;
}

int ReadGSensor(int* x, int* y, int* z) {
  Note([=] { return x || y || z ? "ReadGSensor" : "ReadGSensor null null null"; });
  return Recorded().gsensor;
}

int GetOrientation(void) {
  Note([=] { return "GetOrientation"; });
  return Recorded().orientation;
}

void GetKeyMappingEx(int mapping_set, const char** first_actions, const char** second_actions,
                     int count) {
  Note([=] {
    return "GetKeyMappingEx " + std::to_string(mapping_set) + ' ' + std::to_string(count);
  });
  for (int n = 0; n < count; ++n) {
    first_actions[n] = TextOrNull(Recorded().first_actions[mapping_set], n);
    second_actions[n] = TextOrNull(Recorded().second_actions[mapping_set], n);
  }
}

unsigned int QueryDeviceButtons(void) {
  Note([=] { return "QueryDeviceButtons"; });
  return Recorded().buttons;
}

const BookInfo* GetBookInfo(const char* path) {
  const auto found = Recorded().books.find(path);
  return found == Recorded().books.end() ? nullptr : &found->second;
}

const char* GetBookISBN(const char* path) { return TextOrNull(Recorded().isbns, path); }
