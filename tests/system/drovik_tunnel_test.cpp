// The appliance's own tunnel between two appliances: the server here, its client over there.
// appliance: --pair
#include "base/second_factor.h"
#include "support/far_appliance.h"
#include "support/log_rows.h"

namespace ormel::test {
namespace {

constexpr const char* SERVER = "/etc/init.d/vpn_drovik.sh";
constexpr const char* CLIENT = "/etc/init.d/vpn_drovik_client.sh";
constexpr const char* ONLINE = "/var/log/ormel_online_users";
constexpr const char* PRIVILEGES = "/etc/config/vpn_user_ex.conf";
constexpr const char* EDGES = "/tmp/edges";  // what the profile's executables over there were given
constexpr const char* SECTION = "DROVIK_CLIENT1";
constexpr const char* PORT = "4443";
constexpr const char* KEY = "team key";
constexpr int PATIENCE = 60;  // seconds; a program under the sanitizers on a busy machine is slow

std::ptrdiff_t count(const std::string& text, const std::string& what) {
  std::ptrdiff_t found = 0;
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++found;
  return found;
}

std::ptrdiff_t connects() {
  return server_events(16, 0);
}
std::ptrdiff_t refusals() {
  return server_events(16, 1);
}

class DrovikTunnel : public testing::Test {
 protected:
  void SetUp() override {
    password = read("/var/lib/appliance/password.guest");
    password.erase(password.find('\n'));
    write(PRIVILEGES, "guest:0:0:0:0:1\nadmin:1:1:1:0:0\n");
    // Not all keys are of the command line's making: whatever the file says has to do.
    write(VPN_CONF,
          std::string{"[DROVIK]\nEnable = TRUE\nMax Client = 5\nVPN Port = "} + PORT +
              "\nPSK = " + KEY +
              "\nClient IP 1 = 10.6.0.2\nClient IP 2 = 10.6.0.254\nEnable Manual DNS = TRUE\n"
              "Use Manual DNS = 10.6.0.1\n");
    ASSERT_EQ(run({SERVER, "start"}).status, 0);
    far::write("/tmp/up",
               std::string{"#!/bin/sh\necho up $INTERFACE $LOCAL_IP $REMOTE_IP >>"} + EDGES + "\n",
               0755);
    far::write("/tmp/down", std::string{"#!/bin/sh\necho down >>"} + EDGES + "\n", 0755);
  }
  void TearDown() override {
    far::run({CLIENT, "disconnect", "1"});
    far::run({"/bin/rm", "-f", VPN_CONF, EDGES});
    run({SERVER, "stop"});
  }
  static void add_profile(const std::string& user, const std::string& pass,
                          const std::string& key = KEY) {
    const Result added = far::cli(
        {"--type=DROVIK", "--add", "--name=office", std::string{"--host="} + far::NEAR_ADDRESS,
         std::string{"--port="} + PORT, "--user=" + user, "--pass=" + pass, "--psk=" + key,
         "--up=/tmp/up", "--down=/tmp/down"});
    ASSERT_EQ(added.status, 0) << added.err;
  }
  // The profile over there, and its connection; it comes up later or never.
  static void connect(const std::string& user, const std::string& pass) {
    add_profile(user, pass);
    ASSERT_EQ(far::run({CLIENT, "connect", "1"}).status, 0);
  }
  static std::string local_ip() { return far::conf_value(SECTION, "LocalIP"); }
  static bool comes_up() {
    return comes_true([] { return local_ip() == "10.6.0.2"; }, PATIENCE);
  }
  static bool morvic_runs() { return far::run({"/usr/bin/pgrep", "-x", "morvic"}).status == 0; }
  static bool far_pings() { return far::run({"/bin/ping", "-c3", "-W5", "10.6.0.1"}).status == 0; }
  static std::string identifier() {
    const std::string line = read(ONLINE);
    return line.substr(0, line.find(' '));
  }
  std::string password;
};

TEST_F(DrovikTunnel, CarriesPacketsAndTellsOfItOnBothSides) {
  const std::ptrdiff_t before = connects();
  add_profile("guest", password);
  ASSERT_EQ(far::cli({"--type=DROVIK", "--connect=1"}).status, 0);
  ASSERT_TRUE(comes_up()) << far::read(VPN_CONF);
  EXPECT_EQ(far::cli({"--type=DROVIK", "--connect=1"}).status, 0) << "runs, and is left alone";
  EXPECT_TRUE(far_pings());
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", "-M", "do", "-s", "1372", "10.6.0.2"}).status, 0)
      << "the largest packet";
  EXPECT_THAT(
      read(ONLINE),
      MatchesRegex("[^\n]* 192\\.168\\.77\\.2 [^\n]*10\\.6\\.0\\.1 10\\.6\\.0\\.2 16 ([^\n]* )?"
                   "Z3Vlc3Q= " +
                   identifier() + "\n"));
  EXPECT_EQ(connects(), before + 1);
  EXPECT_THAT(
      bus("MorviServer", "bytes_info"),
      AllOf(StartsWith("{\"error\":0,\"data\":[{\"mac\":\"" + identifier() + "\",\"rx_bytes\":"),
            Not(HasSubstr("\"rx_bytes\":0,"))));
  EXPECT_THAT(far::cli({"--type=DROVIK", "--show=1"}).out,
              AllOf(HasSubstr("Status = 1\n"), HasSubstr("Real Address = 192.168.77.1\n"),
                    HasSubstr("DNS Server = 10.6.0.1\n")));
  EXPECT_EQ(far::conf_value(SECTION, "RemoteIP"), "10.6.0.1");
  EXPECT_EQ(far::read(EDGES), "up dtunc2501 10.6.0.2 10.6.0.1\n");
  EXPECT_THAT(far::run({"/sbin/ip", "route", "show", "table", "2501"}).out,
              HasSubstr("default via 10.6.0.1 dev dtunc2501"));
  EXPECT_EQ(far::showing(password + '\n' + KEY + '\n'), "");
}

TEST_F(DrovikTunnel, ThrowsAClientOutWhichComesBack) {
  connect("guest", password);
  ASSERT_TRUE(comes_up());
  const auto ends = [] { return server_events(16, 2); };
  const std::ptrdiff_t before = ends();
  const std::pair<std::string, const char*> asked[] = {
      {R"({"mac":"02:00:00:00:00:00"})", R"({"error":1,)"},
      {"[]", R"({"error":2,)"},
      {R"({"mac":")" + identifier() + "\"}", R"({"error":0,)"}};
  for (const auto& [request, answer] : asked)
    EXPECT_THAT(bus("MorviServer", "disconnect", request), StartsWith(answer));
  EXPECT_TRUE(comes_true([&] { return ends() == before + 1; }, PATIENCE));
  EXPECT_TRUE(comes_true([] { return count(far::read(EDGES), "down\n") == 1; }, PATIENCE));
  ASSERT_TRUE(comes_up());
  EXPECT_TRUE(far_pings());
  run({"/etc/init.d/vpn_common.sh", "kick_all_connection", "16", "guest"});
  EXPECT_TRUE(comes_true([] { return count(far::read(EDGES), "down\n") == 2; }, PATIENCE));
  EXPECT_TRUE(comes_up());
}

TEST_F(DrovikTunnel, ADoctorLogsInOnceAndStopsAtTheStepThatFails) {
  const std::tuple<std::string, std::string, const char*, int, int> cases[] = {
      {password, KEY, R"("step":"login","result":"ok)", 1, 0},
      {"not " + password, KEY, R"("step":"login","result":"fail)", 0, 1},
      {password, "other key", R"("step":"certificate","result":"fail)", 0, 0},
  };
  for (const auto& [pass, key, told, accepted, refused] : cases) {
    SCOPED_TRACE(key + ' ' + told);
    add_profile("guest", pass, key);
    const std::ptrdiff_t connected = connects() + accepted, refusal = refusals() + refused;
    const Result found = far::ctl({"doctor", "office", "--json"});
    EXPECT_EQ(found.status == 0, accepted == 1) << found.out;
    EXPECT_THAT(found.out, AllOf(HasSubstr(R"("step":"server","result":"ok","text":"answers")"),
                                 HasSubstr(told)));
    EXPECT_EQ(count(found.out, R"("result":"fail")"), 1 - accepted) << found.out;
    EXPECT_TRUE(comes_true([&] { return connects() == connected && refusals() == refusal; }));
    EXPECT_TRUE(comes_true([] { return read(ONLINE).empty(); })) << "the session has ended";
    EXPECT_EQ(far::run({"/sbin/ip", "link", "show", "dtunc2501"}).status, 1)
        << "there was no interface";
    EXPECT_EQ(far::cli({"--type=DROVIK", "--remove=1"}).status, 0);
  }
  add_profile("guest", password);
  run({SERVER, "stop"});
  const Result dead = far::ctl({"doctor", "office", "--json"});
  EXPECT_EQ(dead.status, 1);
  EXPECT_THAT(dead.out, HasSubstr(R"("step":"server","result":"fail")"));
}

TEST_F(DrovikTunnel, KeepsAUserOutForATime) {
  connect("guest", password);
  ASSERT_TRUE(comes_up());
  const std::ptrdiff_t before = refusals();
  const Result ended = ctl({"kick", "drovik/" + identifier(), "--for", "1h", "--yes"});
  EXPECT_EQ(ended.status, 0) << ended.err;
  EXPECT_TRUE(comes_true([&] { return refusals() > before; }, PATIENCE))
      << "its next login is refused";
  EXPECT_EQ(read(ONLINE), "");
  EXPECT_EQ(ctl({"hold", "lift", "guest"}).status, 0);
  far::run({CLIENT, "connect", "1"});
  EXPECT_TRUE(comes_up());
}

class DrovikAdmission : public DrovikTunnel {
 protected:
  // The client does not go on with what the server will not take.
  static bool is_refused_once(std::ptrdiff_t before) {
    return comes_true([&] { return refusals() == before + 1 && !morvic_runs(); }, PATIENCE);
  }
};

TEST_F(DrovikAdmission, RefusesWhoMayNotEnter) {
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"no right", "admin", read("/var/lib/appliance/password.admin").substr(0, 16)},
      {"no such user", "absent", password},
  };
  for (const auto& [why, user, pass] : cases) {
    SCOPED_TRACE(why);
    const std::ptrdiff_t before = refusals();
    connect(user, pass);
    EXPECT_TRUE(is_refused_once(before));
    EXPECT_EQ(local_ip(), "");
    EXPECT_EQ(read(ONLINE), "");
    EXPECT_EQ(far::cli({"--type=DROVIK", "--remove=1"}).status, 0);
  }
}

TEST_F(DrovikAdmission, AUserWithASecondFactorComesInByItsCode) {
  using fenro::SecondFactor;
  const std::string secret(fenro::totp::SECRET_BYTES, 's');
  const auto put = [&](SecondFactor::State state) {
    return fenro::SecondFactors{}.change("guest", [&](SecondFactor& factor) {
      factor.state = state;
      factor.secret = fenro::totp::to_base32(secret);
      return true;
    });
  };
  ASSERT_TRUE(put(SecondFactor::State::On));
  const std::ptrdiff_t before = refusals();
  connect("guest", password);
  EXPECT_TRUE(is_refused_once(before));
  EXPECT_EQ(far::cli({"--type=DROVIK", "--remove=1"}).status, 0);
  connect("guest",
          password + fenro::totp::code_at(secret, fenro::totp::step_at(std::time(nullptr))));
  EXPECT_TRUE(comes_up());
  EXPECT_TRUE(put(SecondFactor::State::Off));
}

TEST_F(DrovikTunnel, GoesDownWithTheServerAndUpAgain) {
  connect("guest", password);
  ASSERT_TRUE(comes_up());
  ASSERT_EQ(run({SERVER, "stop"}).status, 0);
  EXPECT_EQ(read(ONLINE), "");
  EXPECT_TRUE(comes_true([] { return local_ip().empty(); }, PATIENCE));
  ASSERT_EQ(run({SERVER, "start"}).status, 0);
  EXPECT_TRUE(comes_up());
  EXPECT_EQ(far::run({CLIENT, "disconnect", "1"}).status, 0);
  EXPECT_EQ(local_ip(), "");
  EXPECT_TRUE(comes_true([] { return read(ONLINE).empty(); }, PATIENCE));
  EXPECT_FALSE(morvic_runs());
}

// What is no handshake costs nothing; what looks like one costs no memory before it has shown a
// cookie.
TEST_F(DrovikAdmission, StandsThroughGarbage) {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(4443);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const Fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  std::string datagram(1400, '\0');
  for (int i = 0; i < 5000; ++i) {
    for (char& byte : datagram) byte = static_cast<char>(random());
    if (i % 2 == 0)
      datagram.replace(0, 13, std::string("\x16\xfe\xff\0\0\0\0\0\0\0\0", 11) + "\x05\x6b");
    const size_t size = static_cast<size_t>(i) % datagram.size();
    sendto(fd.get(), datagram.data(), size, 0, reinterpret_cast<const sockaddr*>(&server),
           sizeof server);
  }
  EXPECT_TRUE(comes_true(
      [] { return bus("MorviServer", "bytes_info") == R"({"error":0,"data":[]})"; }, PATIENCE));
  connect("guest", password);
  EXPECT_TRUE(comes_up());
}

// A thousand first datagrams a second from over there, while a user logs in again and again.
class DrovikFlood : public DrovikTunnel {
 protected:
  static int good_logins(int senders) {
    far::run({"/bin/bash", "-c",
              "for i in $(seq 0 255); do ip address add 10.66.0.$i/23 dev eth0 2>/dev/null; done"},
             {"PATH=/usr/sbin:/usr/bin"});
    run({"/sbin/ip", "route", "replace", "10.66.0.0/23", "dev", "eth0"});
    const std::string flood = std::string("setsid ") + DROVIK_FLOOD + ' ' + far::NEAR_ADDRESS +
                              ' ' + PORT + " 10.66.0.0 " + std::to_string(senders) +
                              " 1000 200 </dev/null >/dev/null 2>&1 &";
    far::run({"/bin/sh", "-c", flood}, {"PATH=/usr/bin"});
    int good = 0;
    for (int i = 0; i < 10; ++i) {
      far::run({CLIENT, "connect", "1"});
      if (comes_true([] { return local_ip() == "10.6.0.2"; }, 15)) ++good;
      far::run({CLIENT, "disconnect", "1"});
    }
    EXPECT_EQ(far::run({"/usr/bin/pkill", "drovik_flood"}).status, 0) << "it went on to the end";
    return good;
  }
};

TEST_F(DrovikFlood, LeavesGoodLoginsAlone) {
  connect("guest", password);
  ASSERT_TRUE(comes_up()) << "once, so that the address is known";
  far::run({CLIENT, "disconnect", "1"});
  EXPECT_EQ(good_logins(1), 10);
  EXPECT_GE(good_logins(256), 9);
}

}  // namespace
}  // namespace ormel::test
