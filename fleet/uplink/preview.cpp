#include "fleet/uplink/preview.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/batch/batch.h"
#include "fleet/batch/shapes.h"
#include "fleet/consent/commands.h"
#include "fleet/consent/device.h"
#include "fleet/consent/policy.h"
#include "fleet/consent/state.h"
#include "fleet/uplink/outbox.h"
#include "fleet/uplink/outgoing.h"
#include "src/measurements/statistics_switch.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"
#include "tools/records/text.h"

namespace velmora::usage_stat::uplink {

namespace {

using base::Status;
using consent::Action;
using records::Json;

struct Options : consent::DeviceOptions {
  std::string format = "text";
};

template <class... Arguments>
void Print(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  const std::string text = fmt::format(format, std::forward<Arguments>(arguments)...);
  (void)std::fwrite(text.data(), 1, text.size(), stdout);
}

// ---- One record, before and after ----

// The values of a record by field, each as JSON, as `usage-stat list` and the fleet show them.
class Lister : public records::FieldEditor {
 public:
  explicit Lister(const records::RecordType& type) : type_(type) {}

  std::int64_t Number(std::size_t field, std::int64_t value) override {
    values.emplace_back(field, value);
    return value;
  }
  void Text(std::size_t field, std::string* value) override {
    const bool is_hexadecimal = type_.fields[field].form == "hexadecimal";
    values.emplace_back(field, is_hexadecimal ? base::ToHex(*value) : *value);
  }
  void Texts(std::size_t field, std::vector<std::string>* value) override {
    values.emplace_back(field, *value);
  }

  std::vector<std::pair<std::size_t, Json>> values;

 private:
  const records::RecordType& type_;
};

std::vector<std::pair<std::size_t, Json>> ValuesOf(const records::ReadEvent& read) {
  Lister lister(*read.type);
  read.type->edit(read.event.get(), &lister);
  return std::move(lister.values);
}

// What a field became and why, in words.
std::string Explain(Action action, const records::FieldType& field) {
  constexpr std::array<std::string_view, 4> kWords{"as it is", "dropped", "coarser", "pseudonym"};
  std::string text(kWords[static_cast<std::size_t>(action)]);
  if (action != Action::kKeep) {
    text +=
        fmt::format(": {}, {}", records::NameOf(field.sensitivity), records::NameOf(field.kind));
  }
  return text;
}

// One record of `batch`, as the bytes that leave say it, beside `raw`, which the device keeps.
Json Compare(const fleet::Batch& batch, const fleet::BatchRecord& record, std::string_view raw) {
  const std::string datagram = fleet::DatagramOf(batch, record);
  const auto before = records::Read(raw);
  const auto after = records::Read(datagram);
  Json json = {{"number", record.number}, {"timestamp", record.timestamp_ms}};
  if (!before || !after || before->type != after->type) {
    json["bytes"] = base::ToHex(datagram);
    return json;
  }
  const std::string& actions = batch.shapes[record.shape].actions;
  json["event"] = after->type->event;
  if (before->event->timestamp_ != record.timestamp_ms) {
    json["timestamp_was"] = static_cast<std::int64_t>(before->event->timestamp_);
  }
  json["fields"] = Json::array();
  const auto was = ValuesOf(*before);
  const auto is = ValuesOf(*after);
  for (std::size_t i = 0; i < std::min(was.size(), is.size()); ++i) {
    const std::size_t place = is[i].first;
    const auto action = static_cast<Action>(place < actions.size() ? actions[place] : 0);
    const records::FieldType& field = after->type->fields[place];
    Json row = {{"field", field.name}, {"leaves", is[i].second}};
    if (action == Action::kDrop) row["leaves"] = nullptr;
    if (action != Action::kKeep) row["was"] = was[i].second;
    row["why"] = Explain(action, field);
    json["fields"].push_back(std::move(row));
  }
  return json;
}

// ---- The batch ----

constexpr std::array<std::string_view, 6> kReasons{
    "", "deleted by age or size", "erased", "unreadable", "withheld", "never used"};

std::string_view ReasonText(fleet::Reason reason) {
  const auto place = static_cast<std::size_t>(reason);
  return place < kReasons.size() ? kReasons[place] : "for another reason";
}

Json Describe(const fleet::Batch& batch, const std::vector<Json>& records,
              const std::string& message) {
  Json json = {{"store", fleet::ToText(batch.store)},
               {"after", batch.after},
               {"through", batch.through},
               {"level", consent::NameOf(batch.level)},
               {"policy", fleet::ToText(batch.policy)},
               {"clock", batch.sent_ms},
               {"missing", Json::array()},
               {"clock_steps", Json::array()},
               {"records", records},
               {"bytes", base::ToHex(message)}};
  for (const fleet::Run& run : batch.runs) {
    json["missing"].push_back(
        {{"first", run.first}, {"last", run.last}, {"reason", ReasonText(run.reason)}});
  }
  for (const fleet::ClockStep& step : batch.clock_steps) {
    json["clock_steps"].push_back({{"record", step.record}, {"step_ms", step.step_ms}});
  }
  return json;
}

void PrintText(const fleet::Batch& batch, const std::vector<Json>& records,
               const std::string& message) {
  Print("{}, numbers {} to {} of store {}, level {}, {} bytes\n",
        base::Plural(batch.records.size(), "record"), batch.after + 1, batch.through,
        fleet::ToText(batch.store), consent::NameOf(batch.level), message.size());
  Print("device's clock  {}\n", records::LocalTime(batch.sent_ms));
  for (const fleet::Run& run : batch.runs) {
    Print("{} to {}  no record: {}\n", run.first, run.last, ReasonText(run.reason));
  }
  for (const fleet::ClockStep& step : batch.clock_steps) {
    Print("{}  the clock was set by {} ms\n", step.record, step.step_ms);
  }
  for (const Json& record : records) {
    Print("\n{}  {}  {}\n", record["number"].get<std::uint64_t>(),
          records::LocalTime(record["timestamp"].get<std::int64_t>()),
          record.value("event", "of an unknown type"));
    if (record.contains("timestamp_was")) {
      Print("    time: was {}: coarser\n",
            records::LocalTime(record["timestamp_was"].get<std::int64_t>()));
    }
    if (!record.contains("fields")) continue;
    for (const Json& field : record["fields"]) {
      Print("    {}={}", field["field"].get<std::string>(),
            records::PrintableJson(field["leaves"]));
      if (field.contains("was")) {
        Print("  was {}  {}", records::PrintableJson(field["was"]),
              field["why"].get<std::string>());
      }
      Print("\n");
    }
  }
  Print("\nAs bytes:\n");
  constexpr std::size_t kRow = 32;
  for (std::size_t i = 0; i < message.size(); i += kRow) {
    Print("{}\n", base::ToHex(std::string_view(message).substr(i, kRow)));
  }
}

Status Show(const Options& options) {
  RETURN_IF_ERROR(consent::ActAsOwnerOf(options.folder));
  std::unique_ptr<consent::State> state;
  RETURN_IF_ERROR(consent::State::Open(consent::StatePath(options.folder),
                                       consent::State::Mode::kRead, &state));
  if (state->level() == consent::Level::kNone) {
    (void)std::fputs(state->is_forgetting()
                         ? "nothing leaves but the request to forget this device\n"
                         : "nothing leaves: the consent is none\n",
                     stderr);
    return {};
  }
  if (!IsStatisticsEnabled()) {
    (void)std::fputs("nothing leaves while statistics are switched off; afterwards:\n", stderr);
  }
  RETURN_IF_ERROR(consent::State::Open(consent::StatePath(options.folder),
                                       consent::State::Mode::kWrite, &state));
  RETURN_IF_ERROR(consent::LookAt(options.database, state.get()));
  consent::Policy shipped;
  RETURN_IF_ERROR(consent::Policy::Load(options.policy, &shipped));
  std::unique_ptr<Outgoing> outgoing;
  RETURN_IF_ERROR(Outgoing::Open(options.database, state.get(), shipped, &outgoing));
  std::unique_ptr<Outbox> outbox;
  Prepared prepared;
  RETURN_IF_ERROR(Outbox::Open(state.get(), outgoing.get(), /*can_write=*/true, &outbox));
  RETURN_IF_ERROR(outbox->Prepare({}, base::NowMs(), &prepared));
  const std::string& message = prepared.message;
  if (message.empty()) {
    (void)std::fputs("nothing waits\n", stderr);
    return {};
  }
  // Shown is what the bytes say, not what they were made from.
  const fleet::Decoded decoded = fleet::Decode(message);
  if (decoded.verdict != fleet::Verdict::kGood) return Status::Failed(decoded.problem);
  if (options.format == "raw") {
    (void)std::fwrite(message.data(), 1, message.size(), stdout);
    return {};
  }
  std::vector<Json> records;
  RETURN_IF_ERROR(outgoing->ForEachRaw(decoded.batch,
                                       [&](const fleet::BatchRecord& record, std::string_view raw) {
                                         records.push_back(Compare(decoded.batch, record, raw));
                                       }));
  if (options.format == "json") {
    Print("{}\n", records::Dump(Describe(decoded.batch, records, message)));
  } else {
    PrintText(decoded.batch, records, message);
  }
  return {};
}

}  // namespace

void AddPreview(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand(
      "preview", "Show what the next batch would hold, as fields and as bytes, without a network");
  AddDeviceOptions(command, options.get());
  command.Choice("-o,--output", "FORMAT", "How to show it", {"text", "json", "raw"},
                 &options->format);
  command.OnRun([options] { return consent::Exit([&] { return Show(*options); }); });
}

}  // namespace velmora::usage_stat::uplink
