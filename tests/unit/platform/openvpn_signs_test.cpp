#include <gtest/gtest.h>

#include "base/reason.h"
#include "openvpn/signs.h"

namespace fenro::openvpn {
namespace {

// As OpenVPN 2.6 sends them.
TEST(OpenVpnSigns, NameTheReason) {
  constexpr struct {
    std::string_view line, code, detail;
  } ROWS[] = {
      {">PASSWORD:Verification Failed: 'Auth'", "login-refused", ""},
      {">PASSWORD:Verification Failed: 'Auth' ['no right to use this server']", "login-refused",
       "no right to use this server"},
      {">PASSWORD:Verification Failed: 'Auth' ['TEMP[backoff 60]:too many failures']", "login-later",
       "TEMP[backoff 60]:too many failures"},
      {">PASSWORD:Verification Failed: 'Auth' ['Data channel cipher negotiation failed (no shared cipher)']",
       "no-common-cipher", "Data channel cipher negotiation failed (no shared cipher)"},
      {">LOG:1795625173,N,RESOLVE: Cannot resolve host address: nowhere.invalid:1194 (Name or service not known)",
       "name-not-found", "RESOLVE: Cannot resolve host address: nowhere.invalid:1194 (Name or service not known)"},
      {">LOG:1795625173,,read UDPv4 [EHOSTUNREACH]: No route to host (fd=5,code=113)", "no-route",
       "read UDPv4 [EHOSTUNREACH]: No route to host (fd=5,code=113)"},
      {">LOG:1,N,TCP: connect to [AF_INET]192.168.77.2:1194 failed: Connection refused", "no-answer",
       "TCP: connect to [AF_INET]192.168.77.2:1194 failed: Connection refused"},
      {">LOG:1,N,VERIFY ERROR: depth=1, error=self-signed certificate in certificate chain: CN=far CA, serial=7",
       "server-cert-unknown",
       "VERIFY ERROR: depth=1, error=self-signed certificate in certificate chain: CN=far CA, serial=7"},
      {">LOG:1,N,VERIFY ERROR: depth=0, error=certificate has expired: CN=far, serial=1", "server-cert-expired",
       "VERIFY ERROR: depth=0, error=certificate has expired: CN=far, serial=1"},
      {">LOG:1,N,VERIFY ERROR: depth=0, error=certificate is not yet valid: CN=far, serial=1", "server-cert-not-yet",
       "VERIFY ERROR: depth=0, error=certificate is not yet valid: CN=far, serial=1"},
      {">LOG:1,N,OpenSSL: error:0A000415:SSL routines::sslv3 alert certificate expired:", "own-cert-expired",
       "OpenSSL: error:0A000415:SSL routines::sslv3 alert certificate expired:"},
      {">LOG:1,N,tls-crypt unwrap error: packet authentication failed", "psk-wrong",
       "tls-crypt unwrap error: packet authentication failed"},
      {">LOG:1,N,TLS Error: TLS key negotiation failed to occur within 60 seconds (check your network connectivity)",
       "no-answer",
       "TLS Error: TLS key negotiation failed to occur within 60 seconds (check your network connectivity)"},
      {">FATAL:Cannot load private key file [[INLINE]]", "settings-bad", "Cannot load private key file [[INLINE]]"},
      {">FATAL:ERROR: Cannot open TUN/TAP dev /dev/net/tun: No such file or directory (errno=2)", "kernel-lacks",
       "ERROR: Cannot open TUN/TAP dev /dev/net/tun: No such file or directory (errno=2)"},
  };
  for (const auto& row : ROWS) {
    SCOPED_TRACE(row.line);
    const auto sign = sign_of(row.line);
    ASSERT_TRUE(sign);
    EXPECT_EQ(sign->code, row.code);
    EXPECT_EQ(sign->detail, row.detail);
    EXPECT_NE(ormel::find_reason(row.code), nullptr);
  }
}

TEST(OpenVpnSigns, AreNotSeenInOtherLines) {
  for (const char* line :
       {"", ">", ">LOG:", ">LOG:1,I,Initialization Sequence Completed", ">STATE:1,WAIT,,,,,,", ">INFO:VERIFY ERROR",
        "SUCCESS: VERIFY ERROR", ">PASSWORD:Need 'Auth' username/password", ">LOG:VERIFY"}) {
    EXPECT_FALSE(sign_of(line)) << line;
  }
}

TEST(OpenVpnSigns, TellAttemptsApart) {
  EXPECT_TRUE(says_connected(">STATE:1795625173,CONNECTED,SUCCESS,10.8.0.2,192.168.77.2,1194,,"));
  EXPECT_TRUE(says_connected("1795625173,CONNECTED,SUCCESS,10.8.0.2,192.168.77.2,1194,,"));
  EXPECT_FALSE(says_connected(">LOG:1,N,from the server: ,CONNECTED,SUCCESS,"));
  EXPECT_TRUE(says_reconnecting(">STATE:1795625173,RECONNECTING,tls-error,,,,,"));
  EXPECT_FALSE(says_reconnecting(">STATE:1795625173,WAIT,,,,,,"));
}

}  // namespace
}  // namespace fenro::openvpn
