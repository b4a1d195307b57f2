#include "fleet/consent/policy.h"

#include <openssl/sha.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include "tools/base/text.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::consent {

namespace {

using records::Catalogue;
using records::FieldType;
using records::Json;
using records::RecordType;

constexpr std::array<std::string_view, 3> kLevelNames{"none", "basic", "full"};
constexpr std::array<std::string_view, 4> kActionNames{"keep", "drop", "coarsen", "pseudonym"};

// The levels that a policy file speaks of: at none nothing leaves, whatever it says.
constexpr std::array<Level, 2> kLevels{Level::kBasic, Level::kFull};

std::optional<Action> ActionNamed(std::string_view name) {
  const auto* found = std::find(kActionNames.begin(), kActionNames.end(), name);
  if (found == kActionNames.end()) return std::nullopt;
  return static_cast<Action>(found - kActionNames.begin());
}

bool IsKnownKind(std::string_view kind) {
  bool is_known = false;
  ForEachField([&](const RecordType&, std::size_t, const FieldType& field, const std::string&) {
    is_known |= records::NameOf(field.kind) == kind;
  });
  return is_known;
}

bool IsKnownField(std::string_view name) {
  bool is_known = false;
  ForEachField([&](const RecordType&, std::size_t, const FieldType&,
                   const std::string& field_name) { is_known |= field_name == name; });
  return is_known;
}

// Content, or what identifies, and leaves so that somebody could read it.
bool IsLetThrough(const FieldType& field, Action action) {
  return field.sensitivity >= Sensitivity::kContent &&
         (action == Action::kKeep || action == Action::kCoarsen);
}

// The rules of one level, as the file has them.
struct Rules {
  Action time = Action::kCoarsen;
  std::map<std::string, Action, std::less<>> sensitivities;
  std::map<std::string, Action, std::less<>> kinds;
  std::map<std::string, Action, std::less<>> fields;
  std::set<std::string, std::less<>> lets_through;

  // The most exact one.
  Action For(const std::string& name, const FieldType& field) const {
    if (const auto rule = fields.find(name); rule != fields.end()) return rule->second;
    if (const auto rule = kinds.find(records::NameOf(field.kind)); rule != kinds.end()) {
      return rule->second;
    }
    const auto rule = sensitivities.find(records::NameOf(field.sensitivity));
    return rule != sensitivities.end() ? rule->second : Action::kDrop;
  }
};

// Reads the JSON of a policy and tells what is wrong with it.
class File {
 public:
  explicit File(std::vector<std::string>* errors) : errors_(errors) {}

  // The rules by level; what is wrong is left out.
  std::map<Level, Rules> Read(std::string_view text) {
    std::map<Level, Rules> rules;
    const Json json = Parse(text);
    if (!json.is_object()) return rules;
    ExpectKeys(json, "", {"$schema", "version", "levels"});
    if (!json.contains("version") || json["version"] != 1) Error("", "version is not 1");
    if (!json.contains("levels") || !json["levels"].is_object()) {
      Error("", "levels is missing");
      return rules;
    }
    const Json& levels = json["levels"];
    ExpectKeys(levels, "levels", {"basic", "full"});
    for (const Level level : kLevels) {
      const std::string name(consent::NameOf(level));
      if (levels.contains(name) && levels[name].is_object()) {
        ReadLevel(levels[name], name, &rules[level]);
      } else {
        Error("levels", name + " is missing");
      }
    }
    return rules;
  }

 private:
  void Error(const std::string& place, const std::string& what) {
    errors_->push_back(place.empty() ? what : place + ": " + what);
  }

  // Null when it is no JSON object. A key that stands twice would hide one of its rules.
  Json Parse(std::string_view text) {
    std::vector<std::set<std::string>> keys;
    const auto note = [&](int, Json::parse_event_t event, const Json& value) {
      if (event == Json::parse_event_t::object_start) keys.emplace_back();
      if (event == Json::parse_event_t::object_end) keys.pop_back();
      if (event == Json::parse_event_t::key &&
          !keys.back().insert(value.get<std::string>()).second) {
        Error("", "the key " + value.get<std::string>() + " stands twice");
      }
      return true;
    };
    Json json = Json::parse(text, note, false);
    if (!json.is_object()) Error("", "the file is no JSON object");
    return json;
  }

  void ExpectKeys(const Json& json, const std::string& place,
                  const std::set<std::string>& expected) {
    for (const auto& [key, value] : json.items()) {
      if (!expected.contains(key)) Error(place, "the key " + key + " is unknown");
    }
  }

  std::optional<Action> ReadAction(const Json& value, const std::string& place) {
    std::optional<Action> action;
    if (value.is_string()) action = ActionNamed(value.get_ref<const std::string&>());
    if (!action) Error(place, value.dump() + " is none of keep, drop, coarsen, pseudonym");
    return action;
  }

  void ReadActions(const Json& level, const std::string& place, const std::string& key,
                   std::map<std::string, Action, std::less<>>* actions) {
    if (!level.contains(key)) return;
    const std::string here = place + "." + key;
    if (!level[key].is_object()) return Error(here, "is no object");
    for (const auto& [name, value] : level[key].items()) {
      if (const auto action = ReadAction(value, std::string(here).append(".").append(name)))
        actions->emplace(name, *action);
    }
  }

  void ReadLevel(const Json& json, const std::string& name, Rules* rules) {
    const std::string place = "levels." + name;
    ExpectKeys(json, place, {"time", "sensitivity", "kinds", "fields", "lets_through"});
    if (!json.contains("time")) {
      Error(place, "time is missing");
    } else if (const auto action = ReadAction(json["time"], place + ".time")) {
      rules->time = *action;
      if (*action != Action::kKeep && *action != Action::kCoarsen) {
        Error(place, "time can only be kept or coarsened");
      }
    }
    ReadActions(json, place, "sensitivity", &rules->sensitivities);
    ReadActions(json, place, "kinds", &rules->kinds);
    ReadActions(json, place, "fields", &rules->fields);
    ExpectSensitivities(place + ".sensitivity", rules->sensitivities);
    for (const auto& [kind, action] : rules->kinds) {
      if (!IsKnownKind(kind)) Error(place + ".kinds", "there is no kind " + kind);
    }
    for (const auto& [field, action] : rules->fields) {
      if (!IsKnownField(field)) Error(place + ".fields", "there is no field " + field);
    }
    if (!json.contains("lets_through")) return;
    if (!json["lets_through"].is_array()) return Error(place + ".lets_through", "is no array");
    for (const Json& field : json["lets_through"]) {
      if (!field.is_string() || !rules->lets_through.insert(field.get<std::string>()).second) {
        Error(place + ".lets_through", field.dump() + " is no name, or stands twice");
      }
    }
  }

  void ExpectSensitivities(const std::string& place,
                           const std::map<std::string, Action, std::less<>>& rules) {
    std::set<std::string, std::less<>> known;
    for (const Sensitivity sensitivity : records::kSensitivities) {
      known.emplace(records::NameOf(sensitivity));
      if (!rules.contains(records::NameOf(sensitivity))) {
        Error(place, std::string(records::NameOf(sensitivity)) + " is missing");
      }
    }
    for (const auto& [name, action] : rules) {
      if (!known.contains(name)) Error(place, "there is no sensitivity " + name);
    }
  }

  std::vector<std::string>* const errors_;
};

void CheckAction(const std::string& place, const std::string& name, const FieldType& field,
                 Action action, std::vector<std::string>* errors) {
  if (action == Action::kPseudonym && !CanBePseudonym(field)) {
    errors->push_back(place + ": " + name +
                      " can't have a pseudonym: it is no text and no 32-bit id");
  }
  if (action == Action::kCoarsen && !CanBeCoarsened(field)) {
    errors->push_back(place + ": " + name + " can't be coarsened: it is no quantity");
  }
}

// Whether what leaves as it is, and what "lets_through" says of it, agree.
void CheckLetThrough(const std::string& place, const std::string& name, const FieldType& field,
                     Action action, bool is_said, std::vector<std::string>* errors) {
  if (IsLetThrough(field, action) == is_said) return;
  errors->push_back(
      place + (is_said ? ": " + name + " is named in lets_through but doesn't leave as it is"
                       : ": " + name + " is " + std::string(records::NameOf(field.sensitivity)) +
                             " and leaves as it is: lets_through has to name it"));
}

}  // namespace

void ForEachField(const FieldVisitor& visit) {
  for (const RecordType& type : Catalogue()) {
    for (std::size_t i = 0; i < type.fields.size(); ++i) {
      const FieldType& field = type.fields[i];
      if (!field.is_structure) visit(type, i, field, std::string(type.event) + "." + field.name);
    }
  }
}

std::string_view NameOf(Level level) { return kLevelNames[static_cast<std::size_t>(level)]; }

std::optional<Level> LevelNamed(std::string_view name) {
  const auto* found = std::find(kLevelNames.begin(), kLevelNames.end(), name);
  if (found == kLevelNames.end()) return std::nullopt;
  return static_cast<Level>(found - kLevelNames.begin());
}

std::string_view NameOf(Action action) { return kActionNames[static_cast<std::size_t>(action)]; }

Action Meet(Action a, Action b) {
  if (a == b || b == Action::kKeep) return a;
  if (a == Action::kKeep) return b;
  return Action::kDrop;  // one can't be made of the other
}

std::int64_t Coarsen(std::int64_t number) {
  if (number == 0 || number == -1) return number;
  // As an unsigned magnitude, since the smallest number has no positive counterpart.
  std::uint64_t rest = number < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(number)
                                  : static_cast<std::uint64_t>(number);
  std::int64_t power = 1;
  for (; rest >= 10; rest /= 10) power *= 10;
  const std::int64_t first = rest >= 5 ? 5 : rest >= 2 ? 2 : 1;
  return (number < 0 ? -first : first) * power;
}

std::int64_t CoarsenTime(std::int64_t ms) {
  constexpr std::int64_t kHour = std::int64_t{60} * 60 * 1000;
  const std::int64_t hour = ms / kHour * kHour;  // towards zero
  // There is no full hour below the first one that the type holds.
  if (hour <= ms || hour < INT64_MIN + kHour) return hour;
  return hour - kHour;
}

bool CanBePseudonym(const FieldType& field) {
  return field.primitive == "String" || field.primitive == "StringVec" ||
         (field.primitive == "Int32" && field.kind == Kind::kBookId);
}

bool CanBeCoarsened(const FieldType& field) { return records::IsQuantity(field.kind); }

fleet::Id IdOf(std::string_view text) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
  fleet::Id id{};
  std::copy_n(digest.begin(), id.size(), id.begin());
  return id;
}

// ---- Table ----

Table::Table() {
  for (const RecordType& type : Catalogue()) {
    std::vector<Action>& actions = actions_.emplace_back();
    for (const FieldType& field : type.fields) {
      actions.push_back(field.is_structure ? Action::kKeep : Action::kDrop);
    }
  }
}

std::size_t Table::PlaceOf(const RecordType& type) {
  return static_cast<std::size_t>(&type - Catalogue().data());
}

Table Table::And(const Table& other) const {
  Table both;
  both.time_ = Meet(time_, other.time_);
  for (std::size_t t = 0; t < actions_.size(); ++t) {
    std::transform(actions_[t].begin(), actions_[t].end(), other.actions_[t].begin(),
                   both.actions_[t].begin(), Meet);
  }
  return both;
}

fleet::Id Table::id() const {
  std::string text = "time " + std::string(NameOf(time_)) + "\n";
  ForEachField(
      [&](const RecordType& type, std::size_t i, const FieldType&, const std::string& name) {
        text += name + " " + std::string(NameOf(Of(type, i))) + "\n";
      });
  return IdOf(text);
}

std::vector<std::string> Widened(const Table& newer, const Table& agreed) {
  std::vector<std::string> names;
  if (Widens(newer.time(), agreed.time())) names.emplace_back("time");
  ForEachField(
      [&](const RecordType& type, std::size_t i, const FieldType&, const std::string& name) {
        if (Widens(newer.Of(type, i), agreed.Of(type, i))) names.push_back(name);
      });
  return names;
}

// ---- Policy ----

std::optional<Policy> Policy::Parse(std::string_view text, std::vector<std::string>* errors) {
  const std::size_t errors_before = errors->size();
  std::map<Level, consent::Rules> rules = File(errors).Read(text);
  if (errors->size() != errors_before) return std::nullopt;

  Policy policy;
  for (const Level level : kLevels) {
    consent::Rules& here = rules[level];
    const std::string place = "levels." + std::string(NameOf(level));
    Table& table = policy.tables_[static_cast<std::size_t>(level)];
    table.time_ = here.time;
    ForEachField([&](const RecordType& type, std::size_t i, const FieldType& field,
                     const std::string& name) {
      const Action action = here.For(name, field);
      CheckAction(place, name, field, action, errors);
      CheckLetThrough(place, name, field, action, here.lets_through.erase(name) != 0, errors);
      table.At(type, i) = action;
    });
    const std::string unknown = place + ".lets_through: there is no field ";
    for (const std::string& name : here.lets_through) errors->push_back(unknown + name);
  }
  for (const std::string& name : Widened(policy.At(Level::kBasic), policy.At(Level::kFull))) {
    errors->push_back(
        std::string("levels.basic lets more of ").append(name).append(" through than levels.full"));
  }
  return errors->size() == errors_before ? std::optional(std::move(policy)) : std::nullopt;
}

base::Status Policy::Load(const std::string& path, Policy* policy) {
  // A policy is a page of text; what is larger is none.
  constexpr std::streamsize kLargest = std::streamsize{1024} * 1024;
  std::ifstream file(path, std::ios::binary);
  std::string text(kLargest + 1, '\0');
  if (!file) return base::Status::Errno("cannot open the policy " + path);
  file.read(text.data(), kLargest + 1);
  if (file.bad() || file.gcount() > kLargest) {
    return base::Status::Failed("cannot read the policy " + path);
  }
  text.resize(static_cast<std::size_t>(file.gcount()));
  std::vector<std::string> errors;
  std::optional<Policy> read = Parse(text, &errors);
  if (!read) {
    std::string message = "the policy " + path + " is refused";
    for (const std::string& error : errors) message += "; " + error;
    return base::Status::Failed(message);
  }
  *policy = *std::move(read);
  return {};
}

std::string Policy::Rules() const {
  const auto line = [](std::string_view name, Action basic, Action full) {
    return std::string(name) + " " + std::string(NameOf(basic)) + " " + std::string(NameOf(full)) +
           "\n";
  };
  const Table& basic = At(Level::kBasic);
  const Table& full = At(Level::kFull);
  std::string rules = line("time", basic.time_, full.time_);
  ForEachField(
      [&](const RecordType& type, std::size_t i, const FieldType&, const std::string& name) {
        rules += line(name, basic.Of(type, i), full.Of(type, i));
      });
  return rules;
}

Policy Policy::FromRules(std::string_view rules) {
  std::map<std::string, std::pair<Action, Action>, std::less<>> by_name;
  std::istringstream lines{std::string(rules)};
  for (std::string name, basic, full; lines >> name >> basic >> full;) {
    by_name[name] = {ActionNamed(basic).value_or(Action::kDrop),
                     ActionNamed(full).value_or(Action::kDrop)};
  }
  Policy policy;
  Table& basic = policy.tables_[static_cast<std::size_t>(Level::kBasic)];
  Table& full = policy.tables_[static_cast<std::size_t>(Level::kFull)];
  if (const auto time = by_name.find("time"); time != by_name.end()) {
    basic.time_ = time->second.first == Action::kKeep ? Action::kKeep : Action::kCoarsen;
    full.time_ = time->second.second == Action::kKeep ? Action::kKeep : Action::kCoarsen;
  }
  ForEachField(
      [&](const RecordType& type, std::size_t i, const FieldType&, const std::string& name) {
        const auto rule = by_name.find(name);
        if (rule == by_name.end()) return;
        basic.At(type, i) = rule->second.first;
        full.At(type, i) = rule->second.second;
      });
  return policy;
}

}  // namespace velmora::usage_stat::consent
