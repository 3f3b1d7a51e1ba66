// Start scripts that are run without rights over networks, and the helper that runs them instead.
#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>

#include "support/appliance_host.h"

using namespace ormel::test;

namespace {

constexpr const char* SOCKET = "/run/fenro/tunnel.sock";
constexpr const char* HELPER = "/usr/lib/fenro/fenro-tunnel";

// What the service manager does with the helper's socket: one process for each question.
class Listener {
 public:
  Listener() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(SOCKET).copy(address.sun_path, sizeof address.sun_path - 1);
    fs::remove(SOCKET);
    fs::create_directories(fs::path(SOCKET).parent_path());
    if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd_.get(), 8) != 0)
      return;
    fs::permissions(SOCKET, fs::perms::all);  // so that it is the helper that refuses
    child_ = std::make_unique<Child>([this] {
      for (;;) {
        const fenro::Fd caller{accept(fd_.get(), nullptr, nullptr)};
        if (fork() != 0) continue;
        dup2(caller.get(), STDIN_FILENO);
        return execl(HELPER, HELPER, "serve", nullptr);
      }
    });
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() { fs::remove(SOCKET); }

 private:
  const fenro::Fd fd_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::unique_ptr<Child> child_;
};

class HandOver : public testing::Test {
 protected:
  HandOver() {
    for (const char* name : {"vpn_pptp.sh", "vpn_pptp_client.sh", "vpn_common.sh",
                             "vpn_wireguard.sh", "vpn_strange.sh"}) {
      before_[name] = fs::exists(path(name)) ? read(path(name)) : "";
      write(path(name),
            "#!/bin/sh\n. /usr/lib/fenro/vpn_lib.sh\necho \"$# $* ${SECRET-none}\" >&2\n"
            "grep CapEff /proc/self/status\nexit 7\n",
            0755);
    }
  }
  void TearDown() override {
    for (const auto& [name, text] : before_)
      text.empty() ? void(fs::remove(path(name))) : write(path(name), text, 0755);
  }
  static std::string path(const std::string& name) { return "/etc/init.d/" + name; }
  // As the web programs run it.
  static Result weak(std::vector<std::string> words) {
    words.insert(words.begin(),
                 {"/usr/bin/setpriv", "--bounding-set=-net_admin,-sys_admin,-sys_module", "--"});
    return run(words, {"SECRET=s"});
  }

 private:
  std::map<std::string, std::string> before_;
};

TEST_F(HandOver, RunsWhatIsInTheTableWithRightsAndBringsTheOutcomeBack) {
  const Listener listener;
  const std::pair<std::vector<std::string>, const char*> asked[] = {
      {{path("vpn_pptp.sh"), "start"}, "1 start none\n"},
      {{path("vpn_pptp_client.sh"), "stop", "32"}, "2 stop 32 none\n"},
      {{path("vpn_wireguard.sh"), "sync_peers"}, "1 sync_peers none\n"},
      {{path("vpn_wireguard.sh"), "handshakes"}, "1 handshakes none\n"},
      {{path("vpn_common.sh"), "kick_all_connection", "1", ""}, "3 kick_all_connection 1  none\n"},
      {{path("vpn_common.sh"), "kick_one_connection", "4", "a b;$(id)"},
       "3 kick_one_connection 4 a b;$(id) none\n"},
  };
  for (const auto& [words, said] : asked) {
    SCOPED_TRACE(said);
    const Result result = weak(words);
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(result.err, said);
    ASSERT_THAT(result.out, StartsWith("CapEff:"));
    EXPECT_EQ(std::stoull(result.out.substr(7), nullptr, 16) >> 12U & 1U, 1U) << "over networks";
  }
  EXPECT_EQ(weak({"/bin/sh", "-c", path("vpn_pptp.sh") + " start >&- 2>&- <&-"}).status, 7);
}

TEST_F(HandOver, RefusesAllElse) {
  const Listener listener;
  const std::vector<std::string> refused[] = {
      {path("vpn_strange.sh"), "start"},
      {path("vpn_pptp.sh"), "eval"},
      {path("vpn_pptp.sh"), "sync_peers"},
      {path("vpn_wireguard.sh"), "sync_peers", "1"},
      {path("vpn_pptp.sh"), "start", "1"},
      {path("vpn_pptp_client.sh"), "start"},
      {path("vpn_pptp_client.sh"), "start", "33"},
      {path("vpn_pptp_client.sh"), "start", "01"},
      {path("vpn_pptp_client.sh"), "start", "1 "},
      {path("vpn_common.sh"), "add_vpnclient_profile", "../x"},
      {path("vpn_common.sh"), "kick_one_connection", "4", "a\nb"},
  };
  for (const auto& words : refused) {
    const Result result = weak(words);
    EXPECT_EQ(result.status, 64) << words[0] << ' ' << words[1];
    EXPECT_EQ(result.out, "");
  }
  for (const char* script :
       {"/etc/init.d/../init.d/vpn_pptp.sh", "/tmp/vpn_pptp.sh", "/usr/sbin/verify_ovpn.sh"})
    EXPECT_EQ(run({HELPER, "call", script, "/etc/shadow"}).status, 64) << script;
  fs::permissions("/run/fenro", fs::perms::others_exec, fs::perm_options::add);
  const Result foreign = run({"/usr/bin/setpriv", "--reuid=65534", "--clear-groups", HELPER, "call",
                              path("vpn_pptp.sh"), "start"});
  fs::permissions("/run/fenro", fs::perms::others_exec, fs::perm_options::remove);
  EXPECT_EQ(foreign.status, 1);
  EXPECT_EQ(foreign.out, "");
}

TEST_F(HandOver, RunsInPlaceWithRightsOrWithoutAHelper) {
  EXPECT_EQ(weak({path("vpn_strange.sh"), "x"}).err, "1 x s\n") << "no helper on this host";
  const Listener listener;
  EXPECT_EQ(run({path("vpn_strange.sh"), "x"}, {"SECRET=s"}).err, "1 x s\n");
}

}  // namespace
