// One call of the log database, shared by the two halves of its client.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/log_db_records.h"

namespace ormel::log_db {

// The bytes of a record as they travel.
template <typename Record>
[[nodiscard]] std::string_view bytes_of(const Record* record) {
  return {reinterpret_cast<const char*>(record), sizeof(Record)};
}

// Sends a request; `function` names it in the log. The status of mib_call; `reply` (may be null) is
// filled on success.
int call(const char* function, const char* method, std::string_view request,
         std::string* reply = nullptr);

// The head of an answer whose `data` points to allocated rows, as many as have really come.
struct RawAnswer {
  uint64_t count;
  uint64_t total;
  void* data;
};
// False, with the cause in the log, when there is no answer.
[[nodiscard]] bool query(const char* function, const char* method, const db_query_cond& cond,
                         size_t row_size, RawAnswer& out);

// The body of every list function. Always 0.
template <typename Row>
int list(const char* function, const char* method, const db_query_cond* cond,
         db_query_answer<Row>** out) {
  RawAnswer answer{};
  if (query(function, method, *cond, sizeof(Row), answer)) {
    **out = {answer.count, answer.total, static_cast<Row*>(answer.data)};
  }
  return 0;
}

}  // namespace ormel::log_db
