#include "tools/records/catalogue.h"

#include <algorithm>
#include <tuple>
#include <type_traits>
#include <utility>

#include "src/events/events.h"
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

template <class Owner>
void AppendValues(const Owner& owner, Json* values);

template <class Row>
Json RowOf(const Row& row) {
  Json values = Json::array();
  AppendValues(row, &values);
  return values;
}

Json RowOf(const Keymapping& mapping) { return {mapping.key, mapping.kind, mapping.action}; }

template <class Rows>
Json ListOf(const Rows& rows) {
  Json list = Json::array();
  for (const auto& row : rows) list.push_back(RowOf(row));
  return list;
}

void AppendSection(NewBookRecords, const NewBooksEventEx& event, Json* values) {
  values->push_back(ListOf(event.records_));
}
void AppendSection(KeyListCount, const KeyboardSettingsEvent&, Json* values) {
  values->push_back(KeyListCount::kCount);
}
template <std::int16_t kSet>
void AppendSection(KeyList<kSet>, const KeyboardSettingsEvent& event, Json* values) {
  values->push_back(ListOf(event.mappings_[kSet]));
}
template <class EventClass, class Owner>
void AppendSection(WrappedPayload<EventClass>, const Owner& owner, Json* values) {
  AppendValues(owner.event_, values);
}

template <class Codec, class Base, class Member, class Owner>
void AppendField(const Field<Codec, Base, Member>& field, const Owner& owner, Json* values) {
  values->push_back(ToValue(Codec{}, owner.*field.member));
}
template <class Codec, class Owner>
void AppendField(const Section<Codec>&, const Owner& owner, Json* values) {
  AppendSection(Codec{}, owner, values);
}

template <class Owner>
void AppendValues(const Owner& owner, Json* values) {
  std::apply([&](const auto&... field) { (AppendField(field, owner, values), ...); },
             kFields<Owner>);
}

// ---- Editing ----

template <class Owner>
void EditOwner(Owner* owner, std::size_t* number, FieldEditor* editor);

// The bytes of `text` as far as they fit, then zeros.
template <class Bytes>
void Fill(const std::string& text, Bytes* bytes) {
  for (std::size_t i = 0; i < bytes->size(); ++i) {
    (*bytes)[i] = static_cast<typename Bytes::value_type>(i < text.size() ? text[i] : 0);
  }
}

template <class Codec, class Number>
void EditValue(Codec codec, std::size_t field, Number* value, FieldEditor* editor) {
  const auto number = ToValue(codec, *value).template get<std::int64_t>();
  *value = static_cast<Number>(editor->Number(field, number));
}
void EditValue(FlagChar, std::size_t field, bool* value, FieldEditor* editor) {
  *value = editor->Number(field, *value ? 1 : 0) != 0;
}
void EditValue(ExactlyOneInt16, std::size_t field, bool* value, FieldEditor* editor) {
  EditValue(FlagChar{}, field, value, editor);
}
void EditValue(NarrowInt16, std::size_t field, std::int32_t* value, FieldEditor* editor) {
  *value = static_cast<std::int16_t>(editor->Number(field, *value));
}
void EditValue(String, std::size_t field, std::string* value, FieldEditor* editor) {
  editor->Text(field, value);
}
void EditValue(StringVec, std::size_t field, std::vector<std::string>* value, FieldEditor* editor) {
  editor->Texts(field, value);
}
void EditValue(Language, std::size_t field, std::string* value, FieldEditor* editor) {
  editor->Text(field, value);
  *value = value->substr(0, std::min<std::size_t>(2, value->find('\0')));
}
void EditValue(TwoChars, std::size_t field, std::string* value, FieldEditor* editor) {
  editor->Text(field, value);
  value->resize(2);
}
void EditValue(DeviceId, std::size_t field, DeviceId::Bytes* value, FieldEditor* editor) {
  std::string text(value->begin(), value->end());
  editor->Text(field, &text);
  Fill(text, value);
}

// Counts that frame a list stay as they are.
void EditSection(NewBookRecords, NewBooksEventEx* event, std::size_t* number, FieldEditor* editor) {
  const std::size_t first = *number;
  *number += std::tuple_size_v<decltype(NewBookRecord::Fields())>;
  for (NewBookRecord& record : event->records_) {
    std::size_t column = first;
    EditOwner(&record, &column, editor);
  }
}
void EditSection(KeyListCount, KeyboardSettingsEvent*, std::size_t* number, FieldEditor*) {
  ++*number;
}
template <std::int16_t kSet>
void EditSection(KeyList<kSet>, KeyboardSettingsEvent* event, std::size_t* number,
                 FieldEditor* editor) {
  const std::size_t first = *number + 2;  // after the list's number and count
  for (Keymapping& mapping : event->mappings_[kSet]) {
    EditValue(KeyByte{}, first, &mapping.key, editor);
    EditValue(KeyByte{}, first + 1, &mapping.kind, editor);
    EditValue(Int16{}, first + 2, &mapping.action, editor);
  }
  *number = first + 3;
}
template <class EventClass, class Owner>
void EditSection(WrappedPayload<EventClass>, Owner* owner, std::size_t* number,
                 FieldEditor* editor) {
  EditOwner(&owner->event_, number, editor);
}

template <class Codec, class Base, class Member, class Owner>
void EditField(const Field<Codec, Base, Member>& field, Owner* owner, std::size_t* number,
               FieldEditor* editor) {
  if (field.meaning.kind != Kind::kRowCount) {
    EditValue(Codec{}, *number, &(owner->*field.member), editor);
  }
  ++*number;
}
template <class Codec, class Owner>
void EditField(const Section<Codec>&, Owner* owner, std::size_t* number, FieldEditor* editor) {
  EditSection(Codec{}, owner, number, editor);
}

template <class Owner>
void EditOwner(Owner* owner, std::size_t* number, FieldEditor* editor) {
  std::apply([&](const auto&... field) { (EditField(field, owner, number, editor), ...); },
             kFields<Owner>);
}

// ---- Field by field ----

template <class Owner>
bool TraceOwner(std::istream& in, const std::string& prefix, Owner* owner, FieldSink* sink);

// Reads one value of a codec.
template <class Codec, class Value>
bool TraceValue(Codec codec, std::istream& in, const std::string& name, Value* value,
                FieldSink* sink) {
  sink->Begin(name, Codec::kPrimitive, Codec::kExtent);
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

bool TraceSection(KeyListCount, std::istream& in, const std::string& name,
                  KeyboardSettingsEvent* event, FieldSink* sink) {
  // Whatever stands there, the record has this many; so does the class.
  sink->Begin(name, KeyListCount::kPrimitive, KeyListCount::kExtent);
  if (KeyListCount::Read(in, event) != 0) return false;
  sink->End(KeyListCount::kCount);
  return true;
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
    Keymapping mapping{};
    if (!TraceValue(KeyByte{}, in, prefix + "key", &mapping.key, sink)) return false;
    // The value is the one of the key code that readers rebuild, as in the record.
    sink->Begin(prefix + "kind", KeyByte::kPrimitive, KeyByte::kExtent);
    if (KeyByte::Read(in, &mapping.kind) != 0) return false;
    const int key_code = mapping.key + 256 * static_cast<std::uint8_t>(mapping.kind);
    sink->End(Keymapping::FromKeyCode(key_code, 0).kind);
    if (!TraceValue(Int16{}, in, prefix + "action", &mapping.action, sink)) return false;
  }
  return true;
}

template <class EventClass, class Owner>
bool TraceSection(WrappedPayload<EventClass>, std::istream& in, const std::string&, Owner* owner,
                  FieldSink* sink) {
  return TraceOwner(in, "", &owner->event_, sink);
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

// ---- What fields are ----

// The name of a member as its class has it, without the underscore at its end.
template <auto kMember>
constexpr std::string_view MemberName() {
  const std::string_view function = __PRETTY_FUNCTION__;  // "... [kMember = &AddNoteEvent::a_]"
  const std::size_t end = function.find_first_of(";]", function.rfind("kMember = "));
  const std::size_t begin = function.rfind(':', end) + 1;
  return function.substr(begin, end - 1 - begin);
}
static_assert(MemberName<&NewBookRecord::s1_>() == "s1");

// The key of the name that stands beside a value.
std::string NameKey(Kind kind, std::string column) {
  if (kind == Kind::kPackedMargins) return "margins";
  if (NamedValues(kind).empty()) return {};
  if (column.ends_with("_code")) column.resize(column.size() - 5);
  return column + "_name";
}

template <class Codec>
inline constexpr std::string_view kForm = "number";
template <>
inline constexpr std::string_view kForm<FlagChar> = "flag";
template <>
inline constexpr std::string_view kForm<ExactlyOneInt16> = "flag_if_one";
template <>
inline constexpr std::string_view kForm<KeyKindByte> = "borrowing";
template <>
inline constexpr std::string_view kForm<KeyListCount> = "constant";
template <>
inline constexpr std::string_view kForm<String> = "text";
template <>
inline constexpr std::string_view kForm<Language> = "text";
template <>
inline constexpr std::string_view kForm<TwoChars> = "text";
template <>
inline constexpr std::string_view kForm<StringVec> = "texts";
template <>
inline constexpr std::string_view kForm<DeviceId> = "hexadecimal";

template <class Codec>
void AddValue(const std::string& prefix, const std::string& column, std::string_view member,
              const Meaning& meaning, bool is_structure, std::vector<FieldType>* fields) {
  fields->push_back({prefix + column, column, member, Codec::kPrimitive, Codec::kExtent,
                     kForm<Codec>, meaning.kind, meaning.sensitivity, meaning.text, is_structure,
                     NameKey(meaning.kind, column)});
}

template <class Owner>
void AddFields(const std::string& prefix, RecordType* type);

// Adds a list whose rows have the fields of Row.
template <class Row>
void AddList(const std::string& name, const Meaning& meaning, RecordType* type) {
  const std::size_t slots = type->slots.size();
  const std::size_t first = type->fields.size();
  AddFields<Row>(name + "[].", type);
  type->slots.resize(slots);
  type->slots.push_back({name, meaning.text, true, first, type->fields.size() - first});
}

void AddSection(NewBookRecords, const std::string& name, const Meaning& meaning, RecordType* type) {
  AddList<NewBookRecord>(name, meaning, type);
}
void AddSection(KeyListCount, const std::string& name, const Meaning& meaning, RecordType* type) {
  type->slots.push_back({name, meaning.text, false, type->fields.size(), 1});
  AddValue<KeyListCount>("", name, name, meaning, true, &type->fields);
}
template <std::int16_t kSet>
void AddSection(KeyList<kSet>, const std::string& name, const Meaning& meaning, RecordType* type) {
  constexpr Meaning kNumber{Kind::kReserved, Sensitivity::kTechnical,
                            "number of the list; any other makes the record invalid"};
  constexpr Meaning kCount{Kind::kRowCount, Sensitivity::kTechnical,
                           "assignments that follow; none when it is below 1"};
  AddValue<Int16>(name + ".", "type", "type", kNumber, true, &type->fields);
  AddValue<Int16>(name + ".", "count", "count", kCount, true, &type->fields);
  AddList<KeyAssignment>(name, meaning, type);
  type->slots.back().number = kSet;
}
template <class EventClass>
void AddSection(WrappedPayload<EventClass>, const std::string&, const Meaning&, RecordType* type) {
  AddFields<EventClass>("", type);
}

template <class Owner, std::size_t kIndex>
void AddField(const std::string& prefix, RecordType* type) {
  constexpr const auto& kField = std::get<kIndex>(kFields<Owner>);
  using Codec = typename std::remove_cvref_t<decltype(kField)>::Codec;
  if constexpr (requires { kField.member; }) {
    type->slots.push_back({kField.name, kField.meaning.text, false, type->fields.size(), 1});
    AddValue<Codec>(prefix, kField.name, MemberName<kField.member>(), kField.meaning,
                    kField.meaning.kind == Kind::kRowCount, &type->fields);
  } else {
    AddSection(Codec{}, prefix + kField.name, kField.meaning, type);
  }
}

template <class Owner>
void AddFields(const std::string& prefix, RecordType* type) {
  const auto add = [&]<std::size_t... kIndices>(std::index_sequence<kIndices...>) {
    (AddField<Owner, kIndices>(prefix, type), ...);
  };
  add(std::make_index_sequence<std::tuple_size_v<decltype(Owner::Fields())>>());
}

// ---- The catalogue ----

template <class EventClass>
RecordType TypeOf(int code, std::string_view enumerator, std::string_view event,
                  bool made_by_factory) {
  RecordType type{code, enumerator, event,   made_by_factory, {},
                  {},   nullptr,    nullptr, nullptr,         nullptr};
  AddFields<EventClass>("", &type);
  type.values_of = [](const Event& e) { return RowOf(static_cast<const EventClass&>(e)); };
  type.edit = [](Event* e, FieldEditor* editor) {
    std::size_t number = 0;
    EditOwner(static_cast<EventClass*>(e), &number, editor);
  };
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

// Adds the value of `field` to `named`, and its name if it has one.
void AddNamed(const FieldType& field, const Json& value, Json::object_t* named) {
  named->Container::emplace_back(field.column, value);
  if (field.name_key.empty() || !value.is_number_integer()) return;
  std::string name = ValueName(field.kind, value.get<std::int64_t>());
  if (!name.empty()) named->Container::emplace_back(field.name_key, std::move(name));
}

Json NamedRows(const RecordType& type, const Slot& slot, const Json& rows) {
  Json list = Json::array();
  if (!rows.is_array()) return list;
  for (const Json& row : rows) {
    Json::object_t named;
    const std::size_t size = row.is_array() ? std::min(slot.size, row.size()) : 0;
    for (std::size_t i = 0; i < size; ++i) AddNamed(type.fields[slot.first + i], row[i], &named);
    list.push_back(std::move(named));
  }
  return list;
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

const RecordType* FindEvent(std::string_view event) {
  for (const RecordType& type : Catalogue()) {
    if (type.event == event) return &type;
  }
  return nullptr;
}

bool RecordType::carries_book() const {
  return std::any_of(fields.begin(), fields.end(),
                     [](const FieldType& field) { return field.kind == Kind::kBookId; });
}

Json NamedFields(const RecordType& type, const Json& values) {
  // The names differ by themselves: looking for each first, as the operators do, is left out.
  Json::object_t named;
  const std::size_t size = values.is_array() ? std::min(type.slots.size(), values.size()) : 0;
  for (std::size_t i = 0; i < size; ++i) {
    const Slot& slot = type.slots[i];
    if (slot.is_list) {
      named.Container::emplace_back(slot.name, NamedRows(type, slot, values[i]));
    } else {
      AddNamed(type.fields[slot.first], values[i], &named);
    }
  }
  return named;
}

}  // namespace velmora::usage_stat::records
