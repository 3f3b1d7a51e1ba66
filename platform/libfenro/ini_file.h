// Single reads and edits of INI files on disk, and the locks that go with such a file.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fenro::ini {

// The value of one key, nothing when file, section or key is missing.
[[nodiscard]] std::optional<std::string> read_value(const char* path, std::string_view section, std::string_view key);

// Sets or creates one entry, or removes a section, keeping every other line. Edits of one file wait for each other, so
// none is lost. False when the file could not be read or replaced, or the names do not fit the text form.
[[nodiscard]] bool write_value(const std::string& path, std::string_view section, std::string_view key,
                               std::string_view value);
[[nodiscard]] bool remove_section(const std::string& path, std::string_view section);

enum class Lock { Read, Write };

// Waits for the lock of `path`, kept in the folder `locks`. A descriptor that holds it until closed, or -1.
[[nodiscard]] int lock_file(const std::string& locks, const char* path, Lock kind);

}  // namespace fenro::ini
