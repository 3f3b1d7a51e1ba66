// Appliers of the actions and of what a client profile holds.
#include <climits>
#include <cstring>
#include <memory>
#include <netdb.h>

#include "ormel/base/crypto.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/drivers/l2tp.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/options/apply.h"
#include "ormel/options/table.h"

namespace ormel::option {

namespace {

using config::ClientConfig;
using config::MAX_CLIENTS;
using AddressList = std::unique_ptr<addrinfo, FreeWith<freeaddrinfo>>;

constexpr size_t MAX_PSK_LENGTH = 128;

// Starts an action that is alone on the command line.
int begin_action(BaseConfig** record, const char* option) {
  if (!*record) return error_message(ERR_NO_TYPE, nullptr);
  return (*record)->action == NONE_ACTION ? NO_ERROR : duplicate(option);
}

// An action on the profile that `value` numbers.
int apply_indexed(BaseConfig** record, const char* value, const char* option, int least,
                  ACTION action) {
  if (const int rc = begin_action(record, option); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value(option + 2);
  const int index = to_int(value);
  if (index < least || index > MAX_CLIENTS) return error_message(ERR_MAX_CONFIGS, value);
  (*record)->set_index(index);
  (*record)->action = action;
  return NO_ERROR;
}

int apply_unnumbered(BaseConfig** record, const char* option, ACTION action) {
  if (const int rc = begin_action(record, option); rc != NO_ERROR) return rc;
  (*record)->action = action;
  return NO_ERROR;
}

// A choice among names, each also known by its number.
struct Choice {
  const char* number;
  const char* name;
  int value;
};

constexpr Choice AUTHENTICATIONS[] = {
    {"1", "PAP", PAP_AUTHENTICATION},
    {"4", "CHAP", CHAP_AUTHENTICATION},
    {"3", "MS-CHAP", MSCHAP_AUTHENTICATION},
    {"2", "MS-CHAPV2", MSCHAPV2_AUTHENTICATION},
};

constexpr Choice ENCRYPTIONS[] = {
    {"0", "NONE", NONE_ENCRYPTION},
    {"1", "MEDIUM", MEDIUM_ENCRYPTION},
    {"2", "HIGH", HIGH_ENCRYPTION},
};

template <size_t N>
const Choice* choose(const Choice (&choices)[N], const char* value) {
  const std::string word = to_upper(value);
  for (const Choice& choice : choices) {
    if (word == choice.number || word == choice.name) return &choice;
  }
  return nullptr;
}

// The port field of each type that has one.
int& port_of(BaseConfig** record) {
  switch ((*record)->type) {
    case OVPN_SERVER_TYPE: return as<ovpn::ServerConfig>(record).port;
    case DROVIK_SERVER_TYPE: return as<drovik::ServerConfig>(record).port;
    case WIREGUARD_SERVER_TYPE: return as<wireguard::ServerConfig>(record).port;
    case OVPN_CLIENT_TYPE: return as<ovpn::ClientConfig>(record).port;
    case DROVIK_CLIENT_TYPE: return as<drovik::ClientConfig>(record).port;
    default: return as<wireguard::ClientConfig>(record).port;
  }
}

// The pre-shared key of each type that has one.
std::string& psk_of(BaseConfig** record) {
  switch ((*record)->type) {
    case L2TP_SERVER_TYPE: return as<l2tp::ServerConfig>(record).psk;
    case L2TP_CLIENT_TYPE: return as<l2tp::ClientConfig>(record).psk;
    case DROVIK_SERVER_TYPE: return as<drovik::ServerConfig>(record).psk;
    case DROVIK_CLIENT_TYPE: return as<drovik::ClientConfig>(record).psk;
    case WIREGUARD_SERVER_TYPE: return as<wireguard::ServerConfig>(record).psk;
    default: return as<wireguard::ClientConfig>(record).psk;
  }
}

}  // namespace

int apply_type(BaseConfig** record, const char* value) {
  if (*record) return duplicate("--type");
  if (empty(value)) return bad_value("type");
  *record = config::make_record(parse_type(value), 0)
                .release();  // to the holder that `record` is the field of
  return *record ? NO_ERROR : error_message(ERR_UNKNOWN_OPTION, value);
}

int apply_add(BaseConfig** record, const char*) {
  return apply_unnumbered(record, "--add", ADD_ACTION);
}

int apply_import(BaseConfig** record, const char* value) {
  if (!*record) return error_message(ERR_NO_TYPE, nullptr);
  BaseConfig& config = **record;
  if (config.action != NONE_ACTION && config.action != IMPORT_ACTION) return duplicate("--import");
  if (config.type != OVPN_CLIENT_TYPE) return wrong_type("--import only for OpenVPN");
  if (empty(value)) return bad_value("import");
  if (!system::regular_file(value)) return error_message(ERR_REGULAR_FILE, value);
  config.file = value;
  config.action = IMPORT_ACTION;
  as<ClientConfig>(record).imported = true;
  return NO_ERROR;
}

int apply_remove(BaseConfig** record, const char* value) {
  return apply_indexed(record, value, "--remove", 1, REMOVE_ACTION);
}

int apply_connect(BaseConfig** record, const char* value) {
  return apply_indexed(record, value, "--connect", 1, CONNECT_ACTION);
}

int apply_disconnect(BaseConfig** record, const char* value) {
  return apply_indexed(record, value, "--disconnect", 1, DISCONNECT_ACTION);
}

int apply_show(BaseConfig** record, const char* value) {
  return apply_indexed(record, value, "--show", INT_MIN, SHOW_ACTION);
}

int apply_show_all(BaseConfig** record, const char*) {
  return apply_unnumbered(record, "--show-all", SHOW_ACTION);
}

int apply_connect_all(BaseConfig** record, const char*) {
  return apply_unnumbered(record, "--connect-all", CONNECT_ACTION);
}

int apply_disconnect_all(BaseConfig** record, const char*) {
  return apply_unnumbered(record, "--connect-all", DISCONNECT_ACTION);
}

int apply_modify(BaseConfig** record, const char* value) {
  if (const int rc = begin_action(record, "--modify"); rc != NO_ERROR) return rc;
  int index = 0;  // of the one server of its type, whatever the argument
  if (is_client((*record)->type)) {
    if (empty(value)) return bad_value("modify");
    index = to_int(value);
    if (index < 1 || index > MAX_CLIENTS) return error_message(ERR_MAX_CONFIGS, value);
  }
  const config::PolyConfig* stored = config::cm.fetch((*record)->type, index);
  if (!stored) return error_message(ERR_CONFIGURE_INDEX, nullptr);
  stored->dup(*record);
  (*record)->set_index(index);
  (*record)->action = MODIFY_ACTION;
  return NO_ERROR;
}

int apply_authentication(BaseConfig** record, const char* value) {
  const Choice* choice = choose(AUTHENTICATIONS, value);
  if (!choice) return error_message(ERR_UNKNOWN_OPTION, value);
  (*record)->authentication = static_cast<AUTHENTICATION>(choice->value);
  return NO_ERROR;
}

int apply_encryption(BaseConfig** record, const char* value) {
  const Choice* choice = choose(ENCRYPTIONS, value);
  if (!choice) return error_message(ERR_UNKNOWN_OPTION, value);
  (*record)->encryption = static_cast<ENCRYPTION>(choice->value);
  return NO_ERROR;
}

int apply_host(BaseConfig** record, const char* value) {
  addrinfo* found = nullptr;
  if (getaddrinfo(value, nullptr, nullptr, &found) != 0) return bad_value("host");
  const AddressList addresses{found};
  as<ClientConfig>(record).host = value;
  return NO_ERROR;
}

int apply_pass(BaseConfig** record, const char* value) {
  const std::string plain = is_cgi_mode ? openssl::base64_decode(value) : value;
  if (plain.size() > config::MAX_PASS_LENGTH) return error_message(ERR_PASS_LENGTH, nullptr);
  std::string& pass = as<ClientConfig>(record).pass;
  // A client that sends back the digest it was shown has left the password alone.
  if (plain != openssl::sha1(pass)) pass = plain;
  return NO_ERROR;
}

int apply_mask(BaseConfig** record, const char* value) {
  auto& client = as<ClientConfig>(record);
  client.mask = to_int(value);
  client.custom_mask = client.mask != config::DEFAULT_MASK;
  return client.mask < 8 || client.mask > 32 ? bad_value(value) : NO_ERROR;
}

int apply_fenro_port(BaseConfig** record, const char* value) {
  as<ClientConfig>(record).fenro_port = to_int(value);
  return as<ClientConfig>(record).fenro_port >= 65536 ? bad_value(value) : NO_ERROR;
}

int apply_port(BaseConfig** record, const char* value) {
  const int port = to_int(value);
  if ((*record)->type == WIREGUARD_CLIENT_TYPE) {
    if (port > 65535) {
      ORMEL_LOG(ERROR, "port < 0 or > 65535. port: %d", port);
      return error_message(ERR_PORT_NUMBER, value);
    }
  } else if (empty(value)) {
    ORMEL_LOG(ERROR, "port is null or 0");
    return bad_value("port");
  } else if (port <= 0 || port > 65535) {
    ORMEL_LOG(ERROR, "port <= 0 or > 65535. port: %d", port);
    return error_message(ERR_PORT_NUMBER, value);
  }
  port_of(record) = port;
  return NO_ERROR;
}

int apply_protocol(BaseConfig** record, const char* value) {
  const std::string word = to_lower(value);
  if (word != "tcp" && word != "udp") return bad_value(value);
  field<&ovpn::ServerConfig::protocol, &ovpn::ClientConfig::protocol>(record) = value;
  return NO_ERROR;
}

int apply_json(BaseConfig** record, const char*) {
  (*record)->json = true;
  return NO_ERROR;
}

int apply_secret(BaseConfig** record, const char* value) {
  static constexpr CommandOption ROW{{"secret", required_argument, nullptr, 0},
                                     set_text<&ovpn::ClientConfig::secret>,
                                     false,
                                     OVPN_CLIENT_TYPE,
                                     "--secret only for OpenVPN",
                                     nullptr,
                                     "secret"};
  return apply_option(ROW, record, value);
}

int apply_psk(BaseConfig** record, const char* value) {
  constexpr int OTHERS =
      L2TP_SERVER_TYPE | L2TP_CLIENT_TYPE | DROVIK_SERVER_TYPE | DROVIK_CLIENT_TYPE;
  if (((*record)->type & OTHERS) != 0) {
    if (empty(value)) {
      ORMEL_LOG(ERROR, "psk is NULL or 0.");
      return bad_value("psk");
    }
    if (std::strlen(value) > MAX_PSK_LENGTH) return bad_value(value);
  }
  psk_of(record) = value ? value : "";
  return NO_ERROR;
}

}  // namespace ormel::option
