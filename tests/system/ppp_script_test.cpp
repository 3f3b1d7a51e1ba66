// The start scripts of PPTP and L2TP, as the program runs them: no environment, umask 0.
// appliance: --no-daemons

#include <dlfcn.h>
#include <span>
#include <sys/mount.h>
#include <sys/sysmacros.h>

#include "support/appliance_host.h"

using namespace ormel::test;

// What the plugin takes of pppd.
extern "C" {
int status = 0;
unsigned char persist = 1;
char* ipparam = nullptr;
struct notifier* phasechange = nullptr;
void add_notifier(notifier** list, void (*function)(void* argument, int phase), void* argument);
}

namespace pppd {
void (*on_phase)(void* argument, int phase) = nullptr;

void (*load(const char* path))() {
  static char section[] = "PPTP_CLIENT1";
  ipparam = section;
  void* const plugin = dlopen(path, RTLD_NOW);
  return plugin ? reinterpret_cast<void (*)()>(dlsym(plugin, "plugin_init")) : nullptr;
}
}  // namespace pppd

void add_notifier(notifier**, void (*function)(void* argument, int phase), void*) {
  pppd::on_phase = function;
}

namespace {

constexpr const char* COMMON = "/etc/init.d/vpn_common.sh";
constexpr const char* DAEMON = "/usr/lib/fenro/pppd-pptp";

struct Protocol {
  const char *type, *section, *server, *client, *server_of_accounts, *interface, *daemon_conf,
      *sessions, *peer;
};
constexpr Protocol PROTOCOLS[] = {
    {"1", "PPTP", "/etc/init.d/vpn_pptp.sh", "/etc/init.d/vpn_pptp_client.sh", "pptpd", "ppp1003",
     "/etc/config/ppp/pptpd.conf", "/etc/config/ppp/options.pptpd",
     "/etc/config/ppp/peers/pptpclient3"},
    {"2", "L2TP", "/etc/init.d/vpn_l2tp.sh", "/etc/init.d/vpn_l2tp_client.sh", "l2tpd", "ppp1253",
     "/etc/config/ppp/xl2tpd.conf", "/etc/config/ppp/options.xl2tpd",
     "/etc/config/ppp/peers/l2tpclient3"},
};
constexpr const Protocol& PPTP = PROTOCOLS[0];

// All rows of a table for PPTP, which stands for what both share; the first ones for the other.
template <typename Row, size_t Size>
std::span<const Row> first_of(const Row (&rows)[Size], const Protocol& protocol, size_t some) {
  return std::span(rows).first(&protocol == &PPTP ? Size : some);
}

// Where the host lets only a group run pppd, an ordinary user's appliance cannot.
bool may_run_pppd() {
  return access("/usr/sbin/pppd", X_OK) == 0;
}

// What pppd itself makes of its options. It only looks whether its device can be opened before it
// parses.
std::string parsed_by_pppd(std::vector<std::string> options) {
  const bool made = symlink("/dev/null", "/dev/ppp") == 0;
  options.insert(options.begin(), {"/usr/sbin/pppd", "dryrun"});
  options.insert(options.end(), {"logfd", "1"});
  const Result result = run(options);
  if (made) fs::remove("/dev/ppp");
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  return result.out + result.err;
}

// Every kernel looks here like one without PPP: nothing is to dial out of a test.
void hide_ppp() {
  std::string devices = read("/proc/devices");
  const size_t line = devices.find("108 ppp\n");
  if (line == std::string::npos) return;
  write("/tmp/devices.hidden", devices.erase(line, 8));
  ASSERT_EQ(mount("/tmp/devices.hidden", "/proc/devices", nullptr, MS_BIND, nullptr), 0);
  umount("/dev/ppp");
  fs::remove("/dev/ppp");
}

// What the start scripts say where there is no PPP: the files are written, and that is all.
void expect_no_ppp(const Result& result) {
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("this kernel has no PPP"));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

class PppScript : public testing::Test {
 protected:
  void SetUp() override {
    umask_before = umask(0);
    hide_ppp();
    fs::remove_all("/etc/config/ppp");
    fs::remove(VPN_CONF);
  }
  void TearDown() override {
    fs::remove(VPN_CONF);
    umask(umask_before);
  }
  static Result start_client(const Protocol& protocol, const std::string& lines) {
    write(VPN_CONF,
          '[' + std::string(protocol.section) + "_CLIENT3]\nIndex = 3\nPSK = \"k\"\n" + lines);
    return run({protocol.client, "start", "3"});
  }
  static Result start_server(const Protocol& protocol, const std::string& lines) {
    write(VPN_CONF,
          '[' + std::string(protocol.section) + "]\nEnable = TRUE\nPSK = \"k\"\n" + lines);
    return run({protocol.server, "start"});
  }
  static void refuses_client(const Protocol& protocol, const std::string& lines,
                             const char* told = "") {
    SCOPED_TRACE(protocol.section + ('\n' + lines));
    const Result result = start_client(protocol, lines);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(told));
    EXPECT_FALSE(fs::exists(protocol.peer));
  }

 private:
  mode_t umask_before = 0;
};

class PppClientScript : public PppScript {};
class PppServerScript : public PppScript {};

TEST_F(PppClientScript, QuotesEveryAccountSoThatPppdReadsItBack) {
  // User, the user as pppd prints it with quotes and backslashes escaped, and password.
  const std::tuple<std::string, std::string, std::string> accounts[] = {
      {"bob", "bob", "c2VjcmV0"},
      {"DOM\\bob", "DOM\\\\bob", "YSBiICIjXA=="},  // a b "#\ .
      {"$(touch /tmp/pwned) `id`; # \" user x", "$(touch /tmp/pwned) `id`; # \\\" user x",
       "bm9hdXRoCm5vYXV0aA=="},
      {"-v\xc3\xa9", "-v\xc3\xa9", "JChpZCk="},
      {"", "", ""},
  };
  for (const Protocol& protocol : PROTOCOLS) {
    std::ptrdiff_t lines = 0;
    for (const auto& [user, printed, password] : first_of(accounts, protocol, 3)) {
      SCOPED_TRACE(protocol.section + (' ' + user));
      expect_no_ppp(start_client(protocol, std::string("Domain IP = 192.0.2.7\nName = ")
                                               .append(user)
                                               .append("\nAccessCode = ")
                                               .append(password)
                                               .append("\n")));
      EXPECT_EQ(mode_of(protocol.peer), 0600U);
      const std::string text = read(protocol.peer);
      if (lines == 0) lines = std::count(text.begin(), text.end(), '\n');
      EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), lines) << "no value becomes a line";
      if (!may_run_pppd()) continue;
      const std::string parsed = parsed_by_pppd({"pty", "true", "file", protocol.peer});
      EXPECT_THAT(parsed, HasSubstr("\nuser " + printed + '\t'));
      EXPECT_THAT(parsed, HasSubstr("\npassword ?"));
      EXPECT_THAT(parsed, HasSubstr(std::string("\nifname ") + protocol.interface));
    }
  }
  EXPECT_EQ(std::distance(fs::directory_iterator("/etc/config/ppp/peers"), {}), 2);
  EXPECT_FALSE(fs::exists("/tmp/pwned"));
}

TEST_F(PppClientScript, RefusesAnAccountThatPppdWouldCutShort) {
  const std::string server = "Domain IP = 192.0.2.7\nName = ";
  for (const char* password : {"AGE=", "not base64"})
    refuses_client(PPTP, server + "bob\nAccessCode = " + password + "\n");
  for (const size_t length : {255U, 256U}) {
    start_client(PPTP, server + std::string(length, 'u') + "\n");
    EXPECT_EQ(fs::exists(PPTP.peer), length == 255);
    fs::remove(PPTP.peer);
  }
}

TEST_F(PppClientScript, LetsOnlyAddressesAndPlainNamesIntoCommandsAndFiles) {
  const std::string names[] = {"",      "192.0.2.7;id", "a }", "$(touch /tmp/pwned)",
                               "-h",    ".a",           "a b", "a\" pty \"id",
                               "x`id`", "a\\"};
  for (const Protocol& protocol : PROTOCOLS) {
    for (const std::string& bad : first_of(names, protocol, 3))
      refuses_client(
          protocol,
          std::string("Domain IP = ").append(bad + "\nServer Address = ").append(bad + '\n'));
  }
  EXPECT_FALSE(fs::exists("/tmp/pwned"));
  start_client(PPTP, "Domain IP = \nServer Address = vpn-1.example.com\n");
  EXPECT_THAT(read(PPTP.peer),
              HasSubstr("pptp vpn-1.example.com --nolaunchpppd --nohostroute\"\n"));
}

// With these there is no key for it, and an unencrypted link in its place would go unnoticed.
TEST_F(PppClientScript, RefusesEncryptionWithAMethodThatHasNone) {
  for (const char* keys :
       {"Encryption = 2\nAuthentcation = 1\n", "Encryption = 1\nAuthentcation = 4\n"})
    refuses_client(PPTP, std::string("Domain IP = 192.0.2.7\n") + keys, "no encryption with");
}

TEST_F(PppServerScript, TurnsTheStoredMethodsIntoOptionsOfBothEnds) {
  // Encryption, authentication, and the options for them.
  const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
      {"1", "2", "mschap-v2", "require-mppe"},
      {"0", "2", "mschap-v2", "nomppe"},
      {"2", "3", "mschap", "require-mppe-128"},
      {"0", "1", "pap", "nomppe"}};
  for (const Protocol& protocol : PROTOCOLS) {
    // Without an account pppd ends at once.
    write("/etc/ppp/pap-secrets",
          std::string("\"bob\"\t") + protocol.server_of_accounts + "\t@login\t*\n");
    for (const auto& [encryption, authentication, method, mppe] : first_of(rows, protocol, 1)) {
      const std::string keys = std::string("Encryption = ")
                                   .append(encryption)
                                   .append("\nAuthentcation = ")
                                   .append(authentication)
                                   .append("\n");
      SCOPED_TRACE(protocol.section + ('\n' + keys));
      start_client(protocol, "Domain IP = 192.0.2.7\n" + keys);
      start_server(protocol, keys);
      const std::string peer = read(protocol.peer), session = read(protocol.sessions);
      for (const std::string& options : {peer, session}) {
        EXPECT_THAT(options, HasSubstr('\n' + (&protocol == &PPTP ? mppe : "nomppe") + '\n'));
        EXPECT_THAT(options, Not(HasSubstr("refuse-" + method + '\n')));
      }
      EXPECT_THAT(session, HasSubstr("\nrequire-" + method + '\n'));
      // Anything but PAP must go by the helper: pppd alone takes the secrets for what they only
      // stand for.
      EXPECT_EQ(session.find("\nplugin winbind.so\n") != std::string::npos, authentication != "1");
      if (may_run_pppd())
        parsed_by_pppd(
            {"notty", "local", "file", protocol.sessions, "115200", "10.0.0.1:10.0.0.2"});
    }
  }
}

TEST_F(PppServerScript, WritesPoolNameServersAndSegmentSize) {
  const std::string secrets = "\"al \"ice\"\tpptpd\t&/etc/config/smbpasswd\t*\n";
  write("/etc/ppp/chap-secrets", secrets);
  const std::vector<std::string> conf_lines[] = {
      {"\nconnections 7\n", "\nlocalip 10.3.0.1\n", "\nremoteip 10.3.0.2-200\n"},
      {"\nport = 1701\n", "\nlocal ip = 10.3.0.1\n",
       "\nip range = 10.3.0.2-10.3.0.8\n"},  // as many as may come
  };
  for (const Protocol& protocol : PROTOCOLS) {
    SCOPED_TRACE(protocol.section);
    expect_no_ppp(start_server(
        protocol,
        "Client IP 1 = 10.3.0.2\nClient IP 2 = 10.3.0.200\nMax Client = 7\nMSS = 1234\n"
        "Enable Mabual DNS = TRUE\nMabual DNS = 9.9.9.9\n"));
    for (const std::string& line : conf_lines[&protocol - PROTOCOLS])
      EXPECT_THAT(read(protocol.daemon_conf), HasSubstr(line));
    for (const std::string& line :
         {std::string("name ") + protocol.server_of_accounts,
          std::string("set VPN_TYPE=") + protocol.type, std::string("mtu 1274"),
          std::string("mru 1274"), std::string("ms-dns 9.9.9.9")})
      EXPECT_THAT(read(protocol.sessions), HasSubstr('\n' + line + '\n'));
    EXPECT_THAT(read(protocol.daemon_conf) + read(protocol.sessions), Not(HasSubstr("\"k\"")));
  }
  EXPECT_EQ(read("/etc/ppp/chap-secrets"), secrets);
  write("/etc/resolv.conf",
        "nameserver 127.0.0.53\nnameserver 192.0.2.1\nnameserver ::1\nnameserver 192.0.2.2");
  start_server(PPTP, "");
  EXPECT_THAT(read(PPTP.sessions), HasSubstr("\nms-dns 192.0.2.1\nms-dns 192.0.2.2\n"));
}

TEST_F(PppServerScript, RefusesSettingsThatTheDaemonsCouldNotTake) {
  constexpr const char* BAD[] = {"Client IP 1 = 10.0.0.x\n",
                                 "Authentcation = 4\n",
                                 "Client IP 1 = 10.0.0.9\nClient IP 2 = 10.0.0.8\n",
                                 "Client IP 2 = 10.0.1.9\n",
                                 "Client IP 1 = 10.0.0.1\n",
                                 "Max Client = 0\n",
                                 "Max Client = 99999999999999999999\n",
                                 "MSS = 999\n",
                                 "MSS = 1401\n",
                                 "MSS = 1300;id\n",
                                 "Authentcation = 0\n",
                                 "interface = eth0\"; drop\n",
                                 "interface = $(id)\n"};
  for (const Protocol& protocol : PROTOCOLS) {
    std::vector<std::string> settings{&protocol == &PPTP ? "Encryption = 3\n" : "PSK = \n"};
    for (const char* bad : first_of(BAD, protocol, 2)) settings.emplace_back(bad);
    for (const std::string& setting : settings) {
      SCOPED_TRACE(protocol.section + (' ' + setting));
      EXPECT_EQ(start_server(protocol, setting).status, 1);
      EXPECT_FALSE(fs::exists(protocol.sessions));
    }
  }
  refuses_client(PROTOCOLS[1], "Domain IP = 192.0.2.7\nPSK = \n");
}

TEST_F(PppClientScript, TakesNothingForAnIndexButOneOfTheSlots) {
  for (const char* script :
       {PPTP.client, PROTOCOLS[1].client, "/etc/init.d/vpn_wireguard_client.sh"}) {
    for (const char* bad :
         {"", "0", "33", "-1", "03", "3 3", "3;id", "1e1", "99999999999999999999"})
      EXPECT_EQ(run({script, "stop", bad}).status, 1) << bad;
    EXPECT_EQ(run({script, "stop", "32"}).status, 0);  // not running, not even there
    EXPECT_EQ(run({script, "start", "32"}).status, 1);
  }
  EXPECT_FALSE(fs::exists(VPN_CONF));  // no section came of it
}

// The plugin of client tunnels within this program, which plays pppd's part.
TEST(PppPlugin, NotesHowAnAttemptEndedAndEndsARefusedLogin) {
  const auto init = pppd::load("/usr/lib/fenro/fenro_dial.so");
  ASSERT_TRUE(init) << dlerror();
  init();
  ASSERT_TRUE(pppd::on_phase);
  write(VPN_CONF, "[PPTP_CLIENT1]\nIndex = 1\nServer Address = 192.0.2.1\nLast Error = 0\n");
  enum { DEAD = 0, SERIAL = 2, ESTABLISH = 4, LOGIN = 5, NETWORK = 7, TERMINATE = 9 };
  const std::vector<int> attempt{SERIAL, ESTABLISH, DEAD},
      tunnel{SERIAL, ESTABLISH, LOGIN, NETWORK, TERMINATE, DEAD},
      login{SERIAL, ESTABLISH, LOGIN, TERMINATE, DEAD};
  const std::tuple<const char*, std::vector<int>, int, const char*, bool> rows[] = {
      {"no server", attempt, 16, "no-", true},
      {"ended by the server", tunnel, 0, "kicked", true},
      {"stopped", login, 5, "", true},
      {"refused login", login, 19, "login-refused", false},
      {"refused login and a quick hang-up", login, 16, "login-refused", false},
  };
  for (const auto& [what, phases, ended_by, code, dials_again] : rows) {
    SCOPED_TRACE(what);
    run({"/usr/lib/fenro/fenro-reason", "PPTP_CLIENT1", "--clear"});
    status = ended_by;
    persist = 1;
    for (const int phase : phases) pppd::on_phase(nullptr, phase);
    EXPECT_THAT(read("/run/fenro/reasons/PPTP_CLIENT1"), HasSubstr(code));
    EXPECT_EQ(persist != 0, dials_again);
  }
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Last Error"), "40");
}

// A tunnel with a stand-in for pppd: a shell under its name, which runs the real hooks.
TEST_F(PppClientScript, FollowsATunnelFromUpToDown) {
  if (mknod("/dev/ppp", S_IFCHR | 0600, makedev(1, 3)) != 0)
    GTEST_SKIP() << "an ordinary user makes no devices";
  write("/tmp/devices", read("/proc/devices") + "108 ppp\n");
  ASSERT_EQ(mount("/tmp/devices", "/proc/devices", nullptr, MS_BIND, nullptr), 0);
  fs::remove(DAEMON);
  fs::copy_file("/bin/bash", DAEMON);
  const std::string hook = " ppp1003 /dev/pts/0 0 10.9.0.2 10.9.0.1 PPTP_CLIENT3";
  // bash reads its first argument, "file", as a script; the working directory is "/".
  write("/file", "(trap 'env -i /usr/lib/fenro/ppp-client-down" + hook + "; exit' TERM\n" +
                     "env -i DNS1=9.9.9.9 /usr/lib/fenro/ppp-client-up" + hook +
                     "\nwhile :; do sleep 0.1; done) &\n");
  write("/tmp/edge",
        "#!/bin/sh\necho \"$# $INTERFACE $LOCAL_IP $REMOTE_IP $(env | wc -l)\" >>/tmp/edges\n",
        0700);

  const std::string keys =
      "Domain IP = 192.0.2.7\nName = bob\nAccessCode = c2VjcmV0\nLocalIP = 1.1.1.1\n";
  ASSERT_EQ(start_client(PPTP, keys + "Up = /tmp/edge\nDown = /tmp/edge\n").status, 0);

  const auto stored = [](const char* name) { return conf_value("PPTP_CLIENT3", name); };
  EXPECT_TRUE(comes_true([&] { return stored("LocalIP") == "10.9.0.2"; }));
  EXPECT_EQ(stored("RemoteIP"), "10.9.0.1");
  EXPECT_EQ(stored("Real Address"), "192.0.2.7");
  EXPECT_EQ(stored("DNS Server"), "9.9.9.9");
  EXPECT_GT(stored("Time Stamp").size(), 9U);
  const std::string edge = "0 ppp1003 10.9.0.2 10.9.0.1 5\n";
  EXPECT_TRUE(comes_true([&] { return read("/tmp/edges") == edge; })) << read("/tmp/edges");
  EXPECT_THAT(
      run({"/usr/bin/pgrep", "-af", "."}).out,
      AllOf(HasSubstr(std::string(DAEMON) + " file " + PPTP.peer), Not(HasSubstr("secret"))));

  // As another does who ends it meanwhile.
  run({"/sbin/setcfg", "PPTP_CLIENT3", "LocalIP", "", "-f", VPN_CONF});
  EXPECT_EQ(run({PPTP.client, "stop", "3"}).status, 0);

  for (const char* key : {"LocalIP", "RemoteIP", "Real Address", "DNS Server"})
    EXPECT_EQ(stored(key), "") << key;
  EXPECT_EQ(stored("Time Stamp"), "0");
  EXPECT_EQ(run({PPTP.client, "stop", "3"}).status, 0);
  EXPECT_TRUE(comes_true([&] { return read("/tmp/edges").size() >= 2 * edge.size(); }));
  EXPECT_EQ(read("/tmp/edges"), edge + edge);  // the falling edge once, from any of them

  umount("/proc/devices");
  fs::remove("/dev/ppp");
  fs::remove(DAEMON);
  fs::create_symlink("/usr/sbin/pppd", DAEMON);
}

// Only the hook knows the bytes of a tunnel that ends, and its pppd may be gone before it.
TEST_F(PppClientScript, LeavesTheEndOfATunnelToAHookThatRuns) {
  const std::string hook = "/usr/lib/fenro/ppp-client-down",
                    log = "/usr/lib/fenro/fenro-connection";
  const std::string own_hook = read(hook), own_log = read(log);
  fs::remove(log);
  write(log, "#!/bin/sh\necho \"$1 $CONNECTION_RECEIVED\" >>/tmp/rows\n", 0755);
  fs::remove(hook);
  write(hook, "#!/bin/sh\nsleep 2\n" + own_hook, 0755);
  for (const Protocol& protocol : PROTOCOLS) {
    SCOPED_TRACE(protocol.section);
    const std::string section = std::string(protocol.section) + "_CLIENT3";
    write(VPN_CONF, '[' + section + "]\nIndex = 3\n");
    fs::create_directories("/run/fenro/tunnels");
    write("/run/fenro/tunnels/" + section, "10.9.0.2 10.9.0.1 1 192.0.2.7\n");
    fs::remove("/tmp/rows");
    run({"/bin/sh", "-c",
         "BYTES_RCVD=77 \"$0\" ppp1003 tty 0 10.9.0.2 10.9.0.1 \"$1\" >/dev/null 2>&1 &", hook,
         section});
    ASSERT_TRUE(comes_true([&] {
      return run({"/usr/bin/pgrep", "-fx", "/bin/sh " + hook + " .*"}).status == 0;
    }));
    EXPECT_EQ(run({protocol.client, "stop", "3"}).status, 0);
    EXPECT_EQ(read("/tmp/rows"), "client-down 77\n");
  }
  for (const auto& [path, text] : {std::pair{hook, own_hook}, {log, own_log}}) {
    fs::remove(path);
    write(path, text, 0755);
  }
}

// Sessions with a stand-in for their pppd, and the real hooks that list them.
TEST_F(PppServerScript, ThrowsOutTheSessionsNamedAndNoOther) {
  fs::create_directories("/tmp/sessions");
  fs::copy_file("/bin/bash", "/tmp/sessions/pppd", fs::copy_options::overwrite_existing);
  for (const Protocol& protocol : PROTOCOLS) {
    SCOPED_TRACE(protocol.section);
    const std::string type = std::string("VPN_TYPE=") + protocol.type;
    std::vector<pid_t> pids;
    const auto open_session = [&](const std::string& interface, const std::string& source,
                                  const std::string& user) {
      pids.push_back(fork());
      if (pids.back() == 0) {
        execl("/tmp/sessions/pppd", "/tmp/sessions/pppd", "-c", "while :; do sleep 0.1; done",
              "file", protocol.sessions, nullptr);
        _exit(127);
      }
      run({"/usr/lib/fenro/ppp-server-up", interface, "tty", "0", "10.0.0.1",
           "10.0.0." + std::to_string(pids.size() + 1), source},
          {type, "PEERNAME=" + user, "PPPD_PID=" + std::to_string(pids.back())});
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

    const std::string own = protocol.type, other = &protocol == &PPTP ? "2" : "1",
                      one = "kick_one_connection", all = "kick_all_connection";
    const std::tuple<std::string, std::string, std::string, const char*> kicks[] = {
        {one, other, "bob", "1111"},
        {one, own, pid_of_bob, "1011"},
        {one, own, std::to_string(getpid()), "1011"},  // no session: this test goes on
        {all, own, "ppp0", "1011"},                    // of users only
        {one, own, "$3 || 1", "1011"},
        {one, own, "10.0.0.5", "1010"},
        {all, own, "al ice\"$", "0000"},
    };
    for (const auto& [action, server, who, left] : first_of(kicks, protocol, 2)) {
      SCOPED_TRACE(who);
      EXPECT_EQ(run({COMMON, action, server, who}).status, 0);
      EXPECT_TRUE(comes_true([&, expected = left] { return live() == expected; })) << live();
    }

    run({"/usr/lib/fenro/ppp-server-down", "ppp1", "tty", "0", "10.0.0.1", "10.0.0.3",
         "192.0.2.11"},
        {type, "PPPD_PID=" + pid_of_bob});
    const std::string list = read("/var/log/ormel_online_users");
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 3) << list;
    EXPECT_THAT(list, Not(HasSubstr(" Ym9i")));
    EXPECT_EQ(run({protocol.server, "stop"}).status, 0);
    EXPECT_EQ(read("/var/log/ormel_online_users"), "");
    EXPECT_TRUE(comes_true([&] { return live() == "0000"; })) << live();
  }
}

TEST_F(PppClientScript, HasItsRoutesAndNatOnceHoweverOftenTheyAreAdded) {
  const bool firewall = fs::exists("/usr/sbin/nft") || fs::exists("/usr/sbin/iptables");
  const auto rules = [] { return run({"/sbin/ip", "rule", "show", "priority", "21003"}).out; };
  const auto routes = [] { return run({"/sbin/ip", "route", "show", "table", "1003"}).out; };
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
