// What the web interface says about the appliance: its interfaces, tunnels and the reach of name
// servers, from the live system and from a network daemon that says anything.
#include <arpa/inet.h>
#include <poll.h>

#include "ormel/base/handle.h"
#include "ormel/web/handlers.h"
#include "support/web_request.h"

using namespace ormel::test;
using ormel::Json;

namespace {

const std::vector<std::string> NETWORK_METHODS = {"api.get_available_interface_list",
                                                  "api.get_interfaceStatus",
                                                  "api.get_bridge_members",
                                                  "api.get_bonding_slaves",
                                                  "api.get_currentGWinfo",
                                                  "interfaces_monitor.get_info_interfaces"};

Json parsed(const WebReply& reply) {
  Json document{json_loads(reply.body.c_str(), 0, nullptr)};
  EXPECT_TRUE(document) << reply.body;
  return document;
}

class WebHostFacts : public WebHost {
 protected:
  WebReply misc(const std::string& route, const std::string& query = {}) const {
    return cgi("/ormel/misc/" + route, admin + query);
  }
  // The element of `data` whose interface is `name`, as text.
  std::string interface(const char* route, const std::string& name) const {
    const Json reply = parsed(misc(route));
    size_t index = 0;
    json_t* entry = nullptr;
    json_array_foreach(json_object_get(reply.get(), "data"), index, entry) {
      if (name != json_string_value(json_object_get(entry, "ifname"))) continue;
      const ormel::CString text{json_dumps(entry, JSON_COMPACT)};
      return text.get();
    }
    return {};
  }
};

TEST_F(WebHostFacts, TellWhatTheApplianceIs) {
  for (const char* file : {"/etc/IS_DEMO", "/etc/FENRO_ZFS", "/etc/config/pakrix.conf"})
    fs::remove_all(file);
  const std::string plain =
      R"("generic":false,"hexan":false,"model":"","region":"","server_name":"","site":"production",)"
      R"("version":"3.3.1538","wireguard_available":false},"error":0})";
  EXPECT_EQ(misc("env").body,
            R"({"data":{"api_version":"3.3","build_date":"20260320","demo":false,"firmware":"",)" +
                plain);
  EXPECT_THAT(read(LOG), HasSubstr("Failed to get hollex site"));
  fs::create_directories("/etc/default_config");
  fs::create_directories("/opt/switch/data");
  write("/etc/default_config/Corlin.conf", "[System]\nModel = \"M-1\"\nVersion = 5.1\n");
  write("/etc/config/Corlin.conf", "[System]\nServer Name = the \"box\"\nRegion = GLB\n");
  write("/etc/config/pakrix.conf", "[Hollex]\nInstall_Path = /opt/switch\n");
  write("/opt/switch/data/user.conf", "[SITE]\nENV = Alpha\n");
  write("/etc/IS_DEMO", "");
  fs::create_directory("/etc/FENRO_ZFS");
  const std::string body = misc("env").body;
  for (const char* text :
       {R"("demo":true,"firmware":"5.1","generic":false,"hexan":false,"model":"\"M-1\"",)",
        R"("region":"GLB","server_name":"the \"box\"","site":"alpha",)"})
    EXPECT_THAT(body, HasSubstr(text));
  write("/opt/switch/data/user.conf", "");
  EXPECT_THAT(misc("env").body, HasSubstr(R"("site":"production")"))
      << "installed, but it does not say";
  for (const char* file : {"/etc/IS_DEMO", "/etc/FENRO_ZFS", "/etc/config/pakrix.conf",
                           "/etc/config/Corlin.conf", "/etc/default_config", "/opt/switch"})
    fs::remove_all(file);
}

TEST_F(WebHostFacts, TellOfTheRealInterfaces) {
  ASSERT_EQ(shell(R"(ip link add br9 type bridge && ip link add port9 type veth peer name cable9 &&
      ip tuntap add port8 mode tap && ip link set port9 master br9 &&
      ip link set port8 master br9 && ip link set port9 up && ip link set cable9 up &&
      ip address add 10.9.0.1/24 dev br9)")
                .status,
            0);
  EXPECT_THAT(interface("nic", "eth0"),
              AllOf(HasSubstr(R"("interface_type":"ethernet","status":"up","mac":")"),
                    HasSubstr(R"("maxSpeed":10000,"ip":"192.168.77.1"})")));
  EXPECT_THAT(interface("nic", "br9"), AllOf(HasSubstr(R"("interface_type":"vswitch")"),
                                             HasSubstr(R"("maxSpeed":null,"ip":"10.9.0.1"})")));
  EXPECT_THAT(interface("nic", "cable9"), Not(HasSubstr("\"ip\"")));
  for (const char* hidden : {"lo", "port9", "port8"})
    EXPECT_EQ(interface("nic", hidden), "") << hidden;
  const std::string whole = interface("member", "br9");
  for (const char* text : {R"("member":[{"ifindex":)", R"("maxSpeed":10000)",
                           R"("ifname":"port9","interface_type":"ethernet")",
                           R"("ifname":"port8","interface_type":"virtualif")"})
    EXPECT_THAT(whole, HasSubstr(text));
  EXPECT_THAT(interface("member", "eth0"), Not(HasSubstr("maxSpeed")));
  EXPECT_THAT(misc("interface_rate").body,
              HasSubstr(R"({"name_interface":"eth0","status":"up","rx_bytes":)"));
  shell("for link in br9 port9 port8; do ip link delete $link; done");
}

TEST_F(WebHostFacts, TellOfTheTunnelsOfClientProfiles) {
  fs::remove(VPN_CONF);
  EXPECT_EQ(misc("vpn_client_info").body, R"({"data":[],"error":0})");
  write(VPN_CONF,
        pptp_client(2) + "[PPTP]\nEnable = FALSE\n\n" + pptp_client(1, "Vendor = a\"b\n"));
  const std::string body = misc("vpn_client_info").body;
  EXPECT_THAT(
      body, AllOf(StartsWith(R"({"data":[{"fenro_port":)"),
                  HasSubstr(R"("name":"office1","type":256,"vendor":"a\"b","ifname":"ppp1001"},{)"),
                  EndsWith(R"("vendor":"","ifname":"ppp1002"}],"error":0})")));
  write(VPN_CONF, pptp_client(1, "Vendor = \xff\n"));
  EXPECT_EQ(misc("vpn_client_info").body, refusal(49, "wrong JSON format"));
}

// A name server on an address of the loopback network, which answers with what it is given, and
// goes on doing so.
Child name_server(const char* address, const std::vector<std::string>& answers, int period) {
  const ormel::Fd server{socket(AF_INET, SOCK_DGRAM, 0)};
  const sockaddr_in name{AF_INET, htons(53), {inet_addr(address)}, {}};
  EXPECT_EQ(bind(server.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  return Child([&]() -> int {
    sockaddr_in client{};
    auto* const to = reinterpret_cast<sockaddr*>(&client);
    for (bool asked = false;;) {
      pollfd ready{server.get(), POLLIN, 0};
      char query[600];
      socklen_t size = sizeof client;
      if (poll(&ready, 1, period) > 0)
        asked = recvfrom(server.get(), query, sizeof query, 0, to, &size) > 0 || asked;
      if (!asked) continue;
      for (const std::string& answer : answers)
        sendto(server.get(), answer.data(), answer.size(), 0, to, sizeof client);
    }
  });
}

const std::string NO_SUCH_NAME("\0\1\x81\x83\0\1\0\0\0\0\0\0", 12);
const std::string NO_QUESTION("\0\1\x81\x80\0\0\0\1\0\0\0\0", 12);

TEST_F(WebHostFacts, TellWhichNameServersAnswer) {
  const Child good = name_server("127.0.0.2", {"\1\2", NO_QUESTION, NO_SUCH_NAME}, 50);
  const auto uptime = [] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  };
  const double before = uptime();
  const Json reply = parsed(misc("dns", "&host=127.0.0.2&host=&host[1]=127.0.0.3&host=no%22name"));
  const json_t* data = json_object_get(reply.get(), "data");
  const auto of = [data](const char* host, const char* key) {
    return json_object_get(json_object_get(data, host), key);
  };
  EXPECT_EQ(json_object_size(data), 3U);
  EXPECT_TRUE(json_is_true(of("127.0.0.2", "status")));
  EXPECT_GT(json_number_value(of("127.0.0.2", "latency")), 0);
  for (const char* host : {"127.0.0.3", "no\"name"}) {
    EXPECT_TRUE(json_is_false(of(host, "status"))) << host;
    EXPECT_GE(json_number_value(of(host, "latency")), before - 1) << "the start of the probe";
    EXPECT_LE(json_number_value(of(host, "latency")), uptime()) << host;
  }
  const Json all = parsed(misc("dns"));
  EXPECT_EQ(json_object_size(json_object_get(all.get(), "data")), 12U);
  EXPECT_EQ(misc("dns", "&host=").body, R"({"data":{},"error":0})");
}

TEST_F(WebHostFacts, DoNotWaitForANameServerThatOnlyBabbles) {
  const Child babbler = name_server("127.0.0.2", {"\1\2", NO_QUESTION}, 20);
  EXPECT_THAT(misc("dns", "&host=127.0.0.2").body, HasSubstr(R"("status":false)")) << "ends at all";
}

TEST_F(WebHostFacts, TellWhichHostsAnswerWhereAClientAsks) {
  const auto ping = [](const std::string& query) {
    return unrouted(ormel::cgi::misc::ping, query);
  };
  const Json reply = parsed(ping(admin + "&host=192.168.77.254&host=127.0.0.1&host=no.such.host"));
  const json_t* data = json_object_get(reply.get(), "data");
  EXPECT_EQ(json_object_size(data), 3U);
  EXPECT_LT(json_integer_value(json_object_get(data, "192.168.77.254")), 2000);
  EXPECT_EQ(json_integer_value(json_object_get(data, "127.0.0.1")), 0)
      << "is heard of our own requests";
  EXPECT_EQ(json_integer_value(json_object_get(data, "no.such.host")), 0);
  EXPECT_EQ(ping(admin).body, R"({"data":{},"error":0})");
  EXPECT_EQ(ping(guest).body, refusal(39, "session invalid"));
}

// In its own suite, since the real daemon is gone afterwards.
class WebHostBroken : public WebHostFacts {};

TEST_F(WebHostBroken, AnswersWithWhatTheDaemonSaysOrWithItsFailure) {
  using Replies =
      std::map<std::string, std::string>;  // by the request; a request that is missing fails
  const std::string list = R"({"error":0,"data":[{"ifindex":1,"interface_type":"ethernet"}]})";
  const std::string bridge =
      R"({"data":[{"ifindex":1,"interface_type":"vswitch"},{"ifindex":2,"interface_type":"eth"}]})";
  const std::string parts =
      R"({"data":[{"ifindex":3},{"ifindex":4,"interface_type":"virtualif_x"}]})";
  const std::string failed = R"("error":47,"reason":"mib_call failed"})";
  const std::string one = R"({"ifindex":1})", three = R"({"ifindex":3})";
  const std::tuple<std::string, Replies, std::string> rows[] = {
      {"nic", {}, R"({"detail":"api.get_available_interface_list",)" + failed},
      {"nic", {{"", "{"}}, "{" + failed},
      {"nic", {{"", "{}"}}, R"({"error":0})"},
      {"nic", {{"", R"({"error":5,"data":"x"})"}}, R"({"data":"x","error":0})"},
      {"nic", {{"", list}}, R"({"detail":"api.get_interfaceStatus",)" + failed},
      {"nic", {{"", list}, {one, "[\xff"}}, R"({"detail":"api.get_interfaceStatus",)" + failed},
      {"nic",
       {{"", list}, {one, R"({"data":{"IPv4":[],"max_speed":10}})"}},
       R"({"data":[{"ifindex":1,"interface_type":"ethernet","maxSpeed":10}],"error":0})"},
      {"nic",
       {{"", bridge},
        {one, R"({"data":{"IPv4":[{"ip":"1.2.3.4"}],"max_speed":10}})"},
        {R"({"ifindex":2})", "{}"}},
       R"({"data":[{"ifindex":1,"interface_type":"vswitch","maxSpeed":null,"ip":"1.2.3.4"},)"
       R"({"ifindex":2,"interface_type":"eth","maxSpeed":null}],"error":0})"},
      {"nic",
       {{"", R"({"data":[7,{}]})"}, {R"({"ifindex":null})", "{}"}},
       R"({"data":[7,{"maxSpeed":null}],"error":0})"},
      {"member", {{"", list}}, R"({"data":[{"ifindex":1,"interface_type":"ethernet"}],"error":0})"},
      {"member", {{"", bridge}}, R"({"detail":"api.get_bridge_members",)" + failed},
      {"member",
       {{"", R"({"data":[{"ifindex":1,"interface_type":"bond"}]})"}},
       R"({"detail":"api.get_bonding_slaves",)" + failed},
      {"member", {{"", bridge}, {one, parts}}, R"({"detail":"api.get_interfaceStatus",)" + failed},
      {"member",
       {{"", bridge}, {one, parts}, {three, R"({"data":{"max_speed":100}})"}},
       R"({"data":[{"ifindex":1,"interface_type":"vswitch","member":[{"ifindex":3,"maxSpeed":100},)"
       R"({"ifindex":4,"interface_type":"virtualif_x"}]},{"ifindex":2,"interface_type":"eth"}],"error":0})"},
      {"gw", {}, R"({"detail":"api.get_currentGWinfo",)" + failed},
      {"gw",
       {{"", R"({"data":{"gw":"é","n":1.5}})"}},
       R"({"data":{"gw":"\u00E9","n":1.5},"error":0})"},
      {"gw",
       {{"", ""}},
       R"({"error":47,"reason":"'[' or '{' expected near end of file, Network API: api.get_currentGWinfo"})"},
      {"interface_rate", {}, R"({"detail":"interfaces_monitor.get_info_interfaces",)" + failed},
      {"interface_rate", {{"", R"({"data":[null]})"}}, R"({"data":[null],"error":0})"},
      {"interface_rate",
       {{"", "{\n"}},
       R"({"error":47,"reason":"string or '}' expected near end of file, Network API: interfaces_monitor.get_info_interfaces"})"},
  };
  for (const auto& row : rows) {
    const auto& route = std::get<0>(row);
    const auto& replies = std::get<1>(row);
    const auto& body = std::get<2>(row);
    SCOPED_TRACE(std::string(route).append(": ").append(body));
    const ScriptedService daemon("NetworkService", "/usr/lib/fenro/fenro-networkd", NETWORK_METHODS,
                                 [&](std::string_view request) -> fenro::bus::Reply {
                                   const auto reply = replies.find(std::string(request));
                                   if (reply == replies.end()) return {MIB_IO_FAILURE};
                                   return {MIB_SUCCESS, reply->second};
                                 });
    EXPECT_EQ(misc(route).body, body);
  }
  EXPECT_THAT(read(LOG), HasSubstr("expected near end of file\nbuf={\\n\n"))
      << "no line of the daemon's own";
}

}  // namespace
