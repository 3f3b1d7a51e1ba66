#include "ormel/drivers/wireguard/key.h"

#include <string_view>

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/drivers/wireguard/tool.h"

namespace ormel::wireguard {

namespace {

// 32 bytes are 43 digits and one "="; the last digit carries four bits, so that two of its six are
// zero.
constexpr size_t DIGITS = 43;
constexpr std::string_view BASE64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view LAST_DIGITS = "AEIMQUYcgkosw048";

// Runs a step that prints one key.
int key_step(const char* subcommand, const std::string& input, std::string& key) {
  ToolRun run = run_wg({subcommand}, input);
  rtrim(run.output);
  if (run.rc != 0 || !is_key(run.output)) return ERR_CMD_FAILED;
  key = std::move(run.output);
  return NO_ERROR;
}

int make_public_key(const std::string& key, std::string& out) {
  // Judged here first: the tool is not started for what cannot be a key.
  if (is_key(key) && key_step("pubkey", key, out) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Couldn't generate public key");
  return ERR_CMD_FAILED;
}

}  // namespace

bool is_key(const std::string& text) {
  if (text.size() != DIGITS + 1 || text.back() != '=') return false;
  const std::string_view digits = std::string_view(text).substr(0, DIGITS);
  return digits.find_first_not_of(BASE64) == std::string_view::npos &&
         LAST_DIGITS.find(digits.back()) != std::string_view::npos;
}

int make_private_key(std::string& key) {
  if (key_step("genkey", {}, key) == NO_ERROR) return NO_ERROR;
  ORMEL_LOG(ERROR, "Couldn't generate private key");
  return ERR_CMD_FAILED;
}

int server_gen_pri_pub_keys(std::string key, JsonValue* doc, std::string& out) {
  if (key.empty()) {
    if (const int rc = make_private_key(key); rc != NO_ERROR) return rc;
  }
  if (const int rc = make_public_key(key, out); rc != NO_ERROR) return rc;
  if (doc) {
    (*doc)["pri_key"] = key;
    (*doc)["pub_key"] = out;
  }
  return NO_ERROR;
}

// Any 32 bytes have a public key.
int check_key(const std::string& key) {
  std::string unused;
  return make_public_key(key, unused);
}

}  // namespace ormel::wireguard
