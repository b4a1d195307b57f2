#include "fleet/uplink/outbox.h"

#include <openssl/rand.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace velmora::usage_stat::uplink {

using base::Status;

namespace {

// Beside the tables of consent, in the one file that the uplink writes.
constexpr const char* kTables = R"sql(
CREATE TABLE IF NOT EXISTS cursors(store BLOB PRIMARY KEY, cursor INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS forks(
  store BLOB NOT NULL,
  above INTEGER NOT NULL,
  id BLOB NOT NULL,
  PRIMARY KEY(store, above)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS pending(
  one INTEGER PRIMARY KEY CHECK(one = 1),
  id BLOB NOT NULL,
  store BLOB NOT NULL,
  after INTEGER NOT NULL,
  through INTEGER NOT NULL,
  drawn_ms INTEGER NOT NULL,
  refusals INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS visits(
  one INTEGER PRIMARY KEY CHECK(one = 1),
  last_ms INTEGER NOT NULL,
  last_success_ms INTEGER NOT NULL,
  failures INTEGER NOT NULL,
  next_ms INTEGER NOT NULL,
  day INTEGER NOT NULL,
  sent_bytes INTEGER NOT NULL,
  trouble TEXT NOT NULL);
)sql";

constexpr const char* kHasTables =
    "SELECT count(*) FROM sqlite_master WHERE name = 'cursors' AND type = 'table'";

std::string_view View(const fleet::Id& id) {
  return {reinterpret_cast<const char*>(id.data()), id.size()};
}

fleet::Id IdOf(std::string_view bytes) {
  fleet::Id id{};
  if (bytes.size() == id.size()) std::ranges::copy(bytes, id.begin());
  return id;
}

Status DrawId(fleet::Id* id) {
  if (RAND_bytes(id->data(), static_cast<int>(id->size())) == 1) return {};
  return Status::Failed("the system gives no random numbers");
}

std::int64_t Signed(std::uint64_t number) { return static_cast<std::int64_t>(number); }

}  // namespace

Status Outbox::Open(consent::State* state, Outgoing* outgoing, bool can_write,
                    std::unique_ptr<Outbox>* outbox) {
  outbox->reset(new Outbox(state, outgoing));
  if (can_write) RETURN_IF_ERROR(state->connection()->Execute(kTables));
  return (*outbox)->Read();
}

Status Outbox::Read() {
  segments_.clear();
  pending_.reset();
  std::int64_t has_tables = 0;
  RETURN_IF_ERROR(state_->connection()->Read(kHasTables, &has_tables));
  if (has_tables == 0) {
    for (const StoreRange& store : outgoing_->stores()) {
      segments_.push_back({store, NameOf(store), store.first - 1});
    }
    return {};
  }
  for (const StoreRange& store : outgoing_->stores()) RETURN_IF_ERROR(Split(store));

  store::Statement select;
  RETURN_IF_ERROR(state_->connection()->Prepare(
      "SELECT id, store, after, through, drawn_ms, refusals FROM pending", &select));
  if (select.Step()) {
    pending_ = {IdOf(select.Text(0)),
                IdOf(select.Text(1)),
                static_cast<std::uint64_t>(select.Int(2)),
                static_cast<std::uint64_t>(select.Int(3)),
                select.Int(4),
                select.Int(5)};
  }
  RETURN_IF_ERROR(select.status());
  // A store that is gone, damaged and set aside perhaps, can't be read again.
  if (pending_ && !SegmentOf(pending_->store)) pending_.reset();

  RETURN_IF_ERROR(state_->connection()->Prepare(
      "SELECT last_ms, last_success_ms, failures, next_ms, day, sent_bytes, trouble FROM visits",
      &select));
  if (select.Step()) {
    visits_ = {select.Int(0),
               select.Int(1),
               select.Int(2),
               select.Int(3),
               select.Int(4),
               select.Int(5),
               std::string(select.Text(6))};
  }
  return select.status();
}

fleet::Id Outbox::NameOf(const StoreRange& store) const {
  return consent::Pseudonyms(state_->key()).Of(store.id);
}

// The parts of a store: up to where it was first called forked, from there to the next time, ...
Status Outbox::Split(const StoreRange& store) {
  const std::size_t begin = segments_.size();
  segments_.push_back({store, NameOf(store), store.first - 1});
  store::Statement select;
  RETURN_IF_ERROR(state_->connection()->Prepare(
      "SELECT above, id FROM forks WHERE store = ? ORDER BY above", &select));
  select.BindBlob(1, View(store.id));
  while (select.Step()) {
    const auto above = static_cast<std::uint64_t>(select.Int(0));
    Segment& before = segments_.back();
    before.range.last = std::min(before.range.last, above);
    segments_.push_back({{store.id, above + 1, store.last}, IdOf(select.Text(1)), above});
  }
  RETURN_IF_ERROR(select.status());
  RETURN_IF_ERROR(
      state_->connection()->Prepare("SELECT cursor FROM cursors WHERE store = ?", &select));
  for (std::size_t i = begin; i < segments_.size(); ++i) {
    select.BindBlob(1, View(segments_[i].id));
    if (select.Step()) {
      segments_[i].cursor =
          std::max(segments_[i].cursor, static_cast<std::uint64_t>(select.Int(0)));
    }
    RETURN_IF_ERROR(select.status());
    select.Reset();
  }
  return {};
}

Outbox::Segment* Outbox::SegmentOf(const fleet::Id& id) {
  const auto segment =
      std::ranges::find_if(segments_, [&](const Segment& each) { return each.id == id; });
  return segment == segments_.end() ? nullptr : &*segment;
}

const Outbox::Segment* Outbox::NextSegment() const {
  const auto segment = std::ranges::find_if(
      segments_, [](const Segment& each) { return each.cursor < each.range.last; });
  return segment == segments_.end() ? nullptr : &*segment;
}

std::uint64_t Outbox::waiting() const {
  std::uint64_t numbers = 0;
  for (const Segment& segment : segments_) {
    if (segment.cursor < segment.range.last) numbers += segment.range.last - segment.cursor;
  }
  return numbers;
}

Status Outbox::Ask(fleet::Batch* question) const {
  *question = {};
  const Segment* segment = NextSegment();
  if (pending_) segment = const_cast<Outbox*>(this)->SegmentOf(pending_->store);
  if (!segment) return {};
  question->store = segment->id;
  question->store_first = segment->range.first;
  question->after = question->through = segment->cursor;
  if (!pending_) return DrawId(&question->id);
  question->id = pending_->id;
  return {};
}

// Halves a batch that compresses too badly until it fits.
Status Outbox::FillNew(const Segment& segment, Outgoing::Limits limits, std::int64_t now_ms,
                       Prepared* prepared) {
  for (;; limits.records /= 2) {
    RETURN_IF_ERROR(
        outgoing_->Fill(segment.range, segment.cursor, limits, now_ms, &prepared->batch));
    prepared->batch.store = segment.id;
    const std::string problem = fleet::Encode(prepared->batch, &prepared->message);
    if (problem.empty()) return {};
    if (limits.records <= 1) return Status::Failed("cannot make a batch: " + problem);
  }
}

Status Outbox::Prepare(const Outgoing::Limits& limits, std::int64_t now_ms, Prepared* prepared) {
  *prepared = {};
  // Consent that is taken back ends a visit that is under way.
  RETURN_IF_ERROR(state_->Refresh());
  if (state_->level() == consent::Level::kNone) return {};
  if (!pending_) {
    const Segment* segment = NextSegment();
    if (!segment) return {};
    RETURN_IF_ERROR(FillNew(*segment, limits, now_ms, prepared));
    if (prepared->batch.is_question()) return prepared->message.clear(), Status();
    Pending drawn{{}, segment->id, prepared->batch.after, prepared->batch.through, now_ms, 0};
    RETURN_IF_ERROR(DrawId(&drawn.id));
    RETURN_IF_ERROR(SavePending(drawn));
  } else {
    const Segment& segment = *SegmentOf(pending_->store);
    RETURN_IF_ERROR(outgoing_->FillAgain(segment.range, pending_->after, pending_->through,
                                         pending_->drawn_ms, &prepared->batch));
    prepared->batch.store = segment.id;
  }
  prepared->batch.id = pending_->id;
  const std::string problem = fleet::Encode(prepared->batch, &prepared->message);
  return problem.empty() ? Status() : Status::Failed("cannot make the batch again: " + problem);
}

Status Outbox::Take(const fleet::Receipt& receipt, const fleet::Batch& sent, Effect* effect) {
  *effect = Effect::kNone;
  if (receipt.answer == fleet::Answer::kForgotten) {
    if (receipt.batch == sent.id) *effect = Effect::kForgotten;
    return {};
  }
  // What could not be read as a batch is answered without its ids; nothing else of ours is under
  // way.
  const bool is_nameless =
      receipt.batch == fleet::Id{} && receipt.store == fleet::Id{} &&
      (receipt.answer == fleet::Answer::kRefused || receipt.answer == fleet::Answer::kLater);
  if (!is_nameless && (receipt.batch != sent.id || receipt.store != sent.store)) return {};
  Segment* segment = SegmentOf(sent.store);
  if (!segment) return {};
  switch (receipt.answer) {
    case fleet::Answer::kStored:
      if (!pending_ || pending_->id != sent.id) return {};
      *effect = Effect::kMoved;
      return MoveCursor(segment, pending_->through);
    case fleet::Answer::kCursor:
      // The answer to a question is no answer to the batch that followed it under the same id.
      if (receipt.cursor == segment->cursor) {
        if (sent.is_question()) *effect = Effect::kGoOn;
        return {};
      }
      if (receipt.cursor > segment->cursor || receipt.cursor + 1 < segment->range.first) return {};
      *effect = Effect::kMoved;
      return MoveCursor(segment, receipt.cursor);
    case fleet::Answer::kForked:
      *effect = Effect::kMoved;
      return Fork(*segment);
    case fleet::Answer::kRefused:
      *effect = Effect::kRefused;
      if (!pending_) return {};
      ++pending_->refusals;
      return SavePending(pending_);
    case fleet::Answer::kLater:
      *effect = Effect::kLater;
      return {};
    case fleet::Answer::kForgotten:
      break;
  }
  return {};
}

// Moves a cursor and ends what was pending, both or neither.
Status Outbox::MoveCursor(Segment* segment, std::uint64_t cursor) {
  store::Transaction transaction(state_->connection());
  store::Statement put;
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(state_->connection()->Prepare(
      "INSERT OR REPLACE INTO cursors(store, cursor) VALUES(?, ?)", &put));
  RETURN_IF_ERROR(put.BindBlob(1, View(segment->id)).Bind(2, Signed(cursor)).Run());
  RETURN_IF_ERROR(state_->connection()->Execute("DELETE FROM pending"));
  RETURN_IF_ERROR(transaction.Commit());
  segment->cursor = cursor;
  pending_.reset();
  return {};
}

// All above the cursor travels under a new id from now on.
Status Outbox::Fork(const Segment& segment) {
  fleet::Id id{};
  RETURN_IF_ERROR(DrawId(&id));
  store::Transaction transaction(state_->connection());
  store::Statement put;
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(state_->connection()->Prepare(
      "INSERT OR REPLACE INTO forks(store, above, id) VALUES(?, ?, ?)", &put));
  RETURN_IF_ERROR(put.BindBlob(1, View(segment.range.id))
                      .Bind(2, Signed(segment.cursor))
                      .BindBlob(3, View(id))
                      .Run());
  RETURN_IF_ERROR(state_->connection()->Execute("DELETE FROM pending"));
  RETURN_IF_ERROR(transaction.Commit());
  return Read();
}

Status Outbox::SavePending(const std::optional<Pending>& pending) {
  store::Statement put;
  RETURN_IF_ERROR(state_->connection()->Prepare(
      "INSERT OR REPLACE INTO pending(one, id, store, after, through, drawn_ms, refusals) "
      "VALUES(1, ?, ?, ?, ?, ?, ?)",
      &put));
  RETURN_IF_ERROR(put.BindBlob(1, View(pending->id))
                      .BindBlob(2, View(pending->store))
                      .Bind(3, Signed(pending->after))
                      .Bind(4, Signed(pending->through))
                      .Bind(5, pending->drawn_ms)
                      .Bind(6, pending->refusals)
                      .Run());
  pending_ = pending;
  return {};
}

Status Outbox::Save(const Visits& visits) {
  visits_ = visits;
  store::Statement put;
  RETURN_IF_ERROR(state_->connection()->Prepare(
      "INSERT OR REPLACE INTO visits(one, last_ms, last_success_ms, failures, next_ms, day, "
      "sent_bytes, trouble) VALUES(1, ?, ?, ?, ?, ?, ?, ?)",
      &put));
  return put.Bind(1, visits.last_ms)
      .Bind(2, visits.last_success_ms)
      .Bind(3, visits.failures)
      .Bind(4, visits.next_ms)
      .Bind(5, visits.day)
      .Bind(6, visits.sent_bytes)
      .Bind(7, std::string_view(visits.trouble))
      .Run();
}

}  // namespace velmora::usage_stat::uplink
