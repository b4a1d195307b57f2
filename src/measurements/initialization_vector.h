#ifndef MEASUREMENTS_INITIALIZATION_VECTOR_H_
#define MEASUREMENTS_INITIALIZATION_VECTOR_H_

#include <vector>

// 16 random bytes of the kernel for a cipher; fewer after a short read, none, logged, when the
// source can't be opened or read. Each call keeps one descriptor open.
//
// At global scope: its signature text in log lines carries no namespace.
std::vector<unsigned char> GenerateIV();

#endif  // MEASUREMENTS_INITIALIZATION_VECTOR_H_
