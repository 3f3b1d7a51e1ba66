// The tool `wg`: running it and reading what it shows.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ormel::wireguard {

// How one run ended.
struct ToolRun {
  int rc = 0;  // that of mib_io_execv; NO_BUFFERS if the run could not be prepared
  std::string output;
  std::string errors;
};
constexpr int NO_BUFFERS = -2;

// Runs `wg` with these arguments and `input` as its standard input, which is where secrets go:
// everybody can read the arguments of a process.
[[nodiscard]] ToolRun run_wg(const std::vector<std::string>& arguments,
                             const std::string& input = {});

// The words of a `wg` command as they are logged.
[[nodiscard]] std::string command_text(const std::vector<std::string>& arguments);

// What the tool says of the server's interface (index 0) or of a client's; empty if there is no
// such interface.
void get_wg_status(std::string& out, int index);

// When a client's peer last answered a handshake, 0 if never. Nothing when the tool cannot tell, as
// without the right to ask the kernel.
[[nodiscard]] std::optional<std::time_t> latest_handshake(int index);

// Figures of one peer in the tool's own words, each empty if it does not tell.
struct PeerStatus {
  std::string allowed_ips;
  std::string latest_handshake;
  std::string rx_total;
  std::string tx_total;
};

// Finds a peer in the text of get_wg_status by its public key. An empty key takes the lines of the
// whole text, as that of a client, whose interface has one peer.
[[nodiscard]] PeerStatus peer_status(const std::string& text, const std::string& pub_key);

[[nodiscard]] bool is_file_exists(const std::string& path);
// The folder of the installed package, where the appliance has its log rotation; empty elsewhere.
void get_ormel_pakrix_path(std::string& out);

}  // namespace ormel::wireguard
