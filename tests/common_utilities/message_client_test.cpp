#include "common_utilities/message_client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/support/receiver.h"

namespace {

using usage_stat_test::Receiver;
using velmora::utilities::MessageClient;

constexpr unsigned int kCapacity = 102400;

int Send(const std::string& name, const std::string& message) {
  MessageClient client;
  const int error = client.Init(name.data(), static_cast<unsigned int>(name.size()), kCapacity);
  return error != 0 ? error
                    : client.SendMessage(message.data(), static_cast<unsigned int>(message.size()));
}

TEST(MessageClientTest, DeliversMessagesOfEverySizeWhole) {
  Receiver receiver;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{kCapacity}}) {
    const std::string message(size, '\x80');
    EXPECT_EQ(Send(receiver.name(), message), 0);
    EXPECT_EQ(receiver.Receive(), message);
  }
}

}  // namespace
