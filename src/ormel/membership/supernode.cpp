#include "ormel/membership/supernode.h"

#include <cstdio>
#include <iterator>

#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"

namespace ormel::pelmar {

namespace {

constexpr const char* RECORD_FILE = "/var/run/cms_config/supernode.json";

enum Field { ID, REMOTE_IP, REMOTE_TUNNEL_IP, REMOTE_SUBNET, REMOTE_KEY, LOCAL_TUNNEL_IP, FIELDS };

constexpr const char* KEYS[] = {"superNodeId",  "remoteIP",        "remoteTunnelIP",
                                "remoteSubnet", "remotePublicKey", "localTunnelIP"};
static_assert(std::size(KEYS) == FIELDS);

bool take_fields(const json_t* data, const char* (&values)[FIELDS]) {
  for (size_t i = 0; i < FIELDS; ++i) {
    values[i] = json_string_value(json_object_get(data, KEYS[i]));
    if (!values[i]) return false;
  }
  return true;
}

std::string record_text(const char* const (&values)[FIELDS]) {
  std::string text = "{\n";
  for (size_t i = 0; i < FIELDS; ++i) {
    text += "    \"" + std::string(KEYS[i]) + "\": \"" + values[i] +
            (i + 1 < FIELDS ? "\",\n" : "\"\n");
  }
  return text + '}';
}

int write_record(const std::string& text) {
  File file{std::fopen(RECORD_FILE, "we")};
  if (!file) {
    ORMEL_LOG(ERROR, "Failed to open supernode.conf file");
    return ERR_SAVE_FILE;
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size();
  if (std::fclose(file.release()) == 0 && written) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to write to supernode.conf file");
  return ERR_SAVE_FILE;
}

}  // namespace

int parse_supernode(const std::string& text) {
  json_error_t error{};
  const Json root{json_loadb(text.data(), text.size(), 0, &error)};
  if (!root) {
    ORMEL_LOG(ERROR, "JSON parse error: %s", error.text);
    return ERR_WRONG_JSON_FORMAT;
  }
  const json_t* const data = json_object_get(root.get(), "data");
  if (!json_is_object(data)) {
    ORMEL_LOG(ERROR, "Expected data object");
    return ERR_WRONG_JSON_FORMAT;
  }
  const char* values[FIELDS];
  if (!take_fields(data, values)) {
    ORMEL_LOG(ERROR, "Missing or invalid required fields");
    return ERR_WRONG_JSON_FORMAT;
  }
  ORMEL_LOG(
      INFO,
      "SuperNodeId: %s, RemoteIP: %s, RemoteTunnelIP: %s, RemoteSubnet: %s, LocalTunnelIP: %s",
      values[ID], values[REMOTE_IP], values[REMOTE_TUNNEL_IP], values[REMOTE_SUBNET],
      values[LOCAL_TUNNEL_IP]);
  ORMEL_LOG(INFO, "SuperNode configuration processed successfully");
  return write_record(record_text(values));
}

}  // namespace ormel::pelmar
