// The view settings of the library application and of the explorers. Every event carries a number
// and a character of the application's own, then one byte for each setting.

#ifndef EVENTS_SETTINGS_EVENTS_H_
#define EVENTS_SETTINGS_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

inline constexpr Meaning kView{Kind::kLibraryView, Sensitivity::kInteraction, "how it looks"};
inline constexpr Meaning kShowMemory{Kind::kLibraryShowMemory, Sensitivity::kInteraction,
                                     "whether the use of memory is shown"};
inline constexpr Meaning kExplorerView{Kind::kExplorer3View, Sensitivity::kInteraction,
                                       "how it looks"};

class LibrarySettingsEvent : public Event {
 public:
  LibrarySettingsEvent() : Event(EventFactory::kLibrarySettings) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &LibrarySettingsEvent::a_, kOwn},
        Field{"b", Char{}, &LibrarySettingsEvent::b_, kOwn},
        Field{"library_mode", Char{}, &LibrarySettingsEvent::library_mode_,
              Meaning{Kind::kLibraryMode, Sensitivity::kInteraction, "what the library shows"}},
        Field{"library_filter", Char{}, &LibrarySettingsEvent::library_filter_,
              Meaning{Kind::kLibraryFilter, Sensitivity::kInteraction, "which books it shows"}},
        Field{"library_group_by", Char{}, &LibrarySettingsEvent::library_group_by_,
              Meaning{Kind::kLibraryGroupBy, Sensitivity::kInteraction, "how they are grouped"}},
        Field{"library_sort_by", Char{}, &LibrarySettingsEvent::library_sort_by_,
              Meaning{Kind::kLibrarySortBy, Sensitivity::kInteraction, "how they are sorted"}},
        Field{"library_view", Char{}, &LibrarySettingsEvent::library_view_, kView},
        Field{"library_show_memory", Char{}, &LibrarySettingsEvent::library_show_memory_,
              kShowMemory},
    };
  }

  std::int16_t a_ = 0;
  char b_ = 0;
  char library_mode_ = 0;
  char library_filter_ = 0;
  char library_group_by_ = 0;
  char library_sort_by_ = 0;
  char library_view_ = 0;
  char library_show_memory_ = 0;
};

class MediaExplorerSettingsEvent : public Event {
 public:
  MediaExplorerSettingsEvent() : Event(EventFactory::kMediaExplorerSettings) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &MediaExplorerSettingsEvent::a_, kOwn},
        Field{"b", Char{}, &MediaExplorerSettingsEvent::b_, kOwn},
        Field{"library_view", Char{}, &MediaExplorerSettingsEvent::library_view_, kView},
        Field{"library_show_memory", Char{}, &MediaExplorerSettingsEvent::library_show_memory_,
              kShowMemory},
    };
  }

  std::int16_t a_ = 0;
  char b_ = 0;
  char library_view_ = 0;
  char library_show_memory_ = 0;
};

class ApplicationExplorerSettingsEvent : public Event {
 public:
  ApplicationExplorerSettingsEvent() : Event(EventFactory::kApplicationExplorerSettings) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &ApplicationExplorerSettingsEvent::a_, kOwn},
        Field{"b", Char{}, &ApplicationExplorerSettingsEvent::b_, kOwn},
        Field{"library_view", Char{}, &ApplicationExplorerSettingsEvent::library_view_, kView},
        Field{"library_show_memory", Char{},
              &ApplicationExplorerSettingsEvent::library_show_memory_, kShowMemory},
    };
  }

  std::int16_t a_ = 0;
  char b_ = 0;
  char library_view_ = 0;
  char library_show_memory_ = 0;
};

class Explorer3SettingsEvent : public Event {
 public:
  Explorer3SettingsEvent() : Event(EventFactory::kExplorer3Settings) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &Explorer3SettingsEvent::a_, kOwn},
        Field{"b", Char{}, &Explorer3SettingsEvent::b_, kOwn},
        Field{"explorer3_mode", Char{}, &Explorer3SettingsEvent::explorer3_mode_,
              Meaning{Kind::kExplorer3Mode, Sensitivity::kInteraction, "what the explorer shows"}},
        Field{"explorer3_group_by", Char{}, &Explorer3SettingsEvent::explorer3_group_by_,
              Meaning{Kind::kExplorer3GroupBy, Sensitivity::kInteraction, "how that is grouped"}},
        Field{"explorer3_sort_by", Char{}, &Explorer3SettingsEvent::explorer3_sort_by_,
              Meaning{Kind::kExplorer3SortBy, Sensitivity::kInteraction, "how that is sorted"}},
        Field{"explorer3_direction", Char{}, &Explorer3SettingsEvent::explorer3_direction_,
              Meaning{Kind::kExplorer3Direction, Sensitivity::kInteraction, "in which direction"}},
        Field{"explorer3_view", Char{}, &Explorer3SettingsEvent::explorer3_view_, kExplorerView},
    };
  }

  std::int16_t a_ = 0;
  char b_ = 0;
  char explorer3_mode_ = 0;
  char explorer3_group_by_ = 0;
  char explorer3_sort_by_ = 0;
  char explorer3_direction_ = 0;
  char explorer3_view_ = 0;
};

class MediaExplorer3SettingsEvent : public Event {
 public:
  MediaExplorer3SettingsEvent() : Event(EventFactory::kMediaExplorer3Settings) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &MediaExplorer3SettingsEvent::a_, kOwn},
        Field{"b", Char{}, &MediaExplorer3SettingsEvent::b_, kOwn},
        Field{"explorer3_view", Char{}, &MediaExplorer3SettingsEvent::explorer3_view_,
              kExplorerView},
    };
  }

  std::int16_t a_ = 0;
  char b_ = 0;
  char explorer3_view_ = 0;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_SETTINGS_EVENTS_H_
