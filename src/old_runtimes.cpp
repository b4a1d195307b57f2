// Lets the library load on devices whose C++ library is older than the compiler: what the headers
// of GCC 5 and later call, and nothing else here needs, is defined in the library itself. The
// export map keeps these names inside, so that the rest of the process sees its own.

#include <bits/functexcept.h>

#include <cstdarg>
#include <cstdio>

namespace std {  // NOLINT(cert-dcl58-cpp): these are its functions

// In libstdc++ since GCC 11, and a kind of bad_alloc.
void __throw_bad_array_new_length() { __throw_bad_alloc(); }

// Since GCC 4.9. The messages are short ones of the headers themselves.
void __throw_out_of_range_fmt(const char* format, ...) {
  char message[256];
  va_list arguments;
  va_start(arguments, format);
  (void)vsnprintf(message, sizeof(message), format, arguments);
  va_end(arguments);
  __throw_out_of_range(message);
}

}  // namespace std

// Since glibc 2.32, and read by the reference counts of GCC 4's std::string: there may be threads.
extern "C" {
char __libc_single_threaded = 0;
}
