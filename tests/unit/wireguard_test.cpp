// The WireGuard driver against a scripted tool, with its peers in a folder of the test.
#include "ormel/drivers/wireguard/wireguard.h"

#include <filesystem>
#include <gmock/gmock.h>

#include "ormel/base/error.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/pptp.h"
#include "ormel/drivers/wireguard/device.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/tool.h"
#include "support/scratch_file.h"
#include "support/scripted_bus.h"

namespace ormel::wireguard {
namespace {

using testing::HasSubstr;
using testing::Not;

// Keys of 32 equal bytes.
const std::string KEY_A = "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";
const std::string KEY_B = "AQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQE=";
const std::string KEY_C = "AgICAgICAgICAgICAgICAgICAgICAgICAgICAgICAgI=";

// A folder of its own, and a tool that makes KEY_B and KEY_C and takes every other command.
class WireGuard : public testing::Test {
 protected:
  void SetUp() override {
    bus.run = [this](const test::ProgramCall& call, std::string& output) {
      if (call.argv.at(1) == "genkey") output = KEY_B + '\n';
      if (call.argv.at(1) == "pubkey") output = KEY_C + '\n';
      if (call.argv.at(1) == "show") output = status;
      return tool_status;
    };
  }
  void TearDown() override { config::cm.config_pool.clear(); }
  ServerConfig server_with(const std::string& ip, const std::string& pub_key) const {
    ServerConfig server(0);
    server.folder = folder;
    server.server_ip = "198.18.7.1";
    server.peer_name = "phone";
    server.peer_allow_ip = ip;
    server.peer_allow_ip_mask = "32";
    server.peer_pub_key = pub_key;
    return server;
  }
  void add(const std::string& ip, const std::string& pub_key) {
    ASSERT_EQ(server_with(ip, pub_key).add_peer(), NO_ERROR);
  }
  void write_peers(const std::string& text) {
    std::filesystem::create_directories(folder);
    support::write(folder / "server_peers.conf", text);
  }
  [[nodiscard]] std::string stored(const char* section, const char* key) const {
    const Conf conf{Conf_Dir_Load((folder / "server_peers.conf").c_str())};
    return Conf_Dir_Get_Str(conf.get(), section, key, "(none)");
  }
  [[nodiscard]] std::string counts() const {
    return stored("global", "peers_num") + '/' + stored("global", "max_index");
  }
  support::Scratch scratch;
  const std::filesystem::path folder = scratch.path("deep/wireguard");  // does not exist at first
  std::string status;                                                   // what "wg show" prints
  int tool_status = 0;
  test::ScriptedBus bus;
};

TEST(WireGuardKey, IsTheTextOfThirtyTwoBytes) {
  const std::string digits(42, 'x');
  for (const std::string& key : {KEY_A, KEY_B, KEY_C, digits + "8="})
    EXPECT_TRUE(is_key(key)) << key;
  for (const std::string& text :
       {std::string(), digits + "9=", digits + "88", digits + "=", digits + "8==", digits + "8=\n",
        std::string(42, '-') + "8=", std::string(65536, 'A')}) {
    EXPECT_FALSE(is_key(text)) << text.substr(0, 50);
  }
}

TEST_F(WireGuard, AKeyReachesTheToolOnItsStandardInputAloneAndAnEmptyOneIsMadeAnew) {
  std::string pub_key, text;
  ASSERT_EQ(server_gen_pri_pub_keys(KEY_A, nullptr, pub_key), NO_ERROR);
  EXPECT_EQ(bus.programs.at(0).command(), "/usr/bin/wg pubkey");
  EXPECT_EQ(bus.programs[0].input, KEY_A);
  JsonValue doc;
  ASSERT_EQ(server_gen_pri_pub_keys("", &doc, pub_key), NO_ERROR);
  doc.toString(text);
  EXPECT_EQ(text, "{\"pri_key\":\"" + KEY_B + "\",\"pub_key\":\"" + KEY_C + "\"}");
  EXPECT_EQ(bus.programs.back().input, KEY_B);
  tool_status = -1;
  for (const std::string& key : {std::string(), KEY_A}) {
    EXPECT_EQ(server_gen_pri_pub_keys(key, nullptr, pub_key), ERR_CMD_FAILED);
    EXPECT_EQ(check_key(key), ERR_CMD_FAILED);
  }
  EXPECT_EQ(pub_key, KEY_C);
}

constexpr const char* SHOWN =
    "interface: wg0\n  public key: x\n  listening port: 51820\n\n"
    "peer: AAAA\n  endpoint: 192.0.2.7:40000\n  allowed ips: 198.18.7.2/32\n"
    "  latest handshake: 1 minute, 2 seconds ago\n  transfer: 1.20 KiB received, 3.40 MiB sent\n\n"
    "peer: BBBB\n  allowed ips: (none)\n\n"
    "peer: CCCC\n  allowed ips: 198.18.7.4/32\n  transfer: nonsense\n  latest handshake: late\n";

TEST(WireGuardStatus, TakesTheLinesOfOnePeerOnly) {
  const std::pair<const char*, const char*> rows[] = {
      {"AAAA", "198.18.7.2/32|1 minute, 2 seconds ago|1.20 KiB|3.40 MiB"},
      {"BBBB", "(none)|||"},
      {"CCCC", "198.18.7.4/32|||"},
      {"DDDD", "|||"},
      {"", "198.18.7.2/32|1 minute, 2 seconds ago|1.20 KiB|3.40 MiB"},
  };
  for (const auto& [key, expected] : rows) {
    const PeerStatus found = peer_status(SHOWN, key);
    EXPECT_EQ(found.allowed_ips + '|' + found.latest_handshake + '|' + found.rx_total + '|' +
                  found.tx_total,
              expected)
        << key;
  }
}

TEST_F(WireGuard, AFreedIndexIsUsedAgainBeforeANewOne) {
  for (const char* ip : {"198.18.7.2", "198.18.7.3", "198.18.7.4"}) add(ip, ip);
  ServerConfig server = server_with("198.18.7.9", KEY_A);
  EXPECT_EQ(counts(), "3/3");
  EXPECT_EQ(server.delete_peer(2), NO_ERROR);
  EXPECT_EQ(counts(), "2/3");
  EXPECT_EQ(PeerFile(folder).next_index(), 2);
  EXPECT_EQ(server.delete_peer(2), ERR_VALUE);  // it is gone
  EXPECT_EQ(server.add_peer(), NO_ERROR);
  EXPECT_EQ(stored("PEER2", "allow_ip"), "198.18.7.9");
  EXPECT_EQ(counts(), "3/3");
  for (const int index : {2, 3}) EXPECT_EQ(server.delete_peer(index), NO_ERROR);
  EXPECT_EQ(counts(), "1/1");
}

TEST_F(WireGuard, PeersThatHaveAKeyAreShown) {
  write_peers("[global]\npeers_num = 2\nmax_index = 3\n[PEER1]\npub_key = " + KEY_A +
              "\n[PEER3]\npub_key = " + KEY_B + '\n');
  JsonValue out;
  show_peers(out, PeerFile(folder));
  std::string text;
  out.toString(text);
  for (const std::string& part :
       {KEY_A, KEY_B, std::string("\"index\":1"), std::string("\"index\":3")})
    EXPECT_THAT(text, HasSubstr(part));
  EXPECT_THAT(text, Not(HasSubstr("\"index\":2")));
}

TEST_F(WireGuard, ADamagedPeerFileIsSurvivedAndPutInOrder) {
  write_peers(
      "[global]\npeers_num = -7\nmax_index = 2147483647\n[PEER1]\nallow_ip = "
      "198.18.7.2\n[PEER3]\n= x\n\x01\xff");
  add("198.18.7.3", KEY_A);
  EXPECT_EQ(stored("PEER2", "pub_key"), KEY_A);
  ServerConfig server = server_with("198.18.7.3", KEY_A);
  EXPECT_EQ(server.delete_peer(2), NO_ERROR);
  EXPECT_EQ(stored("global", "max_index"), "1");
  // A section twice is one peer, and what is no number is ignored.
  write_peers(
      "[global]\npeers_num = x\nmax_index = 2\n[PEER2]\nallow_ip = 198.18.7.5\n[PEER2]\n"
      "allow_ip = 198.18.7.6\n");
  EXPECT_EQ(server.check_peer_value(1), ERR_VALUE);
  EXPECT_EQ(server_with("198.18.7.6", KEY_A).check_peer_value(0), ERR_IP_POOL_CONFLICT);
  EXPECT_EQ(PeerFile(folder).next_index(), 1);
  write_peers("[global]\npeers_num = 99999\nmax_index = 99999\n");
  add("198.18.7.3", KEY_A);
  EXPECT_EQ(stored("PEER1", "pub_key"), KEY_A);
}

TEST_F(WireGuard, PeersMoveToTheServersNetworkInIndexOrder) {
  const config::PolyConfig before{std::make_unique<ServerConfig>(server_with("", ""))};
  config::cm.update(&before);
  write_peers(
      "[global]\npeers_num = 3\nmax_index = 5\n[PEER5]\nallow_ip = 198.18.7.2\n"
      "[PEER1]\nallow_ip = 198.18.7.77\n[PEER2]\nallow_ip =\n[PEER3]\nallow_ip = 198.18.7.3\n");
  ServerConfig server = server_with("", "");
  EXPECT_EQ(server.modify_peers_ip(), NO_ERROR);
  EXPECT_EQ(stored("PEER1", "allow_ip"), "198.18.7.77");  // the address is still the same
  server.server_ip = "10.9.0.1";
  EXPECT_EQ(server.modify_peers_ip(), NO_ERROR);
  const char* expected[][2] = {
      {"PEER1", "10.9.0.2"}, {"PEER2", ""}, {"PEER3", "10.9.0.3"}, {"PEER5", "10.9.0.4"}};
  for (const auto& [section, address] : expected)
    EXPECT_EQ(stored(section, "allow_ip"), address) << section;
}

TEST_F(WireGuard, APeersValuesAreCheckedAgainstServerAndOtherPeers) {
  add("198.18.7.2", KEY_A);
  add("198.18.7.3", KEY_B);
  const std::tuple<int, std::string, std::string, std::string, int> rows[] = {
      {0, "198.18.7.4", KEY_C, "", NO_ERROR},
      {0, "198.18.7.4", KEY_C, KEY_A, NO_ERROR},
      {2, "198.18.7.3", KEY_B, "", NO_ERROR},  // its own values
      {3, "198.18.7.4", KEY_C, "", ERR_VALUE},
      {0, "198.18.7.4", "", "", ERR_CMD_FAILED},
      {0, "198.18.7.4", "remove", "", ERR_CMD_FAILED},
      {0, "198.18.7.4", KEY_C, "short", ERR_VALUE},
      {0, "198.18.7.1", KEY_A, "", ERR_IP_POOL_CONFLICT},
      {0, "198.18.7.3", KEY_C, "", ERR_IP_POOL_CONFLICT},
      {1, "198.18.7.2", KEY_B, "", ERR_WIREGUARD_PEER_PUB_KEY_CONFLICT},
  };
  for (const auto& [index, ip, pub_key, psk, expected] : rows) {
    ServerConfig server = server_with(ip, pub_key);
    server.psk = psk;
    EXPECT_EQ(server.check_peer_value(index), expected) << index << ' ' << ip << ' ' << pub_key;
  }
}

TEST_F(WireGuard, APeerIsInstalledWithItsSecretInAFileOfItsOwner) {
  ServerConfig server = server_with("198.18.7.2", KEY_A);
  server.psk = KEY_B;
  server.peer_endpoint = "host:1";
  server.keepalive = 25;
  ASSERT_EQ(server.enable_peer(0), NO_ERROR);
  const std::string psk_file = folder / "peer_psk1";
  EXPECT_EQ(bus.programs.back().command(),
            "/usr/bin/wg set wg0 peer " + KEY_A + " allowed-ips 198.18.7.2/32" + " preshared-key " +
                psk_file + " endpoint host:1 persistent-keepalive 25");
  EXPECT_EQ(support::read(psk_file), KEY_B);
  ASSERT_EQ(server.add_peer(), NO_ERROR);
  EXPECT_EQ(support::mode_of(psk_file), 0600U);
  EXPECT_EQ(support::mode_of(folder / "server_peers.conf"), 0600U);
  EXPECT_EQ(support::mode_of(folder), 0700U);
  EXPECT_EQ(server.delete_peer(1), NO_ERROR);
  EXPECT_FALSE(std::filesystem::exists(psk_file));
}

TEST_F(WireGuard, AnEditedPeerGivesUpItsOldKeyFirst) {
  add("198.18.7.2", KEY_A);
  ServerConfig server = server_with("198.18.7.3", KEY_B);
  EXPECT_EQ(server.enable_peer(1), NO_ERROR);
  ASSERT_EQ(bus.programs.size(), 2U);
  EXPECT_EQ(bus.programs[0].command(), "/usr/bin/wg set wg0 peer " + KEY_A + " remove");
  EXPECT_EQ(bus.programs[1].command(),
            "/usr/bin/wg set wg0 peer " + KEY_B + " allowed-ips 198.18.7.3/32");
  EXPECT_EQ(server.modify_peer(1), NO_ERROR);
  EXPECT_EQ(stored("PEER1", "pub_key"), KEY_B);
  EXPECT_EQ(counts(), "1/1");
  tool_status = 1;
  EXPECT_EQ(server.enable_peer(1), ERR_CMD_FAILED);
  EXPECT_EQ(server.enable_peer(0), ERR_CMD_FAILED);
  EXPECT_EQ(server.disable_peer(1), ERR_WIREGUARD_SERVER_DELETE_PEER);
  EXPECT_EQ(server.disable_peer(2), NO_ERROR);  // nothing is installed there
}

TEST_F(WireGuard, APeerFileThatCannotBeWrittenIsReported) {
  scratch.write("deep", "a file where the folder should be");
  ServerConfig server = server_with("198.18.7.2", KEY_A);
  server.psk = KEY_B;
  EXPECT_EQ(server.add_peer(), ERR_SAVE_CONFIG);
  EXPECT_EQ(server.modify_peer(1), ERR_SAVE_CONFIG);
  EXPECT_EQ(server.enable_peer(0), ERR_CMD_FAILED);
  EXPECT_TRUE(bus.programs.empty());
}

ClientConfig usable_client() {
  ClientConfig client(1);
  client.name = client.client_name = "home";
  client.client_pri_key = KEY_A;
  client.client_ip = "10.0.0.9";
  client.client_mask = 32;
  client.client_mask_str = "255.255.255.255";
  client.peer_pub_key = KEY_B;
  client.peer_endpoint = "203.0.113.1:51820";
  return client;
}

TEST_F(WireGuard, AClientIsVerifiedInOrder) {
  const std::tuple<const char*, void (*)(ClientConfig&), int> rows[] = {
      {"nothing", [](ClientConfig&) {}, NO_ERROR},
      {"name before mask", [](ClientConfig& c) { c.client_name.clear(), c.port = -1; }, ERR_VALUE},
      {"mask before port", [](ClientConfig& c) { c.client_mask = 24, c.port = -1; }, ERR_VALUE},
      {"port", [](ClientConfig& c) { c.port = 65536; }, ERR_PORT_NUMBER},
      {"last port", [](ClientConfig& c) { c.port = 65535; }, NO_ERROR},
      {"index", [](ClientConfig& c) { c.index = 33; }, ERR_MAX_CONFIGS},
      {"address", [](ClientConfig& c) { c.client_ip = "10.0.0.256"; }, ERR_VALUE},
      {"no port", [](ClientConfig& c) { c.peer_endpoint = "host"; }, ERR_VALUE},
      {"endless endpoint", [](ClientConfig& c) { c.peer_endpoint = std::string(65536, 'h'); },
       ERR_VALUE},
      // What is left to the start script: it has to look the host up.
      {"empty port", [](ClientConfig& c) { c.peer_endpoint = "203.0.113.1:"; }, NO_ERROR},
      {"no host", [](ClientConfig& c) { c.peer_endpoint = ":51820"; }, NO_ERROR},
      {"endless host",
       [](ClientConfig& c) { c.peer_endpoint = std::string(65536, 'h') + ":51820"; }, NO_ERROR},
      {"IPv6", [](ClientConfig& c) { c.peer_endpoint = "[::1]:51820"; }, NO_ERROR},
      {"wide mask", [](ClientConfig& c) { c.client_mask = 33; }, ERR_VALUE},
      {"negative port", [](ClientConfig& c) { c.port = -1; }, ERR_PORT_NUMBER},
      {"private key", [](ClientConfig& c) { c.client_pri_key = "x"; }, ERR_VALUE},
      {"public key", [](ClientConfig& c) { c.peer_pub_key = "x"; }, ERR_VALUE},
      {"pre-shared key", [](ClientConfig& c) { c.psk = "x"; }, ERR_VALUE},
  };
  for (const auto& [what, spoil, expected] : rows) {
    ClientConfig client = usable_client();
    spoil(client);
    EXPECT_EQ(client.verify(), expected) << what;
  }
  ClientConfig client = usable_client();
  ASSERT_EQ(client.verify(), NO_ERROR);
  EXPECT_EQ(client.client_pub_key + ' ' + client.domain_ip + ' ' + client.domain_port,
            KEY_C + " 203.0.113.1 51820");
}

TEST_F(WireGuard, AClientShowsKeysToAnAdministratorOnly) {
  status = SHOWN;
  for (const USER_TYPE who : {GENERAL_USER, ADMIN_USER}) {
    JsonValue out;
    ClientConfig client = usable_client();
    client.enable = true;
    client.show(who, &out);
    std::string text;
    out.toString(text);
    for (const char* part :
         {"\"client_pri_key\":", "\"psk\":", "\"rx_total\":\"1.20 KiB\"", "\"status\":1"})
      EXPECT_EQ(text.find(part) != std::string::npos, who == ADMIN_USER) << part << " in " << text;
  }
  EXPECT_EQ(bus.programs.back().command(), "/usr/bin/wg show wgc3001");
}

TEST_F(WireGuard, AClientKeepsClearOfTheServersThatAreOn) {
  auto pptp = std::make_unique<pptp::ServerConfig>(0);
  pptp->enable = true;
  pptp->ip_begin = "10.0.0.2";
  const config::PolyConfig pptp_server{std::move(pptp)};
  auto own = std::make_unique<ServerConfig>(0);
  own->enable = true;
  own->port = 51820;
  own->server_ip = "10.9.0.1";
  own->server_mask_str = "255.255.0.0";
  const config::PolyConfig wireguard_server{std::move(own)};
  config::cm.update(&pptp_server);
  config::cm.update(&wireguard_server);
  const std::tuple<const char*, int, int> rows[] = {
      {"10.0.0.254", 1, ERR_IP_POOL_CONFLICT},
      {"10.0.1.1", 1, NO_ERROR},
      {"10.9.200.1", 1, ERR_IP_POOL_CONFLICT},
      {"10.0.1.1", 51820, ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE},
      {"10.0.0.254", 51820, ERR_IP_POOL_CONFLICT},  // the pools come first
      {"nonsense", 1, NO_ERROR},
  };
  for (const auto& [ip, port, expected] : rows)
    EXPECT_EQ(check_client_with_server_ip_pool_and_port(ip, "255.255.255.255", port), expected)
        << std::string(ip) + ' ' + std::to_string(port);
}

TEST_F(WireGuard, FindsTheLowestFreeAddressOfItsNetwork) {
  add("198.18.7.2", KEY_A);
  add("198.18.7.4", KEY_B);
  const std::tuple<const char*, int, const char*> rows[] = {
      {"198.18.7.1", 24, "198.18.7.3"}, {"198.18.7.3", 24, "198.18.7.1"},
      {"198.18.7.1", 16, "198.18.0.1"}, {"198.18.7.1", 8, "198.18.0.1"},
      {"198.18.7.1", 30, ""},           {"198.18.7.9", 30, "198.18.7.10"},
      {"198.18.7.1", 31, ""},           {"", 24, ""},
  };
  for (const auto& [server, mask, address] : rows)
    EXPECT_EQ(free_address(PeerFile(folder), server, mask), address) << server << '/' << mask;
}

TEST(WireGuardDevice, GetsItsFile) {
  const Hub hub{"SERVER", "2001:db8::1", 51820, "198.18.7.1", 16, "9.9.9.9"};
  EXPECT_EQ(configuration(hub, {"198.18.0.2", "PRIVATE", "PSK", false}),
            "[Interface]\nPrivateKey = PRIVATE\nAddress = 198.18.0.2/32\nDNS = 9.9.9.9\n\n[Peer]\n"
            "PublicKey = SERVER\nPresharedKey = PSK\nAllowedIPs = 198.18.0.0/16\n"
            "Endpoint = [2001:db8::1]:51820\nPersistentKeepalive = 25\n");
  EXPECT_EQ(encoded_name("\xc3\xa9 [1]\n%"), "%C3%A9%20%5B1%5D%0A%25");
  EXPECT_TRUE(is_key(make_psk()));
}

}  // namespace
}  // namespace ormel::wireguard
