// The daemons of L2TP/IPsec on two appliances, with what the scripts write for them. A kernel
// without PPP or ESP lets the scripts end early, so the daemons are started from here by the
// functions that the scripts use.
// appliance: --pair --no-daemons
#include "support/far_appliance.h"

using namespace ormel::test;

namespace {

constexpr const char* SERVER = "/etc/init.d/vpn_l2tp.sh";
constexpr const char* CLIENT = "/etc/init.d/vpn_l2tp_client.sh";
constexpr const char* PSK = "it's {one} \"of\" # many\\";

// In the place of pppd: tells how it was run, and stays.
constexpr const char* PPPD =
    "#!/bin/sh\necho \"$0 $*\" >/tmp/pppd.new\nmv /tmp/pppd.new /tmp/pppd.run\nexec sleep 1000\n";

// A line of shell among the scripts' own functions; the pre-shared key comes by standard input.
std::vector<std::string> functions(const std::string& line) {
  return {"/bin/sh", "-c",
          "for lib in vpn_lib vpn_firewall client_lib ppp_lib l2tp_lib; do . "
          "/usr/lib/fenro/$lib.sh; done\n" +
              line};
}

class L2tpScript : public testing::Test {
 protected:
  void SetUp() override {
    run({"/bin/rm", "-rf", "/usr/sbin/pppd", "/tmp/pppd.run"});
    far::run({"/bin/rm", "-rf", "/usr/sbin/pppd", "/tmp/pppd.run"});
    write("/usr/sbin/pppd", PPPD, 0755);
    far::write("/usr/sbin/pppd", PPPD, 0755);
    write(VPN_CONF, std::string("[L2TP]\nEnable = TRUE\nPSK = ") + PSK + "\n");
    far::write(VPN_CONF, std::string("[L2TP_CLIENT3]\nIndex = 3\nServer Address = "
                                     "192.168.77.1\nDomain IP = 192.168.77.1\nPSK = ") +
                             PSK + "\nName = bob\nAccessCode = c2VjcmV0\n");
    started_server = run({SERVER, "start"});
    started_client = far::run({CLIENT, "start", "3"});
  }
  void TearDown() override {
    EXPECT_EQ(far::run({CLIENT, "stop", "3"}).status, 0);
    EXPECT_EQ(run({SERVER, "stop"}).status, 0);
    const std::vector<std::string> left{"/usr/bin/pgrep", "-x", "xl2tpd|fenro-charon|pppd-l2tp"};
    EXPECT_EQ(run(left).out + far::run(left).out, "");
    EXPECT_FALSE(fs::exists("/run/fenro/ipsec/l2tpserver.conf"));
  }
  Result started_server, started_client;
};

TEST_F(L2tpScript, TheIkeDaemonsAgreeOnTheKeyAndOnNothingElse) {
  if (started_server.status != 0) {
    EXPECT_THAT(started_server.err, HasSubstr("this kernel has no "));
    ASSERT_EQ(
        run(functions("ipsec_write l2tpserver \"$(cat)\" %any 1701 '' none && ipsec_load"), {}, PSK)
            .status,
        0);
  }
  far::run({"/bin/rm", "-f", "/run/fenro/reasons/L2TP_CLIENT3"});  // what this kernel lacks
  EXPECT_THAT(far::ctl({"doctor", "l2tp/3", "--json"}).out,
              HasSubstr(R"("step":"server","result":"ok","text":"answers")"));
  const auto establishes = [](const std::string& key, const std::string& seconds) {
    const Result loaded = far::run(
        functions("ipsec_write l2tpclient3 \"$(cat)\" 192.168.77.1 11703 1701 trap && ipsec_load"),
        {}, key);
    EXPECT_EQ(loaded.status, 0) << loaded.err;
    const std::string initiate = "ike_command --initiate --ike l2tpclient3 --timeout ";
    return far::run(functions(initiate + seconds)).status == 0;
  };
  const auto terminate = functions("ike_command --terminate --ike l2tpclient3 --force");
  EXPECT_FALSE(establishes("another key", "6"));
  far::run(terminate);
  EXPECT_THAT(far::run(functions("ike_failure l2tpclient3 8")).out, StartsWith("psk-wrong "));
  far::run(terminate);
  EXPECT_TRUE(establishes(PSK, "50"));
  EXPECT_EQ(far::run(functions("ike_failure l2tpclient3 8")).out, "") << "there is a connection";
  EXPECT_EQ(run({"/usr/bin/stat", "-c%a", "/run/fenro/ipsec/l2tpserver.conf"}).out, "600\n");
  EXPECT_EQ(far::showing(PSK), "");
}

TEST_F(L2tpScript, TheL2tpDaemonsMeetAndRunPppdUnderTheNamesThatAreLookedFor) {
  if (started_server.status == 0)
    GTEST_SKIP() << "this kernel has all, and its IPsec would be in the way";
  ASSERT_EQ(
      run(functions("l2tp_guard add && l2tp_launch /etc/config/ppp/xl2tpd.conf l2tpserver")).status,
      0);
  EXPECT_THAT(started_client.err, HasSubstr("this kernel has no "));
  const auto launch =
      functions("l2tp_launch $RUN_DIR/l2tpclient3.conf l2tpclient3 l2tp_client_view");
  ASSERT_EQ(far::run(launch).status, 0);
  const auto pppd_runs = [] { return fs::exists("/tmp/pppd.run"); };
  EXPECT_FALSE(comes_true(pppd_runs, 4)) << "without IPsec they are kept apart";
  run(functions("l2tp_guard delete"));
  EXPECT_TRUE(comes_true(pppd_runs, 30));
  EXPECT_THAT(read("/tmp/pppd.run"),
              ContainsRegex("^/usr/sbin/pppd .*10.2.0.1:10.2.0.2 .* file "
                            "/etc/config/ppp/options.xl2tpd .*ipparam 192.168.77.2"));
  EXPECT_TRUE(comes_true([] { return !far::read("/tmp/pppd.run").empty(); }, 30));
  EXPECT_THAT(far::read("/tmp/pppd.run"),
              ContainsRegex("^/run/fenro/pppd-l2tp .* file /etc/config/ppp/peers/l2tpclient3"));
  EXPECT_EQ(far::read("/usr/sbin/pppd"), PPPD);  // to all others it is what it was
  const auto hook = [](const char* section) {
    return far::run({"/usr/lib/fenro/ppp-client-up", "ppp1253", "tty", "0", "10.2.0.2", "10.2.0.1",
                     section})
        .status;
  };
  EXPECT_NE(hook("PPTP_CLIENT3"), 0);
  EXPECT_EQ(hook("L2TP_CLIENT3"), 0);
  EXPECT_EQ(far::conf_value("L2TP_CLIENT3", "LocalIP"), "10.2.0.2");
  EXPECT_EQ(far::run({CLIENT, "stop", "3"}).status, 0);
  EXPECT_EQ(far::conf_value("L2TP_CLIENT3", "LocalIP"), "");
}

}  // namespace
