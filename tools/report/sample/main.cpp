// Makes a database of a reader who does not exist, to try the report and other tools on.
//
// usage: usage-stat-sample DATABASE [DAYS]    the last DAYS days; 30 unless given

#include <charconv>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tools/records/record.h"
#include "tools/report/sample/sample.h"
#include "tools/store/file.h"
#include "tools/store/writer.h"

using namespace velmora::usage_stat;

namespace {

// Collects rows and commits them in batches, as a collector does.
class Keeper {
 public:
  explicit Keeper(store::Writer* writer) : writer_(writer) {}

  void Take(store::RecordRow row) {
    constexpr std::size_t kBatchSize = 5000;
    ++batch_.received;
    batch_.records.push_back(std::move(row));
    if (batch_.records.size() == kBatchSize) Commit();
  }

  // What a faulty and a foreign sender leave behind.
  void TakeErrors(std::int64_t at_ms) {
    using namespace std::string_literals;
    const std::string time = "\xe8\x90\xe4\x0e\xa2\x01\0\0"s;
    for (const std::string& datagram : {"\xf0\x07"s + time + "cut short"s, "\xe7\x03"s + time}) {
      const auto decoded = records::Decode(datagram);
      const auto* damage = std::get_if<records::Damage>(&decoded);
      if (!damage) continue;
      ++batch_.received;
      batch_.quarantine.push_back({0,
                                   0,
                                   at_ms,
                                   {1310, 1000},
                                   std::string(damage->kind),
                                   damage->reason,
                                   damage->type,
                                   records::Dump(damage->fields),
                                   datagram});
    }
    batch_.refused[{33, "user not allowed"}] = 4;
    batch_.received += 4;
  }

  void Commit() {
    if (!status_.ok()) return;
    status_ = writer_->Commit(batch_);
    batch_ = {};
  }

  const store::Status& status() const { return status_; }

 private:
  store::Writer* writer_;
  store::Batch batch_;
  store::Status status_;
};

int Fail(int exit_code, const std::string& message) {
  std::cerr << message << '\n';
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view number = argc > 2 ? argv[2] : "30";
  int days = 0;
  std::from_chars(number.data(), number.data() + number.size(), days);
  if (argc < 2 || argc > 3 || days < 1) return Fail(2, "usage: usage-stat-sample DATABASE [DAYS]");

  // The library's readers log what is wrong with the damaged samples.
  setenv("CORVANE_LOG_LEVEL", "0", 0);
  std::unique_ptr<store::Writer> writer;
  if (auto status = store::Writer::Open(argv[1], "sample", &writer); !status.ok()) {
    return Fail(1, status.message);
  }
  Keeper keeper(writer.get());
  const std::int64_t now_ms = store::NowMs();
  report::SampleRecords(days, now_ms, [&](store::RecordRow row) { keeper.Take(std::move(row)); });
  keeper.TakeErrors(now_ms);
  keeper.Commit();
  store::Status status = keeper.status();
  if (status.ok()) status = writer->Finish();
  return status.ok() ? 0 : Fail(1, status.message);
}
