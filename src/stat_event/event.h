// The base of every statistics record, and the envelope that frames it.
//
// A record is its Int16 type code, its Timestamp, then the class's own payload, with no length,
// version or terminator: the reader learns the payload's layout from the type code alone.

#ifndef STAT_EVENT_EVENT_H_
#define STAT_EVENT_EVENT_H_

#include <iosfwd>

#include "src/stat_event/event_factory.h"

namespace velmora::usage_stat {

class Event {
 public:
  // An event of `type` that happened now.
  explicit Event(EventFactory::EventType type);

  // Writes or reads the class's payload, without the envelope. 0 on success; on failure VM_FAILED,
  // logged by the class. Measurements and VersionEvent instead pass the non-zero result of the step
  // that failed through, unlogged.
  virtual int WriteStateToStream(std::ostream& out) = 0;
  virtual int ReadStateFromStream(std::istream& in) = 0;

  virtual ~Event();

  // Writes the whole record. Returns 0, VM_FAILED for a failure of the envelope, or the non-zero
  // result of WriteStateToStream; after a failure `out` may hold part of a record. An event of type
  // kNone is never written.
  int WriteToStream(std::ostream& out);

  // Reads one record and returns it, with the timestamp that it carries; null when it can't be
  // read, which is logged as by ReadStateFromStream. The caller owns the result. Bytes after the
  // record stay in `in`.
  static Event* CreateFromStream(std::istream& in);

  EventFactory::EventType type_;
  long long timestamp_;  // milliseconds since the Unix epoch

 protected:
  Event(const Event&) = default;
  Event& operator=(const Event&) = default;
};

}  // namespace velmora::usage_stat

#endif  // STAT_EVENT_EVENT_H_
