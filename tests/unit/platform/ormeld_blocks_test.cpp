#include <gtest/gtest.h>

#include "unit/platform/ormeld_host.h"

namespace fenro::ormeld {
namespace {

constexpr auto& BLOCK = ormel::log_db::PRIVILEGE_USER_BLOCK;
constexpr const char* CHECK = ormel::log_db::PRIVILEGE_USER_BLOCK_CHECK;
constexpr std::time_t MINUTE = 60;

class OrmeldBlocks : public OrmeldTest {
 protected:
  void fail(std::string_view user, int times) {
    for (int i = 0; i < times; ++i) ASSERT_EQ(status(BLOCK.insert, user), MIB_SUCCESS);
  }
  // The answer of a check; a mark and its status for a failed one, which callers take for a block.
  std::string check(std::string_view user) {
    const bus::Reply reply = call(CHECK, user);
    return reply.status == MIB_SUCCESS ? reply.body : "!" + std::to_string(reply.status);
  }
  auto rows() { return list<db_privilege_user_block_data>(BLOCK.query, rows_from(0, -1)).rows; }
};

TEST_F(OrmeldBlocks, FollowsThePolicyInItsFile) {
  const std::string failed = "!" + std::to_string(MIB_IO_FAILURE);
  const std::tuple<const char*, std::string, std::string, std::string> rows[] = {
      {nullptr, "0", "0", "1"},
      {R"({"global":{"enable":true,"limit":3,"time":30}})", "0", "1", "1"},
      {R"({"global":{"enable":false,"limit":3,"time":30}})", "0", "0", "0"},
      {R"({"global":{"limit":2}})", "1", "1", "1"},
      {R"({})", "0", "0", "1"},
      {"", failed, failed, failed},
      {"[]", failed, failed, failed},
      {R"({"global":[]})", failed, failed, failed},
      {R"({"global":{"enable":"true"}})", failed, failed, failed},
      {R"({"global":{"limit":0}})", failed, failed, failed},
      {R"({"global":{"limit":"3"}})", failed, failed, failed},
      {R"({"global":{"time":-30}})", failed, failed, failed},
      {R"({"global":{"time":99999999999999999999}})", failed, failed, failed},
  };
  for (const auto& [text, after_2, after_3, after_5] : rows) {
    SCOPED_TRACE(text ? text : "no file");
    if (text) scratch.write("vpn_block.conf", text);
    ASSERT_EQ(status(BLOCK.clean), MIB_SUCCESS);
    fail("bob", 2);
    EXPECT_EQ(check("bob"), after_2);
    fail("bob", 1);
    EXPECT_EQ(check("bob"), after_3);
    fail("bob", 2);
    EXPECT_EQ(check("bob"), after_5);
  }
}

TEST_F(OrmeldBlocks, ABlockRunsOutAndTheNextFailureIsTheFirstOfANewCount) {
  scratch.write("vpn_block.conf", R"({"global":{"enable":true,"limit":2,"time":60}})");
  fail("bob", 2);
  now += 60 * MINUTE - 1;
  EXPECT_EQ(check("bob"), "1");
  now += 1;
  EXPECT_EQ(check("bob"), "0");
  EXPECT_EQ(rows().size(), 1U);  // the page that shows the blocks clears them
  fail("bob", 1);
  EXPECT_EQ(check("bob"), "0");
  EXPECT_EQ(rows()[0].limit, 1);
  fail("bob", 1);
  EXPECT_EQ(check("bob"), "1");
}

TEST_F(OrmeldBlocks, FailuresBelowTheLimitStayAndAClockSetBackLiftsNoBlock) {
  fail("bob", 4);
  now += time_t{30} * 24 * 60 * MINUTE;
  fail("bob", 1);
  EXPECT_EQ(check("bob"), "1");
  now -= time_t{365} * 24 * 60 * MINUTE;
  EXPECT_EQ(check("bob"), "1");
}

TEST_F(OrmeldBlocks, ACheckWithoutADatabaseFails) {
  fail("bob", 1);
  Database direct;
  ASSERT_EQ(direct.open(file), SQLITE_OK);
  ASSERT_EQ(direct.execute("DROP TABLE user_block"), SQLITE_OK);
  EXPECT_EQ(check("ann"), "!" + std::to_string(MIB_IO_FAILURE));
  EXPECT_EQ(status(BLOCK.insert, "ann"), MIB_IO_FAILURE);
}

}  // namespace
}  // namespace fenro::ormeld
