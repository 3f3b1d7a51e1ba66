// The servers and client tunnels of this host: how each is started, and how it is seen to run.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fenro::keeper {

inline constexpr const char* VPN_CONF = "/etc/config/vpn.conf";
inline constexpr const char* WANTED = "/run/fenro/wanted";         // WANTED_DIR of the scripts
inline constexpr const char* CLIENT_MARKS = "/run/fenro/tunnels";  // of theirs, too

// How a program is known among the processes: its name, and one of its arguments. No name: the
// interface has no process.
struct Program {
  std::string_view name{};
  std::string_view argument{};  // for a client followed by its slot and `ending`
  std::string_view ending{};
};

struct Protocol {
  std::string_view section;  // of the server in vpn.conf; those of clients begin with it
  const char* label;
  const char* script;  // in /etc/init.d, without its ending
  Program server;
  Program client;
  std::string_view companion;  // a program without which none of them works; may be empty
  std::uint32_t sessions;      // type in the list of live connections, 0 without any
  bool has_pid;                // a session's number there is the pid of its daemon
  std::string_view interface;  // of a client, before its unit
  int units;                   // the unit less the slot
  std::chrono::seconds
      redial;  // before a client is started again: what dials again on its own comes first
};

// One server, or the client tunnel of one profile.
struct Tunnel {
  const Protocol* protocol = nullptr;
  int slot = 0;  // 0: the server

  [[nodiscard]] bool is_server() const { return slot == 0; }
  [[nodiscard]] std::string section() const;
  [[nodiscard]] std::string interface() const;  // of a client
  // The words that run its script.
  [[nodiscard]] std::vector<std::string> script(const char* action) const;
  // "the OpenVPN server" or "tunnel "office" (OpenVPN)", for people.
  [[nodiscard]] std::string name() const;
};

// The tunnel that a section of vpn.conf belongs to.
[[nodiscard]] std::optional<Tunnel> find_tunnel(std::string_view section);
[[nodiscard]] const std::vector<Protocol>& protocols();

// Programs of root's that run at the moment of construction, as far as they belong to tunnels.
class Processes {
 public:
  Processes();
  [[nodiscard]] bool runs(const Tunnel& tunnel) const;
  // Whether a session daemon with this pid lives.
  [[nodiscard]] bool has_session(std::uint32_t pid) const;

 private:
  struct Process {
    std::uint32_t pid;
    std::string name;
    std::vector<std::string> arguments;
  };
  [[nodiscard]] bool find(std::string_view name, const std::string& argument) const;
  std::vector<Process> all_;
};

// A setting of the tunnel's section, as it is now.
[[nodiscard]] std::string setting(const Tunnel& tunnel, std::string_view key,
                                  std::string_view fallback = {});
[[nodiscard]] bool is_true(std::string_view text);

// The sections of vpn.conf that are tunnels, servers first.
[[nodiscard]] std::vector<Tunnel> configured_tunnels();

// Why it does not run, as the platform has noted it.
struct Reason {
  std::string code{};
  std::string text{};
  bool final = false;  // another attempt is useless
};
[[nodiscard]] std::optional<Reason> reason_of(const Tunnel& tunnel);

}  // namespace fenro::keeper
