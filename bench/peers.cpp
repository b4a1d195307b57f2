#include "bench/peers.h"

#include <arpa/inet.h>
#include <dbus/dbus.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "bench/harness.h"

namespace bench {
namespace {

constexpr const char* kBusInterface = "org.example.Reader";
constexpr std::size_t kLargestMessage = 256 * 1024;

// The fields of a page turn.
constexpr dbus_int32_t kA = 0x1234abcd;
constexpr dbus_int16_t kB = 42;
constexpr dbus_int32_t kC = 118;
constexpr dbus_int32_t kD = 350;
constexpr dbus_int32_t kE = 17;

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

void Check(bool condition, const char* what) {
  if (!condition) Fail(what);
}

struct UnixAddress {
  sockaddr_un address{};
  socklen_t length;

  explicit UnixAddress(const std::string& path) {
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  }
  static UnixAddress Abstract(const std::string& text) { return UnixAddress('\0' + text + '\0'); }

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

void ReadClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
}

// Ends a child when its parent ends without a word to it, as Fail() does.
void EndWithParent() { prctl(PR_SET_PDEATHSIG, SIGKILL); }

// ---- Receivers ----

using Ready = std::function<void()>;

// A child process that runs `body`, which returns only on an error. It is there once it has called
// the function that it is handed.
std::unique_ptr<Child> StartReceiver(const std::function<void(const Ready&)>& body) {
  int ready[2];
  Check(pipe(ready) == 0, "pipe");
  auto child = std::make_unique<Child>([&body, &ready] {
    EndWithParent();
    close(ready[0]);
    body([&ready] {
      Check(write(ready[1], "", 1) == 1, "write");
      close(ready[1]);
    });
    return 1;
  });
  Check(child->pid() > 0, "fork");
  close(ready[1]);
  char byte;
  if (read(ready[0], &byte, 1) != 1) {
    std::fprintf(stderr, "a receiver could not start\n");
    std::exit(1);
  }
  close(ready[0]);
  return child;
}

std::unique_ptr<Child> DrainPath(const char* path) {
  const UnixAddress address{std::string(path) + '\0'};
  return DrainDatagrams(address.get(), address.length);
}

// ---- Journal and syslog ----

Sender Journal() {
  std::shared_ptr<Child> receiver = DrainPath("/run/systemd/journal/socket");
  return {"`sd_journal_send`", [receiver] {
            Check(sd_journal_send("MESSAGE=page turn", "PRIORITY=%d", LOG_INFO, "EVENT=%d", 2032,
                                  "A=%d", kA, "B=%d", kB, "C=%d", kC, "D=%d", kD, "E=%d", kE,
                                  nullptr) == 0,
                  "sd_journal_send");
          }};
}

Sender Syslog() {
  std::shared_ptr<Child> receiver = DrainPath("/dev/log");
  return {"`syslog(3)`", [receiver] {
            syslog(LOG_INFO, "event=%d a=%d b=%d c=%d d=%d e=%d", 2032, kA, kB, kC, kD, kE);
          }};
}

// ---- D-Bus ----

// A bus daemon of our own.
class Bus {
 public:
  Bus() {
    int addresses[2];
    Check(pipe(addresses) == 0, "pipe");
    const std::string print = "--print-address=" + std::to_string(addresses[1]);
    daemon_.emplace([&print] {
      EndWithParent();
      // It complains about limits that don't matter here.
      if (!std::freopen("/dev/null", "w", stderr)) return 126;
      execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", print.c_str(),
             nullptr);
      return 127;
    });
    close(addresses[1]);
    char text[512];
    const ssize_t size = read(addresses[0], text, sizeof(text));
    Check(size > 1, "dbus-daemon");
    address_.assign(text, static_cast<std::size_t>(size) - 1);
    close(addresses[0]);
  }
  ~Bus() {
    kill(daemon_->pid(), SIGTERM);
    daemon_->Wait();
  }
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  DBusConnection* Connect() const {
    DBusConnection* connection = dbus_connection_open_private(address_.c_str(), nullptr);
    Check(connection && dbus_bus_register(connection, nullptr), "connecting to dbus-daemon");
    return connection;
  }

 private:
  std::optional<Child> daemon_;
  std::string address_;
};

void TakeSignals(const Bus& bus, const Ready& ready) {
  DBusConnection* connection = bus.Connect();
  const std::string match = "type='signal',interface='" + std::string(kBusInterface) + "'";
  DBusError error = DBUS_ERROR_INIT;
  dbus_bus_add_match(connection, match.c_str(), &error);
  ready();
  while (dbus_connection_read_write_dispatch(connection, -1)) {
  }
}

Sender BusSignal() {
  auto bus = std::make_shared<Bus>();
  std::shared_ptr<Child> receiver =
      StartReceiver([&bus](const Ready& ready) { TakeSignals(*bus, ready); });
  DBusConnection* connection = bus->Connect();
  return {"D-Bus signal", [bus, receiver, connection] {
            DBusMessage* signal = dbus_message_new_signal("/reader", kBusInterface, "PageTurn");
            dbus_message_append_args(signal, DBUS_TYPE_INT32, &kA, DBUS_TYPE_INT16, &kB,
                                     DBUS_TYPE_INT32, &kC, DBUS_TYPE_INT32, &kD, DBUS_TYPE_INT32,
                                     &kE, DBUS_TYPE_INVALID);
            Check(dbus_connection_send(connection, signal, nullptr), "dbus_connection_send");
            dbus_connection_flush(connection);
            dbus_message_unref(signal);
          }};
}

// ---- statsd ----

// A free port of the loopback interface.
sockaddr_in LoopbackAddress() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int probe = socket(AF_INET, SOCK_DGRAM, 0);
  socklen_t length = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  Check(bind(probe, generic, length) == 0 && getsockname(probe, generic, &length) == 0, "bind");
  close(probe);
  return address;
}

Sender StatsdCounter() {
  const sockaddr_in address = LoopbackAddress();
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  std::shared_ptr<Child> receiver = DrainDatagrams(generic, sizeof(address));
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  Check(connect(descriptor, generic, sizeof(address)) == 0, "connect");
  return {"statsd counter, UDP", [receiver, descriptor] {
            char text[64];
            const int size = std::snprintf(text, sizeof(text), "reader.page_turn.%d:1|c", kB);
            Check(send(descriptor, text, static_cast<std::size_t>(size), 0) == size, "send");
          }};
}

}  // namespace

std::unique_ptr<Child> DrainDatagrams(const sockaddr* address, socklen_t length) {
  const std::atomic<bool>& stays_awake = ReceiversStayAwake();
  return StartReceiver([&, address, length](const Ready& ready) {
    const int descriptor = socket(address->sa_family, SOCK_DGRAM, 0);
    Check(bind(descriptor, address, length) == 0, "bind");
    ready();
    std::vector<char> message(kLargestMessage);
    ssize_t size = 0;
    do {
      size = recv(descriptor, message.data(), message.size(), stays_awake ? MSG_DONTWAIT : 0);
    } while (size >= 0 || errno == EAGAIN);
  });
}

std::unique_ptr<Child> DrainEndpoint(const std::string& endpoint) {
  const UnixAddress address = UnixAddress::Abstract(endpoint);
  return DrainDatagrams(address.get(), address.length);
}

// ---- Senders ----

Sender Floor(const std::string& endpoint, const std::string& bytes) {
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const UnixAddress address = UnixAddress::Abstract(endpoint);
  return {
      "the floor", [descriptor, address, bytes] {
        ReadClock();
        Check(sendto(descriptor, bytes.data(), bytes.size(), 0, address.get(), address.length) >= 0,
              "sendto");
      }};
}

Sender FloorWithLook(const std::string& endpoint, const std::string& bytes) {
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const UnixAddress address = UnixAddress::Abstract(endpoint);
  return {
      "the floor and `fstat`", [descriptor, address, bytes] {
        ReadClock();
        struct stat status;
        Check(fstat(descriptor, &status) == 0, "fstat");
        Check(sendto(descriptor, bytes.data(), bytes.size(), 0, address.get(), address.length) >= 0,
              "sendto");
      }};
}

Sender PlainSocketContract(const std::string& endpoint, const std::string& bytes) {
  const UnixAddress address = UnixAddress::Abstract(endpoint);
  return {"socket, connect, send, close", [address, bytes] {
            ReadClock();
            const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            Check(connect(descriptor, address.get(), address.length) == 0, "connect");
            Check(send(descriptor, bytes.data(), bytes.size(), 0) >= 0, "send");
            close(descriptor);
          }};
}

std::vector<Sender> StartPeers() {
  std::vector<Sender> peers = {BusSignal(), StatsdCounter()};
  if (getenv("USAGE_STAT_BENCH_PRIVATE_MOUNTS")) {
    peers.insert(peers.begin(), {Journal(), Syslog()});
  } else {
    std::fprintf(stderr, "Without journal and syslog: run this through bench/in-private-mounts.\n");
  }
  return peers;
}

}  // namespace bench
