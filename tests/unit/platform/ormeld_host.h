// The log database on a temporary file, with the test's clock. It is called as the bus calls it.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "base/log_db_records.h"
#include "daemons/ormeld/methods.h"
#include "unit/platform/scratch.h"

namespace fenro::ormeld {

template <typename Record>
std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

inline db_conn_server_log server_record(const char* user, int type = 4, std::uint64_t time = 0) {
  db_conn_server_log record{};
  std::strcpy(record.username, user);
  record.vpn_type = type;
  record.time = time;
  return record;
}

template <typename Row>
struct Rows {
  std::uint64_t total = 0;
  std::vector<Row> rows{};
};

class OrmeldTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(restart()); }
  bool restart() {
    database = std::make_unique<LogDatabase>(policy, [] { return now; });
    return database->open(file);
  }
  bus::Reply call(std::string_view name, std::string_view body = {}) {
    const auto all = methods();
    const auto method =
        std::find_if(all.begin(), all.end(), [&](const Method& each) { return each.name == name; });
    return method == all.end() ? bus::Reply{-1} : method->run(*database, method->table, body);
  }
  int status(std::string_view name, std::string_view body = {}) { return call(name, body).status; }
  template <typename Row>
  Rows<Row> list(std::string_view method, const db_query_cond& cond) {
    const bus::Reply reply = call(method, bytes_of(cond));
    db_query_answer<char> head{};
    EXPECT_EQ(reply.status, MIB_SUCCESS);
    if (reply.body.size() < sizeof head) return {};
    std::memcpy(&head, reply.body.data(), sizeof head);
    EXPECT_EQ(reply.body.size(), sizeof head + head.count * sizeof(Row));
    Rows<Row> out{head.total, std::vector<Row>(head.count)};
    if (head.count > 0)
      std::memcpy(out.rows.data(), &reply.body[sizeof head], reply.body.size() - sizeof head);
    return out;
  }
  inline static std::time_t now = 1'000'000;
  test::Scratch scratch;
  const std::string file = scratch.path("ormel/log.db");
  const std::string policy = scratch.path("vpn_block.conf");
  std::unique_ptr<LogDatabase> database;
};

inline db_query_cond rows_from(std::int64_t start, std::int64_t count, std::int64_t order_by = 0,
                               bool down = false, const char* field = "", const char* value = "") {
  db_query_cond cond{start, count, order_by, down ? 1 : 0, {}, {}};
  std::strcpy(cond.field, field);
  std::strcpy(cond.value, value);
  return cond;
}

}  // namespace fenro::ormeld
