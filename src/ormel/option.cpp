#include "ormel/option.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <libgen.h>
#include <strings.h>

#include "ormel/option_apply.h"
#include "ormel/system_log.h"
#include "ormel/text.h"

namespace ormel::option {

bool is_cgi_mode = false;

// clang-format off
const CommandOption COMMAND_OPTIONS[] = {
    // long name          argument              flag     short  applier              web
    {{"type",             required_argument,    nullptr, 'T'},  apply_type,           false},
    {{"add",              no_argument,          nullptr, 'A'},  apply_add,            false},
    {{"import",           required_argument,    nullptr, 'I'},  apply_import,         true},
    {{"remove",           required_argument,    nullptr, 'R'},  apply_remove,         false},
    {{"modify",           required_argument,    nullptr, 'M'},  apply_modify,         false},
    {{"show",             required_argument,    nullptr, 'S'},  apply_show,           false},
    {{"connect",          required_argument,    nullptr, 'c'},  apply_connect,        false},
    {{"disconnect",       required_argument,    nullptr, 'd'},  apply_disconnect,     false},
    {{"auth",             required_argument,    nullptr, 0},    apply_authentication, true},
    {{"enc",              required_argument,    nullptr, 0},    apply_encryption,     true},
    {{"name",             required_argument,    nullptr, 0},    apply_name,           true},
    {{"host",             required_argument,    nullptr, 0},    apply_host,           true},
    {{"port",             required_argument,    nullptr, 0},    apply_port,           true},
    {{"proto",            required_argument,    nullptr, 0},    apply_protocol,       true},
    {{"user",             required_argument,    nullptr, 0},    apply_user,           true},
    {{"pass",             required_argument,    nullptr, 0},    apply_pass,           true},
    {{"json",             no_argument,          nullptr, 0},    apply_json,           true},
    {{"reconnect",        required_argument,    nullptr, 0},    apply_reconnect,      true},
    {{"gateway",          required_argument,    nullptr, 0},    apply_gateway,        true},
    {{"mask",             required_argument,    nullptr, 0},    apply_mask,           true},
    {{"vendor-auth",      required_argument,    nullptr, 0},    apply_vendor_auth,    true},
    {{"compress",         required_argument,    nullptr, 0},    apply_compress,       true},
    {{"ca",               required_argument,    nullptr, 0},    apply_ca,             true},
    {{"dh",               required_argument,    nullptr, 0},    apply_dh,             true},
    {{"key",              required_argument,    nullptr, 0},    apply_key,            true},
    {{"cert",             required_argument,    nullptr, 0},    apply_cert,           true},
    {{"pkcs12",           required_argument,    nullptr, 0},    apply_pkcs12,         true},
    {{"extra_certs",      required_argument,    nullptr, 0},    apply_extra_certs,    true},
    {{"tls_auth",         required_argument,    nullptr, 0},    apply_tls_auth,       true},
    {{"crl_verify",       required_argument,    nullptr, 0},    apply_crl_verify,     true},
    {{"vendor",           required_argument,    nullptr, 0},    apply_vendor,         false},
    {{"metadata",         required_argument,    nullptr, 0},    apply_metadta,        true},
    {{"up",               required_argument,    nullptr, 0},    apply_up,             false},  // a program that will run:
    {{"down",             required_argument,    nullptr, 0},    apply_down,           false},  // never from a form
    {{"enable",           required_argument,    nullptr, 0},    apply_enable,         true},
    {{"ip_pool",          required_argument,    nullptr, 0},    apply_ip_pool,        true},
    {{"maximum",          required_argument,    nullptr, 0},    apply_maximum,        true},
    {{"enable_dns",       required_argument,    nullptr, 0},    apply_enable_dns,     true},
    {{"manual_dns",       required_argument,    nullptr, 0},    apply_manual_dns,     true},
    {{"out_eif",          required_argument,    nullptr, 0},    apply_out_eif,        true},
    {{"psk",              required_argument,    nullptr, 0},    apply_psk,            true},
    {{"fenro_port",       required_argument,    nullptr, 0},    apply_fenro_port,     true},
    {{"debug",            required_argument,    nullptr, 0},    apply_debug,          true},
    {{"mss",              required_argument,    nullptr, 0},    apply_mss,            true},
    {{"server_ip",        required_argument,    nullptr, 0},    apply_server_ip,      true},
    {{"server_name",      required_argument,    nullptr, 0},    apply_server_name,    true},
    {{"server_pri_key",   required_argument,    nullptr, 0},    apply_server_pri_key, true},
    {{"server_mask",      required_argument,    nullptr, 0},    apply_server_mask,    true},
    {{"client_ip",        required_argument,    nullptr, 0},    apply_client_ip,      true},
    {{"client_name",      required_argument,    nullptr, 0},    apply_client_name,    true},
    {{"client_pri_key",   required_argument,    nullptr, 0},    apply_client_pri_key, true},
    {{"client_mask",      required_argument,    nullptr, 0},    apply_client_mask,    true},
    {{"peer_name",        required_argument,    nullptr, 0},    apply_peer_name,      true},
    {{"peer_pub_key",     required_argument,    nullptr, 0},    apply_peer_pub_key,   true},
    {{"peer_allow_ip",    required_argument,    nullptr, 0},    apply_peer_allow_ip,  true},
    {{"peer_endpoint",    required_argument,    nullptr, 0},    apply_peer_endpoint,  true},
    {{"keepalive",        required_argument,    nullptr, 0},    apply_keepalive,      true},
    {{"sig_algo",         required_argument,    nullptr, 0},    apply_sig_algo,       true},
    {{nullptr,            no_argument,          nullptr, 0},    nullptr,              false},
};
// clang-format on
static_assert(std::size(COMMAND_OPTIONS) == 59);

namespace {

// Tried in this order, for each row the number first.
constexpr TypeName TYPE_NAMES[] = {
    {PPTP_SERVER_TYPE, "SPPTP"},     {L2TP_SERVER_TYPE, "SL2TP"},    {OVPN_SERVER_TYPE, "SOVPN"},
    {DROVIK_SERVER_TYPE, "SDROVIK"}, {WIREGUARD_SERVER_TYPE, "SWG"}, {PPTP_CLIENT_TYPE, "PPTP"},
    {L2TP_CLIENT_TYPE, "L2TP"},      {OVPN_CLIENT_TYPE, "OVPN"},     {DROVIK_CLIENT_TYPE, "DROVIK"},
    {WIREGUARD_CLIENT_TYPE, "WG"},
};

// An INI file cannot hold a line break in a value, so none is let in. A password is stored encoded.
int apply_row(const CommandOption& row, BaseConfig** record, const char* value) {
  if (value && row.fpr != apply_pass && std::strpbrk(value, "\r\n")) return error_message(ERR_VALUE, nullptr);
  return row.fpr(record, value);
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

int expect(BaseConfig* const* record, int types, const char* detail) {
  if (!*record) return error_message(ERR_NO_TYPE, nullptr);
  return ((*record)->type & types) != 0 ? NO_ERROR : wrong_type(detail);
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
  if (letter == 0) return apply_row(COMMAND_OPTIONS[long_index], record, optarg);
  for (const CommandOption* row = COMMAND_OPTIONS; row->fpr; ++row) {
    if (row->opt.val == letter) return apply_row(*row, record, optarg);
  }
  return NO_ERROR;
}

int apply_cmd_option(BaseConfig** record, CommandOptions&, cgi_var* var) {
  const char* name = get_cgi_var_name(var);
  if (!name) return NO_ERROR;
  for (const CommandOption* row = COMMAND_OPTIONS; row->fpr; ++row) {
    if (row->cgi && std::strcmp(row->opt.name, name) == 0) return apply_row(*row, record, get_cgi_var_value(var));
  }
  return NO_ERROR;
}

std::unique_ptr<PolyConfig> get_options(int argc, char** argv) {
  is_cgi_mode = false;
  const CommandOptions options;
  auto holder = std::make_unique<PolyConfig>();
  const char* program = argc > 0 ? basename(argv[0]) : "";

  opterr = 0;
  optind = 0;  // from the first argument, also when another parse came before
  for (;;) {
    int long_index = 0;
    const int letter = getopt_long(argc, argv, options.short_options.c_str(), options.long_options.data(), &long_index);
    if (letter == -1) break;
    const bool unknown = letter == ':' || letter == '?';
    if (unknown) show_usage(program);
    if (unknown || apply_cmd_option(&holder->bc, letter, long_index) != NO_ERROR) {
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

// "enable" is applied twice where it turns a server off: first, so that a clash of the pool does not block the change,
// and last, as when it turns one on, so that the new pool is what is tested.
int apply_all(BaseConfig** record, CommandOptions& options, cgi_var* vars) {
  cgi_var* enable = find_enable(vars);
  if (enable && turns_off(enable)) {
    if (const int rc = apply_cmd_option(record, options, enable); rc != NO_ERROR) return rc;
  }
  if (const int rc = apply_form(record, options, vars); rc != NO_ERROR) return rc;
  return enable ? apply_cmd_option(record, options, enable) : static_cast<int>(NO_ERROR);
}

}  // namespace

std::unique_ptr<PolyConfig> get_options(std::unique_ptr<PolyConfig> record, cgi_var* vars, int& result) {
  is_cgi_mode = true;
  CommandOptions options;
  result = apply_all(&record->bc, options, vars);
  if (result != NO_ERROR) record->destroy();
  return record;
}

}  // namespace ormel::option
