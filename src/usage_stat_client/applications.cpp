// Exported functions that report launches of applications.

#include "src/usage_stat_client/applications.h"

#include <corvane/corvane.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "include/usage_stat.h"
#include "src/events/application_events.h"
#include "src/usage_stat_client/application_table.h"
#include "src/usage_stat_client/arguments.h"
#include "src/usage_stat_client/book_path.h"
#include "src/usage_stat_client/statistics_client.h"

using namespace velmora::usage_stat;

namespace {

// Read at the first look-up and never again, even if the partner changes. An exception, from a null
// partner name, leaves it unset, and the next look-up tries again.
Stat_ApplicationId StoreId() {
  static const Stat_ApplicationId id = StoreIdOfPartner(RequiredText(GetCustomizedPartnerName()));
  return id;
}

// The text from the last slash on, slash included; the whole path without one. Keeping the slash is
// deliberate: no table name begins with one, so only bare names are known applications, and every
// launch by full path goes to the collector as one of an outside application.
std::string_view LookUpKey(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash);
}

// Every element with a blank before it, the first one too.
std::string JoinArguments(const char** arguments) {
  std::string joined;
  for (; *arguments; ++arguments) {
    joined += ' ';
    joined += *arguments;
  }
  return joined;
}

}  // namespace

Stat_ApplicationId Stat_GetApplicationId(const char* path) {
  constexpr Stat_ApplicationId kUnknown = -1;
  const Stat_ApplicationId store_id = StoreId();
  if (!path) return kUnknown;
  const std::string_view key = LookUpKey(path);
  if (IsStoreName(key)) return store_id;
  return KnownApplicationId(key).value_or(kUnknown);
}

int Stat_StartApplicationEvent(int process_id, Stat_ApplicationId application, int c,
                               const char* arguments) {
  std::string arguments_text = RequiredText(arguments);
  StartApplicationEvent event;
  event.process_id_ = static_cast<std::int16_t>(process_id);
  event.application_ = static_cast<std::int16_t>(application);
  event.c_ = c;
  event.arguments_ = std::move(arguments_text);
  return STAT_SEND(event);
}

int Stat_StartOutsideApplicationEvent(const char* path, const char* arguments) {
  StartOutsideApplicationEvent event;
  event.path_ = RequiredText(path);
  event.arguments_ = RequiredText(arguments);
  return STAT_SEND(event);
}

int Stat_StartApplicationByPathEvent(int process_id, const char* path, int c,
                                     const char** arguments) {
  STAT_LOG(3, "[pid:%d]pid = [%d], path = [%s]", process_id, path);
  const Stat_ApplicationId id = Stat_GetApplicationId(path);
  const std::string joined = JoinArguments(arguments);
  // A launch counts as reported whatever came of sending it.
  if (id != -1) {
    Stat_StartApplicationEvent(process_id, id, c, joined.c_str());
    return 0;
  }
  const std::string outside_path = RequiredText(path);
  if (IsReaderName(FileName(outside_path))) return -1;
  Stat_StartOutsideApplicationEvent(path, joined.c_str());
  return 0;
}
