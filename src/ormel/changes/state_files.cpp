#include "ormel/changes/state_files.h"

#include <algorithm>
#include <dirent.h>
#include <fnmatch.h>
#include <iterator>

#include "ormel/base/file.h"
#include "ormel/base/handle.h"

namespace ormel::changes {

namespace {

constexpr const char* WIREGUARD = "/etc/init.d/vpn_wireguard.sh";
constexpr const char* OPENVPN = "/etc/init.d/vpn_openvpn.sh";
constexpr const char* OPENVPN_CLIENT = "/etc/init.d/vpn_openvpn_client.sh";
constexpr const char* GUARD = "/etc/init.d/vpn_guard.sh";
constexpr mode_t CLOSED = 0600;  // holds secrets or names of users
constexpr mode_t OPEN = 0644;

// clang-format off
constexpr StateFile FILES[] = {
    {Part::Settings,     "/etc/config/vpn.conf",             nullptr,             CLOSED, true,  Refresh::SECTIONS},
    {Part::Profiles,     "/etc/config/openvpn/clients",      "client+([0-9])",    CLOSED, true,  Refresh::PROFILE, OPENVPN_CLIENT},
    {Part::Profiles,     "/etc/config/openvpn/clients",      "client+([0-9])_crl.pem", OPEN, false, Refresh::PROFILE, OPENVPN_CLIENT},
    {Part::Peers,        "/etc/config/ormel/wireguard",      "server_peers.conf", CLOSED, true,  Refresh::SERVER,  WIREGUARD, "restart"},
    {Part::Peers,        "/etc/config/ormel/wireguard",      "peer_psk+([0-9])",  CLOSED, true,  Refresh::SERVER,  WIREGUARD, "restart"},
    {Part::Certificates, "/etc/openvpn/keys/ca.key",         nullptr,             CLOSED, true,  Refresh::SERVER,  OPENVPN,   "restart"},
    {Part::Certificates, "/etc/openvpn/keys/ca.crt",         nullptr,             OPEN,   false, Refresh::SERVER,  OPENVPN,   "restart"},
    {Part::Certificates, "/etc/openvpn/keys/myserver.key",   nullptr,             CLOSED, true,  Refresh::SERVER,  OPENVPN,   "restart"},
    {Part::Certificates, "/etc/openvpn/keys/myserver.crt",   nullptr,             OPEN,   false, Refresh::SERVER,  OPENVPN,   "restart"},
    {Part::Certificates, "/etc/openvpn/keys/next.key",       nullptr,             CLOSED, true,  Refresh::NONE},
    {Part::Certificates, "/etc/openvpn/keys/next.crt",       nullptr,             OPEN,   false, Refresh::NONE},
    {Part::Certificates, "/etc/openvpn/keys/rotation",       nullptr,             CLOSED, false, Refresh::NONE},
    {Part::Rights,       "/etc/ppp/pap-secrets",             nullptr,             CLOSED, false, Refresh::NONE},
    {Part::Rights,       "/etc/ppp/chap-secrets",            nullptr,             CLOSED, false, Refresh::NONE},
    {Part::Rights,       "/etc/config/vpn_user_ex.conf",     nullptr,             CLOSED, false, Refresh::NONE},
    {Part::Rights,       "/var/lib/ormel/grants.json",       nullptr,             CLOSED, false, Refresh::NONE},
    {Part::SecondFactors, "/etc/config/ormel",               "totp.@(conf|users)", CLOSED, true, Refresh::NONE},
    {Part::BlockPolicy,  "/etc/config/vpn_block.conf",       nullptr,             CLOSED, false, Refresh::NONE},
    {Part::Holds,        "/var/lib/ormel/holds.json",        nullptr,             CLOSED, false, Refresh::SERVER,  WIREGUARD, "sync_peers"},
    {Part::Gateway,      "/etc/config/vpn_options.conf",     nullptr,             OPEN,   false, Refresh::GATEWAY},
    {Part::Guard,        "/etc/config/ormel/guard.conf",     nullptr,             CLOSED, false, Refresh::SCRIPT,  GUARD,     "apply"},
    {Part::Keeper,       "/etc/config/ormel/keeper.conf",    nullptr,             CLOSED, true,  Refresh::NONE},
    {Part::Address,      "/etc/config/ormel/public_address", nullptr,             OPEN,   false, Refresh::NONE},
};
// clang-format on

struct PartName {
  Part part;
  const char* name;
};
constexpr PartName PARTS[] = {
    {Part::Settings, "settings"},
    {Part::Profiles, "profiles"},
    {Part::Peers, "peers"},
    {Part::Certificates, "certificates"},
    {Part::Rights, "rights"},
    {Part::BlockPolicy, "block-policy"},
    {Part::SecondFactors, "second-factors"},
    {Part::Holds, "holds"},
    {Part::Gateway, "gateway"},
    {Part::Guard, "guard"},
    {Part::Keeper, "keeper"},
    {Part::Address, "address"},
};

bool is_name_in(const StateFile& row, const std::string& name) {
  return row.names &&
         fnmatch(row.names, name.c_str(), FNM_PATHNAME | FNM_PERIOD | FNM_EXTMATCH) == 0;
}

bool is_row_of(const StateFile& row, std::string_view path) {
  const std::string_view start = row.path;
  if (!row.names) return path == start;
  if (!path.starts_with(start) || path.size() <= start.size() || path[start.size()] != '/')
    return false;
  return is_name_in(row, std::string(path.substr(start.size() + 1)));
}

std::vector<std::string> names_in(const StateFile& row, const std::string& root) {
  std::vector<std::string> names;
  const Dir folder{opendir((root + row.path).c_str())};
  while (const dirent* const entry = folder ? readdir(folder.get()) : nullptr) {
    if (is_name_in(row, entry->d_name)) names.emplace_back(entry->d_name);
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace

std::span<const StateFile> state_files() {
  return FILES;
}

const StateFile* find_state_file(std::string_view path) {
  if (path.find('\0') != std::string_view::npos) return nullptr;
  const auto* const row =
      std::ranges::find_if(FILES, [&](const StateFile& known) { return is_row_of(known, path); });
  return row == std::end(FILES) ? nullptr : row;
}

std::vector<std::string> existing_state(const std::string& root) {
  std::vector<std::string> paths;
  const auto add = [&](const std::string& path) {
    if (system::regular_file((root + path).c_str())) paths.push_back(path);
  };
  for (const StateFile& row : FILES) {
    if (!row.names) {
      add(row.path);
      continue;
    }
    for (const std::string& name : names_in(row, root)) add(std::string(row.path) + '/' + name);
  }
  return paths;
}

const char* name_of(Part part) {
  for (const PartName& row : PARTS) {
    if (row.part == part) return row.name;
  }
  return "";
}

std::optional<Part> part_named(std::string_view name) {
  for (const PartName& row : PARTS) {
    if (name == row.name) return row.part;
  }
  return {};
}

}  // namespace ormel::changes
