// A bare pass over the datagrams of a database: what reading them takes at least.
//
//   scan DATABASE

#include <sqlite3.h>

#include <cstdio>

int main(int argc, char** argv) {
  sqlite3* database = nullptr;
  sqlite3_stmt* select = nullptr;
  if (argc != 2 ||
      sqlite3_open_v2(argv[1], &database, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr) !=
          SQLITE_OK ||
      sqlite3_prepare_v2(database, "SELECT raw FROM records", -1, &select, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "usage: scan DATABASE\n");
    return 1;
  }
  unsigned sum = 0;
  while (sqlite3_step(select) == SQLITE_ROW) {
    const auto* bytes = static_cast<const unsigned char*>(sqlite3_column_blob(select, 0));
    for (int i = sqlite3_column_bytes(select, 0); i > 0; --i) sum += bytes[i - 1];
  }
  sqlite3_finalize(select);
  sqlite3_close(database);
  std::printf("%u\n", sum);
  return 0;
}
