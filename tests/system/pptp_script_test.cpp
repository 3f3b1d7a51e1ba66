// The start scripts of PPTP, as the program runs them: no environment, no streams but those caught here, umask 0.
// appliance: --no-daemons
#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* CONF = "/etc/config/vpn.conf";
constexpr const char* CLIENT = "/etc/init.d/vpn_pptp_client.sh";
constexpr const char* SERVER = "/etc/init.d/vpn_pptp.sh";
constexpr const char* COMMON = "/etc/init.d/vpn_common.sh";
constexpr const char* PEER = "/etc/config/ppp/peers/pptpclient3";
constexpr const char* SESSION_OPTIONS = "/etc/config/ppp/options.pptpd";
constexpr const char* DAEMON = "/usr/lib/fenro/pppd-pptp";

std::string read(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write(const fs::path& path, const std::string& text, mode_t mode = 0600) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  chmod(path.c_str(), mode);
}

struct Result {
  int status;
  std::string output;  // both streams
};

pid_t spawn(const std::vector<std::string>& words, const std::vector<std::string>& environment = {}) {
  std::vector<char*> argv, env;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  for (const std::string& word : environment) env.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  env.push_back(nullptr);
  const pid_t child = fork();
  if (child != 0) return child;
  umask(0);
  const bool ready = chdir("/") == 0 && dup2(open("/dev/null", O_RDONLY), 0) == 0 &&
                     dup2(open("/tmp/output", O_WRONLY | O_CREAT | O_TRUNC, 0600), 1) == 1 && dup2(1, 2) == 2;
  if (ready) execve(argv[0], argv.data(), env.data());
  _exit(127);
}

Result run(const std::vector<std::string>& words, const std::vector<std::string>& environment = {}) {
  int status = 0;
  waitpid(spawn(words, environment), &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read("/tmp/output")};
}

std::string get(const char* section, const char* key) {
  std::string value = run({"/sbin/getcfg", section, key, "-f", CONF}).output;
  if (!value.empty()) value.pop_back();
  return value;
}

template <typename Condition>
bool comes_true(Condition condition) {
  for (int i = 0; i < 100 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return condition();
}

// Where the host lets only a group run pppd, an ordinary user's appliance cannot.
bool may_run_pppd() {
  return access("/usr/sbin/pppd", X_OK) == 0;
}

// What pppd itself makes of its options. It only looks whether its device can be opened before it parses.
std::string parsed_by_pppd(std::vector<std::string> options) {
  const bool made = symlink("/dev/null", "/dev/ppp") == 0;
  options.insert(options.begin(), {"/usr/sbin/pppd", "dryrun"});
  const Result result = run(options);
  if (made) fs::remove("/dev/ppp");
  EXPECT_EQ(result.status, 0) << result.output;
  return result.output;
}

// Every kernel looks here like one without PPP: nothing is to dial out of a test.
void hide_ppp() {
  std::string devices = read("/proc/devices");
  const std::size_t line = devices.find("108 ppp\n");
  if (line == std::string::npos) return;
  write("/tmp/devices.hidden", devices.erase(line, 8));
  ASSERT_EQ(mount("/tmp/devices.hidden", "/proc/devices", nullptr, MS_BIND, nullptr), 0);
  umount("/dev/ppp");
  fs::remove("/dev/ppp");
}

// What the start scripts say where there is no PPP: the files are written, and that is all.
void expect_no_ppp(const Result& result) {
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.output.find("this kernel has no PPP"), std::string::npos) << result.output;
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
}

class PptpScript : public testing::Test {
 protected:
  void SetUp() override {
    hide_ppp();
    fs::remove_all("/etc/config/ppp");
    fs::remove(CONF);
  }
  void TearDown() override { fs::remove(CONF); }

  static void client(const std::string& lines) { write(CONF, "[PPTP_CLIENT3]\nIndex = 3\n" + lines); }
  static void server(const std::string& lines) { write(CONF, "[PPTP]\nEnable = TRUE\n" + lines); }
};

class PptpClientScript : public PptpScript {};
class PptpServerScript : public PptpScript {};

TEST_F(PptpClientScript, QuotesEveryAccountSoThatPppdReadsItBack) {
  struct Account {
    const char *user, *user_of_pppd, *password_base64;
  };
  constexpr Account ACCOUNTS[] = {
      // pppd prints its words with quotes and backslashes escaped
      {"bob", "bob", "c2VjcmV0"},
      {"DOM\\bob", "DOM\\\\bob", "YSBiICIjXA=="},  // a b "#\ .
      {"$(touch /tmp/pwned) `id`; # \" user x", "$(touch /tmp/pwned) `id`; # \\\" user x", "bm9hdXRoCm5vYXV0aA=="},
      {"-v\xc3\xa9", "-v\xc3\xa9", "JChpZCk="},
      {"", "", ""},
  };
  std::ptrdiff_t lines = 0;
  for (const Account& account : ACCOUNTS) {
    SCOPED_TRACE(account.user);
    client(std::string{"Domain IP = 192.0.2.7\nName = "} + account.user + "\nAccessCode = " + account.password_base64 +
           "\n");

    expect_no_ppp(run({CLIENT, "start", "3"}));

    struct stat status {};
    ASSERT_EQ(stat(PEER, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    const std::string text = read(PEER);
    if (lines == 0) lines = std::count(text.begin(), text.end(), '\n');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), lines) << text;  // no value becomes a line of its own
    EXPECT_EQ(std::distance(fs::directory_iterator("/etc/config/ppp/peers"), {}), 1);
    if (!may_run_pppd()) continue;
    const std::string parsed = parsed_by_pppd({"file", PEER});
    EXPECT_NE(parsed.find(std::string{"\nuser "} + account.user_of_pppd + "\t"), std::string::npos) << parsed;
    EXPECT_NE(parsed.find("\npassword ?"), std::string::npos);
    EXPECT_NE(parsed.find("pptp 192.0.2.7 --nolaunchpppd\t"), std::string::npos) << parsed;
    EXPECT_NE(parsed.find("\nifname ppp1003\t"), std::string::npos);
  }
  EXPECT_FALSE(fs::exists("/tmp/pwned"));
}

TEST_F(PptpClientScript, RefusesAnAccountThatPppdWouldCutShort) {
  for (const char* password : {"AGE=", "not base64"}) {
    client(std::string{"Domain IP = 192.0.2.7\nName = bob\nAccessCode = "} + password + "\n");
    EXPECT_EQ(run({CLIENT, "start", "3"}).status, 1);
  }
  for (const std::size_t length : {255U, 256U}) {
    client("Domain IP = 192.0.2.7\nName = " + std::string(length, 'u') + "\n");
    run({CLIENT, "start", "3"});
    EXPECT_EQ(fs::exists(PEER), length == 255);
    fs::remove(PEER);
  }
}

TEST_F(PptpClientScript, LetsOnlyAddressesAndPlainNamesIntoTheCommand) {
  for (const char* bad :
       {"", "$(touch /tmp/pwned)", "192.0.2.7;id", "-h", ".a", "a b", "a\" pty \"id", "x`id`", "a\\"}) {
    SCOPED_TRACE(bad);
    client(std::string{"Domain IP = "} + bad + "\nServer Address = " + bad + "\n");

    EXPECT_EQ(run({CLIENT, "start", "3"}).status, 1);

    EXPECT_FALSE(fs::exists(PEER));
  }
  EXPECT_FALSE(fs::exists("/tmp/pwned"));
  client("Domain IP = \nServer Address = vpn-1.example.com\n");
  run({CLIENT, "start", "3"});
  EXPECT_NE(read(PEER).find("pptp vpn-1.example.com --nolaunchpppd\"\n"), std::string::npos);
}

TEST_F(PptpServerScript, TurnsTheStoredMethodsIntoOptionsLikeTheClients) {
  struct Row {
    const char *encryption, *authentication, *method, *mppe;
  };
  constexpr Row ROWS[] = {{"0", "2", "mschap-v2", "nomppe"},
                          {"1", "2", "mschap-v2", "require-mppe"},
                          {"2", "3", "mschap", "require-mppe-128"},
                          {"2", "1", "pap", "nomppe"},
                          {"1", "4", "chap", "nomppe"}};
  write("/etc/ppp/pap-secrets", "\"bob\"\tpptpd\t@login\t*\n");  // without an account pppd ends at once
  for (const Row& row : ROWS) {
    SCOPED_TRACE(std::string{row.encryption} + " " + row.authentication);
    const std::string keys =
        std::string{"Encryption = "} + row.encryption + "\nAuthentcation = " + row.authentication + "\n";
    std::string conf = "[PPTP]\n" + keys;
    conf.append("\n[PPTP_CLIENT3]\nIndex = 3\nDomain IP = 192.0.2.7\n").append(keys);
    write(CONF, conf);
    run({CLIENT, "start", "3"});
    run({SERVER, "start"});

    const std::string peer = read(PEER), session = read(SESSION_OPTIONS);
    for (const std::string& options : {peer, session}) {
      EXPECT_NE(options.find(std::string{"\n"} + row.mppe + "\n"), std::string::npos) << options;
      EXPECT_EQ(options.find(std::string{"refuse-"} + row.method + "\n"), std::string::npos);
    }
    EXPECT_NE(session.find(std::string{"\nrequire-"} + row.method + "\n"), std::string::npos);
    // Anything but PAP must go by the helper: pppd alone takes the secrets for what they only stand for.
    EXPECT_EQ(session.find("\nplugin winbind.so\n") != std::string::npos, row.authentication != std::string{"1"});
    if (may_run_pppd()) parsed_by_pppd({"notty", "local", "file", SESSION_OPTIONS, "115200", "10.0.0.1:10.0.0.2"});
  }
}

TEST_F(PptpServerScript, WritesPoolNameServersAndSegmentSize) {
  const std::string secrets = "\"al \"ice\"\tpptpd\t&/etc/config/smbpasswd\t*\n";
  write("/etc/ppp/chap-secrets", secrets);
  server(
      "Client IP 1 = 10.3.0.2\nClient IP 2 = 10.3.0.200\nMax Client = 7\nMSS = 1234\n"
      "Enable Mabual DNS = TRUE\nMabual DNS = 9.9.9.9\n");

  expect_no_ppp(run({SERVER, "start"}));

  const std::string conf = read("/etc/config/ppp/pptpd.conf"), options = read(SESSION_OPTIONS);
  for (const char* line : {"\nconnections 7\n", "\nlocalip 10.3.0.1\n", "\nremoteip 10.3.0.2-200\n"})
    EXPECT_NE(conf.find(line), std::string::npos) << conf;
  for (const char* line : {"\nname pptpd\n", "\nmtu 1274\n", "\nmru 1274\n", "\nms-dns 9.9.9.9\n"})
    EXPECT_NE(options.find(line), std::string::npos) << options;
  EXPECT_EQ(read("/etc/ppp/chap-secrets"), secrets);

  write("/etc/resolv.conf", "nameserver 127.0.0.53\nnameserver 192.0.2.1\nnameserver ::1\nnameserver 192.0.2.2");
  server("");
  run({SERVER, "start"});
  EXPECT_NE(read(SESSION_OPTIONS).find("\nms-dns 192.0.2.1\nms-dns 192.0.2.2\n"), std::string::npos);
}

TEST_F(PptpServerScript, RefusesSettingsThatTheDaemonsCouldNotTake) {
  for (const char* bad : {"Client IP 1 = 10.0.0.x\n", "Client IP 1 = 10.0.0.9\nClient IP 2 = 10.0.0.8\n",
                          "Client IP 2 = 10.0.1.9\n", "Client IP 1 = 10.0.0.1\n", "Max Client = 0\n", "MSS = 999\n",
                          "MSS = 1401\n", "MSS = 1300;id\n", "Encryption = 3\n", "Authentcation = 0\n",
                          "interface = eth0\"; drop\n", "interface = $(id)\n", "Max Client = 99999999999999999999\n"}) {
    SCOPED_TRACE(bad);
    server(bad);
    EXPECT_EQ(run({SERVER, "start"}).status, 1);
    EXPECT_FALSE(fs::exists(SESSION_OPTIONS));
  }
}

TEST_F(PptpClientScript, TakesNothingForAnIndexButOneOfTheSlots) {
  for (const char* bad : {"", "0", "33", "-1", "03", "3 3", "3;id", "1e1", "99999999999999999999"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(run({CLIENT, "stop", bad}).status, 1);
  }
  EXPECT_EQ(run({CLIENT, "stop", "32"}).status, 0);  // not running, not even there
  EXPECT_EQ(run({CLIENT, "start", "32"}).status, 1);
  EXPECT_FALSE(fs::exists(CONF));  // no section came of it
}

// A tunnel with a stand-in for pppd: a shell under its name, which runs the real hooks.
TEST_F(PptpClientScript, FollowsATunnelFromUpToDown) {
  if (mknod("/dev/ppp", S_IFCHR | 0600, makedev(1, 3)) != 0) GTEST_SKIP() << "an ordinary user makes no devices";
  write("/tmp/devices", read("/proc/devices") + "108 ppp\n");
  ASSERT_EQ(mount("/tmp/devices", "/proc/devices", nullptr, MS_BIND, nullptr), 0);
  fs::remove(DAEMON);
  fs::copy_file("/bin/bash", DAEMON);
  const std::string hook = " ppp1003 /dev/pts/0 0 10.9.0.2 10.9.0.1 PPTP_CLIENT3\n";
  // bash reads its first argument, "file", as a script; the working directory is "/".
  write("/file", "(trap 'env -i /usr/lib/fenro/ppp-client-down" + hook.substr(0, hook.size() - 1) + "; exit' TERM\n" +
                     "env -i DNS1=9.9.9.9 /usr/lib/fenro/ppp-client-up" + hook + "while :; do sleep 0.1; done) &\n");
  write("/tmp/edge", "#!/bin/sh\necho \"$# $INTERFACE $LOCAL_IP $REMOTE_IP $(env | wc -l)\" >>/tmp/edges\n", 0700);
  client(
      "Domain IP = 192.0.2.7\nName = bob\nAccessCode = c2VjcmV0\nLocalIP = 1.1.1.1\nUp = /tmp/edge\nDown = "
      "/tmp/edge\n");

  ASSERT_EQ(run({CLIENT, "start", "3"}).status, 0);

  EXPECT_TRUE(comes_true([] { return get("PPTP_CLIENT3", "LocalIP") == "10.9.0.2"; }));
  EXPECT_EQ(get("PPTP_CLIENT3", "RemoteIP"), "10.9.0.1");
  EXPECT_EQ(get("PPTP_CLIENT3", "Real Address"), "192.0.2.7");
  EXPECT_GT(get("PPTP_CLIENT3", "Time Stamp").size(), 9U);
  EXPECT_TRUE(comes_true([] { return read("/tmp/edges") == "0 ppp1003 10.9.0.2 10.9.0.1 5\n"; })) << read("/tmp/edges");
  std::string commands;
  for (const auto& entry : fs::directory_iterator("/proc"))
    if (fs::is_directory(entry.path() / "task")) commands += read(entry.path() / "cmdline") + "\n";
  EXPECT_NE(commands.find(std::string{DAEMON} + '\0' + "file" + '\0' + PEER + '\0'), std::string::npos);
  EXPECT_EQ(commands.find("secret"), std::string::npos);

  EXPECT_EQ(run({CLIENT, "stop", "3"}).status, 0);

  for (const char* key : {"LocalIP", "RemoteIP", "Real Address"}) EXPECT_EQ(get("PPTP_CLIENT3", key), "") << key;
  EXPECT_EQ(get("PPTP_CLIENT3", "Time Stamp"), "0");
  EXPECT_EQ(run({CLIENT, "stop", "3"}).status, 0);
  const std::string both = "0 ppp1003 10.9.0.2 10.9.0.1 5\n0 ppp1003 10.9.0.2 10.9.0.1 5\n";
  EXPECT_TRUE(comes_true([&] { return read("/tmp/edges").size() >= both.size(); }));
  EXPECT_EQ(read("/tmp/edges"), both);  // the falling edge once, whoever saw it

  umount("/proc/devices");
  fs::remove("/dev/ppp");
  fs::remove(DAEMON);
  fs::create_symlink("/usr/sbin/pppd", DAEMON);
}

// Sessions with a stand-in for their pppd, and the real hooks that list them.
TEST_F(PptpServerScript, ThrowsOutTheSessionsNamedAndNoOther) {
  fs::create_directories("/tmp/sessions");
  fs::copy_file("/bin/bash", "/tmp/sessions/pppd", fs::copy_options::overwrite_existing);
  std::vector<pid_t> pids;
  const auto open_session = [&](const std::string& interface, const std::string& source, const std::string& user) {
    pids.push_back(spawn({"/tmp/sessions/pppd", "-c", "while :; do sleep 0.1; done", "file", SESSION_OPTIONS}));
    run({"/usr/lib/fenro/ppp-server-up", interface, "tty", "0", "10.0.0.1", "10.0.0." + std::to_string(pids.size() + 1),
         source},
        {"PEERNAME=" + user, "PPPD_PID=" + std::to_string(pids.back())});
  };
  const auto live = [&] {
    std::string left;
    for (const pid_t pid : pids) left += waitpid(pid, nullptr, WNOHANG) == 0 ? '1' : '0';
    return left;
  };
  open_session("ppp0", "192.0.2.10", "al ice\"$");
  open_session("ppp1", "192.0.2.11", "bob");
  open_session("ppp2", "192.0.2.12", "al ice\"$");
  open_session("ppp3", "192.0.2.13", "123");
  const std::string pid_of_bob = std::to_string(pids[1]);

  struct Kick {
    const char* action;
    std::string who;
    const char* left;
  };
  const Kick KICKS[] = {
      {"kick_one_connection", std::to_string(getpid()), "1111"},  // no session: this test goes on
      {"kick_all_connection", "ppp0", "1111"},                    // of users only
      {"kick_one_connection", "$3 || 1", "1111"},
      {"kick_one_connection", pid_of_bob, "1011"},
      {"kick_one_connection", "10.0.0.5", "1010"},
      {"kick_all_connection", "al ice\"$", "0000"},
  };
  for (const Kick& kick : KICKS) {
    SCOPED_TRACE(kick.who);
    EXPECT_EQ(run({COMMON, kick.action, "1", kick.who}).status, 0);
    EXPECT_TRUE(comes_true([&] { return live() == kick.left; })) << live();
  }

  run({"/usr/lib/fenro/ppp-server-down", "ppp1", "tty", "0", "10.0.0.1", "10.0.0.3", "192.0.2.11"},
      {"PPPD_PID=" + pid_of_bob});
  const std::string list = read("/var/log/ormel_online_users");
  EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 3) << list;
  EXPECT_EQ(list.find("Ym9i\n"), std::string::npos);
  EXPECT_EQ(run({SERVER, "stop"}).status, 0);
  EXPECT_EQ(read("/var/log/ormel_online_users"), "");
}

TEST_F(PptpClientScript, HasItsRoutesAndNatOnceHoweverOftenTheyAreAdded) {
  const bool firewall = fs::exists("/usr/sbin/nft") || fs::exists("/usr/sbin/iptables");
  const auto rules = [] { return run({"/sbin/ip", "rule", "show", "priority", "21003"}).output; };
  const auto routes = [] { return run({"/sbin/ip", "route", "show", "table", "1003"}).output; };
  for (const char* bad : {"eth0", "ppp1000", "ppp1033", "ppp01003", "ppp1003; id", ""})
    EXPECT_EQ(run({COMMON, "add_vpnclient_profile", bad}).status, 1) << bad;

  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(run({COMMON, "add_vpnclient_profile", "ppp1003"}).status, firewall ? 0 : 1);
    const std::string added = rules();
    EXPECT_EQ(std::count(added.begin(), added.end(), '\n'), 1) << added;
    EXPECT_EQ(routes().find("unreachable default"), 0U);
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(run({COMMON, "remove_vpnclient_profile", "ppp1003"}).status, 0);
    EXPECT_EQ(rules() + routes(), "");
  }
}

}  // namespace
