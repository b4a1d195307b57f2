// The record types and the class that reads each of them.

#ifndef STAT_EVENT_EVENT_FACTORY_H_
#define STAT_EVENT_EVENT_FACTORY_H_

namespace velmora::usage_stat {

class Event;

class EventFactory {
 public:
  // The numeric type codes: from 1 on for measurements, from 2001 on for activity, from 4001 on for
  // notifications. Any int may be held: codes come from records that a stranger may have written.
  enum EventType : int {
    kNone = 0,
#define STAT_EVENT_TYPE(code, enumerator, Class) enumerator = code,
#include "src/stat_event/event_types.inc"
#undef STAT_EVENT_TYPE
  };

  // A new, default-constructed object of the class for `type`, with `type_` equal to `type`; null
  // for a value without a class. The caller owns it.
  static Event* CreateEvent(EventType type);
};

}  // namespace velmora::usage_stat

#endif  // STAT_EVENT_EVENT_FACTORY_H_
