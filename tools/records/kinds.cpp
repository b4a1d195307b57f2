#include "tools/records/kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>

#include "include/usage_stat.h"
#include "src/measurements/device_models.h"
#include "src/measurements/key_actions.h"
#include "src/usage_stat_client/application_table.h"

namespace velmora::usage_stat::records {

namespace {

struct KindRow {
  Kind kind;
  std::string_view name;
  std::string_view type = {};  // of the public header, for what it defines
};

constexpr KindRow kKinds[] = {
    {Kind::kOwn, "own"},
    {Kind::kReserved, "reserved"},
    {Kind::kNumber, "number"},
    {Kind::kCount, "count"},
    {Kind::kRowCount, "row_count"},
    {Kind::kRows, "rows"},
    {Kind::kFlag, "flag"},
    {Kind::kBookId, "book_id"},
    {Kind::kPage, "page"},
    {Kind::kPages, "pages"},
    {Kind::kApplication, "application", "Stat_ApplicationId"},
    {Kind::kProcessId, "process_id"},
    {Kind::kKey, "key"},
    {Kind::kKeyAction, "key_action", "KeyAction"},
    {Kind::kDeviceModel, "device_model", "DeviceModel"},
    {Kind::kPackedMargins, "packed_margins"},
    {Kind::kText, "text"},
    {Kind::kTexts, "texts"},
    {Kind::kLanguage, "language"},
    {Kind::kIdentifier, "identifier"},
    {Kind::kLibraryMode, "library_mode", "Stat_LibraryMode"},
    {Kind::kLibraryFilter, "library_filter", "Stat_LibraryFilter"},
    {Kind::kLibraryGroupBy, "library_group_by", "Stat_LibraryGroupBy"},
    {Kind::kLibrarySortBy, "library_sort_by", "Stat_LibrarySortBy"},
    {Kind::kLibraryView, "library_view", "Stat_LibraryView"},
    {Kind::kLibraryShowMemory, "library_show_memory", "Stat_LibraryShowMemory"},
    {Kind::kExplorer3Mode, "explorer3_mode", "Stat_Explorer3Mode"},
    {Kind::kExplorer3GroupBy, "explorer3_group_by", "Stat_Explorer3GroupBy"},
    {Kind::kExplorer3SortBy, "explorer3_sort_by", "Stat_Explorer3SortBy"},
    {Kind::kExplorer3Direction, "explorer3_direction", "Stat_Explorer3Direction"},
    {Kind::kExplorer3View, "explorer3_view", "Stat_Explorer3View"},
    {Kind::kReadingMode, "reading_mode", "Stat_ReadingMode"},
    {Kind::kScaleType, "scale_type", "Stat_ScaleType"},
    {Kind::kCropType, "crop_type", "Stat_CropType"},
    {Kind::kLineBreak, "line_break", "Stat_LineBreak"},
    {Kind::kUpdateMode, "update_mode", "Stat_UpdateMode"},
};

const KindRow& RowOf(Kind kind) {
  return *std::find_if(std::begin(kKinds), std::end(kKinds),
                       [kind](const KindRow& row) { return row.kind == kind; });
}

// ---- Tables of named values ----

using Values = std::vector<NamedValue>;

struct Enumerator {
  std::string_view prefix;  // of the enumeration, which the name leaves out
  std::string_view enumerator;
  Kind kind;
  int value;
};

#define VALUE(kind, prefix, rest) \
  { #prefix, #prefix #rest, Kind::kind, prefix##rest }

constexpr Enumerator kEnumerators[] = {
    VALUE(kLibraryMode, STAT_LIBRARY_MODE_, ALL),
    VALUE(kLibraryMode, STAT_LIBRARY_MODE_, AUTHORS),
    VALUE(kLibraryMode, STAT_LIBRARY_MODE_, GENRES),
    VALUE(kLibraryMode, STAT_LIBRARY_MODE_, COLLECTIONS),
    VALUE(kLibraryMode, STAT_LIBRARY_MODE_, FOLDERS),
    VALUE(kLibraryMode, STAT_LIBRARY_MODE_, SEARCH),
    VALUE(kLibraryFilter, STAT_LIBRARY_FILTER_, NONE),
    VALUE(kLibraryFilter, STAT_LIBRARY_FILTER_, UNREAD),
    VALUE(kLibraryFilter, STAT_LIBRARY_FILTER_, READING),
    VALUE(kLibraryFilter, STAT_LIBRARY_FILTER_, FINISHED),
    VALUE(kLibraryFilter, STAT_LIBRARY_FILTER_, FAVOURITES),
    VALUE(kLibraryGroupBy, STAT_LIBRARY_GROUP_BY_, NOTHING),
    VALUE(kLibraryGroupBy, STAT_LIBRARY_GROUP_BY_, AUTHOR),
    VALUE(kLibraryGroupBy, STAT_LIBRARY_GROUP_BY_, GENRE),
    VALUE(kLibraryGroupBy, STAT_LIBRARY_GROUP_BY_, SERIES),
    VALUE(kLibraryGroupBy, STAT_LIBRARY_GROUP_BY_, FORMAT),
    VALUE(kLibrarySortBy, STAT_LIBRARY_SORT_BY_, TITLE),
    VALUE(kLibrarySortBy, STAT_LIBRARY_SORT_BY_, AUTHOR),
    VALUE(kLibrarySortBy, STAT_LIBRARY_SORT_BY_, DATE_ADDED),
    VALUE(kLibrarySortBy, STAT_LIBRARY_SORT_BY_, DATE_OPENED),
    VALUE(kLibrarySortBy, STAT_LIBRARY_SORT_BY_, SIZE),
    VALUE(kLibraryView, STAT_LIBRARY_VIEW_, LIST),
    VALUE(kLibraryView, STAT_LIBRARY_VIEW_, DETAILS),
    VALUE(kLibraryView, STAT_LIBRARY_VIEW_, COVERS),
    VALUE(kLibraryShowMemory, STAT_LIBRARY_SHOW_MEMORY_, NO),
    VALUE(kLibraryShowMemory, STAT_LIBRARY_SHOW_MEMORY_, YES),
    VALUE(kExplorer3Mode, STAT_EXPLORER3_MODE_, FILES),
    VALUE(kExplorer3Mode, STAT_EXPLORER3_MODE_, BOOKS),
    VALUE(kExplorer3Mode, STAT_EXPLORER3_MODE_, MUSIC),
    VALUE(kExplorer3Mode, STAT_EXPLORER3_MODE_, PICTURES),
    VALUE(kExplorer3GroupBy, STAT_EXPLORER3_GROUP_BY_, NOTHING),
    VALUE(kExplorer3GroupBy, STAT_EXPLORER3_GROUP_BY_, FOLDER),
    VALUE(kExplorer3GroupBy, STAT_EXPLORER3_GROUP_BY_, TYPE),
    VALUE(kExplorer3SortBy, STAT_EXPLORER3_SORT_BY_, NAME),
    VALUE(kExplorer3SortBy, STAT_EXPLORER3_SORT_BY_, DATE),
    VALUE(kExplorer3SortBy, STAT_EXPLORER3_SORT_BY_, SIZE),
    VALUE(kExplorer3SortBy, STAT_EXPLORER3_SORT_BY_, TYPE),
    VALUE(kExplorer3Direction, STAT_EXPLORER3_DIRECTION_, ASCENDING),
    VALUE(kExplorer3Direction, STAT_EXPLORER3_DIRECTION_, DESCENDING),
    VALUE(kExplorer3View, STAT_EXPLORER3_VIEW_, LIST),
    VALUE(kExplorer3View, STAT_EXPLORER3_VIEW_, DETAILS),
    VALUE(kExplorer3View, STAT_EXPLORER3_VIEW_, ICONS),
    VALUE(kReadingMode, STAT_READING_MODE_, PAGES),
    VALUE(kReadingMode, STAT_READING_MODE_, SCROLL),
    VALUE(kReadingMode, STAT_READING_MODE_, COLUMNS),
    VALUE(kReadingMode, STAT_READING_MODE_, REFLOW),
    VALUE(kScaleType, STAT_SCALE_TYPE_, FIT_PAGE),
    VALUE(kScaleType, STAT_SCALE_TYPE_, FIT_WIDTH),
    VALUE(kScaleType, STAT_SCALE_TYPE_, FIT_HEIGHT),
    VALUE(kScaleType, STAT_SCALE_TYPE_, FREE),
    VALUE(kCropType, STAT_CROP_TYPE_, NONE),
    VALUE(kCropType, STAT_CROP_TYPE_, AUTOMATIC),
    VALUE(kCropType, STAT_CROP_TYPE_, MANUAL),
    VALUE(kLineBreak, STAT_LINE_BREAK_, NONE),
    VALUE(kLineBreak, STAT_LINE_BREAK_, HYPHENS),
    VALUE(kUpdateMode, STAT_UPDATE_MODE_, FULL),
    VALUE(kUpdateMode, STAT_UPDATE_MODE_, PARTIAL),
    VALUE(kUpdateMode, STAT_UPDATE_MODE_, FAST),
};

#undef VALUE

// "STAT_LIBRARY_SORT_BY_DATE_ADDED" is "date added" to people.
std::string NameOf(const Enumerator& row) {
  std::string name(row.enumerator.substr(row.prefix.size()));
  for (char& c : name) c = c == '_' ? ' ' : static_cast<char>(std::tolower(c));
  return name;
}

// Adds a name; names of one value come together, in the order of their tables.
void Add(std::int64_t value, const std::string& name, Values* values) {
  for (NamedValue& row : *values) {
    if (row.value != value) continue;
    row.name += ", " + name;
    return;
  }
  values->push_back({value, name});
}

// The store has an id on devices of no partner, and one on those of each partner.
Values Applications() {
  Values values;
  std::string stores;
  for (const ApplicationRow& row : kApplicationTable) {
    if (row.kind == ApplicationRow::kStore) {
      stores += stores.empty() ? "" : ", ";
      stores += row.name;
    }
  }
  for (const ApplicationRow& row : kApplicationTable) {
    if (row.kind == ApplicationRow::kApplication) Add(row.id, row.name, &values);
    if (row.kind == ApplicationRow::kPartner) {
      Add(row.id, fmt::format("{} of {}", stores, row.name), &values);
    }
  }
  Add(kDefaultStoreId, stores, &values);
  return values;
}

std::map<Kind, Values> MakeTables() {
  std::map<Kind, Values> tables;
  for (const Enumerator& row : kEnumerators) tables[row.kind].push_back({row.value, NameOf(row)});
  tables[Kind::kApplication] = Applications();
  for (const KeyAction& action : kKeyActions) {
    Add(action.code, action.name, &tables[Kind::kKeyAction]);
  }
  for (const DeviceModel& model : kDeviceModels) {
    Add(model.code, model.name, &tables[Kind::kDeviceModel]);
  }
  for (auto& [kind, values] : tables) {
    std::sort(values.begin(), values.end(),
              [](const NamedValue& a, const NamedValue& b) { return a.value < b.value; });
  }
  return tables;
}

}  // namespace

std::string_view NameOf(Sensitivity sensitivity) {
  constexpr std::string_view kNames[] = {"technical", "interaction", "content", "identifying"};
  return kNames[static_cast<std::size_t>(sensitivity)];
}

std::string_view NameOf(Kind kind) { return RowOf(kind).name; }

bool IsQuantity(Kind kind) {
  return kind == Kind::kCount || kind == Kind::kPage || kind == Kind::kPages;
}

std::string_view TypeName(Kind kind) { return RowOf(kind).type; }

const std::vector<NamedValue>& NamedValues(Kind kind) {
  static const std::map<Kind, Values> tables = MakeTables();
  static const Values none;
  const auto table = tables.find(kind);
  return table == tables.end() ? none : table->second;
}

std::string ValueName(Kind kind, std::int64_t value) {
  if (kind == Kind::kPackedMargins) {
    const auto margin = [value](int shift) { return static_cast<std::int8_t>(value >> shift); };
    return fmt::format("{} {} {} {}", margin(24), margin(16), margin(8), margin(0));
  }
  const Values& values = NamedValues(kind);
  const auto row =
      std::lower_bound(values.begin(), values.end(), value,
                       [](const NamedValue& entry, std::int64_t v) { return entry.value < v; });
  return row != values.end() && row->value == value ? row->name : std::string();
}

}  // namespace velmora::usage_stat::records
