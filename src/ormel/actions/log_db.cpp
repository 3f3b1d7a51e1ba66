#include "ormel/actions/log_db.h"

// A buffer that cannot be made stops the process, in a release build too.
#undef NDEBUG
#include <algorithm>
#include <cassert>
#include <cstring>

#include "ormel/actions/log_db_call.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/bus_filter.h"

namespace ormel::log_db {

namespace {

constexpr size_t HEAD_SIZE = sizeof(db_query_answer<char>);

// One synchronous exchange: the request goes out in `io`, which then holds the reply.
int exchange(const MibIo& io, const char* method, std::string_view request) {
  if (!request.empty()) {
    const int written = mib_io_write(io.get(), request.data(), request.size());
    if (written != static_cast<int>(request.size())) return MIB_IO_FAILURE;
  }
  return system::send_call(SERVICE, method, io.get(), TIMEOUT, system::BUS_FLAG);
}

}  // namespace

int call(const char* function, const char* method, std::string_view request, std::string* reply) {
  const MibIo io{mib_io_create()};
  assert(io !=
         __null);  // NOLINT(modernize-use-nullptr): the text is that of the daemon's other clients
  ORMEL_LOG(DEBUG, "%s", function);
  const int rc = exchange(io, method, request);
  size_t length = 0;
  const char* text = rc == MIB_SUCCESS && reply ? mib_io_read(io.get(), &length) : nullptr;
  if (text) reply->assign(text, length);
  return rc;
}

bool query(const char* function, const char* method, const db_query_cond& cond, size_t row_size,
           RawAnswer& out) {
  std::string reply;
  if (const int rc = call(function, method, bytes_of(&cond), &reply); rc != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, "mibsh %s, ret=%d", function, rc);
    return false;
  }
  if (reply.size() < HEAD_SIZE) {
    ORMEL_LOG(ERROR, "mibsh %s, answer of %zu bytes", function, reply.size());
    return false;
  }
  db_query_answer<char> head{};
  std::memcpy(&head, reply.data(), HEAD_SIZE);
  ORMEL_LOG(DEBUG, "query count = %llu", static_cast<unsigned long long>(head.count));

  // A head can promise more rows than have come, and the caller walks as many as it says.
  const size_t count = std::min<uint64_t>(head.count, (reply.size() - HEAD_SIZE) / row_size);
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): freed with free() by the clients of this interface
  void* rows = std::calloc(std::max<size_t>(count, 1), row_size);
  if (!rows) return false;
  std::memcpy(rows, reply.data() + HEAD_SIZE, count * row_size);
  out = {count, head.total, rows};
  return true;
}

}  // namespace ormel::log_db

using namespace ormel::log_db;

int add_conn_server_log(const db_conn_server_log* record) {
  return call("add_connection_insert", CONN_SERVER_LOG.insert, bytes_of(record));
}
int list_conn_server_log(const db_query_cond* cond, db_conn_server_log_query** out) {
  return list(__func__, CONN_SERVER_LOG.query, cond, out);
}
int delete_conn_server_log(const db_delete_cond* cond) {
  return call(__func__, CONN_SERVER_LOG.remove, bytes_of(cond));
}
int clean_conn_server_log() {
  return call(__func__, CONN_SERVER_LOG.clean, {});
}

int add_conn_client_log(const db_conn_client_log_data* record) {
  return call(__func__, CONN_CLIENT_LOG.insert, bytes_of(record));
}
int list_conn_client_log(const db_query_cond* cond, db_conn_client_log_query** out) {
  return list(__func__, CONN_CLIENT_LOG.query, cond, out);
}
int delete_conn_client_log(const db_delete_cond* cond) {
  return call(__func__, CONN_CLIENT_LOG.remove, bytes_of(cond));
}
int clean_conn_client_log() {
  return call(__func__, CONN_CLIENT_LOG.clean, {});
}

int add_event_data(const db_event_data* record) {
  return call(__func__, EVENT_DATA.insert, bytes_of(record));
}
int list_event_data(const db_query_cond* cond, db_event_query** out) {
  return list(__func__, EVENT_DATA.query, cond, out);
}

int add_privilege_user_block(const char* user) {
  return call(__func__, PRIVILEGE_USER_BLOCK.insert, user);
}
int delete_privilege_user_block(const char* user) {
  return call(__func__, PRIVILEGE_USER_BLOCK.remove, user);
}
int list_privilege_user_block(const db_query_cond* cond, db_privilege_user_block_query** out) {
  return list(__func__, PRIVILEGE_USER_BLOCK.query, cond, out);
}
int clean_privilege_user_block() {
  return call(__func__, PRIVILEGE_USER_BLOCK.clean, {});
}

int check_privilege_user_block(const char* user) {
  std::string reply;
  if (const int rc = call(__func__, PRIVILEGE_USER_BLOCK_CHECK, user, &reply); rc != MIB_SUCCESS)
    return rc;
  return std::strcmp(reply.c_str(), "1") == 0 ? 1 : 0;
}
