// Starts of applications.

#ifndef EVENTS_APPLICATION_EVENTS_H_
#define EVENTS_APPLICATION_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

inline constexpr Meaning kArguments{Kind::kText, Sensitivity::kContent,
                                    "arguments of the application, a blank before each"};

// An application of the device was started.
class StartApplicationEvent : public Event {
 public:
  StartApplicationEvent() : Event(EventFactory::kStartApplication) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"process_id", Int16{}, &StartApplicationEvent::process_id_,
              Meaning{Kind::kProcessId, Sensitivity::kTechnical,
                      "the application's process, low 16 bits"}},
        Field{"application", Int16{}, &StartApplicationEvent::application_,
              Meaning{Kind::kApplication, Sensitivity::kInteraction,
                      "the application that was started"}},
        // Only 16 of its 32 bits travel, on purpose: 40000 comes back as -25536, and the collector
        // reads the field as a signed 16-bit number.
        Field{"c", NarrowInt16{}, &StartApplicationEvent::c_, kOwn},
        Field{"arguments", String{}, &StartApplicationEvent::arguments_, kArguments},
    };
  }

  std::int16_t process_id_ = 0;
  std::int16_t application_ = 0;
  std::int32_t c_ = 0;
  std::string arguments_;
};

// An application that the device does not know was started.
class StartOutsideApplicationEvent : public Event {
 public:
  StartOutsideApplicationEvent() : Event(EventFactory::kStartOutsideApplication) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"path", String{}, &StartOutsideApplicationEvent::path_,
              Meaning{Kind::kText, Sensitivity::kContent,
                      "path of the application, as its starter gave it"}},
        Field{"arguments", String{}, &StartOutsideApplicationEvent::arguments_, kArguments},
    };
  }

  std::string path_;
  std::string arguments_;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_APPLICATION_EVENTS_H_
