// Appliers of the actions and of what a client profile holds.
#include <climits>
#include <cstring>
#include <memory>
#include <netdb.h>

#include "ormel/config_pool.h"
#include "ormel/drovik.h"
#include "ormel/handle.h"
#include "ormel/l2tp.h"
#include "ormel/openssl.h"
#include "ormel/option.h"
#include "ormel/option_apply.h"
#include "ormel/ovpn.h"
#include "ormel/system_log.h"
#include "ormel/system_process.h"
#include "ormel/text.h"
#include "ormel/wireguard.h"

namespace ormel::option {

namespace {

using config::ClientConfig;
using config::MAX_CLIENTS;
using AddressList = std::unique_ptr<addrinfo, FreeWith<freeaddrinfo>>;

constexpr const char* NOT_A_CLIENT = "--name only for PPTP, L2TP, OVPN, DROVIK and WIREGUARD";
constexpr const char* NOT_OPENVPN = "--compress only for OpenVPN";
constexpr const char* ADD_OR_MODIFY = "only for --add or --modify";
constexpr int ANY_TYPE = CLIENT_TYPES | SERVER_TYPES;
constexpr size_t MAX_PSK_LENGTH = 128;

bool add_or_modify(const BaseConfig& record) {
  return record.action == ADD_ACTION || record.action == MODIFY_ACTION;
}

// Starts an action that stands alone on the command line.
int begin_action(BaseConfig** record, const char* option) {
  if (!*record) return error_message(ERR_NO_TYPE, nullptr);
  return (*record)->action == NONE_ACTION ? NO_ERROR : duplicate(option);
}

// An action on the profile that `value` numbers.
int apply_indexed(BaseConfig** record, const char* value, const char* option, int least, ACTION action) {
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

// A text of a client profile.
int apply_text(BaseConfig** record, const char* value, const char* name, size_t limit, ERROR_CODE code,
               std::string ClientConfig::*field) {
  if (const int rc = expect(record, CLIENT_TYPES, NOT_A_CLIENT); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value(name);
  if (std::strlen(value) > limit) return error_message(code, value);
  as<ClientConfig>(record).*field = value;
  return NO_ERROR;
}

// Stores a text of the application that owns a profile; a server has no such application and stores nothing.
int store_for_client(BaseConfig** record, const char* value, std::string ClientConfig::*field) {
  if (is_client((*record)->type)) as<ClientConfig>(record).*field = value;
  return NO_ERROR;
}

int apply_executable(BaseConfig** record, const char* value, const char* name, std::string ClientConfig::*field) {
  if (const int rc = expect(record, ANY_TYPE, nullptr); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value(name);
  if (!system::executable_file(value)) return error_message(ERR_EXECUTABLE, value);
  return store_for_client(record, value, field);
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

// The types that an option of both ends of a tunnel has, and its refusals.
struct BothEnds {
  int server_types;
  int client_types;
  const char* server_action;  // a server is only modified
  const char* client_action;  // a client is added or modified
  const char* type;
};

int expect_both_ends(BaseConfig** record, const BothEnds& ends) {
  if (!*record) return error_message(ERR_NO_TYPE, nullptr);
  const BaseConfig& config = **record;
  if ((config.type & ends.server_types) != 0) {
    return config.action == MODIFY_ACTION ? NO_ERROR : wrong_action(ends.server_action);
  }
  if ((config.type & ends.client_types) != 0)
    return add_or_modify(config) ? NO_ERROR : wrong_action(ends.client_action);
  return wrong_type(ends.type);
}

// The file of an OpenVPN profile that an import takes in.
int apply_file(BaseConfig** record, const char* value, const char* type_detail, const char* name,
               std::string ovpn::ClientConfig::*field) {
  if (const int rc = expect(record, OVPN_CLIENT_TYPE, type_detail); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value(name);
  as<ovpn::ClientConfig>(record).*field = value;
  return NO_ERROR;
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
  *record = config::make_record(parse_type(value), 0).release();  // to the holder that `record` is the field of
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
  constexpr BothEnds ENDS{PPTP_SERVER_TYPE | L2TP_SERVER_TYPE, PPTP_CLIENT_TYPE | L2TP_CLIENT_TYPE,
                          "SPPTP and SL2TP only support --modify", "PPTP and L2TP only support --add or --modify",
                          "--auth only for SPPTP, PPTP, SL2TP and L2TP"};
  if (const int rc = expect_both_ends(record, ENDS); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("auth");
  const Choice* choice = choose(AUTHENTICATIONS, value);
  if (!choice) return error_message(ERR_UNKNOWN_OPTION, value);
  (*record)->authentication = static_cast<AUTHENTICATION>(choice->value);
  return NO_ERROR;
}

int apply_encryption(BaseConfig** record, const char* value) {
  constexpr BothEnds ENDS{PPTP_SERVER_TYPE | OVPN_SERVER_TYPE, PPTP_CLIENT_TYPE | OVPN_CLIENT_TYPE,
                          "SPPTP and SOVPN only support --modify", "PPTP and OVPN only support --add or --modify",
                          "--enc only for SPPTP, PPTP, SOVPN and OVPN"};
  if (const int rc = expect_both_ends(record, ENDS); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("enc");
  const Choice* choice = choose(ENCRYPTIONS, value);
  if (!choice) return error_message(ERR_UNKNOWN_OPTION, value);
  (*record)->encryption = static_cast<ENCRYPTION>(choice->value);
  return NO_ERROR;
}

int apply_name(BaseConfig** record, const char* value) {
  if (const int rc = expect(record, CLIENT_TYPES, NOT_A_CLIENT); rc != NO_ERROR) return rc;
  const ACTION action = (*record)->action;
  if (action != ADD_ACTION && action != MODIFY_ACTION && action != IMPORT_ACTION) {
    return wrong_action("only for --add --import or --modify");
  }
  return apply_text(record, value, "name", config::MAX_NAME_LENGTH, ERR_NAME_LENGTH, &ClientConfig::name);
}

int apply_host(BaseConfig** record, const char* value) {
  if (const int rc = expect(record, CLIENT_TYPES, NOT_A_CLIENT); rc != NO_ERROR) return rc;
  if (!add_or_modify(**record)) return wrong_action(ADD_OR_MODIFY);
  if (empty(value)) return bad_value("host");
  addrinfo* found = nullptr;
  if (getaddrinfo(value, nullptr, nullptr, &found) != 0) return bad_value("host");
  const AddressList addresses{found};
  as<ClientConfig>(record).host = value;
  return NO_ERROR;
}

int apply_user(BaseConfig** record, const char* value) {
  return apply_text(record, value, "user", config::MAX_USER_LENGTH, ERR_USER_LENGTH, &ClientConfig::user);
}

int apply_pass(BaseConfig** record, const char* value) {
  if (const int rc = expect(record, CLIENT_TYPES, NOT_A_CLIENT); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("pass");
  const std::string plain = is_cgi_mode ? openssl::base64_decode(value) : value;
  if (plain.size() > config::MAX_PASS_LENGTH) return error_message(ERR_PASS_LENGTH, nullptr);
  std::string& pass = as<ClientConfig>(record).pass;
  // A client that sends back the digest it was shown has left the password alone.
  if (plain != openssl::sha1(pass)) pass = plain;
  return NO_ERROR;
}

int apply_reconnect(BaseConfig** record, const char* value) {
  return apply_truth(record, value, CLIENT_TYPES, NOT_A_CLIENT, "reconnect", &ClientConfig::reconnect);
}

int apply_mask(BaseConfig** record, const char* value) {
  if (const int rc = expect(record, CLIENT_TYPES, NOT_A_CLIENT); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("mask");
  auto& client = as<ClientConfig>(record);
  client.mask = to_int(value);
  client.custom_mask = client.mask != config::DEFAULT_MASK;
  return client.mask < 8 || client.mask > 32 ? bad_value(value) : NO_ERROR;
}

int apply_fenro_port(BaseConfig** record, const char* value) {
  const int rc = expect(record, CLIENT_TYPES, "--fenro-port only for PPTP, L2TP, OVPN, DROVIK and WIREGUARD");
  if (rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("fenro port");
  as<ClientConfig>(record).fenro_port = to_int(value);
  return as<ClientConfig>(record).fenro_port >= 65536 ? bad_value(value) : NO_ERROR;
}

int apply_port(BaseConfig** record, const char* value) {
  constexpr int TYPES = OVPN_SERVER_TYPE | DROVIK_SERVER_TYPE | WIREGUARD_SERVER_TYPE | OVPN_CLIENT_TYPE |
                        DROVIK_CLIENT_TYPE | WIREGUARD_CLIENT_TYPE;
  const int rc = expect(record, TYPES, "--port only for SOVPN, OVPN, SDROVIK and DROVIK, SWIERGUARD, WIERGUARD");
  if (rc != NO_ERROR) return rc;
  if (!add_or_modify(**record)) return wrong_action(ADD_OR_MODIFY);
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
  const int rc = expect(record, OVPN_SERVER_TYPE | OVPN_CLIENT_TYPE, "--proto only for SOVPN and OVPN");
  if (rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("proto");
  const std::string word = to_lower(value);
  if (word != "tcp" && word != "udp") return bad_value(value);
  const bool server = (*record)->type == OVPN_SERVER_TYPE;
  (server ? as<ovpn::ServerConfig>(record).protocol : as<ovpn::ClientConfig>(record).protocol) = value;
  return NO_ERROR;
}

int apply_json(BaseConfig** record, const char*) {
  if (!*record) return error_message(ERR_NO_TYPE, nullptr);
  (*record)->json = true;
  return NO_ERROR;
}

int apply_gateway(BaseConfig** record, const char* value) {
  return apply_truth(record, value, OVPN_SERVER_TYPE | CLIENT_TYPES, "--gateway only for OVPN", "gateway",
                     &BaseConfig::gateway);
}

int apply_compress(BaseConfig** record, const char* value) {
  return apply_truth(record, value, OVPN_SERVER_TYPE | OVPN_CLIENT_TYPE, NOT_OPENVPN, "compress",
                     &BaseConfig::compress);
}

int apply_vendor_auth(BaseConfig** record, const char* value) {
  return apply_truth(record, value, OVPN_CLIENT_TYPE, NOT_OPENVPN, "vendor-auth", &ovpn::ClientConfig::vendor_auth);
}

int apply_ca(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--ca only for OpenVPN", "ca", &ovpn::ClientConfig::ca);
}

int apply_dh(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--dh only for OpenVPN", "dh", &ovpn::ClientConfig::dh);
}

int apply_key(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--key only for OpenVPN", "key", &ovpn::ClientConfig::key);
}

int apply_cert(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--cert only for OpenVPN", "cert", &ovpn::ClientConfig::cert);
}

int apply_pkcs12(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--pkcs12 only for OpenVPN", "pkcs12", &ovpn::ClientConfig::pkcs12);
}

int apply_secret(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--secret only for OpenVPN", "secret", &ovpn::ClientConfig::secret);
}

int apply_extra_certs(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--extra_certs only for OpenVPN", "extra_certs", &ovpn::ClientConfig::extra_certs);
}

int apply_tls_auth(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--tls-auth only for OpenVPN", "tls-auth", &ovpn::ClientConfig::tls_auth);
}

int apply_crl_verify(BaseConfig** record, const char* value) {
  return apply_file(record, value, "--crl-verify only for OpenVPN", "crl-verify", &ovpn::ClientConfig::crl_verify);
}

int apply_vendor(BaseConfig** record, const char* value) {
  if (const int rc = expect(record, ANY_TYPE, nullptr); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("vendor");
  if (std::strlen(value) > config::MAX_NAME_LENGTH) return error_message(ERR_NAME_LENGTH, value);
  return store_for_client(record, value, &ClientConfig::vendor);
}

int apply_metadta(BaseConfig** record, const char* value) {
  if (const int rc = expect(record, ANY_TYPE, nullptr); rc != NO_ERROR) return rc;
  const char* text = value ? value : "";
  if (std::strlen(text) > config::MAX_META_LENGTH) return error_message(ERR_META_LENGTH, text);
  return store_for_client(record, text, &ClientConfig::metadata);
}

int apply_up(BaseConfig** record, const char* value) {
  return apply_executable(record, value, "up", &ClientConfig::up);
}

int apply_down(BaseConfig** record, const char* value) {
  return apply_executable(record, value, "down", &ClientConfig::down);
}

int apply_psk(BaseConfig** record, const char* value) {
  constexpr int WIREGUARD = WIREGUARD_SERVER_TYPE | WIREGUARD_CLIENT_TYPE;
  constexpr int OTHERS = L2TP_SERVER_TYPE | L2TP_CLIENT_TYPE | DROVIK_SERVER_TYPE | DROVIK_CLIENT_TYPE;
  const int rc = expect(record, WIREGUARD | OTHERS,
                        "--psk only for SL2TP and L2TP and SDROVIK and DROVIK and SWIREGUARD and WIREGUARD");
  if (rc != NO_ERROR) return rc;
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

int apply_debug(BaseConfig** record, const char* value) {
  const int rc = expect(record, DROVIK_SERVER_TYPE | DROVIK_CLIENT_TYPE, "--debug only for DROVIK Server Client");
  if (rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value("debug");
  const bool server = (*record)->type == DROVIK_SERVER_TYPE;
  (server ? as<drovik::ServerConfig>(record).debug : as<drovik::ClientConfig>(record).debug) = to_int(value);
  return NO_ERROR;
}

}  // namespace ormel::option
