#include "ormel/drivers/drovik/drovik.h"

#include <gtest/gtest.h>

#include "ormel/base/error.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/factory_psk.h"
#include "ormel/drivers/l2tp.h"
#include "support/scripted_bus.h"

namespace ormel::drovik {
namespace {

class DrovikBus : public testing::Test {
 protected:
  void TearDown() override { config::cm.config_pool.clear(); }
  test::ScriptedBus bus;
};

TEST_F(DrovikBus, KickNamesTheClientWhateverItsIdentifierHolds) {
  bus.answer(R"({"error":0})");
  EXPECT_EQ(drovik_server_kick_client("52:54:00"), NO_ERROR);
  EXPECT_EQ(drovik_server_kick_client("a\",\"all\":\"1\n\xff%s"), NO_ERROR);
  ASSERT_EQ(bus.calls.size(), 2U);
  EXPECT_EQ(bus.calls[0].service + '.' + bus.calls[0].method, "MorviServer.disconnect");
  EXPECT_EQ(bus.calls[0].request, R"({"mac":"52:54:00"})");
  EXPECT_EQ(bus.calls[1].request, "{\"mac\":\"a\\\",\\\"all\\\":\\\"1\\n\xef\xbf\xbd%s\"}");
}

TEST_F(DrovikBus, BytesAreReceivedThenSentAndBadElementsAreSkipped) {
  bus.answer(R"({"error":0,"data":[
      {"mac":"a","rx_bytes":1,"tx_bytes":2},
      {"rx_bytes":1,"tx_bytes":2}, 7, null,
      {"mac":"b","rx_bytes":"1","tx_bytes":2}, {"mac":"c","rx_bytes":1.5,"tx_bytes":2},
      {"mac":"d","rx_bytes":4294967296,"tx_bytes":-1},
      {"mac":"a","rx_bytes":3,"tx_bytes":4}]})");
  const std::map<std::string, std::vector<unsigned long long>> expected{{"a", {3, 4}},
                                                                        {"d", {4294967296, ~0ULL}}};
  EXPECT_EQ(get_drovik_client_bytes_info(), expected);
  EXPECT_EQ(bus.calls.at(0).request, "");

  for (const char* reply :
       {"", "[]", R"({"data":[]})", R"({"error":0})", R"({"error":0,"data":{}})",
        R"({"error":2,"data":[{"mac":"a","rx_bytes":1,"tx_bytes":2}]})"}) {
    bus.answer(reply);
    EXPECT_TRUE(get_drovik_client_bytes_info().empty()) << reply;
  }
}

ClientConfig usable(int slot) {
  ClientConfig record(slot);
  record.name = "office";
  record.psk = "secret";
  record.host = record.ip = "203.0.113.7";
  return record;
}

using DrovikClient = DrovikBus;

TEST_F(DrovikClient, VerifyRefusesInOrder) {
  const std::tuple<const char*, void (*)(ClientConfig&), int> rows[] = {
      {"nothing", [](ClientConfig&) {}, NO_ERROR},
      {"key before port", [](auto& r) { r.psk.clear(), r.port = 0; }, ERR_VALUE},
      {"debug", [](auto& r) { r.debug = 2; }, ERR_VALUE},
      {"negative debug", [](auto& r) { r.debug = -1; }, ERR_VALUE},
      {"port 0", [](auto& r) { r.port = 0; }, ERR_PORT_NUMBER},
      {"port 65536", [](auto& r) { r.port = 65536; }, ERR_PORT_NUMBER},
      {"port 65535", [](auto& r) { r.port = 65535; }, NO_ERROR},
      {"name", [](auto& r) { r.name.clear(); }, ERR_NAME_LENGTH},
  };
  for (const auto& [what, spoil, expected] : rows) {
    ClientConfig record = usable(1);
    spoil(record);
    EXPECT_EQ(record.verify(), expected) << what;
  }
}

TEST_F(DrovikClient, TwoProfilesToOneAddressAndPortAreRefused) {
  const config::PolyConfig stored{std::make_unique<ClientConfig>(usable(1))};
  config::cm.update(&stored);
  ClientConfig other = usable(2);
  EXPECT_EQ(usable(1).verify(), NO_ERROR);
  EXPECT_EQ(other.verify(), ERR_DROVIK_CLIENT_DUPLICATE);
  other.name.clear();
  EXPECT_EQ(other.verify(), ERR_NAME_LENGTH);  // a bad name is reported first
  other.name = "other";
  ++other.port;
  EXPECT_EQ(other.verify(), NO_ERROR);
}

template <typename Server>
std::string key_left(bool enabled, const char* psk) {
  Server server(0);
  server.enable = enabled;
  server.psk = psk;
  server.clean_psk();
  return server.psk;
}

TEST(FactoryPsk, IsForgottenByServersThatAreOff) {
  for (const auto& left : {key_left<l2tp::ServerConfig>, key_left<ServerConfig>}) {
    EXPECT_EQ(left(false, FACTORY_PSK), "");
    EXPECT_EQ(left(true, FACTORY_PSK), FACTORY_PSK);
    EXPECT_EQ(left(false, "mine"), "mine");
  }
}

}  // namespace
}  // namespace ormel::drovik
