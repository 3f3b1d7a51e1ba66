// The appliance's own tunnel: messages, rules about clients, settings, and its sockets.
#include <arpa/inet.h>
#include <deque>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "daemons/drovik/dtls.h"
#include "daemons/drovik/frames.h"
#include "daemons/drovik/gate.h"
#include "daemons/drovik/privilege.h"
#include "daemons/drovik/roster.h"
#include "daemons/drovik/settings.h"
#include "daemons/drovik/udp.h"

namespace fenro::drovik {
namespace {

const Login LOGIN{PROTOCOL_VERSION, "bob", "pass word", "02:00:5e:10:00:0f"};
const Welcome WELCOME{0x0a060002, 0x0a060001, 24, 1400, {0x01020304, 0x05060708}};

TEST(DrovikFrames, NoPartOfAMessageIsAMessage) {
  const std::string whole = encode(LOGIN);
  Login login;
  Welcome welcome;
  // The sanitizers see a look beyond the end.
  for (size_t length = 0; length < whole.size(); ++length) {
    const auto exact = std::make_unique<char[]>(length);
    whole.copy(exact.get(), length);
    EXPECT_FALSE(decode({exact.get(), length}, login)) << length;
    EXPECT_FALSE(decode({exact.get(), length}, welcome)) << length;
  }
  EXPECT_FALSE(decode(encode(WELCOME), login));
}

TEST(DrovikFrames, RefuseWhatIsOutOfBounds) {
  const auto login_with = [](std::string Login::*field, const std::string& value) {
    Login login = LOGIN;
    login.*field = value;
    Login read;
    return decode(encode(login), read);
  };
  EXPECT_TRUE(login_with(&Login::user, std::string(256, 'u')));
  for (const std::string& value : {std::string(257, 'u'), std::string("a\nb"),
                                   std::string("a\0b", 3), std::string("a\x7f"), std::string()})
    EXPECT_FALSE(login_with(&Login::user, value)) << value;
  EXPECT_FALSE(login_with(&Login::password, ""));
  for (const char* value :
       {"", "02:00:5e:10:00:0F", "02:00:5e:10:00", "02-00-5e-10-00-0f", "02:00:5e:10:00:0f:"})
    EXPECT_FALSE(login_with(&Login::identifier, value)) << value;

  Login login;
  const std::string later("\x63\0\2zz", 5);
  EXPECT_TRUE(decode(encode(LOGIN) + later, login)) << "a field of a later version";
  EXPECT_FALSE(decode(encode(LOGIN) + std::string("\2\0\1x", 4), login)) << "a second user";
  EXPECT_FALSE(decode(encode(LOGIN) + std::string(3000, '\x63'), login));
  Welcome welcome = WELCOME;
  const std::tuple<uint8_t, uint16_t, bool> limits[] = {
      {1, 576, true},    {0, 576, false},  {30, 1400, true},
      {31, 1400, false}, {24, 575, false}, {24, 1401, false},
  };
  for (const auto& [prefix, mtu, good] : limits) {
    welcome.prefix = prefix;
    welcome.mtu = mtu;
    Welcome read;
    EXPECT_EQ(decode(encode(welcome), read), good) << int{prefix} << ' ' << mtu;
  }
}

TEST(DrovikPacket, HasEndsOnlyWhenItIsAsLongAsItSays) {
  std::string packet("\x45\0\0\x18\0\0\0\0\x40\x11\0\0\x0a\6\0\2\x0a\6\0\1body", 24);
  const auto ends = packet_ends(packet);
  ASSERT_TRUE(ends);
  EXPECT_EQ(to_text(ends->source) + ' ' + to_text(ends->destination), "10.6.0.2 10.6.0.1");
  EXPECT_FALSE(packet_ends(packet + 'x'));
  EXPECT_FALSE(packet_ends(packet.substr(0, 19)));
  for (const char first : {'\x65', '\x44', '\x4f'}) {
    packet[0] = first;
    EXPECT_FALSE(packet_ends(packet)) << static_cast<int>(first);
  }
}

TEST(DrovikRoster, GivesAddressesAndTakesThemBack) {
  Roster roster{10, 12, 3};
  EXPECT_EQ(roster.admit(1, "bob", "a").address, 10U);
  EXPECT_EQ(roster.admit(2, "bob", "b").address, 11U);
  EXPECT_EQ(roster.admit(3, "eve", "c").address, 12U);
  EXPECT_EQ(roster.admit(4, "eve", "d").refused, Reason::Full);
  roster.leave(2);
  EXPECT_EQ(roster.named("b"), 0U);
  EXPECT_EQ(roster.at(11), 0U);
  EXPECT_EQ(roster.admit(4, "eve", "d").address, 11U);
  EXPECT_EQ(roster.at(11), 4U);
  for (const Ipv4 outside : {0U, 9U, 13U, ~0U}) EXPECT_EQ(roster.at(outside), 0U);
  EXPECT_EQ(Roster(10, 12, 1).admit(1, "bob", "a").refused, Reason::None);
}

TEST(DrovikRoster, LetsAClientTakeItsOwnPlaceAgainAndNobodyElses) {
  Roster roster{10, 10, 1};
  EXPECT_EQ(roster.admit(1, "bob", "a").address, 10U);
  EXPECT_EQ(roster.admit(2, "eve", "a").refused, Reason::Occupied);
  const Roster::Entry again = roster.admit(3, "bob", "a");
  roster.leave(1);  // the old session ends after it was replaced
  EXPECT_EQ(again.refused, Reason::None);
  EXPECT_EQ(again.address, 10U);
  EXPECT_EQ(again.replaced, 1U);
  EXPECT_EQ(roster.named("a"), 3U);
  EXPECT_EQ(roster.at(10), 3U);
}

constexpr Gate::Clock::time_point NOON{std::chrono::hours{12}};

TEST(DrovikGate, LimitsOneAddressAndTheRateOfAll) {
  Gate gate{1};
  for (size_t i = 0; i < Gate::PER_ADDRESS; ++i) EXPECT_TRUE(gate.enter(1, NOON));
  EXPECT_FALSE(gate.enter(1, NOON));
  EXPECT_TRUE(gate.enter(2, NOON));
  gate.leave(1);
  EXPECT_TRUE(gate.enter(1, NOON));
  Ipv4 source = 100;
  while (gate.enter(source, NOON)) ++source;
  EXPECT_LT(source, 140U) << "the rate of unknown addresses";
  EXPECT_TRUE(gate.enter(source, NOON + std::chrono::seconds{1}));
}

// Ten seconds of first datagrams, and a login of four datagrams every second beside them.
TEST(DrovikGate, KeepsAShareForKnownAddresses) {
  for (const Ipv4 senders : {1U, 256U}) {
    SCOPED_TRACE(senders);
    Gate gate{1};
    constexpr Ipv4 GOOD = 0x7f000001;
    gate.remember(GOOD);
    int heard = 0, entered = 0;
    for (int tick = 0; tick < 10000; ++tick) {
      const auto now = NOON + std::chrono::milliseconds{tick};
      if (gate.hear(1000 + static_cast<Ipv4>(tick) % senders, now)) ++heard;
      if (tick % 1000 != 500) continue;
      EXPECT_TRUE(gate.hear(GOOD, now) && gate.hear(GOOD, now));
      if (gate.enter(GOOD, now)) ++entered;
      gate.leave(GOOD);
    }
    EXPECT_EQ(entered, 10);
    EXPECT_LE(heard, senders == 1 ? 72 : 1200);
  }
}

TEST(DrovikGate, IsFullForUnknownAddressesFirst) {
  Gate gate{1};
  gate.remember(1);
  auto now = NOON;
  for (Ipv4 source = 100; !gate.is_full(source); ++source, now += std::chrono::seconds{1})
    EXPECT_TRUE(gate.enter(source, now));
  EXPECT_FALSE(gate.is_full(1));
  gate.leave(100);
  EXPECT_FALSE(gate.is_full(200));
}

TEST(DrovikPrivilege, IsTheFifthFieldOfTheUsersLastLine) {
  for (const char* store : {"bob:0:0:0:0:1\n", "bob:0:0:0:0:1", "eve:1:1:1:1:1\nbob:0:0:0:0:1\n"})
    EXPECT_TRUE(may_use_drovik(store, "bob")) << store;
  for (const char* store : {"", "bob\n", "bob:1:1:1:1:0\n", "bobby:0:0:0:0:1\n", "bob:0:0:0:1\n",
                            "bob:0:0:0:0:\n", "bob:0:0:0:0:1\nbob:0:0:0:0:0\n"})
    EXPECT_FALSE(may_use_drovik(store, "bob")) << store;
}

using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;

TEST(DrovikSettings, OfTheServerAreRefusedByKey) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"PSK", "k", ""},
      {"PSK", "", "PSK"},
      {"VPN Port", "0", "VPN Port"},
      {"VPN Port", "65536", "VPN Port"},
      {"Max Client", "0", "Max Client"},
      {"Max Client", "254", "Max Client"},
      {"Client IP 2", "10.7.0.9", "Client IP 1\" or \"Client IP 2"},
      {"Client IP 1", "10.6.0.1", "Client IP 1\" or \"Client IP 2"},
      {"Client IP 2", "10.6.0.255", "Client IP 1\" or \"Client IP 2"},
      {"Client IP 1", "10.6.0.2x", "Client IP 1\" or \"Client IP 2"},
  };
  for (const auto& [key, value, bad] : rows) {
    SCOPED_TRACE(std::string{key} + '=' + value);
    const Conf conf{Conf_Dir_Load("/nonexistent")};
    Conf_Dir_Set_Str(conf.get(), "DROVIK", "PSK", "k");
    Conf_Dir_Set_Str(conf.get(), "DROVIK", key, value);
    ServerSettings settings;
    std::string why;
    EXPECT_EQ(read_server(conf.get(), "DROVIK", "", settings, why), *bad == '\0');
    EXPECT_EQ(*bad ? why : "", bad);
  }
}

TEST(DrovikSettings, NameServersAreTheManualOneOrThoseOfTheHost) {
  const Conf conf{Conf_Dir_Load("/nonexistent")};
  Conf_Dir_Set_Str(conf.get(), "DROVIK", "PSK", "k");
  const auto servers = [&] {
    ServerSettings settings;
    std::string why, all;
    EXPECT_TRUE(
        read_server(conf.get(), "DROVIK",
                    "# nameserver 9.9.9.9\nnameserver 127.0.0.53\nnameserver\t10.0.0.1 # near\r\n"
                    "nameserver fe80::1\nnameserver 10.0.0.2\nnameserver 10.0.0.3",
                    settings, why));
    for (const Ipv4 server : settings.name_servers) all += to_text(server) + ' ';
    return all;
  };
  EXPECT_EQ(servers(), "10.0.0.1 10.0.0.2 ");
  Conf_Dir_Set_Str(conf.get(), "DROVIK", "Use Manual DNS", "1.2.3.4");
  EXPECT_EQ(servers(), "10.0.0.1 10.0.0.2 ");
  Conf_Dir_Set_Bool(conf.get(), "DROVIK", "Enable Manual DNS", 1);
  EXPECT_EQ(servers(), "1.2.3.4 ");
}

class DrovikChannel : public testing::Test {
 protected:
  static constexpr Peer CLIENT{0x0a000002, 5000, 0};
  [[nodiscard]] std::unique_ptr<Channel> channel(const Dtls& dtls, std::deque<std::string>& out) {
    return std::make_unique<Channel>(dtls, [this, &out](const Peer&, std::string_view datagram) {
      if (++posted_ != lost_) out.emplace_back(datagram);
    });
  }
  // Carries datagrams to and fro until both are silent.
  void carry() {
    while (!to_server_.empty() || !to_client_.empty()) {
      if (!to_server_.empty()) {
        const std::string datagram = take(to_server_);
        if (!known_) {
          known_ = server_->listen(CLIENT, datagram);
        } else {
          server_->receive(datagram, [this](std::string_view message) { heard_ += message; });
        }
      }
      if (!to_client_.empty())
        client_->receive(take(to_client_), [this](std::string_view m) { heard_ += m; });
    }
  }
  void begin(const char* client_key = "key") {
    server_dtls_ = Dtls::create(Dtls::Side::Server, "key");
    client_dtls_ = Dtls::create(Dtls::Side::Client, client_key);
    server_ = channel(*server_dtls_, to_client_);
    client_ = channel(*client_dtls_, to_server_);
    client_->begin();
  }
  static std::string take(std::deque<std::string>& queue) {
    std::string first = queue.front();
    queue.pop_front();
    return first;
  }
  std::unique_ptr<Dtls> server_dtls_, client_dtls_;
  std::unique_ptr<Channel> server_, client_;
  std::deque<std::string> to_server_, to_client_;
  std::string heard_;
  int posted_ = 0;
  int lost_ = 0;  // which datagram never arrives
  bool known_ = false;
};

TEST_F(DrovikChannel, CarriesMessagesOnceAndOnlyWhole) {
  begin();
  carry();
  ASSERT_EQ(server_->state(), Channel::State::Open);
  ASSERT_EQ(client_->state(), Channel::State::Open);
  client_->send("one");
  const std::string datagram = to_server_.front();
  EXPECT_EQ(datagram.find("one"), std::string::npos);
  carry();
  server_->send("two");
  carry();
  std::string forged = datagram;
  forged.back() = static_cast<char>(forged.back() ^ 1);
  to_server_ = {datagram, forged, "", "x", std::string(3000, '\x17')};
  carry();
  EXPECT_EQ(heard_, "onetwo");
  EXPECT_EQ(server_->state(), Channel::State::Open);
  client_->end();
  carry();
  EXPECT_EQ(server_->state(), Channel::State::Ended);
}

TEST_F(DrovikChannel, NeverOpensWithAnotherKey) {
  begin("kez");
  carry();
  EXPECT_NE(server_->state(), Channel::State::Open);
  EXPECT_NE(client_->state(), Channel::State::Open);
  EXPECT_EQ(Dtls::create(Dtls::Side::Server, ""), nullptr);
}

TEST_F(DrovikChannel, ComesUpThoughADatagramIsLost) {
  lost_ = 4;
  begin();
  carry();
  for (int i = 0; i < 200 && client_->state() == Channel::State::Shaking; ++i) {
    poll(nullptr, 0, 50);
    client_->tick();
    server_->tick();
    carry();
  }
  EXPECT_EQ(client_->state(), Channel::State::Open);
  EXPECT_GT(posted_, lost_);
}

TEST_F(DrovikChannel, AnswersStrangersOnlyWithACookieForTheirAddress) {
  begin();
  const std::string hello = take(to_server_);
  EXPECT_FALSE(server_->listen(CLIENT, hello));
  ASSERT_EQ(to_client_.size(), 1U);
  EXPECT_LE(to_client_.front().size(), hello.size());  // no use as an amplifier
  for (const char* garbage : {"", "\x16", "\x16\xfe\xff garbage that is no hello at all"})
    EXPECT_FALSE(server_->listen(CLIENT, garbage));
  client_->receive(take(to_client_), [](std::string_view) {});
  const std::string with_cookie = take(to_server_);
  EXPECT_FALSE(server_->listen({CLIENT.address + 1, CLIENT.port, 0}, with_cookie));
  EXPECT_FALSE(server_->listen({CLIENT.address, CLIENT.port + 1, 0}, with_cookie));
  EXPECT_TRUE(server_->listen(CLIENT, with_cookie));
}

uint16_t port_of(const UdpSocket& socket) {
  sockaddr_in name{};
  socklen_t length = sizeof name;
  getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&name), &length);
  return ntohs(name.sin_port);
}

TEST(DrovikUdp, KeepsDatagramsApartWhicheverWayTheyAreBundled) {
  constexpr Ipv4 LOOPBACK = 0x7f000001;
  UdpSocket server, clients[2];
  ASSERT_TRUE(server.listen(0));
  std::string sent[2], expected[2];
  std::vector<Peer> peers(2);
  const auto wait = [](const UdpSocket& socket) {
    pollfd entry{socket.fd(), POLLIN, 0};
    return poll(&entry, 1, 10'000) == 1;
  };
  for (size_t i = 0; i < 2; ++i) {
    ASSERT_TRUE(clients[i].connect(LOOPBACK, port_of(server)));
    clients[i].send({}, "hello");
    clients[i].flush();
    ASSERT_TRUE(wait(server));
    server.receive([&](const Peer& from, std::string_view) { peers[i] = from; });
    EXPECT_EQ(peers[i].port, port_of(clients[i]));
  }
  EXPECT_EQ(peers[0].local, LOOPBACK);

  // Sizes that bundle well, and ones that end or break a bundle; both ways by turns.
  size_t total[2] = {};
  for (size_t i = 0; i < 300; ++i) {
    const size_t to = i / 7 % 2;
    const size_t size = i % 11 == 0 ? 1 + i : i % 17 == 0 ? 1300 : 700;
    const std::string datagram(size, static_cast<char>('a' + i % 26));
    server.send(peers[to], datagram);
    expected[to] += std::to_string(size) + datagram[0] + ' ';
    ++total[to];
  }
  server.flush();

  for (size_t to = 0; to < 2; ++to) {
    for (size_t got = 0; got < total[to];) {
      ASSERT_TRUE(wait(clients[to])) << got;
      clients[to].receive([&](const Peer&, std::string_view datagram) {
        sent[to] += std::to_string(datagram.size()) + datagram[0] + ' ';
        EXPECT_EQ(datagram.find_first_not_of(datagram[0]), std::string_view::npos);
        ++got;
      });
    }
    EXPECT_EQ(sent[to], expected[to]);
  }
}

}  // namespace
}  // namespace fenro::drovik
