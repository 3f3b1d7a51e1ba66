// morvic SECTION INTERFACE PID_FILE: one client tunnel, on INTERFACE, by what SECTION of vpn.conf
// says. Goes to the background at once; the file holds its pid and is locked as long as it runs.
// Programs that look for tunnels in /proc take the profile's number from the file's name.
//
// morvic --probe SECTION INTERFACE: logs in once as that tunnel would, without an interface, and
// prints "ok" or the code of base/reason.h. The exit status is 0 for a login that was accepted.

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <tuple>

#include "base/file.h"
#include "base/handle.h"
#include "common/end_signals.h"
#include "daemons/drovik/background.h"
#include "daemons/drovik/client.h"
#include "daemons/drovik/client_hooks.h"
#include "daemons/drovik/identifier.h"
#include "daemons/drovik/log.h"

namespace {

using namespace fenro;
using namespace fenro::drovik;
using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;

std::optional<ClientSettings> settings_of(const char* section) {
  const Conf conf{Conf_Dir_Load(VPN_CONF)};
  ClientSettings settings;
  std::string why;
  if (read_client(conf.get(), section, settings, why)) return settings;
  log_line(LOG_ERR, "[%s] bad \"%s\"", section, why.c_str());
  return {};
}

// The only one of its profile; closed with the process.
Fd take_pid_file(const char* path) {
  Fd fd{open(path, O_RDWR | O_CREAT | O_CLOEXEC, fenro::PRIVATE_FILE)};
  if (!fd || flock(fd.get(), LOCK_EX | LOCK_NB) != 0 || ftruncate(fd.get(), 0) != 0) return Fd{};
  dprintf(fd.get(), "%d\n", getpid());
  return fd;
}

int fail(const char* what) {
  log_line(LOG_ERR, "%s", what);
  return 1;
}

int connect(const char* section, const char* interface, const char* pid_file) {
  Background background;
  if (!background.begin()) return 1;
  open_log("morvic", false);
  const auto settings = settings_of(section);
  if (!settings) return 1;
  open_log("morvic", settings->debug);
  const Fd only_one = take_pid_file(pid_file);
  if (!only_one) return fail("another one runs for this profile, or the pid file can't be written");
  const auto dtls = Dtls::create(Dtls::Side::Client, settings->psk);
  const std::string identifier = make_identifier(interface);
  if (!dtls || identifier.empty()) return fail("OpenSSL refuses the key or the cipher");
  Tun tun;
  if (!tun.open(interface)) return fail("no interface, which takes /dev/net/tun");
  block_end_signals();
  const sigset_t ends = end_signals();
  const Fd signals{signalfd(-1, &ends, SFD_CLOEXEC)};
  ClientHooks hooks{section, interface};
  TunnelClient client{*settings, *dtls, std::move(tun), identifier, hooks};
  background.ready();
  return client.run(signals.get());
}

// Prints how the one attempt has ended.
class Probe : public Edges {
 public:
  void up(const Welcome&, Ipv4) override { say("ok"); }
  void down(Traffic) override {}
  void failed(const char* code, const char*) override { say(code); }
  [[nodiscard]] bool good() const { return outcome_ == "ok"; }

 private:
  void say(const char* outcome) {
    if (!outcome_.empty()) return;
    outcome_ = outcome;
    std::printf("%s\n", outcome);
    std::fflush(stdout);
  }
  std::string outcome_{};
};

int probe(const char* section, const char* interface) {
  open_log("morvic", false);
  auto settings = settings_of(section);
  if (!settings) return 1;
  settings->reconnect = false;
  const auto dtls = Dtls::create(Dtls::Side::Client, settings->psk);
  const std::string identifier = make_identifier(interface);
  if (!dtls || identifier.empty()) return fail("OpenSSL refuses the key or the cipher");
  block_end_signals();
  const sigset_t ends = end_signals();
  const Fd signals{signalfd(-1, &ends, SFD_CLOEXEC)};
  Probe outcome;
  TunnelClient client{*settings, *dtls, Tun{}, identifier, outcome};
  std::ignore = client.run(signals.get());  // the outcome says more
  return outcome.good() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string_view{argv[1]} == "--probe") return probe(argv[2], argv[3]);
  if (argc != 4) {
    std::fprintf(stderr, "usage: morvic SECTION INTERFACE PID_FILE | --probe SECTION INTERFACE\n");
    return 2;
  }
  return connect(argv[1], argv[2], argv[3]);
}
