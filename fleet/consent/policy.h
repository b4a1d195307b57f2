// What may leave a device: for each level of consent, what becomes of each field of each record.
//
// A policy is a JSON file (policy.json beside this one is the shipped one, policy.schema.json its
// schema). It names, for a level, what becomes of each sensitivity, and the exceptions by kind or
// for a single field; the most exact rule holds. Against the dictionary of records it becomes a
// Table, which says the same field by field. Whatever a table doesn't know is dropped.

#ifndef FLEET_CONSENT_POLICY_H_
#define FLEET_CONSENT_POLICY_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/batch/batch.h"
#include "tools/base/status.h"
#include "tools/records/catalogue.h"

namespace velmora::usage_stat::consent {

// How much a person lets leave, and what becomes of a field: see batch.h. Each level lets through
// what the one before it does, or more.
using fleet::Action;
using fleet::Level;

std::string_view NameOf(Level level);
std::optional<Level> LevelNamed(std::string_view name);

// What is dropped becomes an empty text or 0; for the rest see Coarsen(), CoarsenTime() and
// Pseudonyms.
std::string_view NameOf(Action action);

// What two rules together let through: no more than either.
Action Meet(Action a, Action b);

// Whether `newer` lets something through that `agreed` doesn't.
inline bool Widens(Action newer, Action agreed) { return Meet(newer, agreed) != newer; }

// `number` towards zero to one of 0, 1, 2, 5, 10, 20, 50, 100 and so on, or the same with a minus.
// 0 and -1 stay.
std::int64_t Coarsen(std::int64_t number);

// `ms`, milliseconds since the epoch, down to the full hour.
std::int64_t CoarsenTime(std::int64_t ms);

// What becomes of everything at one level.
class Table {
 public:
  // Lets nothing through.
  Table();

  // What becomes of the time of every record, and of the device's clock: kKeep or kCoarsen.
  Action time() const { return time_; }

  // What becomes of each field of `type`, an element of records::Catalogue(), in the
  // order of its fields.
  const std::vector<Action>& ActionsOf(const records::RecordType& type) const {
    return actions_[PlaceOf(type)];
  }
  Action Of(const records::RecordType& type, std::size_t field) const {
    return ActionsOf(type)[field];
  }

  // Only what both tables let through.
  Table And(const Table& other) const;

  // Names what the table does, alike on every device with the same dictionary.
  fleet::Id id() const;

 private:
  friend class Policy;
  static std::size_t PlaceOf(const records::RecordType& type);
  Action& At(const records::RecordType& type, std::size_t field) {
    return actions_[PlaceOf(type)][field];
  }

  Action time_ = Action::kCoarsen;
  std::vector<std::vector<Action>> actions_;  // by place in records::Catalogue(), by field
};

// The fields, "Class.field", and "time", of which `newer` lets more through than `agreed`.
std::vector<std::string> Widened(const Table& newer, const Table& agreed);

// A table for each level.
class Policy {
 public:
  // Lets nothing through.
  Policy() = default;

  // Reads and checks the text of a policy file. A mistake is told by `errors`, one line each: then
  // the result is null. Refused are
  //   - what the schema refuses, and a key that stands twice,
  //   - a field or kind that the dictionary doesn't know, and a sensitivity without a rule,
  //   - a pseudonym or a coarser value where there can't be one,
  //   - a level that lets more through than the level above it,
  //   - content, or what identifies, that leaves as it is, unless "lets_through" of the level names
  //     the field; and a name there that doesn't.
  static std::optional<Policy> Parse(std::string_view text, std::vector<std::string>* errors);

  // The same from a file.
  static base::Status Load(const std::string& path, Policy* policy);

  const Table& At(Level level) const { return tables_[static_cast<std::size_t>(level)]; }

  // Every rule, one line for each field, so that what was agreed to can be kept word by word. A
  // field that rules don't name is dropped, one that they name and nobody knows is passed over.
  std::string Rules() const;
  static Policy FromRules(std::string_view rules);

 private:
  std::array<Table, 3> tables_;  // by level
};

// Calls `visit` with every field that a policy has a say in: its type, its place there, itself, and
// its name such as "NewBooksEventEx.books[].book_id". What frames a list always stays, since the
// record could not be read without it.
using FieldVisitor = std::function<void(const records::RecordType& type, std::size_t place,
                                        const records::FieldType& field, const std::string& name)>;
void ForEachField(const FieldVisitor& visit);

// 16 bytes that stand for `text`, and for no other one.
fleet::Id IdOf(std::string_view text);

// Whether a field can have a pseudonym or a coarser value.
bool CanBePseudonym(const records::FieldType& field);
bool CanBeCoarsened(const records::FieldType& field);

}  // namespace velmora::usage_stat::consent

#endif  // FLEET_CONSENT_POLICY_H_
