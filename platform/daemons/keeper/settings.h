// /etc/config/ormel/keeper.conf: what the keeper keeps running, and who is notified.
//
//   [keeper]
//   Servers = TRUE
//   Clients = TRUE
//
//   [notify NAME]
//   URL = https://hooks.example.org/ormel      or mail:USER
//   Events = failed lost                       kinds of events divided by blanks, or "all"
//   Secret = …                                 of the signature; none for mail
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fenro::keeper {

struct Settings {
  bool servers = true;
  bool clients = true;
};

struct Target {
  std::string name{};
  std::string url{};
  std::vector<std::string> events{};
  std::string secret{};

  [[nodiscard]] bool wants(std::string_view kind) const;
};

[[nodiscard]] Settings read_settings();
[[nodiscard]] std::vector<Target> read_targets();

// Empty, or what is wrong with the target in words.
[[nodiscard]] std::string fault_of(const Target& target);
// Whether a webhook may be sent there: HTTPS, or this host's own loopback; no user name or password
// in it.
[[nodiscard]] bool is_webhook(const std::string& url);

// Adds a target or replaces the one of its name; false when the file cannot be written.
[[nodiscard]] bool store_target(const Target& target);
[[nodiscard]] bool remove_target(const std::string& name);

// "failed lost" and the like, taken apart at blanks and commas.
[[nodiscard]] std::vector<std::string> split_events(std::string_view text);
[[nodiscard]] std::string join_events(const std::vector<std::string>& events);

}  // namespace fenro::keeper
