#include "ormel/drivers/wireguard/tool.h"

#include <cstdlib>
#include <string_view>

#include "base/tunnel.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/lines.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/process.h"

namespace ormel::wireguard {

namespace {

constexpr const char* WG = "/usr/bin/wg";
constexpr const char* LOG_ROTATION = "/usr/local/network/bin/logrotate";

std::string contents(const MibIo& io) {
  size_t length = 0;
  const char* text = mib_io_read(io.get(), &length);
  return text ? std::string(text, length) : std::string();
}

std::vector<std::string> command(const std::vector<std::string>& arguments) {
  std::vector<std::string> words{WG};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

// What follows `label` in a line; false if the line does not hold it.
bool value_behind(std::string_view line, std::string_view label, std::string& out) {
  const size_t at = line.find(label);
  if (at == std::string_view::npos) return false;
  out = line.substr(at + label.size());
  return true;
}

// "1.20 KiB received, 3.40 MiB sent"
void read_transfer(const std::string& text, PeerStatus& status) {
  constexpr std::string_view RECEIVED = " received, ";
  const size_t middle = text.find(RECEIVED);
  if (middle == std::string::npos) return;
  status.rx_total = text.substr(0, middle);
  status.tx_total = text.substr(middle + RECEIVED.size());
  if (const size_t end = status.tx_total.find(" sent"); end != std::string::npos)
    status.tx_total.resize(end);
}

}  // namespace

ToolRun run_wg(const std::vector<std::string>& arguments, const std::string& input) {
  const MibIo in{mib_io_create()};
  const MibIo out{mib_io_create()};
  const MibIo errors{mib_io_create()};
  if (!in || !out || !errors) return {NO_BUFFERS, {}, {}};
  if (!input.empty() && mib_io_printf(in.get(), "%s", input.c_str()) < 0)
    return {NO_BUFFERS, {}, {}};

  const std::vector<std::string> words = command(arguments);
  const int rc = mib_io_execv(in.get(), out.get(), errors.get(), system::Argv(words).get());
  return {rc, contents(out), contents(errors)};
}

std::string command_text(const std::vector<std::string>& arguments) {
  std::string text;
  for (const std::string& word : command(arguments)) text += (text.empty() ? "" : " ") + word;
  return text;
}

void get_wg_status(std::string& out, int index) {
  const std::string interface =
      index == 0 ? SERVER_INTERFACE : interface_name(WIREGUARD_CLIENT_TYPE, index);
  std::ignore = system::do_exec_safe({WG, "show", interface}, out);  // no text then
}

std::optional<std::time_t> latest_handshake(int index) {
  std::string text;
  std::ignore = system::do_exec_safe(
      {WG, "show", interface_name(WIREGUARD_CLIENT_TYPE, index), "latest-handshakes"},
      text);  // no text then
  const size_t tab = text.find('\t');
  if (tab == std::string::npos) return {};
  return std::strtoll(text.c_str() + tab + 1, nullptr, 10);
}

PeerStatus peer_status(const std::string& text, const std::string& pub_key) {
  constexpr const char* PEER = "peer: ";
  PeerStatus status;
  bool inside = pub_key.empty();
  std::string transfer;
  for (const std::string& line : split_lines(text)) {
    if (!pub_key.empty() && line.find(PEER) != std::string::npos) {
      if (inside) break;
      inside = line.find(PEER + pub_key) != std::string::npos;
    } else if (inside && !value_behind(line, "allowed ips: ", status.allowed_ips) &&
               !value_behind(line, "latest handshake: ", status.latest_handshake) &&
               value_behind(line, "transfer: ", transfer)) {
      read_transfer(transfer, status);
      break;
    }
  }
  return status;
}

bool is_file_exists(const std::string& path) {
  return system::regular_file(path.c_str());
}

void get_ormel_pakrix_path(std::string& out) {
  out.clear();
  if (!is_file_exists(LOG_ROTATION)) return;
  const std::vector<std::string> query{"/sbin/getcfg", "ORMEL", "Install_Path", "-f",
                                       "/etc/config/pakrix.conf"};
  if (system::do_exec_safe(query, out) == 0 && out.ends_with('\n')) out.pop_back();
}

}  // namespace ormel::wireguard
