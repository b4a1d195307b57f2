#include "tools/records/catalogue.h"

#include <algorithm>
#include <type_traits>

#include "src/events/events.h"
#include "src/measurements/device_models.h"
#include "src/measurements/key_actions.h"
#include "src/measurements/measurements.h"

namespace velmora::usage_stat::records {

namespace {

using utilities::SerializationUtils;

// ---- Values ----

template <class Codec, class Value>
Json ToValue(Codec, const Value& value) {
  return value;
}
// Plain char has a sign on some machines only; dumps are the same on all.
Json ToValue(Char, char value) { return static_cast<std::uint8_t>(value); }
Json ToValue(DeviceId, const DeviceId::Bytes& id) {
  return SerializationUtils::ToHex(std::vector<unsigned char>(id.begin(), id.end()));
}

Json ToValue(const Keymapping& mapping) {
  Json json = {{"key", mapping.key}, {"kind", mapping.kind}, {"action", mapping.action}};
  const auto* action =
      std::find_if(kKeyActions.begin(), kKeyActions.end(),
                   [&](const KeyAction& row) { return row.code == mapping.action; });
  if (action != kKeyActions.end()) json["action_name"] = action->name;
  return json;
}

// ---- Payloads by name ----

template <class Owner>
Json FieldsOf(const Owner& owner);

Json SectionOf(NewBookRecords, const NewBooksEventEx& event) {
  Json books = Json::array();
  for (const NewBookRecord& record : event.records_) books.push_back(FieldsOf(record));
  return books;
}

Json SectionOf(KeyListCount, const KeyboardSettingsEvent&) { return KeyListCount::kCount; }

template <std::int16_t kSet>
Json SectionOf(KeyList<kSet>, const KeyboardSettingsEvent& event) {
  Json list = Json::array();
  for (const Keymapping& mapping : event.mappings_[kSet]) list.push_back(ToValue(mapping));
  return list;
}

template <class EventClass, class Owner>
Json SectionOf(WrappedPayload<EventClass>, const Owner& owner) {
  return FieldsOf(owner.event_);
}

template <class Codec, class Base, class Member, class Owner>
Json ValueOf(const Field<Codec, Base, Member>& field, const Owner& owner) {
  return ToValue(Codec{}, owner.*field.member);
}
template <class Codec, class Owner>
Json ValueOf(const Section<Codec>&, const Owner& owner) {
  return SectionOf(Codec{}, owner);
}

// What people need beside the fields, added after them.
template <class Owner>
void Annotate(const Owner&, Json*) {}
void Annotate(const DeviceInfoEvent& event, Json* json) {
  const auto* model =
      std::find_if(kDeviceModels.begin(), kDeviceModels.end(),
                   [&](const DeviceModel& row) { return row.code == event.model_code_; });
  if (model != kDeviceModels.end()) (*json)["model_name"] = model->name;
}

template <class Owner>
Json FieldsOf(const Owner& owner) {
  Json json = Json::object();
  std::apply([&](const auto&... field) { ((json[field.name] = ValueOf(field, owner)), ...); },
             Owner::Fields());
  Annotate(owner, &json);
  return json;
}

// ---- Field by field ----

template <class Owner>
bool TraceOwner(std::istream& in, const std::string& prefix, Owner* owner, FieldSink* sink);

// Reads one value of a codec.
template <class Codec, class Value>
bool TraceValue(Codec codec, std::istream& in, const std::string& name, Value* value,
                FieldSink* sink) {
  sink->Begin(name, Codec::kPrimitive, Codec::kLeastSize);
  if (Codec::Read(in, value) != 0) return false;
  sink->End(ToValue(codec, *value));
  return true;
}

bool TraceSection(NewBookRecords, std::istream& in, const std::string& name, NewBooksEventEx* event,
                  FieldSink* sink) {
  if (!event->CarriesRecords()) return true;
  for (std::int32_t i = 0; i < event->count_; ++i) {
    const std::string prefix = name + "[" + std::to_string(i) + "].";
    if (!TraceOwner(in, prefix, &event->records_.emplace_back(), sink)) return false;
  }
  return true;
}

bool TraceSection(KeyListCount, std::istream& in, const std::string& name, KeyboardSettingsEvent*,
                  FieldSink* sink) {
  std::int16_t count = 0;
  return TraceValue(Int16{}, in, name, &count, sink);
}

template <std::int16_t kSet>
bool TraceSection(KeyList<kSet>, std::istream& in, const std::string& name, KeyboardSettingsEvent*,
                  FieldSink* sink) {
  std::int16_t type = 0;
  std::int16_t count = 0;
  if (!TraceValue(Int16{}, in, name + ".type", &type, sink) || type != kSet) return false;
  if (!TraceValue(Int16{}, in, name + ".count", &count, sink)) return false;
  for (std::int16_t i = 0; i < count; ++i) {
    const std::string prefix = name + "[" + std::to_string(i) + "].";
    char key = 0;
    char kind = 0;
    std::int16_t action = 0;
    if (!TraceValue(Char{}, in, prefix + "key", &key, sink) ||
        !TraceValue(Char{}, in, prefix + "kind", &kind, sink) ||
        !TraceValue(Int16{}, in, prefix + "action", &action, sink)) {
      return false;
    }
  }
  return true;
}

template <class EventClass, class Owner>
bool TraceSection(WrappedPayload<EventClass>, std::istream& in, const std::string& name,
                  Owner* owner, FieldSink* sink) {
  return TraceOwner(in, name + ".", &owner->event_, sink);
}

template <class Codec, class Base, class Member, class Owner>
bool TraceField(const Field<Codec, Base, Member>& field, std::istream& in,
                const std::string& prefix, Owner* owner, FieldSink* sink) {
  return TraceValue(Codec{}, in, prefix + field.name, &(owner->*field.member), sink);
}
template <class Codec, class Owner>
bool TraceField(const Section<Codec>& section, std::istream& in, const std::string& prefix,
                Owner* owner, FieldSink* sink) {
  return TraceSection(Codec{}, in, prefix + section.name, owner, sink);
}

template <class Owner>
bool TraceOwner(std::istream& in, const std::string& prefix, Owner* owner, FieldSink* sink) {
  return std::apply(
      [&](const auto&... field) { return (... && TraceField(field, in, prefix, owner, sink)); },
      Owner::Fields());
}

// ---- Documentation ----

template <class Owner>
void ListFields(const std::string& prefix, std::vector<FieldType>* list);

void ListSection(NewBookRecords, const std::string& name, std::vector<FieldType>* list) {
  ListFields<NewBookRecord>(name + "[].", list);
}
void ListSection(KeyListCount, const std::string& name, std::vector<FieldType>* list) {
  list->push_back({name, KeyListCount::kPrimitive});
}
template <std::int16_t kSet>
void ListSection(KeyList<kSet>, const std::string& name, std::vector<FieldType>* list) {
  list->push_back({name + ".type", Int16::kPrimitive});
  list->push_back({name + ".count", Int16::kPrimitive});
  list->push_back({name + "[].key", Char::kPrimitive});
  list->push_back({name + "[].kind", Char::kPrimitive});
  list->push_back({name + "[].action", Int16::kPrimitive});
}
template <class EventClass>
void ListSection(WrappedPayload<EventClass>, const std::string& name,
                 std::vector<FieldType>* list) {
  ListFields<EventClass>(name + ".", list);
}

template <class Codec, class Owner, class Member>
void ListField(const Field<Codec, Owner, Member>& field, const std::string& prefix,
               std::vector<FieldType>* list) {
  list->push_back({prefix + field.name, Codec::kPrimitive});
}
template <class Codec>
void ListField(const Section<Codec>& section, const std::string& prefix,
               std::vector<FieldType>* list) {
  ListSection(Codec{}, prefix + section.name, list);
}

template <class Owner>
void ListFields(const std::string& prefix, std::vector<FieldType>* list) {
  std::apply([&](const auto&... field) { (ListField(field, prefix, list), ...); }, Owner::Fields());
}

// ---- The catalogue ----

template <class EventClass>
RecordType TypeOf(int code, std::string_view enumerator, std::string_view event,
                  bool made_by_factory) {
  RecordType type{code, enumerator, event, made_by_factory, {}, nullptr, nullptr, nullptr};
  ListFields<EventClass>("", &type.fields);
  type.fields_of = [](const Event& e) { return FieldsOf(static_cast<const EventClass&>(e)); };
  type.read = [](std::istream& in) -> std::unique_ptr<Event> {
    auto e = std::make_unique<EventClass>();
    if (ReadFields(in, e.get()) != 0) return nullptr;
    return e;
  };
  type.trace = [](std::istream& in, FieldSink* sink) {
    EventClass e;
    return TraceOwner(in, "", &e, sink);
  };
  return type;
}

std::vector<RecordType> MakeCatalogue() {
  std::vector<RecordType> types = {
#define STAT_EVENT_TYPE(code, enumerator, Class) TypeOf<Class>(code, #enumerator, #Class, true),
#include "src/stat_event/event_types.inc"
#undef STAT_EVENT_TYPE
      TypeOf<NewBooksEvent>(EventFactory::kNewBooks, "kNewBooks", "NewBooksEvent", false),
      TypeOf<ChangePageEvent>(EventFactory::kChangePage, "kChangePage", "ChangePageEvent", false),
  };
  std::stable_sort(types.begin(), types.end(),
                   [](const RecordType& a, const RecordType& b) { return a.code < b.code; });
  return types;
}

const RecordType* Find(int code, bool made_by_factory) {
  for (const RecordType& type : Catalogue()) {
    if (type.code == code && type.made_by_factory == made_by_factory) return &type;
  }
  return nullptr;
}

}  // namespace

const std::vector<RecordType>& Catalogue() {
  static const std::vector<RecordType> catalogue = MakeCatalogue();
  return catalogue;
}

const RecordType* FindType(int code) { return Find(code, true); }

const RecordType* FindShorterType(int code) { return Find(code, false); }

}  // namespace velmora::usage_stat::records
