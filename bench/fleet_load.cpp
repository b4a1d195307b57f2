// Devices that do nothing but send: each has its own connection, sends one batch of sample records
// after the other, and waits for each receipt. Prints what that took, and what a record weighs.
//
//   fleet_load PORT DEVICES BATCHES RECORDS

#include <openssl/rand.h>
#include <zstd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fleet/batch/shapes.h"
#include "fleet/transport/channel.h"
#include "tools/base/text.h"
#include "tools/sample/person.h"

using namespace velmora::usage_stat;

namespace {

constexpr int kPatienceMs = 60'000;

struct Load {
  int port = 0;
  int devices = 0;
  int batches = 0;  // of each device
  int records = 0;  // in each batch
};

fleet::Id Draw() {
  fleet::Id id{};
  if (RAND_bytes(id.data(), static_cast<int>(id.size())) != 1) abort();
  return id;
}

[[noreturn]] void Fail(const std::string& problem) {
  std::fprintf(stderr, "fleet_load: %s\n", problem.c_str());
  std::exit(1);
}

void Check(const base::Status& status) {
  if (!status.ok()) Fail(status.message);
}

struct Message {
  fleet::Id id{};
  std::string bytes;
};

// All that a sample person's device sends in some years.
std::vector<std::string> LifeOf(int number) {
  constexpr int kDays = 1500;
  constexpr std::int64_t kDayMs = 86'400'000;
  std::vector<std::string> datagrams;
  sample::Person person(1, number, kDays, [&](const Event&, std::string_view datagram) {
    datagrams.emplace_back(datagram);
  });
  for (int day = 0; day < kDays; ++day) {
    person.Live(day, day % 7, (20'000 + day) * kDayMs, INT64_MAX);
  }
  return datagrams;
}

// Batches of one device, cut from that; it begins anew when it is over.
std::vector<Message> MakeMessages(const Load& load, const std::vector<std::string>& datagrams) {
  std::size_t from = 0;
  std::vector<Message> messages;
  const fleet::Id store = Draw();
  const fleet::Id policy = Draw();
  std::uint64_t number = 0;
  for (int i = 0; i < load.batches; ++i) {
    fleet::Batch batch;
    batch.id = Draw();
    batch.store = store;
    batch.policy = policy;
    batch.level = fleet::Level::kFull;
    batch.store_first = 1;
    batch.after = number;
    batch.sent_ms = 1'790'000'000'000 + i;
    for (int record = 0; record < load.records; ++record) {
      if (!fleet::AddRecord(++number, datagrams[from++ % datagrams.size()], "", &batch)) {
        Fail("a sample is no datagram");
      }
    }
    batch.through = number;
    Message message{batch.id, {}};
    if (std::string problem = fleet::Encode(batch, &message.bytes); !problem.empty()) Fail(problem);
    messages.push_back(std::move(message));
  }
  return messages;
}

// Every ingester answers a batch where subscriptions are not shared: those that were later with the
// batch before are passed over.
void AwaitReceipt(fleet::Channel* channel, const fleet::Id& id) {
  for (;;) {
    std::vector<fleet::Message> received;
    Check(channel->Receive(kPatienceMs, 1, &received));
    if (received.empty()) Fail("no receipt");
    for (const fleet::Message& message : received) {
      fleet::Receipt receipt;
      if (!fleet::DecodeReceipt(message.payload, &receipt)) Fail("a receipt is none");
      if (receipt.batch != id) continue;
      if (receipt.answer != fleet::Answer::kStored) Fail("a batch was not stored");
      return;
    }
  }
}

void RunDevice(const Load& load, const std::vector<Message>& messages) {
  const std::string name = fleet::ToText(Draw());
  fleet::BrokerOptions options;
  options.host = "127.0.0.1";
  options.port = load.port;
  options.client_id = name;
  std::unique_ptr<fleet::Channel> channel;
  Check(fleet::Channel::Open(options, kPatienceMs, &channel));
  Check(channel->Follow(fleet::DownTopic(name), kPatienceMs));
  for (const Message& message : messages) {
    Check(channel->Send(fleet::UpTopic(name), message.bytes));
    AwaitReceipt(channel.get(), message.id);
  }
  channel->Close();
}

// What the same records weigh as rows, compressed alike.
double RowsPerRecord(const Load& load, const std::vector<std::string>& datagrams) {
  std::string rows;
  for (int record = 0; record < load.records; ++record) {
    rows += datagrams[static_cast<std::size_t>(record) % datagrams.size()];
  }
  std::string out(ZSTD_compressBound(rows.size()), '\0');
  constexpr int kLevel = 19;
  return static_cast<double>(
             ZSTD_compress(out.data(), out.size(), rows.data(), rows.size(), kLevel)) /
         load.records;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) Fail("usage: fleet_load PORT DEVICES BATCHES RECORDS");
  const Load load{std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4])};
  std::vector<std::vector<Message>> messages;
  std::size_t bytes = 0;
  double rows = 0;
  for (int device = 0; device < load.devices; ++device) {
    const std::vector<std::string> datagrams = LifeOf(device);
    messages.push_back(MakeMessages(load, datagrams));
    rows += RowsPerRecord(load, datagrams) / load.devices;
    for (const Message& message : messages.back()) bytes += message.bytes.size();
  }
  const auto began = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (const auto& each : messages) threads.emplace_back(RunDevice, load, each);
  for (std::thread& thread : threads) thread.join();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;

  const double records = static_cast<double>(load.devices) * load.batches * load.records;
  std::printf("%.0f %.3f %.2f %.2f\n", records, took.count(), static_cast<double>(bytes) / records,
              rows);
}
