#include "tools/report/names.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "include/usage_stat.h"
#include "src/usage_stat_client/application_table.h"

namespace velmora::usage_stat::report {

namespace {

void AppendTo(std::string* list, std::string_view name) {
  if (!list->empty()) *list += ", ";
  *list += name;
}

std::string StoreNames() {
  std::string names;
  for (const ApplicationRow& row : kApplicationTable) {
    if (row.kind == ApplicationRow::kStore) AppendTo(&names, row.name);
  }
  return names;
}

struct ValueRow {
  std::string_view field;
  std::int64_t value;
  std::string_view name;
};

constexpr ValueRow kValues[] = {
    {"library_mode", STAT_LIBRARY_MODE_ALL, "all"},
    {"library_mode", STAT_LIBRARY_MODE_AUTHORS, "authors"},
    {"library_mode", STAT_LIBRARY_MODE_GENRES, "genres"},
    {"library_mode", STAT_LIBRARY_MODE_COLLECTIONS, "collections"},
    {"library_mode", STAT_LIBRARY_MODE_FOLDERS, "folders"},
    {"library_mode", STAT_LIBRARY_MODE_SEARCH, "search"},
    {"library_filter", STAT_LIBRARY_FILTER_NONE, "none"},
    {"library_filter", STAT_LIBRARY_FILTER_UNREAD, "unread"},
    {"library_filter", STAT_LIBRARY_FILTER_READING, "reading"},
    {"library_filter", STAT_LIBRARY_FILTER_FINISHED, "finished"},
    {"library_filter", STAT_LIBRARY_FILTER_FAVOURITES, "favourites"},
    {"library_group_by", STAT_LIBRARY_GROUP_BY_NOTHING, "nothing"},
    {"library_group_by", STAT_LIBRARY_GROUP_BY_AUTHOR, "author"},
    {"library_group_by", STAT_LIBRARY_GROUP_BY_GENRE, "genre"},
    {"library_group_by", STAT_LIBRARY_GROUP_BY_SERIES, "series"},
    {"library_group_by", STAT_LIBRARY_GROUP_BY_FORMAT, "format"},
    {"library_sort_by", STAT_LIBRARY_SORT_BY_TITLE, "title"},
    {"library_sort_by", STAT_LIBRARY_SORT_BY_AUTHOR, "author"},
    {"library_sort_by", STAT_LIBRARY_SORT_BY_DATE_ADDED, "date added"},
    {"library_sort_by", STAT_LIBRARY_SORT_BY_DATE_OPENED, "date opened"},
    {"library_sort_by", STAT_LIBRARY_SORT_BY_SIZE, "size"},
    {"library_view", STAT_LIBRARY_VIEW_LIST, "list"},
    {"library_view", STAT_LIBRARY_VIEW_DETAILS, "details"},
    {"library_view", STAT_LIBRARY_VIEW_COVERS, "covers"},
    {"library_show_memory", STAT_LIBRARY_SHOW_MEMORY_NO, "no"},
    {"library_show_memory", STAT_LIBRARY_SHOW_MEMORY_YES, "yes"},
    {"explorer3_mode", STAT_EXPLORER3_MODE_FILES, "files"},
    {"explorer3_mode", STAT_EXPLORER3_MODE_BOOKS, "books"},
    {"explorer3_mode", STAT_EXPLORER3_MODE_MUSIC, "music"},
    {"explorer3_mode", STAT_EXPLORER3_MODE_PICTURES, "pictures"},
    {"explorer3_group_by", STAT_EXPLORER3_GROUP_BY_NOTHING, "nothing"},
    {"explorer3_group_by", STAT_EXPLORER3_GROUP_BY_FOLDER, "folder"},
    {"explorer3_group_by", STAT_EXPLORER3_GROUP_BY_TYPE, "type"},
    {"explorer3_sort_by", STAT_EXPLORER3_SORT_BY_NAME, "name"},
    {"explorer3_sort_by", STAT_EXPLORER3_SORT_BY_DATE, "date"},
    {"explorer3_sort_by", STAT_EXPLORER3_SORT_BY_SIZE, "size"},
    {"explorer3_sort_by", STAT_EXPLORER3_SORT_BY_TYPE, "type"},
    {"explorer3_direction", STAT_EXPLORER3_DIRECTION_ASCENDING, "ascending"},
    {"explorer3_direction", STAT_EXPLORER3_DIRECTION_DESCENDING, "descending"},
    {"explorer3_view", STAT_EXPLORER3_VIEW_LIST, "list"},
    {"explorer3_view", STAT_EXPLORER3_VIEW_DETAILS, "details"},
    {"explorer3_view", STAT_EXPLORER3_VIEW_ICONS, "icons"},
    {"reading_mode", STAT_READING_MODE_PAGES, "pages"},
    {"reading_mode", STAT_READING_MODE_SCROLL, "scroll"},
    {"reading_mode", STAT_READING_MODE_COLUMNS, "columns"},
    {"reading_mode", STAT_READING_MODE_REFLOW, "reflow"},
    {"scale_type", STAT_SCALE_TYPE_FIT_PAGE, "fit page"},
    {"scale_type", STAT_SCALE_TYPE_FIT_WIDTH, "fit width"},
    {"scale_type", STAT_SCALE_TYPE_FIT_HEIGHT, "fit height"},
    {"scale_type", STAT_SCALE_TYPE_FREE, "free"},
    {"crop_type", STAT_CROP_TYPE_NONE, "none"},
    {"crop_type", STAT_CROP_TYPE_AUTOMATIC, "automatic"},
    {"crop_type", STAT_CROP_TYPE_MANUAL, "manual"},
    {"line_break", STAT_LINE_BREAK_NONE, "none"},
    {"line_break", STAT_LINE_BREAK_HYPHENS, "hyphens"},
    {"update_mode", STAT_UPDATE_MODE_FULL, "full"},
    {"update_mode", STAT_UPDATE_MODE_PARTIAL, "partial"},
    {"update_mode", STAT_UPDATE_MODE_FAST, "fast"},
};

}  // namespace

std::string ApplicationName(std::int64_t id) {
  std::string names;
  for (const ApplicationRow& row : kApplicationTable) {
    if (row.id != id) continue;
    if (row.kind == ApplicationRow::kPartner) {
      names = StoreNames() + " of " + std::string(row.name);
    } else {
      AppendTo(&names, row.name);
    }
  }
  return names.empty() ? "application " + std::to_string(id) : names;
}

std::string_view SettingValueName(std::string_view field, std::int64_t value) {
  const auto* row = std::find_if(std::begin(kValues), std::end(kValues), [&](const ValueRow& r) {
    return r.field == field && r.value == value;
  });
  return row == std::end(kValues) ? std::string_view{} : row->name;
}

}  // namespace velmora::usage_stat::report
