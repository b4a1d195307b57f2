// A measurement: a snapshot of one piece of device state as an event of its own.

#ifndef MEASUREMENTS_MEASUREMENT_H_
#define MEASUREMENTS_MEASUREMENT_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

// The payload of the event that a measurement wraps, without that event's own envelope.
template <class EventClass>
struct WrappedPayload {
  template <class Owner>
  static int Write(Owner& owner, std::ostream& out) {
    return owner.event_.EventClass::WriteStateToStream(out);
  }
  template <class Owner>
  static int Read(std::istream& in, Owner* owner) {
    return owner->event_.EventClass::ReadStateFromStream(in);
  }
};

// Wraps a payload class and gives it a measurement's type code. The wrapped event's own type and
// timestamp are not part of the record. Failures are not logged here; results pass through as the
// primitives or the wrapped class gave them.
template <class EventClass, EventFactory::EventType kEventType>
class Measurement : public Event {
 public:
  Measurement() : Event(kEventType) {}
  int WriteStateToStream(std::ostream& out) override { return WriteFields(*this, out); }
  int ReadStateFromStream(std::istream& in) override { return ReadFields(in, this); }

  static constexpr auto Fields() {
    return std::tuple{
        Field{"reserved", NarrowInt16{}, &Measurement::reserved_,
              Meaning{Kind::kReserved, Sensitivity::kTechnical, "0 as it is written today"}},
        Section{
            "event", WrappedPayload<EventClass>{},
            Meaning{Kind::kRows, Sensitivity::kTechnical, "fields of the event that is wrapped"}},
    };
  }

  std::int32_t reserved_ = 0;
  EventClass event_;
};

}  // namespace velmora::usage_stat

#endif  // MEASUREMENTS_MEASUREMENT_H_
