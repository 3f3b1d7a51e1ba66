// Why a tunnel or a server does not work: one table of reasons for the program and its platform,
// and the store in which the platform's scripts and daemons note them.
//
// The store has one file for each section of vpn.conf with a reason, replaced whole: one line of
// JSON with "code", "since" and "at" (seconds since the epoch: noted first and last), "count" and
// "detail". An empty code means that a start has begun and nothing is known yet. A tunnel that
// comes up and a stop remove the file.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "base/error_code.h"

namespace ormel {

struct ReasonFacts {
  const char* code;
  ERROR_CODE error;  // stored under "Last Error" of a client profile
  bool final;        // trying again cannot help: somebody has to change something first
  bool own_words;    // the detail is a sentence of our own scripts and says more than the text
  const char* text;
  const char* advice;
};

inline constexpr ReasonFacts REASONS[] = {
    // clang-format off
    {"name-not-found",         ERR_CURL_DNS_RESOLVE,          false, false, "the server's name is not found",                                    "Check the server's name and the name servers of this host."},
    {"no-route",               ERR_NO_NETWORK,                false, false, "no route to the server",                                            "Check the network of this host and its default gateway."},
    {"no-answer",              ERR_CURL_TIMEOUT,              false, false, "no answer from the server",                                         "Check address, port and protocol. The server may be off, a firewall may be in between, or it ignores a wrong pre-shared key."},
    {"login-refused",          ERR_SESSION_AUTH_FAIL,         true,  false, "login refused by the server: wrong user name or password",          "Enter the password again. It is not tried again, since that could block the account."},
    {"login-later",            ERR_SESSION_AUTH_FAIL,         false, false, "the server takes no login of this user for now",                    "It is tried again later. Too many wrong passwords may have blocked the user."},
    {"psk-wrong",              ERR_VALUE,                     true,  false, "the pre-shared key is not the server's",                            "Enter the pre-shared key again, or ask for a new profile."},
    {"server-cert-unknown",    ERR_OPENVPN_CA,                true,  false, "the server's certificate is not signed by the profile's authority", "Ask for a new profile of that server."},
    {"server-cert-expired",    ERR_OPENVPN_CA,                true,  false, "the server's certificate has expired",                              "The server needs a new certificate. Check the clock of this host, too."},
    {"server-cert-not-yet",    ERR_OPENVPN_CA,                true,  false, "the server's certificate is not valid yet",                         "Check the clock of this host."},
    {"own-cert-expired",       ERR_OPENVPN_CERT,              true,  false, "the profile's own certificate has expired",                         "Ask for a new profile."},
    {"own-cert-refused",       ERR_OPENVPN_CERT,              true,  false, "the server refuses the profile's own certificate",                  "Ask for a new profile."},
    {"no-common-cipher",       ERR_ENCRYPTION,                true,  false, "this host and the server have no cipher in common",                 "Choose another encryption, here or at the server."},
    {"profile-not-allowed",    ERR_OPENVPN_CLIENT,            true,  true,  "the profile holds an option that is not allowed here",              "Remove the option that is named, and import the profile again."},
    {"profile-unknown-option", ERR_OPENVPN_CLIENT,            true,  true,  "OpenVPN refuses an option of the profile",                          "Remove the option that is named, and import the profile again."},
    {"address-conflict",       ERR_IP_POOL_CONFLICT,          true,  true,  "the tunnel's address is in use on this host",                       "Choose another address or network."},
    {"port-taken",             ERR_PORT_NUMBER,               false, true,  "the port is in use by another program",                             "End that program, or choose another port."},
    {"kernel-lacks",           ERR_NOT_SUPPORT,               true,  true,  "the kernel lacks what this protocol needs",                         "Load the missing module, or use another protocol."},
    {"daemon-missing",         ERR_CMD_FAILED,                true,  true,  "a program that this protocol needs is not installed",               "Install the program that is named."},
    {"daemon-ended",           ERR_BACKGROUND_PROCESS,        false, true,  "the daemon has ended unexpectedly",                                 "Connect or turn on again. The host's log says more."},
    {"settings-bad",           ERR_VALUE,                     true,  true,  "a setting is missing or cannot be used",                            "Correct the setting that is named."},
    {"not-written",            ERR_SAVE_FILE,                 false, true,  "a file could not be written",                                       "Check the free space of the disk."},
    {"no-handshake",           ERR_CURL_TIMEOUT,              false, false, "nothing has come back from the peer",                               "Check both keys, the address and the port. The peer may be off."},
    {"kicked",                 NO_ERROR,                      false, false, "the server has disconnected this client",                           "Ask the server's administrator."},
    {"server-full",            ERR_CONFIGURATION_FULL,        false, false, "the server has no place for another client",                        "Try again later, or raise the server's limit."},
    {"entrance-not-set",       ERR_SETUP_VPN_ENTRANCE_STATUS, false, false, "the firewall rules for VPN clients are not set up",                 "Clients can connect, but reach nothing. Check that nftables or iptables works."},
    // clang-format on
};

// The row of a code; null for any other text.
[[nodiscard]] constexpr const ReasonFacts* find_reason(std::string_view code) {
  for (const ReasonFacts& row : REASONS) {
    if (code == row.code) return &row;
  }
  return nullptr;
}

// What the store holds for one section.
struct NotedReason {
  const ReasonFacts* facts = nullptr;  // null: a start has begun
  std::time_t since = 0;
  std::time_t at = 0;
  long count = 0;
  std::string
      detail{};  // what the daemon or the other end said, from `printable_detail`; may be empty
};

inline constexpr const char* REASONS_FOLDER = "/run/fenro/reasons";

// A section of vpn.conf that a server or a client profile has: "OPENVPN", "PPTP_CLIENT7".
[[nodiscard]] bool is_tunnel_section(std::string_view section);

// What is noted for a section. Nothing when there is no file, or one that this program cannot have
// written.
[[nodiscard]] std::optional<NotedReason> read_reason(const std::string& section);

// Removes what is noted for a section.
void forget_reason(const std::string& section);

// One sentence for people.
[[nodiscard]] std::string reason_text(const NotedReason& reason);

// The line of the file.
[[nodiscard]] std::string reason_line(const NotedReason& reason);

// At most 200 bytes of a foreign text, with "?" in the place of bytes that are not printable UTF-8.
[[nodiscard]] std::string printable_detail(std::string_view text);

}  // namespace ormel
