#include "tools/inspector/selection.h"

#include <strings.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>

#include "include/usage_stat.h"
#include "tools/inspector/moment.h"
#include "tools/records/catalogue.h"
#include "tools/store/file.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::inspector {

namespace {

std::int64_t MomentOf(const std::string& option, const std::string& text) {
  const auto moment = ParseMoment(text, store::NowMs());
  if (!moment) throw CLI::ValidationError(option, "no moment is called \"" + text + "\"");
  return *moment;
}

// Whether `text` is a name of `type`: its code, its class or its enumerator, the latter two also
// without "Event" and "k".
bool IsNameOf(const records::RecordType& type, const std::string& text) {
  const auto matches = [&text](std::string_view name) {
    return text.size() == name.size() && strncasecmp(text.data(), name.data(), name.size()) == 0;
  };
  std::string_view short_event = type.event;
  if (short_event.ends_with("Event")) short_event.remove_suffix(5);
  return matches(type.event) || matches(short_event) || matches(type.enumerator) ||
         matches(type.enumerator.substr(1)) || text == std::to_string(type.code);
}

void AddEvents(const std::string& text, std::vector<std::string>* events) {
  const std::size_t before = events->size();
  for (const records::RecordType& type : records::Catalogue()) {
    if (IsNameOf(type, text)) events->emplace_back(type.event);
  }
  if (events->size() == before) {
    throw CLI::ValidationError(
        "--event", "there is no record type \"" + text + "\"; usage-stat types shows them");
  }
}

bool ReadNumber(const std::string& text, std::int64_t* number) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, *number);
  return result.ec == std::errc() && result.ptr == end;
}

std::int64_t ApplicationOf(const std::string& text) {
  std::int64_t id = 0;
  if (ReadNumber(text, &id)) return id;
  id = Stat_GetApplicationId(text.c_str());
  if (id < 0) throw CLI::ValidationError("--app", "there is no application \"" + text + "\"");
  return id;
}

std::int64_t BookOf(const std::string& text) {
  std::int64_t id = 0;
  return ReadNumber(text, &id) ? id : Stat_GetBookId(text.c_str());
}

}  // namespace

void AddDatabaseOption(CLI::App* command, std::string* path) {
  *path = store::DefaultDatabasePath();
  command
      ->add_option("--database", *path,
                   "Database of the collector (default: $USAGE_STAT_DATABASE, else records.db "
                   "in $STATE_DIRECTORY, else /var/lib/usage-stat/records.db)")
      ->type_name("PATH");
}

void AddOutputOption(CLI::App* command, std::string* output,
                     const std::vector<std::string>& formats) {
  *output = formats.front();
  command->add_option("-o,--output", *output, "How to show it")
      ->check(CLI::IsMember(formats))
      ->type_name("FORMAT")
      ->capture_default_str();
}

void AddCountOption(CLI::App* command, std::optional<std::int64_t>* count,
                    const std::string& description) {
  command
      ->add_option_function<std::string>(
          "-n",
          [count](const std::string& text) {
            std::int64_t number = 0;
            if (!ReadNumber(text, &number) || number < 0) {
              throw CLI::ValidationError("-n", "\"" + text + "\" is no count");
            }
            *count = number;
          },
          description)
      ->type_name("COUNT");
}

void AddRangeOptions(CLI::App* command, store::Query* query) {
  command
      ->add_option_function<std::string>(
          "--since",
          [query](const std::string& text) { query->since_ms = MomentOf("--since", text); },
          "Events at or after this moment")
      ->type_name("MOMENT");
  command
      ->add_option_function<std::string>(
          "--until",
          [query](const std::string& text) { query->until_ms = MomentOf("--until", text); },
          "Events before this moment")
      ->type_name("MOMENT");
  command->parse_complete_callback([query] {
    if (query->since_ms && query->until_ms && *query->until_ms <= *query->since_ms) {
      throw CLI::ValidationError("--until", "it is not after --since");
    }
  });
  command->footer(std::string("A MOMENT is one of: ") + kMomentForms);
}

void AddFilterOptions(CLI::App* command, store::Query* query) {
  command
      ->add_option_function<std::vector<std::string>>(
          "--event",
          [query](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) AddEvents(text, &query->events);
          },
          "Records of this type: a name or a code; may be given again")
      ->type_name("TYPE")
      ->allow_extra_args(false);
  command
      ->add_option_function<std::string>(
          "--app", [query](const std::string& text) { query->application = ApplicationOf(text); },
          "Records that name this application: an id, or a name such as explorer.app")
      ->type_name("APP");
  command
      ->add_option_function<std::string>(
          "--book", [query](const std::string& text) { query->book_id = BookOf(text); },
          "Records that name this book: an id or a path of the device")
      ->type_name("BOOK");
}

}  // namespace velmora::usage_stat::inspector
