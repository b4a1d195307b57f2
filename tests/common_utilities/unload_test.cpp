// An application may load and unload the library while it runs.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "common_utilities/message_client.h"
#include "tests/support/child.h"
#include "tests/support/receiver.h"

namespace {

using velmora::utilities::MessageClient;

int LowestFreeDescriptor() {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(descriptor);
  return descriptor;
}

TEST(UnloadTest, LeavesNeitherDescriptorNorForkHandlerBehind) {
  usage_stat_test::Receiver receiver;
  const std::string name = receiver.name();
  const int free_before = LowestFreeDescriptor();

  void* const library = dlopen(LIBRARY_UNDER_TEST, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto init = reinterpret_cast<int (*)(void*, const char*, unsigned int, unsigned int)>(
      dlsym(library, "_ZN7velmora9utilities13MessageClient4InitEPKcjj"));
  const auto send = reinterpret_cast<int (*)(void*, const char*, unsigned int)>(
      dlsym(library, "_ZN7velmora9utilities13MessageClient11SendMessageEPKcj"));
  ASSERT_TRUE(init && send);
  alignas(MessageClient) std::byte client[sizeof(MessageClient)] = {};
  EXPECT_EQ(init(client, name.data(), static_cast<unsigned int>(name.size()), 100), 0);
  EXPECT_EQ(send(client, "message", 7), 0);
  EXPECT_GT(LowestFreeDescriptor(), free_before);

  dlclose(library);
  EXPECT_EQ(dlopen(LIBRARY_UNDER_TEST, RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_EQ(LowestFreeDescriptor(), free_before);
  EXPECT_EQ(usage_stat_test::Child([] { return 0; }).Wait(), 0);
}

}  // namespace
