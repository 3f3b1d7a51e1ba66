// Reading the file of live connections.
#include <algorithm>
#include <charconv>
#include <cstdio>

#include "base/tunnel.h"
#include "ormel/base/crypto.h"
#include "ormel/base/handle.h"
#include "ormel/web/connection.h"

namespace ormel::cgi::connection {

namespace {

constexpr const char* ONLINE_USERS = "/var/log/ormel_online_users";
constexpr std::string_view BLANKS = " \t";
constexpr size_t LINE_SIZE = size_t{64} * 1024;  // only the device text can be long, and none is that long

void skip_blanks(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
}

// The next word, empty at the end of the line.
std::string_view take_word(std::string_view& line) {
  skip_blanks(line);
  const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
  line.remove_prefix(word.size());
  return word;
}

template <typename Number>
bool take_number(std::string_view& line, Number& number) {
  const std::string_view word = take_word(line);
  const auto [end, failure] = std::from_chars(word.data(), word.data() + word.size(), number);
  return failure == std::errc{} && end == word.data() + word.size();
}

// The next line without its end; `usable` is false for one that is too long, which is read over. False at the end.
bool next_line(const File& in, std::string& line, bool& usable) {
  line.clear();
  usable = true;
  int c = EOF;
  while ((c = getc_unlocked(in.get())) != EOF && c != '\n') {
    usable = line.size() < LINE_SIZE;
    if (usable) line += static_cast<char>(c);
  }
  return c != EOF || !line.empty();
}

}  // namespace

std::string source_and_port(const vpn_peer& peer) {
  return peer.vpn_source + ':' + std::to_string(peer.vpn_pid_port);
}

std::string key_of(const vpn_peer& peer) {
  return sessions_of(static_cast<TYPE>(peer.vpn_type)) == Sessions::OPENVPN ? source_and_port(peer) : peer.vpn_eth;
}

bool parse_peer(std::string_view line, vpn_peer& peer) {
  if (line.find('\0') != std::string_view::npos) return false;  // what a crash of the host leaves at the end of a file
  peer.vpn_eth = take_word(line);
  peer.vpn_source = take_word(line);
  if (!take_number(line, peer.vpn_pid_port)) return false;
  peer.vpn_local = take_word(line);
  peer.vpn_remote = take_word(line);
  if (!take_number(line, peer.vpn_type) || !take_number(line, peer.vpn_time)) return false;
  const std::string_view user = take_word(line);
  peer.vpn_user = openssl::base64_decode(std::string(user));
  skip_blanks(line);
  peer.vpn_dev_info = line;
  return !user.empty();
}

bool read_peers(std::vector<vpn_peer>& peers) {
  const File in{std::fopen(ONLINE_USERS, "re")};
  if (!in) return false;
  std::string line;
  bool usable = false;
  while (next_line(in, line, usable)) {
    vpn_peer peer;
    if (usable && parse_peer(line, peer)) peers.push_back(std::move(peer));
  }
  return true;
}

}  // namespace ormel::cgi::connection
