// What the program does when the host around it fails: daemons, scripts, disks, files, and the
// machine itself.
#include <sys/mount.h>

#include "support/appliance_host.h"

using namespace ormel::test;

namespace {

const std::vector<std::string> CHANGE = {"/usr/sbin/ormel", "-TPPTP", "-M1", "--user=new"};
const std::vector<std::string> ADD = {"-TPPTP", "-A", "--name=office", "--host=127.0.0.1"};
class BusFault : public ProfileHost {};

TEST_F(BusFault, AnAddFailsWithoutTheNetworkDaemonAndAShowDoesNot) {
  run({"/usr/bin/pkill", "-KILL", "-f", "fenro-networkd"});
  write(VPN_CONF,
        "[PPTP_CLIENT1]\nIndex = 1\nEnable = TRUE\nProfile File = a\nServer Address = 127.0.0.1\n");
  EXPECT_EQ(cli(ADD).status, 47);
  EXPECT_EQ(conf_value("PPTP_CLIENT2", "Index"), "");
  EXPECT_THAT(cli({"-TPPTP", "-S0"}).out, HasSubstr("Index = 1\n"));
  EXPECT_THAT(read(LOG), HasSubstr("update_connection: mib_call failed ret:2\n"));
  EXPECT_THAT(read(LOG), HasSubstr("mibcall_external_dev: mib_call failed ret:2\n"));
}

TEST_F(BusFault, EveryBadAnswerOfTheNetworkDaemonHasItsCode) {
  const std::vector<std::string> methods{"external_dev.register",
                                         "interfaces_monitor.get_info_interfaces"};
  const std::pair<std::string, int> answers[] = {{"", 49},
                                                 {"{\"error\":3}", 48},
                                                 {std::string(1 << 20, '['), 49},
                                                 {std::string("\0\xff", 2), 49}};
  for (const auto& [answer, code] : answers) {
    const ScriptedService service("NetworkService", "fenro-networkd", methods, answer);
    EXPECT_EQ(cli(ADD).status, code) << answer.substr(0, 20);
    EXPECT_FALSE(fs::exists(VPN_CONF));
  }
}

class ScriptFault : public ProfileHost {};

TEST_F(ScriptFault, AFailingStopIsReportedAndAFailingStartIsNot) {
  bus("NetworkService", "external_dev.list");
  write(VPN_CONF, "[PPTP_CLIENT1]\nIndex = 1\nProfile File = a\nServer Address = 127.0.0.1\n");
  record_calls("/etc/init.d/vpn_pptp_client.sh", 3);
  EXPECT_EQ(cli({"-TPPTP", "-d1"}).status, 32);
  fs::remove("/etc/init.d/vpn_pptp_client.sh");
  EXPECT_EQ(cli({"-TPPTP", "-c1"}).status, 0);
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Status"), "2");
  write("/etc/init.d/vpn_pptp_client.sh", "#!/bin/sh\nkill -9 $$\n", 0755);
  EXPECT_EQ(cli({"-TPPTP", "-d1"}).status, 32);
}

TEST_F(ScriptFault, WorksWithoutTheNotificationTool) {
  fs::remove("/usr/local/sbin/notify");
  EXPECT_EQ(cli(ADD).status, 0);
}

class HostileLocks : public ProfileHost {
 protected:
  // What any user can put in the place of the log's lock: a folder for all is there.
  static constexpr const char* LOCK = "/run/lock/ormel_log.lck";
  static void put(const char* kind) {
    fs::permissions("/run/lock", fs::perms::all | fs::perms::sticky_bit);
    fs::remove(LOCK);
    run({"/usr/bin/setpriv", "--reuid=65534", "--clear-groups", "/bin/sh", "-c",
         std::string(kind) + ' ' + LOCK});
    ASSERT_TRUE(fs::is_symlink(LOCK) || fs::exists(LOCK));
  }
  void TearDown() override { fs::remove(LOCK); }
};

TEST_F(HostileLocks, AreToldOfAndKeepNobodyWaiting) {
  for (const char* kind : {"mkfifo -m 666", "touch", "ln -s /etc/passwd", "mkdir"}) {
    SCOPED_TRACE(kind);
    put(kind);
    fs::remove(LOG);
    EXPECT_EQ(run({"/usr/bin/timeout", "20", "/usr/sbin/ormel", "-TPPTP", "-S7"}).status, 30);
    const std::string log = read(LOG), told = "/ormel_log.lck is not the log's lock file";
    EXPECT_THAT(log, HasSubstr(told + ": user 65534 put it there. Remove it.\n"));
    EXPECT_THAT(log, HasSubstr("[ERROR]"));
    EXPECT_EQ(log.find(told), log.rfind(told));
  }
}

using ThreeWaySave = ProfileHost;

TEST_F(ThreeWaySave, AModifyLosesNothingThatTheHooksOfAnotherProfileWrite) {
  constexpr const char* HOOKS =
      "set -e; conf=/etc/config/vpn.conf; i=0; while [ $i -lt 500 ]; do i=$((i + 1)); for key in "
      "LocalIP RemoteIP; do "
      "setcfg PPTP_CLIENT2 $key $i -f $conf; done; for key in LocalIP RemoteIP; do "
      "[ \"$(getcfg PPTP_CLIENT2 $key -f $conf)\" = $i ]; done; done";
  for (int i = 0; i < 2; ++i) ASSERT_EQ(cli(ADD).status, 0);
  const pid_t hooks = fork();
  if (hooks == 0) {
    execl("/bin/sh", "sh", "-c", HOOKS, nullptr);
    _exit(1);
  }
  int rounds = 0;
  int status = -1;
  for (bool running = true; running; ++rounds) {
    running = waitpid(hooks, &status, WNOHANG) == 0;
    ASSERT_EQ(cli({"-TPPTP", "-M1", "--user=u" + std::to_string(rounds)}).status, 0);
  }
  EXPECT_EQ(status, 0) << "what a hook wrote was not there when it looked";
  EXPECT_EQ(conf_value("PPTP_CLIENT2", "LocalIP"), "500") << "after " << rounds << " changes";
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Name"), "u" + std::to_string(rounds - 1));
}

using ReadOnlyConfig = ProfileHost;

TEST_F(ReadOnlyConfig, IsToldWithEveryAnswerUntilASaveGoesWell) {
  ASSERT_EQ(cli(ADD).status, 0);
  const auto answer = [] {
    return run({"/usr/sbin/ormel.cgi"}, {"REQUEST_URI=/ormel/misc/env"}).out;
  };
  const auto change = [](const char* user) {
    return cli({"-TPPTP", "-M1", std::string("--user=") + user}).status;
  };
  const std::string before = answer();
  ASSERT_EQ(mount("/etc/config", "/etc/config", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, "/etc/config", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(change("new"), 0) << "a save that fails is only in its own result";
  EXPECT_THAT(read("/run/fenro/settings_fault"),
              StartsWith("/etc/config/vpn.conf\nRead-only file system\n"));
  EXPECT_EQ(answer().find("X-Ormel-Settings: unsaved\r\n"), before.find("\r\n\r\n") + 2);
  ASSERT_EQ(umount2("/etc/config", MNT_DETACH), 0);
  EXPECT_EQ(change("new"), 0);
  EXPECT_EQ(answer(), before);
}

class FileFault : public ProfileHost {
 protected:
  // Every system call from the first temporary file of a save to a little behind the last rename:
  // its name, and which of that name it is in the run.
  static std::vector<std::pair<std::string, int>> calls_of_the_save() {
    traced({"-o", "/tmp/trace"}, CHANGE);
    std::vector<std::pair<std::string, int>> calls;
    std::map<std::string, int> count;
    size_t end = 0;
    std::ifstream in("/tmp/trace");
    for (std::string line; std::getline(in, line);) {
      const std::string call = line.substr(0, line.find('('));
      const int when = ++count[call];
      if (calls.empty() &&
          line.find("/etc/config\", O_RDWR|O_CLOEXEC|O_TMPFILE") == std::string::npos &&
          line.find("/etc/config/vpn.conf.tmp-") == std::string::npos)
        continue;
      calls.emplace_back(call, when);
      if (call.starts_with("rename")) end = calls.size() + 6;
    }
    calls.resize(std::min(end, calls.size()));
    return calls;
  }
};

TEST_F(FileFault, ReadsWhatItCanOfADamagedFile) {
  const std::pair<const char*, std::string> files[] = {
      {"empty", ""},
      {"binary", std::string("\x7f\x45LF\0\0[PPTP\xff]\n=\n[\n]\0\n", 21)},
      {"large", "[PPTP_CLIENT1]\nIndex = 1\nProfile File = " + std::string(10 << 20, 'x') +
                    "\nServer Address = 127.0.0.1\n"},
      {"half-written", "[PPTP]\nEnable = TRUE\n[PPTP_CLIENT1]\nIndex = 1\nProfile Fi"},
      {"strange numbers",
       "[PPTP]\nMSS = 99999999999999\nEncryption = -7\nAuthentcation = x\n[PPTP_CLIENT1]\nIndex = "
       "99\nMask = -1\n"
       "Time Stamp = 99999999999999999999\nEncryption = 77\nAccessCode = ***\nStatus = 9\n"},
  };
  for (const auto& [name, text] : files) {
    SCOPED_TRACE(name);
    write(VPN_CONF, text);
    for (const char* type :
         {"SPPTP", "SL2TP", "SOVPN", "SDROVIK", "SWG", "PPTP", "L2TP", "OVPN", "DROVIK", "WG"}) {
      EXPECT_EQ(cli({"-T", type, "-S0"}).status, 0) << type;
    }
    const Result changed = cli({"-TSL2TP", "-M0", "--psk=k"});
    EXPECT_EQ(changed.status, 0) << changed.err;
    EXPECT_EQ(conf_value("L2TP", "PSK"), "k");
  }
}

TEST_F(FileFault, LeavesTheOldOrTheNewFileWhenItIsKilledAtAnySystemCallOfTheSave) {
  ASSERT_EQ(cli(ADD).status, 0);
  const std::string before = read(VPN_CONF);
  ASSERT_EQ(run(CHANGE).status, 0);
  const std::string after = read(VPN_CONF);
  ASSERT_NE(before, after);
  write(VPN_CONF, before);
  const auto calls = calls_of_the_save();
  ASSERT_GT(calls.size(), 10U);
  int kept = 0, replaced = 0;
  for (const auto& [call, when] : calls) {
    write(VPN_CONF, before);
    const std::string point = "inject=?" + call + ":signal=KILL:when=" + std::to_string(when);
    traced({"-o", "/dev/null", "-e", point}, CHANGE);
    const std::string now = read(VPN_CONF);
    EXPECT_TRUE(now == before || now == after) << "killed at " << call << ' ' << when << ":\n"
                                               << now;
    ++(now == before ? kept : replaced);
  }
  EXPECT_GT(kept, 0);
  EXPECT_GT(replaced, 0);
  EXPECT_EQ(run(CHANGE).status, 0) << "what a crash left behind is in no one's way";
}

}  // namespace
