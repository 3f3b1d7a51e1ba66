// sql FILE STATEMENTS: runs statements on an SQLite file that is there, in one transaction. Fills
// tables faster than their owners would.
#include <cstdio>
#include <memory>

#include <sqlite3.h>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open_v2(argv[1], &raw, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database{raw, sqlite3_close};
  const bool done = opened == SQLITE_OK &&
                    sqlite3_exec(raw, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK &&
                    sqlite3_exec(raw, argv[2], nullptr, nullptr, nullptr) == SQLITE_OK &&
                    sqlite3_exec(raw, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
  if (!done) std::fprintf(stderr, "%s\n", sqlite3_errmsg(raw));
  return done ? 0 : 1;
}
