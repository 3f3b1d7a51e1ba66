// What to do about a failure of which the command itself does not say it.
#pragma once

#include <string>
#include <vector>

#include "ormelctl/command.h"

namespace ormelctl {

// One line for every failure: by the program's code, else by the exit status. `arguments` are those
// of the call.
[[nodiscard]] std::string advice_for(const Result& result, const Command& command,
                                     const Arguments& arguments);

// The known name that `word` is most likely meant to be; empty without one that is close enough.
[[nodiscard]] std::string closest_name(const std::string& word,
                                       const std::vector<std::string>& known);

// "did you mean …?" for a name that is not known, with `otherwise` after it, or alone where nothing
// comes close.
[[nodiscard]] std::string did_you_mean(const std::string& word,
                                       const std::vector<std::string>& known,
                                       const std::string& otherwise);

// The texts under `key` of an array of objects, or the texts of an array of texts with a null key.
[[nodiscard]] std::vector<std::string> names_in(const json_t* rows, const char* key);

}  // namespace ormelctl
