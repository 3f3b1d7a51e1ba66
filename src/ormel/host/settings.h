// Settings in INI files, by the appliance's own tools.
#pragma once

#include <string>

namespace ormel::system {

// One key of an INI file. `out` without line feeds, `fallback` when the value is empty. 0, or
// ERR_CMD_FAILED: for a key that is missing only if `fallback` is empty.
int getcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& fallback, std::string& out);
int setcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& value);

}  // namespace ormel::system
