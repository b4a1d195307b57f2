// What the fleet must hold of a device in the end: each record of the device's database that may
// leave, as store, number and payload after policy. Made of policy and consent alone: nothing of
// what sends has a part in it.
//
//   fleet_expected --state FOLDER --database FILE --policy FILE

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "fleet/batch/batch.h"
#include "fleet/batch/shapes.h"
#include "fleet/consent/commands.h"
#include "fleet/consent/device.h"
#include "fleet/consent/rewrite.h"
#include "fleet/consent/state.h"
#include "tools/base/text.h"
#include "tools/store/reader.h"

using namespace velmora::usage_stat;

namespace {

base::Status Print(const consent::DeviceOptions& options) {
  std::unique_ptr<consent::State> state;
  std::unique_ptr<store::History> history;
  consent::Policy shipped;
  consent::Numbers numbers;
  RETURN_IF_ERROR(consent::State::Open(consent::StatePath(options.folder),
                                       consent::State::Mode::kRead, &state));
  RETURN_IF_ERROR(consent::Policy::Load(options.policy, &shipped));
  RETURN_IF_ERROR(consent::ReadNumbers(options.database, &numbers));
  RETURN_IF_ERROR(store::History::Open(options.database, &history));
  base::Status status;
  const auto print = [&](const store::RecordRow& row) {
    fleet::Id id{};
    for (const auto& live : numbers.live) {
      if (live.first <= row.id) id = live.id;
    }
    std::vector<consent::Span> spans;
    status = state->SpansOf(id, row.id, row.id, shipped, &spans);
    if (!status.ok() || spans.empty() || !spans[0].table) return status.ok();
    const records::RecordType* type = nullptr;
    const auto datagram = consent::Rewriter(spans[0].table, state->key()).Rewrite(row.raw, &type);
    if (datagram) {
      std::printf("%s %lld %s\n", fleet::ToText(consent::Pseudonyms(state->key()).Of(id)).c_str(),
                  static_cast<long long>(row.id),
                  base::ToHex(datagram->substr(fleet::kEnvelopeSize)).c_str());
    }
    return true;
  };
  RETURN_IF_ERROR(history->ForEach({}, print));
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  setenv("CORVANE_LOG_LEVEL", "0", 0);
  CommandLine line("fleet_expected", "What the fleet must hold of a device.", "0");
  consent::DeviceOptions options;
  consent::AddDeviceOptions(line.main(), &options);
  line.main().OnRun([&] { return consent::Exit([&] { return Print(options); }); });
  return line.Run(argc, argv);
}
