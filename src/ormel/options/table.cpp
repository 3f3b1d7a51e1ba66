#include "ormel/options/table.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <libgen.h>
#include <strings.h>

#include "base/tunnel.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/options/apply.h"

namespace ormel::option {

bool is_cgi_mode = false;

namespace {

using config::ClientConfig;
using config::MAX_META_LENGTH;
using config::MAX_NAME_LENGTH;
using config::MAX_USER_LENGTH;

constexpr int PPTP = PPTP_SERVER_TYPE | PPTP_CLIENT_TYPE;
constexpr int L2TP = L2TP_SERVER_TYPE | L2TP_CLIENT_TYPE;
constexpr int OPENVPN = OVPN_SERVER_TYPE | OVPN_CLIENT_TYPE;
constexpr int DROVIK = DROVIK_SERVER_TYPE | DROVIK_CLIENT_TYPE;
constexpr int WIREGUARD = WIREGUARD_SERVER_TYPE | WIREGUARD_CLIENT_TYPE;

constexpr const char* NOT_A_CLIENT = "--name only for PPTP, L2TP, OVPN, DROVIK and WIREGUARD";
constexpr const char* NOT_A_SERVER =
    "--enable only for SPPTP, SL2TP, SOVPN, SDROVIK and SWIREGUARD";
constexpr const char* NOT_OPENVPN = "--compress only for OpenVPN";

// A server is only modified; a client is also added.
constexpr int SETTING = ADD_ACTION | MODIFY_ACTION;
constexpr Actions ADD_OR_MODIFY{SETTING, "only for --add or --modify", SETTING,
                                "only for --add or --modify"};
constexpr Actions NAME_ACTIONS{0, nullptr, SETTING | IMPORT_ACTION,
                               "only for --add --import or --modify"};
constexpr Actions AUTH_ACTIONS{MODIFY_ACTION, "SPPTP and SL2TP only support --modify", SETTING,
                               "PPTP and L2TP only support --add or --modify"};
constexpr Actions ENC_ACTIONS{MODIFY_ACTION, "SPPTP and SOVPN only support --modify", SETTING,
                              "PPTP and OVPN only support --add or --modify"};

}  // namespace

// clang-format off
const CommandOption COMMAND_OPTIONS[] = {
    // long name, argument, flag, letter; applier, may come from a form; types and the refusal of others; actions;
    // the refusal of an empty value, and its name in the log
    {{"type", required_argument, nullptr, 'T'}, apply_type, false, 0},
    {{"add", no_argument, nullptr, 'A'}, apply_add, false, ANY_TYPE},
    {{"import", required_argument, nullptr, 'I'}, apply_import, true, OVPN_CLIENT_TYPE},
    {{"remove", required_argument, nullptr, 'R'}, apply_remove, false, ANY_TYPE},
    {{"modify", required_argument, nullptr, 'M'}, apply_modify, false, ANY_TYPE},
    {{"show", required_argument, nullptr, 'S'}, apply_show, false, ANY_TYPE},
    {{"connect", required_argument, nullptr, 'c'}, apply_connect, false, ANY_TYPE},
    {{"disconnect", required_argument, nullptr, 'd'}, apply_disconnect, false, ANY_TYPE},
    {{"auth", required_argument, nullptr, 0}, apply_authentication, true, PPTP | L2TP,
     "--auth only for SPPTP, PPTP, SL2TP and L2TP", &AUTH_ACTIONS, "auth"},
    {{"enc", required_argument, nullptr, 0}, apply_encryption, true, PPTP | OPENVPN,
     "--enc only for SPPTP, PPTP, SOVPN and OVPN", &ENC_ACTIONS, "enc"},
    {{"name", required_argument, nullptr, 0}, set_client_text<&ClientConfig::name, MAX_NAME_LENGTH, ERR_NAME_LENGTH>, true, CLIENT_TYPES,
     NOT_A_CLIENT, &NAME_ACTIONS, "name"},
    {{"host", required_argument, nullptr, 0}, apply_host, true, CLIENT_TYPES, NOT_A_CLIENT, &ADD_OR_MODIFY, "host"},
    {{"port", required_argument, nullptr, 0}, apply_port, true, OPENVPN | DROVIK | WIREGUARD,
     "--port only for SOVPN, OVPN, SDROVIK and DROVIK, SWIERGUARD, WIERGUARD", &ADD_OR_MODIFY},
    {{"proto", required_argument, nullptr, 0}, apply_protocol, true, OPENVPN,
     "--proto only for SOVPN and OVPN", nullptr, "proto"},
    {{"user", required_argument, nullptr, 0}, set_client_text<&ClientConfig::user, MAX_USER_LENGTH, ERR_USER_LENGTH>, true, CLIENT_TYPES,
     NOT_A_CLIENT, nullptr, "user"},
    {{"pass", required_argument, nullptr, 0}, apply_pass, true, CLIENT_TYPES, NOT_A_CLIENT, nullptr, "pass"},
    {{"json", no_argument, nullptr, 0}, apply_json, true, ANY_TYPE},
    {{"reconnect", required_argument, nullptr, 0}, set_truth<&ClientConfig::reconnect>, true, CLIENT_TYPES,
     NOT_A_CLIENT, nullptr, "reconnect"},
    {{"gateway", required_argument, nullptr, 0}, set_truth<&BaseConfig::gateway>, true, OVPN_SERVER_TYPE | CLIENT_TYPES,
     "--gateway only for OVPN", nullptr, "gateway"},
    {{"mask", required_argument, nullptr, 0}, apply_mask, true, CLIENT_TYPES, NOT_A_CLIENT, nullptr, "mask"},
    {{"vendor-auth", required_argument, nullptr, 0}, set_truth<&ovpn::ClientConfig::vendor_auth>, true, OVPN_CLIENT_TYPE,
     NOT_OPENVPN, nullptr, "vendor-auth"},
    {{"compress", required_argument, nullptr, 0}, set_truth<&BaseConfig::compress>, true, OPENVPN,
     NOT_OPENVPN, nullptr, "compress"},
    {{"ca", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::ca>, true, OVPN_CLIENT_TYPE,
     "--ca only for OpenVPN", nullptr, "ca"},
    {{"dh", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::dh>, true, OVPN_CLIENT_TYPE,
     "--dh only for OpenVPN", nullptr, "dh"},
    {{"key", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::key>, true, OVPN_CLIENT_TYPE,
     "--key only for OpenVPN", nullptr, "key"},
    {{"cert", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::cert>, true, OVPN_CLIENT_TYPE,
     "--cert only for OpenVPN", nullptr, "cert"},
    {{"pkcs12", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::pkcs12>, true, OVPN_CLIENT_TYPE,
     "--pkcs12 only for OpenVPN", nullptr, "pkcs12"},
    {{"extra_certs", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::extra_certs>, true, OVPN_CLIENT_TYPE,
     "--extra_certs only for OpenVPN", nullptr, "extra_certs"},
    {{"tls_auth", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::tls_auth>, true, OVPN_CLIENT_TYPE,
     "--tls-auth only for OpenVPN", nullptr, "tls-auth"},
    {{"crl_verify", required_argument, nullptr, 0}, set_text<&ovpn::ClientConfig::crl_verify>, true, OVPN_CLIENT_TYPE,
     "--crl-verify only for OpenVPN", nullptr, "crl-verify"},
    {{"vendor", required_argument, nullptr, 0}, set_client_text<&ClientConfig::vendor, MAX_NAME_LENGTH, ERR_NAME_LENGTH>, false, ANY_TYPE,
     nullptr, nullptr, "vendor"},
    {{"metadata", required_argument, nullptr, 0}, set_client_text<&ClientConfig::metadata, MAX_META_LENGTH, ERR_META_LENGTH>, true, ANY_TYPE,
     },
    // Programs that will run: never from a form.
    {{"up", required_argument, nullptr, 0}, set_client_program<&ClientConfig::up>, false, ANY_TYPE,
     nullptr, nullptr, "up"},
    {{"down", required_argument, nullptr, 0}, set_client_program<&ClientConfig::down>, false, ANY_TYPE,
     nullptr, nullptr, "down"},
    {{"enable", required_argument, nullptr, 0}, apply_enable, true, SERVER_TYPES, NOT_A_SERVER, nullptr, "enable"},
    {{"ip_pool", required_argument, nullptr, 0}, apply_ip_pool, true, SERVER_TYPES, NOT_A_SERVER, nullptr, "ip-pool"},
    {{"maximum", required_argument, nullptr, 0}, apply_maximum, true, SERVER_TYPES, NOT_A_SERVER, nullptr, "maximum"},
    {{"enable_dns", required_argument, nullptr, 0}, apply_enable_dns, true, SERVER_TYPES | WIREGUARD_CLIENT_TYPE,
     "--enable only for SPPTP, SL2TP, SOVPN, SWIREGUARD and WIREGUARD", nullptr, "enable_dns", "enable_dns"},
    {{"manual_dns", required_argument, nullptr, 0}, apply_manual_dns, true, SERVER_TYPES | WIREGUARD_CLIENT_TYPE,
     "--manual_dns only for SPPTP, SL2TP, SOVPN, SDROVIK, SWIREGUARD, WIREGUARD", nullptr, "manual_dns"},
    {{"out_eif", required_argument, nullptr, 0}, apply_out_eif, true, SERVER_TYPES, NOT_A_SERVER},
    {{"psk", required_argument, nullptr, 0}, apply_psk, true, L2TP | DROVIK | WIREGUARD,
     "--psk only for SL2TP and L2TP and SDROVIK and DROVIK and SWIREGUARD and WIREGUARD"},
    {{"fenro_port", required_argument, nullptr, 0}, apply_fenro_port, true, CLIENT_TYPES,
     "--fenro-port only for PPTP, L2TP, OVPN, DROVIK and WIREGUARD", nullptr, "fenro port"},
    {{"debug", required_argument, nullptr, 0}, set_number<&drovik::ServerConfig::debug, &drovik::ClientConfig::debug>, true, DROVIK,
     "--debug only for DROVIK Server Client", nullptr, "debug"},
    {{"mss", required_argument, nullptr, 0}, apply_mss, true, PPTP_SERVER_TYPE | L2TP_SERVER_TYPE | OVPN_SERVER_TYPE,
     "--mss only for PPTP, L2TP, and OVPN Server", nullptr, "mss"},
    {{"server_ip", required_argument, nullptr, 0}, set_text<&wireguard::ServerConfig::server_ip>, true, WIREGUARD_SERVER_TYPE,
     "--server_ip for wireguard Server", nullptr, "server ip", "server ip"},
    {{"server_name", required_argument, nullptr, 0}, set_text<&wireguard::ServerConfig::server_name>, true, WIREGUARD_SERVER_TYPE,
     "--server_name for wireguard Server", nullptr, "server name", "server name"},
    {{"server_pri_key", required_argument, nullptr, 0}, set_text<&wireguard::ServerConfig::server_pri_key>, true, WIREGUARD_SERVER_TYPE,
     "--server_pri_key for wireguard Server", nullptr, "server_pri_key", "server_pri_key"},
    {{"server_mask", required_argument, nullptr, 0}, apply_server_mask, true, WIREGUARD_SERVER_TYPE,
     "--server_mask for wireguard Server", nullptr, "server_mask", "server mask"},
    {{"client_ip", required_argument, nullptr, 0}, set_text<&wireguard::ClientConfig::client_ip>, true, WIREGUARD_CLIENT_TYPE,
     "--client_ip for wireguard Client", nullptr, "client_ip", "client ip"},
    {{"client_name", required_argument, nullptr, 0}, apply_client_name, true, WIREGUARD_CLIENT_TYPE,
     "--client_name for wireguard Client", nullptr, "client_name", "client name"},
    {{"client_pri_key", required_argument, nullptr, 0}, set_text<&wireguard::ClientConfig::client_pri_key>, true, WIREGUARD_CLIENT_TYPE,
     "--client_pri_key for wireguard Client", nullptr, "client_pri_key", "client pri key"},
    {{"client_mask", required_argument, nullptr, 0}, apply_client_mask, true, WIREGUARD_CLIENT_TYPE,
     "--client_mask for wireguard Client", nullptr, "client_mask", "client mask"},
    {{"peer_name", required_argument, nullptr, 0}, set_text<&wireguard::ServerConfig::peer_name>, true, WIREGUARD_SERVER_TYPE,
     "--peer_name for wireguard Server Client", nullptr, "peer_name", "peer name"},
    {{"peer_pub_key", required_argument, nullptr, 0}, set_text<&wireguard::ServerConfig::peer_pub_key, &wireguard::ClientConfig::peer_pub_key>, true, WIREGUARD,
     "--peer_pub_key for wireguard Server Client", nullptr, "peer_pub_key", "peer pub key"},
    {{"peer_allow_ip", required_argument, nullptr, 0}, apply_peer_allow_ip, true, WIREGUARD,
     "--peer_allow_ip for wireguard Server Client"},
    {{"peer_endpoint", required_argument, nullptr, 0}, apply_peer_endpoint, true, WIREGUARD,
     "--peer_endpoint for wireguard Server Client"},
    {{"keepalive", required_argument, nullptr, 0}, set_number<&wireguard::ServerConfig::keepalive, &wireguard::ClientConfig::keepalive>, true, WIREGUARD,
     "--keepalive for wireguard Server Client", nullptr, "keepalive is NULL or 0."},
    {{"sig_algo", required_argument, nullptr, 0}, apply_sig_algo, true, OVPN_SERVER_TYPE,
     "sig_algo works only for OpenVPN server"},
    {{nullptr, no_argument, nullptr, 0}, nullptr, false, 0},
};
// clang-format on
static_assert(std::size(COMMAND_OPTIONS) == 59);

namespace {

// Tried in this order, for each row the number first.
constexpr auto TYPE_NAMES = [] {
  std::array<TypeName, 2 * std::size(TUNNELS)> names{};
  size_t at = 0;
  for (const TunnelFacts& facts : TUNNELS) names[at++] = {facts.server, facts.server_word};
  for (const TunnelFacts& facts : TUNNELS) names[at++] = {facts.client, facts.client_word};
  return names;
}();

// The record is one that has the option, and does what the option may go with.
int check_record(const CommandOption& row, const BaseConfig* record) {
  if (!record) return error_message(ERR_NO_TYPE, nullptr);
  if (row.wrong_type && (record->type & row.types) == 0) return wrong_type(row.wrong_type);
  if (!row.actions) return NO_ERROR;
  const bool server = is_server(record->type);
  if ((record->action & (server ? row.actions->servers : row.actions->clients)) != 0)
    return NO_ERROR;
  return wrong_action(server ? row.actions->server_refusal : row.actions->client_refusal);
}

}  // namespace

std::span<const TypeName> type_names() {
  return TYPE_NAMES;
}

TYPE parse_type(const char* value) {
  if (empty(value)) return NONE_TYPE;
  const int number = to_int(value);
  const std::string name = to_upper(value);
  for (const TypeName& row : TYPE_NAMES) {
    if (number == row.type || name == row.name) return row.type;
  }
  return NONE_TYPE;
}

int apply_option(const CommandOption& row, BaseConfig** record, const char* value) {
  // An INI file cannot hold a line break in a value, so none is let in. A password is stored
  // encoded.
  if (value && row.fpr != apply_pass && std::strpbrk(value, "\r\n"))
    return error_message(ERR_VALUE, nullptr);
  if (row.types != 0) {
    if (const int rc = check_record(row, *record); rc != NO_ERROR) return rc;
  }
  if (row.empty && empty(value)) {
    if (row.empty_log) ORMEL_LOG(ERROR, "%s is NULL or 0.", row.empty_log);
    return bad_value(row.empty);
  }
  return row.fpr(record, value);
}

bool parse_truth(const char* value, bool& truth) {
  for (const char* word : {"1", "true", "0", "false"}) {
    if (strcasecmp(value, word) != 0) continue;
    truth = *word == '1' || *word == 't';
    return true;
  }
  return false;
}

CommandOptions::CommandOptions() : total(std::size(COMMAND_OPTIONS)), short_options(":") {
  for (const CommandOption& row : COMMAND_OPTIONS) {
    long_options.push_back(row.opt);
    if (row.opt.val == 0) continue;
    short_options += static_cast<char>(row.opt.val);
    short_options.append(static_cast<size_t>(row.opt.has_arg), ':');
  }
}

int apply_cmd_option(BaseConfig** record, int letter, int long_index) {
  if (letter == 0) return apply_option(COMMAND_OPTIONS[long_index], record, optarg);
  for (const CommandOption* row = COMMAND_OPTIONS; row->fpr; ++row) {
    if (row->opt.val == letter) return apply_option(*row, record, optarg);
  }
  return NO_ERROR;
}

int apply_cmd_option(BaseConfig** record, CommandOptions&, cgi_var* var) {
  const char* name = get_cgi_var_name(var);
  if (!name) return NO_ERROR;
  for (const CommandOption* row = COMMAND_OPTIONS; row->fpr; ++row) {
    if (row->cgi && std::strcmp(row->opt.name, name) == 0)
      return apply_option(*row, record, get_cgi_var_value(var));
  }
  return NO_ERROR;
}

std::unique_ptr<PolyConfig> get_options(int argc, char** argv) {
  is_cgi_mode = false;
  const CommandOptions options;
  auto holder = std::make_unique<PolyConfig>();
  const char* program = argc > 0 ? basename(argv[0]) : "";

  BaseConfig* work = nullptr;
  opterr = 0;
  optind = 0;  // from the first argument, also when another parse came before
  for (;;) {
    int long_index = 0;
    const int letter = getopt_long(argc, argv, options.short_options.c_str(),
                                   options.long_options.data(), &long_index);
    if (letter == -1) break;
    const bool unknown = letter == ':' || letter == '?';
    if (unknown) show_usage(program);
    const bool failed = unknown || apply_cmd_option(&work, letter, long_index) != NO_ERROR;
    if (!holder->bc) holder->bc.reset(work);  // the option "type" made it
    if (failed) {
      holder->destroy();
      return holder;
    }
  }
  if (holder->bc && holder->bc->action == NONE_ACTION) {
    holder->destroy();
    show_usage(program);
  }
  return holder;
}

namespace {

constexpr const char* ENABLE = "enable";

cgi_var* find_enable(cgi_var* vars) {
  cgi_var* enable = get_cgi_var(vars, ENABLE);
  return enable && get_cgi_var_status(enable) == CORRECT_VAR ? enable : nullptr;
}

bool turns_off(const cgi_var* enable) {
  const char* value = get_cgi_var_value(const_cast<cgi_var*>(enable));
  bool on = true;
  return value && parse_truth(value, on) && !on;
}

// All variables but "enable", in list order.
int apply_form(BaseConfig** record, CommandOptions& options, cgi_var* vars) {
  for (cgi_var* var = get_cgi_var(vars, nullptr); var; var = get_cgi_var(var, nullptr)) {
    const char* name = get_cgi_var_name(var);
    if (get_cgi_var_status(var) != CORRECT_VAR || !name || std::strcmp(name, ENABLE) == 0) continue;
    if (const int rc = apply_cmd_option(record, options, var); rc != NO_ERROR) {
      ORMEL_LOG(ERROR, "error option: %s", name);
      return rc;
    }
  }
  return NO_ERROR;
}

// "enable" is applied twice where it turns a server off: first, so that a clash of the pool does
// not block the change, and last, as when it turns one on, so that the new pool is what is tested.
int apply_all(BaseConfig** record, CommandOptions& options, cgi_var* vars) {
  cgi_var* enable = find_enable(vars);
  if (enable && turns_off(enable)) {
    if (const int rc = apply_cmd_option(record, options, enable); rc != NO_ERROR) return rc;
  }
  if (const int rc = apply_form(record, options, vars); rc != NO_ERROR) return rc;
  return enable ? apply_cmd_option(record, options, enable) : static_cast<int>(NO_ERROR);
}

}  // namespace

std::unique_ptr<PolyConfig> get_options(std::unique_ptr<PolyConfig> record, cgi_var* vars,
                                        int& result) {
  is_cgi_mode = true;
  CommandOptions options;
  BaseConfig* work = record->bc.get();  // "type" is closed to forms, so it stays this one
  result = apply_all(&work, options, vars);
  if (result != NO_ERROR) record->destroy();
  return record;
}

}  // namespace ormel::option
