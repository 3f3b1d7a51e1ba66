// A WireGuard server and a client of it on two appliances, with the real scripts and tool.
// appliance: --pair --daemon fenro-networkd
#include <ctime>

#include "support/exposition.h"
#include "support/far_appliance.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* WG = "/usr/bin/wg";
constexpr const char* PEER_FILE = "/etc/config/ormel/wireguard/server_peers.conf";
constexpr const char* SERVER = "/etc/init.d/vpn_wireguard.sh";
constexpr const char* CLIENT = "/etc/init.d/vpn_wireguard_client.sh";
constexpr const char* LAN_GATEWAY = "192.168.77.254";

std::string line(const Result& result) {
  return result.out.substr(0, result.out.find('\n'));
}

std::string new_key() {
  return line(run({WG, "genkey"}));
}
std::string public_key(const std::string& key) {
  return line(run({WG, "pubkey"}, {}, key + '\n'));
}

bool far_pings(const char* address) {
  return far::run({"/bin/ping", "-c1", "-W2", address}).status == 0;
}

Result shell(const std::string& script) {
  return run({"/bin/sh", "-c", script});
}

// The peers of the server that runs.
std::string installed() {
  return run({WG, "show", "wg0", "peers"}).out;
}

class WireGuardTunnel : public testing::Test {
 protected:
  void SetUp() override {
    if (access("/dev/net/tun", R_OK | W_OK) != 0 &&
        run({"/sbin/ip", "link", "add", "wg0", "type", "wireguard"}).status)
      GTEST_SKIP() << "no WireGuard in this kernel, and an ordinary user has no TUN device";
    for (const char* file : {VPN_CONF, PEER_FILE}) fs::remove(file);
    far::run({"/bin/rm", "-f", VPN_CONF, "/tmp/edges"});
    far::write("/tmp/edge", "#!/bin/sh\necho \"$# $INTERFACE $LOCAL_IP\" >>/tmp/edges\n", 0700);
    ASSERT_EQ(cli({"--type=SWG", "--modify=0", "--server_name=office", "--server_ip=198.18.7.1",
                   "--server_mask=24", "--enable=TRUE"})
                  .status,
              0);
  }
  void TearDown() override {
    far::run({CLIENT, "stop", "1"});
    run({SERVER, "stop"});
  }

  [[nodiscard]] WebReply ask(const std::string& route, std::string form = {}) const {
    for (size_t at = 0; (at = form.find('+', at)) != std::string::npos; at += 3)
      form.replace(at, 1, "%2B");
    return cgi("/ormel/peer/" + route, "sid=" + sid + '&' + form);
  }
  void add_peer(const std::string& address) const {
    ASSERT_EQ(ask("add", "peer_name=phone%25201&peer_pub_key=" + public_key(key) +
                             "&peer_allow_ip=" + address + "/32&psk=" + psk)
                  .status,
              0);
  }

  // A profile over there, and its connection.
  void connect(const std::string& address, const std::string& allowed) const {
    const Result added = far::cli(
        {"--type=WG", "--add", "--client_name=home", "--client_pri_key=" + key,
         "--client_ip=" + address, "--client_mask=32", "--psk=" + psk,
         "--peer_pub_key=" + conf_value("WG", "Server public key"),
         "--peer_endpoint=192.168.77.1:51820", "--peer_allow_ip=" + allowed, "--enable_dns=TRUE",
         "--manual_dns=9.9.9.9", "--up=/tmp/edge", "--down=/tmp/edge"});
    ASSERT_EQ(added.status, 0) << added.err;
    ASSERT_EQ(far::cli({"--type=WG", "--connect=1"}).status, 0);
  }

  const std::string key = new_key();  // of the client
  const std::string psk = new_key();  // any 32 bytes
  const std::string sid = begin_session("admin");
};

TEST_F(WireGuardTunnel, KeepsADeviceOutForATime) {
  add_peer("198.18.7.2");
  connect("198.18.7.2", "198.18.7.0/24");
  ASSERT_TRUE(comes_true([] { return far_pings("198.18.7.1"); }));
  EXPECT_THAT(ctl({"who", "--json"}).out, HasSubstr("\"user\":\"phone 1\""));
  EXPECT_EQ(ctl({"kick", "phone 1", "--yes"}).status, 2) << "a device has no session";
  const Result kept = ctl({"kick", "phone 1", "--for", "1h", "--yes"});
  EXPECT_EQ(kept.status, 0) << kept.err;
  EXPECT_FALSE(far_pings("198.18.7.1"));
  ASSERT_EQ(run({SERVER, "restart"}).status, 0);
  EXPECT_EQ(installed(), "") << "the server starts without it";
  EXPECT_THAT(ctl({"hold", "list"}).out, HasSubstr("phone 1  device"));
  EXPECT_EQ(ctl({"hold", "lift", "phone 1"}).status, 0);
  EXPECT_TRUE(comes_true([] { return far_pings("198.18.7.1"); }));

  // The end of a hold gives the interface its peer back, with the pre-shared key.
  ASSERT_EQ(
      run({"/usr/lib/fenro/fenro-hold", "add", "peer", public_key(key), "3", "phone 1"}).status, 0);
  EXPECT_EQ(installed(), "");
  run({"/usr/bin/pkill", "-f",
       "fenro-hold add"});  // as a restart of the system ends who waits for it
  ASSERT_EQ(run({SERVER, "restart"}).status, 0);
  EXPECT_TRUE(comes_true([] { return !installed().empty(); }, 40));
  EXPECT_THAT(run({WG, "show", "wg0", "preshared-keys"}).out, HasSubstr(psk));
}

TEST_F(WireGuardTunnel, LimitsADeviceFromATimeOn) {
  add_peer("198.18.7.2");
  const auto limit = [&](std::time_t since) {
    return ask("limit", "index=1&since=" + std::to_string(since)).body;
  };
  const std::time_t now = std::time(nullptr);
  EXPECT_EQ(ask("limits").body, R"({"data":[],"error":0})");
  EXPECT_EQ(limit(now), R"({"error":0})");
  EXPECT_EQ(installed(), "");
  EXPECT_THAT(ask("limits").body, AllOf(HasSubstr("\"since\":" + std::to_string(now)),
                                        HasSubstr("\"name\":\"phone 1\"")));
  EXPECT_EQ(ctl({"hold", "lift", "phone 1"}).status, 3) << "no hold";
  ASSERT_EQ(run({SERVER, "restart"}).status, 0);
  EXPECT_EQ(installed(), "");

  // It follows the device to another key, and ends with it.
  const std::string other = public_key(new_key());
  EXPECT_THAT(ask("modify", "index=1&peer_pub_key=" + other).body, HasSubstr("\"error\":0"));
  EXPECT_EQ(installed(), "") << "a change of a peer that is kept out";
  EXPECT_THAT(ask("limits").body, AllOf(HasSubstr(other), Not(HasSubstr(public_key(key)))));
  EXPECT_EQ(limit(0), R"({"error":0})");
  EXPECT_THAT(installed(), HasSubstr(other));
  EXPECT_EQ(limit(std::time(nullptr) + 4), R"({"error":0})");
  EXPECT_THAT(installed(), HasSubstr(other)) << "not yet";
  EXPECT_TRUE(comes_true([&] { return installed().empty(); }, 40)) << "its time has come";
  EXPECT_THAT(ask("remove", "index=1").body, HasSubstr("\"error\":0"));
  EXPECT_EQ(ask("limits").body, R"({"data":[],"error":0})");
  for (const char* form : {"index=1", "index=1&since=-1", "index=1&since=x",
                           "index=1&since=253402300799", "index=7&since=1", "since=1"})
    EXPECT_THAT(ask("limit", form).body, Not(HasSubstr("\"error\":0"))) << form;
}

// Two firewalls of a host that drop what is forwarded: one by iptables, as Docker and ufw have it,
// and one that takes no rules of ours.
TEST_F(WireGuardTunnel, ReachesWhatIsBehindTheServerWhereAnotherFirewallDropsIt) {
  if (access("/usr/sbin/iptables", X_OK) != 0) GTEST_SKIP() << "no iptables";
  shell("iptables -P FORWARD DROP; iptables -A FORWARD -j DROP");
  ASSERT_EQ(run({SERVER, "restart"}).status, 0);
  add_peer("198.18.7.2");
  connect("198.18.7.2", "198.18.7.0/24,192.168.77.254/32");
  EXPECT_TRUE(comes_true([] { return far_pings("198.18.7.1"); }));
  EXPECT_TRUE(far_pings(LAN_GATEWAY));
  EXPECT_EQ(conf_value("WG", "WG_iptables_rules"), "TRUE");
  run({SERVER, "stop"});
  EXPECT_EQ(shell("iptables -S FORWARD").out, "-P FORWARD DROP\n-A FORWARD -j DROP\n");
  shell(R"(iptables -F FORWARD; iptables -P FORWARD ACCEPT
    nft 'add table ip own; add chain ip own way {
      type filter hook forward priority 0; policy drop; }')");
  EXPECT_THAT(run({SERVER, "start"}).err,
              AllOf(HasSubstr("another firewall drops"), HasSubstr("(ip own way)")));
  EXPECT_EQ(conf_value("WG", "WG_iptables_rules"), "FALSE");
  shell("nft delete table ip own");
}

TEST_F(WireGuardTunnel, CarriesTrafficAndBothEndsTellOfIt) {
  add_peer("198.18.7.2");
  connect("198.18.7.2", "198.18.7.0/24,192.168.77.254/32");

  EXPECT_TRUE(comes_true([] { return far_pings("198.18.7.1"); }));
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", "198.18.7.2"}).status, 0);
  EXPECT_TRUE(far_pings(LAN_GATEWAY));  // by the server, which answers for its clients
  const auto far_route = [](const std::string& to) {
    return far::run({"/bin/sh", "-c", "ip route get " + to}).out;
  };
  EXPECT_THAT(far_route(LAN_GATEWAY), HasSubstr(" dev wgc3001 "))
      << "an allowed network that is not the tunnel's own";
  EXPECT_THAT(far_route(std::string(LAN_GATEWAY) + " from 198.18.7.2"), HasSubstr(" dev wgc3001 "))
      << "what comes from the tunnel's address goes back into it";
  EXPECT_EQ(far_route("203.0.113.9 from 198.18.7.2"), "")
      << "or not at all, where the peer does not take it";
  EXPECT_THAT(far_route("203.0.113.9"), HasSubstr(" dev eth0 "));

  const Environment show{std::string("SCRIPT_URL=") + SHOW,
                         "QUERY_STRING=type=65536&sid=" + far::begin_session("admin")};
  const std::string far_figures = far::run({CGI}, show).out,
                    near_figures = cgi(SHOW, "type=32&sid=" + sid).body;
  EXPECT_THAT(far_figures, HasSubstr("\"local_ip\":\"198.18.7.2\""));
  EXPECT_THAT(far_figures, HasSubstr("\"status\":1"));
  EXPECT_THAT(near_figures, HasSubstr("\"peer_allow_ip\":\"198.18.7.2/32\""));
  for (const std::string& figures : {far_figures, near_figures}) {
    EXPECT_THAT(figures, ContainsRegex("\"latest_handshake\":\"([^\"]* ago|Now)\""));
    EXPECT_THAT(figures, ContainsRegex("\"[rt]x_total\":\"[0-9.]+ [KM]?i?B\""));
  }

  const auto near_metrics = support::parse_exposition(ctl({"metrics"}).out);
  EXPECT_EQ(near_metrics.samples.at("ormel_sessions{protocol=\"wireguard\"}"), 1);
  const auto far_metrics = support::parse_exposition(far::ctl({"metrics"}).out);
  EXPECT_THAT(far_metrics.faults, testing::IsEmpty());
  const std::string labels = "{protocol=\"wireguard\",profile=\"home\"}";
  EXPECT_EQ(far_metrics.samples.at("ormel_tunnel_up" + labels), 1);
  EXPECT_LT(far_metrics.samples.at("ormel_tunnel_handshake_age_seconds" + labels), 180);
  EXPECT_GT(far_metrics.samples.at("ormel_tunnel_receive_bytes_total" + labels), 0);
  EXPECT_GT(far_metrics.samples.at("ormel_tunnel_transmit_bytes_total" + labels), 0);

  const auto stored = [](const char* name) { return far::conf_value("WG_CLIENT1", name); };
  EXPECT_EQ(stored("LocalIP"), "198.18.7.2");
  EXPECT_EQ(stored("Real Address"), "192.168.77.1");
  EXPECT_EQ(stored("DNS Server"), "9.9.9.9");
  EXPECT_THAT(far::run({"/sbin/ip", "route", "show", "table", "3001"}).out,
              HasSubstr("198.18.7.0/24 dev wgc3001"));
  const std::string edge = "0 wgc3001 198.18.7.2\n";
  EXPECT_TRUE(comes_true([&] { return far::read("/tmp/edges") == edge; }));

  EXPECT_EQ(far::showing(key + '\n' + psk + '\n' + conf_value("WG", "Server private key") + '\n'),
            "");

  EXPECT_EQ(far::cli({"--type=WG", "--disconnect=1"}).status, 0);
  EXPECT_EQ(stored("LocalIP") + stored("DNS Server"), "");
  EXPECT_TRUE(comes_true([&] { return far::read("/tmp/edges") == edge + edge; }));
  EXPECT_NE(far::run({"/sbin/ip", "link", "show", "wgc3001"}).status, 0);
  EXPECT_EQ(far::cli({"--type=WG", "--remove=1"}).status, 0);
  EXPECT_TRUE(comes_true([] {
    return far::run({"/bin/sh", "-c", "pgrep wireguard; ls /run/fenro/tunnels"}).out.empty();
  }));
  EXPECT_THAT(far::read(VPN_CONF), Not(HasSubstr("WG_CLIENT1")));
}

TEST_F(WireGuardTunnel, PeersComeAndGoOverTheWeb) {
  const std::string name = "peer_name=my%2520phone", address = "&peer_allow_ip=198.18.7.2/32";
  const std::string pub_key = "&peer_pub_key=" + public_key(key), secret = "&psk=" + psk;
  EXPECT_EQ(ask("list").body, R"({"data":[],"error":0})");
  EXPECT_THAT(ask("keys").body,
              ContainsRegex("^.\"data\":.\"pri_key\":\"[^\"]{43}=\",\"pub_key\":\"[^\"]{43}=\""));

  const std::string good = name + pub_key + address + secret;
  EXPECT_EQ(ask("add", good + "&enable=false&server_ip=198.18.7.2").status, 0);
  connect("198.18.7.2", "198.18.7.0/24");
  EXPECT_TRUE(comes_true([] { return far_pings("198.18.7.1"); }))
      << "on the interface that runs, whatever the form says";
  EXPECT_THAT(ask("list").body, HasSubstr(R"("index":1)"));

  const std::string other = "&peer_pub_key=" + public_key(new_key());
  const std::tuple<const char*, std::string, int> refused[] = {
      {"add", pub_key + address, 36},
      {"add", name + address, 36},
      {"add", name + pub_key, 36},
      {"add", name + other + address, 44},
      {"add", name + other + "&peer_allow_ip=198.18.7.3/32&psk=none", 9},
      {"add", name + other + "&peer_allow_ip=198.18.7.3/32&keepalive=65536", 9},
      {"add", name + std::string(1801, 'x') + other + "&peer_allow_ip=198.18.7.3/32", 13},
      {"modify", name, 36},
      {"modify", name + "&index=2", 9},
      {"modify", "index=1&peer_allow_ip=198.18.7.1/32", 44},
      {"remove", "", 36},
      {"remove", "index=2", 9},
      {"remove", "index=-1", 9},
  };
  const std::string before = read(PEER_FILE);
  for (const auto& [route, form, code] : refused)
    EXPECT_EQ(ask(route, form).status, code) << route << ' ' << form;
  EXPECT_EQ(read(PEER_FILE), before);
  EXPECT_TRUE(far_pings("198.18.7.1"));

  EXPECT_EQ(ask("modify", "index=1&keepalive=25").status, 0);
  EXPECT_THAT(ask("list").body,
              AllOf(HasSubstr(R"("keepalive":"25")"), HasSubstr(R"("peer_name":"my%20phone")")));
  EXPECT_TRUE(comes_true([] { return far_pings("198.18.7.1"); }))
      << "the key and the pre-shared key stay";
  EXPECT_EQ(ask("remove", "index=1").body, R"({"data":[],"error":0})");
  EXPECT_FALSE(far_pings("198.18.7.1"));

  ASSERT_EQ(cli({"--type=SWG", "--modify=0", "--enable=FALSE"}).status, 0);
  EXPECT_EQ(ask("add", good).status, 0);
  EXPECT_EQ(ask("modify", "index=1&psk=").status, 0);
  EXPECT_EQ(ask("remove", "index=1").status, 0) << "there is no interface to change";
}

TEST_F(WireGuardTunnel, PeersMoveWithTheServerToAnotherNetwork) {
  add_peer("198.18.7.77");
  ASSERT_EQ(cli({"--type=SWG", "--modify=0", "--server_ip=10.9.0.1", "--server_mask=24"}).status,
            0);
  EXPECT_THAT(run({WG, "show", "wg0", "allowed-ips"}).out, testing::EndsWith("\t10.9.0.2/32\n"));

  connect("10.9.0.2", "0.0.0.0/0");
  EXPECT_TRUE(comes_true([] {
    return far::run({"/bin/ping", "-I", "wgc3001", "-c1", "-W2", "10.9.0.1"}).status == 0;
  }));
  EXPECT_THAT(far::run({"/sbin/ip", "route", "get", "10.9.0.1"}).out,
              HasSubstr("dev eth0"));  // the policy's to decide
  EXPECT_THAT(far::run({"/sbin/ip", "route", "show", "table", "3001"}).out,
              StartsWith("default dev wgc3001"));
}

TEST_F(WireGuardTunnel, AServerIsMadeOfWhatItsFilesHoldOfUse) {
  const std::string good = public_key(new_key()), named = public_key(new_key());
  write(PEER_FILE,
        "garbage\n[global]\nmax_index = 9\n[PEER1]\npub_key = short\nallow_ip = "
        "198.18.7.2\n[PEER2]\npub_key = " +
            good + "\nallow_ip = 198.18.7.3\npsk = " + psk +
            "\nendpoint = 192.0.2.1:7\nkeepalive = 25\n[PEER3]\npub_key = " + good +
            "\nallow_ip = 198.18.7.4\n[PEER4]\npub_key = " + named +
            "\nallow_ip = 198.18.7.300\n[PEER5]\npub_key = " + named +
            "\nallow_ip = 198.18.7.5\nallow_ip_mask = 33\n[PEER6]\npub_key = " + named +
            "\nallow_ip = 198.18.7.6\npsk = none\n[PEER7]\npub_key = " + named +
            "\nallow_ip = 198.18.7.7\nendpoint = [::1]\n[PEER8]\npub_key = " + named +
            "\nallow_ip = 198.18.7.8\nendpoint = nowhere.example:7\n[PEER10]\npub_key = " + named +
            "\nallow_ip = 198.18.7.10\n[PEER9]\nendpoint = " + std::string(65536, 'x'));

  const Result started = run({SERVER, "restart"});

  EXPECT_EQ(started.status, 0);
  EXPECT_EQ(std::count(started.err.begin(), started.err.end(), '\n'), 7) << started.err;
  const std::string installed = run({WG, "show", "wg0", "dump"}).out;
  EXPECT_EQ(std::count(installed.begin(), installed.end(), '\n'), 3) << installed;
  EXPECT_THAT(installed,
              HasSubstr('\n' + good + '\t' + psk + "\t192.0.2.1:7\t198.18.7.3/32\t0\t0\t"));
  EXPECT_THAT(installed,
              HasSubstr('\n' + named + "\t(none)\t(none)\t198.18.7.8/32\t0\t0\t0\toff\n"));

  const std::string conf = read(VPN_CONF);
  for (const char* setting :
       {"Server Address = 198.18.7\n", "Server Address Mask = 33\n", "VPN Port = 65536\n",
        "Server private key = remove\n", "Server private key = \n", "interface = $(id)\n",
        "Server Address Mask = 24;id\n"}) {
    SCOPED_TRACE(setting);
    write(VPN_CONF, conf + "[WG]\n" + setting);
    const Result refused = run({SERVER, "start"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  }
  write(VPN_CONF, conf + "[WG]\ninterface = wgc3001\n");
  EXPECT_EQ(run({SERVER, "start"}).status, 0);
  EXPECT_EQ(
      run({"/sbin/ip", "rule", "show", "priority", "19032"}).out,
      "19032:\tfrom all to 198.18.7.0/24 lookup main\n19032:\tfrom 198.18.7.0/24 lookup 3001\n");

  EXPECT_EQ(run({SERVER, "stop"}).status, 0);
  EXPECT_EQ(run({SERVER, "status"}).out, "stopped\n");
  EXPECT_EQ(run({"/sbin/ip", "rule", "show", "priority", "19032"}).out, "");
  EXPECT_THAT(run({"/usr/sbin/nft", "list", "tables"}).out, Not(HasSubstr("wireguard")));
}

TEST_F(WireGuardTunnel, AClientThatCannotBeLeavesNothingBehind) {
  const std::string usable =
      "[WG_CLIENT1]\nIndex = 1\nClient Address = 198.18.7.2\nClient Address Mask = 32\nClient "
      "private key = " +
      key + "\nPeer Public key = " + key +
      "\nPeer Endpoint = 192.0.2.1:7\nPeer Allowed IPs = 192.0.2.0/24, ::/0\n";
  for (const std::string& bad :
       {std::string("Client Address = x"), std::string("Client private key = remove"),
        std::string("PSK = short"), std::string("Peer keepalive = 65536"),
        std::string("Peer Endpoint = host:"), std::string("Peer Endpoint = [::1"),
        std::string("Peer Endpoint = -h:7"), std::string("Peer Allowed IPs = 0/0;id"),
        std::string("Peer Endpoint = nowhere.example:7"),
        "Peer Endpoint = " + std::string(65536, 'h') + ":7"}) {
    SCOPED_TRACE(bad.substr(0, 50));
    write(VPN_CONF, usable + bad + '\n');
    EXPECT_EQ(run({CLIENT, "start", "1"}).status, 1);
    EXPECT_FALSE(fs::exists("/sys/class/net/wgc3001"));
    EXPECT_EQ(conf_value("WG_CLIENT1", "LocalIP"), "");
  }

  write(VPN_CONF, usable);
  EXPECT_THAT(run({CLIENT, "start", "1"}).err,
              HasSubstr("no route to 192.0.2.0/24: the server is in it"));
  EXPECT_THAT(run({"/sbin/ip", "route", "get", "192.0.2.1"}).out, HasSubstr("dev eth0"));
  EXPECT_EQ(run({CLIENT, "remove", "1"}).status, 0);
  EXPECT_FALSE(fs::exists("/sys/class/net/wgc3001"));
}

}  // namespace
