#include "src/stat_event/event.h"

#include <common_utilities/serialization_utils.h>

#include <cstddef>
#include <memory>

#include "src/stat_event/check.h"
#include "src/stat_event/wall_clock.h"

namespace velmora::usage_stat {

using utilities::SerializationUtils;

Event::Event(EventFactory::EventType type) : type_(type), timestamp_(MillisecondsSinceEpoch()) {}

Event::~Event() = default;

int Event::WriteToStream(std::ostream& out) {
  STAT_RETURN_IF(EventFactory::kNone == type_, VM_FAILED);
  int err = SerializationUtils::SerializeInt16(static_cast<short>(type_), out);
  STAT_RETURN_UNLESS(0 == err, VM_FAILED);
  err = SerializationUtils::SerializeTimestamp(timestamp_, out);
  STAT_RETURN_UNLESS(0 == err, VM_FAILED);
  return WriteStateToStream(out);
}

Event* Event::CreateFromStream(std::istream& in) {
  short code = 0;
  int err = SerializationUtils::DeserializeInt16(in, &code);
  STAT_RETURN_UNLESS(0 == err, NULL);
  long long timestamp = 0;
  err = SerializationUtils::DeserializeTimestamp(in, &timestamp);
  STAT_RETURN_UNLESS(0 == err, NULL);

  const auto type = static_cast<EventFactory::EventType>(code);
  std::unique_ptr<Event> event(EventFactory::CreateEvent(type));
  STAT_RETURN_IF(!event || event->type_ != type, NULL);
  event->timestamp_ = timestamp;
  if (event->ReadStateFromStream(in) != 0) return nullptr;
  return event.release();
}

}  // namespace velmora::usage_stat
