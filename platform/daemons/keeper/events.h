// What the keeper reports: an event in the host's log, and a notification for those who asked for
// its kind.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace fenro::keeper {

struct Kind {
  std::string_view name;
  const char* text;  // for people
};

// The kinds that a target can ask for.
inline constexpr Kind KINDS[] = {
    {"failed", "A server or a tunnel that is on does not run"},
    {"restarted", "A server had ended and was started again"},
    {"given-up", "A server or a tunnel ended too often and is not started any more"},
    {"lost", "A tunnel that was up is down"},
    {"back", "A tunnel that was lost is up again"},
    {"endpoint", "A WireGuard server was found at a new address"},
    {"gateway", "Another tunnel, or this host's own route, is the default gateway now"},
    {"guard", "The guard holds traffic back, or its filter was removed by another program"},
    {"locked", "A user is locked for wrong passwords"},
    {"access", "The temporary access of a user has ended"},
    {"daemon", "A daemon of the service does not answer, or answers again"},
    {"certificate", "A certificate ends soon or has expired, or was renewed"},
    {"disk", "A disk is nearly full, or has space again"},
};
inline constexpr std::string_view TEST_KIND =
    "test";  // sent to its target only, whatever that asks for

// The row of a kind; null for any other name.
[[nodiscard]] constexpr const Kind* find_kind(std::string_view name) {
  for (const Kind& row : KINDS) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

enum class Level { Information = 0, Warning = 1, Error = 2 };
inline constexpr const char* LEVEL_NAMES[] = {"information", "warning", "error"};

struct Report {
  std::string_view kind;  // of KINDS, or TEST_KIND
  Level level = Level::Information;
  std::string subject{};  // a section of vpn.conf, a user, a daemon or a path
  std::string text{};     // one sentence
  std::string reason{};   // code of the reason, if there is one
};

using Reporter = std::function<void(const Report& report)>;

// Stores it in the event log. False when that cannot be written.
[[nodiscard]] bool store_event(const Report& report);

}  // namespace fenro::keeper
