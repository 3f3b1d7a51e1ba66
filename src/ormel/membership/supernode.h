// The record of the super node that carries the link of a device without a hub.
//
// /var/run/cms_config/supernode.json, replaced whole: the record's six texts in a fixed order, one
// line each with four blanks before it, between lines of "{" and "}", without a line end behind the
// last. Nothing is escaped.
#pragma once

#include <string>

namespace ormel::pelmar {

// Stores a record, {"data": {…}}. No route leads here: it is ready for a program that delivers one.
// A record that lacks a text leaves the file of before. 0, ERR_WRONG_JSON_FORMAT or ERR_SAVE_FILE,
// logged.
[[nodiscard]] int parse_supernode(const std::string& text);

}  // namespace ormel::pelmar
