// What the keeper reports: an event in the host's log, and a notification for those who asked for its kind.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace fenro::keeper {

// The kinds that somebody can ask for.
inline constexpr std::string_view KINDS[] = {
    "failed",     // a server or tunnel that is on does not run
    "restarted",  // it had ended and was started again
    "given-up",   // it ended too often
    "lost",       // a tunnel that was up is down
    "back",       // it is up again
    "endpoint",   // a WireGuard server was found at a new address
    "locked",     // a user is locked for wrong passwords
    "daemon",     // a daemon of the bus does not answer, or does again
    "disk",       // a disk is nearly full, or no longer
    "test",
};

enum class Level { Information = 0, Warning = 1, Error = 2 };

struct Report {
  std::string_view kind;  // of KINDS
  Level level = Level::Information;
  std::string subject{};  // a section of vpn.conf, a user, a daemon or a path
  std::string text{};     // one sentence
  std::string reason{};   // code of the reason, if there is one
};

using Reporter = std::function<void(const Report& report)>;

// Stores it in the event log. False when that cannot be written.
[[nodiscard]] bool store_event(const Report& report);

}  // namespace fenro::keeper
