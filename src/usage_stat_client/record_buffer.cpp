#include "src/usage_stat_client/record_buffer.h"

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

std::streambuf::int_type RecordBuffer::underflow() {
  setg(eback(), gptr(), End());
  return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

std::streamsize RecordBuffer::xsputn(const char* bytes, std::streamsize count) {
  const auto length = static_cast<std::size_t>(count);
  if (length > static_cast<std::size_t>(epptr() - pptr())) Reserve(length);
  std::memcpy(pptr(), bytes, length);
  Advance(length);
  return count;
}

std::streambuf::pos_type RecordBuffer::seekoff(off_type offset, std::ios_base::seekdir from,
                                               std::ios_base::openmode which) {
  const bool gets = (which & std::ios_base::in) != 0;
  const bool puts = (which & std::ios_base::out) != 0;
  const bool is_relative = from == std::ios_base::cur;
  const pos_type failed(off_type{-1});
  if ((!gets && !puts) || (gets && puts && is_relative)) return failed;
  setg(eback(), gptr(), End());
  const off_type end = egptr() - eback();
  off_type base = from == std::ios_base::end ? end : 0;
  if (is_relative) base = gets ? gptr() - eback() : pptr() - pbase();
  if (offset < -base || offset > end - base) return failed;
  const off_type target = base + offset;
  if (gets) setg(eback(), eback() + target, egptr());
  if (puts) {
    setp(pbase(), epptr());
    Advance(static_cast<std::size_t>(target));
  }
  return target;
}

std::streambuf::pos_type RecordBuffer::seekpos(pos_type position, std::ios_base::openmode which) {
  return seekoff(position, std::ios_base::beg, which);
}

void RecordBuffer::Reserve(std::size_t count) {
  const std::size_t capacity = static_cast<std::size_t>(epptr() - pbase());
  const std::size_t put = static_cast<std::size_t>(pptr() - pbase());
  const std::size_t got = static_cast<std::size_t>(gptr() - eback());
  const std::size_t used = size();
  const std::size_t wanted = std::max(2 * capacity, put + count);
  auto grown = std::make_unique_for_overwrite<char[]>(wanted);
  std::memcpy(grown.get(), pbase(), used);
  heap_ = std::move(grown);
  char* const begin = heap_.get();
  setg(begin, begin + got, begin + used);
  setp(begin, begin + wanted);
  Advance(put);
}

void RecordBuffer::Advance(std::size_t count) {
  for (; count > INT_MAX; count -= INT_MAX) pbump(INT_MAX);
  pbump(static_cast<int>(count));
}

}  // namespace velmora::usage_stat
