#include "kept_socket.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace velmora::utilities {
namespace {

constexpr int kNone = -1;

// The application may close descriptors that it did not open (daemons close all of them) and get
// the same numbers again for its own files. So the number is never trusted: the device and inode
// remembered here tell whether it still means our socket. The three are read without a lock,
// because the comparison vouches for itself: whichever of the values a reader meets, a match means
// that the descriptor is a socket that was opened here.
//
// What remains is the instant between that check and the send: an application that closes
// foreign descriptors while another of its threads is sending can still lose a message into a
// descriptor opened in that very instant, as it can with any descriptor of any library.
constinit std::atomic<int> g_descriptor = kNone;
// Half of what dev_t and ino_t may hold is enough for sockets, which the kernel numbers with 32
// bits on one device of a small number; and processors before ARMv6 read no more than that in one
// piece.
constinit std::atomic<std::uint32_t> g_device = 0;
constinit std::atomic<std::uint32_t> g_inode = 0;

// Held while a thread opens the socket. Nobody waits for it: other threads do without meanwhile,
// and the child of a fork, where the holder does not exist, just clears it.
constinit std::atomic_flag g_opening;
constinit bool g_fork_is_handled = false;  // guarded by g_opening

std::uint32_t Half(std::uint64_t number) { return static_cast<std::uint32_t>(number); }

bool IsOurs(int descriptor) {
  struct stat status;
  return descriptor != kNone && fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode) &&
         Half(status.st_ino) == g_inode.load(std::memory_order_relaxed) &&
         Half(status.st_dev) == g_device.load(std::memory_order_relaxed);
}

void CloseKeptSocket() {
  const int descriptor = g_descriptor.exchange(kNone);
  if (IsOurs(descriptor)) close(descriptor);
}

// The child gets a socket of its own: it may move to another network namespace, or shut down what
// it inherited, and its messages shall not fill the parent's buffer.
void StartAfreshInChild() {
  CloseKeptSocket();
  g_opening.clear();
}

// Nothing stays open when the library is unloaded; its fork handler goes with it.
__attribute__((destructor)) void CloseOnUnload() { CloseKeptSocket(); }

// An application that has closed a standard stream expects to get its number with the next open.
int OpenAboveStandardStreams() {
  const int descriptor = OpenDatagramSocket();
  if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(descriptor);
  errno = error;
  return moved;
}

// The caller holds g_opening. Returns 0 or a positive errno value.
int OpenKeptSocket() {
  if (!g_fork_is_handled) {
    if (const int error = pthread_atfork(nullptr, nullptr, StartAfreshInChild); error != 0) {
      return error;
    }
    g_fork_is_handled = true;
  }
  const int descriptor = OpenAboveStandardStreams();
  if (descriptor < 0) return errno;
  struct stat status;
  if (fstat(descriptor, &status) != 0) {
    const int error = errno;
    close(descriptor);
    return error;
  }
  g_device.store(Half(status.st_dev), std::memory_order_relaxed);
  g_inode.store(Half(status.st_ino), std::memory_order_relaxed);
  g_descriptor.store(descriptor, std::memory_order_release);
  return 0;
}

// Makes sure that there is a kept socket. Returns 0 or a positive errno value: EBUSY while another
// thread is at it.
int EnsureKeptSocket() {
  if (g_opening.test_and_set(std::memory_order_acquire)) return EBUSY;
  // Another thread may have opened it since our caller looked.
  const int error = IsOurs(g_descriptor.load(std::memory_order_relaxed)) ? 0 : OpenKeptSocket();
  g_opening.clear(std::memory_order_release);
  return error;
}

}  // namespace

int SendOnKeptSocket(const Datagram& datagram) {
  int descriptor = g_descriptor.load(std::memory_order_acquire);
  if (!IsOurs(descriptor)) {
    if (const int error = EnsureKeptSocket(); error != 0) return error;
    descriptor = g_descriptor.load(std::memory_order_acquire);
  }
  return SendDatagram(descriptor, datagram, MSG_DONTWAIT);
}

}  // namespace velmora::utilities
