#include "tools/records/record.h"

#include <algorithm>
#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <streambuf>

#include "src/events/new_books_events.h"
#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"
#include "tools/base/bytes.h"
#include "tools/base/text.h"

namespace velmora::usage_stat::records {

namespace {

using utilities::SerializationUtils;

// A stream that reads `bytes` where they are.
class ViewStream : private std::streambuf, public std::istream {
 public:
  explicit ViewStream(std::string_view bytes) : std::istream(static_cast<std::streambuf*>(this)) {
    char* begin = const_cast<char*>(bytes.data());  // a get area is never written to
    setg(begin, begin, begin + bytes.size());
  }

  std::size_t position() const { return static_cast<std::size_t>(gptr() - eback()); }
};

// How many bytes the value at the front of `bytes` needs, as far as these tell: a text that is cut
// within its length needs that length first. More than 32 bits hold, when they claim so.
std::uint64_t BytesNeeded(Extent extent, std::string_view bytes) {
  const auto number_at = [&](std::uint64_t offset) {
    return base::LittleEndian(bytes.substr(static_cast<std::size_t>(offset), extent.least));
  };
  // Where a text ends; where its length ends, when that is cut.
  const auto end_of_text = [&](std::uint64_t begin) {
    const std::uint64_t length_end = begin + extent.least;
    return length_end > bytes.size() ? length_end : length_end + number_at(begin);
  };
  std::uint64_t end = extent.least;
  switch (extent.form) {
    case Extent::kFixed:
      break;
    case Extent::kText:
      return end_of_text(0);
    case Extent::kTexts:
      if (end > bytes.size()) break;
      for (std::uint64_t left = number_at(0); left > 0 && end <= bytes.size(); --left) {
        end = end_of_text(end);
      }
      break;
  }
  return end;
}

// Traces one datagram; the sink of its payload.
class Tracer : public FieldSink {
 public:
  explicit Tracer(std::string_view datagram) : datagram_(datagram), in_(datagram) {}

  // Reads everything with the class of `type`; with the factory's class for null.
  Trace Run(const RecordType* type) {
    std::int16_t code = 0;
    long long timestamp = 0;
    Begin("type", Int16::kPrimitive, Int16::kExtent);
    if (SerializationUtils::DeserializeInt16(in_, &code) != 0) return Stop();
    End(code);
    Begin("timestamp", "Timestamp", {Extent::kFixed, sizeof(timestamp)});
    if (SerializationUtils::DeserializeTimestamp(in_, &timestamp) != 0) return Stop();
    End(timestamp);

    if (!type) type = FindType(code);
    if (!type) {
      Damage damage;
      damage.kind = kUnknownType;
      damage.reason = "unknown type code " + std::to_string(code);
      damage.field = "type";
      trace_.damage = std::move(damage);
      return std::move(trace_);
    }
    trace_.event = type->event;
    if (!type->trace(in_, this)) return Stop();
    if (const std::size_t rest = datagram_.size() - in_.position(); rest != 0) {
      Damage damage;
      damage.offset = in_.position();
      damage.left_over = rest;
      damage.kind = kLeftOver;
      damage.reason = base::Plural(rest, "byte") + " left over after the record";
      trace_.damage = std::move(damage);
    }
    return std::move(trace_);
  }

  void Begin(const std::string& name, std::string_view primitive, Extent extent) override {
    current_.offset = in_.position();
    current_.name = name;
    current_.primitive = primitive;
    extent_ = extent;
  }

  void End(Json value) override {
    current_.size = in_.position() - current_.offset;
    current_.value = std::move(value);
    trace_.fields.push_back(current_);
  }

 private:
  // The end of a trace that stopped at the current field.
  Trace Stop() {
    Damage damage;
    damage.offset = current_.offset;
    damage.field = current_.name;
    const std::string_view rest = datagram_.substr(current_.offset);
    const std::uint64_t needed = BytesNeeded(extent_, rest);
    if (needed > rest.size()) {
      damage.missing = needed - rest.size();
      damage.kind = kCutShort;
      damage.reason = "field " + current_.name + " (" + current_.primitive + ") at offset " +
                      std::to_string(current_.offset) + " lacks " +
                      base::Plural(damage.missing, "byte");
    } else {
      damage.kind = kOutOfPlace;
      damage.reason = "field " + current_.name + " (" + current_.primitive + ") at offset " +
                      std::to_string(current_.offset) + " holds a value that is out of place";
    }
    trace_.damage = std::move(damage);
    return std::move(trace_);
  }

  std::string_view datagram_;
  ViewStream in_;
  TracedField current_;
  Extent extent_{};  // of the current field
  Trace trace_;
};

// A batch of new books that ends, with its last field, before its count is reached: the sender met
// a book that it could not describe. The library's reader refuses it, as it must.
bool IsShortBatch(std::string_view datagram, NewBooksEventEx* batch) {
  ViewStream in(datagram);
  std::int16_t code = 0;
  if (Int16::Read(in, &code) != 0 || code != EventFactory::kNewBooks) return false;
  if (SerializationUtils::DeserializeTimestamp(in, &batch->timestamp_) != 0) return false;
  if (Int32::Read(in, &batch->count_) != 0 || !batch->CarriesRecords()) return false;
  while (datagram.size() - in.position() != sizeof(batch->application_)) {
    if (ReadFields(in, &batch->records_.emplace_back()) != 0) return false;
  }
  return Int16::Read(in, &batch->application_) == 0;
}

// Tells a failed reading by what was read, field by field.
Damage Diagnose(std::string_view datagram) {
  Trace trace = TraceFields(datagram);
  Damage damage = trace.damage.value_or(Damage{});
  damage.event = trace.event;
  // The names differ by themselves. Looking for them, as the object's own operators do, would take
  // time with the square of their number, which a stranger chooses.
  auto& fields = damage.fields.get_ref<Json::object_t&>();
  for (TracedField& field : trace.fields) {
    if (field.name == "type") {
      damage.type = field.value.get<int>();
    } else {
      fields.Container::emplace_back(std::move(field.name), std::move(field.value));
    }
  }
  NewBooksEventEx batch;
  if (IsShortBatch(datagram, &batch)) {
    damage.kind = kShortBatch;
    damage.reason = "batch of " + std::to_string(batch.count_) + " books holds " +
                    std::to_string(batch.records_.size());
    const RecordType& type = *FindType(EventFactory::kNewBooks);
    damage.fields = NamedFields(type, type.values_of(batch));
  }
  return damage;
}

// Reads `datagram` with the shorter class of its code, if there is one and it fits exactly.
std::optional<ReadEvent> ReadShorter(std::string_view datagram) {
  ViewStream in(datagram);
  std::int16_t code = 0;
  long long timestamp = 0;
  if (Int16::Read(in, &code) != 0) return std::nullopt;
  const RecordType* type = FindShorterType(code);
  if (!type || SerializationUtils::DeserializeTimestamp(in, &timestamp) != 0) return std::nullopt;
  std::unique_ptr<Event> event = type->read(in);
  if (!event || in.position() != datagram.size()) return std::nullopt;
  event->timestamp_ = timestamp;
  return ReadEvent{type, std::move(event)};
}

// ---- Looking for a value ----

constexpr std::size_t kEnvelope = 2 + 8;

// Looks at every value, and changes none.
class Finder : public FieldEditor {
 public:
  Finder(const RecordType& type, Kind kind, std::int64_t value)
      : type_(type), kind_(kind), value_(value) {}

  std::int64_t Number(std::size_t field, std::int64_t value) override {
    is_found_ = is_found_ || (value == value_ && type_.fields[field].kind == kind_);
    return value;
  }
  void Text(std::size_t, std::string*) override {}
  void Texts(std::size_t, std::vector<std::string>*) override {}

  bool is_found() const { return is_found_; }

 private:
  const RecordType& type_;
  Kind kind_;
  std::int64_t value_;
  bool is_found_ = false;
};

// How many bytes a value takes; nothing for those whose size varies, and for numbers in lists.
std::optional<std::size_t> FixedSize(const FieldType& field) {
  if (field.is_structure || field.name.find('[') != std::string::npos) return std::nullopt;
  return field.extent.form == Extent::kFixed ? std::optional(field.extent.least) : std::nullopt;
}

// Where the values of a kind stand in the records of one code.
struct Places {
  bool is_anywhere = false;             // some place depends on what stands before it
  std::vector<std::size_t> of_32_bits;  // offsets
};

Places PlacesOf(int code, Kind kind) {
  Places places;
  for (const RecordType& type : Catalogue()) {
    if (type.code != code) continue;
    std::optional<std::size_t> offset = kEnvelope;
    for (const FieldType& field : type.fields) {
      if (field.kind == kind) {
        const bool is_known = offset && FixedSize(field) == 4;
        if (is_known) places.of_32_bits.push_back(*offset);
        places.is_anywhere = places.is_anywhere || !is_known;
      }
      const auto size = FixedSize(field);
      offset = offset && size ? std::optional(*offset + *size) : std::nullopt;
    }
  }
  return places;
}

// False when no record of this code could have the value, as far as the bytes tell at once.
bool MayName(std::string_view datagram, Kind kind, std::int64_t value) {
  static const auto all = [] {
    std::map<std::pair<int, Kind>, Places> made;
    for (const RecordType& type : Catalogue()) {
      for (const Kind each : {Kind::kBookId, Kind::kApplication}) {
        made[{type.code, each}] = PlacesOf(type.code, each);
      }
    }
    return made;
  }();
  const auto type = static_cast<std::int16_t>(base::LittleEndian(datagram.substr(0, 2)));
  const auto found = all.find({type, kind});
  if (found == all.end()) return false;
  if (found->second.is_anywhere) return true;
  return std::ranges::any_of(found->second.of_32_bits, [&](std::size_t at) {
    if (datagram.size() < at + 4) return false;
    return static_cast<std::int32_t>(base::LittleEndian(datagram.substr(at, 4))) == value;
  });
}

}  // namespace

std::optional<ReadEvent> Read(std::string_view datagram) {
  if (auto shorter = ReadShorter(datagram)) return shorter;
  ViewStream in(datagram);
  std::unique_ptr<Event> event(Event::CreateFromStream(in));
  if (!event || in.position() != datagram.size()) return std::nullopt;
  const RecordType* type = FindType(event->type_);
  return ReadEvent{type, std::move(event)};
}

bool Names(std::string_view datagram, Kind kind, std::int64_t value) {
  if (datagram.size() < kEnvelope || !MayName(datagram, kind, value)) return false;
  const auto read = Read(datagram);
  if (!read) return false;
  Finder finder(*read->type, kind, value);
  read->type->edit(read->event.get(), &finder);
  return finder.is_found();
}

std::variant<Record, Damage> Decode(std::string_view datagram) {
  const auto read = Read(datagram);
  if (!read) return Diagnose(datagram);
  const Event& event = *read->event;
  return Record{event.type_, read->type->event, event.timestamp_, read->type->values_of(event)};
}

Json FieldsOf(const Record& record) { return NamedFields(*FindEvent(record.event), record.values); }

Trace TraceFields(std::string_view datagram) {
  ViewStream in(datagram);
  std::int16_t code = 0;
  if (Int16::Read(in, &code) == 0) {
    if (const RecordType* shorter = FindShorterType(code)) {
      Trace trace = Tracer(datagram).Run(shorter);
      if (!trace.damage) return trace;
    }
  }
  return Tracer(datagram).Run(nullptr);
}

Json ToJson(const Record& record) {
  return {{"event", record.event},
          {"type", record.type},
          {"timestamp", record.timestamp},
          {"fields", FieldsOf(record)}};
}

Json FieldsOf(std::string_view fields, std::string_view raw) {
  if (const auto read = Read(raw)) {
    return NamedFields(*read->type, read->type->values_of(*read->event));
  }
  Json named = Json::parse(fields, nullptr, false);
  return named.is_object() ? named : Json::object();
}

std::string Dump(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace velmora::usage_stat::records
