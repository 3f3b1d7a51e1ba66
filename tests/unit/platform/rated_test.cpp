#include <algorithm>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "base/handle.h"
#include "daemons/rated/history.h"
#include "daemons/rated/openvpn_status.h"
#include "daemons/rated/rate_server.h"
#include "daemons/rated/trails.h"

namespace fenro::rated::test {
namespace {

using namespace std::chrono_literals;

TEST(OpenVpnStatus, TakesTheLinesOfClients) {
  const std::vector<Counters> clients = parse_status(
      ">INFO:OpenVPN Management Interface Version 5\r\nTITLE\tOpenVPN 2.6\r\n"
      "HEADER\tCLIENT_LIST\tCommon Name\tReal Address\r\n"
      "CLIENT_LIST\tbob\t192.0.2.1:51000\t10.8.0.2\t\t18446744073709551615\t7\tTue\t17\tbob\r\n"
      "CLIENT_LIST\ta,b c\t192.0.2.2:1\t\t\t1\t2\r\n"
      "CLIENT_LIST\tno numbers\t192.0.2.3:1\t\t\tx\t2\r\nCLIENT_LIST\tshort\t192.0.2.4:1\r\n"
      "CLIENT_LIST\tmany\t192.0.2.5:1\t\t\t18446744073709551616\t2\r\nCLIENT_LIST\t\t\t\t\t1\t2\r\n"
      "ROUTING_TABLE\t10.8.0.2\tbob\t192.0.2.1:51000\tx\t1\t2\r\n"
      "CLIENT_LIST\tcut off\t192.0.2.6:1\t\t\t1\t2");
  ASSERT_EQ(clients.size(), 2U);
  EXPECT_EQ(clients[0].key, "192.0.2.1:51000");
  EXPECT_EQ(clients[0].rx_bytes, 18446744073709551615U);
  EXPECT_EQ(clients[0].tx_bytes, 7U);
  EXPECT_EQ(clients[1].key, "192.0.2.2:1");
}

// A management port that somebody has taken and does not serve.
TEST(OpenVpnStatus, IsNotWaitedForLong) {
  const Fd listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  sockaddr_in place{};
  socklen_t size = sizeof place;
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const address = reinterpret_cast<sockaddr*>(&place);
  ASSERT_EQ(bind(listener.get(), address, size) + listen(listener.get(), 1), 0);
  ASSERT_EQ(getsockname(listener.get(), address, &size), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(openvpn_clients(ntohs(place.sin_port), 100ms).empty());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
}

class RateServerTest : public testing::Test {
 protected:
  std::vector<Counters> ask(std::vector<Counters>& counters) {
    ++asked;
    return counters;
  }
  std::string stat() { return server.all_server_stat(now); }
  std::vector<OnlineUser> users{{"ppp0", "192.0.2.1", 77, "10.0.0.1", "10.0.0.2", 1, 0, "bob", ""}};
  std::vector<Counters> interfaces{{"ppp0", 1000, 2000, 5}, {"eth0", 1, 1, 1}};
  std::vector<Counters> openvpn{{"192.0.2.1:51000", 3, 4, 0}};
  std::vector<Counters> drovik{{"AA:BB", 5, 6, 0}};
  int asked = 0;
  RateServer::Clock::time_point now{};  // the host's start, before which there is no reading
  RateServer server{{[this] { return users; }, [this] { return ask(interfaces); },
                     [this] { return ask(openvpn); }, [this] { return ask(drovik); }}};
};

TEST_F(RateServerTest, TellsWhatWentThroughInASecond) {
  std::string answer = stat();
  const auto after = [&](std::chrono::milliseconds time, Counters counters) {
    now += time;
    interfaces[0] = std::move(counters);
    answer = stat();
    return answer.substr(answer.find("\"rx_rate\""));
  };
  EXPECT_EQ(after(2s, {"ppp0", 3000, 2500, 5}), R"("rx_rate":1000,"tx_rate":250}]})");
  EXPECT_EQ(after(100ms, {"ppp0", 9000, 9000, 5}), R"("rx_rate":1000,"tx_rate":250}]})") << "soon";
  EXPECT_NE(answer.find("\"rx_bytes\":3000"), std::string::npos);
  EXPECT_EQ(after(1s, {"ppp0", 100, 9000, 5}), R"("rx_rate":0,"tx_rate":5909}]})") << "set back";
  EXPECT_EQ(after(1s, {"ppp0", 200, 9100, 6}), R"("rx_rate":0,"tx_rate":0}]})") << "new session";
  EXPECT_EQ(after(1s, {"ppp0", 9000000200, 9100, 6}), R"("rx_rate":2147483647,"tx_rate":0}]})")
      << "limit";
  EXPECT_EQ(after(11s, {"ppp0", 9000000300, 9100, 6}), R"("rx_rate":0,"tx_rate":0}]})") << "old";
}

TEST_F(RateServerTest, ReadsOnItsOwnOnlyWhileItIsWatched) {
  for (int i = 0; i < 5; ++i) server.tick(now += 1s);
  EXPECT_EQ(asked, 0);
  std::ignore = stat();
  for (int i = 0; i < 60; ++i) server.tick(now += 1s);
  EXPECT_EQ(asked, 1 + 29);
}

// PPTP, L2TP, OpenVPN, Drovik and WireGuard are rows 0 to 4.
TEST(History, KnowsTheProtocolOfAnInterface) {
  const std::vector<OnlineUser> users{
      {"ppp0", "192.0.2.1", 1, "10.0.0.1", "10.0.0.2", 1, 0, "ann", ""},
      {"ppp1", "192.0.2.1", 2, "10.0.0.1", "10.0.0.3", 2, 0, "bob", ""}};
  const std::pair<const char*, std::size_t> CASES[] = {
      {"ppp0", 0},   {"ppp1", 1},      {"ppp1001", 0}, {"ppp1251", 1}, {"tun2001", 2},
      {"dtuns0", 3}, {"dtunc2501", 3}, {"wg0", 4},     {"wgc3001", 4},
  };
  for (const auto& [name, kind] : CASES) EXPECT_EQ(kind_of(name, users), kind) << name;
  for (const char* name : {"ppp2", "ppp1000", "ppp1033", "eth0", "wg1", "wgc", ""})
    EXPECT_EQ(kind_of(name, users), std::string::npos) << name;
}

TEST(History, IsARateForEachStep) {
  History history{[] { return std::vector<OnlineUser>{}; }};
  const auto at = [&](std::time_t now, std::uint64_t rx, std::uint64_t tx, int generation = 1) {
    history.sample({{"wg0", rx, tx, generation}, {"eth0", 9 * rx, 9 * tx, 1}}, now);
  };
  at(1000, 500, 500);  // what came before is of no step
  at(1010, 600, 520);
  at(1020, 600, 520);
  at(1030, 100, 100, 2);  // another interface of that name
  at(1040, 150, 100, 2);
  at(1060, 250, 100, 2);  // late
  EXPECT_EQ(
      history.reply(3600, 1060),
      R"({"error":0,"data":{"step":10,"types":[1,2,4,16,32],"rows":[[1010,0,0,0,0,10,0,0,0,0,2],)"
      R"([1020,0,0,0,0,0,0,0,0,0,0],[1030,0,0,0,0,0,0,0,0,0,0],[1040,0,0,0,0,5,0,0,0,0,0],)"
      R"([1060,0,0,0,0,5,0,0,0,0,0]]}})");
  EXPECT_EQ(
      history.reply(20, 1060),
      R"({"error":0,"data":{"step":10,"types":[1,2,4,16,32],"rows":[[1060,0,0,0,0,5,0,0,0,0,0]]}})");
  EXPECT_EQ(history.reply(3601, 1060),
            R"({"error":0,"data":{"step":300,"types":[1,2,4,16,32],"rows":[]}})");
}

TEST(History, KeepsAnHourAndADay) {
  History history{[] { return std::vector<OnlineUser>{}; }};
  const auto rows = [&](std::time_t span, std::time_t now) {
    const std::string text = history.reply(span, now);
    return std::count(text.begin(), text.end(), '[') - 2;
  };
  std::time_t now = 100;
  for (int step = 0; step < 3 * 8640; ++step, now += History::STEP)
    history.sample({{"wg0", 1, 1, 1}}, now);
  EXPECT_EQ(rows(History::HOUR, now - History::STEP), 360);
  EXPECT_EQ(rows(History::DAY, now - History::STEP), 288);
  history.sample({{"wg0", 1, 1, 1}}, 50);  // the clock was set back
  history.sample({{"wg0", 1, 1, 1}}, 60);
  EXPECT_EQ(rows(History::HOUR, 60), 1) << "what is of the future now is gone";
}

TEST(Trails, AreTheLastRatesOfTheTunnelsThatAreThere) {
  Trails trails;
  const auto rates = [&](const std::string& wanted) {
    const std::string all = R"({"error":0,"data":{"step":10,"tunnels":[)" + wanted + "]}}";
    EXPECT_EQ(trails.reply(), all);
  };
  const auto at = [&](std::time_t now, std::uint64_t bytes, int generation = 1) {
    trails.sample({{"tun2003", bytes, bytes, generation}, {"wg0", 9, 9, 1}, {"eth0", 9, 9, 1}},
                  now);
  };
  rates("");
  at(1000, 100);
  rates(R"({"type":1024,"index":3,"rates":[]})");
  at(1010, 150);
  at(1030, 250);     // late
  at(1040, 20, 2);   // another interface of that name
  at(1050, 10, 2);   // a counter that began again
  at(900, 1000, 2);  // the clock was set back
  at(910, 1050, 2);
  rates(R"({"type":1024,"index":3,"rates":[10,10,0,10]})");
  for (std::time_t now = 920; now < 920 + 100 * 10; now += 10) at(now, 1050, 2);
  const std::string full = trails.reply();
  EXPECT_EQ(std::count(full.begin(), full.end(), ','), 2 + 2 + 59) << "sixty, the oldest are gone";
  trails.sample({}, 2000);
  rates("");
}

}  // namespace
}  // namespace fenro::rated::test
