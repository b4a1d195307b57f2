// Writes the inputs that the record fuzzers start from: one valid record of every class.
//
//   make_seeds FOLDER

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/support/sample_records.h"

int main(int argc, char** argv) {
  using namespace velmora::usage_stat;
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::vector<usage_stat_test::SampleRecord> records = usage_stat_test::SampleRecords();
  // The two shorter classes of codes that the factory knows by their longer ones.
  records.push_back(usage_stat_test::MakeSampleRecord<ChangePageEvent>("ChangePageEvent"));
  records.push_back(usage_stat_test::MakeSampleRecord<NewBooksEvent>("NewBooksEvent"));
  for (const usage_stat_test::SampleRecord& record : records) {
    std::ofstream(folder / record.class_name, std::ios::binary) << record.bytes;
  }
}
