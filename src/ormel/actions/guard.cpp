#include "ormel/actions/guard.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include "ormel/actions/gateway_policy.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/host/bus.h"
#include "ormel/host/process.h"

namespace ormel::guard {

namespace {

constexpr const char* FOLDER = "/etc/config/ormel";
constexpr const char* FILE_NAME = "/etc/config/ormel/guard.conf";
constexpr const char* SCRIPT = "/etc/init.d/vpn_guard.sh";
constexpr const char* NFT = "/usr/sbin/nft";
constexpr const char* SECTION = "guard";
constexpr mode_t FILE_MODE = 0600;
constexpr mode_t FOLDER_MODE = 0755;

struct Key {
  const char* name;
  std::string Settings::*value;
  std::string_view words[3];
};
constexpr Key KEYS[] = {
    {"mode", &Settings::mode, {"off", "on", "strict"}},
    {"lan", &Settings::lan, {"1", "0"}},
    {"ipv6", &Settings::ipv6, {"block", "pass"}},
    {"dns", &Settings::dns, {"tunnel", "any"}},
};

bool is_word(const Key& key, const std::string& value) {
  return !value.empty() && std::ranges::find(key.words, value) != std::end(key.words);
}

bool run(const char* action) {
  std::string ignored;
  return system::do_exec_safe({SCRIPT, action}, ignored) == 0;
}

// The daemon holds traffic back, or lets it go, within a second by itself; a failure costs no more
// than that.
void wake_daemon() {
  std::ignore =
      system::easy_mib_call(system::NETWORK_SERVICE, "external_dev.update_vpn_gw", nullptr);
}

bool policy_names_a_gateway() {
  const Json setting = GlobalConfig().load("gw_setting");
  return json_integer_value(json_object_get(setting.get(), "as_gw_en")) == 1;
}

std::string text_of(const Settings& settings) {
  std::string text = "[guard]\n";
  for (const Key& key : KEYS) text += std::string(key.name) + " = " + settings.*key.value + '\n';
  return text;
}

}  // namespace

Settings load() {
  Settings settings;
  if (access(FILE_NAME, F_OK) != 0) return settings;
  settings.mode = "on";  // for the scripts and the daemon too, where the file does not say
  const Conf conf{Conf_Dir_Load(FILE_NAME)};
  for (const Key& key : KEYS) {
    const std::string value = Conf_Dir_Get_Str(conf.get(), SECTION, key.name, "");
    if (is_word(key, value)) settings.*key.value = value;
  }
  return settings;
}

int apply(const Settings& settings, std::string& reason) {
  for (const Key& key : KEYS) {
    if (is_word(key, settings.*key.value)) continue;
    reason = std::string(key.name) + " must be one of:";
    for (const std::string_view word : key.words) reason += ' ' + std::string(word);
    return ERR_VALUE;
  }
  if (settings.mode == "on" && !policy_names_a_gateway()) {
    reason = "no tunnel is the default gateway: choose one first, or use the mode strict";
    return ERR_MISS_OPTION;
  }
  if (settings.mode != "off" && access(NFT, X_OK) != 0) {
    reason = "the guard needs nftables: apt install nftables";
    return ERR_CMD_FAILED;
  }
  std::string before;
  const bool existed = system::read_file(FILE_NAME, before);
  mkdir(FOLDER, FOLDER_MODE);
  if (!system::replace_file(FILE_NAME, text_of(settings), FILE_MODE)) {
    reason = std::string(FILE_NAME) + " cannot be written";
    return ERR_CMD_FAILED;
  }
  if (!run("apply")) {
    const bool restored =
        existed ? system::replace_file(FILE_NAME, before, FILE_MODE) : unlink(FILE_NAME) == 0;
    reason = restored ? "the kernel refuses the filter, nothing was changed; the journal has more"
                      : "the kernel refuses the filter, and the settings cannot be put back: check "
                        "guard.conf";
    return ERR_CMD_FAILED;
  }
  wake_daemon();
  return NO_ERROR;
}

int pause() {
  if (!run("pause")) return ERR_CMD_FAILED;
  wake_daemon();
  return NO_ERROR;
}

void describe(JsonValue& out) {
  const Settings settings = load();
  out["mode"] = settings.mode;
  out["local_network"] = settings.lan;
  out["ipv6"] = settings.ipv6;
  out["dns"] = settings.dns;
  const Json answer =
      system::easy_mib_call(system::NETWORK_SERVICE, "external_dev.guard_state", nullptr);
  const json_t* data = json_object_get(answer.get(), "data");
  const char* state = json_string_value(json_object_get(data, "state"));
  out["state"] = state ? state : "unknown";
  for (const char* key : {"since", "interface", "stopped", "lan"}) {
    if (json_t* value = json_object_get(data, key)) out[key] = json_incref(value);
  }
}

}  // namespace ormel::guard
