// Backups and documents: what one appliance has comes whole to an empty one, and what is wrong
// changes nothing.
// appliance: --pair --web

#include <random>
#include <set>
#include <sstream>

#include <jansson.h>

#include "base/grants.h"
#include "support/far_appliance.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* TOOL = "/usr/sbin/ormelctl";
constexpr const char* FILE_NAME = "/root/office.ormel";
constexpr const char* EMPTY = "/root/empty.ormel";
constexpr const char* PASSPHRASE = "correct horse battery";
constexpr const char* PASSPHRASE_FILE = "/root/passphrase";
constexpr const char* SITE = "/root/site.json";
constexpr const char* KEY = "MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM=";
constexpr int PATIENCE = 40;  // seconds for a tunnel on a busy machine
const std::vector<std::string> PLACES{"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};

Result ctl(std::vector<std::string> words, const std::string& input = {}) {
  words.insert(words.begin(), TOOL);
  return run(words, PLACES, input);
}

Result far_ctl(std::vector<std::string> words, const std::string& input = {}) {
  words.insert(words.begin(), TOOL);
  return far::run(words, PLACES, input);
}

// All files of state as they are: a name and a digest a line.
std::string state() {
  return run({"/bin/sh", "-c",
              "find /etc/config /etc/openvpn/keys /etc/ppp /var/lib/ormel -type f "
              "! -name '*.db*' ! -path '*/snapshots/*' ! -path '*/audit/*' -exec sha256sum {} + | "
              "sort"},
             PLACES)
      .out;
}

class Backup : public testing::Test {
 protected:
  void SetUp() override {
    if (const ormel::Fd device{open("/dev/net/tun", O_RDWR | O_CLOEXEC)}; !device)
      GTEST_SKIP() << "no OpenVPN without the TUN device /dev/net/tun";
    write(PASSPHRASE_FILE, std::string(PASSPHRASE) + '\n');
    write("/root/secret", "s3cret-of-tests\n");
    ASSERT_EQ(run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"}).status, 0);
    if (!fs::exists(EMPTY)) ctl({"backup", EMPTY, "--passphrase-file", PASSPHRASE_FILE});
    ASSERT_EQ(ctl(restore_words(EMPTY)).status, 0) << "each test begins with nothing";
  }
  static void expect_done(const std::vector<std::string>& words) {
    const Result result = ctl(words);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(words) << result.out << result.err;
  }
  // One of everything.
  static void furnish() {
    expect_done({"server", "on", "openvpn"});
    expect_done({"server", "set", "wireguard", "--name", "hub", "--address", "198.18.7.1", "--port",
                 "51820", "--yes"});
    expect_done({"server", "on", "wireguard"});
    for (const char* server : {"l2tp", "drovik"})
      expect_done({"server", "set", server, "--psk-file", "/root/secret", "--yes"});
    expect_done({"server", "set", "pptp", "--max", "7", "--yes"});
    expect_done({"peer", "add", "phone", "--host", "vpn.example.org"});
    for (const char* protocol : {"pptp", "l2tp", "drovik"}) {
      std::vector<std::string> words{"profile", "add",         protocol,      "--name",
                                     protocol,  "--host",      "192.0.2.1",   "--user",
                                     "bob",     "--pass-file", "/root/secret"};
      if (protocol != std::string_view("pptp"))
        words.insert(words.end(), {"--psk-file", "/root/secret"});
      expect_done(words);
    }
    expect_done({"profile", "add", "wireguard", "--name", "w \xc3\xa9", "--address", "198.18.8.5",
                 "--peer-key", KEY, "--endpoint", "192.0.2.9:51820"});
    write("/root/office.ovpn", ctl({"profile", "export"}).out);
    expect_done({"profile", "import", "/root/office.ovpn", "--name", "far", "--user", "guest",
                 "--pass-file", "/root/secret", "--yes"});
    expect_done({"user", "grant", "guest", "openvpn", "l2tp"});
    expect_done({"user", "policy", "--limit", "4"});
    expect_done({"gateway", "set", "far", "pptp", "--back", "10"});
    expect_done({"guard", "on", "--lan", "1"});
    expect_done({"notify", "add", "ops", "--url", "https://hooks.example.org/a", "--events",
                 "failed lost"});
    EXPECT_EQ(run({"/usr/lib/fenro/fenro-hold", "add", "user", "carol", "3600"}).status, 0);
  }
  static std::string exported() { return ctl({"export", "--secrets"}).out; }
  static std::vector<std::string> restore_words(const std::string& file) {
    return {"restore", file, "--passphrase-file", PASSPHRASE_FILE};
  }
};

TEST_F(Backup, ComesWholeToAnEmptyApplianceThatOldClientsReach) {
  furnish();
  const Result made =
      ctl({"backup", FILE_NAME, "--passphrase-file", "-"}, std::string(PASSPHRASE) + '\n');
  ASSERT_EQ(made.status, 0) << made.err;
  EXPECT_THAT(made.out,
              HasSubstr("5 profiles, 2 servers that are on, 1 device, 1 user with rights"));
  EXPECT_EQ(mode_of(FILE_NAME), 0600U);
  EXPECT_THAT(read(FILE_NAME), Not(HasSubstr("s3cret")));
  const std::string here = exported();
  EXPECT_THAT(here, HasSubstr("s3cret-of-tests"));
  const std::string safe = ctl({"export"}).out;
  EXPECT_THAT(safe, AllOf(Not(HasSubstr("s3cret-of-tests")), Not(HasSubstr("hooks.example.org"))));
  EXPECT_EQ(ctl({"diff", "-"}, safe).status, 0) << "kept secrets are the stored ones";

  far::write(FILE_NAME, read(FILE_NAME));
  far::write(PASSPHRASE_FILE, PASSPHRASE);
  far::run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"});
  const Result look =
      far_ctl({"restore", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE, "--dry-run"});
  EXPECT_THAT(look.out, AllOf(HasSubstr("+ far (openvpn/1)\n"), HasSubstr("~ openvpn server\n"),
                              EndsWith("nothing was changed\n")));
  EXPECT_THAT(far_ctl({"export"}).out, Not(HasSubstr("\"far\"")));
  const Result restored = far_ctl(restore_words(FILE_NAME));
  ASSERT_EQ(restored.status, 0) << restored.err;
  EXPECT_EQ(far_ctl({"export", "--secrets"}).out, here);
  far::write(SITE, here);
  EXPECT_EQ(far_ctl({"diff", SITE}).status, 0);
  EXPECT_THAT(far_ctl({"hold", "list"}).out, HasSubstr("carol"));
  EXPECT_THAT(far::run({"/usr/bin/wg", "show", "wg0", "peers"}).out.size(), 45U);
  EXPECT_THAT(far_ctl(restore_words(FILE_NAME)).out, HasSubstr("restored: 0 differed"));

  // The guard would hold back what leaves, and the pool is that of the far end now.
  expect_done({"guard", "off"});
  far_ctl({"guard", "off"});
  expect_done({"server", "off", "openvpn", "--yes"});
  std::string profile = read("/root/office.ovpn");
  const size_t remote = profile.find("\nremote ");
  profile.replace(remote, profile.find('\n', remote + 1) - remote,
                  std::string("\nremote ") + far::ADDRESS + " 1194");
  write("/root/moved.ovpn", profile);
  write("/root/password", far::read("/var/lib/appliance/password.guest"));
  expect_done({"profile", "import", "/root/moved.ovpn", "--name", "old", "--user", "guest",
               "--pass-file", "/root/password", "--yes"});
  const Result up = ctl({"profile", "up", "old", "--wait", std::to_string(PATIENCE)});
  EXPECT_EQ(up.status, 0) << up.err;
  EXPECT_THAT(far_ctl({"who"}).out, HasSubstr("guest"));
  ctl({"profile", "down", "old"});
}

TEST_F(Backup, OfWhichAByteIsWrongChangesNothing) {
  ctl({"profile", "add", "pptp", "--name", "a", "--host", "192.0.2.1"});
  ASSERT_EQ(ctl({"backup", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE}).status, 0);
  const std::string good = read(FILE_NAME);
  ctl({"profile", "add", "pptp", "--name", "b", "--host", "192.0.2.2"});
  const std::string before = state();
  std::mt19937 random(7);
  for (int i = 0; i < 60; ++i) {
    std::string bad = good;
    const size_t at = random() % good.size();
    if (i % 3 == 0) {
      bad.resize(at);
    } else if (i % 3 == 1) {
      bad[at] = static_cast<char>(bad[at] ^ (1 << (i % 8)));
    } else {
      bad.insert(at, "x");
    }
    write("/root/bad.ormel", bad);
    const Result refused = ctl(restore_words("/root/bad.ormel"));
    EXPECT_EQ(refused.status, 1) << i;
    EXPECT_THAT(refused.err, ContainsRegex("^ormelctl: [^\n]+\n  [^\n]+\n$"));
  }
  write("/root/wrong", "another passphrase");
  EXPECT_THAT(ctl({"restore", FILE_NAME, "--passphrase-file", "/root/wrong"}).err,
              HasSubstr("the passphrase is wrong"));
  EXPECT_EQ(ctl({"restore", FILE_NAME}).status, 2) << "--passphrase-file is missing";
  EXPECT_EQ(
      ctl({"restore", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE, "--only", "all"}).status, 2);
  EXPECT_EQ(state(), before);
}

// The names and digests that both states have, or one of them: what a run may leave that was
// killed.
std::set<std::string> lines_of(const std::string& text) {
  std::istringstream lines(text);
  std::set<std::string> all;
  for (std::string line; std::getline(lines, line);) all.insert(line);
  return all;
}

TEST_F(Backup, LeavesEachFileOldOrNewWhereverItIsKilled) {
  expect_done({"profile", "add", "pptp", "--name", "new", "--host", "192.0.2.1"});
  expect_done({"user", "grant", "guest", "pptp"});
  expect_done({"user", "policy", "--limit", "4"});
  expect_done({"backup", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE});
  ASSERT_EQ(ctl(restore_words(FILE_NAME)).status, 0);
  const std::string wanted = state();
  expect_done({"profile", "rm", "new", "--yes"});
  expect_done({"profile", "add", "l2tp", "--name", "old", "--host", "192.0.2.1", "--psk-file",
               "/root/secret"});
  expect_done({"user", "revoke", "guest", "--yes"});
  expect_done({"user", "policy", "--limit", "6"});
  expect_done({"backup", "/root/old.ormel", "--passphrase-file", PASSPHRASE_FILE});
  ASSERT_EQ(ctl(restore_words("/root/old.ormel")).status, 0);
  const std::string present = state();
  std::set<std::string> allowed = lines_of(wanted);
  allowed.merge(lines_of(present));
  std::vector<std::string> words{"/usr/bin/strace", "-qq", "-o", "/dev/null", "-e", "", TOOL};
  for (const std::string& word : restore_words(FILE_NAME)) words.push_back(word);
  std::vector<std::string> traced = PLACES;
  traced.emplace_back("ASAN_OPTIONS=detect_leaks=0");  // which a traced program cannot do
  // Each call that changes what is on disk is a point to be killed at.
  constexpr int MOST = 200;
  int point = 0, status = -1;
  while (status != 0 && ++point < MOST) {
    SCOPED_TRACE(point);
    words[5] = "inject=rename,renameat,renameat2,link,linkat,unlink:signal=KILL:when=" +
               std::to_string(point);
    status = run(words, traced).status;
    for (const std::string& line : lines_of(state())) EXPECT_THAT(allowed, testing::Contains(line));
    EXPECT_EQ(ctl(restore_words(FILE_NAME)).status, 0);
    EXPECT_EQ(state(), wanted);
    ASSERT_EQ(ctl(restore_words("/root/old.ormel")).status, 0);
  }
  EXPECT_GT(point, 6) << "there were points to be killed at";
  EXPECT_LT(point, MOST);
}

TEST_F(Backup, StartsAgainWhatItStoppedWhenAFileCannotBeWritten) {
  const char* const rights = "/etc/config/vpn_user_ex.conf";
  expect_done({"user", "grant", "guest", "openvpn"});
  expect_done({"server", "on", "openvpn"});
  expect_done({"backup", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE});
  expect_done({"server", "set", "openvpn", "--max", "9", "--yes"});
  const auto daemon = [] { return run({"/usr/bin/pgrep", "-f", "openvpn/server.conf"}).out; };
  const std::string before = daemon();
  ASSERT_THAT(before, Not(testing::IsEmpty()));
  fs::remove(rights);
  fs::create_directories(std::string(rights) + "/in the way");
  const Result result = ctl(restore_words(FILE_NAME));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr(std::string(rights) + " cannot be written"),
                                HasSubstr("started again: openvpn server\n")));
  EXPECT_EQ(conf_value("OPENVPN", "Max Client"), "9");
  EXPECT_THAT(daemon(), AllOf(Not(testing::IsEmpty()), Not(before)));
  fs::remove_all(rights);
  expect_done(restore_words(FILE_NAME));
  EXPECT_EQ(conf_value("OPENVPN", "Max Client"), "5");
}

TEST_F(Backup, BringsTheWantedPartsAlone) {
  ctl({"profile", "add", "pptp", "--name", "kept", "--host", "192.0.2.1"});
  ctl({"user", "grant", "guest", "pptp"});
  ASSERT_EQ(ctl({"backup", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE}).status, 0);
  ctl({"user", "revoke", "guest", "--yes"});
  ctl({"profile", "rm", "kept", "--yes"});
  std::vector<std::string> words = restore_words(FILE_NAME);
  words.insert(words.end(), {"--only", "rights"});
  EXPECT_EQ(ctl(words).status, 0);
  EXPECT_THAT(ctl({"user", "list", "--filter", "guest"}).out, HasSubstr("pptp"));
  EXPECT_EQ(ctl({"profile", "show", "kept"}).status, 3);
  words.back() = "profiles";
  EXPECT_EQ(ctl(words).status, 0);
  EXPECT_EQ(ctl({"profile", "show", "kept"}).status, 0);

  const std::string damaged = "what was here\n";
  write(VPN_CONF, damaged);
  for (const char* more : {"--as-copy", "--dry-run"}) {
    words.emplace_back(more);
    EXPECT_THAT(ctl(words).err, HasSubstr("restore all of the backup")) << "not beside this";
    words.pop_back();
  }
  EXPECT_EQ(ctl(words).status, 1);
  EXPECT_EQ(read(VPN_CONF), damaged);
  expect_done(restore_words(FILE_NAME));
  EXPECT_EQ(ctl({"profile", "show", "kept"}).status, 0);
  EXPECT_EQ(read(std::string(VPN_CONF) + ".damaged"), damaged);
}

TEST_F(Backup, SaysThatTheNextStepOfItsRotationIsOverdue) {
  constexpr const char* ROTATION = "/etc/openvpn/keys/rotation";
  const std::string ahead = std::to_string(std::time(nullptr) + 3600);
  const std::string over = "1000";
  for (const auto& [phase, change, overdue] :
       {std::tuple{"overlap", over, true}, {"overlap", ahead, false}, {"changed", over, false}}) {
    SCOPED_TRACE(phase + change);
    std::string rotation = "overlap=60\nbegun=900\n";
    for (const auto& [key, value] :
         {std::pair{"phase=", std::string(phase)}, {"change=", change}, {"end=", ahead}})
      rotation.append(key).append(value).append("\n");
    write(ROTATION, rotation);
    expect_done({"backup", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE});
    std::vector<std::string> words = restore_words(FILE_NAME);
    words.emplace_back("--dry-run");
    const char* const warning = "change-over was due on ";
    EXPECT_THAT(ctl(words).out, Not(HasSubstr(warning))) << "that is so already";
    fs::remove(ROTATION);
    for (const bool dry : {true, false}) {
      if (!dry) words.pop_back();
      EXPECT_EQ(ctl(words).out.find(warning) != std::string::npos, overdue) << dry;
    }
    EXPECT_TRUE(fs::exists(ROTATION)) << "it comes back even so";
  }
  fs::remove(ROTATION);
}

TEST_F(Backup, BringsCopiesOfProfilesBesideThePresentOnes) {
  expect_done({"server", "on", "openvpn"});
  write("/root/office.ovpn", ctl({"profile", "export"}).out);
  expect_done({"profile", "import", "/root/office.ovpn", "--name", "far", "--user", "guest",
               "--pass-file", "/root/secret", "--yes"});
  expect_done({"profile", "add", "pptp", "--name", "office", "--host", "192.0.2.1"});
  expect_done({"profile", "add", "wireguard", "--name", "w", "--address", "198.18.8.5",
               "--peer-key", KEY, "--endpoint", "192.0.2.9:51820"});
  expect_done({"backup", FILE_NAME, "--passphrase-file", PASSPHRASE_FILE});
  std::vector<std::string> words = restore_words(FILE_NAME);
  words.emplace_back("--as-copy");
  EXPECT_EQ(ctl(words).status, 2) << "for profiles alone";
  words.insert(words.end(), {"--only", "profiles"});
  const Result copied = ctl(words);
  EXPECT_EQ(copied.status, 0) << copied.err;
  EXPECT_THAT(copied.out, HasSubstr("warning: w (wireguard/1) is not copied: "));
  EXPECT_THAT(
      ctl({"profile", "list"}).out,
      AllOf(HasSubstr("office (copy)"), HasSubstr("far (copy)"), Not(HasSubstr("w (copy)"))));
  EXPECT_THAT(read("/etc/config/openvpn/clients/client2"), HasSubstr("dev tun2002\n"));
  EXPECT_THAT(read("/etc/config/openvpn/clients/client1"), HasSubstr("dev tun2001\n"));
  EXPECT_EQ(conf_value("OPENVPN_CLIENT2", "Name"), "guest");
}

TEST_F(Backup, IsMadeShownAndRestoredOverTheWeb) {
  ctl({"profile", "add", "pptp", "--name", "a", "--host", "192.0.2.1"});
  const auto session = [](const char* user) {
    return run({"/usr/lib/fenro/fenro-session", "create", user}).out.substr(0, 8);
  };
  const std::string admin = session("admin"), guest = session("guest");
  const std::string secret = std::string("passphrase=") + PASSPHRASE;
  const WebReply file =
      https("/ormel/backup/download", {"-o", "/root/web.ormel", "-D", "/dev/stdout", "--data",
                                       "sid=" + admin, "--data-urlencode", secret});
  EXPECT_THAT(file.head + file.body, HasSubstr("filename=backup.ormel"));
  run({"/usr/bin/curl", "-ksS", "-o", "/root/web.ormel", "--data", "sid=" + admin,
       "--data-urlencode", secret, "https://localhost/ormel/backup/download"});
  EXPECT_THAT(
      https("/ormel/backup/download", {"--data", "sid=" + admin + "&passphrase=short"}).body,
      HasSubstr("\"error\":15"));
  EXPECT_THAT(
      https("/ormel/backup/download", {"--data", "sid=" + guest, "--data-urlencode", secret}).body,
      HasSubstr("\"error\":39"));
  ctl({"profile", "rm", "a", "--yes"});
  const auto upload = [&](const std::string& route, const std::string& sid,
                          const std::string& words) {
    return https(route, {"-F", "sid=" + sid, "-F", words, "-F", "backup=@/root/web.ormel"}).body;
  };
  EXPECT_THAT(upload("/ormel/backup/inspect", guest, secret), HasSubstr("\"error\":39"));
  EXPECT_THAT(upload("/ormel/backup/inspect", admin, "passphrase=another one"),
              HasSubstr("\"error\":38"));
  EXPECT_THAT(upload("/ormel/backup/inspect", admin, secret),
              AllOf(HasSubstr(R"("profiles":["a"])"), HasSubstr(R"x("added":["a (pptp/1)"])x")));
  EXPECT_EQ(ctl({"profile", "show", "a"}).status, 3) << "a look changes nothing";
  EXPECT_THAT(upload("/ormel/backup/restore", admin, secret), HasSubstr("\"error\":0"));
  EXPECT_EQ(ctl({"profile", "show", "a"}).status, 0);
  EXPECT_EQ(uploads(), 0U);
  EXPECT_THAT(read(LOG), Not(HasSubstr(PASSPHRASE)));
}

TEST_F(Backup, ADocumentIsAppliedOnceAndRefusedWhole) {
  ctl({"server", "on", "openvpn"});
  ctl({"profile", "add", "pptp", "--name", "office", "--host", "192.0.2.1"});
  write(SITE, R"({"format": 1,
    "servers": {"openvpn": {"maximum": 20}, "l2tp": {"psk": {"file": "secret"}}},
    "profiles": {"branch": {"protocol": "l2tp", "host": "192.0.2.7", "psk": "abc"}},
    "rights": {"guest": ["openvpn"]},
    "gateway": {"on": true, "first": "branch", "snat": true}})");
  const Result shown = ctl({"diff", SITE});
  EXPECT_EQ(shown.status, 6);
  EXPECT_THAT(shown.out, AllOf(HasSubstr("~ servers.openvpn.maximum  5 → 20\n"),
                               HasSubstr("~ servers.l2tp.psk  changed\n"),
                               HasSubstr("+ profiles.branch (l2tp)\n"),
                               HasSubstr("- profiles.office (pptp)\n")));
  const std::string before = state();
  EXPECT_THAT(ctl({"apply", SITE, "--dry-run"}).out, EndsWith("nothing was changed\n"));
  EXPECT_EQ(state(), before);

  const Result applied = ctl({"apply", SITE});
  EXPECT_EQ(applied.status, 0) << applied.err;
  EXPECT_EQ(applied.out, "changed 3, added 2, left 1 as they are\n");
  EXPECT_EQ(conf_value("OPENVPN", "Max Client"), "20");
  EXPECT_EQ(conf_value("L2TP_CLIENT1", "PSK"), "abc");
  const std::string settled = state();
  const Result again =
      run({"/usr/bin/strace", "-f", "-e", "trace=execve", "-o", "/root/trace", TOOL, "apply", SITE},
          PLACES);
  EXPECT_EQ(again.out, "changed 0, added 0, left 6 as they are\n");
  // Each run looks up the place of its log.
  EXPECT_EQ(
      run({"/bin/sh", "-c", "grep 'execve(' /root/trace | grep -vc /sbin/getcfg"}, PLACES).out,
      "1\n")
      << read("/root/trace");
  EXPECT_EQ(state(), settled);
  EXPECT_EQ(ctl({"apply", SITE, "--prune"}).out,
            "changed 0, added 0, removed 1, left 5 as they are\n");
  EXPECT_EQ(ctl({"diff", SITE}).status, 0);
  EXPECT_EQ(ctl({"diff", "-"}, ctl({"export"}).out).status, 0);
  EXPECT_EQ(read("/usr/share/ormel/state.schema.json"), ctl({"__schema"}).out);
}

TEST_F(Backup, ADocumentKeepsWhoseADeviceIs) {
  ASSERT_EQ(ctl({"server", "set", "wireguard", "--name", "hub", "--address", "198.18.7.1", "--port",
                 "51820", "--yes"})
                .status,
            0);
  ASSERT_EQ(ctl({"peer", "add", "phone", "--host", "vpn.example.org"}).status, 0);
  const auto phone = [](const char* member) {
    const ormel::Json site{json_loads(ctl({"export"}).out.c_str(), 0, nullptr)};
    const json_t* const peers = json_object_get(site.get(), "peers");
    const char* const text =
        json_string_value(json_object_get(json_object_get(peers, "phone"), member));
    return std::string(text ? text : "");
  };
  const std::string key = phone("peer_pub_key"), address = phone("peer_allow_ip");
  const auto apply = [&](const std::string& owner) {
    write(SITE, R"({"format": 1, "access": {"guest": {"until": {}, "devices": 2}},
      "peers": {"phone": {"peer_pub_key": ")" +
                    key + R"(", "peer_allow_ip": ")" + address + R"(", "owner": ")" + owner +
                    "\"}}}");
    return ctl({"apply", SITE}).status;
  };
  const auto limits = [] { return run({"/usr/lib/fenro/fenro-hold", "limits"}).out; };
  EXPECT_EQ(phone("owner"), "");
  EXPECT_EQ(apply("nobody-here"), 1);
  for (const char* owner : {"guest", "admin", ""}) {
    SCOPED_TRACE(owner);
    EXPECT_EQ(apply(owner), 0);
    EXPECT_EQ(phone("owner"), owner);
    EXPECT_EQ(fenro::read_grants().owner_of(key), owner);
    EXPECT_EQ(ctl({"diff", SITE}).status, 0) << "the second time does nothing";
    EXPECT_EQ(limits().find("end of access") != std::string::npos, owner == std::string("admin"))
        << "who may have no device";
  }
  EXPECT_EQ(ctl({"peer", "limit", "phone", "--off"}).status, 0);
  for (const char* owner : {"guest", ""}) EXPECT_EQ(apply(owner), 0);
  EXPECT_THAT(limits(), HasSubstr(key)) << "which an administrator has set";
  ctl({"peer", "rm", "phone", "--yes"});
  fs::remove(fenro::GRANTS);
}

TEST_F(Backup, ADocumentThatIsWrongInOnePlaceChangesNothing) {
  ctl({"profile", "add", "pptp", "--name", "office", "--host", "192.0.2.1"});
  const std::string before = state();
  const struct {
    const char* member;
    const char* said;
  } cases[] = {
      {R"("servers": {"openvpn": {"maximum": 999}})", "servers.openvpn.maximum does not take 999"},
      {R"("servers": {"openvpn": {"port": 70000}})", "servers.openvpn.port does not take 70000"},
      {R"("servers": {"l2tp": {"enable": true, "psk": ""}})", "servers.l2tp.psk"},
      {R"("servers": {"pptp": {"out_eif": "nic0"}})", "servers.pptp.out_eif does not take nic0"},
      {R"("profiles": {"x": {"protocol": "pptp", "host": "a b"}})", "profiles.x.host"},
      {R"("profiles": {"x": {"protocol": "l2tp", "host": "192.0.2.1"}})", "profiles.x cannot be"},
      {R"("profiles": {"x": {"protocol": "l2tp", "psk": {"kept": true}}})",
       "profiles.x.psk is not kept here"},
      {R"("profiles": {"x": {"protocol": "openvpn"}})", "profiles.x.config"},
      {R"("profiles": {"x": {"protocol": "openvpn", "config": "dev tap"}})", "profiles.x.config"},
      {R"("profiles": {"office": {"protocol": "l2tp", "psk": "a"}})", "profiles.office.protocol"},
      {R"("profiles": {"office": {"protocol": "pptp", "name": "b"}})", "profiles.office.name"},
      {R"("peers": {"p": {"peer_pub_key": "x", "peer_allow_ip": "198.18.7.2/32"}})",
       "peers.p.peer_pub_key"},
      {R"("peers": {"p": {"peer_pub_key": "MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM=",
                          "peer_allow_ip": "10.9.9.2/32"}})",
       "peers.p.peer_allow_ip is not in the server's network"},
      {R"("rights": {"nobody-here": ["pptp"]})", "rights.nobody-here is no user"},
      {R"("gateway": {"on": true, "first": "none"})", "gateway.first is no profile"},
      {R"("notifications": {"n": {"url": "ftp://x"}})", "notifications.n.url"},
      {R"("block": {"limit": 1})", "block.limit is not between 2 and 10"},
      {R"("rights": )", "line 2"},
  };
  for (const auto& row : cases) {
    // Something good comes before it.
    write(SITE,
          std::string(R"({"format": 1, "guard": {"mode": "strict"},)") + '\n' + row.member + '}');
    const Result refused = ctl({"apply", SITE});
    EXPECT_EQ(refused.status, 1) << row.member;
    EXPECT_THAT(refused.err, HasSubstr(row.said));
  }
  EXPECT_EQ(state(), before);
  EXPECT_EQ(ctl({"apply", "/nowhere.json"}).status, 3);
}

}  // namespace
