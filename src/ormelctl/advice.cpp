#include "ormelctl/advice.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include "base/error_code.h"

namespace ormelctl {
namespace {

struct Row {
  int first, last;  // codes
  const char* advice;
};

constexpr const char* DAEMONS =
    "ormelctl status shows which daemon does not answer; systemctl restart brings it back";
constexpr const char* NETWORK =
    "check the network of this host and its name servers: ormelctl doctor";
constexpr const char* CLOUD =
    "ormelctl sdwan status; log in at the provider again and repeat the command";
constexpr const char* ROOM = "look whether /etc/config can be written and has room: df /etc/config";
constexpr const char* KEYS =
    "\"wg genkey\" makes a private key, and \"wg pubkey\" the public one of it";

constexpr Row BY_CODE[] = {
    {ormel::ERR_NOT_SUPPORT, ormel::ERR_NOT_SUPPORT, "ormelctl doctor says what this host lacks"},
    {ormel::ERR_MAX_CONFIGS, ormel::ERR_MAX_CONFIGS,
     "delete what is no longer needed: ormelctl profile list"},
    {ormel::ERR_OPENVPN_CLIENT, ormel::ERR_OPENVPN_CRL_VERIFY,
     "ormelctl profile import FILE --report says what is wrong with which line"},
    {ormel::ERR_SAVE_FILE, ormel::ERR_SAVE_FILE, ROOM},
    {ormel::ERR_BACKGROUND_PROCESS, ormel::ERR_KILL_PROCESS,
     "ormelctl why says more, and so does the host's journal"},
    {ormel::ERR_SAVE_CONFIG, ormel::ERR_SAVE_CONFIG, ROOM},
    {ormel::ERR_QUERY_LOG_FAIL, ormel::ERR_QUERY_LOG_FAIL, "systemctl restart ormeld"},
    {ormel::ERR_CONFIGURATION_FULL, ormel::ERR_CONFIGURATION_FULL,
     "delete what is no longer needed: ormelctl profile list"},
    {ormel::ERR_IP_POOL_CONFLICT, ormel::ERR_IP_POOL_CONFLICT,
     "choose another network or address: ormelctl server list, and \"ip address\", show those in "
     "use"},
    {ormel::ERR_MIB_IO_FAILED, ormel::ERR_WRONG_JSON_FORMAT, DAEMONS},
    {ormel::ERR_CURL_FAIL, ormel::ERR_CURL_FAIL, NETWORK},
    {ormel::ERR_DROVIK_CLIENT_DUPLICATE, ormel::ERR_DROVIK_CLIENT_DUPLICATE,
     "ormelctl profile list shows the one that is there"},
    {ormel::ERR_WIREGUARD_PRIVATE_KEY, ormel::ERR_WIREGUARD_PRIVATE_KEY, KEYS},
    {ormel::ERR_WIREGUARD_PEER_IP, ormel::ERR_WIREGUARD_PEER_IP,
     "the device's address is to be in the server's network: ormelctl server show wireguard"},
    {ormel::ERR_WIREGUARD_PEER_PUB_KEY_CONFLICT, ormel::ERR_WIREGUARD_PEER_PUB_KEY_CONFLICT,
     "ormelctl peer list shows the device that has it"},
    {ormel::ERR_WIREGUARD_PEER_PUB_KEY_INVALID, ormel::ERR_WIREGUARD_PEER_PUB_KEY_INVALID, KEYS},
    {ormel::ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE, ormel::ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE,
     "ormelctl profile list and ormelctl server show wireguard show the one that is there"},
    {ormel::ERR_WIREGUARD_SERVER_DELETE_PEER, ormel::ERR_WIREGUARD_SERVER_DELETE_PEER,
     "ormelctl peer list"},
    {ormel::ERR_EASYCURL_FAIL, ormel::ERR_EASYCURL_FAIL, NETWORK},
    {ormel::ERR_PELMAR_GETCLOUDTOKEN, ormel::ERR_MYVANTRICLOUD_OAUTH_DECODE_ERROR, CLOUD},
    {ormel::ERR_SETUP_VPN_ENTRANCE_STATUS, ormel::ERR_SETUP_VPN_ENTRANCE_STATUS,
     "look whether nftables or iptables works: nft list tables"},
    {ormel::ERR_MISSING_VPN_CONF, ormel::ERR_MISSING_VPN_CONF,
     "turn a server on, or add a profile"},
    {ormel::ERR_WRONG_VPN_IPTABLES_RULES, ormel::ERR_WRONG_VPN_IPTABLES_RULES,
     "look whether nftables or iptables works: nft list tables"},
    {ormel::ERR_HTTP_ERROR, ormel::ERR_CURL_TIMEOUT, NETWORK},
    {ormel::ERR_PELMAR_UNREGISTER, ormel::ERR_PELMAR_IP_SUBNET_CHECK_FAILED, CLOUD},
};

bool has_list(const std::string& noun) {
  return std::ranges::any_of(commands(), [&](const Command& row) {
    return noun == row.noun && std::string_view(row.verb) == "list";
  });
}

std::string lower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

std::string advice_for(const Result& result, const Command& command, const Arguments& arguments) {
  std::string example = std::string("example: ormelctl ") + command.example;
  if (result.exit == Exit::Usage) return example;
  if (result.exit == Exit::NotRoot) return std::string("sudo ormelctl ") + command.example;
  if (result.exit == Exit::NotFound)
    return has_list(command.noun) ? std::string("ormelctl ") + command.noun + " list"
                                  : "ormelctl status";
  if (result.exit == Exit::Differs)
    return "ormelctl why" + (arguments.words.empty() ? "" : ' ' + arguments.words[0]) +
           " says more";
  if (result.exit == Exit::TimedOut)
    return "ormelctl status shows what is still on its way; or give it more time";
  const auto* const row = std::ranges::find_if(BY_CODE, [&](const Row& known) {
    return result.error >= known.first && result.error <= known.last;
  });
  return row == std::end(BY_CODE) ? "ormelctl doctor looks for the cause" : row->advice;
}

std::string closest_name(const std::string& word, const std::vector<std::string>& known) {
  constexpr size_t MOST_EDITS = 2;
  constexpr size_t SHORTEST_BEGINNING = 3;
  const std::string wanted = lower(word);
  const std::string* best = nullptr;
  size_t least = std::min(MOST_EDITS, wanted.size() / 2) + 1;
  size_t beginnings = 0;
  const std::string* whole = nullptr;
  for (const std::string& name : known) {
    const std::string candidate = lower(name);
    if (wanted.size() >= SHORTEST_BEGINNING && candidate.starts_with(wanted)) {
      ++beginnings;
      whole = &name;
    }
    const size_t edits = edit_distance(wanted, candidate);
    if (edits >= least) continue;
    least = edits;
    best = &name;
  }
  if (!best && beginnings == 1) best = whole;
  return best ? *best : std::string();
}

std::string did_you_mean(const std::string& word, const std::vector<std::string>& known,
                         const std::string& otherwise) {
  const std::string name = closest_name(word, known);
  return name.empty() ? otherwise : "did you mean \"" + name + "\"? " + otherwise;
}

std::vector<std::string> names_in(const json_t* rows, const char* key) {
  std::vector<std::string> names;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows, at, row) {
    const json_t* name = key ? json_object_get(row, key) : row;
    if (json_is_string(name)) names.emplace_back(json_string_value(name), json_string_length(name));
  }
  return names;
}

}  // namespace ormelctl
