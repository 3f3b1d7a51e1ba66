// The appliers of the option table: a setter for each plain kind of value, functions for the
// others. They are called through the table, which has checked type, action and emptiness.
#pragma once

#include "base/tunnel.h"
#include "base/types.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/text.h"
#include "ormel/config/record.h"

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
int apply_host(BaseConfig** record, const char* value);
int apply_port(BaseConfig** record, const char* value);
int apply_protocol(BaseConfig** record, const char* value);
int apply_pass(BaseConfig** record, const char* value);
int apply_json(BaseConfig** record, const char* value);
int apply_mask(BaseConfig** record, const char* value);
int apply_enable(BaseConfig** record, const char* value);
int apply_ip_pool(BaseConfig** record, const char* value);
int apply_maximum(BaseConfig** record, const char* value);
int apply_enable_dns(BaseConfig** record, const char* value);
int apply_manual_dns(BaseConfig** record, const char* value);
int apply_mss(BaseConfig** record, const char* value);
int apply_out_eif(BaseConfig** record, const char* value);
int apply_psk(BaseConfig** record, const char* value);
int apply_fenro_port(BaseConfig** record, const char* value);
int apply_server_mask(BaseConfig** record, const char* value);
int apply_client_name(BaseConfig** record, const char* value);
int apply_client_mask(BaseConfig** record, const char* value);
int apply_peer_allow_ip(BaseConfig** record, const char* value);
int apply_peer_endpoint(BaseConfig** record, const char* value);
int apply_sig_algo(BaseConfig** record, const char* value);

// Stand ready beside the table, which has no row for them.
int apply_show_all(BaseConfig** record, const char* value);
int apply_connect_all(BaseConfig** record, const char* value);
int apply_disconnect_all(BaseConfig** record, const char* value);
int apply_secret(BaseConfig** record, const char* value);

constexpr int ANY_TYPE = CLIENT_TYPES | SERVER_TYPES;

inline bool empty(const char* value) {
  return !value || !*value;
}

// The interfaces that a server may take for the way out.
inline constexpr const char* OUT_EIF =
    "^(all|none|(eth|dvs|br|bond|docker|lxcbr|ppp|tun|dtunc|wgc)[0-9]+)$";

// The failures that appliers report, each with the detail that the user sees.
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

// Reads "1", "true", "0" or "false" in any case. Whether it is one of them.
[[nodiscard]] bool parse_truth(const char* value, bool& truth);

// The record as a class that its type names.
template <typename T>
T& as(BaseConfig* const* record) {
  return *static_cast<T*>(*record);
}

template <typename Record, typename Value>
Value& member_of(BaseConfig* const* record, Value Record::*field) {
  return as<Record>(record).*field;
}

// The member that the option sets; where both ends of a tunnel have it, the first is the server's.
template <auto First, auto... Client>
auto& field(BaseConfig* const* record) {
  if constexpr (sizeof...(Client) != 0) {
    if (is_client((*record)->type)) return member_of(record, Client...);
  }
  return member_of(record, First);
}

template <auto... Fields>
int set_text(BaseConfig** record, const char* value) {
  field<Fields...>(record) = value;
  return NO_ERROR;
}

template <auto... Fields>
int set_number(BaseConfig** record, const char* value) {
  field<Fields...>(record) = to_int(value);
  return NO_ERROR;
}

template <auto Field>
int set_truth(BaseConfig** record, const char* value) {
  return parse_truth(value, field<Field>(record)) ? NO_ERROR : bad_value(value);
}

// A text of at most `Limit` bytes; `Code` reports a longer one. Only a client stores it: a server
// takes the option too.
template <auto Field, size_t Limit, ERROR_CODE Code>
int set_client_text(BaseConfig** record, const char* value) {
  const std::string text = value ? value : "";
  if (text.size() > Limit) return error_message(Code, text.c_str());
  if (is_client((*record)->type)) member_of(record, Field) = text;
  return NO_ERROR;
}

// A program that the client's tunnel runs.
template <auto Field>
int set_client_program(BaseConfig** record, const char* value) {
  if (!system::executable_file(value)) return error_message(ERR_EXECUTABLE, value);
  if (is_client((*record)->type)) member_of(record, Field) = value;
  return NO_ERROR;
}

}  // namespace ormel::option
