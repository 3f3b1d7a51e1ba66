// Client profiles by name, and their state.
#pragma once

#include <string>

#include "ormelctl/command.h"
#include "ormelctl/service.h"

namespace ormelctl {

constexpr int ALL_CLIENTS = ormel::PPTP_CLIENT_TYPE | ormel::L2TP_CLIENT_TYPE |
                            ormel::OVPN_CLIENT_TYPE | ormel::DROVIK_CLIENT_TYPE |
                            ormel::WIREGUARD_CLIENT_TYPE;
constexpr int ALL_SERVERS = ormel::PPTP_SERVER_TYPE | ormel::L2TP_SERVER_TYPE |
                            ormel::OVPN_SERVER_TYPE | ormel::DROVIK_SERVER_TYPE |
                            ormel::WIREGUARD_SERVER_TYPE;

struct Profile {
  const Protocol* protocol = nullptr;
  int index = 0;
  std::string name{};
  ormel::Json record{};  // as /ormel/config/show returns it

  [[nodiscard]] std::string target() const { return protocol->name + '/' + std::to_string(index); }
};

// The row of one profile that the commands show.
[[nodiscard]] ormel::Json describe_profile(const json_t* record);

// Finds a profile by its name or PROTOCOL/INDEX. On a failure `problem` says why.
[[nodiscard]] bool find_profile(const std::string& wanted, Profile& out, Result& problem);

// The failures of a name that is no protocol, and of one that is neither a profile nor a server.
[[nodiscard]] Result unknown_protocol(const std::string& name);
[[nodiscard]] Result no_profile_or_server(const std::string& name);

// Sets "state", "since", "since_text", "reason" and "why" of a record's row.
void add_state(json_t* row, const json_t* record);

extern const Columns PROFILE_COLUMNS;

// Rows of the daemons on the bus: which of them answer.
[[nodiscard]] ormel::Json daemon_rows();

// Rows of the state of all servers, and the columns of them.
[[nodiscard]] ormel::Json server_rows();
extern const Columns SERVER_COLUMNS;

// Adds what turning a server on needs besides the changes in the form: a WireGuard server's
// network, name and key.
void complete_network(const Protocol& protocol, Form& form);

}  // namespace ormelctl
