#include "fleet/batch/batch.h"

#include <zstd.h>

#include <algorithm>
#include <utility>

#include "fleet/batch/columns.h"
#include "fleet/batch/wire.h"
#include "tools/base/text.h"

namespace velmora::usage_stat::fleet {

namespace {

constexpr std::string_view kBatchMagic = "USB";
constexpr std::string_view kReceiptMagic = "USR";
constexpr std::string_view kForgetMagic = "USF";
constexpr char kVersion = 1;

constexpr int kCompressionLevel = 19;  // batches are small, and every byte is sent by radio
constexpr std::size_t kMostRecords = 65536;
constexpr std::size_t kMostShapes = 255;
constexpr std::size_t kMostActions = 256;

// What precedes everything that travels: who wrote it and in which version.
void PutHead(std::string_view magic, std::string* out) {
  *out += magic;
  out->push_back(kVersion);
}

void PutId(const Id& id, std::string* out) { out->append(id.begin(), id.end()); }

Id TakeId(WireReader* in) {
  Id id{};
  const std::string_view bytes = in->Bytes(id.size());
  if (!bytes.empty()) std::ranges::copy(bytes, id.begin());
  return id;
}

bool TakeHead(std::string_view magic, WireReader* in) {
  return in->Bytes(magic.size()) == magic && in->Byte() == kVersion;
}

// ---- What a batch must be, on both sides ----

// Runs and records are checked together: they take turns, and nothing is left between them.
std::string CheckNumbers(const Batch& batch) {
  if (batch.store_first == 0) return "the store begins at 0";
  if (batch.after < batch.store_first - 1) return "the interval begins before the store";
  if (batch.through < batch.after) return "the interval ends before it begins";
  std::uint64_t next = batch.after + 1;
  auto record = batch.records.begin();
  for (const Run& run : batch.runs) {
    for (; record != batch.records.end() && record->number == next && next < run.first; ++record) {
      ++next;
    }
    if (run.first != next || run.last < run.first || run.last > batch.through) {
      return "records and runs do not add up";
    }
    next = run.last + 1;
  }
  for (; record != batch.records.end() && record->number == next; ++record) ++next;
  if (record != batch.records.end() || next != batch.through + 1) {
    return "records and runs do not add up";
  }
  std::uint64_t least = batch.after + 1;
  for (const ClockStep& step : batch.clock_steps) {
    if (step.record < least || step.record > batch.through) return "a clock step is out of place";
    least = step.record + 1;
  }
  return {};
}

std::string CheckShapes(const Batch& batch) {
  if (batch.shapes.size() > kMostShapes) return "too many shapes";
  for (const Shape& shape : batch.shapes) {
    if (!IsLayout(shape.layout)) return "a layout is none";
    const auto is_action = [](char action) {
      return static_cast<std::uint8_t>(action) <= static_cast<std::uint8_t>(Action::kPseudonym);
    };
    if (shape.actions.size() > kMostActions || !std::ranges::all_of(shape.actions, is_action)) {
      return "an action is none";
    }
  }
  return {};
}

std::string Check(const Batch& batch) {
  if (batch.level > Level::kFull) return "a level is none";
  if (batch.level == Level::kNone && !batch.records.empty()) return "records without consent";
  if (batch.through == ~std::uint64_t{0}) return "the interval ends too late";
  if (batch.records.size() > kMostRecords) return "too many records";
  if (std::string problem = CheckShapes(batch); !problem.empty()) return problem;
  return CheckNumbers(batch);
}

// ---- Content ----

std::string ContentOf(const Batch& batch) {
  std::string out;
  PutId(batch.id, &out);
  PutId(batch.store, &out);
  PutNumber(batch.store_first, &out);
  PutNumber(batch.after, &out);
  PutNumber(batch.through - batch.after, &out);
  out.push_back(static_cast<char>(batch.level));
  PutId(batch.policy, &out);
  PutSigned(batch.sent_ms, &out);

  PutNumber(batch.runs.size(), &out);
  std::uint64_t before = batch.after;
  for (const Run& run : batch.runs) {
    PutNumber(run.first - before - 1, &out);
    PutNumber(run.last - run.first, &out);
    out.push_back(static_cast<char>(run.reason));
    before = run.last;
  }
  PutNumber(batch.clock_steps.size(), &out);
  before = batch.after;
  for (const ClockStep& step : batch.clock_steps) {
    PutNumber(step.record - before, &out);
    PutSigned(step.step_ms, &out);
    before = step.record;
  }
  PutNumber(batch.shapes.size(), &out);
  for (const Shape& shape : batch.shapes) {
    PutSigned(shape.type, &out);
    PutNumber(shape.layout.size(), &out);
    out += shape.layout;
    PutNumber(shape.actions.size(), &out);
    out += shape.actions;
  }
  PutNumber(batch.records.size(), &out);

  std::vector<std::uint64_t> shapes;
  std::vector<std::uint64_t> times;
  std::vector<std::vector<std::string_view>> payloads(batch.shapes.size());
  for (const BatchRecord& record : batch.records) {
    shapes.push_back(record.shape);
    times.push_back(static_cast<std::uint64_t>(record.timestamp_ms));
    payloads[record.shape].push_back(record.payload);
  }
  PutNumbers(1, shapes, &out);
  PutNumbers(8, times, &out);
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    PutColumns(batch.shapes[i].layout, payloads[i], &out);
  }
  return out;
}

// Gives every record the next number that no run takes.
bool NumberRecords(Batch* batch) {
  std::uint64_t next = batch->after + 1;
  auto run = batch->runs.begin();
  for (BatchRecord& record : batch->records) {
    for (; run != batch->runs.end() && run->first == next; ++run) next = run->last + 1;
    if (next == 0) return false;
    record.number = next++;
  }
  return true;
}

std::string TakeContent(std::string_view content, Batch* batch) {
  WireReader in(content);
  batch->id = TakeId(&in);
  batch->store = TakeId(&in);
  batch->store_first = in.Number();
  batch->after = in.Number();
  const std::uint64_t span = in.Number();
  batch->through = batch->after + span;
  batch->level = static_cast<Level>(in.Byte());
  batch->policy = TakeId(&in);
  batch->sent_ms = in.Signed();
  if (in.failed()) return "the head is cut short";
  if (batch->through < batch->after) return "the interval ends too late";

  std::uint64_t before = batch->after;
  for (std::size_t left = in.Count(); left > 0 && !in.failed(); --left) {
    Run run;
    run.first = before + 1 + in.Number();
    run.last = run.first + in.Number();
    run.reason = static_cast<Reason>(in.Byte());
    if (run.first <= before || run.last < run.first) return "a run is out of place";
    before = run.last;
    batch->runs.push_back(run);
  }
  before = batch->after;
  for (std::size_t left = in.Count(); left > 0 && !in.failed(); --left) {
    const std::uint64_t record = before + in.Number();
    const std::int64_t step_ms = in.Signed();
    if (record <= before) return "a clock step is out of place";
    before = record;
    batch->clock_steps.push_back({record, step_ms});
  }
  std::size_t shapes = in.Count();
  if (shapes > kMostShapes) return "too many shapes";
  for (; shapes > 0 && !in.failed(); --shapes) {
    Shape shape;
    const std::int64_t type = in.Signed();
    shape.type = static_cast<std::int16_t>(type);
    if (shape.type != type) return "a type is none";
    shape.layout = in.Bytes(in.Number());
    shape.actions = in.Bytes(in.Number());
    batch->shapes.push_back(std::move(shape));
  }
  const std::uint64_t count = in.Number();
  if (in.failed()) return "runs, clock steps or shapes are cut short";
  if (count > kMostRecords) return "too many records";
  if (std::string problem = CheckShapes(*batch); !problem.empty()) return problem;

  const auto rows = static_cast<std::size_t>(count);
  std::vector<std::uint64_t> values;
  batch->records.resize(rows);
  if (!NumberRecords(batch)) return "records and runs do not add up";
  if (!TakeNumbers(1, rows, &in, &values)) return "the shapes of the records are cut short";
  std::vector<std::vector<std::string*>> payloads(batch->shapes.size());
  for (std::size_t i = 0; i < rows; ++i) {
    if (values[i] >= payloads.size()) return "a record has no shape";
    batch->records[i].shape = static_cast<std::size_t>(values[i]);
    payloads[batch->records[i].shape].push_back(&batch->records[i].payload);
  }
  if (!TakeNumbers(8, rows, &in, &values)) return "the times are cut short";
  for (std::size_t i = 0; i < rows; ++i) {
    batch->records[i].timestamp_ms = static_cast<std::int64_t>(values[i]);
  }
  std::size_t budget = kLargestContent;
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    if (!TakeColumns(batch->shapes[i].layout, &in, &budget, payloads[i])) {
      return "the payloads of type " + std::to_string(batch->shapes[i].type) + " are cut short";
    }
  }
  return in.left() == 0 ? std::string() : "bytes are left over";
}

// The content of a frame that fills `frame`, if it declares no more than we take.
std::string Unpack(std::string_view frame, std::string* content) {
  const unsigned long long size = ZSTD_getFrameContentSize(frame.data(), frame.size());
  if (size == ZSTD_CONTENTSIZE_ERROR) return "no frame";
  if (size == ZSTD_CONTENTSIZE_UNKNOWN) return "the frame does not declare its size";
  if (size > kLargestContent) return "the frame declares too much";
  if (ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size()) {
    return "the frame does not end where the message does";
  }
  content->resize(static_cast<std::size_t>(size));
  const std::size_t unpacked =
      ZSTD_decompress(content->data(), content->size(), frame.data(), frame.size());
  return unpacked == content->size() ? std::string() : "the frame is damaged";
}

}  // namespace

std::string Encode(const Batch& batch, std::string* message) {
  if (std::string problem = Check(batch); !problem.empty()) return problem;
  for (const BatchRecord& record : batch.records) {
    if (record.shape >= batch.shapes.size()) return "a record has no shape";
    if (!Fits(batch.shapes[record.shape].layout, record.payload)) return "a payload does not fit";
  }
  const std::string content = ContentOf(batch);
  if (content.size() > kLargestContent) return "the batch is too large";

  message->clear();
  PutHead(kBatchMagic, message);
  const std::size_t head = message->size();
  message->resize(head + ZSTD_compressBound(content.size()));
  const std::size_t size = ZSTD_compress(message->data() + head, message->size() - head,
                                         content.data(), content.size(), kCompressionLevel);
  if (ZSTD_isError(size)) return ZSTD_getErrorName(size);
  message->resize(head + size);
  return message->size() > kLargestMessage ? "the batch is too large" : std::string();
}

Decoded Decode(std::string_view message) {
  Decoded decoded;
  WireReader in(message);
  if (message.size() > kLargestMessage || in.Bytes(kBatchMagic.size()) != kBatchMagic) {
    decoded.problem = "no batch";
    return decoded;
  }
  if (const int version = in.Byte(); version != kVersion) {
    decoded.verdict = version > kVersion ? Verdict::kNewer : Verdict::kMalformed;
    decoded.problem = "version " + std::to_string(version) + " is unknown";
    return decoded;
  }
  std::string content;
  decoded.problem = Unpack(in.Bytes(in.left()), &content);
  if (decoded.problem.empty()) decoded.problem = TakeContent(content, &decoded.batch);
  if (decoded.problem.empty()) decoded.problem = Check(decoded.batch);
  if (decoded.problem.empty()) decoded.verdict = Verdict::kGood;
  return decoded;
}

std::string EncodeReceipt(const Receipt& receipt) {
  std::string out;
  PutHead(kReceiptMagic, &out);
  PutId(receipt.batch, &out);
  out.push_back(static_cast<char>(receipt.answer));
  PutId(receipt.store, &out);
  PutNumber(receipt.cursor, &out);
  return out;
}

bool DecodeReceipt(std::string_view message, Receipt* receipt) {
  WireReader in(message);
  if (!TakeHead(kReceiptMagic, &in)) return false;
  receipt->batch = TakeId(&in);
  receipt->answer = static_cast<Answer>(in.Byte());
  receipt->store = TakeId(&in);
  receipt->cursor = in.Number();
  return !in.failed() && in.left() == 0 && receipt->answer <= Answer::kForgotten;
}

std::string EncodeForget(const Id& request) {
  std::string out;
  PutHead(kForgetMagic, &out);
  PutId(request, &out);
  return out;
}

bool DecodeForget(std::string_view message, Id* request) {
  WireReader in(message);
  if (!TakeHead(kForgetMagic, &in)) return false;
  *request = TakeId(&in);
  return !in.failed() && in.left() == 0;
}

std::string ToText(const Id& id) { return base::ToHex(std::string(id.begin(), id.end())); }

bool FromText(std::string_view text, Id* id) {
  const std::string bytes = base::FromHex(text).value_or("");
  Id found{};
  if (bytes.size() != found.size()) return false;
  std::ranges::copy(bytes, found.begin());
  if (ToText(found) != text) return false;  // an id has one spelling: no blanks, no upper case
  *id = found;
  return true;
}

}  // namespace velmora::usage_stat::fleet
