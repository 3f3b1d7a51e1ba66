// An OpenVPN server on one appliance and a client of it on another, all by the web interfaces, with
// the real daemons.
// appliance: --pair --web

#include "ormel/drivers/openvpn/openvpn.h"

#include <fenro/event_log.h>
#include <jansson.h>

#include "base/second_factor.h"
#include "support/far_appliance.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* SERVER = "/etc/init.d/vpn_openvpn.sh";
constexpr const char* CLIENT = "/etc/init.d/vpn_openvpn_client.sh";
constexpr const char* SERVER_CONF = "/etc/config/openvpn/server.conf";
constexpr const char* SERVER_END = "10.8.0.1";
constexpr const char* USER = "guest";
constexpr const char* OK = "{\"error\":0}";
const auto DONE = EndsWith(",\"error\":0}");  // behind the data
constexpr int PATIENCE = 40;  // seconds for a tunnel to come or go on a busy machine

// One member of every row of an answer's data.
std::vector<std::string> members(const std::string& body, const char* name) {
  std::vector<std::string> values;
  const ormel::Json answer{json_loads(body.c_str(), 0, nullptr)};
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(json_object_get(answer.get(), "data"), at, row) {
    const json_t* value = json_object_get(row, name);
    const char* text = json_string_value(value);
    values.push_back(json_is_integer(value) ? std::to_string(json_integer_value(value))
                                            : std::string(text ? text : ""));
  }
  return values;
}

class OpenVpnTunnel : public testing::Test {
 protected:
  void SetUp() override {
    if (const ormel::Fd device{open("/dev/net/tun", O_RDWR | O_CLOEXEC)}; !device)
      GTEST_SKIP() << "no OpenVPN without the TUN device /dev/net/tun";
    for (const char* file : {VPN_CONF, "/etc/config/vpn_block.conf"}) fs::remove(file);
    far::run({"/usr/bin/mibsh", "@/var/run/ormeld.sock.db_conn_client_log_clean"});
    far::run({"/bin/rm", "-rf", VPN_CONF, "/etc/config/openvpn/clients/client1"});
    ASSERT_EQ(run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"}).status, 0);
    near = begin_session("admin");
    away = far::begin_session("admin");
    password = read(std::string("/var/lib/appliance/password.") + USER);
    password.pop_back();
    ASSERT_THAT(web("/ormel/log/cleanup", "&type=23"), OK);
    ASSERT_THAT(
        web("/ormel/config/modify", "&type=SOVPN&enable=true&ip_pool=10.8.0.0&proto=UDP&port=1194"),
        DONE);
    ASSERT_EQ(web("/ormel/privilege/set", std::string("&user=") + USER + "|4"), OK);
    far::write("/tmp/password", encoded(password));
    ASSERT_THAT(profile(), HasSubstr("\nremote 192.168.77.1 1194\n"));
    import_as("office", profile());
  }
  void TearDown() override {
    far::run({CLIENT, "stop", "1"});
    run({SERVER, "stop"});
  }
  // A form posted to the web interface here, or over there.
  [[nodiscard]] std::string web(const std::string& route, const std::string& form) const {
    return https(route, {"--data", "sid=" + near + form}).body;
  }
  [[nodiscard]] std::string far_web(const std::string& route, const std::string& form) const {
    return far_curl(route, {"--data", "sid=" + away + form});
  }
  static std::string far_curl(const std::string& route, const std::vector<std::string>& options) {
    std::vector<std::string> words{
        "/usr/bin/curl", "-ksS", "-H", "Expect:", "--max-time", "60", "https://localhost" + route};
    words.insert(words.end(), options.begin(), options.end());
    return far::run(words).out;
  }
  // What the server gives out now.
  [[nodiscard]] std::string profile() const {
    return https("/ormel/config/download?sid=" + near).body;
  }
  void import_as(const std::string& name, const std::string& text) const {
    far::write("/tmp/office.ovpn", text);
    EXPECT_THAT(far_curl("/ormel/config/import?sid=" + away,
                         {"-F", "ovpn=@/tmp/office.ovpn", "-F", "name=" + name, "-F",
                          std::string("user=") + USER, "-F", "pass=</tmp/password"}),
                DONE);
  }
  // With `remotes` in place of the profile's own one.
  void import_profile(const std::string& remotes) const {
    std::string text = profile();
    const size_t own = text.find("\nremote ");
    ASSERT_NE(own, std::string::npos) << text;
    text.replace(own, text.find('\n', own + 1) + 1 - own, remotes);
    import_as("office", text);
  }
  static std::string encoded(const std::string& secret) {
    return run({"/usr/bin/base64", "-w0"}, {}, secret).out;
  }
  // In the profile over there; returns what its web interface answers.
  [[nodiscard]] std::string set_password(const std::string& word) const {
    return far_web("/ormel/config/modify", "&type=OVPN&index=1&pass=" + encoded(word));
  }
  void connect() const {
    EXPECT_THAT(far_web("/ormel/config/connect", "&type=OVPN&index=1"), DONE);
  }
  void disconnect() const {
    EXPECT_THAT(far_web("/ormel/config/disconnect", "&type=OVPN&index=1"), DONE);
  }
  static Result shell(const std::string& script) { return run({"/bin/sh", "-c", script}); }
  static Result far_shell(const std::string& script) {
    return far::run({"/bin/bash", "-c", script});
  }
  static std::string local_ip() { return far::conf_value("OPENVPN_CLIENT1", "LocalIP"); }
  static bool comes_up() {
    return comes_true([] { return !local_ip().empty(); }, PATIENCE);
  }
  // The daemon over there ends by itself; nobody dials again but us.
  static bool comes_to_an_end() {
    return comes_true(
        [] {
          return far::run({"/usr/bin/pgrep", "-f", "openvpnclient|fenro-openvpn"}).status == 1;
        },
        PATIENCE);
  }
  [[nodiscard]] std::vector<std::string> online(const char* name) const {
    return members(web("/ormel/connection/list", ""), name);
  }
  [[nodiscard]] bool nobody_is_on() const {
    return comes_true([&] { return online("name").empty(); }, PATIENCE);
  }
  [[nodiscard]] bool somebody_is_on() const {
    return comes_true([&] { return !online("name").empty(); }, PATIENCE);
  }
  // Refused logins among the rows from this one on.
  [[nodiscard]] std::ptrdiff_t refusals_since(size_t rows) const {
    const std::vector<std::string> actions = logged("action");
    return std::count(actions.begin() + static_cast<long>(rows), actions.end(), "1");
  }
  [[nodiscard]] std::vector<std::string> logged(const char* name) const {
    return members(web("/ormel/log/server", "&order=asc"), name);
  }
  [[nodiscard]] bool logs_soon(size_t rows) const {
    return comes_true([&] { return logged("action").size() >= rows; }, PATIENCE);
  }
  static std::string server_pid() { return run({"/usr/bin/pgrep", "-f", SERVER_CONF}).out; }
  std::string near, away;  // sessions
  std::string password;
};

// What leaves the far appliance for an address outside is counted at its cable while it sends
// without a pause: by any socket, and by one that is bound to its own address. The guard holds from
// before the tunnel is dialled. The server is far away: packets for it would go into a tunnel that
// is the gateway.
class OpenVpnGuard : public OpenVpnTunnel {
 protected:
  void SetUp() override {
    OpenVpnTunnel::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    far::cli({"--type=OVPN", "--remove=1"});
    far_shell("cp /etc/hosts /tmp/hosts; ping -c1 -w9 192.168.77.254");
    ASSERT_EQ(shell("ip address add 198.51.100.1/32 dev lo").status, 0);
    moves_to("203.0.113.1");
  }
  void TearDown() override {
    if (IsSkipped()) return;
    EXPECT_THAT(far_web("/ormel/guard/set", "&mode=off"), DONE);
    EXPECT_THAT(far_web("/ormel/gateway/set", "&as_gw_en=0"), OK);
    EXPECT_TRUE(comes_true([&] { return left() != "0\n"; })) << "the counter sees what leaves";
    far_shell(
        "rm /tmp/flood; cat /tmp/hosts >/etc/hosts; rm /etc/config/ormel/guard.conf;"
        "nsenter --net=/run/netns/lan /usr/sbin/nft delete table netdev outside");
    moves_to("");
    shell("ip address del 198.51.100.1/32 dev lo");
    OpenVpnTunnel::TearDown();
  }
  static bool comes_to(const std::string& state) {
    return comes_true([&] { return has(guard(), "\"state\":\"" + state); }, PATIENCE);
  }
  static std::string guard() { return far_shell("ormelctl guard --json").out; }
  // The server has this address outside, and no other.
  static void moves_to(const std::string& address) {
    shell("ip address flush dev lo to 203.0.113.0/24");
    const std::string in_lan = "nsenter --net=/run/netns/lan ip route ";
    far_shell(in_lan + "flush 203.0.113.0/28");
    far_shell(in_lan + "flush root 203.0.113.0/28");
    if (address.empty()) return;
    ASSERT_EQ(shell("ip address add " + address + "/32 dev lo").status, 0);
    ASSERT_EQ(far_shell(in_lan + "add " + address + " via 192.168.77.1").status, 0);
  }
  static void named(const std::vector<std::string>& addresses) {
    std::string lines;
    for (const std::string& address : addresses) lines += address + " vpn.example\n";
    far::write("/tmp/names", lines);
    far_shell("cat /tmp/hosts /tmp/names >/etc/hosts");
  }
  void hold() const {
    EXPECT_THAT(
        far_web("/ormel/gateway/set", "&as_gw_en=1&gw1_type=OVPN&gw1_index=1&snat=1&failover_en=0"),
        OK);
    EXPECT_THAT(far_web("/ormel/guard/set", "&mode=on"), DONE);
    EXPECT_TRUE(comes_to("holding"));
    far_shell(R"(nsenter --net=/run/netns/lan /usr/sbin/nft '
      add table netdev outside; delete table netdev outside; add table netdev outside
      add chain netdev outside in { type filter hook ingress device to-far priority 0; }
      add rule netdev outside in ip daddr 203.0.113.9 counter')");
    far_shell(R"([ -e /tmp/flood ] || setsid bash -c 'touch /tmp/flood
      ping -i .02 -I 192.168.77.2 203.0.113.9 &
      while [ -e /tmp/flood ]; do echo >/dev/udp/203.0.113.9/9; done
      kill $!' </dev/null >/dev/null 2>&1 &)");
  }
  static std::string left() {
    return far_shell(R"(nsenter --net=/run/netns/lan /usr/sbin/nft list table netdev outside |
      sed -n 's/.*packets \([0-9]*\).*/\1/p')")
        .out;
  }
  // What is behind the server answers again and again, and by the tunnel alone. On a busy machine
  // the packets without a pause fill the tunnel, and most echoes are lost.
  static bool lives() {
    const std::string once =
        "ormelctl guard --json | grep -q '\"state\":\"guarding' && ping -c1 -W2 198.51.100.1";
    return comes_true([&] { return far_shell(once).status == 0; }, DIALLING) &&
           far_shell("ping -c5 -i.2 -w60 198.51.100.1").status == 0;
  }
  static std::string trusted_ip() { return far::conf_value("OPENVPN_CLIENT1", "Trusted IP"); }
  static void kill_daemon() {
    far_shell("pkill -KILL -x openvpnclient");
    EXPECT_TRUE(comes_to("holding"));
  }
  static constexpr const char* BY_NAME = "\nremote vpn.example 1194\n";
  static constexpr int DIALLING = 120;  // seconds; a server that does not answer takes ten
};

TEST_F(OpenVpnGuard, NothingLeavesWhileTheDaemonDiesAndTheServerThatAnswersIsFound) {
  const std::string three =
      "\nremote 203.0.113.2 1194\nremote 203.0.113.3 1194\nremote 203.0.113.1 1194\n";
  const std::tuple<const char*, std::string, std::vector<std::string>> cases[] = {
      {"the third of three servers", three, {}},
      {"the first address of a name", BY_NAME, {"203.0.113.1", "203.0.113.2"}},
      {"the second address of a name", BY_NAME, {"203.0.113.2", "203.0.113.1"}},
  };
  for (const auto& [what, remotes, addresses] : cases) {
    SCOPED_TRACE(what);
    named(addresses);
    import_profile(remotes);
    hold();
    connect();
    EXPECT_TRUE(lives())
        << far_shell("ormelctl guard --json; ip rule; ip route show table 3500").out;
    EXPECT_TRUE(comes_true([] { return far_shell("[ -e /run/fenro/heard/tun2001 ]").status == 0; },
                           PATIENCE))
        << "its keep-alives are noted";
    kill_daemon();
    EXPECT_TRUE(lives()) << "the daemon is dialled again while nothing else leaves";
    EXPECT_EQ(trusted_ip(), "203.0.113.1");
    const Result tested = far_shell("ormelctl guard test --yes");
    EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
    EXPECT_THAT(
        tested.out,
        ContainsRegex("^[1-9][0-9]* packets sent, 0 left without a tunnel; LAN answered 20 of 20"));
    EXPECT_EQ(left(), "0\n");
    disconnect();
    far::cli({"--type=OVPN", "--remove=1"});
  }
}

TEST_F(OpenVpnGuard, TheTunnelFollowsANameToItsNewAddress) {
  named({"203.0.113.1"});
  import_profile(BY_NAME);
  hold();
  connect();
  EXPECT_TRUE(lives());
  moves_to("203.0.113.2");
  named({"203.0.113.2"});
  kill_daemon();
  EXPECT_TRUE(lives());
  EXPECT_EQ(trusted_ip(), "203.0.113.2");
  named({"203.0.113.3"});
  moves_to("203.0.113.3");
  far_shell("pkill -USR1 -x openvpnclient");  // as it does itself after a time of silence
  EXPECT_TRUE(comes_true([] { return trusted_ip() == "203.0.113.3"; }, DIALLING));
  EXPECT_TRUE(lives());
  EXPECT_EQ(left(), "0\n");
}

TEST_F(OpenVpnTunnel, CarriesTrafficAndBothEndsTellOfIt) {
  connect();
  ASSERT_TRUE(comes_up());

  EXPECT_EQ(far::run({"/bin/ping", "-c1", "-W10", SERVER_END}).status, 0);
  const std::string client_end = local_ip();
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W10", client_end}).status, 0);
  EXPECT_EQ(far::run({"/bin/ping", "-c1", "-W10", "-I", "tun2001", "192.168.77.254"}).status, 0)
      << "the network behind the server, by the tunnel's own table";

  EXPECT_THAT(online("name"), ElementsAre(USER));
  EXPECT_THAT(online("allocate_ip"), ElementsAre(client_end));
  ASSERT_THAT(online("target"), ElementsAre(StartsWith("192.168.77.2:")));
  EXPECT_EQ(ormel::ovpn::ServerConfig::fetch_all_peer_status().count(online("target")[0]), 1U);
  EXPECT_THAT(far_web("/ormel/config/show", "&type=1024"), HasSubstr("\"status\":1"));
  EXPECT_EQ(far::conf_value("OPENVPN_CLIENT1", "Trusted IP"), "192.168.77.1");
  EXPECT_EQ(far::conf_value("OPENVPN_CLIENT1", "Trusted Proto"), "udp");
  EXPECT_EQ(far::conf_value("OPENVPN_CLIENT1", "RemoteIP"), SERVER_END);
  EXPECT_THAT(far::run({"/sbin/ip", "route", "show", "table", "main"}).out,
              Not(HasSubstr("0.0.0.0/1")))
      << "which tunnel carries the default route is not the server's to say";

  const std::string pid = far::read("/var/run/openvpn.client1.pid");
  const std::string status = far::read("/proc/" + pid.substr(0, pid.find('\n')) + "/status");
  EXPECT_THAT(status, HasSubstr("NoNewPrivs:\t1"));
  EXPECT_THAT(status, HasSubstr("CapEff:\t0000000000003429"));
  EXPECT_EQ(far::showing(password + '\n'), "");

  EXPECT_EQ(web("/ormel/connection/kick", "&conn=4|" + online("target")[0]), OK);
  EXPECT_TRUE(nobody_is_on());
  EXPECT_TRUE(comes_true([] { return local_ip().empty(); }, PATIENCE));
  EXPECT_TRUE(comes_up()) << "it dials again by itself";
  const Result ended = ctl({"kick", USER, "--yes"});
  EXPECT_EQ(ended.status, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("guest: 1 session ended"));
  EXPECT_TRUE(comes_up());

  disconnect();
  EXPECT_TRUE(nobody_is_on());
  EXPECT_TRUE(logs_soon(6));
  EXPECT_THAT(logged("action"), ElementsAre("0", "2", "0", "2", "0", "2"));  // came, went
  EXPECT_THAT(logged("username"), Each(USER));
  EXPECT_NE(logged("rx_total")[1], "0");
  EXPECT_THAT(members(far_web("/ormel/log/client", "&order=asc"), "action"),
              ElementsAre("0", "2", "0", "2", "0", "2"));
}

TEST_F(OpenVpnTunnel, KeepsAUserOutForATime) {
  connect();
  ASSERT_TRUE(comes_up());
  ASSERT_TRUE(somebody_is_on());

  const std::string daemon = server_pid().substr(0, server_pid().find('\n'));
  run({"/bin/kill", "-STOP", daemon});
  const Result hangs = ctl({"kick", USER, "--yes", "--json"});
  EXPECT_EQ(hangs.status, 5) << hangs.out;
  EXPECT_THAT(hangs.out, AllOf(HasSubstr("still there"), HasSubstr("\"gone\":false")));
  run({"/bin/kill", "-CONT", daemon});
  ASSERT_TRUE(comes_up());
  ASSERT_TRUE(somebody_is_on());

  const size_t rows = logged("action").size();
  const Result ended = ctl({"kick", USER, "--for", "1h", "--yes"});
  EXPECT_EQ(ended.status, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("kept out until"));
  EXPECT_TRUE(comes_true([&] { return refusals_since(rows) > 0; }, PATIENCE))
      << "its next login is refused";
  EXPECT_TRUE(comes_to_an_end());
  EXPECT_THAT(online("name"), IsEmpty());
  EXPECT_THAT(ctl({"hold", "list"}).out, HasSubstr("guest  user"));
  EXPECT_THAT(web("/ormel/hold/list", ""), HasSubstr("\"who\":\"guest\""));

  EXPECT_EQ(web("/ormel/hold/lift", "&who=guest"), OK);
  EXPECT_EQ(ctl({"hold", "lift", USER}).status, 3);
  connect();
  EXPECT_TRUE(comes_up());
}

// What the doctor over there finds, as "step:result" of the steps that are neither good nor left
// out.
class OpenVpnDoctor : public OpenVpnTunnel {
 protected:
  static std::string trouble() {
    const std::string out = far::ctl({"doctor", "office", "--json"}).out;
    const std::vector<std::string> steps = members(out, "step"), results = members(out, "result");
    EXPECT_THAT(steps, ElementsAre("profile", "clock", "name", "way", "server", "certificate",
                                   "login", "address", "data", "size", "names"))
        << out;
    std::string found;
    for (size_t i = 0; i < steps.size(); ++i) {
      if (results[i] != "ok" && results[i] != "skip") found += steps[i] + ':' + results[i] + ' ';
    }
    last = out;
    return found;
  }
  static inline std::string last;
  static constexpr const char* STORED = "/etc/config/openvpn/clients/client1";
};

TEST_F(OpenVpnDoctor, StopsAtTheStepThatFails) {
  EXPECT_EQ(trouble(), "") << last;
  EXPECT_THAT(last, HasSubstr(R"("step":"login","result":"ok","text":"accepted")"));
  EXPECT_EQ(local_ip(), "") << "the tunnel itself is not touched";
  const std::string good = far::read(STORED);
  const auto stored = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    EXPECT_NE(text.find(from), std::string::npos) << from;
    text.replace(text.find(from), from.size(), to);
    far::write(STORED, text);
  };
  const size_t rows = logged("action").size();
  EXPECT_THAT(set_password("not " + password), DONE);
  EXPECT_EQ(trouble(), "login:fail ") << last;
  ASSERT_TRUE(logs_soon(rows + 1));
  EXPECT_EQ(refusals_since(rows), 1) << "one login";

  stored("remote 192.168.77.1", "remote nowhere.invalid");
  EXPECT_EQ(trouble(), "name:fail ") << last;
  stored("remote 192.168.77.1 1194", "remote 192.168.77.1 1195");
  EXPECT_EQ(trouble(), "server:fail ") << last;
  const std::string ca = good.substr(good.find("<ca>\n"), good.find("</ca>") - good.find("<ca>\n"));
  run({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
       "-nodes", "-days", "9", "-subj", "/CN=Other", "-keyout", "/tmp/other.key", "-out",
       "/tmp/other.crt"});
  stored(ca, "<ca>\n" + read("/tmp/other.crt"));
  EXPECT_EQ(trouble(), "certificate:fail ") << last;
  stored("\nclient\n", "\nclient\nengine evil\n");
  EXPECT_EQ(trouble(), "profile:fail ") << last;

  far::write(STORED, good);
  EXPECT_THAT(set_password(password), DONE);
  connect();
  ASSERT_TRUE(comes_up());
  EXPECT_EQ(trouble(), "") << last;
  EXPECT_THAT(last, HasSubstr(R"("step":"data","result":"ok")"));
  const std::string started = far_web("/ormel/doctor/start", "&type=OVPN&index=1");
  const size_t at = started.find(R"("id":")");
  ASSERT_NE(at, std::string::npos) << started;
  const std::string id = started.substr(at + 6, 16);
  EXPECT_TRUE(
      comes_true([&] { return has(far_web("/ormel/doctor/get", "&id=" + id), R"("done":true)"); }));
  EXPECT_THAT(far_web("/ormel/doctor/get", "&id=../../etc/passwd"), HasSubstr("\"error\":30"));
}

// The certificate $0, signed by $1, from the time $2 to $3.
constexpr const char* MAKE = R"(
cd /etc/openvpn/keys && rm -rf /tmp/ca && mkdir /tmp/ca && : >/tmp/ca/index || exit
by="-cert $1.crt -keyfile $1.key"
extensions='extendedKeyUsage=serverAuth\nkeyUsage=digitalSignature'
[ "$0" != "$1" ] || by="-selfsign -keyfile $0.key"
[ "$0" != "$1" ] || extensions='basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign'
printf "[ca]\ndefault_ca=d\n[d]\ndatabase=/tmp/ca/index\nnew_certs_dir=/tmp/ca\nrand_serial=yes
default_md=sha256\npolicy=p\nunique_subject=no\n[p]\ncommonName=supplied\n[x]\n$extensions\n" \
  >/tmp/ca/conf
openssl req -new -newkey rsa:2048 -nodes -subj "/CN=$0" -config /dev/null -keyout "$0.key" \
  -out /tmp/ca/csr &&
openssl ca -batch -config /tmp/ca/conf -extensions x -notext -startdate "$2" -enddate "$3" \
  -in /tmp/ca/csr -out "$0.crt" $by)";

// Keys whose dates the test chooses, beside a live tunnel. The hour of the night is one of a time
// zone.
class OpenVpnCertificates : public OpenVpnTunnel {
 protected:
  static constexpr long DAYS = 86400;
  static constexpr const char* KEYS = "/etc/openvpn/keys/";
  static constexpr const char* WEB_CERTIFICATE = "/etc/fenro/web/server.crt";
  void SetUp() override {
    fs::remove_all(KEYS);
    fs::remove("/var/lib/ormel/certificates.json");
    // The keeper's own looks are by day, whenever the test runs.
    const long east = 12 - std::time(nullptr) / 3600 % 24;
    std::error_code unknown;  // where the host has no zones it may be night
    fs::remove("/etc/localtime");
    fs::copy_file("/usr/share/zoneinfo/Etc/GMT" + std::string(east > 0 ? "-" : "+") +
                      std::to_string(std::abs(east)),
                  "/etc/localtime", unknown);
    OpenVpnTunnel::SetUp();
  }
  void TearDown() override {
    if (IsSkipped()) return;
    OpenVpnTunnel::TearDown();
    fs::remove_all(KEYS);
    fs::remove("/etc/localtime");
  }
  // NAME.crt and NAME.key for these seconds from now, signed by SIGNER.
  static void make(const std::string& name, const std::string& signer, long begin, long end) {
    const auto text = [](long ahead) {
      return run({"/bin/date", "-u", "-d", '@' + std::to_string(std::time(nullptr) + ahead),
                  "+%y%m%d%H%M%SZ"})
          .out.substr(0, 13);
    };
    const Result made =
        run({"/bin/sh", "-c", MAKE, name, signer, text(begin), text(end)}, {"PATH=/usr/bin:/bin"});
    ASSERT_EQ(made.status, 0) << made.err;
  }
  static std::string key(const char* name) { return read(std::string(KEYS) + name); }
  // What the keeper runs, while it is that hour here.
  static Result tend(int hour) {
    const int now = static_cast<int>(std::time(nullptr) / 3600 % 24);
    const int east = (hour - now + 36) % 24 - 12;
    return run({"/usr/sbin/ormelctl", "__tend-certificates"},
               {"TZ=XYZ" + std::to_string(-east), "PATH=/usr/sbin:/usr/bin"});
  }
  static size_t events(const std::string& text) {
    const std::string all = ctl({"log", "events", "--limit", "500"}).out;
    size_t count = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
    return count;
  }
  static long days(const std::string& role) {
    const std::string list = ctl({"cert", "list", "--json"}).out;
    const std::vector<std::string> roles = members(list, "role"), left = members(list, "days");
    for (size_t i = 0; i < roles.size(); ++i) {
      if (roles[i] == role) return std::stol(left[i]);
    }
    return -999;
  }
  // Whether a profile over there comes up, and what it says if not.
  [[nodiscard]] bool connects(const std::string& name) const {
    const Result up = far::ctl({"profile", "up", name, "--wait", "30"});
    said = up.err;
    far::ctl({"profile", "down", name});
    return up.status == 0;
  }
  static inline std::string said;
};

TEST_F(OpenVpnCertificates, AreListedWhateverIsInTheirFiles) {
  const std::string path = std::string(KEYS) + "myserver.crt";
  const auto row = [](const std::string& what) {
    const std::string all = ctl({"cert"}).out;
    const size_t at = all.find(what);
    return at == std::string::npos ? "" : all.substr(at, all.find('\n', at) - at);
  };
  write(path, read(path).substr(0, 400));
  EXPECT_THAT(row("openvpn server"), HasSubstr("malformed"));
  EXPECT_EQ(ctl({"cert", "list", "--json"}).status, 0);
  fs::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_THAT(row("openvpn server"), HasSubstr("cannot be read"));
  fs::remove(path);
  run({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
       "-nodes", "-subj", "/CN=a\x1b[31m\"b\u202e", "-utf8", "-days", "9", "-keyout", "/tmp/k",
       "-out", path});
  EXPECT_THAT(row("openvpn server"), ContainsRegex("a\\?\\[31m\"b.*  (8|9)  "));
  EXPECT_THAT(ctl({"cert"}).out, Not(AnyOf(HasSubstr("\x1b"), HasSubstr("\u202e"))));

  far::write("/etc/config/openvpn/clients/client1", "client\n<ca>\n" + read(path) +
                                                        "</ca>\n<cert>\n!\n</cert>\n<key>\n" +
                                                        read("/tmp/k") + "</key>\n");
  const std::string list = far::ctl({"cert"}).out;
  EXPECT_THAT(list, ContainsRegex("profile office ca  .*ask the server's administrator"));
  EXPECT_THAT(list, ContainsRegex("profile office cert .*nothing of its kind"));
  fs::remove(path);
}

TEST_F(OpenVpnCertificates, AreRenewedAtNightOrAtTheEndAndOldProfilesStay) {
  const std::string authority = key("ca.crt");
  make("myserver", "ca", -DAYS, 10 * DAYS + 60);
  ASSERT_EQ(run({SERVER, "restart"}).status, 0);  // less than 30 days: the start renews it
  EXPECT_GT(days("server"), 3000);
  make("myserver", "ca", -DAYS, 10 * DAYS + 60);
  const std::string ending = key("myserver.crt");

  EXPECT_EQ(tend(12).status, 0);
  EXPECT_EQ(tend(12).status, 0);
  const std::string web = read(WEB_CERTIFICATE);
  write(WEB_CERTIFICATE, ending);
  EXPECT_EQ(tend(12).status, 0);
  write(WEB_CERTIFICATE, web);
  EXPECT_EQ(events("web interface (myserver) expires in 10 days"), 1);
  EXPECT_EQ(events("OpenVPN server (myserver) expires in 10 days"), 1) << "once a step";
  EXPECT_EQ(key("myserver.crt"), ending) << "it is day";
  connect();
  ASSERT_TRUE(comes_up());
  EXPECT_EQ(tend(4).status, 0);
  EXPECT_EQ(key("myserver.crt"), ending) << "somebody is connected";
  ASSERT_EQ(far::ctl({"profile", "down", "office"}).status, 0);
  ASSERT_TRUE(nobody_is_on());
  write("/etc/openvpn/keys/rotation", "phase=?");
  EXPECT_EQ(tend(4).status, 1);
  EXPECT_EQ(tend(4).status, 0) << "a failure has a pause";
  EXPECT_EQ(events("could not be renewed: /etc/openvpn/keys/rotation cannot be understood"), 1);
  fs::remove("/etc/openvpn/keys/rotation");
  fs::remove("/var/lib/ormel/certificates.json");
  const std::string settings = read(VPN_CONF);
  write(VPN_CONF, "damaged");
  EXPECT_EQ(tend(4).status, 0);
  EXPECT_EQ(key("myserver.crt"), ending) << "the server could not be started again";
  write(VPN_CONF, settings);
  EXPECT_EQ(tend(4).status, 0);
  EXPECT_GT(days("server"), 3000);
  EXPECT_EQ(key("ca.crt"), authority);
  EXPECT_EQ(events("certificate of the OpenVPN server was renewed"), 1);
  EXPECT_TRUE(connects("office")) << said;
  EXPECT_THAT(ctl({"audit", "--limit", "5"}).out, ContainsRegex("keeper +cert/renew"));

  make("myserver", "ca", -DAYS, 6 * DAYS);
  connect();
  ASSERT_TRUE(comes_up());
  EXPECT_EQ(tend(12).status, 0);
  EXPECT_GT(days("server"), 3000) << "no later than this, by day and with users";
  EXPECT_EQ(events("(myserver) expires in 5 days"), 1);

  // A renewal that was killed before the server could start again.
  const std::string older = server_pid();
  EXPECT_EQ(run({"/usr/lib/fenro/ovpn-keys", "renew"}).status, 0);
  EXPECT_EQ(tend(12).status, 0);
  const std::string newer = server_pid();
  EXPECT_NE(newer, older);
  EXPECT_EQ(tend(12).status, 0);
  EXPECT_EQ(server_pid(), newer);
}

TEST_F(OpenVpnCertificates, AreMadeAgainWithoutAnotherAuthority) {
  const std::string authority = key("ca.crt");
  const auto digest = [] { return key("ca.crt") + key("ca.key") + key("myserver.crt"); };
  make("myserver", "ca", -9 * DAYS, -DAYS);
  EXPECT_EQ(run({SERVER, "restart"}).status, 0);
  EXPECT_GT(days("server"), 3000);
  EXPECT_EQ(key("ca.crt"), authority);
  EXPECT_TRUE(connects("office")) << said;

  make("ca", "ca", DAYS, 300 * DAYS);
  make("myserver", "ca", DAYS, 300 * DAYS);
  const std::string early = digest();
  EXPECT_EQ(run({SERVER, "restart"}).status, 0) << "the clock is wrong, the keys are not";
  EXPECT_THAT(ctl({"cert", "renew", "server", "--yes"}).err, HasSubstr("set the date"));
  EXPECT_THAT(ctl({"cert", "rotate", "--yes"}).err, HasSubstr("set the date"));
  EXPECT_EQ(tend(4).status, 0);
  EXPECT_EQ(digest(), early);

  make("ca", "ca", -9 * DAYS, -DAYS);
  EXPECT_EQ(tend(4).status, 0);
  EXPECT_EQ(events("The authority of the OpenVPN server (ca) has expired"), 1);
  EXPECT_EQ(run({SERVER, "restart"}).status, 0);
  EXPECT_GT(days("authority"), 3000) << "nobody can connect by an expired one";
}

class OpenVpnRotation : public OpenVpnCertificates {};

TEST_F(OpenVpnRotation, ChangeTheirAuthorityInThreePhases) {
  ASSERT_EQ(ctl({"cert", "rotate", "authority", "--overlap", "60d", "--yes"}).status, 0);
  EXPECT_EQ(ctl({"cert", "rotate", "authority", "--yes"}).status, 1) << "one at a time";
  EXPECT_GT(days("authority-next"), 3000);
  import_as("both", profile());
  EXPECT_TRUE(connects("office")) << said;
  EXPECT_THAT(ctl({"cert"}).err, HasSubstr("still on the old one: guest (last login"));
  EXPECT_THAT(https("/ormel/my/profile", {"--data", "sid=" + begin_session(USER)}).body,
              HasSubstr(key("ca.crt")));
  EXPECT_THAT(ctl({"audit", "--limit", "5"}).out, ContainsRegex("guest +web.* my/profile .*ok"));
  EXPECT_THAT(ctl({"cert"}).err, HasSubstr("nobody is known to have an older profile"));
  EXPECT_TRUE(connects("both")) << said;
  EXPECT_TRUE(nobody_is_on());

  const auto set_date = [](const std::string& name, long ahead) {
    std::string text = key("rotation");
    const size_t at = text.find(name + '=');
    ASSERT_NE(at, std::string::npos);
    text.replace(at, text.find('\n', at) - at,
                 name + '=' + std::to_string(std::time(nullptr) + ahead));
    write(std::string(KEYS) + "rotation", text);
  };
  set_date("change", -60);
  EXPECT_EQ(tend(12).status, 0);
  EXPECT_THAT(key("rotation"), HasSubstr("phase=overlap")) << "it waits for the night";
  EXPECT_EQ(tend(4).status, 0);
  EXPECT_THAT(key("rotation"), HasSubstr("phase=changed"));
  EXPECT_GT(days("authority-old"), 3000);
  import_as("new", profile());
  EXPECT_TRUE(connects("both")) << said;
  EXPECT_TRUE(connects("new")) << said;
  EXPECT_FALSE(connects("office"));
  EXPECT_EQ(ctl({"cert", "rotate", "--cancel", "--yes"}).status, 1);
  const Result undone = ctl({"undo", "--yes"});
  EXPECT_EQ(undone.status, 1) << "the next start would change over again";
  EXPECT_THAT(undone.err, HasSubstr("begins another change-over"));
  EXPECT_THAT(key("rotation"), HasSubstr("phase=changed"));

  set_date("end", -60);
  EXPECT_EQ(run({SERVER, "restart"}).status, 0);
  EXPECT_FALSE(fs::exists(std::string(KEYS) + "rotation")) << "a start ends it as well";
  EXPECT_EQ(key("ca.crt").find("-----BEGIN", 1), std::string::npos) << "the new one alone";
  EXPECT_TRUE(connects("new")) << said;
  for (const char* index : {"2", "3"}) far::cli({"--type=OVPN", std::string("--remove=") + index});
}

// What ends a tunnel; a suite of its own, as each of them takes its time.
class OpenVpnRefusal : public OpenVpnTunnel {
 protected:
  static std::string reason() { return far::read("/run/fenro/reasons/OPENVPN_CLIENT1"); }
};
class OpenVpnLogins : public OpenVpnTunnel {};

// The server is asked by its second address, which is far away for the client, and so is what is
// behind it.
TEST_F(OpenVpnTunnel, IsTheGatewayThoughItsProfileNamesSeveralServers) {
  const std::string in_lan = "nsenter --net=/run/netns/lan ip route ",
                    way = " 203.0.113.1 via 192.168.77.1";
  far::cli({"--type=OVPN", "--remove=1"});
  import_profile("\nremote 203.0.113.1 1194\nremote 203.0.113.2 1194\nremote 203.0.113.3 1194\n");
  ASSERT_EQ(
      shell("ip address add 203.0.113.1/32 dev lo && ip address add 198.51.100.1/32 dev lo").status,
      0);
  EXPECT_EQ(far_shell(in_lan + "add" + way).status, 0);
  EXPECT_EQ(run({"/sbin/setcfg", "System", "Public Address", "vpn.example.org"}).status, 0);
  EXPECT_THAT(profile(), HasSubstr("\nremote vpn.example.org 1194\n"));
  EXPECT_EQ(run({"/sbin/setcfg", "System", "Public Address", ""}).status, 0);
  connect();
  ASSERT_TRUE(comes_up()) << "answers come from the address that was asked";
  EXPECT_THAT(far::run({"/sbin/ip", "route", "get", "198.51.100.1", "from", local_ip()}).out,
              HasSubstr("tun2001"))
      << "an answer goes back into the tunnel";
  for (const char* servers : {"written down", "with nothing but the mark left"}) {
    SCOPED_TRACE(servers);
    ASSERT_EQ(far::run({"/etc/init.d/vpn_gateway.sh", "start", "tun2001", "1"}).status, 0);
    EXPECT_EQ(far::run({"/bin/ping", "-c3", "-i.2", "-W10", "198.51.100.1"}).status, 0);
    far_shell("sed -Ei '/^(Domain IP|Server Address|Trusted IP|Real Address) = /d' " +
              std::string(VPN_CONF));
  }
  far::run({"/etc/init.d/vpn_gateway.sh", "stop"});
  shell("ip address del 203.0.113.1/32 dev lo; ip address del 198.51.100.1/32 dev lo");
  far_shell(in_lan + "del" + way);
}

TEST_F(OpenVpnRefusal, AWrongPasswordIsCountedLoggedAndBlocksAtTheLimit) {
  EXPECT_EQ(web("/ormel/privilege/block", "&enable=true&limit=2&time=30"), OK);
  EXPECT_THAT(set_password("wrong"), HasSubstr("\"status\":0")) << "editing leaves it disconnected";
  EXPECT_EQ(far::run({"/usr/bin/pgrep", "openvpnclient"}).status, 1);
  for (size_t attempt = 1; attempt <= 2; ++attempt) {
    SCOPED_TRACE(attempt);
    connect();
    EXPECT_TRUE(logs_soon(attempt));
    EXPECT_TRUE(comes_to_an_end()) << "it does not go on dialling with a refused login";
  }
  EXPECT_THAT(logged("source_ip"), Each("192.168.77.2"));
  EXPECT_THAT(web("/ormel/privilege/block_show", ""), HasSubstr(USER));
  EXPECT_THAT(set_password(password), DONE);
  connect();
  EXPECT_TRUE(logs_soon(3)) << "blocked now";
  EXPECT_TRUE(comes_true([] { return has(reason(), "too many wrong passwords"); }, PATIENCE))
      << "the server says why, and that a later attempt may do";
  EXPECT_THAT(logged("device_info"),
              ElementsAre("wrong password", "wrong password", HasSubstr("blocked")));
  disconnect();
  EXPECT_THAT(logged("action"), Each("1"));
  EXPECT_THAT(read(LOG), HasSubstr("check_privilege_user_block. guest"));
  EXPECT_EQ(web("/ormel/privilege/remove_block_user", std::string("&user=") + USER), OK);
  connect();
  EXPECT_TRUE(comes_up());
}

// As OpenVPN's clients send what was asked for by "static-challenge".
TEST_F(OpenVpnRefusal, AUserWithASecondFactorComesInByItsCodeOnce) {
  using fenro::SecondFactor;
  const std::string secret(fenro::totp::SECRET_BYTES, 's');
  ASSERT_TRUE(fenro::SecondFactors{}.change(USER, [&](SecondFactor& factor) {
    factor.state = SecondFactor::State::On;
    factor.secret = fenro::totp::to_base32(secret);
    return true;
  }));
  const auto answer = [&] {
    const std::string code = fenro::totp::code_at(secret, fenro::totp::step_at(std::time(nullptr)));
    return "SCRV1:" + encoded(password) + ':' + encoded(code);
  };
  EXPECT_THAT(set_password(answer()), DONE);
  connect();
  EXPECT_TRUE(comes_up());
  disconnect();
  connect();
  EXPECT_TRUE(comes_to_an_end());
  EXPECT_THAT(logged("device_info"), testing::Contains(HasSubstr("(code-used)")));
  EXPECT_EQ(naslog_event_query_count_ex(0, "", "", USER, "", "",
                                        "refused: second factor code that was used before", "", ""),
            1);
  EXPECT_THAT(reason(), HasSubstr("\"code\":\"login-refused\""))
      << "and no word about the second factor";
  ASSERT_TRUE(fenro::SecondFactors{}.change(USER, [](SecondFactor& factor) {
    factor = {};
    return true;
  }));
}

TEST_F(OpenVpnRefusal, WhoLosesTheRightIsThrownOutAndStaysOut) {
  connect();
  ASSERT_TRUE(comes_up());
  EXPECT_EQ(web("/ormel/privilege/unset", std::string("&user=") + USER), OK);
  EXPECT_TRUE(comes_true([&] { return online("name").empty(); }, PATIENCE));
  EXPECT_TRUE(logs_soon(3));  // came, went, was refused
  EXPECT_TRUE(comes_to_an_end());
  EXPECT_EQ(far::conf_value("OPENVPN_CLIENT1", "LocalIP"), "");
  EXPECT_THAT(logged("action"), ElementsAre("0", "2", "1"));
}

// Twenty clients with a wrong password at once, as a script of the far appliance that ends when all
// have been refused.
constexpr const char* WRONG_LOGINS = R"(
grep -v -e '^auth-user-pass' -e '^verb' /tmp/office.ovpn >/tmp/wrong.ovpn
printf 'guest\nwrong\n' >/tmp/wrong.login
for i in $(seq 20); do
  openvpn --config /tmp/wrong.ovpn --auth-user-pass /tmp/wrong.login --dev null --auth-retry none --connect-retry-max 1 \
    --log /dev/null --cd /tmp </dev/null >/dev/null 2>&1 &
done
wait)";

TEST_F(OpenVpnLogins, WrongLoginsHoldUpNeitherTunnelsNorGoodLogins) {
  // A client of a blocked user is asked to come back later, and never ends.
  ASSERT_EQ(web("/ormel/privilege/block", "&enable=false&limit=10&time=30"), OK);
  ASSERT_THAT(web("/ormel/config/modify",
                  "&type=SOVPN&enable=true&ip_pool=10.8.0.0&proto=UDP&port=1194&maximum=50"),
              DONE);
  connect();
  ASSERT_TRUE(comes_up());
  shell("setsid ping -i0.05 -c200 " + local_ip() + " </dev/null >/tmp/pings 2>&1 &");
  far::run({"/bin/sh", "-c", WRONG_LOGINS});

  EXPECT_TRUE(comes_true([] { return has(read("/tmp/pings"), " received"); }, PATIENCE));
  // A daemon that waits for its hook answers late rather than not at all.
  const std::string in_time =
      "awk -F 'time=' '$2 + 0 > 0 && $2 + 0 < 1500 { ++n } END { print n }' /tmp/pings";
  EXPECT_GE(std::stoi(run({"/bin/sh", "-c", in_time}, {"PATH=/usr/bin"}).out), 198);
  EXPECT_TRUE(logs_soon(21));
  EXPECT_THAT(run({"/bin/ls", "/run/fenro/openvpn-logins"}).out, Not(HasSubstr("hook.16")));
}

TEST_F(OpenVpnTunnel, EditingTheServerRestartsIt) {
  connect();
  ASSERT_TRUE(comes_up());
  const std::string before = server_pid();
  const std::string reply =
      web("/ormel/config/modify", "&type=SOVPN&enable=true&ip_pool=10.9.0.0&port=1195&enc=2");
  EXPECT_THAT(reply, HasSubstr("\"download\":2"));
  EXPECT_NE(server_pid(), before);
  EXPECT_THAT(read(VPN_CONF), HasSubstr("OPENVPN_iptables_rules = TRUE\n"));
  EXPECT_THAT(read(VPN_CONF), HasSubstr("setup_vpn_entrance_status = TRUE\n"));
  EXPECT_THAT(online("name"), IsEmpty());
  EXPECT_THAT(read(SERVER_CONF), HasSubstr("\nport 1195\n"));
  EXPECT_THAT(run({"/sbin/ip", "address", "show", "tun1000"}).out, HasSubstr("10.9.0.1/24"));
  EXPECT_THAT(web("/ormel/config/modify", "&type=SOVPN&enable=false"), DONE);
  EXPECT_EQ(server_pid(), "");
  EXPECT_THAT(run({"/usr/sbin/nft", "list", "tables"}).out, Not(HasSubstr("fenro_openvpn")));
}

}  // namespace
