// Every record cut at every byte and with every byte changed to every value.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "tests/faults/failing_memory.h"
#include "tests/support/sample_records.h"

namespace usage_stat_test {
namespace {

using velmora::usage_stat::Event;

class SweepTest : public testing::Test {
 protected:
  SweepTest() { setenv("CORVANE_LOG_LEVEL", "0", 1); }

  static std::unique_ptr<Event> Read(const std::string& bytes) {
    std::istringstream in(bytes);
    return std::unique_ptr<Event>(Event::CreateFromStream(in));
  }

  const std::vector<SampleRecord> records_ = SampleRecords();
};

TEST_F(SweepTest, NoRecordReadsWhenItIsCutShort) {
  for (const SampleRecord& record : records_) {
    EXPECT_TRUE(Read(record.bytes)) << record.class_name;
    const FailingMemory memory(0, false);
    for (std::size_t size = 0; size < record.bytes.size(); ++size) {
      EXPECT_FALSE(Read(record.bytes.substr(0, size))) << record.class_name << ", " << size;
    }
    EXPECT_EQ(memory.held(), 0) << record.class_name;
  }
}

TEST_F(SweepTest, WhateverReadsWithAByteChangedCanBeWritten) {
  long read = 0;
  long changed = 0;
  for (const SampleRecord& record : records_) {
    std::string bytes = record.bytes;
    const FailingMemory memory(0, false);
    for (char& byte : bytes) {
      const char original = byte;
      for (int value = 0; value < 256; ++value, ++changed) {
        byte = static_cast<char>(value);
        const auto event = Read(bytes);
        if (!event) continue;
        ++read;
        std::ostringstream out;
        ASSERT_EQ(event->WriteToStream(out), 0) << record.class_name;
      }
      byte = original;
    }
    EXPECT_EQ(memory.held(), 0) << record.class_name;
  }
  EXPECT_GT(read, 0);
  EXPECT_GT(changed, read);
}

}  // namespace
}  // namespace usage_stat_test
