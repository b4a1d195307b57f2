#include "bench/messages.h"

#include <stdexcept>

#include "include/usage_stat.h"
#include "tests/support/receiver.h"

namespace bench {
namespace {

constexpr const char* kAuthors[] = {"Marguerite Ashdown", "Ilse van der Meer", nullptr};
constexpr const char* kTitle[] = {"A Practical History of Tides and Harbours", nullptr};

constexpr Stat_BookInfo kBook = {.book_id = 0x1234abcd,
                                 .language = "en",
                                 .first_list = kTitle,
                                 .file_type = ".epub",
                                 .second_list = kAuthors,
                                 .n1 = 1,
                                 .n2 = 2019,
                                 .file_name = "practical-history-of-tides.epub",
                                 .s1 = "Northern Harbours",
                                 .s2 = "3",
                                 .isbn = "9780306406157",
                                 .s3 = "history"};

int SendMostBooks() { return SendBooks(kMostBooks); }

}  // namespace

int SendPageTurn() { return Stat_ChangePageEvent(0x1234abcd, 42, 118, 350, 17); }

int SendOpenBook() {
  return Stat_SendOpenBookEvent("/mnt/ext1/Books/Ashdown/practical-history-of-tides.epub", "en",
                                kTitle, "Northern Harbours", kAuthors, 1, 2019, 350, 12, 7,
                                "9780306406157", "history", "Tidewater Press", "second edition");
}

int SendBooks(int count) {
  const Stat_BookInfo* books[kMostBooks];
  for (const Stat_BookInfo*& book : books) book = &kBook;
  return Stat_NewBooksEventEx(count, books, 37);
}

const Message kMessages[3] = {
    {"page turn", SendPageTurn}, {"open book", SendOpenBook}, {"100 books", SendMostBooks}};

std::string Capture(int (*send)()) {
  const char* const endpoint = getenv(usage_stat_test::kEndpointVariable);
  const std::string kept = endpoint ? endpoint : "";
  std::string message;
  {
    usage_stat_test::Receiver receiver;
    receiver.Announce();
    if (send() != 0) throw std::runtime_error("a message to capture was not sent");
    message = receiver.Receive().value();
  }
  if (endpoint) setenv(usage_stat_test::kEndpointVariable, kept.c_str(), 1);
  return message;
}

}  // namespace bench
