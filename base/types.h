// The plain enumerations that all of the system shares.
#pragma once

namespace ormel {

// One bit per kind of profile, so that a mask can select kinds. Below 256 a server, from 256 a
// client.
enum TYPE : int {
  NONE_TYPE = 0,
  PPTP_SERVER_TYPE = 1,
  L2TP_SERVER_TYPE = 2,
  OVPN_SERVER_TYPE = 4,
  DROVIK_SERVER_TYPE = 16,
  WIREGUARD_SERVER_TYPE = 32,
  PPTP_CLIENT_TYPE = 256,
  L2TP_CLIENT_TYPE = 512,
  OVPN_CLIENT_TYPE = 1024,
  DROVIK_CLIENT_TYPE = 4096,
  WIREGUARD_CLIENT_TYPE = 65536,
};

constexpr int FIRST_CLIENT_TYPE = PPTP_CLIENT_TYPE;
constexpr bool is_server(TYPE type) {
  return type < FIRST_CLIENT_TYPE;
}
constexpr bool is_client(TYPE type) {
  return type >= FIRST_CLIENT_TYPE;
}

enum ACTION : int {
  NONE_ACTION = 0,
  ADD_ACTION = 1,
  SHOW_ACTION = 2,
  CONNECT_ACTION = 4,
  DISCONNECT_ACTION = 8,
  REMOVE_ACTION = 16,
  MODIFY_ACTION = 32,
  IMPORT_ACTION = 64,
  CHECK_ACTION = 128,
};

enum USER_TYPE : int { INVAILD_USER = 0, GENERAL_USER = 1, ADMIN_USER = 2 };

enum STATUS : int { DISCONNECTED_STATUS = 0, CONNECTED_STATUS = 1, CONNECTING_STATUS = 2 };

enum AUTHENTICATION : int {
  PAP_AUTHENTICATION = 1,
  MSCHAPV2_AUTHENTICATION = 2,
  MSCHAP_AUTHENTICATION = 3,
  CHAP_AUTHENTICATION = 4,
};

enum ENCRYPTION : int { NONE_ENCRYPTION = 0, MEDIUM_ENCRYPTION = 1, HIGH_ENCRYPTION = 2 };

}  // namespace ormel
