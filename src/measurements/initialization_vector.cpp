#include "src/measurements/initialization_vector.h"

#include <fcntl.h>
#include <unistd.h>

#include "src/stat_event/check.h"

std::vector<unsigned char> GenerateIV() {
  constexpr std::size_t kLength = 16;
  std::vector<unsigned char> iv(kLength);
  // The descriptor is deliberately left open, one for each call: so this routine has always
  // behaved, and snapshots are few in the life of a process.
  const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  STAT_RETURN_IF(-1 == fd, std::vector<unsigned char>());
  const ssize_t len = read(fd, iv.data(), iv.size());
  STAT_RETURN_IF(-1 == len, std::vector<unsigned char>());
  iv.resize(static_cast<std::size_t>(len));
  return iv;
}
