#include "tools/inspector/functions.h"

#include <algorithm>
#include <exception>
#include <tuple>

#include "include/usage_stat.h"
#include "tools/inspector/argument.h"

namespace velmora::usage_stat::inspector {

namespace {

// ---- Results as values ----

Json ToJson(int result) { return result; }

Json ToJson(const char* const* texts) {
  Json json = Json::array();
  for (; texts && *texts; ++texts) json.push_back(*texts);
  return json;
}

Json ToJson(const Stat_BookInfo& book) {
  const auto text = [](const char* t) { return t ? Json(t) : Json(); };
  return {{"book_id", book.book_id},
          {"language", text(book.language)},
          {"authors", ToJson(book.first_list)},
          {"file_type", text(book.file_type)},
          {"other_people", ToJson(book.second_list)},
          {"year", book.n1},
          {"series_number", book.n2},
          {"file_name", text(book.file_name)},
          {"title", text(book.s1)},
          {"series", text(book.s2)},
          {"isbn", text(book.isbn)},
          {"publisher", text(book.s3)}};
}

// Only the new-book list comes back as books.
Json ToJson(const Stat_BookInfo* const* books) {
  Json json = Json::array();
  for (int i = 0; i < StatUtils_StatListSize(); ++i) json.push_back(ToJson(*books[i]));
  return json;
}

// ---- From a function's signature to a row ----

template <auto kFunction>
struct Binding;

template <class Result, class... Types, Result (*kFunction)(Types...)>
struct Binding<kFunction> {
  static constexpr std::size_t kCount = sizeof...(Types);

  static CallResult Invoke(const Function& function, const std::vector<Json>& values) {
    std::tuple<Argument<Types>...> arguments;
    std::string error;
    std::size_t i = 0;
    const auto set = [&](auto& argument) {
      const Parameter& parameter = function.parameters[i];
      const Json& value = values[i++];
      if (value.is_null() && !parameter.may_be_null) {
        error = fmt::format("argument {} ({}) must not be null", i, parameter.name);
      } else if (!argument.Set(value)) {
        error = fmt::format("argument {} ({}) is {}, not {}", i, parameter.name,
                            records::Dump(value), parameter.expected);
      }
      return error.empty();
    };
    std::apply([&](auto&... argument) { static_cast<void>((... && set(argument))); }, arguments);
    if (!error.empty()) return {nullptr, error};
    const auto call = [](auto&... argument) { return kFunction(argument.Get()...); };
    if constexpr (std::is_void_v<Result>) {
      std::apply(call, arguments);
      return {};
    } else {
      return {ToJson(std::apply(call, arguments)), {}};
    }
  }

  static std::vector<Parameter> Parameters(const std::vector<std::string_view>& names) {
    std::vector<Parameter> parameters;
    [[maybe_unused]] const auto add = [&]<class Type>(const Argument<Type>&) {
      std::string_view name = names[parameters.size()];
      const bool may_be_null = name.ends_with('?');
      if (may_be_null) name.remove_suffix(1);
      parameters.push_back({name, Argument<Type>::Type(), Argument<Type>::Expected(),
                            Argument<Type>::kShape, may_be_null});
    };
    (add(Argument<Types>{}), ...);
    return parameters;
  }
};

template <auto kFunction, class... Names>
Function Row(std::string_view name, std::string_view event, Names... names) {
  using Bound = Binding<kFunction>;
  static_assert(sizeof...(names) == Bound::kCount, "one name for each parameter");
  return {name, event, Bound::Parameters({names...}), Bound::Invoke};
}

// A function, the class of the record that its arguments are (or ""), and its parameters. Those
// that become a field bear the field's name. A question mark: may be null.
#define STAT_FUNCTION(name, ...) Row<&name>(#name, __VA_ARGS__)

std::vector<Function> MakeFunctions() {
  return {
      STAT_FUNCTION(Stat_SendOrientationEvent, "OrientationEvent", "orientation"),
      STAT_FUNCTION(Stat_ForceRotationEvent, "ForceRotationEvent"),
      STAT_FUNCTION(Stat_StatisticsSettingsChanged, "StatisticsSettingsChangedEvent"),
      STAT_FUNCTION(Stat_LangEvent, ""),
      STAT_FUNCTION(Stat_KeymappingEvent, ""),

      STAT_FUNCTION(Stat_GetApplicationId, "", "path?"),
      STAT_FUNCTION(Stat_StartApplicationEvent, "StartApplicationEvent", "process_id",
                    "application", "c", "arguments"),
      STAT_FUNCTION(Stat_StartApplicationByPathEvent, "", "process_id", "path", "c", "arguments"),

      STAT_FUNCTION(Stat_GetBookId, "", "path"),
      STAT_FUNCTION(Stat_SendStartOpenBookEvent, "", "path", "application", "a", "b?"),
      STAT_FUNCTION(Stat_SendOpenBookEvent, "", "path", "language?", "authors?", "file_type?",
                    "genres?", "d", "e", "pages", "g", "h", "i?", "j?", "k?", "l?"),

      STAT_FUNCTION(Stat_GoToPageEvent, "GoToPageEvent", "a", "to_page", "pages", "b"),
      STAT_FUNCTION(Stat_GoToPageEventEx, "GoToPageEventNew", "book_id", "b", "from_page",
                    "to_page", "pages", "f"),
      STAT_FUNCTION(Stat_ChangePageEvent, "ChangePageEvent", "book_id", "b", "from_page", "to_page",
                    "pages"),
      STAT_FUNCTION(Stat_ChangePageEventEx, "", "book_id", "b", "from_page", "to_page", "pages",
                    "f", "g", "h", "i"),
      STAT_FUNCTION(Stat_StartTtsEvent, "StartTtsEvent", "a", "book_id", "language", "voice", "e",
                    "f"),
      STAT_FUNCTION(Stat_StopTtsEvent, "StopTtsEvent", "a"),
      STAT_FUNCTION(Stat_AddNoteEvent, "AddNoteEvent", "book_id", "page"),
      STAT_FUNCTION(Stat_UseDictionaryEvent, "UseDictionaryEvent", "book_id", "word"),
      STAT_FUNCTION(Stat_NotesAndBookmarksEvent, "NotesAndBookmarksEvent", "book_id", "b", "c", "d",
                    "e", "f"),
      STAT_FUNCTION(Stat_UsingTextToolsEvent, "UsingTextToolsEvent", "book_id", "b"),
      STAT_FUNCTION(Stat_GoToURLEvent, "GoToURLEvent", "a", "url"),

      STAT_FUNCTION(Stat_NewBooksEvent, "NewBooksEvent", "count"),
      STAT_FUNCTION(Stat_NewBooksEventEx, "NewBooksEventEx", "count", "books?", "application"),
      STAT_FUNCTION(Stat_NewBooksEventSimple, "", "count", "paths?", "application"),
      STAT_FUNCTION(StatUtils_AddNewBookToStatList, "", "path"),
      STAT_FUNCTION(StatUtils_FreeStatList, ""),
      STAT_FUNCTION(StatUtils_StatListSize, ""),
      STAT_FUNCTION(StatUtils_GetStatList, ""),

      STAT_FUNCTION(Stat_LibrarySettingsEvent, "LibrarySettingsEvent", "a", "b", "library_mode",
                    "library_filter", "library_group_by", "library_sort_by", "library_view",
                    "library_show_memory"),
      STAT_FUNCTION(Stat_MediaExplorerSettingsEvent, "MediaExplorerSettingsEvent", "a", "b",
                    "library_view", "library_show_memory"),
      STAT_FUNCTION(Stat_ApplicationExplorerSettingsEvent, "ApplicationExplorerSettingsEvent", "a",
                    "b", "library_view", "library_show_memory"),
      STAT_FUNCTION(Stat_Explorer3SettingsEvent, "Explorer3SettingsEvent", "a", "b",
                    "explorer3_mode", "explorer3_group_by", "explorer3_sort_by",
                    "explorer3_direction", "explorer3_view"),
      STAT_FUNCTION(Stat_MediaExplorer3SettingsEvent, "MediaExplorer3SettingsEvent", "a", "b",
                    "explorer3_view"),

      STAT_FUNCTION(Stat_SetReadingModeEvent, "SetReadingModeEvent", "book_id", "b", "reading_mode",
                    "scale_type", "e", "crop_type", "g", "h"),
      STAT_FUNCTION(Stat_SetFontParamsEvent, "SetFontParamsEvent", "book_id", "b", "font", "d", "e",
                    "f", "margins", "g", "line_break", "update_mode"),
      STAT_FUNCTION(Stat_SetFontParamsEventEx, "SetFontParamsEventEx", "book_id", "b", "font", "d",
                    "e", "f", "g", "h", "i", "margins", "j", "k", "l", "m"),
  };
}

#undef STAT_FUNCTION

template <class Matches>
const Function* FindIf(Matches matches) {
  const auto& functions = Functions();
  const auto found = std::find_if(functions.begin(), functions.end(), matches);
  return found == functions.end() ? nullptr : &*found;
}

// The margins of a record: packed in one number, or eight texts.
Json MarginsOf(const Json& fields) {
  if (const auto packed = fields.find("packed_margins"); packed != fields.end()) return *packed;
  Json margins = Json::array();
  for (int i = 1; i <= 8; ++i) margins.push_back(fields.at("margin_" + std::to_string(i)));
  return margins;
}

}  // namespace

bool Function::returns_status() const {
  return !name.starts_with("Stat_Get") && !name.starts_with("StatUtils_");
}

const std::vector<Function>& Functions() {
  static const std::vector<Function> functions = MakeFunctions();
  return functions;
}

const Function* FindFunction(std::string_view name) {
  constexpr std::string_view kPrefix = "Stat_";
  return FindIf([&](const Function& function) {
    return function.name == name ||
           (function.name.starts_with(kPrefix) && function.name.substr(kPrefix.size()) == name);
  });
}

const Function* FindSender(std::string_view event) {
  return FindIf(
      [&](const Function& function) { return !event.empty() && function.event == event; });
}

std::vector<Json> ArgumentsFor(const Function& sender, const Json& fields) {
  std::vector<Json> arguments;
  for (const Parameter& parameter : sender.parameters) {
    const auto field = fields.find(std::string(parameter.name));
    if (parameter.name == "margins") {
      arguments.push_back(MarginsOf(fields));
    } else if (field != fields.end()) {
      arguments.push_back(*field);
    } else {
      arguments.emplace_back(0);  // accepted and never sent
    }
  }
  return arguments;
}

}  // namespace velmora::usage_stat::inspector
