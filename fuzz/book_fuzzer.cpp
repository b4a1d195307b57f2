// Feeds any bytes to the readers of the book formats: the first byte chooses one, the rest is its
// file.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "corvane/book.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  corvane::UniqueFd file(memfd_create("book", MFD_CLOEXEC));
  if (!file.valid() || write(file.get(), data + 1, size - 1) != static_cast<ssize_t>(size - 1) ||
      lseek(file.get(), 0, SEEK_SET) != 0) {
    abort();
  }
  using Reader = std::optional<corvane::Book> (*)(corvane::UniqueFd, const char**);
  constexpr Reader kReaders[] = {corvane::ReadEpub, corvane::ReadFb2, corvane::ReadZippedFb2};
  const char* problem = nullptr;
  const auto book = kReaders[data[0] % 3](std::move(file), &problem);
  const bool told = book ? book->people.size() <= corvane::kMaxPeople : problem != nullptr;
  if (!told) {
    abort();
  }
  return 0;
}
