// Events of the device and of the collector's journal rather than of the user's reading.

#ifndef EVENTS_DEVICE_EVENTS_H_
#define EVENTS_DEVICE_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

// The device was switched on.
class TurnOnEvent : public Event {
 public:
  TurnOnEvent() : Event(EventFactory::kTurnOn) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() { return std::tuple{}; }
};

// The device was switched off.
class TurnOffEvent : public Event {
 public:
  TurnOffEvent() : Event(EventFactory::kTurnOff) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() { return std::tuple{}; }
};

// The screen was turned.
class OrientationEvent : public Event {
 public:
  OrientationEvent() : Event(EventFactory::kOrientation) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{Field{"orientation", NarrowInt16{}, &OrientationEvent::orientation_,
                            Meaning{Kind::kNumber, Sensitivity::kInteraction,
                                    "how the screen is turned, in the platform's numbers"}}};
  }

  std::int32_t orientation_ = 0;
};

// The collector began a journal file.
class NewJournalFileEvent : public Event {
 public:
  NewJournalFileEvent() : Event(EventFactory::kNewJournalFile) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() { return std::tuple{}; }
};

// The collector opened a journal file that was there already.
class OpenJournalFileEvent : public Event {
 public:
  OpenJournalFileEvent() : Event(EventFactory::kOpenJournalFile) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() { return std::tuple{}; }
};

// An archive of the journal left the device.
class SendArchiveEvent : public Event {
 public:
  SendArchiveEvent() : Event(EventFactory::kSendArchive) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{Field{
        "archive", String{}, &SendArchiveEvent::archive_,
        Meaning{Kind::kText, Sensitivity::kTechnical, "the archive, as its sender named it"}}};
  }

  std::string archive_;
};

// An archive of the journal was deleted.
class DeleteArchiveEvent : public Event {
 public:
  DeleteArchiveEvent() : Event(EventFactory::kDeleteArchive) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{Field{
        "archive", String{}, &DeleteArchiveEvent::archive_,
        Meaning{Kind::kText, Sensitivity::kTechnical, "the archive, as its keeper named it"}}};
  }

  std::string archive_;
};

// An application asks the collector to rotate its journal.
class ForceRotationEvent : public Event {
 public:
  ForceRotationEvent() : Event(EventFactory::kForceRotation) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() { return std::tuple{}; }
};

// The statistics setting was changed.
class StatisticsSettingsChangedEvent : public Event {
 public:
  StatisticsSettingsChangedEvent() : Event(EventFactory::kStatisticsSettingsChanged) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() { return std::tuple{}; }
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_DEVICE_EVENTS_H_
