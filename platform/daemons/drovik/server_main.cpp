// morvid SECTION: the server of the appliance's own tunnel, and the service "MorviServer" on the
// bus. SECTION of vpn.conf has its settings. Goes to the background when clients can come.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "base/file.h"
#include "base/handle.h"
#include "common/end_signals.h"
#include "daemons/drovik/background.h"
#include "daemons/drovik/log.h"
#include "daemons/drovik/login.h"
#include "daemons/drovik/server.h"

namespace {

using namespace fenro;
using namespace fenro::drovik;

constexpr const char* SERVICE = "MorviServer";
constexpr const char* INTERFACE = "dtuns0";
constexpr const char* RESOLVER = "/etc/resolv.conf";
using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;

std::optional<ServerSettings> settings_of(const char* section) {
  const Conf conf{Conf_Dir_Load(VPN_CONF)};
  std::string resolver;
  if (read_file(RESOLVER, resolver) != 0) resolver = {};  // then clients keep their own servers
  ServerSettings settings;
  std::string why;
  if (read_server(conf.get(), section, resolver, settings, why)) return settings;
  log_line(LOG_ERR, "[%s] bad \"%s\"", section, why.c_str());
  return {};
}

bool failed(const char* what) {
  log_line(LOG_ERR, "%s: %s", what, std::strerror(errno));
  return false;
}

bool open_devices(const ServerSettings& settings, UdpSocket& socket, Tun& tun) {
  if (!socket.listen(settings.port)) return failed("the port cannot be opened");
  if (!tun.open(INTERFACE)) return failed("no interface, which takes /dev/net/tun");
  return tun.up(settings.gateway, settings.gateway, settings.prefix, TUNNEL_MTU) ||
         failed("the interface takes no address");
}

int serve(const char* section) {
  Background background;
  if (!background.begin()) return 1;
  open_log("morvid", false);
  const auto settings = settings_of(section);
  if (!settings) return 1;
  open_log("morvid", settings->debug);
  bus::Server bus{SERVICE};
  if (!bus.listen()) {
    log_line(LOG_ERR, "service name %s is already in use", SERVICE);
    return 1;
  }
  const auto dtls = Dtls::create(Dtls::Side::Server, settings->psk);
  if (!dtls) {
    log_line(LOG_ERR, "OpenSSL refuses the key or the cipher");
    return 1;
  }
  UdpSocket socket;
  Tun tun;
  block_end_signals();
  std::signal(SIGPIPE, SIG_IGN);
  if (!open_devices(*settings, socket, tun)) return 1;
  TunnelServer server{*settings, *dtls, std::move(socket), std::move(tun), refusal_of};
  server.attach(bus);
  background.ready();
  const int status = bus.run();
  server.stop();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: morvid SECTION\n");
    return 2;
  }
  return serve(argv[1]);
}
