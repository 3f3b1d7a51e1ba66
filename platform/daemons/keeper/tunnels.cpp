#include "daemons/keeper/tunnels.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <fenro/conf.h>

#include "base/handle.h"
#include "base/reason.h"
#include "base/tunnel.h"
#include "libfenro/ini_file.h"

namespace fenro::keeper {
namespace {

constexpr int MAX_SLOT = 32;
constexpr std::string_view CLIENT = "_CLIENT";
constexpr std::string_view SESSION_DAEMON = "pppd";

std::string decode_name(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    const char* const digits = text.data() + i + 1;
    if (text[i] == '%' && i + 2 < text.size() &&
        std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2) {
      out += static_cast<char>(value);
      i += 2;
    } else {
      out += text[i] == '+' ? ' ' : text[i];
    }
  }
  return out;
}

std::vector<std::string> words_of(std::string_view line) {
  std::vector<std::string> words;
  while (!line.empty()) {
    const std::size_t end = std::min(line.find('\0'), line.size());
    words.emplace_back(line.substr(0, end));
    line.remove_prefix(std::min(end + 1, line.size()));
  }
  return words;
}

bool is_ours(std::string_view name) {
  return name == SESSION_DAEMON || std::ranges::any_of(protocols(), [name](const Protocol& row) {
           return name == row.server.name || name == row.client.name || name == row.companion;
         });
}

Program server_program(ormel::TYPE server) {
  const ormel::TunnelFacts& facts = ormel::tunnel_of(server);
  return {facts.server_daemon, facts.server_argument, {}};
}

}  // namespace

const std::vector<Protocol>& protocols() {
  // clang-format off
  using std::chrono::seconds;
  static const std::vector<Protocol> all{
      {"PPTP", "PPTP", "vpn_pptp", server_program(ormel::PPTP_SERVER_TYPE), {"pppd-pptp", "/etc/config/ppp/peers/pptpclient"}, "", 1, true, "ppp", 1000, seconds{5}},
      {"L2TP", "L2TP", "vpn_l2tp", server_program(ormel::L2TP_SERVER_TYPE), {"xl2tpd", "/run/fenro/l2tpclient", ".conf"}, "fenro-charon", 2, true, "ppp", 1250, seconds{5}},
      {"OPENVPN", "OpenVPN", "vpn_openvpn", server_program(ormel::OVPN_SERVER_TYPE), {"openvpnclient", "/etc/config/openvpn/clients/client"}, "", 4, false, "tun", 2000, seconds{12}},
      {"DROVIK", "Drovik", "vpn_drovik", server_program(ormel::DROVIK_SERVER_TYPE), {"morvic", "/run/fenro/drovikclient", ".pid"}, "", 16, false, "dtunc", 2500, seconds{5}},
      {"WG", "WireGuard", "vpn_wireguard", {"", "wg0"}, {}, "", 0, false, "wgc", 3000, seconds{2}},
  };
  // clang-format on
  return all;
}

std::string Tunnel::section() const {
  std::string text{protocol->section};
  if (!is_server()) text.append(CLIENT).append(std::to_string(slot));
  return text;
}

std::string Tunnel::interface() const {
  return std::string{protocol->interface} + std::to_string(protocol->units + slot);
}

std::vector<std::string> Tunnel::script(const char* action) const {
  std::string path = std::string{"/etc/init.d/"} + protocol->script;
  if (is_server()) return {path + ".sh", action};
  return {path + "_client.sh", action, std::to_string(slot)};
}

std::string Tunnel::name() const {
  if (is_server()) return std::string{"the "} + protocol->label + " server";
  return "tunnel \"" + decode_name(setting(*this, "Profile File", section())) + "\" (" +
         protocol->label + ')';
}

std::optional<Tunnel> find_tunnel(std::string_view section) {
  for (const Protocol& row : protocols()) {
    if (section == row.section) return Tunnel{&row, 0};
    std::string_view rest = section;
    if (!rest.starts_with(row.section)) continue;
    rest.remove_prefix(row.section.size());
    if (!rest.starts_with(CLIENT)) continue;
    rest.remove_prefix(CLIENT.size());
    int slot = 0;
    const auto [end, failure] = std::from_chars(rest.data(), rest.data() + rest.size(), slot);
    if (failure == std::errc{} && end == rest.data() + rest.size() && slot >= 1 &&
        slot <= MAX_SLOT && std::to_string(slot) == rest)
      return Tunnel{&row, slot};
  }
  return {};
}

Processes::Processes() {
  const Dir proc{opendir("/proc")};
  if (!proc) return;
  while (const dirent* entry = readdir(proc.get())) {
    if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
    const std::string folder = std::string{"/proc/"} + entry->d_name;
    const Fd file{open((folder + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC)};
    std::array<char, 16384> bytes;
    const ssize_t length = file ? read(file.get(), bytes.data(), bytes.size()) : 0;
    if (length <= 0) continue;
    const std::string_view line{bytes.data(), static_cast<std::size_t>(length)};
    std::string_view name = line.substr(0, line.find('\0'));
    name.remove_prefix(name.rfind('/') + 1);
    struct stat owner {};
    // Anyone may start a program under any name.
    if (!is_ours(name) || stat(folder.c_str(), &owner) != 0 || owner.st_uid != geteuid()) continue;
    all_.push_back({static_cast<std::uint32_t>(std::strtoul(entry->d_name, nullptr, 10)),
                    std::string{name}, words_of(line)});
  }
}

bool Processes::find(std::string_view name, const std::string& argument) const {
  return std::ranges::any_of(all_, [&](const Process& process) {
    return process.name == name &&
           (argument.empty() ||
            std::ranges::find(process.arguments, argument) != process.arguments.end());
  });
}

bool Processes::runs(const Tunnel& tunnel) const {
  const Protocol& protocol = *tunnel.protocol;
  if (protocol.server.name.empty()) {
    const std::string interface =
        tunnel.is_server() ? std::string{protocol.server.argument} : tunnel.interface();
    return access(("/sys/class/net/" + interface).c_str(), F_OK) == 0;
  }
  if (!protocol.companion.empty() && !find(protocol.companion, "")) return false;
  const Program& program = tunnel.is_server() ? protocol.server : protocol.client;
  std::string argument{program.argument};
  if (!tunnel.is_server()) argument.append(std::to_string(tunnel.slot)).append(program.ending);
  return find(program.name, argument);
}

bool Processes::has_session(std::uint32_t pid) const {
  return std::ranges::any_of(all_, [pid](const Process& process) {
    return process.pid == pid && process.name == SESSION_DAEMON;
  });
}

std::string setting(const Tunnel& tunnel, std::string_view key, std::string_view fallback) {
  return ini::read_value(VPN_CONF, tunnel.section(), key).value_or(std::string{fallback});
}

bool is_true(std::string_view text) {
  std::string lower{text};
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower == "true" || lower == "1" || lower == "yes";
}

std::vector<Tunnel> configured_tunnels() {
  std::vector<Tunnel> all;
  const std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>> conf{Conf_Dir_Load(VPN_CONF)};
  for (int i = 0; conf && i < conf->sec_num; ++i) {
    if (const auto tunnel = find_tunnel(conf->sec[i])) all.push_back(*tunnel);
  }
  std::stable_partition(all.begin(), all.end(),
                        [](const Tunnel& tunnel) { return tunnel.is_server(); });
  return all;
}

std::optional<Reason> reason_of(const Tunnel& tunnel) {
  const auto noted = ormel::read_reason(tunnel.section());
  if (!noted || !noted->facts) return {};
  std::string text = noted->facts->text;
  if (!noted->detail.empty()) text += ": " + noted->detail;
  return Reason{noted->facts->code, text, noted->facts->final};
}

}  // namespace fenro::keeper
