// Figures for a monitoring system and tokens of other programs, by the real web server and daemons:
// what is said while daemons are dead or hang, and what a token opens and leaves behind.
// appliance: --web

#include <algorithm>
#include <chrono>
#include <csignal>
#include <pwd.h>
#include <regex>

#include "base/second_factor.h"
#include "ormel/base/crypto.h"
#include "ormel/web/routes.h"
#include "support/exposition.h"
#include "support/log_rows.h"
#include "support/ormelctl.h"
#include "support/web_request.h"

using namespace ormel::test;
using support::Exposition;
using support::parse_exposition;

namespace {

constexpr const char* METRICS = "/ormel/metrics";
constexpr const char* TOKENS = "/etc/config/ormel/tokens.json";

std::string bearer(const std::string& token) {
  return "HTTP_AUTHORIZATION=Bearer " + token;
}

class Monitoring : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    fs::remove(TOKENS);
    fs::remove_all("/run/fenro/tokens");
    bus(ormel::log_db::SERVICE, "db_conn_server_log_clean", "");
    bus(ormel::log_db::SERVICE, "db_privilege_user_block_clean", "");
  }

  static std::string token_of(const char* scope) {
    const std::string text =
        ctl(std::string("token add ") + scope + " --expires 1h --scope " + scope).out;
    return text.substr(0, text.find('\n'));
  }
  Exposition figures(const std::string& more = {}) const {
    const WebReply reply = cgi(METRICS, admin + more);
    EXPECT_THAT(reply.head, HasSubstr("text/plain; version=0.0.4; charset=utf-8"));
    Exposition parsed = parse_exposition(reply.body);
    EXPECT_THAT(parsed.faults, testing::IsEmpty());
    return parsed;
  }
};

auto series(const Exposition& found, const std::string& start) {
  return std::ranges::count_if(found.samples,
                               [&](const auto& one) { return one.first.starts_with(start); });
}

// With the families without another source.
const std::pair<std::string, std::vector<const char*>> DAEMONS[] = {
    {"ormeld", {"ormel_login_failures_1h", "ormel_users_blocked"}},
    {"fenro-networkd", {"ormel_gateway_switches_total", "ormel_guard_holding"}},
    {"fenro-jsond", {}},
    {"fenro-rated", {}},
    {"pelmar-agentd", {}},
    {"fenro-keeperd", {}},
};

void add_refusal(ormel::TYPE type, const char* reason, std::time_t ago) {
  db_conn_server_log row{};
  row.vpn_type = type;
  row.action = 1;
  row.time = static_cast<uint64_t>(std::time(nullptr) - ago);
  std::strcpy(row.device_info, reason);
  bus(ormel::log_db::SERVICE, ormel::log_db::CONN_SERVER_LOG.insert, bytes_of(row));
}

TEST_F(Monitoring, CountsRefusedLoginsOfAnHourAndBlockedUsers) {
  add_refusal(ormel::OVPN_SERVER_TYPE, "wrong password", 4000);
  for (int i = 0; i < 120; ++i) add_refusal(ormel::OVPN_SERVER_TYPE, "wrong password", 60);
  add_refusal(ormel::OVPN_SERVER_TYPE, "blocked after too many wrong passwords", 50);
  add_refusal(ormel::PPTP_SERVER_TYPE, "kept out by an administrator", 40);
  add_refusal(ormel::OVPN_SERVER_TYPE,
              fenro::reason_of_factor(static_cast<int>(fenro::FactorRefusal::Absent)), 35);
  add_refusal(ormel::PPTP_SERVER_TYPE, "\xff\"\n", 30);
  for (int i = 0; i < 5; ++i)
    bus(ormel::log_db::SERVICE, ormel::log_db::PRIVILEGE_USER_BLOCK.insert, "guest");
  const Exposition found = figures();
  const std::string family = "ormel_login_failures_1h";
  for (const auto& [labels, count] : {std::pair{"{protocol=\"openvpn\",reason=\"password\"}", 120},
                                      {"{protocol=\"openvpn\",reason=\"blocked\"}", 1},
                                      {"{protocol=\"openvpn\",reason=\"second-factor\"}", 1},
                                      {"{protocol=\"pptp\",reason=\"held\"}", 1},
                                      {"{protocol=\"pptp\",reason=\"other\"}", 1},
                                      {"{protocol=\"drovik\",reason=\"password\"}", 0}})
    EXPECT_EQ(found.samples.at(family + labels), count) << labels;
  EXPECT_EQ(found.samples.at("ormel_users_blocked"), 1);
}

TEST_F(Monitoring, NamesProfilesAsTheyAreCalledWhateverThatIs) {
  std::string profiles = pptp_client(1);
  for (const auto& [index, name] :
       {std::pair{"2", "of%22fi%0Ace%5C"}, {"3", "twice"}, {"4", "twice"}, {"5", "%FF%00"}})
    profiles += std::string("[PPTP_CLIENT") + index + "]\nIndex = " + index +
                "\nProfile File = " + name + "\nServer Address = 127.0.0.1\nEnable = TRUE\n";
  write(VPN_CONF, profiles);
  const Exposition found = figures();
  EXPECT_EQ(series(found, "ormel_tunnel_up"), 5);
  EXPECT_TRUE(
      found.samples.count(R"re(ormel_tunnel_up{protocol="pptp",profile="of\"fi\nce\\"})re"));
  EXPECT_TRUE(found.samples.count(R"re(ormel_tunnel_up{protocol="pptp",profile="twice/4"})re"));
}

TEST_F(Monitoring, SaysThatSettingsCannotBeReadAndChangesNothing) {
  const std::tuple<const char*, const char*, const char*> damages[] = {
      {"mkdir $F", "folder", "is a folder"},
      {"mkfifo $F", "no-file", "is not a regular file"},
      {"ln -s $F $F", "unreadable", "cannot be read: Too many levels"},
      {"printf '[PPTP]\\0' >$F", "binary", "holds binary data"},
      {"echo PPTP >$F", "no-section", "has no section"},
  };
  constexpr const char* READABLE = "ormel_config_readable";
  constexpr const char* COMMANDS[] = {"profile add pptp --name x --host 192.0.2.1",
                                      "profile add pptp --name x --host 192.0.2.1 --dry-run",
                                      "server set pptp --max 7 --yes --confirm 90s",
                                      "backup /root/x.ormel --passphrase-file /root/passphrase",
                                      "apply /root/site.json"};
  write("/root/site.json", R"({"format": 1, "block": {"limit": 4}})");
  write("/root/passphrase", "correct horse battery");
  const std::vector<std::string> identity{"/usr/bin/stat", "-c", "%F %i %s %z", VPN_CONF};
  const auto states = [&] { return cgi("/ormel/status/list", admin).body; };
  EXPECT_EQ(figures().samples.at(READABLE), 1);
  EXPECT_TRUE(figures().has("ormel_server_up"));
  EXPECT_THAT(states(), Not(HasSubstr("\"settings\"")));
  for (const auto& [damage, code, said] : damages) {
    SCOPED_TRACE(said);
    shell(std::string("F=/etc/config/vpn.conf; rm -rf $F; ") + damage);
    const std::string before = run(identity).out;
    for (const char* command : COMMANDS)
      EXPECT_THAT(ended(1, command).err, AllOf(HasSubstr(said), HasSubstr("nothing was changed"),
                                               HasSubstr("ormelctl restore FILE")));
    for (const char* route : {"cert/rotate", "cert/renew", "peer/add", "peer/modify", "peer/remove",
                              "my/device_add", "my/device_remove"}) {
      const WebReply refused = cgi(std::string("/ormel/") + route, admin + "&index=1");
      EXPECT_EQ(refused.status, ormel::ERR_REGULAR_FILE) << route;
      EXPECT_THAT(refused.body, AllOf(HasSubstr(said), HasSubstr("ormelctl doctor")));
    }
    EXPECT_EQ(ctl("__tend-certificates").status, 0);
    EXPECT_EQ(ctl("user policy --limit 4").status, 0) << "which is kept elsewhere";

    for (const char* shows :
         {"status", "status pptp --check off", "why", "keeper", "export", "diff /root/site.json",
          "profile list", "server list", "server show pptp", "peer list", "gateway show"})
      EXPECT_THAT(ended(1, shows).err, AllOf(HasSubstr(said), HasSubstr("ormelctl restore FILE")));
    EXPECT_THAT(ctl("doctor").out, HasSubstr(said));
    EXPECT_THAT(states(), HasSubstr("\"settings\":{\"code\":\"" + std::string(code) +
                                    "\",\"text\":\"/etc/config/vpn.conf " + said));
    const Exposition found = figures();
    EXPECT_EQ(found.samples.at(READABLE), 0);
    EXPECT_FALSE(found.has("ormel_server_up") || found.has("ormel_tunnel_up"));
    EXPECT_EQ(run(identity).out, before);
  }
  const std::string damaged = read(VPN_CONF), copy = std::string(VPN_CONF) + ".damaged";
  EXPECT_EQ(cgi("/ormel/config/add", admin + "&type=256&name=x&host=192.0.2.1").status, 0);
  EXPECT_NE(read(VPN_CONF), damaged) << "what is fixed goes on";
  EXPECT_EQ(read(copy), damaged);
  EXPECT_EQ(mode_of(copy), 0600U);
  EXPECT_EQ(ctl("undo --yes").status, 0);
  EXPECT_EQ(read(VPN_CONF), damaged) << "the snapshot has it, too";
  fs::remove(copy);
  fs::remove(VPN_CONF);
  EXPECT_EQ(figures().samples.at(READABLE), 1) << "a new host has no settings";
}

TEST_F(Monitoring, WritesAFileAsAWholeOrNotAtAll) {
  write("/tmp/ormel.prom", "old");
  EXPECT_EQ(ctl("metrics --textfile /tmp/ormel.prom").status, 0);
  EXPECT_THAT(parse_exposition(read("/tmp/ormel.prom")).faults, testing::IsEmpty());
  EXPECT_EQ(mode_of("/tmp/ormel.prom"), 0644U);
  write("/tmp/other", "kept");
  fs::remove("/tmp/ormel.prom");
  fs::create_symlink("/tmp/other", "/tmp/ormel.prom");
  EXPECT_EQ(ctl("metrics --textfile /tmp/ormel.prom").status, 0);
  EXPECT_EQ(read("/tmp/other"), "kept") << "which the owner of the folder may not own";
  EXPECT_FALSE(fs::is_symlink("/tmp/ormel.prom"));
  EXPECT_THAT(ended(1, "metrics --textfile /tmp/nowhere/ormel.prom").err,
              HasSubstr("/tmp/nowhere/ormel.prom cannot be written: No such file"));
}

TEST_F(Monitoring, OpensWhatATokenIsGoodForThroughTheWebServer) {
  const std::string metrics = token_of("metrics"), reading = token_of("read");
  const auto ask = [](const std::string& route, const std::string& token) {
    return https(route, {"-H", "Authorization: Bearer " + token}).body;
  };
  EXPECT_THAT(parse_exposition(ask(METRICS, metrics)).faults, testing::IsEmpty());
  EXPECT_EQ(error_of(ask("/ormel/config/add?type=256", metrics)), 41);
  EXPECT_EQ(error_of(ask("/ormel/status/list", reading)), 0);
  EXPECT_NE(error_of(ask("/fenro/logout", reading)), 0);
  EXPECT_EQ(error_of(https(METRICS + ("?token=" + metrics)).body), 39);
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(error_of(ask(METRICS, "ormel_x_" + std::to_string(i))), 39);
  EXPECT_THAT(ask(METRICS, metrics), HasSubstr("try again in "));
  const std::string events = ctl("log events").out;
  const size_t said = events.find("Too many wrong tokens from 127.0.0.1");
  EXPECT_NE(said, std::string::npos) << events;
  EXPECT_EQ(said, events.rfind("Too many wrong tokens"));
}

TEST_F(Monitoring, LeavesNoTokenInAChildInALogOrInTheTrail) {
  const std::string token = token_of("admin");
  const std::string secret = token.substr(token.rfind('_') + 1);
  write("/etc/init.d/vpn_pptp_client.sh", "#!/bin/sh\nenv >>/tmp/child.env\n", 0755);
  support::make_empty_folder("/var/lib/ormel/audit");
  const WebReply reply = cgi("/ormel/config/connect", "type=256&index=1",
                             {bearer(token), "REMOTE_ADDR=192.0.2.9", "HTTP_ACCEPT=x"});
  EXPECT_EQ(error_of(reply.body), 0);
  EXPECT_THAT(read("/tmp/child.env"),
              AllOf(HasSubstr("REMOTE_ADDR"), Not(HasSubstr("AUTHORIZATION"))));
  cgi("/ormel/token/add", "name=x&scope=read", {bearer(token)});
  cgi("/ormel/metrics", "", {bearer(token + "0")});
  EXPECT_THAT(ctl("audit").out, HasSubstr("token:admin  web 192.0.2.9  config/connect"));
  EXPECT_THAT(ctl("token list").out, HasSubstr("192.0.2.9"));
  EXPECT_EQ(shell("grep -rl " + secret +
                  " /var/log /var/lib/ormel /etc/config /run/fenro /run/appliance/log")
                .out,
            "");
}

TEST_F(Monitoring, RefusesTheTokensOfWhoeverIsNoAdministratorAnyMore) {
  const auto made = [this](const char* name) {
    return bearer(
        datum(cgi("/ormel/token/add", admin + "&name=" + name + "&scope=admin").body, "token"));
  };
  const std::string theirs = made("theirs"), ours = bearer(token_of("admin"));
  const auto code = [](const std::string& token) {
    return error_of(cgi("/ormel/status/list", "", {token}).body);
  };
  constexpr int good = 0, refused = ormel::ERR_SESSION_FAIL;
  EXPECT_EQ(code(theirs), good);
  EXPECT_EQ(code(ours), good);
  support::make_empty_folder("/var/lib/ormel/audit");
  ASSERT_EQ(shell("gpasswd -d admin administrators").status, 0);
  EXPECT_EQ(code(theirs), refused);
  EXPECT_EQ(code(ours), good) << "root's has no maker to lose";
  EXPECT_THAT(ctl("token list").out,
              ContainsRegex("theirs .* refused: its maker is no administrator +admin\n"));
  const std::string events = ctl("log events").out;
  const size_t said = events.find("The token theirs is refused: admin, who has made it");
  EXPECT_NE(said, std::string::npos) << events;
  EXPECT_EQ(said, events.rfind("The token theirs is refused"));
  EXPECT_THAT(ctl("audit").out, HasSubstr("token:theirs  web"));
  const std::string uid = std::to_string(getpwnam("admin")->pw_uid);
  const std::pair<std::string, int> changes[] = {{"gpasswd -a admin administrators", good},
                                                 {"usermod -L admin", refused},
                                                 {"usermod -U admin", good},
                                                 {"usermod -u 54321 admin", refused},
                                                 {"usermod -u " + uid + " admin", good}};
  for (const auto& [change, expected] : changes) {
    ASSERT_EQ(shell(change).status, 0);
    EXPECT_EQ(code(theirs), expected) << change;
    EXPECT_EQ(code(ours), good) << change;
  }
  const std::regex member{",\\s*\"uid\": [0-9]+"};
  EXPECT_TRUE(std::regex_search(read(TOKENS), member));
  write(TOKENS, std::regex_replace(read(TOKENS), member, ""), 0600);
  EXPECT_EQ(code(theirs), good) << "a row of an older version";
}

TEST_F(Monitoring, SendsADocumentThatHasEachRouteOfTheTable) {
  const WebReply reply = cgi("/ormel/openapi", admin);
  EXPECT_THAT(reply.head, HasSubstr("application/json"));
  const ormel::Json document = parsed(reply.body);
  const json_t* const paths = json_object_get(document.get(), "paths");
  const std::vector<ormel::cgi::Route> rows = ormel::cgi::routes();
  EXPECT_EQ(json_object_size(paths), rows.size());
  for (const ormel::cgi::Route& row : rows) {
    const json_t* const path = json_object_get(paths, std::string(row.path).c_str());
    const json_t* const least = json_object_get(json_object_get(path, "post"), "x-least");
    EXPECT_STREQ(json_string_value(json_object_get(least, "effect")),
                 row.effect == ormel::cgi::CHANGES ? "changes" : "reads")
        << row.path;
  }
}

// The last ones: the daemons do not come back.
TEST_F(Monitoring, GivesNoFigureOfADaemonThatHangsOrIsDead) {
  const Exposition whole = figures();
  for (const char* signal : {"-STOP", "-KILL"}) {
    for (const auto& [name, silent] : DAEMONS) {
      SCOPED_TRACE(signal + (' ' + name));
      const std::string up = "ormel_daemon_up{daemon=\"" + name + "\"}";
      EXPECT_EQ(whole.samples.at(up), 1);
      run({"/usr/bin/pkill", signal, "-f", "^/usr/lib/fenro/" + name});
      const auto start = std::chrono::steady_clock::now();
      const Exposition left = figures("&users=1");
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
      EXPECT_EQ(left.samples.at(up), 0);
      for (const char* family : silent) {
        EXPECT_TRUE(whole.has(family)) << family;
        EXPECT_FALSE(left.has(family)) << family;
      }
      EXPECT_TRUE(left.has("ormel_tunnel_up")) << "which is known without any daemon";
      run({"/usr/bin/pkill", "-CONT", "-f", "^/usr/lib/fenro/" + name});
    }
  }
}

// 600 sessions of 300 users, each of whom has two.
TEST_F(Monitoring, SumsTheTrafficOfUsersUpToALimitAndWhereItIsAskedForAlone) {
  std::string lines, data;
  for (int i = 0; i < 600; ++i) {
    const std::string eth = "ppp" + std::to_string(i);
    const std::string user = "user" + std::to_string(1000 + i / 2) + "\"\n";
    lines += eth + " 10.0.0.9 " + std::to_string(4000 + i) + " - 10.1.0.2 1 1709769600 " +
             ormel::openssl::base64_encode(user) + '\n';
    data += (i == 0 ? "" : ",") + ("{\"key\":\"" + eth) +
            R"(","rx_bytes":7,"tx_bytes":9,"rx_rate":0,"tx_rate":0})";
  }
  write("/var/log/ormel_online_users", lines);
  const ScriptedService rated{
      "RateServer", "fenro-rated", {"all_server_stat"}, R"({"error":0,"data":[)" + data + "]}"};
  const Exposition found = figures("&users=1");
  EXPECT_EQ(series(found, "ormel_session_"), 500);
  const std::string labels = R"re({protocol="pptp",user="user1000\"\n"})re";
  EXPECT_EQ(found.samples.at("ormel_session_receive_bytes" + labels), 14);
  EXPECT_EQ(found.samples.at("ormel_session_transmit_bytes" + labels), 18);
  EXPECT_EQ(found.samples.at("ormel_sessions{protocol=\"pptp\"}"), 600);
  EXPECT_FALSE(figures().has("ormel_session_receive_bytes"));
  fs::remove("/var/log/ormel_online_users");
}

}  // namespace
