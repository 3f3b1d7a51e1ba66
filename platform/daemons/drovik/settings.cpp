#include "daemons/drovik/settings.h"

#include <algorithm>

#include "base/base64.h"
#include "base/lines.h"

namespace fenro::drovik {
namespace {

constexpr int DEFAULT_PORT = 443;
constexpr int DEFAULT_MAXIMUM = 5;
constexpr int HIGHEST_PORT = 65535;
constexpr int HIGHEST_MAXIMUM = 253;  // hosts of the network less our own
constexpr Ipv4 HOST_BITS = 0xff;
constexpr Ipv4 FIRST_HOST = 2;
constexpr Ipv4 LAST_HOST = 254;
constexpr Ipv4 LOOPBACK = 127;
constexpr const char* ANY_ADDRESS = "0.0.0.0";

// A section of the file.
class Keys {
 public:
  Keys(Conf_dir* conf, const char* section) : conf_(conf), section_(section) {}
  [[nodiscard]] std::string text(const char* key, const char* fallback = "") const {
    return Conf_Dir_Get_Str(conf_, section_, key, fallback);
  }
  [[nodiscard]] int number(const char* key, int fallback) const {
    return Conf_Dir_Get_Int(conf_, section_, key, fallback);
  }
  [[nodiscard]] bool flag(const char* key, bool fallback) const {
    return Conf_Dir_Get_Bool(conf_, section_, key, fallback) != 0;
  }

 private:
  Conf_dir* conf_;
  const char* section_;
};

// The servers of resolv.conf that a client can reach as well as we can.
std::vector<Ipv4> resolver_servers(std::string_view text) {
  constexpr std::string_view WORD = "nameserver";
  std::vector<Ipv4> servers;
  while (!text.empty() && servers.size() < NAME_SERVERS_MAX) {
    std::string_view line = take_line(text);
    if (!line.starts_with(WORD)) continue;
    line.remove_prefix(WORD.size());
    skip_blanks(line);
    const auto server = parse_ipv4(std::string{line.substr(0, line.find_first_of(" \t\r#"))});
    if (server && *server >> 24 != LOOPBACK) servers.push_back(*server);
  }
  return servers;
}

bool read_port(const Keys& keys, std::uint16_t& out, std::string& why) {
  const int port = keys.number("VPN Port", DEFAULT_PORT);
  why = "VPN Port";
  out = static_cast<std::uint16_t>(port);
  return port >= 1 && port <= HIGHEST_PORT;
}

// Within one network of 24 bits, as the address rules of the appliance take it.
bool read_pool(const Keys& keys, ServerSettings& out, std::string& why) {
  const auto first = parse_ipv4(keys.text("Client IP 1", "10.6.0.2"));
  const auto last = parse_ipv4(keys.text("Client IP 2", "10.6.0.254"));
  why = "Client IP 1\" or \"Client IP 2";
  if (!first || !last || (*first | HOST_BITS) != (*last | HOST_BITS)) return false;
  if ((*first & HOST_BITS) < FIRST_HOST || *first > *last || (*last & HOST_BITS) > LAST_HOST)
    return false;
  out.first = *first;
  out.last = *last;
  out.gateway = (*first & ~HOST_BITS) + 1;
  return true;
}

}  // namespace

bool read_server(Conf_dir* conf, const char* section, std::string_view resolver,
                 ServerSettings& out, std::string& why) {
  const Keys keys{conf, section};
  out.psk = keys.text("PSK");
  out.debug = keys.number("Debug", 0) == 1;
  if (!read_port(keys, out.port, why) || !read_pool(keys, out, why)) return false;
  const int maximum = keys.number("Max Client", DEFAULT_MAXIMUM);
  why = "Max Client";
  if (maximum < 1 || maximum > HIGHEST_MAXIMUM) return false;
  out.maximum = static_cast<std::size_t>(maximum);
  why = "PSK";
  if (out.psk.empty()) return false;

  const auto manual = parse_ipv4(keys.text("Use Manual DNS", ANY_ADDRESS));
  if (keys.flag("Enable Manual DNS", false) && manual && *manual != 0) {
    out.name_servers = {*manual};
  } else {
    out.name_servers = resolver_servers(resolver);
  }
  return true;
}

bool read_client(Conf_dir* conf, const char* section, ClientSettings& out, std::string& why) {
  const Keys keys{conf, section};
  out.server_address = keys.text("Domain IP");
  out.server_name = keys.text("Server Address");
  out.psk = keys.text("PSK");
  out.user = keys.text("Name");
  out.reconnect = keys.number("Reconnect", 1) != 0;
  out.debug = keys.number("Debug", 0) == 1;
  const bool known = keys.number("Index", 0) != 0;
  const struct {
    const char* key;
    bool good;
  } checks[] = {
      {"Index", known},
      {"Server Address", !out.server_address.empty() || !out.server_name.empty()},
      {"PSK", !out.psk.empty()},
      {"Name", !out.user.empty() && out.user.size() <= LOGIN_TEXT_MAX},
      {"AccessCode", parse_base64(keys.text("AccessCode"), out.password) && !out.password.empty() &&
                         out.password.size() <= LOGIN_TEXT_MAX},
  };
  if (!read_port(keys, out.port, why)) return false;
  for (const auto& check : checks) {
    why = check.key;
    if (!check.good) return false;
  }
  return true;
}

}  // namespace fenro::drovik
