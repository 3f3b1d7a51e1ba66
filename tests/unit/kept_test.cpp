// What no part of the program calls and other programs of the appliance rely on.
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include <fenro/event_log.h>
#include <gtest/gtest.h>

#include "ormel/actions/actions.h"
#include "ormel/actions/log_db_mobile.h"
#include "ormel/base/text.h"
#include "ormel/cgi/cgi.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/pptp.h"
#include "ormel/drivers/wireguard/tool.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/event_log.h"
#include "ormel/host/interfaces.h"
#include "ormel/host/process.h"
#include "ormel/host/vpn_process.h"
#include "ormel/membership/gateway.h"
#include "ormel/membership/settings.h"
#include "ormel/option.h"
#include "ormel/options/apply.h"
#include "support/scripted_bus.h"

namespace {

std::vector<std::pair<int, std::string>> events;

}  // namespace

int naslog_event_add(const naslog_event* event) {
  events.emplace_back(event->type, event->event_desc);
  return 0;
}

namespace ormel {
namespace {

TEST(Kept, FunctionsOfTheLogDatabaseCallTheirMethods) {
  const db_conn_client_log_data client{};
  const db_event_data event{};
  const db_server_list_data session{};
  const db_query_cond all{};
  const db_delete_cond row{7};
  db_event_query found_events{};
  db_server_list_query found_sessions{};
  auto* events_out = &found_events;
  auto* sessions_out = &found_sessions;
  const std::pair<std::function<int()>, std::string> rows[] = {
      {[&] { return add_conn_client_log(&client); }, "db_conn_client_log_insert"},
      {[&] { return delete_conn_client_log(&row); }, "db_conn_client_log_del"},
      {[&] { return delete_conn_server_log(&row); }, "db_conn_server_log_del"},
      {[&] { return add_event_data(&event); }, "db_event_insert"},
      {[&] { return list_event_data(&all, &events_out); }, "db_event_query"},
      {[&] { return add_server_list(&session); }, "db_server_list_insert"},
      {[&] { return list_server_list(&all, &sessions_out); }, "db_server_list_query"},
      {[&] { return delete_server_list(&row); }, "db_server_list_del"},
      {[&] { return clean_server_list(); }, "db_server_list_clean"},
      {[&] { return delete_device_info(&row); }, "db_device_info_del"},
      {[&] { return clean_device_info(); }, "db_device_info_clean"},
  };
  test::ScriptedBus bus;
  bus.answer("");
  for (const auto& [function, method] : rows) {
    EXPECT_EQ(function(), 0) << method;
    EXPECT_EQ(bus.calls.back().method, method);
  }
  EXPECT_EQ(bus.calls.at(1).request, std::string("\7\0\0\0\0\0\0\0", 8));
}

TEST(Kept, AnswersOfTheNetworkDaemonArePassedOn) {
  test::ScriptedBus bus;
  std::string failed;
  const Json interface { json_pack("{s:s}", "ifname", "eth0") };
  bus.answer(R"({"error":0,"data":{"tx_rate":5,"rx_rate":6}})");
  EXPECT_EQ(get_Interface_transmit_rate(interface.get(), failed), 0);
  EXPECT_EQ(json_integer_value(json_object_get(interface.get(), "rx_rate")), 6);
  bus.answer(R"({"error":0,"data":[{"ifname":"eth0","status":{"IPv4":[{"ip":"192.0.2.254"}]}}]})");
  EXPECT_EQ(pelmar::get_gateway_ip(), "192.0.2.254");
  bus.answer("no json");
  EXPECT_EQ(pelmar::get_gateway_ip(), "");
}

TEST(Kept, SettingsAreReadByTheAppliancesTool) {
  test::ScriptedBus bus;
  bus.run = [](const test::ProgramCall& call, std::string& output) {
    EXPECT_EQ(call.argv.at(2), "Enable");
    output = "true\n";
    return 0;
  };
  EXPECT_TRUE(pelmar::is_test_flag_set());
  std::string folder = "old";
  bus.run = [](const test::ProgramCall&, std::string& output) {
    return output = "/opt/ormel\n", 0;
  };
  wireguard::get_ormel_pakrix_path(folder);
  EXPECT_EQ(folder, access("/usr/local/network/bin/logrotate", F_OK) == 0 ? "/opt/ormel" : "");
}

TEST(Kept, EventsHaveTheirTextsAndKinds) {
  events.clear();
  system::add_up_event_log("OpenVPN", "server", "on");
  system::add_down_event_log("OpenVPN", "server", "off");
  system::add_apply_event_log("PPTP", "server");
  system::add_remove_event_log("PPTP", "office");
  const std::vector<std::pair<int, std::string>> expected{
      {0, "[ORMEL Service] OpenVPN server is on."},
      {0, "[ORMEL Service] OpenVPN server is off."},
      {0, "[ORMEL Service] PPTP server configuration is applied."},
      {1, "[ORMEL Service] PPTP office configuration is removed."},
  };
  EXPECT_EQ(events, expected);
}

TEST(Kept, OptionsWithoutARowAreApplied) {
  config::PolyConfig record{std::make_unique<ovpn::ClientConfig>(0)};
  const std::pair<option::option_funcion, ACTION> rows[] = {
      {option::apply_show_all, SHOW_ACTION},
      {option::apply_connect_all, CONNECT_ACTION},
      {option::apply_disconnect_all, DISCONNECT_ACTION}};
  config::BaseConfig* work = record.bc.get();
  for (const auto& [apply, action] : rows) {
    record->action = NONE_ACTION;
    EXPECT_EQ(apply(&work, nullptr), NO_ERROR);
    EXPECT_EQ(record->action, action);
  }
  EXPECT_EQ(option::apply_secret(&work, "f"), NO_ERROR);
  EXPECT_EQ(record.cast<ovpn::ClientConfig>()->secret, "f");
  EXPECT_EQ(option::mb_string("a\xc3\xa9z", 2), "a");
  EXPECT_EQ(option::mb_string("\xe0\xa4\x85z", 2), "");
  char list[][5] = {"a:1", ":1", "a:", "a"};
  for (char* text : {list[1], list[2], list[3]}) EXPECT_EQ(cut_pattern(text, ':'), nullptr) << text;
  EXPECT_STREQ(cut_pattern(list[0], ':'), "1");
}

TEST(Kept, ThePoolCreatesClientsInTheLowestSlot) {
  config::Management pool;
  config::PolyConfig client{std::make_unique<pptp::ClientConfig>(0)};
  EXPECT_EQ(pool.create(&client), NO_ERROR);
  EXPECT_EQ(client->index, 1);
  EXPECT_TRUE(pool.fetch(PPTP_CLIENT_TYPE, 1));
  testing::internal::CaptureStderr();
  EXPECT_EQ(pool.create(&client), ERR_CONFIGURE_INDEX);
  config::PolyConfig server{std::make_unique<pptp::ServerConfig>(0)};
  EXPECT_EQ(pool.create(&server), ERR_WRONG_TYPE);
  testing::internal::GetCapturedStderr();
}

TEST(Kept, WireGuardClientsResolveAndMakeKeys) {
  wireguard::ClientConfig client(1);
  std::vector<std::string> addresses;
  client.nslookup("127.0.0.1", addresses);
  EXPECT_EQ(addresses, std::vector<std::string>{client.ip});
  test::ScriptedBus bus;
  bus.run = [](const test::ProgramCall&, std::string&) { return 1; };
  JsonValue out;
  EXPECT_EQ(client.gen_pri_pub_keys("", &out), ERR_CMD_FAILED);
  EXPECT_EQ(wireguard::ServerConfig(0).check_private_key(), ERR_NOT_SUPPORT);
}

TEST(Kept, ProcessesAreEnded) {
  const pid_t child = fork();
  if (child == 0) {
    setpgid(0, 0);
    for (;;) pause();
  }
  setpgid(child, child);
  EXPECT_EQ(system::kill(-child, SIGCONT), 0);
  system::VpnProcess running;
  running.processes.push_back({1, child, PPTP_CLIENT_TYPE});
  running.kill(child + 1);
  running.kill(child);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WTERMSIG(status), SIGUSR2);
  EXPECT_EQ(running.pidof(PPTP_CLIENT_TYPE, 1), 0);
  EXPECT_EQ(system::kill(-child, SIGKILL), -1);
}

TEST(Kept, TheGatewayPolicyIsPrintedForAHostProgram) {
  std::string words[] = {"ormel", "get", "no such member"};
  char* argv[] = {words[0].data(), words[1].data(), words[2].data()};
  testing::internal::CaptureStdout();
  EXPECT_EQ(cmd_global_opt(argv[0], 3, argv), 0);
  EXPECT_EQ(cmd_global_opt(argv[0], 1, argv), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "{\"data\":{},\"error\":0}\n{\"error\":-1}\n");
}

TEST(Kept, ARequestIsDumpedWithItsRepeats) {
  setenv("QUERY_STRING", "a=1&a=2", 1);
  cgi_settings settings = cgi_default_settings;
  settings.var_mode = MULTIPLE_VAR_MODE;
  const CgiRequest request(settings);
  unsetenv("QUERY_STRING");
  testing::internal::CaptureStderr();
  cgi_var_dump(request.find("a"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "a = 1, file (null), status 0\n  a = 2, file (null), status 0\n");
}

}  // namespace
}  // namespace ormel
