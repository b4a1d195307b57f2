// What the library allocates, counted.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "common_utilities/message_client.h"
#include "common_utilities/serialization_utils.h"
#include "tests/support/receiver.h"

namespace {
int g_allocations = 0;
std::size_t g_largest = 0;
}  // namespace

// Kept out of line: seen through, GCC takes malloc and delete for a mismatched pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++g_allocations;
  g_largest = std::max(g_largest, size);
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using usage_stat_test::Receiver;
using velmora::utilities::MessageClient;
using velmora::utilities::SerializationUtils;

TEST(MemoryTest, HostileLengthsClaimLittleMoreThanWhatArrives) {
  const std::string largest_length(4, '\xff');
  for (const std::size_t arriving : {0U, 16U, 5'000U, 1'000'000U}) {
    // Empty texts, which give a list the most elements for its bytes.
    std::istringstream in(largest_length + std::string(arriving, '\0'));
    std::string text;
    g_largest = 0;
    EXPECT_NE(SerializationUtils::DeserializeString(in, &text), 0);
    EXPECT_LE(g_largest, 2 * arriving + 8192);
    EXPECT_EQ(text.size(), arriving);

    in.clear();
    in.seekg(0);
    std::vector<std::string> texts;
    g_largest = 0;
    EXPECT_NE(SerializationUtils::DeserializeStringVec(in, &texts), 0);
    EXPECT_LE(g_largest, 2 * sizeof(std::string) * (arriving / 4 + 1) + 8192);
  }
}

TEST(MemoryTest, SendingAllocatesNothing) {
  Receiver receiver;
  const std::string name = receiver.name();
  const int before = g_allocations;
  MessageClient client;
  EXPECT_EQ(client.Init(name.data(), static_cast<unsigned int>(name.size()), 100), 0);
  EXPECT_EQ(client.SendMessage("message", 7), 0);
  EXPECT_EQ(g_allocations, before);
}

}  // namespace
