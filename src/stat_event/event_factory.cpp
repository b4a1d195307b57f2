// The one file of this unit that knows every event class: a factory must name them all.

#include "src/stat_event/event_factory.h"

#include "src/events/events.h"
#include "src/measurements/measurements.h"

namespace velmora::usage_stat {

Event* EventFactory::CreateEvent(EventType type) {
  switch (type) {
#define STAT_EVENT_TYPE(code, enumerator, Class) \
  case enumerator:                               \
    return new Class;
#include "src/stat_event/event_types.inc"
#undef STAT_EVENT_TYPE
    case kNone:
      break;
  }
  return nullptr;
}

}  // namespace velmora::usage_stat
