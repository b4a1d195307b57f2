// Where the time of a call goes before its bytes reach the transport, and what decoding costs.
//
// Links the library's units without their shared object, to reach the stages one by one.

#include <benchmark/benchmark.h>
#include <common_utilities/message_client.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "bench/counting.h"
#include "bench/harness.h"
#include "bench/messages.h"
#include "src/events/events.h"
#include "src/usage_stat_client/record_buffer.h"
#include "tests/support/sample_records.h"

namespace us = velmora::usage_stat;

// ---- A transport that costs nothing: it stands in for the platform's in this program. ----

namespace {
std::string* g_last_message = nullptr;
}

namespace velmora::utilities {
MessageClient::MessageClient() : address_(), address_length_(0), capacity_(0) {}
MessageClient::~MessageClient() = default;
int MessageClient::Init(const char*, unsigned int, unsigned int) { return 0; }
int MessageClient::SendMessage(const char* data, unsigned int size) {
  if (g_last_message) g_last_message->assign(data, size);
  return 0;
}
}  // namespace velmora::utilities

namespace {

using bench::Figures;

std::string RecordOf(int (*send)()) {
  std::string message;
  g_last_message = &message;
  send();
  g_last_message = nullptr;
  return message;
}

// ---- Decoding ----

// A read-only stream over bytes that belong to someone else.
class BytesBuffer : public std::streambuf {
 public:
  explicit BytesBuffer(const std::string& bytes) {
    char* const begin = const_cast<char*>(bytes.data());
    setg(begin, begin, begin + bytes.size());
  }
};

std::unique_ptr<us::Event> Decode(const std::string& bytes) {
  BytesBuffer buffer(bytes);
  std::istream in(&buffer);
  return std::unique_ptr<us::Event>(us::Event::CreateFromStream(in));
}

// ---- Encoding by hand: what one would write for these three records alone ----

// The bare minimum: straight into memory that is known to be large enough.
struct MemorySink {
  char* end;
  void Write(const void* bytes, std::size_t size) {
    std::memcpy(end, bytes, size);
    end += size;
  }
};

// The same onto the stream that the platform's contract works on.
struct StreamSink {
  std::ostream& out;
  void Write(const void* bytes, std::size_t size) {
    out.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  }
};

template <class Sink>
class HandEncoder {
 public:
  explicit HandEncoder(Sink* sink) : sink_(sink) {}

  template <class Number>
  HandEncoder& Put(Number number) {
    sink_->Write(&number, sizeof(number));
    return *this;
  }
  HandEncoder& Put(const std::string& text) {
    return Put(static_cast<std::uint32_t>(text.size())).PutBytes(text);
  }
  HandEncoder& Put(const std::vector<std::string>& texts) {
    Put(static_cast<std::uint32_t>(texts.size()));
    for (const std::string& text : texts) Put(text);
    return *this;
  }
  HandEncoder& PutBytes(const std::string& text) {
    sink_->Write(text.data(), text.size());
    return *this;
  }
  HandEncoder& PutEnvelope(const us::Event& event) {
    return Put(static_cast<std::int16_t>(event.type_)).Put(std::int64_t{event.timestamp_});
  }

 private:
  Sink* sink_;
};

template <class Sink>
void EncodeByHand(const us::ChangePageEvent& e, Sink* sink) {
  HandEncoder(sink).PutEnvelope(e).Put(e.a_).Put(e.b_).Put(e.c_).Put(e.d_).Put(e.e_);
}

template <class Sink>
void EncodeByHand(const us::OpenBookEvent& e, Sink* sink) {
  HandEncoder encoder(sink);
  encoder.PutEnvelope(e).Put(e.book_id_).PutBytes(e.language_).Put(e.first_list_).Put(e.c_);
  encoder.Put(e.second_list_).Put(static_cast<std::int16_t>(e.d_)).Put(e.e_).Put(e.f_).Put(e.g_);
  encoder.Put(e.h_).Put(e.file_name_).Put(e.i_).Put(e.j_).Put(e.k_).Put(e.l_);
}

template <class Sink>
void EncodeByHand(const us::NewBooksEventEx& e, Sink* sink) {
  HandEncoder encoder(sink);
  encoder.PutEnvelope(e).Put(e.count_);
  for (const us::NewBookRecord& r : e.records_) {
    encoder.Put(r.book_id_).PutBytes(r.language_).Put(r.first_list_).Put(r.file_type_);
    encoder.Put(r.second_list_).Put(r.n1_).Put(r.n2_).Put(r.file_name_).Put(r.s1_).Put(r.s2_);
    encoder.Put(r.isbn_).Put(r.s3_);
  }
  encoder.Put(e.application_);
}

// ---- The benchmarks ----

// Writes onto a stream like the one that a call makes for its record.
template <class Write>
std::string Written(const Write& write) {
  us::RecordBuffer buffer;
  std::ostream out(&buffer);
  write(out);
  return {buffer.data(), buffer.size()};
}

template <class Write>
void AddWriter(const std::string& name, const Write& write) {
  bench::AddLoop(name, [write] {
    us::RecordBuffer buffer;
    std::ostream out(&buffer);
    write(out);
    benchmark::DoNotOptimize(buffer.data());
  });
}

constexpr const char* kStreamAlone = "making the stream";

char g_memory[128 * 1024];

template <class EventClass>
std::size_t EncodeIntoMemory(const EventClass& event) {
  MemorySink sink{g_memory};
  EncodeByHand(event, &sink);
  benchmark::ClobberMemory();
  return static_cast<std::size_t>(sink.end - g_memory);
}

// Adds the stages of one message, whose event is given. All encoders must write what was sent.
template <class EventClass>
void AddStages(const bench::Message& message, std::shared_ptr<EventClass> event) {
  const auto library = [event](std::ostream& out) { event->WriteToStream(out); };
  const auto by_hand = [event](std::ostream& out) {
    StreamSink sink{out};
    EncodeByHand(*event, &sink);
  };
  const std::string expected = Written(library);
  const std::string in_memory(g_memory, EncodeIntoMemory(*event));
  if (Written(by_hand) != expected || in_memory != expected ||
      RecordOf(message.send).size() != expected.size()) {
    std::fprintf(stderr, "the encoders of %s differ\n", message.name);
    std::exit(1);
  }

  const std::string name = message.name;
  bench::AddLoop(name + "/call", [send = message.send] { send(); });
  AddWriter(name + "/serialise", library);
  AddWriter(name + "/by hand, stream", by_hand);
  bench::AddLoop(name + "/by hand, memory", [event] { EncodeIntoMemory(*event); });
}

void PrintStages(const Figures& figures) {
  bench::PrintHead({"message", "building", "serialising", "by hand, same stream", "ratio",
                    "by hand, bare memory", "ratio"},
                   1);
  for (const bench::Message& message : bench::kMessages) {
    const auto mean = [&](const char* stage) {
      return figures.Get(std::string(message.name) + "/" + stage, "mean");
    };
    const double serialise = mean("serialise");
    std::vector<std::string> cells = {message.name, bench::Cell(mean("call") - serialise, 0, " ns"),
                                      bench::Cell(serialise, 0, " ns")};
    for (const char* const stage : {"by hand, stream", "by hand, memory"}) {
      cells.push_back(bench::Cell(mean(stage), 0, " ns"));
      cells.push_back(bench::Cell(serialise / mean(stage), 2));
    }
    bench::PrintRow(cells);
  }
  std::printf("\nOf serialising, making the stream: %s\n",
              bench::Cell(figures.Get(kStreamAlone, "mean"), 0, " ns").c_str());
}

// ---- What a sender may ask of its descriptor before it sends ----

struct Look {
  const char* name;
  const char* tells;
  void (*ask)(int descriptor);
};

constexpr Look kLooks[] = {
    {"`fstat`", "the socket, by inode and device",
     [](int descriptor) {
       struct stat status;
       benchmark::DoNotOptimize(fstat(descriptor, &status));
     }},
    {"`getsockopt(SO_COOKIE)`", "the socket, by a number; Linux 4.6 and later",
     [](int descriptor) {
       std::uint64_t cookie = 0;
       socklen_t length = sizeof(cookie);
       benchmark::DoNotOptimize(getsockopt(descriptor, SOL_SOCKET, SO_COOKIE, &cookie, &length));
     }},
    {"`fcntl(F_GETFD)`", "nothing of the socket: the least that a call with a descriptor takes",
     [](int descriptor) { benchmark::DoNotOptimize(fcntl(descriptor, F_GETFD)); }},
};

void PrintLooks(const Figures& figures) {
  bench::PrintHead({"look at the descriptor", "tells", "time"}, 2);
  for (const Look& look : kLooks) {
    bench::PrintRow({look.name, look.tells, bench::Cell(figures.Get(look.name, "mean"), 0, " ns")});
  }
}

constexpr int kBatches[] = {1, 10, 25, 50, 100};

void PrintBatches(const Figures& figures) {
  bench::PrintHead({"books in a batch", "building and serialising", "for each book"}, 0);
  for (const int count : kBatches) {
    const double mean = figures.Get("batch/" + std::to_string(count), "mean");
    bench::PrintRow({std::to_string(count), bench::Cell(mean / 1000, 2, " us"),
                     bench::Cell(mean / count, 0, " ns")});
  }
}

void PrintDecoding(const std::vector<usage_stat_test::SampleRecord>& records,
                   const Figures& figures) {
  bench::PrintHead({"record", "bytes", "decoding", "records a second", "allocations"}, 1);
  for (const usage_stat_test::SampleRecord& record : records) {
    const double mean = figures.Get(record.class_name, "mean");
    const std::uint64_t before = bench::Allocations();
    Decode(record.bytes);
    const std::uint64_t allocations = bench::Allocations() - before;
    bench::PrintRow({record.class_name, std::to_string(record.bytes.size()),
                     bench::Cell(mean, 0, " ns"), bench::Cell(1e3 / mean, 2, " million"),
                     std::to_string(allocations)});
  }
}

std::shared_ptr<us::ChangePageEvent> PageTurn() {
  auto event = std::make_shared<us::ChangePageEvent>();
  usage_stat_test::SampleFiller().FillFields(event.get());
  return event;
}

template <class EventClass>
std::shared_ptr<EventClass> Sent(const bench::Message& message) {
  return std::dynamic_pointer_cast<EventClass>(
      std::shared_ptr<us::Event>(Decode(RecordOf(message.send))));
}

}  // namespace

int main(int argc, char** argv) {
  const auto& [page_turn, open_book, books] = bench::kMessages;
  AddWriter(kStreamAlone, [](std::ostream&) {});
  AddStages(page_turn, PageTurn());
  AddStages(open_book, Sent<us::OpenBookEvent>(open_book));
  AddStages(books, Sent<us::NewBooksEventEx>(books));
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (const Look& look : kLooks) {
    bench::AddLoop(look.name, [&look, descriptor] { look.ask(descriptor); });
  }
  for (const int count : kBatches) {
    bench::AddLoop("batch/" + std::to_string(count), [count] { bench::SendBooks(count); });
  }
  const std::vector<usage_stat_test::SampleRecord> records = usage_stat_test::SampleRecords();
  for (const usage_stat_test::SampleRecord& record : records) {
    if (!Decode(record.bytes)) {
      std::fprintf(stderr, "a record of %s does not read back\n", record.class_name);
      return 1;
    }
    bench::AddLoop(record.class_name, [&record] { Decode(record.bytes); });
  }

  const Figures figures = bench::Run(argc, argv);
  PrintStages(figures);
  std::puts("");
  PrintLooks(figures);
  std::puts("");
  PrintBatches(figures);
  std::puts("");
  PrintDecoding(records, figures);
}
