// One row of the audit trail as a line of its file (audit_trail.h has the format).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ormel/actions/audit_trail.h"
#include "ormel/base/handle.h"

namespace ormel::audit {

// What comes before the first row.
inline constexpr std::string_view FIRST_HASH =
    "0000000000000000000000000000000000000000000000000000000000000000";

struct Row {
  Entry entry{};
  std::string hash{};      // set by parse_row
  std::string previous{};  // in the first row of a file only
  size_t torn = 0;         // bytes of the unfinished line before it
};

// The line of a row that follows one with the hash `previous`, with its line end.
[[nodiscard]] std::string line_of(const Row& row, std::string_view previous);

// Nothing for a line that is no row. Whether its hash is right is not looked at.
[[nodiscard]] std::optional<Row> parse_row(std::string_view line);

// Whether the hash of a line is that of its content after a row with the hash `previous`.
[[nodiscard]] bool is_chained(std::string_view line, std::string_view previous);

// A row as its readers get it: without what only the chain needs.
[[nodiscard]] Json document_of(const Entry& entry);

}  // namespace ormel::audit
