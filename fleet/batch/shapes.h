// Which shape a record is written in.

#ifndef FLEET_BATCH_SHAPES_H_
#define FLEET_BATCH_SHAPES_H_

#include <string>
#include <string_view>

#include "fleet/batch/batch.h"

namespace velmora::usage_stat::fleet {

// What a batch says of the envelope of a datagram, and where its payload begins.
constexpr std::size_t kEnvelopeSize = 10;

// Adds the record that `datagram` holds under `number`, and its shape when it is the first of it.
// `actions` is what the policy did to it. A record of an unknown type, or one that its class does
// not read, goes as the bytes it is. False, and nothing added, when not even the envelope is whole.
bool AddRecord(std::uint64_t number, std::string_view datagram, std::string_view actions,
               Batch* batch);

// The way back: the datagram of `record` in `batch`.
std::string DatagramOf(const Batch& batch, const BatchRecord& record);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_BATCH_SHAPES_H_
