// Changes that can be taken back: undo, and what goes back unless it is confirmed, through the
// tunnel that it interrupts too.
// appliance: --pair --web
#include <algorithm>
#include <functional>
#include <regex>
#include <set>
#include <sys/file.h>
#include <thread>

#include "support/far_appliance.h"
#include "support/ormelctl.h"
#include "support/web_request.h"

namespace ormel::test {
namespace {

constexpr const char* SNAPSHOTS = "/var/lib/ormel/snapshots";
constexpr const char* RIGHTS = "/etc/config/vpn_user_ex.conf";
constexpr const char* OK = "{\"error\":0}";
constexpr int PATIENCE = 60;  // seconds; a busy machine is slow

size_t snapshots() {
  const Json root = parsed(ctl("undo list --json").out);
  return json_array_size(json_object_get(root.get(), "data"));
}

class Changing : public testing::Test {
 protected:
  void SetUp() override {
    ctl("confirm --yes");
    for (const char* file : {VPN_CONF, "/etc/config/ormel/guard.conf", RIGHTS}) fs::remove(file);
    support::make_empty_folder(SNAPSHOTS);
    ASSERT_EQ(run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"}).status, 0);
    session = begin_session("admin");
  }
  void TearDown() override {
    ctl("confirm --yes");
    for (const char* server : {"openvpn", "wireguard"})
      ctl(std::string("server off ") + server + " --yes");
    ctl("guard off");
  }
  // A form posted to the web interface here.
  [[nodiscard]] std::string web(const std::string& route, const std::string& form = {}) const {
    return https(route, {"--data", "sid=" + session + form}).body;
  }
  static std::string pool() { return conf_value("OPENVPN", "Client IP 1"); }
  static bool server_runs() {
    return run({"/usr/bin/pgrep", "-f", "openvpn/server.conf"}).status == 0;
  }

  std::string session;
};
using ChangeUndo = Changing;

TEST_F(ChangeUndo, RestoresEachKindOfState) {
  const std::tuple<const char*, const char*, std::function<std::string()>> rows[] = {
      {"server set openvpn --pool 10.7.0.0 --yes", "", [] { return pool(); }},
      {"server on openvpn", "", [] { return server_runs() ? "runs" : "ended"; }},
      {"profile add pptp --name a --host 192.0.2.1 --user b --pass-file -", "secret\n",
       [] {
         return conf_value("PPTP_CLIENT1", "Index") +
                bus("NetworkService", "external_dev.list", "{\"key\":\"PPTP_CLIENT1\"}");
       }},
      {"user grant guest openvpn", "", [] { return read(RIGHTS); }},
      {"guard strict", "",
       [] {
         return run({"/usr/sbin/nft", "list", "table", "inet", "fenro_guard"}).out.substr(0, 9);
       }},
      {"user policy --limit 7", "", [] { return read("/etc/config/vpn_block.conf"); }},
  };
  ctl("user policy --limit 5");
  for (const auto& [line, input, state] : rows) {
    SCOPED_TRACE(line);
    const std::string before = state();
    done(line, input);
    const std::string after = state();
    ASSERT_NE(after, before);
    for (const std::string& wanted : {before, after}) {  // an undo is undone
      EXPECT_THAT(done("undo --yes").out, HasSubstr("restored the state of"));
      EXPECT_TRUE(comes_true([&, &now = state] { return now() == wanted; })) << state();
    }
  }
}

TEST_F(ChangeUndo, SaysWhatItWaitsFor) {
  ASSERT_EQ(ctl("user policy --limit 6").status, 0);
  Fd busy{open("/run/fenro/changes.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
  ASSERT_EQ(flock(busy.get(), LOCK_SH), 0);
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    busy = Fd{};
  });
  const Result undone = done("undo --yes");
  release.join();
  EXPECT_EQ(undone.err, "waiting for running changes of settings to end ...\n");
}

TEST_F(ChangeUndo, CopiesWhatChangesAlone) {
  std::ignore = ctl("user policy --limit 5");
  const size_t first = snapshots();
  for (const char* command : {"status", "server list", "undo list", "pending"})
    EXPECT_EQ(ctl(command).status, 0) << command;
  EXPECT_NE(ctl("server set openvpn --port 99999 --yes").status, 0);
  EXPECT_EQ(ctl("user policy --limit 5").status, 0);
  EXPECT_EQ(error_of(web("/ormel/config/show", "&type=4")), 0);
  EXPECT_EQ(web("/ormel/log/cleanup", "&type=23"), OK);
  EXPECT_EQ(snapshots(), first);

  EXPECT_EQ(web("/ormel/privilege/set", "&user=guest|4"), OK);
  EXPECT_EQ(snapshots(), first + 1);
  const std::string list = web("/ormel/change/list");
  EXPECT_THAT(list,
              AllOf(HasSubstr(R"("what":"/ormel/privilege/set")"), HasSubstr(R"("user":"admin")")));
  EXPECT_EQ(error_of(web("/ormel/change/undo")), 0);
  EXPECT_EQ(read(RIGHTS), "");
  EXPECT_THAT(ctl("log events --json").out, HasSubstr("are back (admin, web "));
}

TEST_F(ChangeUndo, GoesOnWithoutRoomButNotWhereItWouldHaveToGoBack) {
  ASSERT_EQ(shell(std::string("mount -t tmpfs -o size=4k,mode=700 none ") + SNAPSHOTS).status, 0);
  EXPECT_THAT(done("user grant guest openvpn").err, HasSubstr("cannot be undone"));
  EXPECT_THAT(https("/ormel/privilege/set", {"--data", "sid=" + session + "&user=guest|6"}).head,
              HasSubstr("x-ormel-undo: none"));
  const std::string before = read(RIGHTS);
  EXPECT_THAT(ended(1, "--confirm 30s user revoke guest --yes").err,
              HasSubstr("nothing was changed"));
  EXPECT_EQ(read(RIGHTS), before);
  EXPECT_EQ(run({"/bin/umount", SNAPSHOTS}).status, 0);
}

// Start scripts that only note how they were called, and the state of the files beside them.
class ChangeTrial : public Changing {
 protected:
  void SetUp() override {
    Changing::SetUp();
    run({"/bin/cp", "-a", "/etc/init.d", "/tmp/init.d"});
    for (const std::string script : {"pptp", "l2tp", "openvpn", "drovik", "wireguard",
                                     "pptp_client", "l2tp_client", "common", "guard"})
      record_calls("/etc/init.d/vpn_" + script + ".sh");
    fs::remove(CALLS);
  }
  void TearDown() override {
    shell("cp -a /tmp/init.d/* /etc/init.d/; rm -rf /tmp/init.d");
    Changing::TearDown();
  }
  // Every file that a change could write, with its time. Without the stores of logs and events,
  // into which daemons write meanwhile: the keeper reports servers that do not come to run.
  static std::string files() {
    return shell(
               "find /etc /var/lib/ormel /var/lib/fenro /root /run/fenro -type f "
               "-not -name '*.lock' -not -name 'log.db*' -not -name 'event.db*' -printf '%p %T@ "
               "%s\\n'")
        .out;
  }
  static std::vector<std::string> calls() {
    std::vector<std::string> lines;
    std::istringstream in(read(CALLS));
    for (std::string line; std::getline(in, line);) {
      std::ranges::replace(line, '|', ' ');
      if (line.ends_with(" peers") || line.ends_with(" report")) continue;  // questions
      lines.push_back("/etc/init.d/" + line);
    }
    return lines;
  }
  // No secret, and nothing that tunnels write.
  static bool is_shown(const std::string& key, bool empty) {
    static const std::regex secret{"psk|key|pass|accesscode|secret", std::regex::icase};
    static const std::regex live{
        "setup_vpn_entrance_status|.*_iptables_rules|LocalIP|RemoteIP|Real Address|DNS Server|"
        "Status|Country Code|Time Stamp|Last Error|Domain IP|Download Status"};
    return (empty || !std::regex_search(key, secret)) && !std::regex_match(key, live);
  }
  // The settings of vpn.conf as "SECTION: key = value".
  static std::set<std::string> settings() {
    std::set<std::string> lines;
    std::istringstream in(read(VPN_CONF));
    std::string section;
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with('[')) section = line;
      const size_t equals = line.find(" =");
      const bool empty = line.substr(equals + 1).find_first_not_of("= ") == std::string::npos;
      if (equals != std::string::npos && is_shown(line.substr(0, equals), empty))
        lines.insert(std::string(section).append(": ").append(line));
    }
    return lines;
  }
  static std::vector<std::string> texts(const json_t* data, const char* key) {
    std::vector<std::string> lines;
    size_t at = 0;
    const json_t* line = nullptr;
    json_array_foreach(json_object_get(data, key), at, line)
        lines.emplace_back(json_string_value(line));
    return lines;
  }
  // What a trial has printed of vpn.conf, in the same form behind "- " or "+ ".
  static std::set<std::string> printed(const json_t* data) {
    std::set<std::string> lines;
    size_t at = 0;
    const json_t* file = nullptr;
    json_array_foreach(json_object_get(data, "files"), at, file) {
      if (json_string_value(json_object_get(file, "path")) != std::string(VPN_CONF)) continue;
      std::string section;
      for (const std::string& line : texts(file, "lines")) {
        if (line.starts_with("  [")) section = line.substr(2);
        if (line.starts_with("  ") || line.ends_with("secret)")) continue;
        lines.insert(line.substr(0, 2) + section + ": " + line.substr(2));
      }
    }
    return lines;
  }
};

TEST_F(ChangeTrial, ShowsExactlyWhatThenHappens) {
  const std::tuple<std::string, const char*> rows[] = {
      {"server set openvpn --pool 10.9.0.0 --port 1195 --max 7 --yes", ""},
      {"server set openvpn --proto tcp --enc high --dns 192.0.2.53 --redirect no --yes", ""},
      {"server on openvpn", ""},
      {"server set openvpn --pool 10.9.1.0 --yes", ""},
      {"server off openvpn --yes", ""},
      {"server set pptp --pool 10.2.0.0 --max 9 --mss 1300 --yes", ""},
      {"server set l2tp --pool 10.3.0.0 --psk-file - --yes", "key\n"},
      {"server on l2tp", ""},
      {"server set drovik --port 4443 --psk-file - --yes", "key\n"},
      {"server set wireguard --name hub --address 198.18.7.1 --mask 24 --port 51821 --yes", ""},
      {"profile add pptp --name a --host 192.0.2.1 --user b --pass-file -", "secret\n"},
      {"profile set a --host 192.0.2.2 --yes", ""},
      {"profile down a", ""},
      {"user grant guest openvpn l2tp", ""},
      {"user revoke guest l2tp --yes", ""},
      {"user policy --limit 6", ""},
      {"gateway set a", ""},
      {"guard strict", ""},
      {"guard off", ""},
      {"gateway off", ""},
      {"profile rm a --yes", ""},
  };
  for (const auto& [line, input] : rows) {
    SCOPED_TRACE(line);
    const std::string before_files = files();
    const std::set<std::string> before = settings();
    fs::remove(CALLS);
    const Result tried = done(line + " --dry-run --json", input);
    EXPECT_EQ(files(), before_files);
    EXPECT_THAT(calls(), IsEmpty());

    ctl(line + " --timeout 6", input);  // a server whose script does nothing does not come to run
    const Json answer = parsed(tried.out);
    const json_t* const data = json_object_get(answer.get(), "data");
    std::set<std::string> changed;
    const std::set<std::string> after = settings();
    for (const std::string& one : before)
      if (!after.contains(one)) changed.insert("- " + one);
    for (const std::string& one : after)
      if (!before.contains(one)) changed.insert("+ " + one);
    EXPECT_EQ(printed(data), changed);
    EXPECT_TRUE(comes_true([&] { return calls().size() >= texts(data, "programs").size(); }, 5));
    EXPECT_THAT(calls(), testing::UnorderedElementsAreArray(texts(data, "programs")));
    EXPECT_THAT(tried.out, Not(HasSubstr("secret\"")));
  }
  EXPECT_THAT(ctl("server set openvpn --port 1196 --dry-run").out,
              EndsWith("nothing was changed\n"));
  EXPECT_EQ(ctl("server set openvpn --port 99999 --dry-run").status, 1);
  for (const char* refused :
       {"kick guest --dry-run", "peer add x --host h --dry-run", "undo --dry-run",
        "status --dry-run", "token add x --scope read --dry-run",
        "token add x --scope read --confirm 90s"})
    EXPECT_EQ(ctl(refused).status, 2) << refused;
  EXPECT_THAT(ctl("token list").out, HasSubstr("There are no tokens"));
}

class ChangeConfirm : public Changing {
 protected:
  void SetUp() override {
    Changing::SetUp();
    if (const Fd device{open("/dev/net/tun", O_RDWR | O_CLOEXEC)}; !device)
      GTEST_SKIP() << "no TUN device";
    ASSERT_EQ(ctl("server set openvpn --pool 10.8.0.0 --yes").status, 0);
    ASSERT_EQ(ctl("server on openvpn").status, 0);
  }
  void TearDown() override {
    far::run({"/etc/init.d/vpn_openvpn_client.sh", "stop", "1"});
    Changing::TearDown();
  }
  static std::string far_address() { return far::conf_value("OPENVPN_CLIENT1", "LocalIP"); }
  // A form posted from over there, through the tunnel.
  [[nodiscard]] std::string through(const std::string& route, const std::string& form) const {
    return far::run({"/usr/bin/curl", "-ksS", "-H", "Expect:", "--max-time", "15",
                     "https://10.8.0.1" + route, "--data", "sid=" + session + form})
        .out;
  }
};

TEST_F(ChangeConfirm, GoesBackThroughTheTunnelThatItInterrupts) {
  ASSERT_EQ(ctl("user grant guest openvpn").status, 0);
  far::run({"/bin/rm", "-rf", VPN_CONF, "/etc/config/openvpn/clients/client1"});
  far::write("/tmp/office.ovpn", ctl("profile export").out);
  const Result imported = far::run(words_of("/usr/sbin/ormelctl profile import /tmp/office.ovpn "
                                            "--name office --user guest --pass-file - --yes"),
                                   PLACES, read("/var/lib/appliance/password.guest"));
  ASSERT_EQ(imported.status, 0) << imported.err;
  far::cli({"--type=OVPN", "--connect=1"});
  ASSERT_TRUE(comes_true([] { return far_address().starts_with("10.8."); }, PATIENCE));
  ASSERT_THAT(through("/ormel/change/begin", "&seconds=30"), HasSubstr("\"code\""));
  std::ignore = through(  // its answer may be lost with the tunnel
      "/ormel/config/modify", "&type=SOVPN&enable=true&ip_pool=10.9.0.0&proto=UDP&port=1194");
  ASSERT_TRUE(comes_true([] { return pool() == "10.9.0.2"; }, PATIENCE));
  const auto is_back = [&] {
    return pool() == "10.8.0.2" &&
           datum(through("/ormel/change/pending", ""), "pending") == "false";
  };
  EXPECT_TRUE(comes_true(is_back, 100));
  EXPECT_TRUE(comes_true([] { return far_address().starts_with("10.8."); }, PATIENCE));
  EXPECT_THAT(ctl("log events --json").out, HasSubstr("Not confirmed in time"));
  EXPECT_THAT(ctl("audit -n 1").out, HasSubstr("change/go_back"));
}

TEST_F(ChangeConfirm, StaysForItsOwnerAlone) {
  const std::string code = datum(
      done("--confirm 30s server set openvpn --pool 10.9.0.0 --yes --json").out, "code", "confirm");
  EXPECT_THAT(web("/ormel/change/begin"), HasSubstr("a change of root (ormelctl) waits"));
  EXPECT_EQ(error_of(web("/ormel/change/confirm", "&code=" + code)), 41);
  EXPECT_EQ(error_of(web("/ormel/change/revert")), 41);
  EXPECT_THAT(web("/ormel/change/pending"), HasSubstr("\"mine\":false"));
  EXPECT_EQ(ctl("confirm " + code).status, 0);
  sleep(35);
  EXPECT_EQ(pool(), "10.9.0.2");
  EXPECT_EQ(ctl("confirm " + code).status, 1);

  // In a new session of the same user, as after a login.
  const std::string begun = web("/ormel/change/begin", "&seconds=600");
  EXPECT_EQ(web("/ormel/privilege/set", "&user=guest|4"), OK);
  session = begin_session("admin");
  EXPECT_THAT(web("/ormel/change/pending"), HasSubstr("\"mine\":true"));
  EXPECT_EQ(web("/ormel/change/confirm", "&code=" + datum(begun, "code")), OK);
  EXPECT_THAT(read(RIGHTS), HasSubstr("guest"));
  EXPECT_THAT(web("/ormel/change/begin"), HasSubstr("\"code\""));
  EXPECT_EQ(web("/ormel/privilege/unset", "&user=guest"), OK);
  EXPECT_EQ(web("/ormel/change/revert"), OK);
  EXPECT_THAT(read(RIGHTS), HasSubstr("guest"));
}

TEST_F(ChangeConfirm, GoesBackWithoutTheProcessThatWaits) {
  ASSERT_EQ(ctl("--confirm 30s server set openvpn --pool 10.9.0.0 --yes").status, 0);
  ASSERT_EQ(run({"/usr/bin/pkill", "-KILL", "-f", "^/usr/sbin/ormelctl __go-back"}).status, 0);
  EXPECT_TRUE(comes_true([] { return pool() == "10.8.0.2"; }, 45)) << "the keeper looks too";
  EXPECT_TRUE(comes_true([] { return server_runs(); }));
}

}  // namespace
}  // namespace ormel::test
