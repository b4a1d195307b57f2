#include "tools/inspector/selection.h"

#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>

#include "include/usage_stat.h"
#include "src/usage_stat_client/application_table.h"
#include "tools/base/status.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/inspector/moment.h"
#include "tools/records/record.h"
#include "tools/store/file.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::inspector {

namespace {

// The takers of options return what is wrong with a value; see Command::Take.

std::string TakeMoment(const std::string& text, std::optional<std::int64_t>* moment) {
  *moment = ParseMoment(text, base::NowMs());
  return *moment ? "" : "no moment is called \"" + text + "\"";
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

std::string TakeEvent(const std::string& text, std::vector<std::string>* events) {
  const std::size_t before = events->size();
  for (const records::RecordType& type : records::Catalogue()) {
    if (IsNameOf(type, text)) events->emplace_back(type.event);
  }
  if (events->size() > before) return {};
  return "there is no record type \"" + text + "\"; usage-stat types shows them";
}

bool IsSame(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Names count also without ".app". That of a store stands for the stores of all partners: the
// records may come from another device than this one, which alone the library knows the partner of.
std::string TakeApplication(const std::string& text, std::vector<std::int64_t>* applications) {
  using Kind = ApplicationRow::Kind;
  applications->clear();
  if (const auto id = base::ParseWhole<std::int64_t>(text)) {
    applications->push_back(*id);
    return {};
  }
  bool is_store = false;
  for (const ApplicationRow& row : kApplicationTable) {
    const bool is_called = IsSame(row.name, text) || IsSame(row.name, text + ".app");
    if (is_called && row.kind == Kind::kApplication) applications->push_back(row.id);
    is_store = is_store || (is_called && row.kind == Kind::kStore);
  }
  if (is_store) {
    applications->push_back(kDefaultStoreId);
    for (const ApplicationRow& row : kApplicationTable) {
      if (row.kind == Kind::kPartner) applications->push_back(row.id);
    }
  }
  if (!applications->empty()) return {};
  return "there is no application \"" + text + "\"; usage-stat types -o markdown names them";
}

// The ids of the books whose title or file name is `name`, as records of new and of opened books
// have them.
base::Status BooksCalled(const std::string& database, const std::string& name,
                         std::set<std::int64_t>* ids) {
  std::unique_ptr<store::History> history;
  base::Status status = store::History::Open(database, &history);
  if (!status.ok()) return status;
  store::Query query;
  query.events = {"NewBooksEventEx", "OpenBookEvent"};
  const auto look = [&](const records::Json& book) {
    for (const char* column : {"title", "file_name"}) {
      const auto text = book.find(column);
      if (text != book.end() && IsSame(text->get<std::string>(), name)) {
        ids->insert(book["book_id"].get<std::int64_t>());
      }
    }
  };
  return history->ForEach(query, [&](const store::RecordRow& row) {
    const auto read = records::Read(row.raw);
    if (!read) return true;
    records::Json fields = records::NamedFields(*read->type, read->type->values_of(*read->event));
    if (const auto books = fields.find("books"); books != fields.end()) {
      for (const records::Json& book : *books) look(book);
    } else {
      look(fields);
    }
    return true;
  });
}

}  // namespace

void AddDatabaseOption(Command command, std::string* path) {
  *path = store::DefaultDatabasePath();
  command.Option("--database", "PATH",
                 "Database of the collector (default: $USAGE_STAT_DATABASE, else records.db in "
                 "$STATE_DIRECTORY, else /var/lib/usage-stat/records.db)",
                 path);
}

void AddEndpointOption(Command command, std::string* endpoint) {
  command.Option("--endpoint", "NAME",
                 std::string("Name of the collector's endpoint (default: $") +
                     base::kEndpointVariable + ", else " + base::kDefaultEndpoint + ")",
                 endpoint);
}

void UseEndpoint(const std::string& endpoint) {
  if (!endpoint.empty()) setenv(base::kEndpointVariable, endpoint.c_str(), 1);
}

void AddOutputOption(Command command, std::string* output,
                     const std::vector<std::string>& formats) {
  *output = formats.front();
  command.Choice("-o,--output", "FORMAT", "How to show it", formats, output);
}

void AddCountOption(Command command, std::optional<std::int64_t>* count,
                    const std::string& description) {
  command.Option("-n", "COUNT", description, [count](const std::string& text) -> std::string {
    const auto number = base::ParseWhole<std::int64_t>(text);
    if (!number || *number < 0) return "\"" + text + "\" is no count";
    *count = *number;
    return {};
  });
}

void AddRangeOptions(Command command, store::Query* query) {
  command.Option("--since", "MOMENT", "Events at or after this moment",
                 [query](const std::string& text) { return TakeMoment(text, &query->since_ms); });
  command.Option("--until", "MOMENT", "Events before this moment",
                 [query](const std::string& text) { return TakeMoment(text, &query->until_ms); });
  command.OnRead([query]() -> std::string {
    const bool is_empty =
        query->since_ms && query->until_ms && *query->until_ms <= *query->since_ms;
    return is_empty ? "--until: it is not after --since" : "";
  });
  command.Footer(std::string("A MOMENT is one of: ") + kMomentForms);
}

void AddFilterOptions(Command command, store::Query* query, std::string* book) {
  command.RepeatedOption(
      "--event", "TYPE", "Records of this type: a name or a code; may be given again",
      [query](const std::string& text) { return TakeEvent(text, &query->events); });
  command.Option(
      "--app", "APP", "Records that name this application: an id, or a name such as explorer.app",
      [query](const std::string& text) { return TakeApplication(text, &query->applications); });
  command.Option(
      "--book", "BOOK",
      "Records that name this book: an id, a title, a file name, or a path of the device", book);
}

base::Status FindBook(const std::string& database, const std::string& name, store::Query* query) {
  if (name.empty()) return {};
  if (const auto id = base::ParseWhole<std::int64_t>(name)) {
    query->book_id = *id;
    return {};
  }
  std::set<std::int64_t> ids;
  if (name.find('/') == std::string::npos) RETURN_IF_ERROR(BooksCalled(database, name, &ids));
  if (ids.size() > 1) {
    std::string list;
    for (const std::int64_t each : ids) list += " " + std::to_string(each);
    return base::Status::Failed("several books are called \"" + name + "\":" + list);
  }
  query->book_id = ids.empty() ? Stat_GetBookId(name.c_str()) : *ids.begin();
  return {};
}

}  // namespace velmora::usage_stat::inspector
