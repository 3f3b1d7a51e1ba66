// The text of vpn.conf, section by section: what differs between two versions, and a version that
// goes back without disturbing the tunnels that are up.
//
// A section holds settings, and keys that a live tunnel writes (address, time, state).
// The latter are no settings: they count in no comparison, and a restore keeps those of the moment.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ormel::changes {

class SettingsText {
 public:
  explicit SettingsText(std::string_view text);

  // A section's value of a key; empty without one.
  [[nodiscard]] std::string value(std::string_view section, std::string_view key) const;
  [[nodiscard]] bool has(std::string_view section) const;
  // The settings of a section with their values, in its order.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> settings(
      std::string_view section) const;
  // Without what tunnels write, sections sorted: equal for equal settings.
  [[nodiscard]] std::string settled() const;
  // The names of the sections whose settings differ, those that only one of both has as well.
  [[nodiscard]] std::vector<std::string> differing(const SettingsText& other) const;
  // These settings, with what the tunnels have written into `current`.
  [[nodiscard]] std::string with_live_keys_of(const SettingsText& current) const;

 private:
  struct Section {
    std::string name;  // empty for what comes before the first
    std::vector<std::string> lines;

    [[nodiscard]] std::string settled() const;
    [[nodiscard]] const std::string* line_of(std::string_view key) const;
    [[nodiscard]] std::vector<std::string> with_live_keys_of(const Section* current) const;
  };
  [[nodiscard]] const Section* find(std::string_view name) const;

  std::vector<Section> sections_;
};

// Whether a key of a section is written by tunnels, by start scripts, or by the program on its own.
[[nodiscard]] bool is_live_key(std::string_view section, std::string_view key);

// The key of a line "key = value", and its value; both empty for any other line.
[[nodiscard]] std::pair<std::string_view, std::string_view> key_and_value(std::string_view line);

}  // namespace ormel::changes
