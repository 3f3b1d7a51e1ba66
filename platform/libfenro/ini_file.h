// Single reads and edits of INI files on disk, and the locks that go with such a file.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace fenro::ini {

// The value of one key, nothing when file, section or key is missing.
[[nodiscard]] std::optional<std::string> read_value(const char* path, std::string_view section,
                                                    std::string_view key);

// Sets or creates one entry, or removes a section, keeping every other line. Edits of one file wait
// for each other, so none is lost. False when the file could not be read or replaced, or the names
// do not fit the text form.
[[nodiscard]] bool write_value(const std::string& path, std::string_view section,
                               std::string_view key, std::string_view value);
[[nodiscard]] bool remove_section(const std::string& path, std::string_view section);

// Replaces the whole file by what `make` answers to its present text, as an edit: no other edit
// comes between. A file that cannot be read counts as empty. False when it could not be replaced.
[[nodiscard]] bool replace_under_lock(const std::string& path,
                                      const std::function<std::string(std::string_view)>& make);

enum class Lock { Read, Write };

// Waits for the lock of `path`, kept in the folder `locks`. A descriptor that holds it, or -1.
// While a writer has it, a copy of the file is beside it; where a writer died and left the file
// empty or torn, the next lock puts it back.
[[nodiscard]] int lock_file(const std::string& locks, const char* path, Lock kind);
// Gives the lock back, and the copy away.
[[nodiscard]] bool unlock_file(int descriptor);

}  // namespace fenro::ini
