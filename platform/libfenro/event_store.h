// The event log: one SQLite file, one row an event. The file is made on the first event, for its
// owner alone.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <fenro/event_log.h>

struct sqlite3;
struct sqlite3_stmt;

namespace fenro {

// What the log keeps of an event. A notification has an application, a category and a message id, a
// plain event none.
struct Event {
  int type = 0;
  std::time_t time = 0;
  std::string user{}, ip{}, computer{}, description{};
  std::string application{}, category{}, message_id{};
};

// Which events a query wants. An empty text lets all through, as does a negative type.
struct EventFilter {
  int type = -1;
  std::string_view from{}, to{};
  std::string_view user{}, ip{}, computer{}, description{};
  std::string_view application{}, category{}, message_id{};
};

enum class EventOrder { NewestFirst, OldestFirst };

class EventStore {
 public:
  static constexpr int ROWS_KEPT = 100'000;  // the oldest ones beyond are dropped

  // The log of the host.
  EventStore();
  explicit EventStore(std::string path) : path_(std::move(path)) {}

  [[nodiscard]] bool add(const Event& event) const;
  // The number of rows, or -1.
  [[nodiscard]] int count(const EventFilter& filter) const;
  // Hands the rows `lower` to `upper` to `row` until it answers non-zero. False when the log could
  // not be read.
  [[nodiscard]] bool query(const EventFilter& filter, EventOrder order, int lower, int upper,
                           naslog_row row, void* context) const;

 private:
  std::string path_;
};

// "YYYY-MM-DD", "YYYY-MM-DD HH:MM[:SS]" (slashes and a "T" are taken too) in local time, or seconds
// since the epoch. A date alone means its first second, or with `end` its last. False for any other
// text.
[[nodiscard]] bool parse_time(std::string_view text, bool end, std::time_t& seconds);

}  // namespace fenro
