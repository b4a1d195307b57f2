// Exported functions that report the view settings of library and explorers.

#include "include/usage_stat.h"
#include "src/events/settings_events.h"
#include "src/usage_stat_client/arguments.h"
#include "src/usage_stat_client/statistics_client.h"

using namespace velmora::usage_stat;

int Stat_LibrarySettingsEvent(int16_t a, char b, Stat_LibraryMode mode, Stat_LibraryFilter filter,
                              Stat_LibraryGroupBy group_by, Stat_LibrarySortBy sort_by,
                              Stat_LibraryView view, Stat_LibraryShowMemory show_memory) {
  LibrarySettingsEvent event;
  event.a_ = a;
  event.b_ = b;
  event.library_mode_ = LowByte(mode);
  event.library_filter_ = LowByte(filter);
  event.library_group_by_ = LowByte(group_by);
  event.library_sort_by_ = LowByte(sort_by);
  event.library_view_ = LowByte(view);
  event.library_show_memory_ = LowByte(show_memory);
  return STAT_SEND(event);
}

int Stat_MediaExplorerSettingsEvent(int16_t a, char b, Stat_LibraryView view,
                                    Stat_LibraryShowMemory show_memory) {
  MediaExplorerSettingsEvent event;
  event.a_ = a;
  event.b_ = b;
  event.library_view_ = LowByte(view);
  event.library_show_memory_ = LowByte(show_memory);
  return STAT_SEND(event);
}

int Stat_ApplicationExplorerSettingsEvent(int16_t a, char b, Stat_LibraryView view,
                                          Stat_LibraryShowMemory show_memory) {
  ApplicationExplorerSettingsEvent event;
  event.a_ = a;
  event.b_ = b;
  event.library_view_ = LowByte(view);
  event.library_show_memory_ = LowByte(show_memory);
  return STAT_SEND(event);
}

int Stat_Explorer3SettingsEvent(int16_t a, char b, Stat_Explorer3Mode mode,
                                Stat_Explorer3GroupBy group_by, Stat_Explorer3SortBy sort_by,
                                Stat_Explorer3Direction direction, Stat_Explorer3View view) {
  Explorer3SettingsEvent event;
  event.a_ = a;
  event.b_ = b;
  event.explorer3_mode_ = LowByte(mode);
  event.explorer3_group_by_ = LowByte(group_by);
  event.explorer3_sort_by_ = LowByte(sort_by);
  event.explorer3_direction_ = LowByte(direction);
  event.explorer3_view_ = LowByte(view);
  return STAT_SEND(event);
}

int Stat_MediaExplorer3SettingsEvent(int16_t a, char b, Stat_Explorer3View view) {
  MediaExplorer3SettingsEvent event;
  event.a_ = a;
  event.b_ = b;
  event.explorer3_view_ = LowByte(view);
  return STAT_SEND(event);
}
