#include "src/usage_stat_client/record_buffer.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

namespace velmora::usage_stat {

std::streambuf::int_type RecordBuffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  const char byte = traits_type::to_char_type(c);
  xsputn(&byte, 1);
  return c;
}

std::streamsize RecordBuffer::xsputn(const char* bytes, std::streamsize count) {
  const auto length = static_cast<std::size_t>(count);
  if (length > static_cast<std::size_t>(epptr() - pptr())) Reserve(length);
  std::memcpy(pptr(), bytes, length);
  Advance(length);
  return count;
}

void RecordBuffer::Reserve(std::size_t count) {
  const std::size_t used = size();
  const std::size_t capacity = static_cast<std::size_t>(epptr() - pbase());
  std::string grown(std::max(2 * capacity, used + count), '\0');
  std::memcpy(grown.data(), pbase(), used);
  heap_ = std::move(grown);
  setp(heap_.data(), heap_.data() + heap_.size());
  Advance(used);
}

void RecordBuffer::Advance(std::size_t count) {
  for (; count > INT_MAX; count -= INT_MAX) pbump(INT_MAX);
  pbump(static_cast<int>(count));
}

}  // namespace velmora::usage_stat
