// Exported functions that report the opening of books, and the id of a book.

#include <openssl/sha.h>

#include <string>

#include "include/usage_stat.h"
#include "src/events/book_events.h"
#include "src/usage_stat_client/arguments.h"
#include "src/usage_stat_client/book_path.h"
#include "src/usage_stat_client/statistics_client.h"

using namespace velmora::usage_stat;

namespace {

// The digest of `path` folded into 32 bits. The lower three bytes of each group count as signed, so
// one of 0x80 or more subtracts from the bytes above it. Ids in stored records follow this rule;
// plain little-endian words would not match them.
std::int32_t BookId(const std::string& path) {
  unsigned char digest[SHA_DIGEST_LENGTH] = {};  // what it stays when libcrypto has no memory
  SHA1(reinterpret_cast<const unsigned char*>(path.data()), path.size(), digest);

  const auto widened = [](unsigned char byte) {
    return std::uint64_t{WidenedWithSign(static_cast<std::int8_t>(byte))};
  };
  std::uint32_t id = 0;
  for (const unsigned char* b = digest; b != digest + SHA_DIGEST_LENGTH; b += 4) {
    // Modulo 2^32 by intent, hence 64 bits: a checked build objects to a sum that wraps.
    const std::uint64_t word =
        widened(b[0]) + (widened(b[1]) << 8) + (widened(b[2]) << 16) + (std::uint64_t{b[3]} << 24);
    id ^= static_cast<std::uint32_t>(word);
  }
  return static_cast<std::int32_t>(id);
}

}  // namespace

int Stat_GetBookId(const char* path) { return BookId(RequiredText(path)); }

int Stat_SendStartOpenBookEvent(const char* path, Stat_ApplicationId application, uint8_t a,
                                const char* b) {
  const std::int32_t book_id = BookId(RequiredText(path));
  StartOpenBookEvent event;
  event.book_id_ = book_id;
  event.application_ = static_cast<std::uint16_t>(application);
  event.a_ = a;
  event.b_ = TextOrEmpty(b);
  return STAT_SEND(event);
}

int Stat_SendOpenBookEvent(const char* path, const char* language, const char* const* first_list,
                           const char* c, const char* const* second_list, int d, int e, int f,
                           int g, int h, const char* i, const char* j, const char* k,
                           const char* l) {
  const std::string full_path = RequiredText(path);
  OpenBookEvent event(BookId(full_path), language, c, d != 0, static_cast<std::int16_t>(e), f,
                      static_cast<std::int16_t>(g), h, std::string(FileName(full_path)), i, j, k,
                      l);
  event.AppendFirstList(first_list);
  event.AppendSecondList(second_list);
  return STAT_SEND(event);
}
