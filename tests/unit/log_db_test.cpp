#include "ormel/actions/log_db.h"

#include <gtest/gtest.h>

#include "ormel/actions/log_db_mobile.h"
#include "support/scripted_bus.h"

namespace ormel::log_db {
namespace {

using test::BusCall;

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

std::string answer_of(uint64_t count, uint64_t total, size_t rows) {
  const db_conn_server_log_query head{count, total, nullptr};
  std::string reply{reinterpret_cast<const char*>(&head), sizeof head};
  db_conn_server_log row{};
  for (; row.id < static_cast<int64_t>(rows); ++row.id)
    reply.append(reinterpret_cast<const char*>(&row), sizeof row);
  return reply;
}

TEST(LogDb, ReadsTheRowsThatHaveCome) {
  const std::string empty = answer_of(0, 9, 0);
  std::string cut = answer_of(3, 9, 3);
  cut.pop_back();
  const std::tuple<std::string, size_t, size_t> rows[] = {
      {"", 0, 0},
      {empty.substr(1), 0, 0},
      {empty, 0, 9},
      {answer_of(2, 9, 2), 2, 9},
      {answer_of(1, 9, 2), 1, 9},
      {answer_of(3, 9, 2), 2, 9},
      {cut, 2, 9},
      {answer_of(uint64_t{1} << 63, 9, 1), 1, 9},
  };
  test::ScriptedBus bus;
  for (const auto& [reply, count, total] : rows) {
    SCOPED_TRACE(reply.size());
    bus.answer(reply);
    const auto answer = ask(list_conn_server_log, {});
    EXPECT_EQ(answer.rows().size(), count);
    EXPECT_EQ(answer.total(), total);
  }
  bus.answer(answer_of(2, 2, 2));
  EXPECT_EQ(ask(list_conn_server_log, {}).rows()[1].id, 1);
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
