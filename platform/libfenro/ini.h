// The text form of the appliance's INI files, as <fenro/conf.h> tells it: how a line is read, and
// edits of a text that leave everything else in it as it is. Damage is skipped, never guessed at.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fenro::ini {

enum class Kind {
  Blank,
  Comment,
  Section,
  Entry,
  Damaged,        // neither this nor that: left alone
  DamagedSection  // a section line whose name is lost: what follows is in no section
};

struct Line {
  Kind kind;
  std::string_view name{};   // of the section, or the key
  std::string_view value{};  // of the key
};

// Reads one line, given with or without its line break.
[[nodiscard]] Line parse_line(std::string_view line);

// Whether a name can be written so that it reads back as itself and as nothing else.
[[nodiscard]] bool section_is_writable(std::string_view section);
[[nodiscard]] bool key_is_writable(std::string_view key);

// The part of a value that fits on its line.
[[nodiscard]] std::string_view first_line(std::string_view value);

// The text without a byte order mark.
[[nodiscard]] std::string_view without_mark(std::string_view text);

// The value of a key, the last of several. An empty section is the lines ahead of the first one.
[[nodiscard]] std::optional<std::string_view> find(std::string_view text, std::string_view section,
                                                   std::string_view key);

// The text with one entry set or created. Names must be writable, the value one line.
[[nodiscard]] std::string with_value(std::string_view text, std::string_view section,
                                     std::string_view key, std::string_view value);

// The text without a section. A comment between the section's last entry and the next section
// stays.
[[nodiscard]] std::string without_section(std::string_view text, std::string_view section);

}  // namespace fenro::ini
