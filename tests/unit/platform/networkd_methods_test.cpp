#include <climits>
#include <filesystem>
#include <gmock/gmock.h>

#include "daemons/networkd/methods.h"
#include "unit/platform/scratch.h"

namespace fenro::networkd {
namespace {

using testing::HasSubstr;
using testing::Not;

class NetworkdTest : public testing::Test {
 protected:
  std::string call(std::string_view name, std::string_view body) {
    const auto all = methods();
    const auto method =
        std::find_if(all.begin(), all.end(), [&](const Method& each) { return each.name == name; });
    return method == all.end() ? "no such method" : answer(*state, *method, body);
  }
  // The integer "error" of a reply; a foreign reply gives INT_MIN.
  int error_of(std::string_view name, std::string_view body) {
    const std::string text = call(name, body);
    const Json reply{json_loads(text.c_str(), 0, nullptr)};
    const json_t* error = json_object_get(reply.get(), "error");
    EXPECT_TRUE(json_is_integer(error) && json_object_get(reply.get(), "data") != nullptr) << text;
    return json_is_integer(error) ? static_cast<int>(json_integer_value(error)) : INT_MIN;
  }
  int add(std::string_view body) { return error_of("external_dev.register", body); }
  std::string list() { return call("external_dev.list", ""); }
  void restart() {
    state = std::make_unique<State>(State{ExternalDevices{file}, {}});
    state->devices.load();
  }
  test::Scratch scratch;
  const std::string file = scratch.path("external_dev.json");
  std::unique_ptr<State> state = std::make_unique<State>(State{ExternalDevices{file}, {}});
};

TEST_F(NetworkdTest, KeepsWhatItAcknowledgedOverARestart) {
  ASSERT_EQ(add(R"({"key":"PPTP_CLIENT1","profile":"a","ifname":"ppp1001","x":1})"), 0);
  ASSERT_EQ(add(R"({"key":"L2TP_CLIENT1","profile":"b\u0001\"\\é"})"), 0);
  const std::string before = list();
  restart();
  EXPECT_EQ(list(), before);
  EXPECT_EQ(
      call("external_dev.list", R"({"key":"PPTP_CLIENT1"})"),
      R"({"error":0,"data":{"PPTP_CLIENT1":{"key":"PPTP_CLIENT1","as_default_gw":"","profile":"a","status":"",)"
      R"("ip4_ip":"","ip4_netmask":"","ifname":"ppp1001","type":"","protocol":"","country_code":"","dns":"",)"
      R"("ip4_gw":""}}})");
  EXPECT_EQ(scratch.mode("external_dev.json"), 0600U);
  EXPECT_EQ(scratch.files(), 1U);  // no temporary file is left
}

TEST_F(NetworkdTest, RegisteringReplacesAndModifyingKeepsTheOtherFields) {
  add(R"({"key":"K","profile":"old","dns":"1.1.1.1"})");
  EXPECT_EQ(error_of("external_dev.modify", R"({"key":"K","profile":"new"})"), 0);
  EXPECT_THAT(call("external_dev.list", R"({"key":"K"})"),
              HasSubstr(R"("profile":"new","status":"","ip4_ip":"")"));
  EXPECT_THAT(list(), HasSubstr("1.1.1.1"));
  EXPECT_EQ(add(R"({"key":"K"})"), 0);
  EXPECT_THAT(list(), Not(HasSubstr("1.1.1.1")));
  EXPECT_EQ(error_of("external_dev.modify", R"({"key":"UNKNOWN","profile":"p"})"), 0);
  for (int time = 0; time < 2; ++time)
    EXPECT_EQ(error_of("external_dev.unregister", R"({"key":"K"})"), 0);
  EXPECT_EQ(call("external_dev.list", R"({"key":"K"})"), R"({"error":0,"data":{}})");
  EXPECT_THAT(list(), HasSubstr("UNKNOWN"));
}

TEST_F(NetworkdTest, AChangeThatCannotBeSavedIsRefusedAndUndone) {
  ASSERT_EQ(add(R"({"key":"K"})"), 0);
  const std::string before = list();
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);  // nothing can be renamed over it, not even by root
  EXPECT_NE(add(R"({"key":"L"})"), 0);
  EXPECT_NE(error_of("external_dev.unregister", R"({"key":"K"})"), 0);
  EXPECT_EQ(list(), before);
}

TEST_F(NetworkdTest, StartsEmptyBesideADamagedFileAndKeepsItForLater) {
  for (const char* damaged : {"", "{\"K\":{\"key\":\"K\"", "[]", "\177ELF", "7"}) {
    SCOPED_TRACE(damaged);
    scratch.write("external_dev.json", damaged);
    restart();
    EXPECT_EQ(list(), R"({"error":0,"data":{}})");
    EXPECT_TRUE(std::filesystem::exists(file + ".damaged"));
    EXPECT_EQ(add(R"({"key":"NEW"})"), 0);
  }
}

TEST_F(NetworkdTest, LeavesOutDamagedEntriesAlone) {
  scratch.write(
      "external_dev.json",
      R"({"A":{"key":"A","profile":7},"B":{"key":"C"},"D":[],"E":{"key":"E","profile":"good"}})");
  restart();
  EXPECT_THAT(list(),
              testing::StartsWith(
                  R"({"error":0,"data":{"E":{"key":"E","as_default_gw":"","profile":"good")"));
}

TEST_F(NetworkdTest, TheTableIsBounded) {
  std::string content = "{";
  for (std::size_t i = 0; i < DEVICES_MAX; ++i) {
    const std::string key = "K" + std::to_string(i);
    content.append(i ? ",\"" : "\"").append(key).append("\":{\"key\":\"").append(key).append("\"}");
  }
  scratch.write("external_dev.json", content + "}");
  restart();
  EXPECT_EQ(add(R"({"key":"ONE_MORE"})"), ERROR_REQUEST);
  EXPECT_EQ(add(R"({"key":"K5","profile":"replaced"})"), 0);
  const std::string long_field(DEVICE_FIELD_MAX + 1, 'x');
  EXPECT_EQ(add(R"({"key":"K5","profile":")" + long_field + "\"}"), ERROR_REQUEST);
}

TEST_F(NetworkdTest, AnswersEveryHostileBodyWithAnError) {
  const std::string bodies[] = {
      "[]",
      "{\"key\":",
      std::string(1000, '\0'),
      std::string(50000, '['),
      "{\"key\":" + std::string(30000, '[') + std::string(30000, ']') + "}",
      "{\"key\":\"" + std::string(100000, 'k') + "\"}",
      R"({"key":7,"ip":7,"mask":7,"name_interface":7})",
      R"({"key":[],"ip":null,"mask":{},"name_interface":true})",
      R"({"key":"a\u0000b","ip":"10.0.0.1\u0000","name_interface":"lo\u0000"})",
      R"({"key":"","name_interface":"","ip":"","mask":""})",
  };
  const std::set<std::string_view> takes_nothing{
      "api.get_available_interface_list", "api.get_currentGWinfo", "external_dev.guard_state",
      "external_dev.update_vpn_gw"};
  for (const Method& method : methods())
    for (const std::string& body : bodies) {
      // What looks into no object, and an unknown key, which is no error.
      const bool is_object = &body - bodies >= 6;
      if (is_object && takes_nothing.count(method.name) != 0) continue;
      if (method.name == "external_dev.list" && body.ends_with("\"mask\":\"\"}")) continue;
      EXPECT_NE(error_of(method.name, body), 0) << method.name << " " << body.substr(0, 60);
    }
}

TEST_F(NetworkdTest, FindsACollisionWithTheLoopbackNetworkAndNoneElsewhere) {
  EXPECT_EQ(call("api.check_network_intersect", R"({"ip":"127.0.0.2", "mask": "255.255.255.0"})"),
            R"({"error":1,"data":"lo 127.0.0.0/8"})");
  EXPECT_EQ(
      call("api.check_network_intersect", R"({"ip":"198.51.100.7", "mask": "255.255.255.0"})"),
      R"({"error":0,"data":""})");
  EXPECT_EQ(error_of("api.check_network_intersect", R"({"ip":"10.0.0.1","mask":"255.0.255.0"})"),
            ERROR_REQUEST);
  EXPECT_EQ(call("api.check_ip_duplicate", R"({"ip":"127.0.0.1"})"), R"({"error":1,"data":"lo"})");
  EXPECT_EQ(error_of("api.get_interfaceStatus", R"({"ifindex":999999})"), ERROR_NOT_FOUND);
}

TEST(RatesTest, CountsBytesASecondBetweenTheLastTwoReadings) {
  const Rates::Clock::time_point start{};
  const std::tuple<int, std::uint64_t, int, std::uint64_t> readings[] = {
      {2, 1000, 0, 0},       // one reading is no rate
      {2, 2000, 500, 2000},  // in half a second
      {2, 100, 1500, 0},     // a counter that went back
      {9, 5000, 2500, 0},    // another interface of that name
      {9, 6000, 2500, 0},    // no time has passed
  };
  Rates rates;
  for (const auto& [index, rx, time, rate] : readings) {
    rates.sample({{index, "eth0", 0, true, rx, 2 * rx}}, start + std::chrono::milliseconds{time});
    EXPECT_EQ(rates.of("eth0").rx, rate) << time;
    EXPECT_EQ(rates.of("eth0").tx, 2 * rate) << time;
  }
  rates.sample({}, start + std::chrono::milliseconds{3500});
  EXPECT_EQ(rates.of("eth0").tx, 0U);
}

}  // namespace
}  // namespace fenro::networkd
