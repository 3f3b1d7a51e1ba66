// The appliers of the option table, and what they share.
#pragma once

#include "ormel/config_record.h"
#include "ormel/error.h"
#include "ormel/types.h"

namespace ormel::option {

using config::BaseConfig;

int apply_type(BaseConfig** record, const char* value);
int apply_add(BaseConfig** record, const char* value);
int apply_import(BaseConfig** record, const char* value);
int apply_remove(BaseConfig** record, const char* value);
int apply_modify(BaseConfig** record, const char* value);
int apply_show(BaseConfig** record, const char* value);
int apply_connect(BaseConfig** record, const char* value);
int apply_disconnect(BaseConfig** record, const char* value);
int apply_authentication(BaseConfig** record, const char* value);
int apply_encryption(BaseConfig** record, const char* value);
int apply_name(BaseConfig** record, const char* value);
int apply_host(BaseConfig** record, const char* value);
int apply_port(BaseConfig** record, const char* value);
int apply_protocol(BaseConfig** record, const char* value);
int apply_user(BaseConfig** record, const char* value);
int apply_pass(BaseConfig** record, const char* value);
int apply_json(BaseConfig** record, const char* value);
int apply_reconnect(BaseConfig** record, const char* value);
int apply_gateway(BaseConfig** record, const char* value);
int apply_mask(BaseConfig** record, const char* value);
int apply_vendor_auth(BaseConfig** record, const char* value);
int apply_compress(BaseConfig** record, const char* value);
int apply_ca(BaseConfig** record, const char* value);
int apply_dh(BaseConfig** record, const char* value);
int apply_key(BaseConfig** record, const char* value);
int apply_cert(BaseConfig** record, const char* value);
int apply_pkcs12(BaseConfig** record, const char* value);
int apply_extra_certs(BaseConfig** record, const char* value);
int apply_tls_auth(BaseConfig** record, const char* value);
int apply_crl_verify(BaseConfig** record, const char* value);
int apply_vendor(BaseConfig** record, const char* value);
int apply_metadta(BaseConfig** record, const char* value);
int apply_up(BaseConfig** record, const char* value);
int apply_down(BaseConfig** record, const char* value);
int apply_enable(BaseConfig** record, const char* value);
int apply_ip_pool(BaseConfig** record, const char* value);
int apply_maximum(BaseConfig** record, const char* value);
int apply_enable_dns(BaseConfig** record, const char* value);
int apply_manual_dns(BaseConfig** record, const char* value);
int apply_out_eif(BaseConfig** record, const char* value);
int apply_psk(BaseConfig** record, const char* value);
int apply_fenro_port(BaseConfig** record, const char* value);
int apply_debug(BaseConfig** record, const char* value);
int apply_mss(BaseConfig** record, const char* value);
int apply_server_ip(BaseConfig** record, const char* value);
int apply_server_name(BaseConfig** record, const char* value);
int apply_server_pri_key(BaseConfig** record, const char* value);
int apply_server_mask(BaseConfig** record, const char* value);
int apply_client_ip(BaseConfig** record, const char* value);
int apply_client_name(BaseConfig** record, const char* value);
int apply_client_pri_key(BaseConfig** record, const char* value);
int apply_client_mask(BaseConfig** record, const char* value);
int apply_peer_name(BaseConfig** record, const char* value);
int apply_peer_pub_key(BaseConfig** record, const char* value);
int apply_peer_allow_ip(BaseConfig** record, const char* value);
int apply_peer_endpoint(BaseConfig** record, const char* value);
int apply_keepalive(BaseConfig** record, const char* value);
int apply_sig_algo(BaseConfig** record, const char* value);

// Stand ready beside the table, which has no row for them.
int apply_show_all(BaseConfig** record, const char* value);
int apply_connect_all(BaseConfig** record, const char* value);
int apply_disconnect_all(BaseConfig** record, const char* value);
int apply_secret(BaseConfig** record, const char* value);

// Sets of types, as masks.
constexpr int CLIENT_TYPES =
    PPTP_CLIENT_TYPE | L2TP_CLIENT_TYPE | OVPN_CLIENT_TYPE | DROVIK_CLIENT_TYPE | WIREGUARD_CLIENT_TYPE;
constexpr int SERVER_TYPES =
    PPTP_SERVER_TYPE | L2TP_SERVER_TYPE | OVPN_SERVER_TYPE | DROVIK_SERVER_TYPE | WIREGUARD_SERVER_TYPE;

inline bool empty(const char* value) {
  return !value || !*value;
}

// The interfaces that a server may take for the way out.
inline constexpr const char* OUT_EIF = "^(all|none|(eth|dvs|br|bond|docker|lxcbr|ppp|tun|dtunc|wgc)[0-9]+)$";

// The failures that appliers report, each with the detail that the user is told.
inline int bad_value(const char* detail) {
  return error_message(ERR_VALUE, detail);
}
inline int wrong_type(const char* detail) {
  return error_message(ERR_WRONG_TYPE, detail);
}
inline int wrong_action(const char* detail) {
  return error_message(ERR_WRONG_ACTION, detail);
}
inline int duplicate(const char* detail) {
  return error_message(ERR_DUPLICATE_OPTION, detail);
}

// 0 if there is a record of one of the types; otherwise the failure, with `detail` for a wrong type.
[[nodiscard]] int expect(BaseConfig* const* record, int types, const char* detail);

// Reads "1", "true", "0" or "false" in any case. Whether it is one of them.
[[nodiscard]] bool parse_truth(const char* value, bool& truth);

// The record as a class that its type names.
template <typename T>
T& as(BaseConfig* const* record) {
  return *static_cast<T*>(*record);
}

// The steps of a yes-or-no option: type, emptiness, truth value.
template <typename T>
int apply_truth(BaseConfig** record, const char* value, int types, const char* type_detail, const char* name,
                bool T::*field) {
  if (const int rc = expect(record, types, type_detail); rc != NO_ERROR) return rc;
  if (empty(value)) return bad_value(name);
  if (!parse_truth(value, as<T>(record).*field)) return bad_value(value);
  return NO_ERROR;
}

}  // namespace ormel::option
