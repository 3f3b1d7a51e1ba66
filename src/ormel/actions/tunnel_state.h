// The true state of each client tunnel and each server, with the reason where it does not work.
//
// A record says what is wanted, the process table what runs, the store of reasons what the scripts
// and daemons know.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "base/reason.h"
#include "ormel/base/json.h"
#include "ormel/config/record.h"

namespace ormel {

enum class State { Off, Starting, Up, NoPeer, Retrying, Running, Unreachable, Failed };

struct TunnelState {
  State state = State::Off;
  std::time_t since = 0;                // 0 where it is not known
  std::optional<NotedReason> reason{};  // always with its row

  // Nothing changes any more until somebody does something.
  [[nodiscard]] bool settled() const {
    return state != State::Starting && (state != State::Retrying && state != State::NoPeer);
  }
};

// Text of a state in answers: "off", "starting", "up", "no-peer", "retrying", "running",
// "unreachable" or "failed".
[[nodiscard]] const char* state_name(State state);

// A record as it was just loaded, with its process. Reads the store and, for a WireGuard client,
// asks the tool for the handshake.
[[nodiscard]] TunnelState tunnel_state(const config::BaseConfig& record);

// The name of a client profile as its record has it: URL-encoded. Empty for a server.
[[nodiscard]] const std::string& encoded_name(const config::BaseConfig& record);

// Sets "state", "since" and "reason" (null without one) in an answer.
void show_state(const TunnelState& state, JsonValue& out);

// The first line with `text` in it, of the content of vpn.conf, is the scripts' report of a
// failure.
[[nodiscard]] bool reports_failure(std::string_view content, std::string_view text);

// Lines of vpn.conf for `reports_failure`: of the entrance, and of the rules of a server after its
// section.
constexpr const char* ENTRANCE_LINE = "setup_vpn_entrance_status";
constexpr const char* RULES_LINE = "_iptables_rules";

}  // namespace ormel
