// Texts as lines and words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ormel {

// What stands between blanks, in order. Here and below no stream of the C++ library takes part: one of them anywhere in
// the program makes each start set up all locales.
[[nodiscard]] std::vector<std::string> split_words(std::string_view text);

// The lines without their ends; a last one without an end counts, unless it is empty.
[[nodiscard]] std::vector<std::string> split_lines(std::string_view text);

// Returns whether the text has no line break and no NUL: what follows one would be a separate
// line to its reader.
[[nodiscard]] bool one_line(const std::string& text);

}  // namespace ormel
