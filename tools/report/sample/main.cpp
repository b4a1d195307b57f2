// Makes a database of a reader who does not exist, to try the report and other tools on.
//
// usage: usage-stat-sample DATABASE [DAYS]    the last DAYS days; 30 unless given

#include <charconv>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

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
    batch_.quarantine.push_back({0,
                                 0,
                                 at_ms,
                                 {1310, 1000},
                                 "truncated",
                                 "field e (Int32) at offset 24 lacks 2 bytes",
                                 2032,
                                 "{}",
                                 "\xf0"});
    batch_.quarantine.push_back(
        {0, 0, at_ms, {1310, 1000}, "unknown type", "unknown type code 999", 999, "{}", "\xe7"});
    batch_.refused[{33, "user not allowed"}] = 4;
    batch_.received += 6;
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
