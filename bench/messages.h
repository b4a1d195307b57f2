// The three calls that stand for all others, and the bytes that each of them sends.

#ifndef BENCH_MESSAGES_H_
#define BENCH_MESSAGES_H_

#include <string>

namespace bench {

constexpr int kMostBooks = 100;

struct Message {
  const char* name;
  int (*send)();
};

int SendPageTurn();        // five numbers
int SendOpenBook();        // nine texts and two lists
int SendBooks(int count);  // a batch of described books, up to kMostBooks

// Small, text-heavy, and the largest batch of books.
extern const Message kMessages[3];

// Sends one message to a private receiver and returns the bytes that arrived. Leaves the endpoint
// of the process as it was.
std::string Capture(int (*send)());

}  // namespace bench

#endif  // BENCH_MESSAGES_H_
