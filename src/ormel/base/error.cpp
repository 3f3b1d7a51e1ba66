#include "ormel/base/error.h"

#include <cstdio>
#include <iterator>

#include "ormel/base/log.h"

namespace ormel {

namespace {

constexpr const char* UNKNOWN_ERROR = "unknown error";

// Indexed by code. Clients know these numbers and texts: the texts of 65 to 69 are one place after
// the names of their codes, and 72 and 88 read alike.
constexpr const char* ERROR_MESSAGE[] = {
    /*  0 */ "",
    /*  1 */ "general error",
    /*  2 */ "no type",
    /*  3 */ "wrong type",
    /*  4 */ "wrong action",
    /*  5 */ "unknown option",
    /*  6 */ "duplicate option",
    /*  7 */ "not a regular file",
    /*  8 */ "not support",
    /*  9 */ "incorrect value",
    /* 10 */ "over maximum configuration",
    /* 11 */ "miss host or over maximum length",
    /* 12 */ "mask length incorrect",
    /* 13 */ "miss name or over maximum length",
    /* 14 */ "miss user or over maximum length",
    /* 15 */ "miss pass or over maximum length",
    /* 16 */ "encryption incorrect",
    /* 17 */ "authentication incorrect",
    /* 18 */ "port range incorrect",
    /* 19 */ "protocol incorrect",
    /* 20 */ "callback incorrect",
    /* 21 */ "over maximum url length",
    /* 22 */ "over maximum metadata length",
    /* 23 */ "incorrect client config",
    /* 24 */ "incorrect ca file",
    /* 25 */ "incorrect key file",
    /* 26 */ "incorrect cert file",
    /* 27 */ "incorrect tls-auth file",
    /* 28 */ "incorrect secret file",
    /* 29 */ "incorrect crl-verify file",
    /* 30 */ "no such config",
    /* 31 */ "save file fail",
    /* 32 */ "background process fail",
    /* 33 */ "kill process fail",
    /* 34 */ "save config file fail",
    /* 35 */ "api not found",
    /* 36 */ "miss option",
    /* 37 */ "session user",
    /* 38 */ "session pass",
    /* 39 */ "session invalid",
    /* 40 */ "session auth fail",
    /* 41 */ "not admin session",
    /* 42 */ "query log fail",
    /* 43 */ "configuration full",
    /* 44 */ "ip pool conflict",
    /* 45 */ "cannot access",
    /* 46 */ "mibservice io failed",
    /* 47 */ "mib_call failed",
    /* 48 */ "mibservice api return error",
    /* 49 */ "wrong JSON format",
    /* 50 */ "wrong virtual ip",
    /* 51 */ "curl fail",
    /* 52 */ "drovik client profile duplicate",
    /* 53 */ "wireguard wrong private key",
    /* 54 */ "wireguard peer ip not in server",
    /* 55 */ "wireguard peer public key conflict",
    /* 56 */ "wireguard peer public key invalid",
    /* 57 */ "wireguard server/client profile duplicate",
    /* 58 */ "memory allocation failed",
    /* 59 */ "wireguard remove peer ip failed",
    /* 60 */ "command failed",
    /* 61 */ "missing or excessive ca files",
    /* 62 */ "curl perform failed",
    /* 63 */ "failed to get cloud token",
    /* 64 */ "failed to get pelmar token",
    /* 65 */ "failed to get device id",
    /* 66 */ "failed to get group id",
    /* 67 */ "failed to execute cloudagent script",
    /* 68 */ "failed to execute pelmar express script",
    /* 69 */ "failed to get device token",
    /* 70 */ "failed to call pelmar edge api",
    /* 71 */ "failed to call pelmar devices api",
    /* 72 */ "failed to call pelmar ip subnet check api",
    /* 73 */ "failed to call pelmar vpn tunnel check api",
    /* 74 */ "failed to call pelmar wan ip api",
    /* 75 */ "failed to call pelmar carrier status api",
    /* 76 */ "failed to call pelmar vpn groups api",
    /* 77 */ "failed to call pelmar network interfaces api",
    /* 78 */ "failed to decode skarnToken from oauth response",
    /* 79 */ "setup vpn entrance failed",
    /* 80 */ "missing vpn.conf",
    /* 81 */ "wrong vpn iptables rules",
    /* 82 */ "wrong http status code",
    /* 83 */ "no network",
    /* 84 */ "curl dns resolution failed",
    /* 85 */ "curl timeout",
    /* 86 */ "failed to call pelmar unregister device",
    /* 87 */ UNKNOWN_ERROR,  // not assigned
    /* 88 */ "failed to call pelmar ip subnet check api",
};
static_assert(std::size(ERROR_MESSAGE) == 89);

}  // namespace

const char* get_error_message(unsigned int code) {
  return code < std::size(ERROR_MESSAGE) ? ERROR_MESSAGE[code] : UNKNOWN_ERROR;
}

void report_error(ERROR_CODE code, const char* detail) {
  const char* text = detail ? detail : get_error_message(static_cast<unsigned int>(code));
  std::fprintf(stderr, "Error: %s\n", text);
  if (__cur_level__ > ORMELLOG_ERROR) return;
  system::log_line(ORMELLOG_ERROR, __FILE_NAME__, __LINE__, "error_message",
                   "error_message: Error: %s", text);
}

}  // namespace ormel
