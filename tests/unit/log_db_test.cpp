#include <array>
#include <cstring>
#include <gmock/gmock.h>

#include "ormel/ormel_api_mobile.h"
#include "support/scripted_bus.h"

namespace ormel::log_db {
namespace {

using test::BusCall;
using testing::ElementsAre;

template <typename Record>
std::string bytes(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

std::string head(uint64_t count, uint64_t total) {
  return bytes(count) + bytes(total) + std::string("\xff\xff\xff\xff\xff\xff\xff\xff");
}

// The daemon and its other clients lay the records out by these numbers.
TEST(LogDbRecord, HasItsFieldsAtTheirOffsets){
#define AT(field) offsetof(Record, field)
    {using Record = db_query_cond;
EXPECT_THAT((std::array{AT(start), AT(count), AT(order_by), AT(order_style), AT(field)}),
            ElementsAre(0, 8, 16, 24, 32));
}  // namespace
{
  using Record = db_conn_server_log;
  EXPECT_THAT((std::array{AT(username), AT(vpn_type), AT(uptime), AT(time), AT(device_info), AT(source_ip), AT(vpn_ip),
                          AT(tx_rate), AT(rx_rate), AT(tx_total), AT(rx_total), AT(outgoing)}),
              ElementsAre(8, 1036, 1040, 1048, 1056, 2081, 3106, 4136, 4144, 4152, 4160, 4168));
}
{
  using Record = db_conn_client_log_data;
  EXPECT_THAT((std::array{AT(username), AT(vpn_type), AT(uptime), AT(time), AT(vpn_ip), AT(tx_rate), AT(rx_rate),
                          AT(tx_total), AT(rx_total), AT(country_code), AT(wan_ip)}),
              ElementsAre(8, 1036, 1040, 1048, 1056, 2088, 2096, 2104, 2112, 2120, 2123));
}
{
  using Record = db_server_list_data;
  EXPECT_THAT((std::array{AT(uuid), AT(username), AT(sid), AT(device_name), AT(expire_time)}),
              ElementsAre(8, 1033, 2058, 3083, 4112));
}
{
  using Record = db_device_info_data;
  EXPECT_THAT((std::array{AT(ip), AT(mac), AT(fenrosid), AT(user_id), AT(dev_name), AT(dev_uuid), AT(nic)}),
              ElementsAre(8, 1033, 2058, 3083, 4108, 5133, 6158));
}
{
  using Record = db_privilege_user_block_data;
  EXPECT_THAT((std::array{AT(username), AT(limit)}), ElementsAre(8, 1036));
}
#undef AT
}  // namespace ormel::log_db

TEST(LogDb, SendsEachRequestToItsMethod) {
  static const db_delete_cond row{7};
  const auto record = [](auto filled) {
    filled.id = 9;
    return filled;
  };
  static const auto server = record(db_conn_server_log{});
  static const auto client = record(db_conn_client_log_data{});
  static const auto session = record(db_server_list_data{});
  static const auto device = record(db_device_info_data{});
  static const db_event_data event{};
  static const ormel_mobile_gen_uuid_data_set kind{3};
  static ormel_mobile_gen_uuid_data_get uuid{};
  const struct {
    int (*call)();
    const char* method;
    std::string request;
  } rows[] = {
      {[] { return add_conn_server_log(&server); }, "db_conn_insert", bytes(server)},
      {[] { return delete_conn_server_log(&row); }, "db_conn_server_log_del", bytes(row)},
      {clean_conn_server_log, "db_conn_server_log_clean", ""},
      {[] { return add_conn_client_log(&client); }, "db_conn_client_log_insert", bytes(client)},
      {[] { return delete_conn_client_log(&row); }, "db_conn_client_log_del", bytes(row)},
      {clean_conn_client_log, "db_conn_client_log_clean", ""},
      {[] { return add_event_data(&event); }, "db_event_insert", std::string(1, '\0')},
      {[] { return add_server_list(&session); }, "db_server_list_insert", bytes(session)},
      {[] { return delete_server_list(&row); }, "db_server_list_del", bytes(row)},
      {clean_server_list, "db_server_list_clean", ""},
      {[] { return add_device_info(&device, &uuid); }, "db_device_info_insert", bytes(device)},
      {[] { return delete_device_info(&row); }, "db_device_info_del", bytes(row)},
      {clean_device_info, "db_device_info_clean", ""},
      {[] { return add_privilege_user_block("bob"); }, "db_privilege_user_block_insert", "bob"},
      {[] { return delete_privilege_user_block("bob"); }, "db_privilege_user_block_del", "bob"},
      {clean_privilege_user_block, "db_privilege_user_block_clean", ""},
      {[] { return check_privilege_user_block("bob"); }, "db_privilege_user_block_check", "bob"},
      {[] {
         ormel_mobile_gen_uuid_data_get* out = &uuid;
         return ormel_mobile_gen_ormel_uuid(&kind, &out);
       },
       "ormel_mobile_gen_ormel_uuid", bytes(kind)},
  };
  for (const auto& expected : rows) {
    SCOPED_TRACE(expected.method);
    test::ScriptedBus bus;
    bus.answer("");
    EXPECT_EQ(expected.call(), 0);
    ASSERT_EQ(bus.calls.size(), 1U);
    EXPECT_EQ(bus.calls[0].service, "@/var/run/ormeld.sock");
    EXPECT_EQ(bus.calls[0].method, expected.method);
    EXPECT_EQ(bus.calls[0].request, expected.request);
    bus.serve = [](const BusCall&, std::string&) { return MIB_TIMEOUT; };
    EXPECT_EQ(expected.call(), MIB_TIMEOUT);
  }
}

// One table's list: its method, its rows, and what stands for a table that cannot be read.
template <typename Row>
void test_list(int (*list)(const db_query_cond*, db_query_answer<Row>**), const char* method) {
  SCOPED_TRACE(method);
  test::ScriptedBus bus;
  db_query_cond cond{};
  cond.count = -1;
  std::strcpy(cond.field, "username");
  const std::string first(sizeof(Row), 'a');
  const std::string second(sizeof(Row), 'b');

  bus.answer(head(2, 40) + first + second);
  const auto found = ask(list, cond);
  EXPECT_EQ(bus.calls.at(0).method, method);
  EXPECT_EQ(bus.calls.at(0).request, bytes(cond));
  ASSERT_EQ(found.rows().size(), 2U);
  EXPECT_EQ(found.total(), 40U);
  EXPECT_EQ(bytes(found.rows()[0]) + bytes(found.rows()[1]), first + second);

  // A daemon that answers less than it says must not make the caller read beyond it.
  for (const std::string& reply : {head(0, 3), head(5, 3) + first.substr(1), head(~0ULL, 3)}) {
    bus.answer(reply);
    const auto none = ask(list, cond);
    EXPECT_TRUE(none.rows().empty());
    EXPECT_EQ(none.total(), 3U);
  }
  bus.answer(std::string(23, 'x'));
  EXPECT_EQ(ask(list, cond).total(), 0U);

  bus.serve = [](const BusCall&, std::string&) { return MIB_NOT_READY; };
  db_query_answer<Row> empty{};
  auto* out = &empty;
  EXPECT_EQ(list(&cond, &out), 0) << "looks like an empty table";
  EXPECT_EQ(empty.count + empty.total, 0U);
}

TEST(LogDb, ListsRowsBehindTheHead) {
  test_list(list_conn_server_log, "db_conn_server_log_query");
  test_list(list_conn_client_log, "db_conn_client_log_query");
  test_list(list_server_list, "db_server_list_query");
  test_list(list_device_info, "db_device_info_query");
  test_list(list_privilege_user_block, "db_privilege_user_block_query");
  test::ScriptedBus bus;
  bus.answer(head(1, 1) + "x");
  EXPECT_EQ(ask(list_event_data, {}).rows().size(), 1U);
  EXPECT_EQ(bus.calls.at(0).method, "db_event_query");
}

TEST(LogDb, BlocksOnTheTextOneAndOnAFailedCheck) {
  test::ScriptedBus bus;
  for (const char* reply : {"0", "-1", "", "1\n", "11", "true"}) {
    bus.answer(reply);
    EXPECT_EQ(check_privilege_user_block("bob"), 0) << reply;
  }
  bus.answer("1");
  EXPECT_EQ(check_privilege_user_block("bob"), 1);
  bus.serve = [](const BusCall&, std::string&) { return MIB_NOT_READY; };
  EXPECT_EQ(check_privilege_user_block("bob"), MIB_NOT_READY);
}

TEST(LogDb, CopiesIdentifiersWithinTheirRecord) {
  const std::string identifier = "0123456789abcdef0123456789abcdef0123";
  test::ScriptedBus bus;
  bus.answer(identifier + "beyond");
  ormel_mobile_gen_uuid_data_get uuid{};
  uuid.ormel_uuid[35] = '#';
  const db_device_info_data device{};
  EXPECT_EQ(add_device_info(&device, &uuid), 0);
  EXPECT_EQ(std::string(uuid.ormel_uuid, 36), identifier.substr(0, 35) + '#');

  const ormel_mobile_gen_uuid_data_set kind{1};
  auto* out = &uuid;
  EXPECT_EQ(ormel_mobile_gen_ormel_uuid(&kind, &out), 0);
  EXPECT_EQ(std::string(uuid.ormel_uuid, 36), identifier);
}

}  // namespace
}  // namespace ormel::log_db
