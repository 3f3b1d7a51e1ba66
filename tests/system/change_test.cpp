// Changes that can be taken back: undo, and what goes back unless it is confirmed, through the
// tunnel that it interrupts too.
// appliance: --pair --web
#include <algorithm>
#include <cctype>
#include <functional>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <thread>

#include <jansson.h>

#include "support/far_appliance.h"
#include "support/web_request.h"

namespace ormel::test {
namespace {

constexpr const char* SNAPSHOTS = "/var/lib/ormel/snapshots";
constexpr const char* GUARD_CONF = "/etc/config/ormel/guard.conf";
constexpr const char* RIGHTS = "/etc/config/vpn_user_ex.conf";
constexpr const char* OK = "{\"error\":0}";
constexpr int PATIENCE = 60;  // seconds; a busy machine is slow

Result ctl(std::vector<std::string> words, const std::string& input = {}) {
  words.insert(words.begin(), "/usr/sbin/ormelctl");
  return run(words, {"PATH=/usr/sbin:/usr/bin"}, input);
}

Json document(const std::string& text) {
  return Json{json_loads(text.c_str(), 0, nullptr)};
}

std::string member(const std::string& text, const char* object, const char* key) {
  const Json root = document(text);
  const json_t* const value = json_object_get(json_object_get(root.get(), object), key);
  return json_is_string(value) ? json_string_value(value) : "";
}

size_t snapshots() {
  const Json root = document(ctl({"undo", "list", "--json"}).out);
  return json_array_size(json_object_get(root.get(), "data"));
}

class Changing : public testing::Test {
 protected:
  void SetUp() override {
    ctl({"confirm", "--yes"});
    for (const char* file : {VPN_CONF, GUARD_CONF, RIGHTS}) fs::remove(file);
    support::make_empty_folder(SNAPSHOTS);
    ASSERT_EQ(run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"}).status, 0);
    session = run({"/usr/lib/fenro/fenro-session", "create", "admin"}).out.substr(0, 8);
  }
  void TearDown() override {
    ctl({"confirm", "--yes"});
    for (const char* server : {"openvpn", "wireguard"}) ctl({"server", "off", server, "--yes"});
    ctl({"guard", "off"});
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
  const struct {
    std::vector<std::string> words;
    std::string input;
    std::function<std::string()> state;
  } rows[] = {
      {{"server", "set", "openvpn", "--pool", "10.7.0.0", "--yes"}, "", [] { return pool(); }},
      {{"server", "on", "openvpn"}, "", [] { return server_runs() ? "runs" : "ended"; }},
      {{"profile", "add", "pptp", "--name", "a", "--host", "192.0.2.1", "--user", "b",
        "--pass-file", "-"},
       "secret\n",
       [] {
         return conf_value("PPTP_CLIENT1", "Index") +
                bus("NetworkService", "external_dev.list", "{\"key\":\"PPTP_CLIENT1\"}");
       }},
      {{"user", "grant", "guest", "openvpn"}, "", [] { return read(RIGHTS); }},
      {{"guard", "strict"},
       "",
       [] {
         return run({"/usr/sbin/nft", "list", "table", "inet", "fenro_guard"}).out.substr(0, 9);
       }},
      {{"user", "policy", "--limit", "7"}, "", [] { return read("/etc/config/vpn_block.conf"); }},
  };
  ctl({"user", "policy", "--limit", "5"});
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    const std::string before = row.state();
    const Result changed = ctl(row.words, row.input);
    ASSERT_EQ(changed.status, 0) << changed.err;
    const std::string after = row.state();
    ASSERT_NE(after, before);
    const Result undone = ctl({"undo", "--yes"});
    EXPECT_EQ(undone.status, 0) << undone.err;
    EXPECT_THAT(undone.out, HasSubstr("restored the state of"));
    EXPECT_TRUE(comes_true([&] { return row.state() == before; })) << row.state();
    EXPECT_EQ(ctl({"undo", "--yes"}).status, 0);
    EXPECT_TRUE(comes_true([&] { return row.state() == after; })) << "an undo is undone";
  }
}

TEST_F(ChangeUndo, SaysWhatItWaitsFor) {
  ASSERT_EQ(ctl({"user", "policy", "--limit", "6"}).status, 0);
  Fd busy{open("/run/fenro/changes.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
  ASSERT_EQ(flock(busy.get(), LOCK_SH), 0);
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    busy = Fd{};
  });
  const Result undone = ctl({"undo", "--yes"});
  release.join();
  EXPECT_EQ(undone.status, 0) << undone.err;
  EXPECT_EQ(undone.err, "waiting for running changes of settings to end ...\n");
}

TEST_F(ChangeUndo, CopiesWhatChangesAlone) {
  std::ignore = ctl({"user", "policy", "--limit", "5"});
  const size_t first = snapshots();
  for (const char* command : {"status", "server list", "undo list", "pending"}) {
    std::vector<std::string> words;
    for (std::istringstream in(command); in;)
      if (std::string word; in >> word) words.push_back(word);
    EXPECT_EQ(ctl(words).status, 0) << command;
  }
  EXPECT_NE(ctl({"server", "set", "openvpn", "--port", "99999", "--yes"}).status, 0);
  EXPECT_EQ(ctl({"user", "policy", "--limit", "5"}).status, 0);
  EXPECT_THAT(web("/ormel/config/show", "&type=4"), HasSubstr("\"error\":0"));
  EXPECT_EQ(web("/ormel/log/cleanup", "&type=23"), OK);
  EXPECT_EQ(snapshots(), first);

  EXPECT_EQ(web("/ormel/privilege/set", "&user=guest|4"), OK);
  EXPECT_EQ(snapshots(), first + 1);
  const std::string list = web("/ormel/change/list");
  EXPECT_THAT(list, HasSubstr("\"what\":\"/ormel/privilege/set\""));
  EXPECT_THAT(list, HasSubstr("\"user\":\"admin\""));
  EXPECT_THAT(web("/ormel/change/undo"), HasSubstr("\"error\":0"));
  EXPECT_EQ(read(RIGHTS), "");
  EXPECT_THAT(ctl({"log", "events", "--json"}).out, HasSubstr("are back (admin, web "));
}

TEST_F(ChangeUndo, GoesOnWithoutRoomButNotWhereItWouldHaveToGoBack) {
  fs::create_directories(SNAPSHOTS);
  ASSERT_EQ(run({"/bin/mount", "-t", "tmpfs", "-o", "size=4k,mode=700", "none", SNAPSHOTS}).status,
            0);
  const Result granted = ctl({"user", "grant", "guest", "openvpn"});
  EXPECT_EQ(granted.status, 0);
  EXPECT_THAT(granted.err, HasSubstr("cannot be undone"));
  EXPECT_THAT(https("/ormel/privilege/set", {"--data", "sid=" + session + "&user=guest|6"}).head,
              HasSubstr("x-ormel-undo: none"));
  const std::string before = read(RIGHTS);
  const Result guarded = ctl({"--confirm", "30s", "user", "revoke", "guest", "--yes"});
  EXPECT_EQ(guarded.status, 1);
  EXPECT_THAT(guarded.err, HasSubstr("nothing was changed"));
  EXPECT_EQ(read(RIGHTS), before);
  EXPECT_EQ(run({"/bin/umount", SNAPSHOTS}).status, 0);
}

// Start scripts that only note how they were called, and the state of the files beside them.
class ChangeTrial : public Changing {
 protected:
  static constexpr const char* SCRIPTS[] = {"vpn_pptp",        "vpn_l2tp",      "vpn_openvpn",
                                            "vpn_drovik",      "vpn_wireguard", "vpn_pptp_client",
                                            "vpn_l2tp_client", "vpn_common",    "vpn_guard"};

  void SetUp() override {
    Changing::SetUp();
    run({"/bin/cp", "-a", "/etc/init.d", "/tmp/init.d"});
    for (const char* script : SCRIPTS) record_calls(std::string("/etc/init.d/") + script + ".sh");
    fs::remove(CALLS);
  }
  void TearDown() override {
    run({"/bin/sh", "-c", "cp -a /tmp/init.d/* /etc/init.d/; rm -rf /tmp/init.d"});
    Changing::TearDown();
  }
  // Every file that a change could write, with its time. Without the stores of logs and events,
  // into which daemons write meanwhile: the keeper reports servers that do not come to run.
  static std::string files() {
    return run({"/usr/bin/find", "/etc", "/var/lib/ormel", "/var/lib/fenro", "/root", "/run/fenro",
                "-type", "f", "-not", "-name", "*.lock", "-not", "-name", "log.db*", "-not",
                "-name", "event.db*", "-printf", "%p %T@ %s\n"})
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
  static bool is_shown(const std::string& key, bool empty) {
    for (const char* hidden : {"psk", "key", "pass", "accesscode", "secret"}) {
      std::string lower;
      for (const char c : key)
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (!empty && lower.find(hidden) != std::string::npos) return false;
    }
    if (key == "setup_vpn_entrance_status" || key.ends_with("_iptables_rules")) return false;
    for (const char* live :
         {"LocalIP", "RemoteIP", "Real Address", "DNS Server", "Status", "Country Code",
          "Time Stamp", "Last Error", "Domain IP", "Download Status"}) {
      if (key == live) return false;
    }
    return true;
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
  // What a trial has printed of vpn.conf, in the same form behind "- " or "+ ".
  static std::set<std::string> printed(const json_t* data) {
    std::set<std::string> lines;
    size_t at = 0;
    const json_t* file = nullptr;
    json_array_foreach(json_object_get(data, "files"), at, file) {
      if (json_string_value(json_object_get(file, "path")) != std::string(VPN_CONF)) continue;
      std::string section;
      size_t i = 0;
      const json_t* value = nullptr;
      json_array_foreach(json_object_get(file, "lines"), i, value) {
        const std::string line = json_string_value(value);
        if (line.starts_with("  [")) section = line.substr(2);
        if (line.starts_with("  ") || line.ends_with("secret)")) continue;
        lines.insert(line.substr(0, 2) + section + ": " + line.substr(2));
      }
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
};

TEST_F(ChangeTrial, ShowsExactlyWhatThenHappens) {
  const struct {
    std::vector<std::string> words;
    std::string input{};
  } rows[] = {
      {{"server", "set", "openvpn", "--pool", "10.9.0.0", "--port", "1195", "--max", "7"}},
      {{"server", "set", "openvpn", "--proto", "tcp", "--enc", "high", "--compress", "no"}},
      {{"server", "set", "openvpn", "--dns", "192.0.2.53", "--redirect", "no"}},
      {{"server", "on", "openvpn"}},
      {{"server", "set", "openvpn", "--pool", "10.9.1.0"}},
      {{"server", "off", "openvpn"}},
      {{"server", "set", "pptp", "--pool", "10.2.0.0", "--max", "9", "--mss", "1300"}},
      {{"server", "set", "l2tp", "--pool", "10.3.0.0", "--psk-file", "-"}, "key\n"},
      {{"server", "on", "l2tp"}},
      {{"server", "set", "drovik", "--port", "4443", "--psk-file", "-"}, "key\n"},
      {{"server", "set", "wireguard", "--name", "hub", "--address", "198.18.7.1", "--mask", "24",
        "--port", "51821"}},
      {{"profile", "add", "pptp", "--name", "a", "--host", "192.0.2.1", "--user", "b",
        "--pass-file", "-"},
       "secret\n"},
      {{"profile", "set", "a", "--host", "192.0.2.2"}},
      {{"profile", "down", "a"}},
      {{"user", "grant", "guest", "openvpn", "l2tp"}},
      {{"user", "revoke", "guest", "l2tp"}},
      {{"user", "policy", "--limit", "6"}},
      {{"gateway", "set", "a"}},
      {{"guard", "strict"}},
      {{"guard", "off"}},
      {{"gateway", "off"}},
      {{"profile", "rm", "a"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    const std::string before_files = files();
    const std::set<std::string> before = settings();
    std::vector<std::string> words = row.words;
    words.insert(words.end(), {"--dry-run", "--json"});
    fs::remove(CALLS);
    const Result tried = ctl(words, row.input);
    ASSERT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_EQ(files(), before_files);
    EXPECT_THAT(calls(), IsEmpty());

    words.resize(row.words.size());
    words.emplace_back("--yes");
    if (words[0] == "profile" && words[1] == "down") words.pop_back();
    for (const char* safe : {"on", "grant", "policy", "add", "strict"}) {
      if (words[1] == safe && words.back() == "--yes") words.pop_back();
    }
    if ((words[0] == "gateway" || words[0] == "guard") && words.back() == "--yes") words.pop_back();
    // A server whose script does nothing does not come to run.
    words.insert(words.end(), {"--timeout", "6"});
    ctl(words, row.input);
    const Json answer = document(tried.out);
    const json_t* const data = json_object_get(answer.get(), "data");
    std::set<std::string> changed;
    const std::set<std::string> after = settings();
    for (const std::string& line : before)
      if (!after.contains(line)) changed.insert("- " + line);
    for (const std::string& line : after)
      if (!before.contains(line)) changed.insert("+ " + line);
    EXPECT_EQ(printed(data), changed);
    EXPECT_TRUE(comes_true([&] { return calls().size() >= texts(data, "programs").size(); }, 5));
    EXPECT_THAT(calls(), testing::UnorderedElementsAreArray(texts(data, "programs")));
    EXPECT_THAT(tried.out, Not(HasSubstr("secret\"")));
  }
  const Result words = ctl({"server", "set", "openvpn", "--port", "1196", "--dry-run"});
  EXPECT_THAT(words.out, EndsWith("nothing was changed\n"));
  EXPECT_EQ(ctl({"server", "set", "openvpn", "--port", "99999", "--dry-run"}).status, 1);
  for (const std::vector<std::string>& refused :
       {std::vector<std::string>{"kick", "guest"}, {"peer", "add", "x", "--host", "h"}, {"undo"}}) {
    std::vector<std::string> all = refused;
    all.emplace_back("--dry-run");
    EXPECT_EQ(ctl(all).status, 2);
  }
  EXPECT_EQ(ctl({"status", "--dry-run"}).status, 2);
}

class ChangeConfirm : public Changing {
 protected:
  void SetUp() override {
    Changing::SetUp();
    if (const Fd device{open("/dev/net/tun", O_RDWR | O_CLOEXEC)}; !device)
      GTEST_SKIP() << "no TUN device";
    ASSERT_EQ(ctl({"server", "set", "openvpn", "--pool", "10.8.0.0", "--yes"}).status, 0);
    ASSERT_EQ(ctl({"server", "on", "openvpn"}).status, 0);
  }
  void TearDown() override {
    far::run({"/etc/init.d/vpn_openvpn_client.sh", "stop", "1"});
    Changing::TearDown();
  }
  static void connect_from_far() {
    ASSERT_EQ(ctl({"user", "grant", "guest", "openvpn"}).status, 0);
    far::run({"/bin/rm", "-rf", VPN_CONF, "/etc/config/openvpn/clients/client1"});
    far::write("/tmp/office.ovpn", ctl({"profile", "export"}).out);
    const Result imported =
        far::run({"/usr/sbin/ormelctl", "profile", "import", "/tmp/office.ovpn", "--name", "office",
                  "--user", "guest", "--pass-file", "-", "--yes"},
                 {"PATH=/usr/sbin:/usr/bin"}, read("/var/lib/appliance/password.guest"));
    ASSERT_EQ(imported.status, 0) << imported.err;
    far::cli({"--type=OVPN", "--connect=1"});
    ASSERT_TRUE(comes_true([] { return far_address().starts_with("10.8."); }, PATIENCE));
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
  connect_from_far();
  ASSERT_THAT(through("/ormel/change/begin", "&seconds=30"), HasSubstr("\"code\""));
  std::ignore = through(  // its answer may be lost with the tunnel
      "/ormel/config/modify", "&type=SOVPN&enable=true&ip_pool=10.9.0.0&proto=UDP&port=1194");
  ASSERT_TRUE(comes_true([] { return pool() == "10.9.0.2"; }, PATIENCE));
  EXPECT_TRUE(comes_true(
      [&] {
        return pool() == "10.8.0.2" &&
               through("/ormel/change/pending", "") == "{\"data\":{\"pending\":false},\"error\":0}";
      },
      100));
  EXPECT_TRUE(comes_true([] { return far_address().starts_with("10.8."); }, PATIENCE));
  EXPECT_THAT(ctl({"log", "events", "--json"}).out, HasSubstr("Not confirmed in time"));
  EXPECT_THAT(ctl({"audit", "-n", "1"}).out, HasSubstr("change/go_back"));
}

TEST_F(ChangeConfirm, StaysForItsOwnerAlone) {
  const Result changed = ctl(
      {"--confirm", "30s", "server", "set", "openvpn", "--pool", "10.9.0.0", "--yes", "--json"});
  ASSERT_EQ(changed.status, 0) << changed.out;
  const std::string code = member(changed.out, "confirm", "code");
  ASSERT_EQ(code.size(), 8U);
  EXPECT_THAT(web("/ormel/change/begin"), HasSubstr("a change of root (ormelctl) waits"));
  EXPECT_THAT(web("/ormel/change/confirm", "&code=" + code), HasSubstr("\"error\":41"));
  EXPECT_THAT(web("/ormel/change/revert"), HasSubstr("\"error\":41"));
  EXPECT_THAT(web("/ormel/change/pending"), HasSubstr("\"mine\":false"));
  EXPECT_NE(ctl({"confirm", "wrongone"}).status, 0);
  EXPECT_EQ(ctl({"confirm", code}).status, 0);
  sleep(35);
  EXPECT_EQ(pool(), "10.9.0.2");
  EXPECT_EQ(ctl({"confirm", code}).status, 1);

  // In a new session of the same user, as after a login.
  const std::string begun = web("/ormel/change/begin", "&seconds=600");
  EXPECT_EQ(web("/ormel/privilege/set", "&user=guest|4"), OK);
  session = run({"/usr/lib/fenro/fenro-session", "create", "admin"}).out.substr(0, 8);
  EXPECT_THAT(web("/ormel/change/pending"), HasSubstr("\"mine\":true"));
  EXPECT_EQ(web("/ormel/change/confirm", "&code=" + member(begun, "data", "code")), OK);
  EXPECT_THAT(read(RIGHTS), HasSubstr("guest"));
  EXPECT_THAT(web("/ormel/change/begin"), HasSubstr("\"code\""));
  EXPECT_EQ(web("/ormel/privilege/unset", "&user=guest"), OK);
  EXPECT_EQ(web("/ormel/change/revert"), OK);
  EXPECT_THAT(read(RIGHTS), HasSubstr("guest"));
}

TEST_F(ChangeConfirm, GoesBackWithoutTheProcessThatWaits) {
  ASSERT_EQ(
      ctl({"--confirm", "30s", "server", "set", "openvpn", "--pool", "10.9.0.0", "--yes"}).status,
      0);
  ASSERT_EQ(run({"/usr/bin/pkill", "-KILL", "-f", "^/usr/sbin/ormelctl __go-back"}).status, 0);
  EXPECT_TRUE(comes_true([] { return pool() == "10.8.0.2"; }, 45)) << "the keeper looks too";
  EXPECT_TRUE(comes_true([] { return server_runs(); }));
}

}  // namespace
}  // namespace ormel::test
