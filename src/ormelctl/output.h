// Shows the data of a command as a table, as JSON or as tab-separated values.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ormel/base/handle.h"

namespace ormelctl {

enum class Format { Table, Json, Tsv };

// One column of a table: the member of a row, and its heading.
struct Column {
  const char* key;
  const char* title;
};
using Columns = std::vector<Column>;

// `text` with control bytes, escape sequences and marks of text direction made visible, so that a
// name cannot change the terminal. Malformed UTF-8 becomes "\xNN".
[[nodiscard]] std::string printable(const std::string& text);

// Whether states are shown in colors, as a terminal takes them; not until this is called.
void set_colors(bool on);
// `shown` in the color of a state or of the doctor's mark `word`; as it is for any other word, and
// without colors.
[[nodiscard]] std::string painted(std::string_view word, const std::string& shown);

// One value as a table's cell: a text, a number, "yes" or "no", "-" for an empty one.
[[nodiscard]] std::string cell(const json_t* value);

// Rows under their headings, or the members of one object, a line each.
[[nodiscard]] std::string table(const json_t* data, const Columns& columns);
[[nodiscard]] std::string tsv(const json_t* data, const Columns& columns);

// Sizes and times for people: "1.2 KiB", "3 min".
[[nodiscard]] std::string size_text(double bytes);
[[nodiscard]] std::string duration_text(long seconds);
// A moment in the host's time zone: "17:12" today, else "2026-11-25 17:12".
[[nodiscard]] std::string moment_text(long seconds);
// The moment of a day ("2030-12-31"), or of a day and a time after a blank or a "T", in the host's
// time zone; -1 for any other text.
[[nodiscard]] long moment_of(const std::string& text);

}  // namespace ormelctl
