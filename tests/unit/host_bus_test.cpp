// What callers of the service bus make of each reply, and what the log says about it.
#include <functional>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/host/bus.h"
#include "ormel/host/interfaces.h"
#include "support/scripted_bus.h"

namespace ormel {
namespace {

class BusReplies : public testing::Test {
 protected:
  void SetUp() override {
    level_ = std::exchange(__cur_level__, ORMELLOG_ERROR);
    type_ = std::exchange(__cur_type__, ORMELLOG_TYPE_STDOUT);
  }
  void TearDown() override {
    __cur_level__ = level_;
    __cur_type__ = type_;
  }
  // The lines of the log that a call leaves.
  static std::string said(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
  }
  test::ScriptedBus bus;

 private:
  int level_ = 0;
  int type_ = 0;
};

struct Row {
  const char* reply;
  int rc;
  const char* usual;
  const char* easy;
  const char* kick;
};

constexpr Row ROWS[] = {
    {R"({"error":0,"data":""})", NO_ERROR, "", "", ""},
    {"[", ERR_WRONG_JSON_FORMAT, "caller: root isn't an object. 1: ",
     "easy_mib_call: root isn't an object.", "root isn't a object. 1: "},
    {"[0]", ERR_WRONG_JSON_FORMAT, "caller: root isn't an object. ",
     "easy_mib_call: root isn't an object.", "root isn't a object. "},
    {R"({"error":"0"})", ERR_WRONG_JSON_FORMAT, "caller: val isn't an integer. ",
     "easy_mib_call: val isn't an integer.", "val isn't a integer. "},
    {R"({"error":3})", ERR_MIB_API_RET_ERROR,
     "caller: Service.method failed {\n    \"error\": 3\n}",
     "easy_mib_call: Service.method {\"k\":1} failed",
     "MorviServer.disconnect failed {\n    \"error\": 3\n}"},
};

TEST_F(BusReplies, AreJudgedAndWordedAsEachCallerSays) {
  for (const Row& row : ROWS) {
    SCOPED_TRACE(row.reply);
    bus.answer(row.reply);
    const auto expect = [&](const std::string& log, const char* words) {
      if (*words) {
        EXPECT_NE(log.find(words), std::string::npos) << log;
      } else {
        EXPECT_EQ(log, "");
      }
    };
    int rc = -1;
    expect(said([&] {
             rc = system::bus_call({"caller", "Service", "method"}, nullptr).rc;
           }),
           row.usual);
    EXPECT_EQ(rc, row.rc);
    bool parsed = false;
    expect(said([&] {
             parsed = static_cast<bool>(system::easy_mib_call("Service", "method", "{\"k\":1}"));
           }),
           row.easy);
    EXPECT_EQ(parsed, row.rc == NO_ERROR);
    expect(said([&] { rc = drovik::drovik_server_kick_client("m"); }), row.kick);
    EXPECT_EQ(rc, row.rc);
  }
}

TEST_F(BusReplies, AboutAddressesInUseHaveWordsOfTheirOwn) {
  const struct {
    const char* reply;
    int network, address;
    const char *network_words, *address_words;
  } rows[] = {
      {R"({"error":0})", NO_ERROR, 0, "", ""},
      {R"({"error":1})", ERR_IP_POOL_CONFLICT, 1, "ip pool conflict with FENRO network.",
       "ip duplicate with FENRO network."},
      {R"({"error":2,"data":"why"})", ERR_MIB_API_RET_ERROR, 2, "ret:2, data: why.",
       "ret:2, data: why."},
      {"[", ERR_MIB_CALL_FAILED, -1, "failed to parse json.", "mib_call failed ret:"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reply);
    bus.answer(row.reply);
    int rc = -2;
    const std::string network =
        said([&] { rc = system::is_network_intersect("10.1.0.0", "255.255.0.0"); });
    EXPECT_EQ(rc, row.network);
    EXPECT_NE(network.find(row.network_words), std::string::npos) << network;
    const std::string address = said([&] { rc = is_ip_duplicate("10.1.0.1"); });
    EXPECT_EQ(rc, row.address);
    EXPECT_NE(address.find(row.address_words), std::string::npos) << address;
    EXPECT_EQ(network.empty() && address.empty(), row.network == NO_ERROR);
  }
}

TEST_F(BusReplies, OfAServiceThatIsGoneAreFailedCalls) {
  bus.serve = [](const test::BusCall&, std::string&) { return MIB_NOT_READY; };
  int rc = 0;
  EXPECT_NE(said([&] {
              rc = system::bus_call({"caller", "Service", "method"}, nullptr).rc;
            }).find("caller: mib_call failed ret:2\n"),
            std::string::npos);
  EXPECT_EQ(rc, ERR_MIB_CALL_FAILED);
  EXPECT_NE(said([&] {
              std::ignore = system::easy_mib_call("Service", "method", "{\"k\":1}");
            }).find("easy_mib_call: mib_call Service.method {\"k\":1} failed\n"),
            std::string::npos);
}

}  // namespace
}  // namespace ormel
