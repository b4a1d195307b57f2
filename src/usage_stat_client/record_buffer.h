// The memory that one record is written to.

#ifndef USAGE_STAT_CLIENT_RECORD_BUFFER_H_
#define USAGE_STAT_CLIENT_RECORD_BUFFER_H_

#include <algorithm>
#include <cstddef>
#include <memory>
#include <streambuf>

namespace velmora::usage_stat {

// A growing buffer that begins inside the object: records without long texts, which most are, cost
// no allocation.
//
// A platform's primitives may do with it what they may do with that of a string stream: go back and
// write again, such as a length that is known afterwards, and read what was written. As there, the
// two positions move apart from each other, neither beyond what was written, and the record is all
// that was written, wherever the put position stands.
class RecordBuffer : public std::streambuf {
 public:
  RecordBuffer() {
    setp(inline_, inline_ + sizeof(inline_));
    setg(inline_, inline_, inline_);
  }

  const char* data() const { return pbase(); }
  std::size_t size() const { return static_cast<std::size_t>(End() - pbase()); }

 protected:
  int_type overflow(int_type c) override;
  int_type underflow() override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;
  pos_type seekoff(off_type offset, std::ios_base::seekdir from,
                   std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

 private:
  // The end of what was written. The get area ends where it ended when that was last looked at.
  char* End() const { return std::max(pptr(), egptr()); }
  // Makes room for `count` bytes more.
  void Reserve(std::size_t count);
  // Moves the put position; the stream buffer's own step takes an int.
  void Advance(std::size_t count);

  char inline_[256];
  std::unique_ptr<char[]> heap_;  // the whole record once it has outgrown `inline_`
};

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_RECORD_BUFFER_H_
