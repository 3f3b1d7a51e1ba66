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
