#include "fleet/consent/commands.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fleet/consent/device.h"
#include "fleet/consent/policy.h"
#include "fleet/consent/state.h"
#include "src/measurements/statistics_switch.h"
#include "tools/base/system.h"
#include "tools/records/catalogue.h"
#include "tools/records/text.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::consent {

namespace {

using base::Status;

// What is acknowledged to its sender stands in the database a moment later. Consent waits that
// moment, so that nothing which was received before it counts as received after.
constexpr std::chrono::seconds kUntilStored{1};

struct Options : DeviceOptions {
  std::string level;
  std::string format = "text";
};

template <class... Arguments>
void Print(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  const std::string text = fmt::format(format, std::forward<Arguments>(arguments)...);
  (void)std::fwrite(text.data(), 1, text.size(), stdout);
}

// Names, a few to a line.
std::string Wrapped(const std::vector<std::string>& names) {
  constexpr std::size_t kWidth = 78;
  std::string text;
  std::size_t column = kWidth;
  for (const std::string& name : names) {
    if (column + name.size() + 2 > kWidth) {
      text += text.empty() ? "    " : ",\n    ";
      column = 4;
    } else {
      text += ", ";
      column += 2;
    }
    text += name;
    column += name.size();
  }
  return text + "\n";
}

// The fields that leave under `action` at a level, of one sensitivity or of any.
std::vector<std::string> FieldsWith(const Table& table, Action action, bool is_sensitive_only) {
  std::vector<std::string> names;
  ForEachField([&](const records::RecordType& type, std::size_t place,
                   const records::FieldType& field, const std::string& name) {
    if (table.Of(type, place) != action) return;
    if (is_sensitive_only && field.sensitivity < Sensitivity::kContent) return;
    names.push_back(name);
  });
  return names;
}

// Tells what a level means, the sensitive part field by field.
void Explain(const Table& table) {
  Print("  times           {}\n",
        table.time() == Action::kKeep ? "exact" : "no closer than the full hour");
  for (const Action action : {Action::kKeep, Action::kCoarsen, Action::kPseudonym, Action::kDrop}) {
    const std::vector<std::string> names = FieldsWith(table, action, false);
    constexpr std::array<std::string_view, 4> kMeanings{
        "leave as they are", "never leave", "leave as a coarser value", "leave as a pseudonym"};
    Print("  {:>4} fields     {}\n", names.size(), kMeanings[static_cast<std::size_t>(action)]);
  }
  std::vector<std::string> loud = FieldsWith(table, Action::kKeep, true);
  for (std::string& name : FieldsWith(table, Action::kCoarsen, true))
    loud.push_back(std::move(name));
  if (!loud.empty()) {
    Print("  ATTENTION: content, or what identifies, leaves readably:\n{}", Wrapped(loud));
  }
}

// ---- consent ----

std::string Sentence(Level level) {
  switch (level) {
    case Level::kNone:
      return "nothing leaves this device";
    case Level::kBasic:
      return "technical data and what was done leave, without which book, by the hour";
    case Level::kFull:
      return "what was done leaves, with pseudonyms for books and exact times";
  }
  return {};
}

Status ChangeConsent(const Options& options) {
  const Level level = *LevelNamed(options.level);
  RETURN_IF_ERROR(ActAsOwnerOf(options.folder));
  Policy policy;
  if (level != Level::kNone) RETURN_IF_ERROR(Policy::Load(options.policy, &policy));
  std::unique_ptr<State> state;
  RETURN_IF_ERROR(State::Open(StatePath(options.folder), State::Mode::kRead, &state));
  if (level == Level::kNone && state->level() == Level::kNone) {
    Print("none: {}\n", Sentence(level));
    return {};
  }
  if (level > state->level()) std::this_thread::sleep_for(kUntilStored);
  RETURN_IF_ERROR(State::Open(StatePath(options.folder), State::Mode::kWrite, &state));
  Numbers numbers;
  RETURN_IF_ERROR(ReadNumbers(options.database, &numbers));
  RETURN_IF_ERROR(
      state->Agree(level, policy, numbers, ReceivedSinceIn(options.database), base::NowMs()));
  Print("{}: from the next record on {}\n", NameOf(level), Sentence(level));
  if (level == Level::kNone) {
    Print(
        "The fleet still holds what it has of this device: `usage-stat uplink forget` ends "
        "that.\n");
    return {};
  }
  Explain(policy.At(level));
  if (!IsStatisticsEnabled()) {
    Print(
        "Statistics are switched off on this device: until they are on, nothing is collected and "
        "nothing leaves.\n");
  }
  return {};
}

// ---- status ----

Status ShowStatus(const Options& options) {
  RETURN_IF_ERROR(ActAsOwnerOf(options.folder));
  std::unique_ptr<State> state;
  RETURN_IF_ERROR(State::Open(StatePath(options.folder), State::Mode::kRead, &state));
  Print("consent     {}", NameOf(state->level()));
  if (state->since_ms() != 0) Print(", since {}", records::LocalTime(state->since_ms()));
  Print(": {}\n", Sentence(state->level()));
  if (state->is_forgetting()) {
    Print("forgetting  the fleet is asked to forget this device; nothing else leaves\n");
  }
  Print("statistics  {}\n", IsStatisticsEnabled() ? "on" : "off: nothing leaves while they are");
  Print("name        {}\n",
        state->name() ? fleet::ToText(*state->name()) : "none: the fleet doesn't know this device");
  if (state->level() == Level::kNone) return {};
  Policy shipped;
  RETURN_IF_ERROR(Policy::Load(options.policy, &shipped));
  const Table& agreed = state->agreed().At(state->level());
  const std::vector<std::string> waiting = Widened(shipped.At(state->level()), agreed);
  if (waiting.empty()) {
    Print("policy      as agreed to\n");
  } else {
    Print(
        "policy      the present one would let more through than was agreed to. It waits for\n"
        "            `usage-stat uplink consent {}`; until then these leave as agreed:\n{}",
        NameOf(state->level()), Wrapped(waiting));
  }
  Explain(agreed.And(shipped.At(state->level())));
  return {};
}

// ---- forget ----

Status RequestForget(const Options& options) {
  RETURN_IF_ERROR(ActAsOwnerOf(options.folder));
  std::unique_ptr<State> state;
  RETURN_IF_ERROR(State::Open(StatePath(options.folder), State::Mode::kRead, &state));
  if (!state->name()) {
    Print("Nothing was ever agreed to: the fleet doesn't know this device.\n");
    return {};
  }
  RETURN_IF_ERROR(State::Open(StatePath(options.folder), State::Mode::kWrite, &state));
  Numbers numbers;
  RETURN_IF_ERROR(ReadNumbers(options.database, &numbers));
  RETURN_IF_ERROR(state->Forget(numbers, ReceivedSinceIn(options.database), base::NowMs()));
  Print(
      "Nothing more leaves but the request to forget this device, however long that takes.\n"
      "What stays on the device is `usage-stat erase`'s to delete.\n");
  return {};
}

// ---- policy ----

// What becomes of a field, in words for a table.
std::string_view Outcome(Action action) {
  constexpr std::array<std::string_view, 4> kOutcomes{"as it is", "-", "coarser", "pseudonym"};
  return kOutcomes[static_cast<std::size_t>(action)];
}

// A table for each type that has fields.
void PrintMarkdown(const Policy& policy) {
  const records::RecordType* last = nullptr;
  ForEachField([&](const records::RecordType& type, std::size_t place,
                   const records::FieldType& field, const std::string&) {
    if (&type != last) {
      Print(
          "\n### {} {}\n\n| Field | What it tells | Sensitivity | basic | full |\n"
          "|---|---|---|---|---|\n",
          type.code, type.event);
      last = &type;
    }
    Print("| {} | {} | {} | {} | {} |\n", field.name, field.meaning,
          records::NameOf(field.sensitivity), Outcome(policy.At(Level::kBasic).Of(type, place)),
          Outcome(policy.At(Level::kFull).Of(type, place)));
  });
}

Status ShowPolicy(const Options& options) {
  Policy policy;
  RETURN_IF_ERROR(Policy::Load(options.policy, &policy));
  if (options.format == "markdown") {
    PrintMarkdown(policy);
  } else if (options.format == "rules") {
    Print("{}", policy.Rules());
  } else {
    for (const Level level : {Level::kBasic, Level::kFull}) {
      Print("{}: {}\n", NameOf(level), Sentence(level));
      Explain(policy.At(level));
    }
  }
  return {};
}

}  // namespace

DeviceOptions::DeviceOptions()
    : folder(DefaultStateFolder()),
      database(store::DefaultDatabasePath()),
      policy(DefaultPolicyPath()) {}

void AddDeviceOptions(Command command, DeviceOptions* options) {
  command.Option("--state", "FOLDER", "Where the uplink keeps its state", &options->folder);
  command.Option("--database", "FILE", "The collector's database", &options->database);
  command.Option("--policy", "FILE", "What may leave at which level", &options->policy);
}

int Exit(const std::function<Status()>& run) {
  const Status status = run();
  if (status.ok()) return kOk;
  return Complain("usage-stat-uplink", status.message);
}

void AddConsent(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("consent", "Decide what may leave this device from now on");
  command.Choice("LEVEL", "LEVEL", "none, basic or full; without it, what stands is shown",
                 {"none", "basic", "full"}, &options->level);
  AddDeviceOptions(command, options.get());
  command.Footer(
      "A level holds from the next record on and never reaches back: what was received under a "
      "lower one leaves under that one or not at all.");
  command.OnRun([options] {
    return Exit(
        [&] { return options->level.empty() ? ShowStatus(*options) : ChangeConsent(*options); });
  });
}

void AddStatus(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("status", "Show what may leave, and what waits");
  AddDeviceOptions(command, options.get());
  command.OnRun([options] { return Exit([&] { return ShowStatus(*options); }); });
}

void AddForget(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand(
      "forget", "End the consent, and have the fleet delete all it holds of this device");
  AddDeviceOptions(command, options.get());
  command.OnRun([options] { return Exit([&] { return RequestForget(*options); }); });
}

void AddPolicy(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("policy", "Check a policy, and show what it lets through");
  command.Argument("FILE", "The policy; the shipped one without it", &options->policy);
  command.Choice("-o,--output", "FORMAT", "How to show it", {"text", "markdown", "rules"},
                 &options->format);
  command.OnRun([options] { return Exit([&] { return ShowPolicy(*options); }); });
}

}  // namespace velmora::usage_stat::consent
