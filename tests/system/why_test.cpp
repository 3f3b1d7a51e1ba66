// Each failure of a tunnel or a server says what it is, and says nothing once it is mended. The
// servers are here, their clients over there.
// appliance: --pair
#include <jansson.h>

#include "support/far_appliance.h"
#include "support/log_rows.h"

namespace ormel::test {
namespace {

constexpr const char* CTL = "/usr/sbin/ormelctl";
constexpr const char* SHELL = "/bin/sh";
constexpr int SECONDS = 30;  // a machine under load is slow; twenty are enough without

// State, code and text of one profile or server, as ormelctl has them.
struct Seen {
  std::string state, code, text;
};

Seen seen(const Result& status) {
  const Json root{json_loads(status.out.c_str(), 0, nullptr)};
  const json_t* data = json_object_get(root.get(), "data");
  const json_t* reason = json_object_get(data, "reason");
  const auto text = [](const json_t* object, const char* key) {
    const json_t* value = json_object_get(object, key);
    return std::string(json_is_string(value) ? json_string_value(value) : "");
  };
  return {text(data, "state"), text(reason, "code"), text(reason, "text")};
}

Seen far_seen(const std::string& profile) {
  return seen(far::run({CTL, "--json", "status", profile}));
}

Seen near_seen(const std::string& server) {
  return seen(run({CTL, "--json", "status", server}));
}

void expect_ran(const std::string& script, const Result& result) {
  EXPECT_EQ(result.status, 0) << script << '\n' << result.out << result.err;
}

const std::vector<std::string> PATH{"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};

void far_shell(const std::string& script) {
  expect_ran(script, far::run({SHELL, "-ec", script}, PATH));
}

void near_shell(const std::string& script) {
  expect_ran(script, run({SHELL, "-ec", script}, PATH));
}

bool has_tun() {
  return access("/dev/net/tun", R_OK | W_OK) == 0;
}

// A fault of a client over there, and its cure; both are scripts.
struct Fault {
  const char* what;
  const char* fault;
  const char* cure;
  const char* state;
  const char* code;
  const char* last_error;
};

void expect_faults(const std::string& profile, const std::string& section,
                   const std::vector<Fault>& faults) {
  for (const Fault& row : faults) {
    SCOPED_TRACE(row.what);
    far::run({CTL, "profile", "down", profile});
    far_shell(row.fault);
    far::run({CTL, "profile", "up", profile, "--wait", "1"});
    Seen now;
    EXPECT_TRUE(comes_true(
        [&] {
          now = far_seen(profile);
          return now.state == row.state && now.code == row.code &&
                 far::conf_value(section, "Last Error") == row.last_error;
        },
        SECONDS))
        << now.state << ' ' << now.code << ' ' << now.text << ' '
        << far::conf_value(section, "Last Error");
    EXPECT_THAT(far::run({CTL, "why", profile}).out, HasSubstr("-> "));
    far_shell(row.cure);
    far::run({CTL, "profile", "down", profile});
    const Result up = far::run({CTL, "profile", "up", profile, "--wait", "60"});
    EXPECT_EQ(up.status, 0) << up.out << up.err;
    EXPECT_EQ(far_seen(profile).code, "");
    EXPECT_EQ(far::conf_value(section, "Last Error"), "0");
    EXPECT_EQ(far::read("/run/fenro/reasons/" + section), "");
  }
}

std::ptrdiff_t refused_logins() {
  return std::ranges::count(log_rows<db_conn_server_log>(log_db::CONN_SERVER_LOG.query), 1,
                            &db_conn_server_log::action);
}

class WhyDrovik : public testing::Test {
 protected:
  void SetUp() override {
    if (!has_tun()) GTEST_SKIP() << "no tunnel without the TUN device /dev/net/tun";
    near_shell(R"(printf 'team key\n' >/tmp/psk
        ormelctl server set drovik --psk-file /tmp/psk --port 4443 --yes
        ormelctl server on drovik
        ormelctl user grant guest drovik openvpn)");
    far::write("/tmp/pass", read("/var/lib/appliance/password.guest"));
    far_shell(R"(printf 'team key\n' >/tmp/psk; printf 'wrong\n' >/tmp/wrong
        ormelctl profile add drovik --name office --host 192.168.77.1 --port 4443 --user guest \
          --pass-file /tmp/pass --psk-file /tmp/psk)");
  }
  void TearDown() override {
    far::run({CTL, "profile", "rm", "office", "--yes"});
    near_shell("ormelctl server off drovik --yes || :");
  }
};

TEST_F(WhyDrovik, SaysWhatAClientMeetsAndForgetsItOnceMended) {
  const auto before = refused_logins();
  expect_faults(
      "office", "DROVIK_CLIENT1",
      {
          {"wrong password", "ormelctl profile set office --pass-file /tmp/wrong --yes",
           "ormelctl profile set office --pass-file /tmp/pass --yes", "failed", "login-refused",
           "40"},
          {"wrong pre-shared key", "ormelctl profile set office --psk-file /tmp/wrong --yes",
           "ormelctl profile set office --psk-file /tmp/psk --yes", "failed", "psk-wrong", "9"},
          {"name unknown",
           "setcfg DROVIK_CLIENT1 'Domain IP' '' -f /etc/config/vpn.conf; setcfg DROVIK_CLIENT1 "
           "'Server Address' nowhere.invalid -f /etc/config/vpn.conf",
           "ormelctl profile set office --host 192.168.77.1 --yes", "retrying", "name-not-found",
           "84"},
      });
  EXPECT_EQ(refused_logins(), before + 1) << "a refused login is not tried again";
}

TEST_F(WhyDrovik, NamesTheHolderOfAServersPort) {
  near_shell(R"(ormelctl server off drovik --yes
setsid -f python3 -c 'import socket, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("0.0.0.0", 4443))
open("/tmp/held", "w")
time.sleep(600)' >/dev/null 2>&1)");
  ASSERT_TRUE(comes_true([] { return fs::exists("/tmp/held"); }));

  const Result on = run({CTL, "server", "on", "drovik"});

  EXPECT_NE(on.status, 0);
  EXPECT_THAT(on.err, ContainsRegex("UDP port 4443 is held by python3 \\(pid [0-9]+\\)"));
  EXPECT_TRUE(comes_true([] { return near_seen("drovik").code == "port-taken"; }))
      << "but while it is tried again";
  near_shell("pkill -x python3; rm /tmp/held; ormelctl server on drovik");
  EXPECT_EQ(near_seen("drovik").state, "running");
  EXPECT_EQ(near_seen("drovik").code, "");
}

TEST(WhyPptp, SaysWhatTheKernelLacks) {
  if (read("/proc/devices").find(" ppp\n") != std::string::npos)
    GTEST_SKIP() << "this kernel has PPP";
  near_shell(R"(printf 'x\n' >/tmp/pass
      ormelctl profile add pptp --name old --host 192.0.2.1 --user a --pass-file /tmp/pass)");

  const Result up = run({CTL, "profile", "up", "old", "--wait", "20"});

  EXPECT_EQ(up.status, 1);
  EXPECT_THAT(up.err, HasSubstr("this kernel has no PPP"));
  EXPECT_EQ(near_seen("old").code, "kernel-lacks");
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Last Error"), "8");
  near_shell("ormelctl profile down old");
  EXPECT_EQ(near_seen("old").state, "off");
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Last Error"), "0");
}

TEST(WhyWireGuard, CountsAsUpOnlyWithAPeer) {
  if (!has_tun()) GTEST_SKIP() << "no WireGuard without the TUN device /dev/net/tun";
  near_shell(R"(ormelctl server set wireguard --name hub --address 198.18.7.1 --port 51820 --yes
      ormelctl server on wireguard)");
  const std::string key = run({"/usr/bin/wg", "genkey"}).out;
  far::write("/tmp/key", key);
  write("/tmp/public", run({"/usr/bin/wg", "pubkey"}, {}, key).out);
  near_shell(R"sh(ormelctl peer add device --address 198.18.7.2 --host 192.168.77.1 \
      --key "$(cat /tmp/public)")sh");
  far::write("/tmp/hub", conf_value("WG", "Server public key"));
  far_shell(R"sh(ormelctl profile add wireguard --name hub --address 198.18.7.2 \
      --peer-key "$(cat /tmp/hub)" --endpoint 192.168.77.1:51820 --allowed 198.18.7.0/24 \
      --private-key-file /tmp/key)sh");
  expect_faults(
      "hub", "WG_CLIENT1",
      {
          {"wrong key of the peer",
           R"sh(ormelctl profile set hub --peer-key "$(wg genkey | wg pubkey)" --yes)sh",
           R"sh(ormelctl profile set hub --peer-key "$(cat /tmp/hub)" --yes)sh", "no-peer",
           "no-handshake", "85"},
          {"address in use",
           "ip address add 198.18.7.2/32 dev lo; setcfg WG_CLIENT1 Enable TRUE -f "
           "/etc/config/vpn.conf; /etc/init.d/vpn_wireguard_client.sh start 1 2>/dev/null || :",
           "ip address del 198.18.7.2/32 dev lo", "failed", "address-conflict", "44"},
      });
  far_shell("ormelctl profile down hub");
  near_shell("ormelctl server off wireguard --yes");
}

class WhyOpenVpn : public testing::Test {
 protected:
  void SetUp() override {
    if (!has_tun()) GTEST_SKIP() << "no tunnel without the TUN device /dev/net/tun";
    near_shell(R"(/etc/init.d/vpn_common.sh setup_vpn_entrance
        ormelctl server on openvpn
        ormelctl user grant guest openvpn
        ormelctl profile export >/tmp/far.ovpn)");
    far::write("/tmp/far.ovpn", read("/tmp/far.ovpn"));
    far::write("/tmp/pass", read("/var/lib/appliance/password.guest"));
    far_shell(R"(printf 'wrong\n' >/tmp/wrong
        ormelctl profile import /tmp/far.ovpn --name far --user guest --pass-file /tmp/pass --yes)");
  }
  void TearDown() override {
    far::run({CTL, "profile", "rm", "far", "--yes"});
    near_shell("ormelctl server off openvpn --yes");
  }
};

// Another authority of the same name in the stored profile.
constexpr const char* OTHER_AUTHORITY = R"(
cd /tmp; f=/etc/config/openvpn/clients/client1; cp "$f" good
openssl req -x509 -newkey rsa:2048 -nodes -days 9 -subj '/CN=other' -keyout other.key -out other.crt 2>/dev/null
{ sed '/<ca>/,$d' good; echo '<ca>'; cat other.crt; echo '</ca>'; sed '1,/<\/ca>/d' good; } >"$f")";

// On a busy host it takes long to end, while the daemon goes on.
const std::string SLOW_LOGIN = std::string(OTHER_AUTHORITY) + R"(
mv /usr/sbin/ormel.cauth /usr/sbin/cauth.real
printf '#!/bin/bash\n(exec -a ormel.cauth /usr/sbin/cauth.real "$@")\nsleep 4\n' >/usr/sbin/ormel.cauth
chmod 0755 /usr/sbin/ormel.cauth)";

TEST_F(WhyOpenVpn, SaysWhatAClientMeetsAndForgetsItOnceMended) {
  // What the daemon reads, as it was before the fault.
  constexpr const char* CURE = "cp /tmp/good /etc/config/openvpn/clients/client1";
  const auto before = refused_logins();
  far_shell("openvpn --genkey secret /tmp/other.psk");
  expect_faults(
      "far", "OPENVPN_CLIENT1",
      {
          {"wrong password", "ormelctl profile set far --pass-file /tmp/wrong --yes",
           "ormelctl profile set far --pass-file /tmp/pass --yes", "failed", "login-refused", "40"},
          {"wrong authority", OTHER_AUTHORITY, CURE, "failed", "server-cert-unknown", "24"},
          {"wrong authority, after a login that took long", SLOW_LOGIN.c_str(),
           "mv /usr/sbin/cauth.real /usr/sbin/ormel.cauth;"
           "cp /tmp/good /etc/config/openvpn/clients/client1",
           "failed", "server-cert-unknown", "24"},
          {"a pre-shared key that is not the server's",
           "{ cat /tmp/good; echo '<tls-crypt>'; cat /tmp/other.psk; echo '</tls-crypt>'; } "
           ">/etc/config/openvpn/clients/client1",
           CURE, "failed", "psk-wrong", "9"},
          {"host down",
           "cd /etc/config/openvpn/clients; sed -i 's/^remote .*/remote 192.168.77.99 1194/' "
           "client1",
           CURE, "retrying", "no-route", "83"},
          {"unknown option", "echo 'proto nonsense' >>/etc/config/openvpn/clients/client1", CURE,
           "failed", "settings-bad", "9"},
      });
  EXPECT_EQ(refused_logins(), before + 1) << "a refused login is not tried again";
}

// A server of somebody else, which looks at certificates and a pre-shared key.
constexpr const char* STRICT_SERVER = R"(
mkdir -p /tmp/strict; cd /tmp/strict
new='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes'
for ca in ca other; do openssl req -x509 $new -days 9 -subj /CN=$ca -keyout $ca.key -out $ca.crt 2>/dev/null; done
sign() {
  openssl req $new -subj "/CN=$1" -keyout "$1.key" -out "$1.csr" 2>/dev/null
  openssl x509 -req -in "$1.csr" -CA "$2.crt" -CAkey "$2.key" -CAcreateserial -days "$3" -out "$1.crt" 2>/dev/null
}
sign server ca 9; sign good ca 9; sign expired ca -1; sign foreign other 9
for key in good wrong; do openvpn --genkey secret $key.psk; done
profile() {
  echo 'client\ndev tun\nproto udp\nremote 192.168.77.1 1200\nnobind\nhand-window 10'
  for part in ca:ca.crt cert:$1.crt key:$1.key tls-crypt:$2.psk; do
    echo "<${part%%:*}>"; cat "${part#*:}"; echo "</${part%%:*}>"
  done
}
profile good good >good.ovpn; profile expired good >expired.ovpn
profile foreign good >foreign.ovpn; profile good wrong >psk.ovpn
openvpn --daemon strict --writepid pid --mode server --tls-server --port 1200 --dev tun77 \
  --dev-type tun --topology subnet --ifconfig 10.66.0.1 255.255.255.0 \
  --ifconfig-pool 10.66.0.2 10.66.0.9 255.255.255.0 --push 'topology subnet' \
  --push 'route-gateway 10.66.0.1' --dh none --duplicate-cn --ca /tmp/strict/ca.crt \
  --cert /tmp/strict/server.crt --key /tmp/strict/server.key --tls-crypt /tmp/strict/good.psk)";

class WhyOpenVpnStrict : public testing::Test {
 protected:
  void SetUp() override {
    if (!has_tun()) GTEST_SKIP() << "no tunnel without the TUN device /dev/net/tun";
    near_shell(STRICT_SERVER);
    for (const char* name : {"good", "expired", "foreign", "psk"})
      far::write(std::string("/tmp/") + name + ".ovpn",
                 read(std::string("/tmp/strict/") + name + ".ovpn"));
    far_shell(R"(ormelctl profile import /tmp/good.ovpn --name strict --yes
        cp /etc/config/openvpn/clients/client1 /tmp/stored)");
  }
  void TearDown() override {
    far::run({CTL, "profile", "rm", "strict", "--yes"});
    near_shell("kill $(cat /tmp/strict/pid); rm -r /tmp/strict");
  }
};

TEST_F(WhyOpenVpnStrict, NamesTheCertificateAndGuessesAtAServerThatIsSilent) {
  // What the daemon reads, from another source of the same shape.
  constexpr const char* CURE = "cp /tmp/stored /etc/config/openvpn/clients/client1";
  const auto fault = [](const std::string& name) {
    return "cd /tmp; sed '/^<ca>/,$d' stored >mixed; sed -n '/^<ca>/,$p' " + name +
           ".ovpn >>mixed; cp mixed /etc/config/openvpn/clients/client1";
  };
  const std::string expired = fault("expired"), foreign = fault("foreign"), psk = fault("psk");
  expect_faults(
      "strict", "OPENVPN_CLIENT1",
      {
          {"own certificate expired", expired.c_str(), CURE, "failed", "own-cert-expired", "26"},
          {"own certificate of another authority", foreign.c_str(), CURE, "retrying", "no-answer",
           "85"},
          {"another pre-shared key", psk.c_str(), CURE, "retrying", "no-answer", "85"},
      });
  far_shell(foreign);
  far::run({CTL, "profile", "down", "strict"});
  far::run({CTL, "profile", "up", "strict", "--wait", "1"});
  EXPECT_TRUE(comes_true(
      [] {
        return far::run({CTL, "why", "strict"})
                   .out.find("it may refuse the profile's certificate") != std::string::npos;
      },
      SECONDS));
}

}  // namespace
}  // namespace ormel::test
