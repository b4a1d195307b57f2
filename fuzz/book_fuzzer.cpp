// Feeds any bytes to the readers of the book formats: the first byte chooses one, the rest is its
// file, or the package file of an EPUB that is sound otherwise.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "corvane/book.h"
#include "fuzz/archives.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] % 5 == 3) bytes = fuzz::EpubAround(bytes);
  corvane::UniqueFd file(memfd_create("book", MFD_CLOEXEC));
  if (!file.valid() ||
      write(file.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
      lseek(file.get(), 0, SEEK_SET) != 0) {
    abort();
  }
  using Reader = std::optional<corvane::Book> (*)(corvane::UniqueFd, const char**);
  constexpr Reader kReaders[] = {corvane::ReadEpub, corvane::ReadFb2, corvane::ReadZippedFb2,
                                 corvane::ReadEpub, corvane::ReadZippedEpub};
  const char* problem = nullptr;
  const auto book = kReaders[data[0] % 5](std::move(file), &problem);
  const bool told = book ? book->people.size() <= corvane::kMaxPeople : static_cast<bool>(problem);
  if (!told) abort();
  return 0;
}
