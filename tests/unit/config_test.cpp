#include <gmock/gmock.h>

#include "base/tunnel.h"
#include "ormel/actions/gateway_policy.h"
#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/drivers/l2tp.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/pptp.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/interfaces.h"
#include "support/scratch_file.h"
#include "support/scripted_bus.h"

namespace ormel::config {
namespace {

using testing::HasSubstr;

// Not the global pool: every test starts from an empty one.
class PoolTest : public testing::Test {
 protected:
  template <typename Record>
  Record& store(int index) {
    const PolyConfig record(std::make_unique<Record>(index));
    pool.update(&record);
    return *pool.fetch(record->type, index)->template cast<Record>();
  }
  Management pool;
};

TEST_F(PoolTest, KeepsTheMssOfServersOnOneInterfaceAlike) {
  auto& pptp_server = store<pptp::ServerConfig>(0);
  auto& l2tp_server = store<l2tp::ServerConfig>(0);
  PolyConfig changed(std::make_unique<pptp::ServerConfig>(0));
  changed.cast<pptp::ServerConfig>()->mss = 1111;
  pool.sync_mss(PPTP_SERVER_TYPE, &changed);
  EXPECT_EQ(l2tp_server.mss, 1111);
  l2tp_server.mss = 1222;
  l2tp_server.out_eif = "eth0";
  pool.sync_mss(L2TP_SERVER_TYPE, pool.fetch(L2TP_SERVER_TYPE, 0));
  EXPECT_EQ(pptp_server.mss, 1300) << "another interface";
}

TEST_F(PoolTest, ReplacesARecordByItsUpdate) {
  store<pptp::ClientConfig>(2).name = "other";
  store<pptp::ClientConfig>(1).name = "old";
  store<pptp::ClientConfig>(1).name = "new";
  EXPECT_EQ(pool.config_pool.size(), 2U);
  pool.update(pool.fetch(PPTP_CLIENT_TYPE, 1));  // its own
  ASSERT_EQ(pool.config_pool.size(), 2U);
  EXPECT_EQ(pool.fetch(PPTP_CLIENT_TYPE, 1)->cast<ClientConfig>()->name, "new");
}

TEST_F(PoolTest, GivesTheLowestFreeSlot) {
  EXPECT_EQ(pool.fetch_slot(PPTP_CLIENT_TYPE), 1);
  for (const int index : {4, 1, 2}) store<pptp::ClientConfig>(index);
  EXPECT_EQ(pool.fetch_slot(PPTP_CLIENT_TYPE), 3);
  for (int index = 3; index < MAX_CLIENTS; ++index) store<pptp::ClientConfig>(index);
  EXPECT_EQ(pool.fetch_slot(PPTP_CLIENT_TYPE), MAX_CLIENTS);
  store<pptp::ClientConfig>(MAX_CLIENTS);
  EXPECT_EQ(pool.fetch_slot(PPTP_CLIENT_TYPE), 0);
}

TEST_F(PoolTest, LabelsTheInterfacesOfProfiles) {
  store<pptp::ClientConfig>(3).name = "office";
  store<drovik::ClientConfig>(32).name = "home";
  const std::pair<const char*, const char*> rows[] = {
      {"ppp1003", "office (PPTP)"}, {"ppp1004", " (PPTP)"},         {"ppp1253", " (L2TP/IPSec)"},
      {"tun2001", " (OpenVPN)"},    {"dtunc2532", "home (Drovik)"}, {"wgc3001", " (WireGuard)"},
      {"dtu", " (Drovik)"},         {"eth0", "unchanged"},          {"ppp0", "unchanged"},
  };
  for (const auto& [interface, label] : rows) {
    std::string out = "unchanged";
    pool.get_out_eif_str(interface, out);
    EXPECT_EQ(out, label) << interface;
  }
}

bool available(Management& pool, TYPE type, const char* address,
               const char* mask = "255.255.255.0") {
  in_addr addr{};
  in_addr bits{};
  EXPECT_TRUE(system::parse_address(address, addr) && system::parse_address(mask, bits));
  return pool.ip_pool_available(type, addr, bits);
}

TEST_F(PoolTest, KeepsTheAddressPoolsOfServersApart) {
  auto& pptp_server = store<pptp::ServerConfig>(0);
  auto& wireguard_server = store<wireguard::ServerConfig>(0);
  pptp_server.ip_begin = "10.0.9.2";
  wireguard_server.server_ip = "10.0.0.1";
  wireguard_server.server_mask_str = "255.255.0.0";
  EXPECT_TRUE(available(pool, L2TP_SERVER_TYPE, "10.0.9.100")) << "a server that is off";
  pptp_server.enable = true;
  EXPECT_FALSE(available(pool, L2TP_SERVER_TYPE, "10.0.9.100"));
  EXPECT_TRUE(available(pool, L2TP_SERVER_TYPE, "10.0.10.2"));
  EXPECT_TRUE(available(pool, PPTP_SERVER_TYPE, "10.0.9.2")) << "its own";
  EXPECT_FALSE(available(pool, WIREGUARD_SERVER_TYPE, "10.0.0.1", "255.255.0.0"));
  wireguard_server.enable = true;
  EXPECT_FALSE(available(pool, L2TP_SERVER_TYPE, "10.0.10.2"));
  wireguard_server.server_ip = "not an address";
  EXPECT_TRUE(available(pool, L2TP_SERVER_TYPE, "10.0.10.2"));
  auto& client = store<wireguard::ClientConfig>(1);
  client.client_ip = "10.0.10.7";
  client.client_mask_str = "255.255.255.255";
  EXPECT_FALSE(available(pool, L2TP_SERVER_TYPE, "10.0.10.2")) << "a client counts when it is off";
}

TEST_F(PoolTest, KeepsTheEndpointsOfWireGuardClientsApart) {
  auto& stored = store<wireguard::ClientConfig>(1);
  stored.client_ip = "10.1.1.1";
  stored.port = 5000;
  stored.domain_ip = "localhost";
  stored.domain_port = "51820";
  const std::tuple<int, const char*, const char*, const char*, int, int> rows[] = {
      {1, "10.1.1.1", "localhost", "51820", 5000, NO_ERROR},
      {2, "10.1.1.1", "a.invalid", "1", 0, ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE},
      {2, "10.1.1.2", "a.invalid", "1", 5000, ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE},
      {2, "10.1.1.2", "127.0.0.1", "51820", 0, ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE},
      {2, "10.1.1.2", "127.0.0.1", "51821", 0, NO_ERROR},
  };
  for (const auto& [index, client_ip, host, port, listen, code] : rows)
    EXPECT_EQ(pool.check_wireguard_client_profile(index, client_ip, host, port, listen), code)
        << std::string(client_ip) + ' ' + host + ' ' + port;
  EXPECT_EQ(pool.check_server_listen_port_with_client(5000), ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE);
  EXPECT_EQ(pool.check_server_listen_port_with_client(5001), NO_ERROR);
}

TEST_F(PoolTest, KeepsTheServersOfDrovikClientsApart) {
  auto& stored = store<drovik::ClientConfig>(1);
  const std::tuple<int, const char*, int, const char*, int> rows[] = {
      {2, "10.1.1.1", 443, "10.1.1.1", ERR_DROVIK_CLIENT_DUPLICATE},
      {1, "10.1.1.1", 443, "10.1.1.1", NO_ERROR},
      {2, "10.1.1.1", 444, "10.1.1.1", NO_ERROR},
      {2, "10.1.1.1", 443, "10.1.1.2", NO_ERROR},
      {2, "", 443, "", NO_ERROR},
  };
  stored.port = 443;
  for (const auto& [index, host, port, ip, code] : rows) {
    stored.ip = host;
    EXPECT_EQ(pool.check_drovik_client_profile(index, port, ip), code) << host << ' ' << ip;
  }
}

TEST_F(PoolTest, IsFullWithSixteenProfilesOfUsers) {
  store<pptp::ServerConfig>(0);
  store<pptp::ClientConfig>(32).vendor = "application";
  for (int index = 1; index < 16; ++index) store<pptp::ClientConfig>(index);
  EXPECT_FALSE(pool.is_full());
  store<drovik::ClientConfig>(1);
  EXPECT_TRUE(pool.is_full());
}

TEST(ServerRecord, TakesSegmentSizesThatItsDaemonCanUse) {
  constexpr int GOOD = ERR_NOT_SUPPORT;  // which the base class says of all
  for (const auto& [mss, code] :
       {std::pair{999, int{ERR_VALUE}}, {1000, GOOD}, {1400, GOOD}, {1401, ERR_VALUE}}) {
    pptp::ServerConfig record(0);
    record.mss = mss;
    testing::internal::CaptureStderr();
    EXPECT_EQ(record.verify(), code) << mss;
    testing::internal::GetCapturedStderr();
  }
  const support::ScratchFile file;
  for (const auto& [mss, stored] :
       {std::pair{999, 1400}, {1000, 1000}, {1600, 1600}, {1601, 1400}}) {
    const Conf conf{Conf_Dir_Load(file.path().c_str())};
    ovpn::ServerConfig record(0);
    record.mss = mss;
    record.save(conf.get());
    EXPECT_EQ(Conf_Dir_Get_Int(conf.get(), "OPENVPN", "MSS", 0), stored);
    EXPECT_EQ(record.mss, mss);
  }
}

TEST(ClientRecord, StoresTheAddressOfItsServerForTheScript) {
  const support::ScratchFile file;
  for (const auto& [host, address] : {std::pair{"127.0.0.1", "127.0.0.1"}, {"a.invalid", ""}}) {
    const Conf conf{Conf_Dir_Load(file.path().c_str())};
    l2tp::ClientConfig record(1);
    record.host = host;
    record.ip = "192.0.2.1";
    record.save(conf.get());
    EXPECT_STREQ(Conf_Dir_Get_Str(conf.get(), "L2TP_CLIENT1", "Domain IP", "none"), address);
  }
}

TEST(ServerRecord, ReadsAProtocolInAnyCase) {
  const support::ScratchFile file{"[OPENVPN]\nVPN Proto Type = tcp\n"};
  const Conf conf{Conf_Dir_Load(file.path().c_str())};
  ovpn::ServerConfig record(0);
  record.load(conf.get(), 0);
  EXPECT_EQ(record.protocol, "TCP");
}

// "Status" of the file is out of date: the process and the address count.
TEST(ClientRecord, IsUpWithAnAddressAndWantedOrAlive) {
  const std::tuple<const char*, pid_t, STATUS, const char*> rows[] = {
      {"Enable = TRUE\nLocalIP = 10.0.0.2\n", 0, CONNECTED_STATUS, "10.0.0.2"},
      {"Enable = TRUE\n", 0, CONNECTING_STATUS, ""},
      {"Enable = FALSE\nLocalIP = 10.0.0.2\n", 9, CONNECTED_STATUS, "10.0.0.2"},
      {"Enable = FALSE\nLocalIP = 10.0.0.2\nStatus = 2\n", 0, DISCONNECTED_STATUS, ""},
  };
  test::ScriptedBus bus;
  bus.answer(R"({"error":0,"data":{"rx_bytes":1,"tx_bytes":1,"rx_rate":1,"tx_rate":1}})");
  for (const auto& [lines, process, status, address] : rows) {
    SCOPED_TRACE(lines);
    const support::ScratchFile file{std::string("[PPTP_CLIENT3]\nIndex = 7\n") + lines};
    const Conf conf{Conf_Dir_Load(file.path().c_str())};
    pptp::ClientConfig record(3);
    record.load(conf.get(), process);
    EXPECT_EQ(record.index, 3) << "the section's number";
    EXPECT_EQ(record.status, status);
    JsonValue out;
    record.show(ADMIN_USER, &out);
    std::string text;
    out.toString(text);
    EXPECT_THAT(text, HasSubstr(std::string("\"local_ip\":\"") + address + '"'));
    EXPECT_THAT(text,
                HasSubstr(status == DISCONNECTED_STATUS ? "\"rx_total\":0" : "\"rx_total\":1"));
  }
}

TEST(ClientRecord, ChecksTheWholeRecord) {
  const std::pair<void (*)(pptp::ClientConfig&), int> rows[] = {
      {[](auto&) {}, NO_ERROR},
      {[](auto& r) { r.encryption = static_cast<ENCRYPTION>(-1); }, ERR_ENCRYPTION},
      {[](auto& r) { r.authentication = static_cast<AUTHENTICATION>(0); }, ERR_AUTHENTICATION},
      {[](auto& r) { r.authentication = PAP_AUTHENTICATION; }, NO_ERROR},
      {[](auto& r) { r.authentication = CHAP_AUTHENTICATION; }, NO_ERROR},
      {[](auto& r) { r.authentication = static_cast<AUTHENTICATION>(5); }, ERR_AUTHENTICATION},
      {[](auto& r) { r.mask = 7; }, ERR_MASK_LENGTH},
      {[](auto& r) { r.mask = 8; }, NO_ERROR},
      {[](auto& r) { r.mask = 32; }, NO_ERROR},
      {[](auto& r) { r.mask = 33; }, ERR_MASK_LENGTH},
      {[](auto& r) { r.index = 32; }, NO_ERROR},
      {[](auto& r) { r.index = 33; }, ERR_MAX_CONFIGS},
      {[](auto& r) { r.name.clear(); }, ERR_NAME_LENGTH},
      {[](auto& r) { r.name.assign(601, 'n'); }, ERR_NAME_LENGTH},
      {[](auto& r) { r.host.clear(); }, ERR_HOST_LENGTH},
      {[](auto& r) { r.host.assign(256, 'h'); }, ERR_HOST_LENGTH},
  };
  for (const auto& [spoil, code] : rows) {
    pptp::ClientConfig record(1);
    record.name.assign(600, 'n');
    record.host.assign(255, 'h');
    spoil(record);
    testing::internal::CaptureStderr();
    EXPECT_EQ(record.verify(), code);
    const std::string text = get_error_message(static_cast<unsigned>(code));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), code ? "Error: " + text + '\n' : "");
  }
}

class ConnectionTest : public testing::Test {
 protected:
  test::ScriptedBus bus;
  pptp::ClientConfig record{3};
};

TEST_F(ConnectionTest, TakesCountersOfAnyNumberAndKeepsTheOldOnesOtherwise) {
  bus.answer(
      R"({"error":0,"data":{"rx_bytes":5e3,"tx_bytes":18446744073709,"rx_rate":-4,"tx_rate":1e300}})");
  record.update_connection();
  EXPECT_EQ(bus.calls.at(0).method, "interfaces_monitor.get_info_interfaces");
  EXPECT_EQ(bus.calls.at(0).request, R"({"name_interface":"ppp1003"})");
  EXPECT_EQ(std::tuple(record.rx, record.tx, record.rx_rate, record.tx_rate),
            std::tuple(5000U, 18446744073709U, 0, INT_MAX));
  for (const char* reply :
       {"", "[]", "{", R"({"error":"0"})", R"({"error":1})", R"({"error":0,"data":[]})",
        R"({"error":0,"data":{"rx_bytes":"1","tx_bytes":1,"rx_rate":1,"tx_rate":1}})",
        R"({"error":0,"data":{"rx_bytes":1,"tx_bytes":1,"rx_rate":1}})"}) {
    bus.answer(reply);
    record.update_connection();
    EXPECT_EQ(record.rx, 5000U) << reply;
  }
}

TEST_F(ConnectionTest, RegistersTheProfileInAFixedForm) {
  record.name = "of\xff\"fice";
  bus.answer(R"({"error":0})");
  EXPECT_EQ(record.mibcall_external_dev(ClientConfig::opt_ext_dev_register), NO_ERROR);
  EXPECT_EQ(
      bus.calls.at(0).request,
      R"({"key":"PPTP_CLIENT3","as_default_gw":"0","profile":"of�\"fice","status":"0","ip4_ip":"",)"
      R"("ip4_netmask":"","ifname":"ppp1003","type":"VPN","protocol":"PPTP","country_code":"","dns":"","ip4_gw":""})");
  wireguard::ClientConfig client(32);
  client.dns_server = "9.9.9.9";
  EXPECT_EQ(client.mibcall_external_dev(ClientConfig::opt_ext_dev_modify), NO_ERROR);
  EXPECT_THAT(bus.calls.at(1).request, HasSubstr(R"("dns":"9.9.9.9","ip4_gw":"0.0.0.0"})"));
}

TEST(Addresses, IntersectWhereNetworksShareOneAddress) {
  const std::tuple<system::Network, system::Network, bool> rows[] = {
      {{"10.0.0.0", "255.255.255.0"}, {"10.0.0.255", "255.255.255.255"}, true},
      {{"10.0.0.0", "255.255.255.0"}, {"10.0.0.0", "255.255.255.255"}, true},
      {{"10.0.0.0", "255.255.255.0"}, {"10.0.1.0", "255.255.255.0"}, false},
      {{"10.0.0.7", "255.255.255.255"}, {"10.0.0.7", "255.255.255.255"}, true},
      {{"10.0.0.7", "255.255.255.255"}, {"10.0.0.8", "255.255.255.255"}, false},
      {{"10.0.0.0", "no mask"}, {"10.0.0.0", "255.255.255.0"}, false},
  };
  for (const auto& [a, b, shared] : rows) {
    EXPECT_EQ(system::is_intersect(a, b), shared) << a.address << ' ' << b.address;
    EXPECT_EQ(system::is_intersect(b, a), shared) << b.address << ' ' << a.address;
  }
}

TEST(Addresses, HaveMasksWithoutHoles) {
  for (const int prefix : {0, 1, 8, 24, 31, 32}) {
    in_addr mask{};
    ASSERT_TRUE(system::parse_address(system::dotted_mask(prefix), mask));
    EXPECT_EQ(system::netmask_to_prefix(mask.s_addr), prefix);
  }
  EXPECT_LT(system::netmask_to_prefix(htonl(0xff00ff00)), 0);
}

TEST(Interfaces, BelongToProfilesByTheirNumber) {
  const std::tuple<const char*, TYPE, int> rows[] = {
      {"ppp999", NONE_TYPE, 999},
      {"ppp1249", PPTP_CLIENT_TYPE, 249},
      {"ppp1000", PPTP_CLIENT_TYPE, 0},
      {"dtunc2501", DROVIK_CLIENT_TYPE, 1},
      {"ppp1250", L2TP_CLIENT_TYPE, 0},
      {"wgc3001", WIREGUARD_CLIENT_TYPE, 1},
      {"eth0", NONE_TYPE, 0},
      {"tun2032", OVPN_CLIENT_TYPE, 32},
      {"tun", NONE_TYPE, 0},
  };
  for (const auto& [name, type, index] : rows) {
    TYPE found = PPTP_SERVER_TYPE;
    int number = 0;
    ifname_to_typeindex(name, found, number);
    EXPECT_EQ(found, type) << name;
    EXPECT_EQ(number, index) << name;
  }
}

}  // namespace
}  // namespace ormel::config
