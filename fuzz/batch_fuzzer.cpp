// Feeds anything to the reader of batches. The first byte tells whether the rest is a message, or
// the content of one, so that mutations reach what compression would hide.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fleet/batch/shapes.h"
#include "tests/support/batch_frame.h"

using namespace velmora::usage_stat::fleet;

namespace {

void Require(bool condition) {
  if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Decoded decoded =
      Decode(data[0] == 0 ? std::string(bytes) : usage_stat_test::MessageAround(bytes));
  Receipt receipt;
  if (DecodeReceipt(bytes, &receipt)) Require(DecodeReceipt(EncodeReceipt(receipt), &receipt));
  if (decoded.verdict != Verdict::kGood) {
    Require(!decoded.problem.empty());
    return 0;
  }

  // What was taken adds up, whatever its author wanted, and is the same when it is sent on.
  const Batch& batch = decoded.batch;
  std::uint64_t numbers = batch.records.size();
  for (const Run& run : batch.runs) numbers += run.last - run.first + 1;
  Require(numbers == batch.through - batch.after);
  std::string message;
  Require(Encode(batch, &message).empty());
  const Decoded again = Decode(message);
  Require(again.verdict == Verdict::kGood && again.batch.records.size() == batch.records.size());
  for (std::size_t i = 0; i < batch.records.size(); ++i) {
    Require(again.batch.records[i].number == batch.records[i].number);
    Require(DatagramOf(again.batch, again.batch.records[i]) == DatagramOf(batch, batch.records[i]));
  }
  return 0;
}
