#include <map>

#include <gtest/gtest.h>

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/host/log_file.h"
#include "ormel/membership/cloud.h"
#include "ormel/membership/daemon.h"
#include "ormel/membership/identity.h"
#include "ormel/membership/precheck.h"
#include "ormel/membership/registration.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/supernode.h"
#include "ormel/membership/token.h"
#include "ormel/web/membership.h"
#include "support/scripted_bus.h"

namespace {

using namespace ormel;
using namespace ormel::pelmar;
using test::BusCall;
using test::ProgramCall;

// Settings in a table in place of the files; other programs answer what `tool` says.
class PelmarTest : public testing::Test {
 protected:
  PelmarTest() {
    bus.run = [this](const ProgramCall& call, std::string& output) {
      const auto& words = call.argv;
      if (words[0] == "/sbin/setcfg") {
        settings[words[2]] = words[3];
        return 0;
      }
      if (words[0] != "/sbin/getcfg") return tool ? tool(call, output) : 1;
      if (broken_tool) return 1;
      const auto found = settings.find(words[2]);
      output = (found == settings.end() ? words[6] : found->second) + '\n';
      return found != settings.end() || !words[6].empty() ? 0 : 1;
    };
    bus.answer(R"({"error":0})");
  }

  test::ScriptedBus bus;
  std::map<std::string, std::string> settings;
  std::function<int(const ProgramCall&, std::string&)> tool;
  bool broken_tool = false;
};

using PelmarSettings = PelmarTest;
using PelmarCloud = PelmarTest;
using PelmarToken = PelmarTest;
using PelmarRegister = PelmarTest;
using PelmarPrecheck = PelmarTest;

TEST_F(PelmarSettings, TakeAMissingKeyForAFailureOnlyWithoutADefault) {
  std::string out = "before";
  EXPECT_EQ(get_org_id(out), ERR_CMD_FAILED);
  EXPECT_EQ(get_org_name(out), NO_ERROR);
  EXPECT_EQ(out, "");
  broken_tool = true;
  EXPECT_EQ(get_pelmar_site(out), NO_ERROR);
  EXPECT_EQ(out, "Production");
  EXPECT_EQ(get_contact(out), ERR_CMD_FAILED);
  broken_tool = false;
  settings["virtual_ip"] = "";
  EXPECT_EQ(get_virtual_ip(out), ERR_CMD_FAILED);
  settings["virtual_ip"] = "10.\n0.0.1";
  EXPECT_EQ(get_virtual_ip(out), NO_ERROR);
  EXPECT_EQ(out, "10.0.0.1");
}

TEST_F(PelmarSettings, PlaceTheLogByWhatTheToolSaysAlone) {
  settings["Install_Path"] = "/nowhere";
  system::set_log_file_wrapper();
  EXPECT_STREQ(__log_file__, "/nowhere/var/log/ORMEL.log");
}

TEST(PelmarMask, CountsBitsWhateverTheirOrder) {
  const std::pair<const char*, int> rows[] = {
      {"255.255.255.0", 24}, {"255.0.255.0", 16}, {"0.0.0.0", 0}, {"511.1", 9}, {"", 0}, {"x", 0}};
  for (const auto& [mask, bits] : rows) EXPECT_EQ(maskToCIDR(mask), bits) << mask;
}

TEST(PelmarIdentity, IsKeptScrambled) {
  EXPECT_EQ(get_app_id().size(), 24U);
  EXPECT_EQ(get_app_secret().size(), 32U);
  EXPECT_EQ(get_provider().size(), 3U);
  const uint8_t data[] = {'a' ^ 0x5a, 'b' ^ 1 ^ 0x5a, 'c' ^ 2 ^ 0x5a};
  EXPECT_EQ(deobfuscate(data, 3, 0x5a), "abc");
  EXPECT_EQ(deobfuscate(nullptr, 0, 1), "");
}

TEST_F(PelmarCloud, IsChosenBySiteAndRegion) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"PRODUCTION", "GLB", "https://pelmar-api.production.global." ORMEL_CLOUD_DOMAIN "/x"},
      {"production", "glb", "https://pelmar-api.production.global." ORMEL_CLOUD_DOMAIN "/x"},
      {"staging", "GLB", "https://pelmar-api.production.global." ORMEL_CLOUD_DOMAIN "/x"},
      {"qa", "CHN", "https://pelmar-api.qa-nr.china." ORMEL_CLOUD_DOMAIN "/x"},
      {"Alpha", "", "https://pelmar-api.alpha.global." ORMEL_CLOUD_DOMAIN "/x"},
      {"sy", "GLB", "https://pelmar-api.sy.global." ORMEL_CLOUD_DOMAIN ":31521/x"},
      {"SY", "CHN", "/x"},
  };
  for (const auto& [site, region, url] : rows) {
    settings = {{"pelmar_site", site}, {"REGION", region}};
    EXPECT_EQ(get_pelmar_api_url("/x"), url) << site << ' ' << region;
  }
  settings = {{"Install_Path", "/opt/switch"}, {"ENV", "sy"}, {"pelmar_site", "dev"}};
  EXPECT_EQ(get_account_center_api_url("/x"),
            "https://account-center.production.global." ORMEL_CLOUD_DOMAIN "/x");
  settings["ENV"] = "QA";
  EXPECT_EQ(get_org_center_api_url("/x"),
            "https://org-center.qa-nr.global." ORMEL_CLOUD_DOMAIN "/x");
  EXPECT_EQ(get_auth_connector_api_url("/x"),
            "https://auth-connector.qa-nr.global." ORMEL_CLOUD_DOMAIN "/x");
}

TEST_F(PelmarToken, IsTakenFromGoodAnswersAlone) {
  const std::tuple<const char*, int, int, int> rows[] = {
      {R"({"error":0,"data":"t"})", 0, 0, 0},
      {R"({"error":0,"data":""})", 0, 0, 0},
      {R"({"error":0})", 49, 49, 49},
      {R"({"error":0,"data":7})", 49, 49, 49},
      {R"({"error":7,"error_message":"no","data":"x"})", 60, 60, 49},
      {R"({"data":"x"})", 49, 60, 49},
      {R"({"error":"0","data":"x"})", 49, 60, 49},
      {"nonsense", 49, 60, 46},
      {"[]", 49, 60, 49},
      {"", 49, 60, 60},
  };
  settings["PELMAR_ORG_ID"] = "org-1";
  for (const auto& [reply, cloud, organisation, device] : rows) {
    SCOPED_TRACE(reply);
    bus.answer(reply);
    std::string token = "before";
    EXPECT_EQ(get_cloudtoken(token), cloud);
    EXPECT_EQ(token == "before", cloud != 0);
    EXPECT_EQ(get_pelmartoken_wrapper(token), organisation);
    EXPECT_EQ(bus.calls.back().request, R"({"orgId":"org-1"})");
    EXPECT_EQ(mibsh_get_device_token(token), device);
  }
  bus.serve = [](const BusCall&, std::string&) { return MIB_NOT_READY; };
  std::string token;
  EXPECT_EQ(get_cloudtoken(token), ERR_CMD_FAILED);
  EXPECT_EQ(save_skarn_token("x"), ERR_CMD_FAILED);
  settings["PELMAR_ORG_ID"] = "";
  bus.calls.clear();
  EXPECT_EQ(get_pelmartoken_wrapper(token), ERR_CMD_FAILED);
  EXPECT_EQ(get_pelmartoken("\xff", token), ERR_CMD_FAILED);
  EXPECT_TRUE(bus.calls.empty());
}

TEST_F(PelmarToken, OfTheDeviceIsWhatTheQuotesHold) {
  settings["Install_Path"] = "/nowhere";
  std::string token;
  const std::pair<const char*, const char*> rows[] = {
      {"\"abc\"", "abc"}, {"abc", "abc"}, {"\"\"a\"b\"", "a\"b"}};
  for (const auto& [stored, expected] : rows) {
    settings["DEV_TOKEN"] = stored;
    EXPECT_EQ(get_mdevice_token(token), NO_ERROR);
    EXPECT_EQ(token, expected);
  }
  settings["DEV_TOKEN"] = "\"\"";
  EXPECT_EQ(get_mdevice_token(token), ERR_CMD_FAILED);
  EXPECT_EQ(get_device_token(token), ERR_CMD_FAILED);
  EXPECT_EQ(get_device_id(), "");
}

TEST_F(PelmarRegister, ChecksTheEdgeAnswerFieldByField) {
  constexpr const char* ADDRESS = "10.9.9.9";
  const std::tuple<const char*, int, const char*, const char*> rows[] = {
      {R"({"virtualIP":"10.9.9.9","deviceId":"d","pelmarToken":"t","serialNumber":1234567890})", 0,
       ADDRESS, "123456789"},
      {R"({"virtualIP":"10.9.9.9","deviceId":"d","pelmarToken":"t","serialNumber":-5})", 0, ADDRESS,
       "-5"},
      {R"({"virtualIP":"10.9.9.9","deviceId":"d","pelmarToken":"t","serialNumber":"5"})", 49,
       ADDRESS, ""},
      {R"({"virtualIP":"10.9.9.9","deviceId":1,"pelmarToken":"t","serialNumber":5})", 49, ADDRESS,
       ""},
      {R"({"virtualIP":1,"deviceId":"d","pelmarToken":"t","serialNumber":5})", 49, "", ""},
      {R"(["virtualIP"])", 49, "", ""},
      {"", 49, "", ""},
  };
  for (const auto& [answer, code, address, number] : rows) {
    settings.clear();
    std::string id, token, serial;
    EXPECT_EQ(parse_api_edge(answer, id, token, serial), code) << answer;
    EXPECT_EQ(settings["virtual_ip"], address);
    EXPECT_EQ(settings["pelmar_serial_num"], number);
  }
}

TEST_F(PelmarRegister, ResolvesTheAutomaticRegion) {
  const std::tuple<const char*, const char*, int, const char*> rows[] = {
      {"auto", R"({"data":{"vpnGroups":[{"groupId":"a","hubs":[]},{"groupId":"b","hubs":[1,2]}]}})",
       0, "b"},
      {"auto", R"({"data":{"vpnGroups":[{"groupId":"a"}]}})", 0, "supn"},
      {"auto", R"({"data":{"vpnGroups":[]}})", 0, "supn"},
      {"auto", R"({"data":{}})", 49, "auto"},
      {"auto", "no", 49, "auto"},
      {"g7", R"({"data":{"vpnGroups":[]}})", 0, "g7"},
      {"Auto", "no", 0, "Auto"},
  };
  for (const auto& [stored, answer, code, region] : rows) {
    settings["PELMAR_REGION_ID"] = stored;
    EXPECT_EQ(resolve_auto_region(answer), code) << answer;
    EXPECT_EQ(settings["PELMAR_REGION_ID"], region) << answer;
  }
}

TEST_F(PelmarPrecheck, AsksForTheInternetUntilTheDaemonKnows) {
  const std::pair<const char*, int> rows[] = {
      {R"({"error":0})", 0}, {R"({"error":-1})", 48}, {R"({"error":"0"})", 49}, {"", 49}};
  for (const auto& [reply, code] : rows) {
    bus.answer(reply);
    EXPECT_EQ(mibsh_check_access_internet("eth\"0"), code) << reply;
  }
  EXPECT_EQ(bus.calls.front().request, R"({"ifname":"eth\"0"})");
  bus.calls.clear();
  bus.serve = [this](const BusCall&, std::string& reply) {
    reply = bus.calls.size() < 2 ? R"({"error":-2})" : R"({"error":0})";
    return MIB_SUCCESS;
  };
  EXPECT_EQ(mibsh_check_access_internet(""), NO_ERROR);
  EXPECT_EQ(bus.calls.size(), 2U);
}

TEST_F(PelmarPrecheck, LocatesTheDevice) {
  std::string place;
  tool = [&](const ProgramCall& call, std::string& output) {
    output = call.argv[1] == "-x" ? "1.2.3.4\n" : place;
    return 0;
  };
  std::string latitude = "23", longitude = "120", country = "GLB", address;
  for (const char* bad :
       {"", "no", R"({"result":{"latitude":1,"longitude":2}})", R"({"result":7})"}) {
    place = bad;
    EXPECT_EQ(get_geo_info(latitude, longitude, country, address), ERR_CMD_FAILED) << bad;
    EXPECT_EQ(std::tie(latitude, longitude, country), std::tuple("23", "120", "GLB"));
  }
  place = R"({"result":{"latitude":25.0478123,"longitude":-121,"country_code":"CN"}})";
  EXPECT_EQ(get_geo_info(latitude, longitude, country, address), NO_ERROR);
  EXPECT_EQ(latitude + ' ' + longitude + ' ' + country + ' ' + address, "25.0478 -121 CN 1.2.3.4");
  EXPECT_EQ(bus.programs.back().command(), "/usr/local/bin/skarn_cli -g 1.2.3.4");
}

TEST(PelmarFacts, AreReadFromNames) {
  EXPECT_EQ(get_ethernet_loc("ethernet_0"), "1");
  EXPECT_EQ(get_ethernet_loc("ethernet_11"), "12");
  EXPECT_EQ(get_ethernet_loc("wlan0"), "1");
  bool exists = true;
  EXPECT_EQ(kernel_module_exists("../x", exists), ERR_CMD_FAILED);
  EXPECT_EQ(kernel_module_exists("no-such-module.ko", exists), NO_ERROR);
  EXPECT_FALSE(exists);
}

TEST(PelmarIpsec, IsCondensed) {
  const std::pair<const char*, int> rows[] = {{"{}", 0},
                                              {R"({"a":1})", 0},
                                              {R"({"a":2,"b":2})", 1},
                                              {R"({"a":2,"b":1})", 2},
                                              {R"({"a":2,"b":"2"})", 2}};
  for (const auto& [text, status] : rows) {
    const Json states{json_loads(text, 0, nullptr)};
    EXPECT_EQ(ipsec_connetion_status_statistic(states.get()), status) << text;
  }
}

TEST(PelmarDaemon, IsBelievedInTheRightFormAlone) {
  test::ScriptedBus bus;
  int router = 0, supernode = 7;
  bus.answer(R"({"error":0,"data":{"router":{"a":2,"b":1},"supernode":{}}})");
  EXPECT_EQ(mibsh_get_ipsec_status(router, supernode), NO_ERROR);
  EXPECT_EQ(std::pair(router, supernode), std::pair(2, 0));
  bool is_mqtt_timeout = true, is_ipsec_timeout = false;
  bus.answer(R"({"error":0,"data":{"is_mqtt_timeout":"true","is_ipsec_timeout":true}})");
  EXPECT_EQ(mibsh_update_and_check_timeout(true, false, is_mqtt_timeout, is_ipsec_timeout),
            NO_ERROR);
  EXPECT_EQ(bus.calls.back().request, R"({"mqtt_status":true,"vpn_status":false})");
  EXPECT_EQ(std::pair(is_mqtt_timeout, is_ipsec_timeout), std::pair(false, true));
  const std::pair<const char*, int> rows[] = {{"", ERR_MIB_IO_FAILED},
                                              {R"({"error":3})", ERR_WRONG_JSON_FORMAT},
                                              {R"({"error":0,"data":{}})", ERR_WRONG_JSON_FORMAT},
                                              {R"({"error":0,"data":[{"z":1}]})", NO_ERROR}};
  for (const auto& [reply, code] : rows) {
    ormel::JsonValue traffic;
    bus.answer(reply);
    EXPECT_EQ(mibsh_supernode_recent_billing_daily_traffic(traffic), code) << reply;
  }
}

TEST(PelmarSupernode, IsRefusedBeforeItsFileIsTouched) {
  for (const char* bad :
       {"", "{}", R"({"data":[]})", R"({"data":{"superNodeId":"1","remoteIP":"2"}})"})
    EXPECT_EQ(parse_supernode(bad), ERR_WRONG_JSON_FORMAT) << bad;
}

TEST(PelmarForms, AreLookedAtByTheirCharacters) {
  using namespace ormel::cgi::pelmar;
  for (const char* good : {"1.2.3.4", "256.1.1.1", "999.1..1", "..."})
    EXPECT_TRUE(is_valid_ipv4_format(good)) << good;
  for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "1.2.3.a", "100.100.100.1000", " 1.2.3.4"})
    EXPECT_FALSE(is_valid_ipv4_format(bad)) << bad;
  EXPECT_TRUE(is_alphanumeric_safe("a-Z_9"));
  for (const char* bad : {"", "a b", "\xc3\xa4", "a.b"})
    EXPECT_FALSE(is_alphanumeric_safe(bad)) << bad;
  for (const char* bad : {"/a/../b", "/a//b"}) EXPECT_TRUE(has_path_traversal(bad)) << bad;
  EXPECT_FALSE(has_path_traversal("/a/.b"));
}

}  // namespace
