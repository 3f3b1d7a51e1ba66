// What callers of the service bus make of each reply, and what the log says about it.
#include <functional>
#include <gmock/gmock.h>

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
  void TearDown() override {
    __cur_level__ = level_;
    __cur_type__ = type_;
  }
  static std::string said(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
  }
  // A log with these words, or an empty one.
  static testing::Matcher<std::string> words(const std::string& text) {
    if (text.empty()) return testing::IsEmpty();
    return testing::HasSubstr(text);
  }
  test::ScriptedBus bus;

 private:
  const int level_ = std::exchange(__cur_level__, ORMELLOG_ERROR);
  const int type_ = std::exchange(__cur_type__, ORMELLOG_TYPE_STDOUT);
};

TEST_F(BusReplies, AreJudgedAndWordedAsEachCallerSays) {
  const std::tuple<const char*, int, const char*, const char*, const char*> rows[] = {
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
  for (const auto& [reply, code, usual, easy, kick] : rows) {
    SCOPED_TRACE(reply);
    bus.answer(reply);
    int rc = -1;
    std::string log = said([&] {
      rc = system::bus_call({"caller", "Service", "method"}, nullptr).rc;
    });
    EXPECT_THAT(log, words(usual));
    EXPECT_EQ(rc, code);
    bool parsed = false;
    log = said([&] { parsed = !!system::easy_mib_call("Service", "method", "{\"k\":1}"); });
    EXPECT_THAT(log, words(easy));
    EXPECT_EQ(parsed, code == NO_ERROR);
    EXPECT_THAT(said([&] { rc = drovik::drovik_server_kick_client("m"); }), words(kick));
    EXPECT_EQ(rc, code);
  }
}

TEST_F(BusReplies, AboutAddressesInUseHaveWordsOfTheirOwn) {
  constexpr const char* WHY = "ret:2, data: why.";
  constexpr const char* FAILED = "mib_call failed ret:";
  const std::tuple<const char*, int, int, const char*, const char*> rows[] = {
      {R"({"error":0})", NO_ERROR, 0, "", ""},
      {R"({"error":1})", ERR_IP_POOL_CONFLICT, 1, "ip pool conflict with FENRO network.",
       "ip duplicate with FENRO network."},
      {R"({"error":2,"data":"why"})", ERR_MIB_API_RET_ERROR, 2, WHY, WHY},
      {"{}", ERR_MIB_API_RET_ERROR, -1, FAILED, FAILED},
      {R"({"error":"0"})", ERR_MIB_API_RET_ERROR, -1, FAILED, FAILED},
      {"[]", ERR_MIB_API_RET_ERROR, -1, FAILED, FAILED},
      {"[", ERR_MIB_CALL_FAILED, -1, "failed to parse json.", FAILED},
  };
  for (const auto& [reply, network, address, network_words, address_words] : rows) {
    SCOPED_TRACE(reply);
    bus.answer(reply);
    int rc = -2;
    EXPECT_THAT(said([&] { rc = system::is_network_intersect("10.1.0.0\"", "255.255.0.0"); }),
                words(network_words));
    EXPECT_EQ(rc, network);
    EXPECT_EQ(bus.calls.back().request, R"({"ip":"10.1.0.0\"", "mask": "255.255.0.0"})");
    EXPECT_THAT(said([&] { rc = is_ip_duplicate("10.1.0.1"); }), words(address_words));
    EXPECT_EQ(rc, address);
  }
}

TEST_F(BusReplies, OfAServiceThatIsGoneAreFailedCalls) {
  bus.serve = [](const test::BusCall&, std::string&) { return MIB_NOT_READY; };
  int rc = 0;
  EXPECT_THAT(said([&] {
                rc = system::bus_call({"caller", "Service", "method"}, nullptr).rc;
              }),
              words("caller: mib_call failed ret:2\n"));
  EXPECT_EQ(rc, ERR_MIB_CALL_FAILED);
  EXPECT_THAT(said([&] { std::ignore = system::easy_mib_call("Service", "method", "{\"k\":1}"); }),
              words("easy_mib_call: mib_call Service.method {\"k\":1} failed\n"));
}

}  // namespace
}  // namespace ormel
