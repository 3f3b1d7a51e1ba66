// An OpenVPN server on one appliance and a client of it on another, all by the web interfaces, with the real daemons.
// appliance: --pair --web

#include <jansson.h>

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
constexpr int PATIENCE = 40;                  // seconds for a tunnel to come or go on a busy machine

std::string member(const json_t* object, const char* name) {
  const json_t* value = json_object_get(object, name);
  if (json_is_integer(value)) return std::to_string(json_integer_value(value));
  return json_is_string(value) ? json_string_value(value) : "";
}

// One member of every row of an answer's data.
std::vector<std::string> members(const std::string& body, const char* name) {
  std::vector<std::string> values;
  const ormel::Json answer{json_loads(body.c_str(), 0, nullptr)};
  const json_t* rows = json_object_get(answer.get(), "data");
  for (size_t i = 0; i < json_array_size(rows); ++i) values.push_back(member(json_array_get(rows, i), name));
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
    near = run({"/usr/lib/fenro/fenro-session", "create", "admin"}).out.substr(0, 8);
    away = far::run({"/usr/lib/fenro/fenro-session", "create", "admin"}).out.substr(0, 8);
    password = read(std::string("/var/lib/appliance/password.") + USER);
    password.pop_back();
    ASSERT_THAT(web("/ormel/log/cleanup", "&type=23"), OK);
    ASSERT_THAT(web("/ormel/config/modify", "&type=SOVPN&enable=true&ip_pool=10.8.0.0&proto=UDP&port=1194"), DONE);
    ASSERT_EQ(web("/ormel/privilege/set", std::string("&user=") + USER + "|4"), OK);
    import_profile();
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
  void import_profile() const {
    const std::string profile = https("/ormel/config/download?sid=" + near).body;
    ASSERT_THAT(profile, HasSubstr("\nremote 192.168.77.1 1194\n"));
    far::write("/tmp/office.ovpn", profile);
    far::write("/tmp/password", encoded(password));
    EXPECT_THAT(
        far_curl("/ormel/config/import?sid=" + away, {"-F", "ovpn=@/tmp/office.ovpn", "-F", "name=office", "-F",
                                                      std::string("user=") + USER, "-F", "pass=</tmp/password"}),
        DONE);
  }
  static std::string encoded(const std::string& secret) { return run({"/usr/bin/base64", "-w0"}, {}, secret).out; }
  void connect() const { EXPECT_THAT(far_web("/ormel/config/connect", "&type=OVPN&index=1"), DONE); }
  static bool comes_up() {
    return comes_true([] { return !far::conf_value("OPENVPN_CLIENT1", "LocalIP").empty(); }, PATIENCE);
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

TEST_F(OpenVpnTunnel, CarriesTrafficAndBothEndsTellOfIt) {
  connect();
  ASSERT_TRUE(comes_up());

  EXPECT_EQ(far::run({"/bin/ping", "-c1", "-W10", SERVER_END}).status, 0);
  const std::string client_end = far::conf_value("OPENVPN_CLIENT1", "LocalIP");
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W10", client_end}).status, 0);
  EXPECT_EQ(far::run({"/bin/ping", "-c1", "-W10", "-I", "tun2001", "192.168.77.254"}).status, 0)
      << "the network behind the server, by the tunnel's own table";

  EXPECT_THAT(online("name"), ElementsAre(USER));
  EXPECT_THAT(online("allocate_ip"), ElementsAre(client_end));
  ASSERT_THAT(online("target"), ElementsAre(StartsWith("192.168.77.2:")));
  EXPECT_THAT(far_web("/ormel/config/show", "&type=1024"), HasSubstr("\"status\":1"));
  EXPECT_EQ(far::conf_value("OPENVPN_CLIENT1", "Trusted IP"), "192.168.77.1");
  EXPECT_EQ(far::conf_value("OPENVPN_CLIENT1", "Trusted Proto"), "udp");
  EXPECT_EQ(far::conf_value("OPENVPN_CLIENT1", "RemoteIP"), SERVER_END);
  EXPECT_THAT(far::run({"/sbin/ip", "route", "show", "table", "main"}).out, Not(HasSubstr("0.0.0.0/1")))
      << "which tunnel carries the default route is not the server's to say";

  const std::string pid = far::read("/var/run/openvpn.client1.pid");
  const std::string status = far::read("/proc/" + pid.substr(0, pid.find('\n')) + "/status");
  EXPECT_THAT(status, HasSubstr("NoNewPrivs:\t1"));
  EXPECT_THAT(status, HasSubstr("CapEff:\t00000000000034eb"));
  EXPECT_EQ(far::showing(password + '\n'), "");

  EXPECT_EQ(web("/ormel/connection/kick", "&conn=4|" + online("target")[0]), OK);
  EXPECT_TRUE(comes_true([&] { return online("name").empty(); }, PATIENCE));
  EXPECT_TRUE(comes_true([] { return far::conf_value("OPENVPN_CLIENT1", "LocalIP").empty(); }, PATIENCE));
  EXPECT_TRUE(comes_up()) << "it dials again by itself";

  EXPECT_THAT(far_web("/ormel/config/disconnect", "&type=OVPN&index=1"), DONE);
  EXPECT_TRUE(comes_true([&] { return online("name").empty(); }, PATIENCE));
  EXPECT_TRUE(logs_soon(4));
  EXPECT_THAT(logged("action"), ElementsAre("0", "2", "0", "2"));  // came, went
  EXPECT_THAT(logged("username"), Each(USER));
  EXPECT_NE(logged("rx_total")[1], "0");
  EXPECT_THAT(members(far_web("/ormel/log/client", "&order=asc"), "action"), ElementsAre("0", "2", "0", "2"));
}

// What ends a tunnel; a suite of its own, as each of them takes its time.
class OpenVpnRefusal : public OpenVpnTunnel {};

TEST_F(OpenVpnRefusal, AWrongPasswordIsCountedLoggedAndBlocksAtTheLimit) {
  EXPECT_EQ(web("/ormel/privilege/block", "&enable=true&limit=2&time=30"), OK);
  EXPECT_THAT(far_web("/ormel/config/modify", "&type=OVPN&index=1&pass=" + encoded("wrong")), HasSubstr("\"status\":0"))
      << "editing leaves it disconnected";
  EXPECT_EQ(far::run({"/usr/bin/pgrep", "openvpnclient"}).status, 1);
  for (size_t attempt = 1; attempt <= 2; ++attempt) {
    SCOPED_TRACE(attempt);
    connect();
    EXPECT_TRUE(logs_soon(attempt));
    EXPECT_TRUE(comes_to_an_end()) << "it does not go on dialling with a refused login";
  }
  EXPECT_THAT(logged("source_ip"), Each("192.168.77.2"));
  EXPECT_THAT(web("/ormel/privilege/block_show", ""), HasSubstr(USER));
  EXPECT_THAT(far_web("/ormel/config/modify", "&type=OVPN&index=1&pass=" + encoded(password)), DONE);
  connect();
  EXPECT_TRUE(logs_soon(3)) << "blocked now";
  EXPECT_TRUE(comes_to_an_end());
  EXPECT_THAT(logged("action"), Each("1"));
  EXPECT_THAT(read(LOG), HasSubstr("check_privilege_user_block. guest"));
  EXPECT_EQ(web("/ormel/privilege/remove_block_user", std::string("&user=") + USER), OK);
  connect();
  EXPECT_TRUE(comes_up());
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

TEST_F(OpenVpnTunnel, EditingTheServerRestartsIt) {
  connect();
  ASSERT_TRUE(comes_up());
  const std::string before = server_pid();
  const std::string reply = web("/ormel/config/modify", "&type=SOVPN&enable=true&ip_pool=10.9.0.0&port=1195&enc=2");
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
