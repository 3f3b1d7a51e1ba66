// Reading the file of live connections.
#include "base/file.h"
#include "base/online_line.h"
#include "base/tunnel.h"
#include "ormel/base/crypto.h"
#include "ormel/web/connection.h"

namespace ormel::cgi::connection {

namespace {

constexpr size_t LINE_SIZE =
    size_t{64} * 1024;  // only the device text can be long, and none is that long

}  // namespace

std::string source_and_port(const vpn_peer& peer) {
  return peer.vpn_source + ':' + std::to_string(peer.vpn_pid_port);
}

std::string key_of(const vpn_peer& peer) {
  return sessions_of(static_cast<TYPE>(peer.vpn_type)) == Sessions::OPENVPN ? source_and_port(peer)
                                                                            : peer.vpn_eth;
}

bool parse_peer(std::string_view line, vpn_peer& peer) {
  fenro::OnlineLine parts;
  if (!fenro::parse_online_line(line, parts)) return false;
  peer.vpn_eth = parts.interface;
  peer.vpn_source = parts.source;
  peer.vpn_pid_port = parts.number;
  peer.vpn_local = parts.local;
  peer.vpn_remote = parts.remote;
  peer.vpn_type = parts.type;
  peer.vpn_time = parts.since;
  peer.vpn_user = openssl::base64_decode(std::string(parts.user));
  peer.vpn_dev_info = parts.device;
  return true;
}

bool read_peers(std::vector<vpn_peer>& peers) {
  std::string text;
  if (fenro::read_file(fenro::ONLINE_USERS, text) != 0) return false;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = fenro::take_line(rest);
    vpn_peer peer;
    if (line.size() <= LINE_SIZE && parse_peer(line, peer)) peers.push_back(std::move(peer));
  }
  return true;
}

}  // namespace ormel::cgi::connection
