#include "tools/collector/sorter.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>
#include <variant>

#include "src/stat_event/event_factory.h"
#include "tools/base/system.h"
#include "tools/records/record.h"
#include "tools/records/text.h"

namespace velmora::usage_stat::collector {

namespace {

// A datagram that no sender of ours can have sent, whatever it holds.
records::Damage TooLong(std::size_t size) {
  records::Damage damage;
  damage.kind = records::kTooLong;
  damage.reason = fmt::format("longer than any message ({} bytes)", base::kLargestMessage);
  if (size > kKeptBytes) damage.reason += fmt::format(", the first {} are kept", kKeptBytes);
  return damage;
}

}  // namespace

store::Batch Sorter::Sort(std::vector<Datagram>* datagrams) {
  store::Batch batch;
  batch.records.reserve(datagrams->size());
  for (Datagram& datagram : *datagrams) {
    ++totals_.received;
    if (datagram.is_refused) {
      Refuse(datagram, &batch);
    } else if (datagram.is_off) {
      Drop(datagram, &batch);
    } else if (datagram.size > base::kLargestMessage) {
      Quarantine(&datagram, TooLong(datagram.size), &batch);
    } else if (const auto decoded = records::Decode(datagram.bytes);
               const auto* record = std::get_if<records::Record>(&decoded)) {
      Keep(&datagram, *record, &batch);
    } else {
      Quarantine(&datagram, std::get<records::Damage>(decoded), &batch);
    }
  }
  return batch;
}

bool Sorter::TakeRotationRequest() { return std::exchange(is_rotation_requested_, false); }

void Sorter::Refuse(const Datagram& datagram, store::Batch* batch) {
  ++totals_.refused;
  ++batch->refused[{datagram.sender.uid, store::kUserNotAllowed}];
  flood_.Tell(fmt::format("refused: {} bytes from pid {} uid {}: this user may not send",
                          datagram.size, datagram.sender.pid, datagram.sender.uid));
}

// Nobody is told of single ones: the log would say when the device is used.
void Sorter::Drop(const Datagram& datagram, store::Batch* batch) {
  ++totals_.off;
  ++batch->off[{datagram.sender.uid, ""}];
}

void Sorter::Keep(Datagram* datagram, const records::Record& record, store::Batch* batch) {
  ++totals_.decoded;
  if (record.type == EventFactory::kForceRotation) is_rotation_requested_ = true;
  if (view_) Show(record, datagram->sender);
  batch->records.push_back({0, datagram->received_ms, datagram->sender, record.type,
                            std::string(record.event), record.timestamp,
                            records::Dump(record.values), std::move(datagram->bytes)});
}

void Sorter::Quarantine(Datagram* datagram, const records::Damage& damage, store::Batch* batch) {
  ++totals_.quarantined;
  flood_.Tell(fmt::format("undecodable: {} bytes from pid {} uid {}: {}", datagram->size,
                          datagram->sender.pid, datagram->sender.uid, damage.reason));
  const std::size_t kept = TakeAllowance(datagram->bytes.size());
  if (kept == 0) {
    ++batch->not_kept[{datagram->sender.uid, std::string(damage.kind)}];
    return;
  }
  if (kept < datagram->bytes.size()) datagram->bytes.resize(kept);
  batch->quarantine.push_back(
      {0, 0, datagram->received_ms, datagram->sender, std::string(damage.kind), damage.reason,
       damage.type, static_cast<std::int64_t>(datagram->size), std::move(datagram->bytes)});
}

std::size_t Sorter::TakeAllowance(std::size_t wanted) {
  // A row takes some bytes beside the datagram's own; and the front of one tells what it was.
  constexpr std::int64_t kRow = 256;
  constexpr std::size_t kFront = 256;
  const auto now = std::chrono::steady_clock::now();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - allowed_at_);
  if (seconds.count() > 0) {
    allowance_ = std::min(kMostAllowance, allowance_ + seconds.count() * kAllowancePerSecond);
    allowed_at_ = now;
  }
  for (const std::size_t kept : {wanted, std::min(wanted, kFront)}) {
    const std::int64_t price = kRow + static_cast<std::int64_t>(kept);
    if (price > allowance_) continue;
    allowance_ -= price;
    return std::max<std::size_t>(kept, 1);
  }
  return 0;
}

void Sorter::Show(const records::Record& record, const store::Sender& sender) {
  if (format_ == Format::kText) {
    std::string line = fmt::format("{} {}", records::LocalTime(record.timestamp), record.event);
    line += records::FieldsLine(*records::FindEvent(record.event), record.values);
    view_->Show(std::move(line));
    return;
  }
  records::Json json = records::ToJson(record);
  json["pid"] = sender.pid;
  json["uid"] = sender.uid;
  view_->Show(records::Dump(json));
}

}  // namespace velmora::usage_stat::collector
