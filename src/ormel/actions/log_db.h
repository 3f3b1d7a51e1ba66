// The client of the log database, in which a daemon keeps connection logs, the sessions of mobile
// clients and the users that failed logins block. One synchronous call a function, of at most a few
// seconds.
//
// Every function gives 0 or the status of mib_call, but for two kinds: a list function always gives
// 0, so that a query that failed looks like an empty table, and `check_privilege_user_block`
// answers by its result.
#pragma once

#include <cstdlib>
#include <memory>
#include <span>

#include "base/log_db_records.h"
#include "ormel/base/handle.h"

// An insertion adds a record, which the daemon numbers. A list fills `**out`, which must be zeroed;
// its rows are allocated, and like itself freed by the caller. A deletion takes a row's number, a
// cleaning empties the table.

int add_conn_server_log(const db_conn_server_log* record);
int list_conn_server_log(const db_query_cond* cond, db_conn_server_log_query** out);
int delete_conn_server_log(const db_delete_cond* cond);
int clean_conn_server_log();

int add_conn_client_log(const db_conn_client_log_data* record);
int list_conn_client_log(const db_query_cond* cond, db_conn_client_log_query** out);
int delete_conn_client_log(const db_delete_cond* cond);
int clean_conn_client_log();

int add_event_data(const db_event_data* record);
int list_event_data(const db_query_cond* cond, db_event_query** out);

// These count a failed login of a user and forget all of them.
int add_privilege_user_block(const char* user);
int delete_privilege_user_block(const char* user);
int list_privilege_user_block(const db_query_cond* cond, db_privilege_user_block_query** out);
int clean_privilege_user_block();
// 0 for a user who is not blocked, 1 for one who is. The status of a call that failed is not 0
// either: what cannot be checked counts as blocked.
[[nodiscard]] int check_privilege_user_block(const char* user);

namespace ormel::log_db {

// What a list function finds; the rows go with this object.
template <typename Row>
class Answer {
 public:
  explicit Answer(const db_query_answer<Row>& answer)
      : rows_(answer.data), count_(answer.count), total_(answer.total) {}

  [[nodiscard]] std::span<const Row> rows() const { return {rows_.get(), count_}; }
  [[nodiscard]] uint64_t total() const { return total_; }  // rows in the table

 private:
  std::unique_ptr<Row, FreeWith<std::free>> rows_;
  size_t count_;
  uint64_t total_;
};

template <typename Row>
[[nodiscard]] Answer<Row> ask(int (*list)(const db_query_cond*, db_query_answer<Row>**),
                              const db_query_cond& cond) {
  db_query_answer<Row> answer{};
  db_query_answer<Row>* filled = &answer;
  list(&cond, &filled);
  return Answer<Row>{answer};
}

}  // namespace ormel::log_db
