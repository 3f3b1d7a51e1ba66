// Becoming a member of the SD-WAN service, being one, and leaving again, against a cloud of the appliance's own.
#include <gmock/gmock.h>

#include "ormel/pelmar_agent.h"
#include "ormel/pelmar_supernode.h"
#include "support/cloud_host.h"

using namespace ormel::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

class Membership : public CloudHost {};

TEST_F(Membership, IsReachedAndLeftByTheWholeRoad) {
  for (const char* kind : {"fenro", "ormel"}) EXPECT_EQ(pelmar(std::string("min_") + kind + "_version").status, 0);
  EXPECT_THAT(pelmar("compatible_version").body, HasSubstr("is_compatible_version"));
  EXPECT_EQ(pelmar("check_device").body, R"({"data":{"is_on_pelmar":false},"error":0})");

  const WebReply page = login();
  EXPECT_EQ(page.head, "Content-Type: text/html");
  EXPECT_EQ(page.body,
            R"(<script>tell("{\"error\":0,\"reason\":\"OAuth login successful\"}"); also("$RESULT")</script>)");
  EXPECT_THAT(recorded("Save_cloudtoken"), ElementsAre(R"({"oauth_response_encoded":"encoded"})"));
  EXPECT_EQ(account("REGION") + account("DISPLAY_NAME") + account("tamid_token_status"), "GLBAnn O.login_temp");
  EXPECT_EQ(pelmar("get_tamid").body, R"({"data":{"tamid":"ann@example.org"},"error":0})");

  EXPECT_EQ(pelmar("organization_list").body,
            R"({"data":[{"name":"My Organization","organization_id":"org-1","is_default":true}],"error":0})");
  EXPECT_EQ(pelmar("organization_list").body,
            R"({"data":[{"name":"My Organization","organization_id":"org-1","is_default":false}],"error":0})");
  EXPECT_EQ(pelmar("region_list", "&orgID=org-1").body,
            R"({"data":[{"groupId":"g1","hubs":[]},{"groupId":"g2","hubs":[{}]}],"error":0})");
  EXPECT_EQ(joined("PELMAR_TOKEN_LAST_SEEN"), "0");

  EXPECT_EQ(join("auto").body, R"({"data":{"deviceId":"device-2","pelmarToken":"pelmar-token"},"error":0})");
  EXPECT_EQ(joined("PELMAR_ORG_NAME"), R"(An "Org")");
  EXPECT_EQ(joined("PELMAR_REGION_ID") + joined("PELMAR_SITE_ID") + joined("pelmar_serial_num"), "g2site-14002");
  EXPECT_EQ(joined("virtual_ip") + joined("router_region_table_id"), "10.99.0.730000");
  EXPECT_EQ(read(AGENT_CONF), "DEV_ID=\"device-2\"\nDEV_TOKEN=\"token-of-device-2\"\n");
  EXPECT_EQ(fs::status(AGENT_CONF).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::read_symlink("/opt/ormel/etc/cloudagent/cloudagent.cfg"), AGENT_CONF);
  EXPECT_EQ(read("/opt/ormel/etc/system/system_setting.json"), R"({"site": "production"})");
  EXPECT_THAT(recorded("pelmar_cloudagent.sh"), ElementsAre("start"));
  EXPECT_THAT(recorded("pelmar_express.sh"), ElementsAre("start"));
  EXPECT_EQ(account("tamid_token_status"), "already_join_pelmar");
  EXPECT_EQ(pelmar("check_device").body, R"({"data":{"is_on_pelmar":true},"error":0})");

  EXPECT_EQ(pelmar("device_unregister").body,
            R"({"data":{"device_unregister_response":"{\"removed\":\"device-2\"}"},"error":0})");
  EXPECT_EQ(account("tamid_token_status"), "");
  EXPECT_EQ(joined("virtual_ip"), "10.99.0.7");
  EXPECT_THAT(recorded("pelmar_cloudagent.sh"),
              ElementsAre("start", "remove_dummy_interface", "stop", "remove_pelmar_configs"));
  EXPECT_EQ(fs::status(APPLICATION_LOG).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(Membership, TellsTheCloudOfTheDeviceByteForByte) {
  login();
  ASSERT_EQ(join().status, 0);
  std::string mac = read("/sys/class/net/eth0/address");
  mac.pop_back();
  EXPECT_THAT(log(), HasSubstr("pelmar_api_edge jsonData is "
                               R"({"deviceName": "appliance", "contact": "Ann O.", "contactEmail": "ann@example.org", )"
                               R"("modelId": 11, "subModelName": "Nimbrel","locationAddress": "", "timezone": )"
                               R"("CET-1CEST", "regionId": 0, "country": "", "identifyMac": ")" +
                               mac +
                               R"(", "identifySN": "SN-1", "identifySid": "", "vantriOrgId": "org-1", )"
                               R"("vantriSiteId": "site-1", "pelmarRegionId": "g2", "deviceRole": "edge"})"
                               "\n"));
  EXPECT_THAT(log(), HasSubstr("Pelmar Token: pelmar-t..., Serial Number: 4001, Virtual IP: 10.99.0.7\n"));
  const std::string asked = read("/run/cloud/requests");
  for (const char* part :
       {"\"host\":\"pelmar-api.production.global." ORMEL_CLOUD_DOMAIN "\"", R"("skarntoken":"cloud-token")",
        R"("authorization":"Pluser pelmar-token")", R"("authorization":"pelmar-token")"}) {
    EXPECT_THAT(asked, HasSubstr(part));
  }
}

// One link of the chain broken, what the web is told, and the last key or file that was still written.
struct BrokenLink {
  const char* what;
  std::function<void()> break_it;
  int code;
  std::string left;  // of virtual_ip, cloudagent.cfg, the marker and the agents: v, c, m, a
};

std::string left_behind() {
  std::string left = joined("virtual_ip").empty() ? "" : "v";
  if (fs::exists(AGENT_CONF)) left += 'c';
  if (account("tamid_token_status") == "already_join_pelmar") left += 'm';
  return left + (recorded("pelmar_cloudagent.sh").empty() ? "" : "a");
}

TEST_F(Membership, KeepsWhatAFailedJoinHadWritten) {
  const std::string device = "GET /dalnet/morvi/api/v1/devices/device-1";
  const auto refuse = [](const std::string& operation) { fault(operation, R"({"status": 500})"); };
  const auto say = [](const char* text) { fault(EDGE, "{\"body\": \"" + std::string(text) + "\"}"); };
  const BrokenLink links[] = {
      {"no cloud token", [] { no_answer("Get_cloudtoken"); }, 63, ""},
      {"no sites", [] { tool("/usr/local/bin/skarn_organization_tool", "echo '{}'"); }, 49, ""},
      {"tool fails", [] { tool("/usr/local/bin/skarn_organization_tool", "exit 3"); }, 60, ""},
      {"no serial number", [] { tool("/usr/sbin/get_hwsn", "exit 1"); }, 70, ""},
      {"edge refuses", [&] { refuse(EDGE); }, 70, ""},
      {"edge says nothing", [&] { say(""); }, 70, ""},
      {"edge says no JSON", [&] { say("<html>"); }, 70, ""},
      {"edge without address", [&] { say(R"({\"deviceId\":\"d\",\"pelmarToken\":\"t\",\"serialNumber\":1})"); }, 70,
       ""},
      {"edge without id", [&] { say(R"({\"virtualIP\":\"10.99.0.7\"})"); }, 70, "v"},
      {"edge hangs up", [] { fault(EDGE, R"({"hang_up": true})"); }, 70, ""},
      {"no groups", [&] { refuse("GET /pelmar/morvi/api/v1/vpn_topology"); }, 76, "v"},
      {"no device", [&] { refuse(device); }, 71, "v"},
      {"no agent configuration", [&] { refuse(device + "/cloudagent_cfg"); }, 71, "v"},
      {"agent configuration of no text",
       [&] { fault(device + "/cloudagent_cfg", R"({"body": "{\"cloudagentCfg\":7}"})"); }, 71, "v"},
      {"no folder for the link", [] { fs::remove_all("/opt/ormel/etc/cloudagent"); }, 71, "vc"},
      {"cloud agent fails", [] { record_calls("/etc/init.d/pelmar_cloudagent.sh", 1); }, 66, "vcma"},
      {"express agent fails", [] { record_calls("/etc/init.d/pelmar_express.sh", 1); }, 67, "vcma"},
  };
  for (const BrokenLink& link : links) {
    SCOPED_TRACE(link.what);
    SetUp();
    login();
    link.break_it();
    const WebReply reply = join();
    EXPECT_EQ(reply.status, link.code) << reply.body;
    EXPECT_THAT(reply.body, HasSubstr("{\"error\":" + std::to_string(link.code) + ",\"reason\":\""));
    EXPECT_EQ(left_behind(), link.left);
  }
}

TEST_F(Membership, JoinsDespiteGroupsThatCannotBeRead) {
  login();
  fault("GET /pelmar/morvi/api/v1/vpn_topology", R"({"body": "garbage"})");
  EXPECT_EQ(join("auto").status, 0);
  EXPECT_EQ(joined("PELMAR_REGION_ID"), "auto");
  EXPECT_THAT(log(), HasSubstr("Failed to resolve auto region, continuing"));
}

TEST_F(Membership, TrustsNoCloudThatCannotProveItself) {
  login();
  for (const char* certificate : {"other", "expired", "self"}) {
    start_cloud(certificate);
    fs::remove("/run/cloud/requests");
    EXPECT_EQ(pelmar("organization_list").body, refusal(51, "curl fail")) << certificate;
    EXPECT_EQ(read("/run/cloud/requests"), "") << "a token went out to " << certificate;
  }
  set_value(PELMAR_CONF, "Debug", "InsecureCurl", "TRUE");
  EXPECT_EQ(pelmar("organization_list").status, 51);
  set_value(PELMAR_CONF, "Debug", "InsecureCurl", "true");
  EXPECT_EQ(pelmar("organization_list").status, 0);
}

TEST_F(Membership, IsNotHurtByWhatACloudAnswers) {
  login();
  const std::string list = "GET /v1.2/organization";
  const std::string deep(20000, '[');
  const std::tuple<std::string, int, const char*> rows[] = {
      {R"({"padding": 100000000})", 51, "the answer is larger than 4194304 bytes"},
      {R"({"status": 302, "headers": "Location: https://org-center.production.global.pelmar.example/v1.1/me\r\n"})", 51,
       "HTTP request failed with status code: 302"},
      {R"({"status": 204})", 49, "Failed to parse JSON"},
      {"{\"body\": \"" + deep + "\"}", 49, "Failed to parse JSON"},
      {R"({"body": "{\"result\":{}}"})", 49, "Failed to get result array"},
      {R"({"body": "{\"result\":[{\"name\":\"a\",\"organization_id\":\"1\"},{\"organization_id\":\"2\"}]}"})", 49,
       "Failed to get name or organization_id"},
      {R"({"hang_up": true})", 51, "easycurl error: 52"},
  };
  for (const auto& [what, code, line] : rows) {
    SCOPED_TRACE(what.substr(0, 100));
    fs::remove(APPLICATION_LOG);
    fs::remove("/run/cloud/requests");
    fault(list, what);
    EXPECT_EQ(pelmar("organization_list").status, code);
    EXPECT_THAT(log(), HasSubstr(line));
    EXPECT_LT(fs::file_size(APPLICATION_LOG), 200000U);
    EXPECT_THAT(read("/run/cloud/requests"), Not(HasSubstr("/v1.1/me"))) << "a redirection was followed";
  }
  const std::tuple<std::string, int> account_rows[] = {
      {R"({"delay": 11000})", 85}, {R"({"status": 500})", 51}, {R"({"body": "{\"result\":{\"site\":\"X\"}}"})", 60}};
  for (const auto& [what, code] : account_rows) {
    fault(ME, what);
    EXPECT_THAT(login().body, HasSubstr("{\\\"error\\\":" + std::to_string(code) + ",")) << what;
  }
}

TEST_F(Membership, KeepsALoginOnlyOnceItCanBeShown) {
  for (const std::string& result : {std::string(), std::string(10001, 'x')}) {
    const WebReply reply = login(result);
    EXPECT_EQ(reply.head + reply.body, "Content-Type: text/html");
  }
  fs::remove("/opt/ormel/opt/www/redirect.html");
  EXPECT_EQ(login().body, "");
  EXPECT_THAT(recorded("Save_cloudtoken"), testing::IsEmpty());
  EXPECT_EQ(cgi("/ormel/oauth_login", guest + "&result=x").body, refusal(39, "session invalid"));
}

TEST_F(Membership, LetsEverybodyLeave) {
  for (const char* script : {"pelmar_express.sh", "pelmar_cloudagent.sh"}) {
    record_calls(std::string("/etc/init.d/") + script, 1);
  }
  EXPECT_EQ(pelmar("device_unregister").body, R"({"data":null,"error":0})");
  EXPECT_THAT(log(), HasSubstr("Failed to unregister device on Pelmar (error: 64, failed to get pelmar token)"));
  EXPECT_THAT(log(), HasSubstr("Failed to remove Pelmar config files, but continue to stop pelmar services"));
  EXPECT_EQ(read("/run/cloud/requests"), "");

  login();
  join();  // as far as it comes without its agents
  fault("DELETE /dalnet/morvi/api/v1/devices/device-1", R"({"status": 404})");
  EXPECT_EQ(pelmar("device_unregister").body, R"({"data":null,"error":0})");
  EXPECT_EQ(account("tamid_token_status"), "already_join_pelmar");
}

TEST_F(Membership, ChecksAnAddressInAllPlaces) {
  set_value(PELMAR_CONF, "Join Pelmar", "PELMAR_ORG_ID", "org-1");
  write(VPN_CONF,
        "[OPENVPN]\nEnable = TRUE\nClient IP 1 = 10.8.0.2\n\n[PPTP]\nEnable = FALSE\nClient IP 1 = 10.4.0.2\n");
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"10.99.0.7", "true", "10.99.0.7"},          {"10.99.0.9", "false", "10.99.0.10"},
      {"192.168.77.33", "false", "192.168.77.33"}, {"10.8.0.99", "false", "10.8.0.99"},
      {"10.4.0.99", "true", "10.4.0.99"},          {"256.1.1.1", "false", "256.1.1.1"},
  };
  for (const auto& [ip, valid, suggested] : rows) {
    EXPECT_EQ(pelmar("check_virtual_ip", std::string("&ip=") + ip).body,
              R"({"data":{"suggested_ip":")" + std::string(suggested) + R"(","valid":)" + valid + R"(},"error":0})");
  }
  EXPECT_THAT(read("/run/cloud/requests"),
              HasSubstr(R"("body":"{\"data\":[{\"ip\":\"10.99.0.7\",\"submask\":\"32\",\"type\":\"virtualIP\",)"
                        R"(\"excludedSubnets\":[\"192.168.77.1/24\"]}]}")"));
  EXPECT_EQ(pelmar("check_virtual_ip", "&ip=10.1.2").status, 50);
  EXPECT_EQ(pelmar("check_virtual_ip").status, 36);
  const std::string check = "POST /pelmar/morvi/api/v1/ip_subnet_check";
  fault(check, R"({"status": 409, "body": "{\"data\":[{\"data\":{}},{\"data\":{\"sugIPNet\":\"10.8.0.5/24\"}}]}"})");
  EXPECT_THAT(pelmar("check_virtual_ip", "&ip=10.9.9.9").body, HasSubstr(R"("suggested_ip":"10.8.0.5","valid":false)"));
  fault(check, R"({"status": 409, "body": "{\"data\":[]}"})");
  EXPECT_THAT(pelmar("check_virtual_ip", "&ip=10.9.9.9").body, HasSubstr(R"("valid":true)"));
  fault(check, R"({"status": 409, "body": "no"})");
  EXPECT_EQ(pelmar("check_virtual_ip", "&ip=10.9.9.9").status, 88);
}

TEST_F(Membership, ChangesTheAddressOfARunningMember) {
  const std::string change = "&ip=10.99.0.8";
  EXPECT_EQ(pelmar("modify_virtual_ip", change).status, 60) << "no address to change";
  set_value(PELMAR_CONF, "Join Pelmar", "virtual_ip", "10.99.0.7");
  EXPECT_EQ(pelmar("modify_virtual_ip", "&ip=192.168.77.5").body, refusal(60, "command failed"));
  EXPECT_EQ(joined("virtual_ip"), "10.99.0.7");
  answer("UpdateNetworkInterfaces", "{}");
  EXPECT_EQ(pelmar("modify_virtual_ip", change).status, 60) << "the agent does not take it up";
  EXPECT_EQ(joined("virtual_ip"), "10.99.0.8");
  answer("ResetVirtualInterface", "{}");
  EXPECT_EQ(pelmar("modify_virtual_ip", "&ip=10.99.0.9").body, R"({"error":0})");
  ASSERT_TRUE(recorded_soon("notify", 1));
  EXPECT_THAT(recorded("notify"),
              ElementsAre("send|-A|A238|-C|C004|-M|0040|-l|info|-t|3|[{0}] Changed the Pelmar Express NAS Virtual IP "
                          "from {1} to {2}.|ORMEL Service|10.99.0.8|10.99.0.9"));
}

TEST_F(Membership, ShowsItsStatus) {
  EXPECT_EQ(pelmar("get_pelmar_status").body, refusal(7, "not a regular file"));
  set_value(PELMAR_CONF, "Join Pelmar", "PELMAR_ORG_ID", "org-1");
  const std::string bare = pelmar("get_pelmar_status").body;
  EXPECT_THAT(bare, HasSubstr(R"("hub":null)"));
  EXPECT_THAT(bare, HasSubstr(R"("region_type":"unknown","supernode":null,"vpn_status":0)"));
  EXPECT_THAT(bare, HasSubstr(R"("org_id":"org-1","organization":"","region":"","region_id":"unknown")"));

  set_value(PELMAR_CONF, "Join Pelmar", "PELMAR_REGION_ID", "supn");
  set_value(PELMAR_CONF, "Join Pelmar", "pelmar_serial_num", "77x");
  write("/opt/ormel/etc/cloudagent/cloudagent.cfg", "DEV_TOKEN=\"tok\"\n");
  answer("GetHubInfo", R"({"error":0,"data":"{\"router_region\":{\"device_name\":\"H\",\"public_ip\":\"1.2.3.4\"},)"
                       R"(\"supernode_region\":{\"device_name\":5,\"public_ip\":\"5.6.7.8\"}}"})");
  answer("GetIpsecStatus", R"({"error":0,"data":{"router":{"a":2,"b":1},"supernode":{}}})");
  answer("GetSupernodeRemaining", R"({"error":0,"data":{"remainingThroughput":1,"renewalDate":2,)"
                                  R"("throughputCapacity":3,"lastBillingDate":4}})");
  answer("GetSupernodeDevices", R"({"error":0,"data":[{"b":1,"a":2}]})");
  answer("GetCloudStatus", R"({"error":0,"data":3})");
  answer("Update_and_check_timeout", R"({"error":0,"data":{"is_mqtt_timeout":"true","is_ipsec_timeout":true}})");
  const std::string body = pelmar("get_pelmar_status").body;
  EXPECT_THAT(recorded("GetHubInfo"), ElementsAre(R"({"mdevice_token":"tok"})"));
  EXPECT_EQ(recorded("Update_and_check_timeout").back(), R"({"mqtt_status":true,"vpn_status":true})");
  EXPECT_THAT(body, HasSubstr(R"("hub":{"name":"H","public_ip":"1.2.3.4","role":"hub","topology_status":2})"));
  EXPECT_THAT(body, HasSubstr(R"("supernode":{"devices":[{"b":1,"a":2}],"enable":true,"expired_date":2,)"
                              R"("last_billing_date":4,"pelmar_drovik_port":15533,"public_ip":"5.6.7.8",)"
                              R"("remaining_usage":1,"total_usage":3},"vpn_status":1)"));
  EXPECT_THAT(body, HasSubstr(R"("serial_number":77)"));
  EXPECT_THAT(body, HasSubstr(R"("is_ipsec_timeout":true)"));
  EXPECT_THAT(body, HasSubstr(R"("connection_status":3,"is_mqtt_timeout":false)"));
}

TEST_F(Membership, SendsTokensOfAnySizeAndNoLineEndInThem) {
  const std::string token(65536, 't');
  answer("Get_cloudtoken", R"({"error":0,"data":")" + token + "\"}");
  EXPECT_EQ(pelmar("organization_list").status, 51) << "the cloud does not know it";
  EXPECT_THAT(read("/run/cloud/requests"), HasSubstr("\"Bearer " + token + '"'));
  fs::remove("/run/cloud/requests");
  answer("Get_cloudtoken", R"({"error":0,"data":"cloud-token\r\nX-More: yes"})");
  EXPECT_EQ(pelmar("organization_list").status, 51);
  EXPECT_EQ(read("/run/cloud/requests"), "");
}

TEST_F(Membership, GivesTheAgentsWhatTheTestSiteNeeds) {
  using namespace ormel::pelmar;
  const std::string link = "/opt/ormel/etc/cloudagent/cloudagent.cfg";
  const std::string lines = "MQTT_URL=\"tcp://sy-test." ORMEL_CLOUD_DOMAIN
                            ":31512\"\nNMS_WEB_URL=\"http://sy-test." ORMEL_CLOUD_DOMAIN ":31510\"\n";
  fs::create_symlink("/gone", link);
  write(AGENT_CONF, "old", 0644);
  const std::pair<const char*, std::string> rows[] = {{"sy", "A=\"%s\"\n" + lines}, {"SY", "A=\"%s\""}};
  for (const auto& [site, text] : rows) {
    set_value(PELMAR_CONF, "Join Pelmar", "pelmar_site", site);
    EXPECT_EQ(write_pelmar_api_devices_cloudagent_cfg(R"({"cloudagentCfg":"A=\"%s\""})"), 0);
    EXPECT_EQ(read(link), text);
    EXPECT_EQ(fs::status(AGENT_CONF).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(set_site_use_by_cloudagent(), 0);
    EXPECT_EQ(read("/opt/ormel/etc/system/system_setting.json"), R"({"site": "dev"})");
  }
  fs::remove_all("/opt/ormel/etc/system");
  EXPECT_EQ(set_site_use_by_cloudagent(), 60);
}

TEST_F(Membership, StoresTheRecordOfASuperNode) {
  const std::string record = R"({"data":{"superNodeId":"i\"","remoteIP":"1","remoteTunnelIP":"2","remoteSubnet":"",)"
                             R"("remotePublicKey":"k","localTunnelIP":"3"}})";
  fs::remove_all("/var/run/cms_config");
  EXPECT_EQ(ormel::pelmar::parse_supernode(record), 31);
  fs::create_directories("/var/run/cms_config");
  EXPECT_EQ(ormel::pelmar::parse_supernode(record), 0);
  EXPECT_EQ(read("/var/run/cms_config/supernode.json"),
            "{\n    \"superNodeId\": \"i\"\",\n    \"remoteIP\": \"1\",\n    \"remoteTunnelIP\": \"2\",\n"
            "    \"remoteSubnet\": \"\",\n    \"remotePublicKey\": \"k\",\n    \"localTunnelIP\": \"3\"\n}");
}

TEST_F(Membership, PassesTheTrafficOfTheSuperNodeOn) {
  const std::string route = "supernode_recent_billing_daily_traffic";
  EXPECT_EQ(pelmar(route).status, 60);
  const std::pair<const char*, int> rows[] = {{"", 46}, {R"({"error":3})", 49}, {R"({"error":0,"data":{}})", 49}};
  for (const auto& [text, code] : rows) {
    answer("SupernodeRecentBillingDailyTraffic", text);
    EXPECT_EQ(pelmar(route).status, code) << text;
  }
  answer("SupernodeRecentBillingDailyTraffic", R"({"error":0,"data":[{"z":1,"a":2},{}]})");
  EXPECT_EQ(pelmar(route).body, R"({"data":[{"z":1,"a":2},{}],"error":0})");
  EXPECT_THAT(log(), HasSubstr("SupernodeRecentBillingDailyTraffic returned 2 records\n"));
}

// The daemon that knows the network is a stand-in here.
class MembershipPrecheck : public CloudHost {
 protected:
  void SetUp() override {
    CloudHost::SetUp();
    run({"/usr/bin/pkill", "-KILL", "-f", "/usr/lib/fenro/fenro-networkd"});
    network_ = std::make_unique<Child>([] {
      return serve_files("NetworkService", {"api.get_currentGWinfo", "api.check_access_internet"});
    });
    answer("api.get_currentGWinfo", R"({"error":0,"data":[{"ifname":"eth7","status":{}}]})");
    answer("api.check_access_internet", R"({"error":0})");
    tool("/usr/local/bin/skarn_cli", R"([ "$1" = -x ] && echo 1.2.3.4 || echo '{"result":{"latitude":1,"longitude":2,)"
                                     R"("country_code":"CN"}}')");
    ASSERT_TRUE(comes_true([] { return !bus("NetworkService", "api.get_currentGWinfo").empty(); }));
    fs::remove(CALLS);
  }
  WebReply precheck() const { return pelmar("join_pelmar_precheck"); }
  static std::string found(const char* l2tp, bool online, const char* region, bool login) {
    const auto word = [](bool yes) { return yes ? "true" : "false"; };
    return std::string("{\"data\":{\"l2tp_status\":\"") + l2tp + "\",\"ncsi\":" + word(online) + ",\"region\":\"" +
           region + "\",\"tamid_exist\":" + word(login) + "},\"error\":0}";
  }

 private:
  std::unique_ptr<Child> network_;
};

TEST_F(MembershipPrecheck, TellsWhetherAJoinCanWork) {
  login();
  set_value(TAMID_CONF, "Vantri ID Service", "tamid_token_status", "already_join_pelmar");
  set_value(TAMID_CONF, "Vantri ID Service", "DISPLAY_NAME", "old");
  EXPECT_EQ(precheck().body, found("disabled", true, "CHN", true));
  EXPECT_THAT(recorded("api.check_access_internet"), ElementsAre(R"({"ifname":"eth7"})"));
  EXPECT_EQ(account("DISPLAY_NAME"), "Ann O.") << "refreshed";

  fault(ME, R"({"status": 500})");
  tool("/usr/local/bin/skarn_cli", "exit 1");
  set_value(VPN_CONF, "L2TP", "Enable", "TRUE");
  EXPECT_EQ(precheck().body, found("enabled", true, "NONE", true));
  set_value(PELMAR_CONF, "IsChinaRegion", "IsChinaRegion", "true");
  fs::remove(CALLS);
  EXPECT_EQ(precheck().body, found("enabled", true, "CHN", true));
  EXPECT_THAT(recorded("skarn_cli"), testing::IsEmpty());

  answer("api.check_access_internet", R"({"error":-1})");
  EXPECT_EQ(precheck().body, found("enabled", false, "NONE", false));
  EXPECT_TRUE(fs::exists(TAMID_CONF));
  no_answer("Get_cloudtoken");
  answer("api.check_access_internet", R"({"error":0})");
  EXPECT_EQ(precheck().body, found("enabled", true, "CHN", false));
  EXPECT_TRUE(fs::exists(TAMID_CONF));
}

TEST_F(MembershipPrecheck, ForgetsALoginThatNoJoinCameOf) {
  login();
  EXPECT_EQ(account("tamid_token_status"), "login_temp");
  EXPECT_EQ(precheck().body, found("disabled", true, "CHN", false));
  EXPECT_FALSE(fs::exists(TAMID_CONF));
  EXPECT_EQ(precheck().body, found("disabled", true, "CHN", false));
  EXPECT_THAT(log(), HasSubstr("Failed to remove /etc/config/ormel/tamid.conf: No such file or directory\n"));
}

TEST_F(Membership, RefusesParametersByTheirRules) {
  const std::tuple<const char*, std::string, int> rows[] = {
      {"region_list", "", 36},
      {"region_list", "&orgID=", 36},
      {"region_list", "&orgID=" + std::string(51, 'a'), 9},
      {"region_list", "&orgID=org.1", 9},
      {"feature_tour/set", "&feature_intro=true", 36},
      {"feature_tour/set", "&feature_intro=a+b&feature_tip=true", 9},
      {"feature_tour/set", "&feature_tip=true&feature_intro=" + std::string(257, 'a'), 9},
      {"feature_tour/set", "&feature_intro=maybe&feature_tip=true", 0},
      {"device_register", "&org_ID=1&org_name=2&region_ID=3", 36},
      {"modify_virtual_ip", "&ip=1.2.3.4.5", 50},
  };
  for (const auto& [route, query, code] : rows) EXPECT_EQ(pelmar(route, query).status, code) << route << query;
  EXPECT_EQ(pelmar("feature_tour/show").body, R"({"data":{"feature_intro":false,"feature_tip":true},"error":0})");
}

TEST_F(Membership, ShowsPagesOfItsEvents) {
  const std::pair<const char*, const char*> rows[] = {{"", R"("limit":100,"offset":0)"},
                                                      {"&limit=5000&offset=-3", R"("limit":1000,"offset":0)"},
                                                      {"&limit=0&offset=7", R"("limit":1,"offset":7)"},
                                                      {"&limit=", R"("limit":1,"offset":0)"}};
  for (const auto& [query, page] : rows) {
    EXPECT_EQ(pelmar("logs", query).body, R"({"data":[],"error":0,)" + std::string(page) + R"(,"total":0})");
  }
}

}  // namespace
