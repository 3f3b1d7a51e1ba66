// Becoming a member of the SD-WAN service, being one, and leaving again, against a cloud of the
// appliance's own.
// appliance: --web --cloud @CLOUD@
#include "ormel/membership/agent.h"
#include "ormel/membership/supernode.h"
#include "support/cloud_host.h"

using namespace ormel::test;

namespace {

constexpr const char* REQUESTS = "/run/cloud/requests";

// What the cloud was asked.
std::string requests() {
  return read(REQUESTS);
}

class Membership : public CloudHost {
 protected:
  // Through the web server, as the pages of the web interface ask.
  std::string web(const std::string& route, const std::string& query = {}) const {
    return https("/ormel/pelmar/" + route + '?' + admin + query).body;
  }
  // Puts a login in the daemon's keeping that the login page never gave.
  static void keep_token(const std::string& token, const std::string& more = {}) {
    fs::create_directories(MEMBER_STATE);
    write(CLOUD_TOKEN, R"({"access_token":")" + token + '"' + more + '}');
  }
};

// Suites of their own, so that they run side by side.
class MembershipFault : public Membership {};
class MembershipRequest : public Membership {};

// The hash by which the web server lets the page's one script run, of the script that the page
// really has.
std::string script_hash(const std::string& page) {
  const size_t start = page.find("<script>") + sizeof "<script>" - 1;
  return run({"/bin/sh", "-c", "openssl dgst -sha256 -binary | base64"}, {"PATH=/usr/bin"},
             page.substr(start, page.find("</script>", start) - start))
      .out.substr(0, 44);
}

TEST_F(Membership, IsReachedAndLeftByTheWholeRoad) {
  for (const char* kind : {"fenro", "ormel"})
    EXPECT_THAT(web(std::string("min_") + kind + "_version"), HasSubstr("\"min_"));
  EXPECT_THAT(web("compatible_version"), HasSubstr("is_compatible_version"));
  EXPECT_EQ(web("check_device"), R"({"data":{"is_on_pelmar":false},"error":0})");
  EXPECT_EQ(
      web("join_pelmar_precheck"),
      R"({"data":{"l2tp_status":"disabled","ncsi":true,"region":"GLB","tamid_exist":false},"error":0})");

  const WebReply page = https("/ormel/oauth_login?" + admin + "&result=" + login_result());
  EXPECT_THAT(page.head, HasSubstr("content-type: text/html"));
  EXPECT_THAT(page.head, HasSubstr("script-src 'sha256-" + script_hash(page.body) + '\''));
  EXPECT_THAT(page.body, HasSubstr(R"("{\"error\":0,\"reason\":\"OAuth login successful\"}")"));
  EXPECT_EQ(mode_of(CLOUD_TOKEN), 0600U);
  EXPECT_EQ(account("REGION") + account("DISPLAY_NAME") + account("tamid_token_status"),
            "GLBAnn O.login_temp");
  EXPECT_EQ(web("get_tamid"), R"({"data":{"tamid":"ann@example.org"},"error":0})");

  const std::string organization =
      R"({"data":[{"name":"My Organization","organization_id":"org-1","is_default":)";
  EXPECT_EQ(web("organization_list"), organization + "true}],\"error\":0}");
  EXPECT_EQ(web("organization_list"), organization + "false}],\"error\":0}");
  EXPECT_THAT(web("region_list", "&orgID=org-1"),
              HasSubstr(R"({"data":[{"groupId":"g1","name":"South","hubs":[]},{)"));
  EXPECT_EQ(joined("PELMAR_TOKEN_LAST_SEEN"), "0");

  EXPECT_EQ(web("device_register", JOIN_QUERY + std::string("auto&region_name=Any")),
            R"({"data":{"deviceId":"device-2","pelmarToken":"pelmar-token"},"error":0})");
  EXPECT_EQ(joined("PELMAR_ORG_NAME"), R"(An "Org")");
  EXPECT_EQ(joined("PELMAR_REGION_ID") + joined("PELMAR_SITE_ID") + joined("pelmar_serial_num"),
            "g2site-of-org-14002");
  EXPECT_EQ(joined("virtual_ip") + joined("router_region_table_id"), "10.99.0.730000");
  EXPECT_EQ(read(AGENT_CONF), "DEV_ID=\"device-2\"\nDEV_TOKEN=\"token-of-device-2\"\n");
  EXPECT_EQ(mode_of(AGENT_CONF), 0600U);
  EXPECT_EQ(fs::read_symlink(AGENT_LINK), AGENT_CONF);
  EXPECT_EQ(read("/opt/ormel/etc/system/system_setting.json"), R"({"site": "production"})");
  EXPECT_EQ(account("tamid_token_status"), "already_join_pelmar");
  EXPECT_EQ(web("check_device"), R"({"data":{"is_on_pelmar":true},"error":0})");

  EXPECT_TRUE(is_connected());
  EXPECT_THAT(web("get_pelmar_status"),
              HasSubstr(R"("hub":{"name":"hub-1","public_ip":"203.0.113.1","role":"hub",)"));
  EXPECT_THAT(web("supernode_recent_billing_daily_traffic"),
              HasSubstr(R"({"data":[{"date":"2025-11-01","bytes":300}])"));
  EXPECT_EQ(web("check_virtual_ip", "&ip=10.99.0.9"),
            R"({"data":{"suggested_ip":"10.99.0.10","valid":false},"error":0})");
  EXPECT_GT(joined("PELMAR_TOKEN_LAST_SEEN"), "1") << "a member's token is kept";
  fault("POST /pelmar/morvi/api/v1/token", R"({"status": 500})");
  EXPECT_EQ(web("check_virtual_ip", "&ip=10.99.0.8"),
            R"({"data":{"suggested_ip":"10.99.0.8","valid":true},"error":0})");
  set_value(PELMAR_CONF, "Join Pelmar", "PELMAR_TOKEN_LAST_SEEN", "0");
  EXPECT_THAT(web("check_virtual_ip", "&ip=10.99.0.8"), HasSubstr("\"error\":88"));
  fault("", "");
  EXPECT_EQ(web("modify_virtual_ip", "&ip=10.99.0.8"), R"({"error":0})");
  EXPECT_THAT(run({"/usr/sbin/ip", "-o", "address", "show", "dev", "pelmar0"}).out,
              AllOf(HasSubstr(" 10.99.0.8/32 "), Not(HasSubstr("10.99.0.7"))));
  EXPECT_THAT(requests(),
              HasSubstr(R"({\"virtualIP\":\"10.99.0.8\",\"subnets\":[\"192.168.77.1/24\")"));
  ASSERT_TRUE(recorded_soon("notify", 1));
  EXPECT_THAT(recorded("notify"),
              ElementsAre("send|-A|A238|-C|C004|-M|0040|-l|info|-t|3|[{0}] Changed the Pelmar "
                          "Express NAS Virtual IP "
                          "from {1} to {2}.|ORMEL Service|10.99.0.7|10.99.0.8"));

  EXPECT_EQ(web("device_unregister"),
            R"({"data":{"device_unregister_response":"{\"removed\":\"device-2\"}"},"error":0})");
  EXPECT_EQ(account("tamid_token_status"), "");
  EXPECT_EQ(joined("virtual_ip"), "10.99.0.8");
  for (const char* gone :
       {AGENT_CONF, AGENT_LINK, "/sys/class/net/pelmar0", "/var/lib/fenro/pelmar/cloudagent.on",
        "/var/lib/fenro/pelmar/express.on", "/var/lib/fenro/pelmar/pelmar_token.json"}) {
    EXPECT_FALSE(fs::exists(fs::symlink_status(gone))) << gone;
  }
  EXPECT_EQ(bus("pelmar_expressd", "GetCloudStatus"), R"({"error":0,"data":0})");
  EXPECT_EQ(mode_of(LOG), 0600U);
}

TEST_F(Membership, TellsTheCloudOfTheDeviceByteForByte) {
  login();
  ASSERT_EQ(join().status, 0);
  std::string mac = read("/sys/class/net/eth0/address");
  mac.pop_back();
  std::string serial = run({"/usr/sbin/get_hwsn"}).out;
  serial.pop_back();
  EXPECT_THAT(
      log(),
      HasSubstr(
          "pelmar_api_edge jsonData is "
          R"({"deviceName": "appliance", "contact": "Ann O.", "contactEmail": "ann@example.org", )"
          R"("modelId": 11, "subModelName": "Nimbrel","locationAddress": "", "timezone": )"
          R"("CET-1CEST", "regionId": 0, "country": "", "identifyMac": ")" +
          mac + R"(", "identifySN": ")" + serial +
          R"(", "identifySid": "", "vantriOrgId": "org-1", )"
          R"("vantriSiteId": "site-of-org-1", "pelmarRegionId": "g2", "deviceRole": "edge"})"
          "\n"));
  EXPECT_THAT(log(),
              HasSubstr("Pelmar Token: pelmar-t..., Serial Number: 4001, Virtual IP: 10.99.0.7\n"));
  const std::string asked = requests();
  for (const char* part :
       {"\"host\":\"pelmar-api.production.global." ORMEL_CLOUD_DOMAIN "\"",
        R"("skarntoken":"cloud-token")", R"("authorization":"Pluser pelmar-token")",
        R"("authorization":"pelmar-token")"}) {
    EXPECT_THAT(asked, HasSubstr(part));
  }
}

// Of virtual_ip, cloudagent.cfg, the marker and the cloud agent.
std::string left_behind() {
  std::string left = joined("virtual_ip").empty() ? "" : "v";
  if (fs::exists(AGENT_CONF)) left += 'c';
  if (account("tamid_token_status") == "already_join_pelmar") left += 'm';
  return left + (fs::exists("/var/lib/fenro/pelmar/cloudagent.on") ? "a" : "");
}

TEST_F(Membership, KeepsWhatAFailedJoinHadWritten) {
  const char* const SITES = "GET /v1.2/organization/org-1/site";
  const std::string device = "GET /dalnet/morvi/api/v1/devices/device-1";
  const auto refuse = [](const std::string& operation) { fault(operation, R"({"status": 500})"); };
  const auto say = [](const char* text) {
    fault(EDGE, "{\"body\": \"" + std::string(text) + "\"}");
  };
  const auto configure = [&](const std::string& text) {
    fault(device + "/cloudagent_cfg", R"({"body": "{\"cloudagentCfg\":)" + text + "}\"}");
  };
  // One link of the chain broken, what the web gets, and what was still written.
  const std::tuple<const char*, std::function<void()>, int, const char*> links[] = {
      {"nobody is logged in", [] { fs::remove(CLOUD_TOKEN); }, 63, ""},
      {"no sites", [&] { fault(SITES, R"({"body": "{\"result\":[]}"})"); }, 49, ""},
      {"the cloud lists no sites", [&] { refuse(SITES); }, 60, ""},
      {"no model", [] { fs::remove("/etc/platform.conf"); }, 70, ""},
      {"edge refuses", [&] { refuse(EDGE); }, 70, ""},
      {"edge says nothing", [&] { say(""); }, 70, ""},
      {"edge without id", [&] { say(R"({\"virtualIP\":\"10.99.0.7\"})"); }, 70, "v"},
      {"edge hangs up", [] { fault(EDGE, R"({"hang_up": true})"); }, 70, ""},
      {"no groups", [&] { refuse("GET /pelmar/morvi/api/v1/vpn_topology"); }, 76, "v"},
      {"no device", [&] { refuse(device); }, 71, "v"},
      {"no agent configuration", [&] { refuse(device + "/cloudagent_cfg"); }, 71, "v"},
      {"agent configuration of no text", [&] { configure("7"); }, 71, "v"},
      {"no folder for the link", [] { fs::remove_all("/opt/ormel/etc/cloudagent"); }, 71, "vc"},
      {"no token for the cloud agent", [&] { configure(R"(\"DEV_ID=7\")"); }, 66, "vcm"},
      {"no room for the express agent",
       [] { fs::create_directories("/var/lib/fenro/pelmar/express.on"); }, 67, "vcma"},
  };
  for (const auto& [what, break_it, code, left] : links) {
    SCOPED_TRACE(what);
    SetUp();
    login();
    break_it();
    const WebReply reply = join();
    EXPECT_EQ(reply.status, code) << reply.body;
    EXPECT_THAT(reply.body, HasSubstr("{\"error\":" + std::to_string(code) + ",\"reason\":\""));
    EXPECT_EQ(left_behind(), left);
  }
}

TEST_F(Membership, JoinsDespiteGroupsThatCannotBeRead) {
  login();
  fault("GET /pelmar/morvi/api/v1/vpn_topology", R"({"body": "garbage"})");
  EXPECT_EQ(join("auto").status, 0);
  EXPECT_EQ(joined("PELMAR_REGION_ID"), "auto");
  EXPECT_THAT(log(), HasSubstr("Failed to resolve auto region, continuing"));
}

TEST_F(MembershipFault, TrustsNoCloudThatCannotProveItself) {
  login();
  for (const char* certificate : {"other", "expired", "self"}) {
    start_cloud(certificate);
    fs::remove(REQUESTS);
    EXPECT_EQ(pelmar("organization_list").body, refusal(51, "curl fail")) << certificate;
    EXPECT_EQ(requests(), "") << "a token went out to " << certificate;
  }
  start_cloud("server");
  run({"/usr/bin/find", "/etc/ssl/certs", "-lname", "/run/cloud/ca.pem", "-delete"});
  EXPECT_EQ(pelmar("organization_list").status, 0) << "its authority is in the bundle alone";
  start_cloud("self");
  set_value(PELMAR_CONF, "Debug", "InsecureCurl", "TRUE");
  EXPECT_EQ(pelmar("organization_list").status, 51);
  set_value(PELMAR_CONF, "Debug", "InsecureCurl", "true");
  EXPECT_EQ(pelmar("organization_list").status, 0);
}

TEST_F(MembershipFault, IsNotHurtByWhatACloudAnswers) {
  login();
  const std::string list = "GET /v1.2/organization";
  const std::string deep(20000, '[');
  const std::tuple<std::string, int, const char*> rows[] = {
      {R"({"padding": 100000000})", 51, "the answer is larger than 4194304 bytes"},
      {R"({"status": 302, "headers": "Location: https://org-center.production.global.pelmar.example/v1.1/me\r\n"})",
       51, "HTTP request failed with status code: 302"},
      {R"({"status": 204})", 49, "Failed to parse JSON"},
      {"{\"body\": \"" + deep + "\"}", 49, "Failed to parse JSON"},
      {R"({"body": "{\"result\":{}}"})", 49, "Failed to get result array"},
      {R"({"body": "{\"result\":[{\"name\":\"a\",\"organization_id\":\"1\"},{\"organization_id\":\"2\"}]}"})",
       49, "Failed to get name or organization_id"},
      {R"({"hang_up": true})", 51, "easycurl error: 52"},
  };
  for (const auto& [what, code, line] : rows) {
    SCOPED_TRACE(what.substr(0, 100));
    fs::remove(LOG);
    fs::remove(REQUESTS);
    fault(list, what);
    EXPECT_EQ(pelmar("organization_list").status, code);
    EXPECT_THAT(log(), HasSubstr(line));
    EXPECT_LT(fs::file_size(LOG), 200000U);
    EXPECT_THAT(requests(), Not(HasSubstr("/v1.1/me"))) << "a redirection was followed";
  }
  const std::tuple<std::string, int> account_rows[] = {
      {R"({"delay": 11000})", 85},
      {R"({"status": 500})", 51},
      {R"({"body": "{\"result\":{\"site\":\"X\"}}"})", 60}};
  for (const auto& [what, code] : account_rows) {
    fault(ME, what);
    EXPECT_THAT(login().body, HasSubstr("{\\\"error\\\":" + std::to_string(code) + ",")) << what;
  }
}

TEST_F(MembershipFault, KeepsALoginOnlyOnceItCanBeShown) {
  for (const std::string& result : {std::string(), std::string(10001, 'x')}) {
    const WebReply reply = login(result);
    EXPECT_EQ(reply.head + reply.body, "Content-Type: text/html");
  }
  for (const char* result :
       {"*", "e30=", "eyJhY2Nlc3NfdG9rZW4iOjF9"}) {  // no base64, no token, a number for one
    EXPECT_THAT(login(result).body, HasSubstr("{\\\"error\\\":78,"));
  }
  const std::string page = "/opt/ormel/opt/www/redirect.html";
  fs::rename(page, page + ".gone");
  EXPECT_EQ(login().body, "");
  fs::rename(page + ".gone", page);
  EXPECT_FALSE(fs::exists(CLOUD_TOKEN));
  EXPECT_EQ(cgi("/ormel/oauth_login", guest + "&result=x").body, refusal(39, "session invalid"));
}

TEST_F(MembershipFault, RenewsALoginThatHasRunOut) {
  keep_token("old", R"(,"expires":1,"refresh_token":"stolen")");
  EXPECT_EQ(pelmar("organization_list").status, 63);
  keep_token("old", R"(,"expires":1,"refresh_token":"refresh-token")");
  EXPECT_EQ(pelmar("organization_list").status, 0);
  EXPECT_THAT(read(CLOUD_TOKEN), AllOf(HasSubstr("cloud-token"), HasSubstr("refresh-token")));
}

TEST_F(MembershipFault, LetsEverybodyLeave) {
  for (const char* file :
       {"/var/lib/fenro/pelmar/cloudagent.on", "/var/lib/fenro/pelmar/express.on", AGENT_CONF}) {
    fs::create_directories(file);  // which no script can remove
  }
  EXPECT_EQ(pelmar("device_unregister").body, R"({"data":null,"error":0})");
  for (const char* line :
       {"Failed to unregister device on Pelmar (error: 63, failed to get cloud token)",
        "Failed to remove Pelmar config files, but continue to stop pelmar services"})
    EXPECT_THAT(log(), HasSubstr(line));
  EXPECT_EQ(requests(), "");

  SetUp();
  login();
  join();
  fault("DELETE /dalnet/morvi/api/v1/devices/device-1", R"({"status": 404})");
  EXPECT_EQ(pelmar("device_unregister").body, R"({"data":null,"error":0})");
  EXPECT_EQ(account("tamid_token_status"), "already_join_pelmar");
}

TEST_F(MembershipRequest, ChecksAnAddressInAllPlaces) {
  login();
  set_value(PELMAR_CONF, "Join Pelmar", "PELMAR_ORG_ID", "org-1");
  write(VPN_CONF,
        "[OPENVPN]\nEnable = TRUE\nClient IP 1 = 10.8.0.2\n\n[PPTP]\nEnable = FALSE\nClient IP 1 = "
        "10.4.0.2\n");
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"10.99.0.7", "true", "10.99.0.7"},          {"10.99.0.9", "false", "10.99.0.10"},
      {"192.168.77.33", "false", "192.168.77.33"}, {"10.8.0.99", "false", "10.8.0.99"},
      {"10.4.0.99", "true", "10.4.0.99"},          {"256.1.1.1", "false", "256.1.1.1"},
  };
  for (const auto& [ip, valid, suggested] : rows) {
    EXPECT_EQ(pelmar("check_virtual_ip", std::string("&ip=") + ip).body,
              R"({"data":{"suggested_ip":")" + std::string(suggested) + R"(","valid":)" + valid +
                  R"(},"error":0})");
  }
  const char* const asked =
      R"("body":"{\"data\":[{\"ip\":\"10.99.0.7\",\"submask\":\"32\",\"type\":\"virtualIP\",)"
      R"(\"excludedSubnets\":[\"192.168.77.1/24\"]}]}")";
  EXPECT_THAT(requests(), HasSubstr(asked));
  EXPECT_EQ(pelmar("check_virtual_ip", "&ip=10.1.2").status, 50);
  EXPECT_EQ(pelmar("check_virtual_ip").status, 36);
  const std::string check = "POST /pelmar/morvi/api/v1/ip_subnet_check";
  fault(
      check,
      R"({"status": 409, "body": "{\"data\":[{\"data\":{}},{\"data\":{\"sugIPNet\":\"10.8.0.5/24\"}}]}"})");
  EXPECT_THAT(pelmar("check_virtual_ip", "&ip=10.9.9.9").body,
              HasSubstr(R"("suggested_ip":"10.8.0.5","valid":false)"));
  fault(check, R"({"status": 409, "body": "{\"data\":[]}"})");
  EXPECT_THAT(pelmar("check_virtual_ip", "&ip=10.9.9.9").body, HasSubstr(R"("valid":true)"));
  fault(check, R"({"status": 409, "body": "no"})");
  EXPECT_EQ(pelmar("check_virtual_ip", "&ip=10.9.9.9").status, 88);
}

TEST_F(MembershipRequest, KeepsTheAddressThatNoAgentHasTakenUp) {
  const std::string change = "&ip=10.99.0.8";
  EXPECT_EQ(pelmar("modify_virtual_ip", change).status, 60) << "no address to change";
  set_value(PELMAR_CONF, "Join Pelmar", "virtual_ip", "10.99.0.7");
  EXPECT_EQ(pelmar("modify_virtual_ip", "&ip=192.168.77.5").body, refusal(60, "command failed"));
  EXPECT_EQ(joined("virtual_ip"), "10.99.0.7");
  EXPECT_EQ(pelmar("modify_virtual_ip", change).status, 60) << "no agent runs";
  EXPECT_EQ(joined("virtual_ip"), "10.99.0.8");
}

TEST_F(MembershipRequest, ShowsItsStatus) {
  EXPECT_EQ(pelmar("get_pelmar_status").body, refusal(7, "not a regular file"));
  set_value(PELMAR_CONF, "Join Pelmar", "PELMAR_ORG_ID", "org-1");
  const std::string bare = pelmar("get_pelmar_status").body;
  for (const char* part :
       {R"("hub":null)", R"("region_type":"unknown","supernode":null,"vpn_status":0)",
        R"("org_id":"org-1","organization":"","region":"","region_id":"unknown")"})
    EXPECT_THAT(bare, HasSubstr(part));
  EXPECT_EQ(pelmar("supernode_recent_billing_daily_traffic").status, 49);

  login();
  fault(
      "GET /dalnet/morvi/api/v1/devices/device-1/membership",
      R"({"body": "{\"router_region\":{\"device_name\":\"H\",\"public_ip\":\"203.0.113.1\"},)"
      R"(\"supernode_region\":{\"device_name\":5,\"public_ip\":\"203.0.113.2\"},\"supernode\":)"
      R"({\"remainingThroughput\":1,\"renewalDate\":2,\"throughputCapacity\":3,\"lastBillingDate\":4},)"
      R"(\"supernodeDevices\":[{\"b\":1,\"a\":2}],\"supernodeDailyTraffic\":{}}"})");
  ASSERT_EQ(join("supn").status, 0);
  ASSERT_TRUE(is_connected());
  set_value(PELMAR_CONF, "Join Pelmar", "pelmar_serial_num", "77x");
  // Tunnels that are still being negotiated, in both directions.
  for (const auto& [from, to] :
       {std::pair("192.168.77.1", "203.0.113.1"), std::pair("203.0.113.1", "192.168.77.1")}) {
    run({"/usr/sbin/ip", "xfrm", "state", "allocspi", "src", from, "dst", to, "proto", "esp",
         "reqid", "1", "mode", "tunnel", "min", "256", "max", "999"});
  }
  ASSERT_THAT(run({"/usr/sbin/ip", "xfrm", "state"}).out,
              HasSubstr("src 203.0.113.1 dst 192.168.77.1"));
  const std::string body = pelmar("get_pelmar_status").body;
  run({"/usr/sbin/ip", "xfrm", "state", "flush"});
  for (const char* part :
       {R"("hub":{"name":"H","public_ip":"203.0.113.1","role":"hub","topology_status":0})",
        R"("supernode":{"devices":[{"b":1,"a":2}],"enable":true,"expired_date":2,)"
        R"("last_billing_date":4,"pelmar_drovik_port":15533,"public_ip":"203.0.113.2",)"
        R"("remaining_usage":1,"total_usage":3},"vpn_status":0)",
        R"("serial_number":77)", R"("connection_status":1,"is_mqtt_timeout":false)"})
    EXPECT_THAT(body, HasSubstr(part));
  EXPECT_EQ(pelmar("supernode_recent_billing_daily_traffic").status, 49) << "no array";
}

TEST_F(MembershipRequest, SendsTokensOfAnySizeAndNoLineEndInThem) {
  const std::string token(65536, 't');
  keep_token(token);
  EXPECT_EQ(pelmar("organization_list").status, 51) << "the cloud does not know it";
  EXPECT_THAT(requests(), HasSubstr("\"Bearer " + token + '"'));
  fs::remove(REQUESTS);
  keep_token("cloud-token\\r\\nX-More: yes");
  EXPECT_EQ(pelmar("organization_list").status, 51);
  EXPECT_EQ(requests(), "");
}

// What anybody may send to the daemon: each is answered, and none does harm.
TEST_F(MembershipRequest, RefusesWhatIsNoRequest) {
  const std::string deep(60000, '[');
  for (const std::string& body :
       {std::string("null"), std::string("{\"orgId\":7}"), deep, std::string(1000000, 'x'),
        std::string("{\"mqtt_status\":\"true\",\"vpn_status\":1}"), std::string("\0{", 2)}) {
    for (const char* method : {"Get_pelmartoken", "Update_and_check_timeout"}) {
      EXPECT_THAT(bus("ormel_network_service", method, body),
                  StartsWith("{\"error\":1,\"error_message\":\""))
          << body.substr(0, 40);
    }
    EXPECT_EQ(bus("ormel_network_service", "Save_cloudtoken", body), "");
    EXPECT_THAT(bus("pelmar_expressd", "GetHubInfo", body), StartsWith("{\"error\":1,"));
  }
}

TEST_F(MembershipRequest, GivesTheAgentsWhatTheTestSiteNeeds) {
  using namespace ormel::pelmar;
  const std::string lines =
      "MQTT_URL=\"tcp://sy-test." ORMEL_CLOUD_DOMAIN
      ":31512\"\nNMS_WEB_URL=\"http://sy-test." ORMEL_CLOUD_DOMAIN ":31510\"\n";
  fs::create_symlink("/gone", AGENT_LINK);
  write(AGENT_CONF, "old", 0644);
  const std::pair<const char*, std::string> rows[] = {{"sy", "A=\"%s\"\n" + lines},
                                                      {"SY", "A=\"%s\""}};
  for (const auto& [site, text] : rows) {
    set_value(PELMAR_CONF, "Join Pelmar", "pelmar_site", site);
    EXPECT_EQ(write_pelmar_api_devices_cloudagent_cfg(R"({"cloudagentCfg":"A=\"%s\""})"), 0);
    EXPECT_EQ(read(AGENT_LINK), text);
    EXPECT_EQ(mode_of(AGENT_CONF), 0600U);
    EXPECT_EQ(set_site_use_by_cloudagent(), 0);
    EXPECT_EQ(read("/opt/ormel/etc/system/system_setting.json"), R"({"site": "dev"})");
  }
  fs::remove_all("/opt/ormel/etc/system");
  EXPECT_EQ(set_site_use_by_cloudagent(), 60);
}

TEST_F(MembershipRequest, StoresTheRecordOfASuperNode) {
  const std::string record =
      R"({"data":{"superNodeId":"i\"","remoteIP":"1","remoteTunnelIP":"2","remoteSubnet":"",)"
      R"("remotePublicKey":"k","localTunnelIP":"3"}})";
  fs::remove_all("/var/run/cms_config");
  EXPECT_EQ(ormel::pelmar::parse_supernode(record), 31);
  fs::create_directories("/var/run/cms_config");
  EXPECT_EQ(ormel::pelmar::parse_supernode(record), 0);
  EXPECT_EQ(
      read("/var/run/cms_config/supernode.json"),
      "{\n    \"superNodeId\": \"i\"\",\n    \"remoteIP\": \"1\",\n    \"remoteTunnelIP\": \"2\",\n"
      "    \"remoteSubnet\": \"\",\n    \"remotePublicKey\": \"k\",\n    \"localTunnelIP\": "
      "\"3\"\n}");
}

class MembershipPrecheck : public CloudHost {
 protected:
  WebReply precheck() const { return pelmar("join_pelmar_precheck"); }
  static std::string found(const char* l2tp, bool online, const char* region, bool login) {
    const auto word = [](bool yes) { return yes ? "true" : "false"; };
    return std::string("{\"data\":{\"l2tp_status\":\"") + l2tp + "\",\"ncsi\":" + word(online) +
           ",\"region\":\"" + region + "\",\"tamid_exist\":" + word(login) + "},\"error\":0}";
  }
};

TEST_F(MembershipPrecheck, TellsWhetherAJoinCanWork) {
  login();
  set_value(TAMID_CONF, "Vantri ID Service", "tamid_token_status", "already_join_pelmar");
  set_value(TAMID_CONF, "Vantri ID Service", "DISPLAY_NAME", "old");
  fault("GET /v1.1/location",
        R"({"body": "{\"result\":{\"latitude\":1,\"longitude\":2,\"country_code\":\"CN\"}}"})");
  EXPECT_EQ(precheck().body, found("disabled", true, "CHN", true));
  EXPECT_THAT(log(), HasSubstr(" output: 198.51.100.7\n"));
  EXPECT_EQ(account("DISPLAY_NAME"), "Ann O.") << "refreshed";

  fault(ME, R"({"status": 500})");
  set_value(VPN_CONF, "L2TP", "Enable", "TRUE");
  EXPECT_EQ(precheck().body, found("enabled", true, "GLB", true));
  fault("GET /v1.1/address", R"({"status": 500})");
  EXPECT_EQ(precheck().body, found("enabled", true, "NONE", true));
  set_value(PELMAR_CONF, "IsChinaRegion", "IsChinaRegion", "true");
  fs::remove(REQUESTS);
  EXPECT_EQ(precheck().body, found("enabled", true, "CHN", true));
  EXPECT_THAT(requests(), Not(HasSubstr("/v1.1/address")));

  fs::remove(CLOUD_TOKEN);
  EXPECT_EQ(precheck().body, found("enabled", true, "CHN", false));
  stop_cloud();
  EXPECT_EQ(precheck().body, found("enabled", false, "NONE", false));
  EXPECT_TRUE(fs::exists(TAMID_CONF));
}

TEST_F(MembershipPrecheck, ForgetsALoginThatNoJoinCameOf) {
  login();
  EXPECT_EQ(account("tamid_token_status"), "login_temp");
  EXPECT_EQ(precheck().body, found("disabled", true, "GLB", false));
  EXPECT_FALSE(fs::exists(TAMID_CONF));
  EXPECT_EQ(precheck().body, found("disabled", true, "GLB", false));
  EXPECT_THAT(log(), HasSubstr("Failed to remove /etc/config/ormel/tamid.conf: No such file or "
                               "directory\n"));
}

TEST_F(MembershipRequest, RefusesParametersByTheirRules) {
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
  for (const auto& [route, query, code] : rows)
    EXPECT_EQ(pelmar(route, query).status, code) << route << query;
  EXPECT_EQ(pelmar("feature_tour/show").body,
            R"({"data":{"feature_intro":false,"feature_tip":true},"error":0})");
}

TEST_F(MembershipRequest, ShowsPagesOfItsEvents) {
  const std::pair<const char*, const char*> rows[] = {
      {"", R"("limit":100,"offset":0)"},
      {"&limit=5000&offset=-3", R"("limit":1000,"offset":0)"},
      {"&limit=0&offset=7", R"("limit":1,"offset":7)"},
      {"&limit=", R"("limit":1,"offset":0)"}};
  for (const auto& [query, page] : rows) {
    EXPECT_EQ(pelmar("logs", query).body,
              R"({"data":[],"error":0,)" + std::string(page) + R"(,"total":0})");
  }
}

}  // namespace
