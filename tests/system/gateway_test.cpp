// appliance: --web
// The default gateway policy: its routes, its file, and what the network daemon makes of it. The two tunnels are cables
// under the names of tunnels, whose far ends are in the local network; the daemon sees no difference.
#include "support/web_request.h"

namespace ormel::test {
namespace {

constexpr const char* OPTIONS = "/etc/config/vpn_options.conf";
constexpr const char* FAILOVER =
    "&as_gw_en=1&gw1_type=OVPN&gw1_index=1&snat=1&failover_en=1&failover_interval=0&gw2_type=WG&gw2_index=1";

class GatewayHost : public WebHost {
 protected:
  void SetUp() override {
    const std::string script = read("/etc/init.d/vpn_gateway.sh");
    WebHost::SetUp();
    write("/etc/init.d/vpn_gateway.sh", script, 0755);
    shell("for link in tun2001 wgc3001; do ip link delete $link; done 2>/dev/null; true");
  }
  static Result shell(const std::string& script) { return run({"/bin/sh", "-c", script}); }
  // A cable called `interface` to 10.91.NUMBER.1 in the local network.
  static void lay_cable(const std::string& interface, int number) {
    const std::string net = "10.91." + std::to_string(number);
    const std::string far = "far" + std::to_string(number);
    const Result laid = shell("ip link add " + interface + " type veth peer name " + far + " && ip link set " + far +
                              " netns lan && ip address add " + net + ".2/24 dev " + interface + " && ip link set " +
                              interface + " up && nsenter --net=/run/netns/lan sh -c 'ip address add " + net +
                              ".1/24 dev " + far + " && ip link set " + far + " up'");
    ASSERT_EQ(laid.status, 0) << laid.err;
  }
  static void cut(const std::string& far) {
    const Result cut = shell(
        "nsenter --net=/run/netns/lan /usr/sbin/nft 'add table netdev cut; add chain netdev cut in { type "
        "filter hook ingress device " +
        far + " priority 0; policy drop; }'");
    ASSERT_EQ(cut.status, 0) << cut.err;
  }
  static void mend() { shell("nsenter --net=/run/netns/lan /usr/sbin/nft delete table netdev cut"); }
  static bool leaves_by(const std::string& interface) {
    return shell("ip route get 203.0.113.9").out.find(" dev " + interface + " ") != std::string::npos;
  }
  std::string set(const std::string& policy) { return cgi("/ormel/gateway/set", admin + policy).body; }
  std::string vpn_gw() { return cgi("/ormel/gateway/get_vpn_gw", guest).body; }
};

TEST_F(GatewayHost, KeepsWhatIsSetAndRefusesTheRest) {
  const std::string off = R"({"gateway_policy":2,"gw_setting":{"as_gw_en":0}})";
  EXPECT_EQ(cgi("/ormel/gateway/get", guest).body, R"({"data":)" + off + R"(,"error":0})");
  struct Case {
    std::string request;
    std::string reply;
    std::string file;  // the policy afterwards; empty: there is still none
  };
  const std::string done = R"({"error":0})";
  const std::string one = R"("as_gw_en": 1, "gw1": {"type": 256, "index": 1, "sname": "PPTP_CLIENT1"})";
  for (const Case& each : {
           Case{guest + "&as_gw_en=0", refusal(41, "not admin session"), ""},
           Case{"sid=12345678&as_gw_en=0", refusal(39, "session invalid"), ""},
           Case{admin + "&as_gw_en=", refusal(36, "miss option"), ""},
           Case{admin + "&as_gw_en=1&gw1_type=PPTP", refusal(36, "miss option"), ""},
           Case{admin + "&as_gw_en=1&gw1_type=PPTP&gw1_index=1", refusal(9, "incorrect value"), ""},
           Case{admin + "&as_gw_en=1&gw1_type=PPTP&gw1_index=1&snat=1", refusal(9, "incorrect value"), ""},
           Case{admin + "&as_gw_en=1&gw1_type=PPTP&gw1_index=1&snat=1&failover_en=0", done,
                one + R"(, "snat": 1, "failover_en": 0)"},
           Case{admin + "&as_gw_en=1&gw1_type=PPTP&gw1_index=1&snat=0&failover_en=1&gw2_type=OVPN&gw2_index=0", done,
                one + R"(, "snat": 0, "failover_en": 0, "failover_interval": -1)"},
           Case{admin + "&as_gw_en=0&gw1_type=PPTP", done, R"("as_gw_en": 0)"},
       }) {
    SCOPED_TRACE(each.request);
    EXPECT_EQ(cgi("/ormel/gateway/set", each.request).body, each.reply);
    EXPECT_EQ(read(OPTIONS),
              each.file.empty() ? "" : R"({"global": {"version": "1"}, "gw_setting": {)" + each.file + "}}");
  }
}

TEST_F(GatewayHost, SurvivesADamagedFileAndLosesTheProfilesThatGo) {
  for (const char* damaged : {"", "[]", "{", R"({"gw_setting": 7})", R"({"gw_setting": {"as_gw_en": 1, "gw1": []}})"}) {
    SCOPED_TRACE(damaged);
    write(OPTIONS, damaged);
    EXPECT_EQ(cgi("/ormel/gateway/get", admin).status, 0);
    EXPECT_EQ(bus("NetworkService", "external_dev.update_vpn_gw"), R"({"error":0,"data":""})");
    EXPECT_EQ(vpn_gw(), R"({"data":{"index":0,"type":0},"error":0})");
  }
  ASSERT_EQ(set("&as_gw_en=1&gw1_type=PPTP&gw1_index=1&snat=1&failover_en=1&gw2_type=OVPN&gw2_index=3"),
            R"({"error":0})");
  EXPECT_EQ(cli({"--type=PPTP", "--remove=1"}).status, 0);
  EXPECT_NE(read(OPTIONS).find(
                R"("gw1": {"type": 1024, "index": 3, "sname": "OPENVPN_CLIENT3"}, "snat": 1, "failover_en": 0})"),
            std::string::npos)
      << read(OPTIONS);
}

TEST_F(GatewayHost, MovesToTheSecondTunnelAndBack) {
  shell("nsenter --net=/run/netns/lan ip address add 203.0.113.9/32 dev lo");
  lay_cable("tun2001", 1);
  lay_cable("wgc3001", 2);
  ASSERT_TRUE(leaves_by("eth0"));
  ASSERT_EQ(set(FAILOVER), R"({"error":0})");
  EXPECT_TRUE(leaves_by("tun2001")) << shell("ip rule; ip route show table 3500").out;
  EXPECT_NE(shell("nft list table ip fenro_gateway").out.find("tun2001"), std::string::npos);
  EXPECT_EQ(vpn_gw(), R"({"data":{"index":1,"type":1024},"error":0})");
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", "203.0.113.9"}).status, 0);
  shell("touch /tmp/watch; while [ -e /tmp/watch ]; do ip route get 203.0.113.9; done >/tmp/ways 2>&1 &");
  for (int i = 0; i < 3; ++i) bus("NetworkService", "external_dev.update_vpn_gw");
  shell("rm /tmp/watch");
  EXPECT_THAT(read("/tmp/ways"), AllOf(HasSubstr(" dev tun2001 "), Not(HasSubstr("eth0"))))
      << "while the rules are renewed";
  EXPECT_NE(shell("ip route get 192.168.77.254").out.find("eth0"), std::string::npos) << "what is near stays near";
  EXPECT_NE(shell("ip route get 203.0.113.9 from 192.168.77.1").out.find("eth0"), std::string::npos)
      << "an answer leaves by the way on which the question came";
  cut("far1");  // what the far end says by itself after it came up, it still says for a while
  EXPECT_TRUE(comes_true([&] { return leaves_by("wgc3001"); }, 40));
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", "203.0.113.9"}).status, 0);
  EXPECT_NE(vpn_gw().find(R"("index":1)"), std::string::npos);
  mend();
  EXPECT_TRUE(comes_true([&] { return leaves_by("tun2001"); }, 40));
  shell("ip link delete tun2001");
  EXPECT_TRUE(comes_true([&] { return leaves_by("wgc3001"); }, 40));
  ASSERT_EQ(set("&as_gw_en=0"), R"({"error":0})");
  EXPECT_TRUE(leaves_by("eth0"));
  EXPECT_EQ(shell("ip rule").out.find("3500"), std::string::npos);
}

}  // namespace
}  // namespace ormel::test
