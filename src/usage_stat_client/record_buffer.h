// The memory that one record is written to.

#ifndef USAGE_STAT_CLIENT_RECORD_BUFFER_H_
#define USAGE_STAT_CLIENT_RECORD_BUFFER_H_

#include <cstddef>
#include <streambuf>
#include <string>

namespace velmora::usage_stat {

// A growing output buffer that begins inside the object: records without long texts, which most
// are, cost no allocation.
class RecordBuffer : public std::streambuf {
 public:
  RecordBuffer() { setp(inline_, inline_ + sizeof(inline_)); }

  const char* data() const { return pbase(); }
  std::size_t size() const { return static_cast<std::size_t>(pptr() - pbase()); }

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;

 private:
  // Makes room for `count` bytes more.
  void Reserve(std::size_t count);
  // Moves the put position; the stream buffer's own step takes an int.
  void Advance(std::size_t count);

  char inline_[256];
  std::string heap_;  // the whole record once it has outgrown `inline_`
};

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_RECORD_BUFFER_H_
