#include "common_utilities/message_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/receiver.h"
#include "tests/support/secure_mode.h"

namespace {
std::function<void()> g_while_opening;  // what happens while a socket is opened
}  // namespace

// Stands before the C library's.
extern "C" __attribute__((visibility("default"))) int socket(int domain, int type,
                                                             int protocol) noexcept {
  if (g_while_opening) std::exchange(g_while_opening, nullptr)();
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

namespace {

using usage_stat_test::Child;
using usage_stat_test::kEndpointVariable;
using usage_stat_test::Receiver;
using velmora::utilities::MessageClient;

constexpr unsigned int kCapacity = 102400;
const std::string kNobody = '\0' + Receiver::UniqueEndpoint() + '\0';

// As an application's call does it: one client for one message. The caller's errno must survive.
int Send(const std::string& name, const std::string& message = "message",
         unsigned int capacity = kCapacity) {
  errno = EXDEV;
  MessageClient client;
  int error = client.Init(name.data(), static_cast<unsigned int>(name.size()), capacity);
  if (error == 0) {
    error = client.SendMessage(message.data(), static_cast<unsigned int>(message.size()));
  }
  EXPECT_EQ(errno, EXDEV);
  return error;
}

int SendUntilFull(const std::string& name) {
  int error = 0;
  for (int i = 0; error == 0 && i < 100'000; ++i) error = Send(name);
  return error;
}

bool IsUnnamedDatagramSocket(int descriptor) {
  int type = 0;
  socklen_t type_size = sizeof(type);
  sockaddr_un address{};
  socklen_t address_size = sizeof(address);
  return getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &type_size) == 0 &&
         type == SOCK_DGRAM &&
         getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &address_size) == 0 &&
         address.sun_family == AF_UNIX && address_size == sizeof(address.sun_family);
}

// The sockets that the library holds open in this process.
std::vector<int> KeptSockets() {
  std::vector<int> found;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    if (IsUnnamedDatagramSocket(descriptor)) found.push_back(descriptor);
  }
  return found;
}

// What an application does that closes every descriptor.
void CloseKeptSockets() {
  for (const int kept : KeptSockets()) close(kept);
}

ino_t InodeOf(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 ? status.st_ino : 0;
}

// Runs `body` in a forked child; true when it returned true there.
bool HoldsInChild(const std::function<bool()>& body) {
  return Child([&body] { return body() ? 0 : 1; }).Wait() == 0;
}

TEST(MessageClientTest, DeliversMessagesOfEverySizeWhole) {
  Receiver receiver;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{kCapacity}}) {
    const std::string message(size, '\x80');
    EXPECT_EQ(Send(receiver.name(), message), 0);
    EXPECT_EQ(receiver.Receive(), message);
  }
}

TEST(MessageClientTest, RefusesWhatItCannotSend) {
  Receiver receiver;
  EXPECT_EQ(Send(""), EINVAL);
  EXPECT_EQ(Send(std::string(109, 'n')), ENAMETOOLONG);
  EXPECT_EQ(Send('\0' + std::string(107, 'n')), ECONNREFUSED);
  EXPECT_EQ(Send(receiver.name(), "1234", 3), EMSGSIZE);

  MessageClient client;
  EXPECT_EQ(client.SendMessage("message", 7), ENOTCONN);
  EXPECT_EQ(client.Init(nullptr, 5, kCapacity), EINVAL);
  EXPECT_EQ(client.SendMessage("message", 7), ENOTCONN);
  EXPECT_EQ(client.Init(receiver.name().data(), 1 + 3, kCapacity), 0);
  EXPECT_EQ(client.SendMessage(nullptr, 1), EINVAL);
  EXPECT_EQ(client.SendMessage("message", 7), ECONNREFUSED);
  EXPECT_EQ(receiver.TryReceive(), std::nullopt);
}

TEST(MessageClientTest, TheEnvironmentNamesAnotherEndpoint) {
  Receiver receiver;
  receiver.Announce();
  EXPECT_EQ(Send(kNobody), 0);
  EXPECT_EQ(receiver.Receive(), "message");

  usage_stat_test::g_has_more_rights = true;
  EXPECT_EQ(Send(kNobody), ECONNREFUSED);
  usage_stat_test::g_has_more_rights = false;

  setenv(kEndpointVariable, std::string(107, 'n').c_str(), 1);
  EXPECT_EQ(Send(receiver.name()), ENAMETOOLONG);
  setenv(kEndpointVariable, "", 1);
  EXPECT_EQ(Send(receiver.name()), 0);
}

TEST(MessageClientTest, FindsACollectorThatAppearsLaterOrRestarts) {
  Receiver receiver;
  for (int round = 0; round < 3; ++round) {
    receiver.Stop();
    EXPECT_EQ(Send(receiver.name()), ECONNREFUSED);
    receiver.Start();
    EXPECT_EQ(Send(receiver.name()), 0);
    EXPECT_EQ(receiver.Receive(), "message");
  }
  EXPECT_EQ(KeptSockets().size(), 1U);
}

TEST(MessageClientTest, AFullReceiverIsReportedAndWorksAgainOnceDrained) {
  Receiver receiver;
  EXPECT_EQ(SendUntilFull(receiver.name()), EAGAIN);
  while (receiver.TryReceive()) {
  }
  EXPECT_EQ(Send(receiver.name()), 0);
}

// Signals that come every millisecond; `handler` runs at each.
class SignalStorm {
 public:
  explicit SignalStorm(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(SIGALRM, &action, &before_);
    const itimerval every_ms = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &every_ms, nullptr);
  }
  ~SignalStorm() {
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }
  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;

 private:
  struct sigaction before_ {};
};

volatile std::sig_atomic_t g_signals = 0;
volatile std::sig_atomic_t g_draining = -1;

TEST(MessageClientTest, SignalsNeitherEndTheWaitNorProlongItForEver) {
  Receiver receiver;
  ASSERT_EQ(SendUntilFull(receiver.name()), EAGAIN);
  g_signals = 0;
  {
    const SignalStorm storm([](int) { g_signals = g_signals + 1; });
    EXPECT_EQ(Send(receiver.name()), EAGAIN);
  }
  EXPECT_GT(g_signals, 0);  // the first came before the wait could end, however late it was noticed

  // Room that a signal brings is used: while the sender still waits or, on a machine that let it
  // sleep for longer, with the last try.
  g_draining = receiver.descriptor();
  const SignalStorm storm([](int) {
    char byte = 0;
    recv(g_draining, &byte, sizeof(byte), MSG_DONTWAIT);
  });
  EXPECT_EQ(Send(receiver.name()), 0);
}

TEST(MessageClientTest, KeepsOneCloseOnExecSocketClearOfTheStandardStreams) {
  Receiver receiver;
  EXPECT_TRUE(HoldsInChild([&] {
    bool holds = true;
    for (const int closed : {STDERR_FILENO, STDIN_FILENO, STDOUT_FILENO}) {
      holds = holds && Send(receiver.name()) == 0 && Send(receiver.name()) == 0;
      const std::vector<int> kept = KeptSockets();
      holds = holds && kept.size() == 1 && kept[0] > STDERR_FILENO &&
              (fcntl(kept[0], F_GETFD) & FD_CLOEXEC) != 0;
      CloseKeptSockets();
      close(closed);
    }
    return holds && Send(receiver.name()) == 0 && open("/dev/null", O_RDONLY) == STDIN_FILENO;
  }));
}

TEST(MessageClientTest, AForkedChildUsesASocketOfItsOwn) {
  Receiver receiver;
  ASSERT_EQ(Send(receiver.name()), 0);
  const std::vector<int> kept = KeptSockets();
  ASSERT_EQ(kept.size(), 1U);
  const ino_t inode = InodeOf(kept[0]);
  EXPECT_TRUE(HoldsInChild([&] {
    bool holds = KeptSockets().empty() && Send(receiver.name(), "child") == 0;
    const std::vector<int> own = KeptSockets();
    return holds && own.size() == 1 && InodeOf(own[0]) != inode;
  }));
  EXPECT_EQ(InodeOf(kept[0]), inode);
  EXPECT_EQ(Send(receiver.name(), "parent"), 0);
  for (const char* const message : {"message", "child", "parent"}) {
    EXPECT_EQ(receiver.Receive(), message);
  }
}

TEST(MessageClientTest, AChildForkedWhileTheSocketIsOpenedKeepsOneToo) {
  Receiver receiver;
  CloseKeptSockets();
  bool holds = false;
  g_while_opening = [&] {
    holds = HoldsInChild([&] { return Send(receiver.name()) == 0 && KeptSockets().size() == 1; });
  };
  EXPECT_EQ(Send(receiver.name()), 0);
  EXPECT_TRUE(holds);
}

// Descriptors of the application: what is written to `mine` shows at `peer`.
struct Stranger {
  int mine;
  int peer;
};

template <int kType>
Stranger SocketPair() {
  std::array<int, 2> pair{};
  EXPECT_EQ(socketpair(AF_UNIX, kType, 0, pair.data()), 0);
  return {pair[0], pair[1]};
}

Stranger Pipe() {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  return {ends[1], ends[0]};
}

Stranger NamedDatagramSocket() {
  const Stranger stranger = SocketPair<SOCK_DGRAM>();
  const sa_family_t family = AF_UNIX;  // an address of the family alone: the kernel picks a name
  EXPECT_EQ(bind(stranger.mine, reinterpret_cast<const sockaddr*>(&family), sizeof(family)), 0);
  return stranger;
}

TEST(MessageClientTest, ANumberThatTheApplicationTookBackIsLeftAlone) {
  Receiver receiver;
  for (const auto make_stranger :
       {Pipe, SocketPair<SOCK_STREAM>, SocketPair<SOCK_SEQPACKET>, NamedDatagramSocket}) {
    ASSERT_EQ(Send(receiver.name(), "before"), 0);
    ASSERT_EQ(receiver.Receive(), "before");
    ASSERT_EQ(KeptSockets().size(), 1U);
    const int taken = KeptSockets()[0];
    const Stranger stranger = make_stranger();
    ASSERT_EQ(dup2(stranger.mine, taken), taken);

    ASSERT_EQ(Send(receiver.name(), "after"), 0);
    std::array<char, 16> message{};
    sockaddr_un sender{};
    socklen_t sender_size = sizeof(sender);
    EXPECT_EQ(recvfrom(receiver.descriptor(), message.data(), message.size(), 0,
                       reinterpret_cast<sockaddr*>(&sender), &sender_size),
              5);
    EXPECT_LE(sender_size, sizeof(sa_family_t)) << "sent from the application's own socket";
    pollfd waiting{stranger.peer, POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 0), 0) << "written to the application's own descriptor";
    EXPECT_EQ(InodeOf(taken), InodeOf(stranger.mine));

    for (const int descriptor : {taken, stranger.mine, stranger.peer}) close(descriptor);
  }
}

TEST(MessageClientTest, AKeptSocketThatWasShutDownDoesNotMatter) {
  Receiver receiver;
  ASSERT_EQ(Send(receiver.name()), 0);
  for (const int kept : KeptSockets()) shutdown(kept, SHUT_RDWR);
  EXPECT_EQ(Send(receiver.name()), 0);
  shutdown(receiver.descriptor(), SHUT_RD);
  EXPECT_EQ(Send(receiver.name()), EPIPE);  // and no SIGPIPE, which would end this program
  CloseKeptSockets();
}

TEST(MessageClientTest, WithoutFreeDescriptorsTheKeptSocketGoesOn) {
  Receiver receiver;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none = {0, limit.rlim_max};
  CloseKeptSockets();
  setrlimit(RLIMIT_NOFILE, &none);
  const int without_kept = Send(receiver.name());
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(without_kept, EMFILE);

  EXPECT_EQ(Send(receiver.name()), 0);
  setrlimit(RLIMIT_NOFILE, &none);
  const int with_kept = Send(receiver.name());
  const int when_full = SendUntilFull(receiver.name());
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(with_kept, 0);
  EXPECT_EQ(when_full, EAGAIN);
}

TEST(MessageClientTest, ManyThreadsSendAtOnceWhileTheProcessForks) {
  Receiver receiver;
  constexpr int kThreads = 8;
  constexpr int kMessages = 50;
  std::atomic<int> delivered = 0;
  int received = 0;
  std::vector<int> taken;
  for (int round = 0; round < 20; ++round) {
    // Now the threads also race to open a socket, under another number: a reused one would look
    // like a data race to the thread sanitizer, which can't know that its bearer is checked.
    for (const int kept : KeptSockets()) taken.push_back(dup2(receiver.descriptor(), kept));
    std::latch start(kThreads);
    std::atomic<int> running = kThreads;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        for (int sent = 0; sent < kMessages; ++sent) {
          const int error = Send(receiver.name());
          EXPECT_TRUE(error == 0 || error == EAGAIN) << error;
          delivered += error == 0 ? 1 : 0;
        }
        --running;
      });
    }
    EXPECT_TRUE(HoldsInChild([] { return Send(kNobody) == ECONNREFUSED; }));
    while (running > 0) received += receiver.Receive(1).has_value() ? 1 : 0;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(KeptSockets().size(), 1U);
  }
  while (receiver.TryReceive()) ++received;
  EXPECT_EQ(received, delivered);
  for (const int descriptor : taken) close(descriptor);
}

}  // namespace
