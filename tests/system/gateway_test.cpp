// appliance: --web
// The default gateway policy: its routes, its file, and what the network daemon makes of it. The
// two tunnels are cables under the names of tunnels, whose far ends are in the local network; the
// daemon sees no difference.
#include <map>

#include "ormel/web/handlers.h"
#include "support/web_request.h"

namespace ormel::test {
namespace {

constexpr const char* DONE = R"({"error":0})";
constexpr const char* OPTIONS = "/etc/config/vpn_options.conf";
constexpr const char* FAILOVER =
    "&as_gw_en=1&gw1_type=OVPN&gw1_index=1&snat=1&failover_en=1&failover_interval=0&gw2_type=WG&"
    "gw2_index=1";

class GatewayHost : public WebHost {
 protected:
  void SetUp() override {
    std::map<std::string, std::string> scripts;
    for (const char* name : {"gateway", "guard", "names"}) {
      const std::string path = std::string("/etc/init.d/vpn_") + name + ".sh";
      scripts[path] = read(path);
    }
    WebHost::SetUp();
    for (const auto& [path, script] : scripts) write(path, script, 0755);
    shell("for link in tun2001 wgc3001; do ip link delete $link; done 2>/dev/null; true");
    fs::remove(OPTIONS);  // a policy whose tunnels are gone holds traffic back
    bus("NetworkService", "external_dev.update_vpn_gw");
  }
  // In the local network.
  static Result far(const std::string& script) {
    return run({"/usr/bin/nsenter", "--net=/run/netns/lan", "/bin/sh", "-c", script});
  }
  // A cable called `interface` to 10.91.NUMBER.1 in the local network.
  static void lay_cable(const std::string& interface, int number) {
    const Result laid = run({"/bin/sh", "-ec", R"(
        ip link add $0 type veth peer name far$1
        ip link set far$1 netns lan
        ip address add 10.91.$1.2/24 dev $0
        ip link set $0 up
        nsenter --net=/run/netns/lan ip address add 10.91.$1.1/24 dev far$1
        nsenter --net=/run/netns/lan ip link set far$1 up)",
                             interface, std::to_string(number)});
    ASSERT_EQ(laid.status, 0) << laid.err;
  }
  static void lay_both_cables() {
    lay_cable("tun2001", 1);
    lay_cable("wgc3001", 2);
  }
  // What comes in at a far end passes a chain of this table.
  static void add_chain(const std::string& table, const std::string& device,
                        const std::string& policy = "accept") {
    const Result added = far("nft 'add table netdev " + table + "; add chain netdev " + table +
                             " in { type filter hook ingress device " + device +
                             " priority 0; policy " + policy + "; }'");
    ASSERT_EQ(added.status, 0) << added.err;
  }
  static void cut(const std::string& end) { add_chain("cut", end, "drop"); }
  static void mend() { far("nft delete table netdev cut"); }
  static bool leaves_by(const std::string& interface, const std::string& to = "203.0.113.9") {
    return occurrences(shell("ip route get " + to).out, " dev " + interface + " ") > 0;
  }
  static bool comes_to_leave_by(const std::string& interface,
                                const std::string& to = "203.0.113.9") {
    return comes_true([&] { return leaves_by(interface, to); }, 40);
  }
  std::string set(const std::string& policy) {
    return cgi("/ormel/gateway/set", admin + policy).body;
  }
  // Whether the keeper passes on an event of a kind.
  [[nodiscard]] bool notified(const std::string& kind, const std::string& text) const {
    const std::string recent = cgi("/ormel/notify/recent", admin).body;
    const size_t row = recent.find("\"event\":\"" + kind + '"');
    const size_t end = recent.find('}', row);
    return row != std::string::npos &&
           recent.substr(row, end - row).find(text) != std::string::npos;
  }
  std::string vpn_gw() { return cgi("/ormel/gateway/get_vpn_gw", guest).body; }
};

TEST_F(GatewayHost, KeepsWhatIsSetAndRefusesTheRest) {
  const std::string off = R"({"gateway_policy":2,"gw_setting":{"as_gw_en":0}})";
  EXPECT_EQ(cgi("/ormel/gateway/get", guest).body, R"({"data":)" + off + R"(,"error":0})");
  const std::string one =
      R"("as_gw_en": 1, "gw1": {"type": 256, "index": 1, "sname": "PPTP_CLIENT1"})";
  const std::string first = "&as_gw_en=1&gw1_type=PPTP&gw1_index=1";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      // request, reply, the policy afterwards; empty: there is still none
      {"&as_gw_en=", refusal(36, "miss option"), ""},
      {"&as_gw_en=1&gw1_type=PPTP", refusal(36, "miss option"), ""},
      {first, refusal(9, "incorrect value"), ""},
      {first + "&snat=1", refusal(9, "incorrect value"), ""},
      {first + "&snat=1&failover_en=0", DONE, one + R"(, "snat": 1, "failover_en": 0)"},
      {first + "&snat=0&failover_en=1&gw2_type=OVPN&gw2_index=0", DONE,
       one + R"(, "snat": 0, "failover_en": 0, "failover_interval": -1)"},
      {"&as_gw_en=0&gw1_type=PPTP", DONE, R"("as_gw_en": 0)"},
  };
  for (const auto& [request, reply, policy] : cases) {
    SCOPED_TRACE(request);
    EXPECT_EQ(set(request), reply);
    EXPECT_EQ(
        read(OPTIONS),
        policy.empty() ? "" : R"({"global": {"version": "1"}, "gw_setting": {)" + policy + "}}");
  }
}

TEST_F(GatewayHost, SurvivesADamagedFileAndLosesTheProfilesThatGo) {
  for (const char* damaged :
       {"", "[]", "{", R"({"gw_setting": 7})", R"({"gw_setting": {"as_gw_en": 1, "gw1": []}})"}) {
    SCOPED_TRACE(damaged);
    write(OPTIONS, damaged);
    EXPECT_EQ(cgi("/ormel/gateway/get", admin).status, 0);
    EXPECT_EQ(bus("NetworkService", "external_dev.update_vpn_gw"), R"({"error":0,"data":""})");
    EXPECT_EQ(vpn_gw(), R"({"data":{"index":0,"type":0},"error":0})");
  }
  ASSERT_EQ(
      set("&as_gw_en=1&gw1_type=PPTP&gw1_index=1&snat=1&failover_en=1&gw2_type=OVPN&gw2_index=3"),
      DONE);
  EXPECT_EQ(cli({"--type=PPTP", "--remove=1"}).status, 0);
  EXPECT_THAT(
      read(OPTIONS),
      HasSubstr(
          R"("gw1": {"type": 1024, "index": 3, "sname": "OPENVPN_CLIENT3"}, "snat": 1, "failover_en": 0})"));
  const auto disable = [&](const std::string& query) {
    return unrouted(ormel::cgi::gateway::disable_gateway, query).status;
  };
  EXPECT_EQ(disable(guest + "&type=OVPN&index=3"), 41);
  EXPECT_EQ(disable(admin + "&type=OVPN"), 36);
  EXPECT_EQ(disable(admin + "&type=OVPN&index=3"), 0);
  EXPECT_THAT(read(OPTIONS), Not(HasSubstr("OPENVPN_CLIENT3")));
}

TEST_F(GatewayHost, MovesToTheSecondTunnelAndBack) {
  far("ip address add 203.0.113.9/32 dev lo");
  lay_both_cables();
  ASSERT_TRUE(leaves_by("eth0"));
  ASSERT_EQ(set(FAILOVER), DONE);
  EXPECT_TRUE(leaves_by("tun2001")) << shell("ip rule; ip route show table 3500").out;
  EXPECT_NE(shell("nft list table ip fenro_gateway").out.find("tun2001"), std::string::npos);
  EXPECT_EQ(vpn_gw(), R"({"data":{"index":1,"type":1024},"error":0})");
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", "203.0.113.9"}).status, 0);
  shell(R"(touch /tmp/watch
      while [ -e /tmp/watch ]; do ip route get 203.0.113.9; done >/tmp/ways 2>&1 &)");
  for (int i = 0; i < 3; ++i) bus("NetworkService", "external_dev.update_vpn_gw");
  shell("rm /tmp/watch");
  EXPECT_THAT(read("/tmp/ways"), AllOf(HasSubstr(" dev tun2001 "), Not(HasSubstr("eth0"))))
      << "while the rules are renewed";
  EXPECT_TRUE(leaves_by("eth0", "192.168.77.254")) << "what is near stays near";
  EXPECT_TRUE(leaves_by("eth0", "203.0.113.9 from 192.168.77.1"))
      << "an answer leaves by the way on which the question came";
  cut("far1");  // what the far end says by itself after it came up, it still says for a while
  EXPECT_TRUE(comes_to_leave_by("wgc3001"));
  EXPECT_TRUE(comes_true(
      [&] { return notified("gateway", " to wgc3001: the first tunnel is down or silent."); }));
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", "203.0.113.9"}).status, 0);
  EXPECT_NE(vpn_gw().find(R"("index":1)"), std::string::npos);
  mend();
  EXPECT_TRUE(comes_to_leave_by("tun2001"));
  shell("ip link delete tun2001");
  EXPECT_TRUE(comes_to_leave_by("wgc3001"));
  ASSERT_EQ(set("&as_gw_en=0"), DONE);
  EXPECT_TRUE(leaves_by("eth0"));
  EXPECT_EQ(shell("ip rule").out.find("3500"), std::string::npos);
}

// Counts what reaches the outside by the appliance's own interface while a program there sends
// without a pause.
class GatewayLeaks : public GatewayHost {
 protected:
  void SetUp() override {
    GatewayHost::SetUp();
    const Result ready = shell(R"(
        ip -6 address replace 2001:db8:77::1/64 dev eth0 nodad
        ip -6 route replace default via 2001:db8:77::fe
        ip -6 neighbour replace 2001:db8:77::fe lladdr 02:00:00:00:00:fe dev eth0
        echo nameserver 198.51.100.53 >/tmp/resolv; mount --bind /tmp/resolv /etc/resolv.conf)");
    ASSERT_EQ(ready.status, 0) << ready.err;
    add_chain("outside", "to-appliance");
    // What is sent before the neighbour is found leaves when it has been, whatever the rules say by
    // then.
    ASSERT_TRUE(
        comes_true([] { return shell("/bin/ping -c1 -W5 192.168.77.254").status == 0; }, 30));
    count_anew();
    write("/tmp/flood", "");
    shell(R"(/bin/bash -c 'while [ -e /tmp/flood ]; do echo >/dev/udp/203.0.113.9/9
        echo >/dev/udp/203.0.113.9/53; echo >/dev/udp/2001:db8:9::9/9; done' >/dev/null 2>&1 &)");
  }
  void TearDown() override {
    shell("rm -f /tmp/flood /etc/config/ormel/guard.conf; umount /etc/resolv.conf");
    far("nft delete table netdev outside");
    set("&as_gw_en=0");
    GatewayHost::TearDown();
  }
  // The packets that each rule has counted.
  static std::string outside() {
    const Result counted = far(R"(nft list table netdev outside |
        sed -n 's/.*packets \([0-9]*\).*/\1/p' | tr '\n' ' ')");
    return counted.out;
  }
  static void count_anew(const std::vector<std::string>& what = {
                             "ip daddr 203.0.113.9 udp dport { 9, 53 }",
                             "ip6 daddr 2001:db8:9::9"}) {
    std::string rules = "flush chain netdev outside in";
    for (const std::string& packets : what)
      rules += "; add rule netdev outside in " + packets + " counter";
    far("nft '" + rules + '\'');
  }
  static bool held() { return shell("ip route get 203.0.113.9").status != 0; }
};

TEST_F(GatewayLeaks, NothingLeavesInClearWhileThePolicyNamesAGateway) {
  lay_both_cables();
  EXPECT_TRUE(comes_true(
      [] {
        return outside().find_first_of("123456789") == 0 &&
               outside().find(" 0") == std::string::npos;
      },
      40))
      << "the counters see what leaves in clear: " << outside();
  ASSERT_EQ(set(FAILOVER), DONE);
  ASSERT_TRUE(leaves_by("tun2001"));
  count_anew();
  shell("ip link delete tun2001");
  EXPECT_TRUE(comes_to_leave_by("wgc3001"));
  shell("ip link delete wgc3001");
  EXPECT_TRUE(comes_to_leave_by("eth0", "198.51.100.53"))
      << "names of servers are found while there is no tunnel";
  EXPECT_TRUE(held());
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", "192.168.77.254"}).status, 0)
      << "the local network stays";
  lay_cable("tun2001", 1);
  EXPECT_TRUE(comes_to_leave_by("tun2001"));
  EXPECT_EQ(outside(), "0 0 ");
  for (const char* event :
       {"to wgc3001: the first tunnel is down", "held back: no tunnel of the policy is up"})
    EXPECT_THAT(read("/var/lib/fenro/event.db"), HasSubstr(event));
  EXPECT_TRUE(leaves_by("eth0", "203.0.113.9 mark 0x10000000"))
      << "what a tunnel sends to its server never goes into one";
}

// The far end drops all that comes in, also neighbours' questions, so no echo was ever answered.
TEST_F(GatewayLeaks, AFarEndThatNeverAnswersIsNotDead) {
  lay_both_cables();
  shell("rm /tmp/flood");
  cut("far1");
  ASSERT_EQ(set(FAILOVER), DONE);
  EXPECT_FALSE(comes_true([&] { return leaves_by("wgc3001"); }, 8));
  mend();
}

// What another program does to the name servers while a tunnel has them stays.
TEST_F(GatewayLeaks, TheTunnelsNameServerIsUsedWhileItIsTheGateway) {
  const std::string own = "nameserver 198.51.100.53\nsearch office.example\noptions ndots:2";
  const auto resolver_is = [](const std::string& text) {
    return comes_true([&] { return occurrences(read("/etc/resolv.conf"), text) > 0; }, 40);
  };
  write("/tmp/resolv", own, 0644);
  for (const auto& [section, server] :
       {std::pair{"OPENVPN_CLIENT1", "10.91.1.1"}, {"WG_CLIENT1", "10.91.2.1"}})
    ASSERT_EQ(run({"/sbin/setcfg", section, "DNS Server", server, "-f", VPN_CONF}).status, 0);
  lay_both_cables();
  ASSERT_EQ(set(FAILOVER), DONE);
  EXPECT_TRUE(resolver_is("\nnameserver 10.91.1.1\nsearch office.example\noptions ndots:2"));
  EXPECT_THAT(read("/etc/resolv.conf"), Not(HasSubstr("198.51.100.53\n")));
  shell("ip link delete tun2001");
  EXPECT_TRUE(resolver_is("\nnameserver 10.91.2.1\n"));
  shell("ip link delete wgc3001");
  EXPECT_TRUE(resolver_is(own)) << "the name of a server is still to be found";
  EXPECT_EQ(read("/etc/resolv.conf"), own) << "byte for byte";
  lay_cable("tun2001", 1);
  EXPECT_TRUE(resolver_is("10.91.1.1"));
  write("/tmp/resolv", "nameserver 203.0.113.53\n", 0644);
  lay_cable("wgc3001", 2);
  shell("ip link delete tun2001");
  EXPECT_TRUE(comes_to_leave_by("wgc3001"));
  EXPECT_EQ(read("/etc/resolv.conf"), "nameserver 203.0.113.53\n");
  EXPECT_TRUE(
      comes_true([] { return read(CALLS).find("resolv.conf was changed") != std::string::npos; }));
  ASSERT_EQ(set("&as_gw_en=0"), DONE);
  EXPECT_EQ(read("/etc/resolv.conf"), "nameserver 203.0.113.53\n");
  EXPECT_FALSE(fs::exists("/var/lib/fenro/dns/state"));
}

TEST_F(GatewayLeaks, AResolverOfTheHostIsToldOfTheTunnelsNameServer) {
  fs::create_directories("/run/systemd/resolve");
  record_calls("/usr/bin/resolvectl");
  write("/tmp/resolv", "nameserver 127.0.0.53\n", 0644);
  ASSERT_EQ(
      run({"/sbin/setcfg", "OPENVPN_CLIENT1", "DNS Server", "10.91.1.1", "-f", VPN_CONF}).status,
      0);
  lay_cable("tun2001", 1);
  ASSERT_EQ(set("&as_gw_en=1&gw1_type=OVPN&gw1_index=1&snat=1&failover_en=0"), DONE);
  EXPECT_TRUE(recorded_soon("resolvectl", 3));
  ASSERT_EQ(set("&as_gw_en=0"), DONE);
  EXPECT_THAT(recorded("resolvectl"), ElementsAre("dns|tun2001|10.91.1.1", "domain|tun2001|~.",
                                                  "default-route|tun2001|yes", "revert|tun2001"));
  EXPECT_EQ(read("/etc/resolv.conf"), "nameserver 127.0.0.53\n");
  fs::remove("/usr/bin/resolvectl");
  fs::remove_all("/run/systemd/resolve");
}

// At the far end of the second cable, what came with another address than that of the tunnel.
TEST_F(GatewayLeaks, ATunnelThatTakesOverTranslatesFromItsFirstPacket) {
  lay_both_cables();
  ASSERT_EQ(set(FAILOVER), DONE);
  ASSERT_TRUE(leaves_by("tun2001"));
  add_chain("second", "far2");
  far(R"(ip address replace 203.0.113.9/32 dev lo
      for from in '!= 10.91.2.2' 10.91.2.2; do
        nft add rule netdev second in ip daddr 203.0.113.9 ip saddr $from counter
      done)");
  shell(R"(ip address add 10.99.0.1/32 dev lo
      /bin/ping -i .01 -I 10.99.0.1 203.0.113.9 >/dev/null 2>&1 & echo $! >/tmp/bound)");
  for (int round = 0; round < 3; ++round) {
    shell("ip link set tun2001 down");
    EXPECT_TRUE(comes_to_leave_by("wgc3001"));
    shell("ip link set tun2001 up");
    EXPECT_TRUE(comes_to_leave_by("tun2001"));
  }
  const std::string counted = far("nft list table netdev second").out;
  EXPECT_THAT(counted, ContainsRegex("saddr != 10.91.2.2 counter packets 0 "));
  EXPECT_THAT(counted, ContainsRegex("saddr 10.91.2.2 counter packets [1-9]"));
  shell("kill $(cat /tmp/bound); ip address del 10.99.0.1/32 dev lo");
}

// Counts everything that goes to the outside: by any socket, by one that is bound to the address
// of eth0, and to a name server in the local network.
class GatewayGuard : public GatewayLeaks {
 protected:
  void SetUp() override {
    GatewayLeaks::SetUp();
    far("ip address replace 203.0.113.10/32 dev lo");
    shell(R"(/bin/ping -i .02 -I 192.168.77.1 203.0.113.9 >/dev/null 2>&1 & echo $! >/tmp/bound
        /bin/ping -i .05 192.168.77.254 >/tmp/near 2>&1 & echo $! >/tmp/near.pid)");
    lay_cable("tun2001", 1);
    lay_cable("wgc3001", 2);
    ASSERT_EQ(set(FAILOVER), DONE);
  }
  void TearDown() override {
    shell(
        "kill $(cat /tmp/bound /tmp/near.pid); rm -rf /etc/config/ormel/guard.conf; "
        "/etc/init.d/vpn_guard.sh apply");
    GatewayLeaks::TearDown();
  }
  [[nodiscard]] WebReply guard(const std::string& form) const {
    return cgi("/ormel/guard/set", admin + '&' + form);
  }
  static void count_all_anew() {
    count_anew({"ip daddr 203.0.113.9", "ip6 daddr 2001:db8:9::9",
                "udp dport 53 ip daddr 192.168.77.254"});
  }
  static std::string state() { return bus("NetworkService", "external_dev.guard_state"); }
  static bool comes_to(const std::string& word) {
    return comes_true([&] { return state().find("\"state\":\"" + word) != std::string::npos; }, 40);
  }
};

TEST_F(GatewayGuard, NothingLeavesWithoutATunnelWhateverHappens) {
  EXPECT_EQ(guard("mode=on").status, 0);
  count_all_anew();
  EXPECT_TRUE(comes_to("guarding")) << state();
  shell("ip link delete tun2001");
  EXPECT_TRUE(comes_to_leave_by("wgc3001"));
  shell("ip link delete wgc3001");
  EXPECT_TRUE(comes_to("holding")) << state();
  EXPECT_TRUE(comes_true([&] { return notified("guard", "traffic is held back"); }));
  shell("echo >/dev/udp/192.168.77.254/53");
  EXPECT_TRUE(comes_true([&] {
    return shell("/etc/init.d/vpn_guard.sh report").out.find("ipv4 0") == std::string::npos;
  })) << "the bound socket is stopped by the filter";
  shell(R"(pkill -KILL fenro-networkd
      ip rule | sed -n 's/:.*lookup 3500//p' | while read -r p; do ip rule del priority $p; done
      while ip -6 rule del lookup 3500; do :; done 2>/dev/null)");
  EXPECT_FALSE(held()) << "the filter is alone while no one looks after the routes";
  shell("nft delete table ip fenro_gateway");
  EXPECT_EQ(shell("/bin/ping -c3 -i.2 -W5 192.168.77.254").status, 0);
  EXPECT_EQ(outside(), "0 0 0 ");
  shell("/usr/lib/fenro/as-lookup /bin/bash -c 'echo >/dev/udp/192.168.77.254/53'");
  EXPECT_TRUE(comes_true([] { return outside() == "0 0 1 "; }))
      << "the name of a server is looked up: " << outside();
  shell("setsid /usr/lib/fenro/fenro-networkd >/run/appliance/log/fenro-networkd.log 2>&1 &");
  EXPECT_TRUE(comes_to("holding"));
  lay_cable("tun2001", 1);
  EXPECT_TRUE(comes_to_leave_by("tun2001"));
  EXPECT_EQ(far("ping -c1 -W5 -I 203.0.113.10 192.168.77.1").status, 0)
      << "a question from outside is answered";
  shell("nft flush ruleset");
  EXPECT_TRUE(comes_true([&] { return shell("nft list table inet fenro_guard").status == 0; }, 40));
  EXPECT_EQ(set("&as_gw_en=0"), DONE);
  EXPECT_TRUE(comes_to("idle")) << state();
  EXPECT_TRUE(comes_true([] { return outside().find("0 ") != 0; }))
      << "with the policy off traffic leaves again";
  shell("kill -INT $(cat /tmp/near.pid)");
  EXPECT_TRUE(comes_true([] {
    return read("/tmp/near").find(" 0% packet loss") != std::string::npos;
  })) << "the local network loses nothing: "
      << read("/tmp/near").substr(read("/tmp/near").size() / 2);
}

TEST_F(GatewayGuard, StrictHoldsWithoutAPolicyUntilItIsPausedOrOff) {
  EXPECT_EQ(guard("mode=strict").status, 0);
  EXPECT_EQ(set("&as_gw_en=0"), DONE);
  count_all_anew();
  EXPECT_TRUE(comes_to("holding")) << state();
  EXPECT_TRUE(held());
  EXPECT_EQ(outside(), "0 0 0 ");
  EXPECT_EQ(guard("pause=1").status, 0);
  EXPECT_TRUE(comes_to("paused"));
  EXPECT_TRUE(
      comes_true([] { return outside().find(" 0 ") == std::string::npos || outside()[0] != '0'; }));
  EXPECT_TRUE(fs::exists("/var/lib/fenro/guard.nft")) << "the next start of the host holds again";
  EXPECT_EQ(guard("mode=off").status, 0);
  EXPECT_TRUE(comes_to("off"));
  EXPECT_FALSE(fs::exists("/var/lib/fenro/guard.nft"));
}

// Whatever is refused, the guard stays as it was.
TEST_F(GatewayGuard, SaysWhatItCannotDoAndChangesNothing) {
  EXPECT_EQ(cgi("/ormel/guard/set", guest + "&mode=on").body, refusal(39, "session invalid"));
  EXPECT_EQ(guard("mode=maybe").body, refusal(9, "mode must be one of: off on strict"));
  EXPECT_EQ(guard("mode=on&dns=%0Amode").status, 9);
  EXPECT_EQ(guard("mode=strict&lan=1&dns=any").status, 0);
  const std::string filter = shell("nft -s list table inet fenro_guard").out;
  EXPECT_THAT(filter, Not(HasSubstr("counter name \"dns\"")));
  const std::string nft = read("/usr/sbin/nft");
  for (const char* broken : {"#!/bin/sh\nexit 1\n", ""}) {
    fs::remove("/usr/sbin/nft");
    if (*broken) write("/usr/sbin/nft", broken, 0755);
    EXPECT_EQ(guard("dns=tunnel").status, 60);
    EXPECT_THAT(read("/etc/config/ormel/guard.conf"),
                HasSubstr("mode = strict\nlan = 1\nipv6 = block\ndns = any\n"));
  }
  fs::remove("/usr/sbin/nft");
  write("/usr/sbin/nft", nft, 0755);
  EXPECT_EQ(shell("nft -s list table inet fenro_guard").out, filter);
  ASSERT_EQ(set("&as_gw_en=0"), DONE);
  EXPECT_EQ(guard("mode=on").status, 36);
  const Result shown = run({"/usr/sbin/ormelctl", "guard"});
  EXPECT_THAT(shown.out, AllOf(StartsWith("strict, holding: "), HasSubstr("192.168.77.0/24"),
                               HasSubstr("any name server")));
  EXPECT_EQ(run({"/usr/sbin/ormelctl", "guard", "off"}).status, 0);
  EXPECT_EQ(shell("nft list table inet fenro_guard").status, 1);
  EXPECT_EQ(run({"/usr/sbin/ormelctl", "guard", "on"}).err,
            "ormelctl: no tunnel is the default gateway: choose one first, or use the mode strict\n"
            "  ormelctl gateway set pptp/1, or ormelctl guard strict\n");
}

}  // namespace
}  // namespace ormel::test
