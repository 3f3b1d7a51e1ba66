// The client of the log database, in which a daemon keeps connection logs, the sessions of mobile clients and the users
// that failed logins block. One synchronous call a function, of at most a few seconds.
//
// Every function gives 0 or the status of mib_call, but for two kinds: a list function always gives 0, so that a query
// that failed looks like an empty table, and `check_privilege_user_block` answers by its result.
#pragma once

#include <cstdlib>
#include <memory>

#include "ormel/ormel_api_db_records.h"

// An insertion adds a record, which the daemon numbers. A list fills `**out`, which must be zeroed; its rows are
// allocated, and like itself freed by the caller. A deletion takes a row's number, a cleaning empties the table.

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
// 0 for a user who is not blocked, 1 for one who is. The status of a call that failed is not 0 either: what cannot be
// checked counts as blocked.
[[nodiscard]] int check_privilege_user_block(const char* user);

namespace ormel::log_db {

struct FreeAnswer {
  template <typename Row>
  void operator()(db_query_answer<Row>* answer) const noexcept {
    std::free(answer->data);
    std::free(answer);
  }
};
// Owner of an answer with its rows.
template <typename Query>
using Answer = std::unique_ptr<Query, FreeAnswer>;

// What a list function finds; null only without memory. Without rows its `count` is 0.
template <typename Query>
[[nodiscard]] Answer<Query> ask(int (*list)(const db_query_cond*, Query**), const db_query_cond& cond) {
  Answer<Query> answer{static_cast<Query*>(std::calloc(1, sizeof(Query)))};
  if (Query* filled = answer.get()) list(&cond, &filled);
  return answer;
}

}  // namespace ormel::log_db
