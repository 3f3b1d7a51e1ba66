// The texts of results, and how failures are reported.
#pragma once

#include "base/error_code.h"

namespace ormel {

// The text of a code, static; "unknown error" for a code outside the table, negative ones included.
[[nodiscard]] const char* get_error_message(unsigned int code);

// The part of error_message that prints and logs.
void report_error(ERROR_CODE code, const char* detail);

// Reports a failure: "Error: " and the text on standard error, and a line in the log. `detail` (may
// be null) replaces the code's own text. Returns `code`, so that a check can end with `return
// error_message(...)`; code 0 reports nothing.
inline int error_message(ERROR_CODE code, const char* detail) {
  if (code != NO_ERROR) report_error(code, detail);
  return code;
}

}  // namespace ormel
