#include <climits>

#include <gtest/gtest.h>

#include "unit/platform/ormeld_host.h"

namespace fenro::ormeld {
namespace {

namespace log_db = ormel::log_db;
constexpr auto& LOG = log_db::CONN_SERVER_LOG;

class OrmeldTable : public OrmeldTest {
 protected:
  void add(const char* user, int type, std::uint64_t time) {
    ASSERT_EQ(status(LOG.insert, bytes_of(server_record(user, type, time))), MIB_SUCCESS);
  }
  std::string users(const db_query_cond& cond) {
    std::string names;
    for (const auto& row : list<db_conn_server_log>(LOG.query, cond).rows) names += row.username;
    return names;
  }
  // Straight into the file, for more rows than would be added one by one.
  void fill(const std::string& table, const std::string& columns, std::int64_t count) {
    const std::string sql = "INSERT INTO " + table + " SELECT NULL, " + columns +
                            " FROM (WITH RECURSIVE n(value) AS (SELECT 1 UNION ALL SELECT value + 1"
                            " FROM n WHERE value < " +
                            std::to_string(count) + ") SELECT value FROM n)";
    Database direct;
    ASSERT_EQ(direct.open(file), SQLITE_OK);
    ASSERT_EQ(direct.execute(sql.c_str()), SQLITE_OK);
    ASSERT_TRUE(restart());
  }
};

TEST_F(OrmeldTable, GivesBackEveryByteOfARecordAfterARestart) {
  db_conn_client_log_data record{};
  std::memset(record.username, 'u', sizeof record.username - 1);
  std::strcpy(record.vpn_ip, "\xff\x01'\"; DROP TABLE conn_client_log;--");
  std::strcpy(record.country_code, "DE");
  record.vpn_type = INT_MIN;
  record.uptime = UINT64_MAX;
  record.tx_total = INT64_MIN;
  record.rx_total = INT64_MAX;
  record.action = -1;
  record.id = 77;  // not the sender's to choose
  ASSERT_EQ(status(log_db::CONN_CLIENT_LOG.insert, bytes_of(record)), MIB_SUCCESS);
  ASSERT_TRUE(restart());
  const auto found = list<db_conn_client_log_data>(log_db::CONN_CLIENT_LOG.query, rows_from(0, -1));
  ASSERT_EQ(found.rows.size(), 1U);
  EXPECT_EQ(found.total, 1U);
  record.id = 1;
  EXPECT_EQ(bytes_of(found.rows[0]), bytes_of(record));
}

TEST_F(OrmeldTable, OrdersPagesAndFilters) {
  add("c", 1, 30);
  add("a", 4, 10);
  add("b", 4, 30);
  add("d", 2, 20);
  const std::tuple<const char*, db_query_cond, const char*> rows[] = {
      {"as they came", rows_from(0, -1), "cabd"},
      {"the latest first", rows_from(0, -1, 0, true), "dbac"},
      {"by user", rows_from(0, -1, 1), "abcd"},
      {"by number, equal ones as they came", rows_from(0, -1, 4), "adcb"},
      {"the other way round, equal ones too", rows_from(0, -1, 4, true), "bcda"},
      {"by the last column", rows_from(0, -1, 13), "cabd"},
      {"a page", rows_from(1, 2), "ab"},
      {"the rest of the last page", rows_from(3, 50), "d"},
      {"a page behind the end", rows_from(4, 50), ""},
      {"no rows", rows_from(0, 0), ""},
      {"the largest numbers", rows_from(INT64_MAX, INT64_MAX), ""},
      {"a number as condition", rows_from(0, -1, 0, false, "vpn_type", "4"), "ab"},
      {"a text as condition", rows_from(0, -1, 0, false, "username", "b"), "b"},
      {"a condition and an order", rows_from(0, 1, 4, true, "vpn_type", "4"), "b"},
      {"a malformed number", rows_from(0, -1, 0, false, "vpn_type", "four"), ""},
      {"a value is no SQL", rows_from(0, -1, 0, false, "username", "' OR 1=1 --"), ""},
      {"an empty value is one", rows_from(0, -1, 0, false, "username", ""), ""},
  };
  for (const auto& [about, cond, found] : rows) {
    SCOPED_TRACE(about);
    EXPECT_EQ(users(cond), found);
    EXPECT_EQ(list<db_conn_server_log>(LOG.query, cond).total, 4U);
  }
}

TEST_F(OrmeldTable, FindsAndOrdersTheSameRowsHoweverManyMeetTheCondition) {
  fill("conn_server_log",
       "printf('%05d', value), value % 1001 = 0, 5000 - value, 0, '', '', '', 0, 0, 0, 0, '', 0",
       5000);
  // Four rows are found, then sorted; 4996 are walked in their order.
  EXPECT_EQ(users(rows_from(0, 2, 3, false, "vpn_type", "1")), "0400403003");
  EXPECT_EQ(users(rows_from(1, 2, 3, false, "vpn_type", "0")), "0499904998");
}

TEST_F(OrmeldTable, DeletesOneRowOrAllAndNeverGivesANumberTwice) {
  for (const char* user : {"a", "b", "c"}) add(user, 4, 0);
  EXPECT_EQ(status(LOG.remove, bytes_of(db_delete_cond{3})), MIB_SUCCESS);
  EXPECT_EQ(status(LOG.remove, bytes_of(db_delete_cond{99})), MIB_SUCCESS);
  EXPECT_EQ(users(rows_from(0, -1)), "ab");
  ASSERT_EQ(status(LOG.clean), MIB_SUCCESS);
  add("d", 4, 0);
  const auto found = list<db_conn_server_log>(LOG.query, rows_from(0, -1));
  ASSERT_EQ(found.rows.size(), 1U);
  EXPECT_EQ(found.total, 1U);
  EXPECT_EQ(found.rows[0].id, 4);
}

TEST_F(OrmeldTable, DropsTheOldestRowsBeyondTheLimit) {
  const std::int64_t kept = table_info(DEVICE_INFO).rows_kept;
  fill("device_info", "'', '', '', 'old', '', value, '', 0", kept + 2);
  db_device_info_data record{};
  std::strcpy(record.user_id, "new");
  ASSERT_EQ(status(log_db::DEVICE_INFO.insert, bytes_of(record)), MIB_SUCCESS);
  // All must fit in one answer.
  const auto all = list<db_device_info_data>(log_db::DEVICE_INFO.query, rows_from(0, -1));
  ASSERT_EQ(all.rows.size(), static_cast<std::size_t>(kept));
  EXPECT_EQ(all.total, all.rows.size());
  EXPECT_EQ(all.rows.front().id, 4);
  EXPECT_STREQ(all.rows.back().user_id, "new");
}

TEST_F(OrmeldTable, AnAnswerHoldsNoMoreThanTheBusCarries) {
  fill("conn_server_log", "'', 0, 0, 0, '', '', '', 0, 0, 0, 0, '', 0", 13000);
  for (const std::int64_t count : {std::int64_t{-1}, INT64_MAX}) {
    const auto found = list<db_conn_server_log>(LOG.query, rows_from(0, count));
    EXPECT_EQ(found.rows.size(), ((std::size_t{64} << 20) - 4 - 24) / sizeof(db_conn_server_log));
    EXPECT_EQ(found.total, 13000U);
  }
}

TEST_F(OrmeldTable, RefusesDamagedRequestsAndKeepsTheTableAsItWas) {
  add("a", 4, 0);
  db_query_cond endless_field = rows_from(0, -1);
  std::memset(endless_field.field, 'f', sizeof endless_field.field);
  db_query_cond endless_value = rows_from(0, -1, 0, false, "username", "");
  std::memset(endless_value.value, 'v', sizeof endless_value.value);
  db_conn_server_log endless_text = server_record("a");
  std::memset(endless_text.outgoing, 'o', sizeof endless_text.outgoing);
  const std::string record = bytes_of(server_record("a"));
  const std::string cond = bytes_of(rows_from(0, -1));
  const std::pair<const char*, std::vector<std::string>> rows[] = {
      {LOG.insert, {"", record.substr(1), record + '\0', bytes_of(endless_text)}},
      {LOG.query,
       {"", cond.substr(1), std::string(1 << 20, '\xff'), bytes_of(rows_from(-1, 10)),
        bytes_of(rows_from(0, -2)), bytes_of(rows_from(0, INT64_MIN)),
        bytes_of(rows_from(0, -1, 14)), bytes_of(rows_from(0, -1, -1)),
        bytes_of(rows_from(0, -1, INT64_MAX)),
        bytes_of(rows_from(0, -1, 0, false, "password", "x")),
        bytes_of(rows_from(0, -1, 0, false, "id\" = 1 --", "x")), bytes_of(endless_field),
        bytes_of(endless_value)}},
      {LOG.remove, {"", std::string(7, '\1')}},
      {LOG.clean, {"x"}},
      {log_db::EVENT_DATA.insert, {""}},
      {log_db::DEVICE_INFO.insert, {record}},
      {log_db::MOBILE_GEN_UUID, {"123"}},
      {log_db::PRIVILEGE_USER_BLOCK.insert, {"", std::string("a\0b", 3), std::string(1025, 'u')}},
      {log_db::PRIVILEGE_USER_BLOCK.remove, {""}},
      {log_db::PRIVILEGE_USER_BLOCK_CHECK, {""}},
  };
  for (const auto& [method, bodies] : rows)
    for (const std::string& body : bodies) {
      const bus::Reply reply = call(method, body);
      EXPECT_EQ(reply.status, MIB_IS_INVALID) << method << ", " << body.size() << " bytes";
      EXPECT_EQ(reply.body, "");
    }
  EXPECT_EQ(users(rows_from(0, -1)), "a");
}

TEST_F(OrmeldTable, KeepsItsFilesToItself) {
  add("a", 4, 0);
  EXPECT_EQ(scratch.mode("ormel"), 0700U);
  for (const char* companion : {"", "-wal", "-shm"})
    EXPECT_EQ(scratch.mode(std::string("ormel/log.db") + companion), 0600U) << companion;
}

TEST_F(OrmeldTable, PutsADamagedFileAsideAndStartsAnew) {
  database.reset();
  const std::string garbage(8192, 'g');
  scratch.write("ormel/log.db", garbage);
  ASSERT_TRUE(restart());
  add("a", 4, 0);
  EXPECT_EQ(users(rows_from(0, -1)), "a");
  EXPECT_EQ(scratch.read("ormel/log.db.damaged"), garbage);
}

}  // namespace
}  // namespace fenro::ormeld
