// PPTP and L2TP/IPsec between two appliances, with an account of the appliance, and fail-over from
// them to WireGuard. Kernels without PPP or ESP skip these suites; tests/vm/run takes them to a
// kernel that has both.
// appliance: --pair --daemon ormeld --daemon fenro-keeperd --daemon fenro-networkd
#include <chrono>
#include <iostream>

#include <jansson.h>

#include "support/far_appliance.h"

namespace ormel::test {
namespace {

constexpr const char* USER = "guest";
constexpr int PATIENCE = 60;              // seconds for a tunnel to come or go
constexpr long ECHOES = 3, BYTES = 1000;  // of a ping, and of each of its packets
constexpr const char* BEHIND = "203.0.113.9";

struct Protocol {
  const char* protocol;  // as ormelctl names it
  const char* section;   // of the profile
  const char* interface;
  const char* server_ip;
  const char* daemons;      // of the server
  const char* on_the_wire;  // for nft
};
struct Tunnel : Protocol {
  const char* name;
  const char* options;  // of both ends
};
constexpr Protocol PPTP = {"pptp",     "PPTP_CLIENT1",       "ppp1001",
                           "10.0.0.1", "^(pptpd|pptpctrl)$", "ip protocol gre"};
constexpr Protocol L2TP = {
    "l2tp", "L2TP_CLIENT1", "ppp1251", "10.2.0.1", "^(xl2tpd|fenro-charon)$", "ip protocol esp"};
constexpr Tunnel TUNNELS[] = {
    {PPTP, "PptpMsChapV2", "--auth MS-CHAPV2 --enc HIGH"},
    {L2TP, "L2tpMsChapV2", "--auth MS-CHAPV2 --psk-file /tmp/psk"},
    {PPTP, "PptpMsChap", "--auth MS-CHAP --enc MEDIUM"},
    {PPTP, "PptpPap", "--auth PAP --enc NONE"},
    {L2TP, "L2tpMsChap", "--auth MS-CHAP --psk-file /tmp/psk"},
    {L2TP, "L2tpPap", "--auth PAP --psk-file /tmp/psk"},
};

Result shell(const std::string& script) {
  return run({"/bin/sh", "-ec", script}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"});
}
Result far_shell(const std::string& script) {
  return far::run({"/bin/sh", "-ec", script}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"});
}
#define EXPECT_DONE(command)                                                       \
  do {                                                                             \
    const Result done = (command);                                                 \
    EXPECT_EQ(done.status, 0) << #command << '\n' << done.out << '\n' << done.err; \
  } while (false)

// A row of a connection log.
struct Row {
  std::string action;
  double received, sent;
};

std::vector<Row> rows_of(const Result& log) {
  std::vector<Row> rows;
  const Json root{json_loads(log.out.c_str(), 0, nullptr)};
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(json_object_get(root.get(), "data"), at, row) {
    const char* action = json_string_value(json_object_get(row, "action"));
    rows.push_back({action ? action : "", json_number_value(json_object_get(row, "received")),
                    json_number_value(json_object_get(row, "sent"))});
  }
  return rows;
}
std::vector<Row> server_rows() {
  return rows_of(ctl({"--json", "log", "servers"}));
}

std::vector<Row> client_rows() {
  return rows_of(far::ctl({"--json", "log", "clients"}));
}

std::string actions_of(const std::vector<Row>& rows) {
  std::string text;
  for (const Row& row : rows) text += (text.empty() ? "" : " ") + row.action;
  return text;
}

using Clock = std::chrono::steady_clock;

class PppTunnel : public testing::TestWithParam<Tunnel> {
 protected:
  void SetUp() override {
    password = read(std::string("/var/lib/appliance/password.") + USER);
    password.pop_back();
    EXPECT_DONE(run({"/usr/bin/mibsh", "@/var/run/ormeld.sock.db_conn_server_log_clean"}));
    EXPECT_DONE(far::run({"/usr/bin/mibsh", "@/var/run/ormeld.sock.db_conn_client_log_clean"}));
    write("/tmp/psk", "one key\n");
    far::write("/tmp/psk", "one key\n");
    far::write("/tmp/pass", password + '\n');
    far::write("/tmp/wrong", "wrong\n");
    EXPECT_DONE(shell("ormelctl server set " + protocol + ' ' + tunnel.options + " --yes"));
    const Result on = ctl({"server", "on", protocol});
    if (has(on.out + on.err, "this kernel has no ")) GTEST_SKIP() << on.err;
    ASSERT_EQ(on.status, 0) << on.err;
    EXPECT_DONE(ctl({"user", "grant", USER, protocol}));
    EXPECT_DONE(far_shell("ormelctl profile add " + protocol +
                          " --name office --host 192.168.77.1 --user " + USER +
                          " --pass-file /tmp/pass " + tunnel.options));
  }
  void TearDown() override {
    far::ctl({"profile", "rm", "office", "--yes"});
    EXPECT_DONE(ctl({"server", "off", protocol, "--yes"}));
  }
  static void dial(const char* profile = "office") {
    far::ctl({"profile", "up", profile, "--wait", "1"});
  }
  [[nodiscard]] std::string address() const { return far::conf_value(tunnel.section, "LocalIP"); }
  // The tunnel is up, and carries packets from both ends.
  [[nodiscard]] bool works() const {
    const std::string count = "-c" + std::to_string(ECHOES), size = "-s" + std::to_string(BYTES);
    return comes_true([&] { return !address().empty(); }, PATIENCE) &&
           far::run({"/bin/ping", count, size, "-W20", tunnel.server_ip}).status == 0 &&
           run({"/bin/ping", count, size, "-W20", address()}).status == 0;
  }
  static bool logs(const std::string& actions) {
    return comes_true([&] { return actions_of(server_rows()) == actions; }, PATIENCE);
  }
  // It works again; how long that took is for doc/tunnels.md.
  void expect_back(Clock::time_point began, const std::string& after, const std::string& actions,
                   int soon) const {
    EXPECT_TRUE(logs(actions)) << actions_of(server_rows());
    EXPECT_TRUE(works()) << status();
    const long seconds =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began).count();
    std::cout << "measured: " << protocol << " is back after " << after << ": " << seconds
              << " s\n";
    EXPECT_LT(seconds, soon * support::patience());
  }
  static std::string live_list() { return ctl({"--json", "who"}).out; }
  static std::string status() { return far::ctl({"--json", "status", "office"}).out; }
  // The profile says that it failed for good, and why.
  static bool fails_for(const std::string& code) {
    return comes_true(
        [&] {
          const std::string now = status();
          return has(now, "\"code\":\"" + code + '"') && has(now, R"("state":"failed")");
        },
        PATIENCE);
  }
  // Both ends log this, and each session carried at least one ping from each end.
  static void expect_at_both_ends(const std::string& actions) {
    EXPECT_TRUE(logs(actions)) << actions_of(server_rows());
    EXPECT_EQ(actions_of(client_rows()), actions) << "a row for each end";
    for (const auto& rows : {server_rows(), client_rows()}) {
      for (const Row& row : rows) {
        if (row.action != "ended") continue;
        EXPECT_GE(row.received, 2.0 * ECHOES * BYTES);
        EXPECT_GE(row.sent, 2.0 * ECHOES * BYTES);
      }
    }
  }

  const Tunnel& tunnel = GetParam();
  const std::string protocol = tunnel.protocol;
  std::string password;
};

TEST_P(PppTunnel, CarriesPacketsIsThrownOutComesBackAndEnds) {
  dial();
  ASSERT_TRUE(works()) << status();
  EXPECT_THAT(live_list(), HasSubstr("\"protocol\":\"" + protocol + '"'));
  EXPECT_EQ(far::showing(password), "");

  const std::string type = protocol == "pptp" ? "1" : "2";
  EXPECT_DONE(run({"/etc/init.d/vpn_common.sh", "kick_all_connection", type, USER}));
  EXPECT_TRUE(logs("connected ended connected"))
      << "it dials again by itself: " << actions_of(server_rows());
  ASSERT_TRUE(works()) << status();

  EXPECT_DONE(far::ctl({"profile", "down", "office"}));
  EXPECT_TRUE(comes_true([] { return !has(live_list(), USER); }, PATIENCE)) << live_list();
  expect_at_both_ends("connected ended connected ended");
  EXPECT_EQ(address(), "");
  EXPECT_EQ(far::run({"/sbin/ip", "route", "show", "192.168.77.1"}).out, "")
      << "no route to the server stays";
}

class PppRecovery : public PppTunnel {
 protected:
  void TearDown() override {
    run({"/usr/sbin/chpasswd"}, {}, std::string(USER) + ':' + password + '\n');
    run({"/usr/sbin/fenro-password", USER}, {}, password + '\n');
    PppTunnel::TearDown();
  }
};

// The keeper would dial again what only lost its link.
TEST_P(PppRecovery, ARefusedLoginIsFinalUntilThePasswordIsRight) {
  EXPECT_DONE(run({"/usr/bin/passwd", USER}, {}, "other-word-1\nother-word-1\n"));

  dial();
  EXPECT_TRUE(fails_for("login-refused")) << status();
  EXPECT_TRUE(comes_true(
      [] {
        return has(far::ctl({"--json", "keeper"}).out, R"("state":"left-alone")");
      },
      PATIENCE));
  EXPECT_EQ(far::run({"/usr/bin/pgrep", "-f", "pppd-pptp|pppd-l2tp|xl2tpd"}).out, "");
  EXPECT_EQ(actions_of(server_rows()), "refused");
  EXPECT_EQ(actions_of(client_rows()), "");

  far::write("/tmp/pass", "other-word-1\n");
  EXPECT_DONE(far_shell("ormelctl profile set office --pass-file /tmp/pass --yes"));
  dial();
  EXPECT_TRUE(works()) << status();
  EXPECT_EQ(actions_of(server_rows()), "refused connected");
}

// The server's settings, its account and the profile stay as they are. The kernel's own timers
// would take minutes.
TEST_P(PppRecovery, ComesBackSoonAfterTheServersDeathAndRestart) {
  constexpr int SOON = 100;  // seconds; an emulated machine takes several times what a host does
  dial();
  ASSERT_TRUE(works()) << status();

  auto began = Clock::now();
  EXPECT_DONE(run({"/usr/bin/pkill", "-KILL", tunnel.daemons}));
  expect_back(began, "the server's death", "connected ended connected", SOON);

  began = Clock::now();
  EXPECT_DONE(run({"/etc/init.d/vpn_" + protocol + ".sh", "restart"}));
  expect_back(began, "a restart of the server", "connected ended connected ended connected", SOON);
  EXPECT_THAT(live_list(), ContainsRegex(USER));
  EXPECT_THAT(live_list(), Not(ContainsRegex("guest.*\"user\"")))
      << "one session, none of the dead server";
}

// pppd waits for its hook, and so does the script that ends the tunnel: only the hook knows the
// bytes.
TEST_P(PppRecovery, ASlowHookLosesNoBytes) {
  EXPECT_DONE(far_shell("sed -i '2i sleep 7' /usr/lib/fenro/ppp-client-down"));
  EXPECT_DONE(shell("sed -i '2i sleep 7' /usr/lib/fenro/ppp-server-down"));
  dial();
  EXPECT_TRUE(works()) << status();

  EXPECT_DONE(far::ctl({"profile", "down", "office"}));
  expect_at_both_ends("connected ended");

  EXPECT_DONE(far_shell("sed -i '/^sleep 7$/d' /usr/lib/fenro/ppp-client-down"));
  EXPECT_DONE(shell("sed -i '/^sleep 7$/d' /usr/lib/fenro/ppp-server-down"));
}

class L2tpKey : public PppTunnel {};

TEST_P(L2tpKey, AWrongKeyIsNamedAndARightOneWorksSoon) {
  constexpr int SOON = 60;  // seconds; the kernel's own timers would take 165
  EXPECT_DONE(far_shell("ormelctl profile set office --psk-file /tmp/wrong --yes"));
  dial();
  EXPECT_TRUE(fails_for("psk-wrong")) << status();
  EXPECT_EQ(actions_of(server_rows()), "") << "nobody could log in";

  EXPECT_DONE(far_shell("ormelctl profile set office --psk-file /tmp/psk --yes"));
  const auto began = Clock::now();
  dial();
  expect_back(began, "its key was corrected", "connected", SOON);
}

// PPTP or L2TP is the default gateway, with WireGuard to take over.
class TunnelFailover : public PppTunnel {
 protected:
  void SetUp() override {
    PppTunnel::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    EXPECT_DONE(shell(
        "ormelctl server set wireguard --name hub --address 198.18.7.1 --port 51820 --yes;"
        "ormelctl server on wireguard; wg genkey >/tmp/key; ip address add 203.0.113.9/32 dev lo;"
        "ormelctl peer add far --address 198.18.7.2 --key \"$(wg pubkey </tmp/key)\""
        " --host 192.168.77.1"));
    far::write("/tmp/key", read("/tmp/key"));
    EXPECT_DONE(far_shell(
        "ormelctl profile add wireguard --name hub --address 198.18.7.2 --peer-key '" +
        conf_value("WG", "Server public key") +
        "' --endpoint 192.168.77.1:51820 --allowed 0.0.0.0/0 --private-key-file /tmp/key"));
  }
  void TearDown() override {
    if (IsSkipped()) return;
    far::ctl({"gateway", "off"});
    far::ctl({"profile", "rm", "hub", "--yes"});
    shell(
        "nft delete table ip cut || :; ip address del 203.0.113.9/32 dev lo;"
        "ormelctl peer rm far --yes; ormelctl server off wireguard --yes");
    PppTunnel::TearDown();
  }
  // What goes to an address behind the server leaves by `interface` and is answered.
  static bool leaves_by(const std::string& interface) {
    return comes_true(
        [&] {
          return has(far::run({"/sbin/ip", "route", "get", BEHIND}).out,
                     " dev " + interface + ' ') &&
                 far::run({"/bin/ping", "-c1", "-W5", BEHIND}).status == 0;
        },
        PATIENCE);
  }
};

TEST_P(TunnelFailover, MovesToWireGuardAndBack) {
  dial();
  dial("hub");
  EXPECT_DONE(far::ctl({"gateway", "set", "office", "hub", "--back", "0"}));
  ASSERT_TRUE(leaves_by(tunnel.interface)) << status();

  EXPECT_DONE(
      shell("nft 'add table ip cut; add chain ip cut in { type filter hook input priority"
            " -300; }; add rule ip cut in " +
            std::string(tunnel.on_the_wire) + " drop'"));
  EXPECT_TRUE(leaves_by("wgc3001")) << "the first tunnel is silent";
  EXPECT_DONE(shell("nft delete table ip cut"));
  EXPECT_TRUE(leaves_by(tunnel.interface)) << status();

  EXPECT_DONE(ctl({"server", "off", protocol, "--yes"}));
  EXPECT_TRUE(leaves_by("wgc3001")) << "the first tunnel is gone";
  EXPECT_DONE(run({"/sbin/ip", "link", "delete", "wg0"}));
  EXPECT_TRUE(leaves_by("wgc3001")) << "the keeper made the server's interface again";
  EXPECT_DONE(run({"/etc/init.d/vpn_wireguard.sh", "restart"}));
  EXPECT_TRUE(leaves_by("wgc3001")) << "with the peers that it had";
  EXPECT_DONE(ctl({"server", "on", protocol}));
  EXPECT_TRUE(leaves_by(tunnel.interface)) << status();
}

const auto NAME = [](const auto& one) { return std::string(one.param.name); };
const auto ONE_OF_EACH = testing::Values(TUNNELS[0], TUNNELS[1]);
INSTANTIATE_TEST_SUITE_P(All, PppTunnel, testing::ValuesIn(TUNNELS), NAME);
INSTANTIATE_TEST_SUITE_P(All, PppRecovery, ONE_OF_EACH, NAME);
INSTANTIATE_TEST_SUITE_P(All, L2tpKey, testing::Values(TUNNELS[1]), NAME);
INSTANTIATE_TEST_SUITE_P(All, TunnelFailover, ONE_OF_EACH, NAME);

}  // namespace
}  // namespace ormel::test
