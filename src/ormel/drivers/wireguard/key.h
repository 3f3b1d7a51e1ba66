// Keys of WireGuard: base64 texts of 32 bytes, made and converted by the tool `wg`.
#pragma once

#include <string>

#include "ormel/base/json.h"

namespace ormel::wireguard {

// The text is one key in the only form that the tool takes.
[[nodiscard]] bool is_key(const std::string& text);

// A new private key. 0 or ERR_CMD_FAILED.
[[nodiscard]] int make_private_key(std::string& key);

// The public key of a private one; of a new private key if `key` is empty. Fills `doc`, unless it
// is null, with "pri_key" and "pub_key". 0 or ERR_CMD_FAILED, also for a text that is no key.
[[nodiscard]] int server_gen_pri_pub_keys(std::string key, JsonValue* doc, std::string& out);

// The tool takes the text as a key: a private, a public or a pre-shared one. 0 or ERR_CMD_FAILED.
[[nodiscard]] int check_key(const std::string& key);

}  // namespace ormel::wireguard
