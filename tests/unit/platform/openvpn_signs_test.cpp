#include <gtest/gtest.h>

#include "base/reason.h"
#include "openvpn/attempts.h"
#include "openvpn/signs.h"

namespace fenro::openvpn {
namespace {

// As OpenVPN 2.6 sends them.
TEST(OpenVpnSigns, NameTheReason) {
  constexpr const char* AUTH = ">PASSWORD:Verification Failed: 'Auth' ['";
  constexpr const char* LOG = ">LOG:1795625173,N,";
  // What is before the detail, the detail, what is behind it.
  const std::tuple<std::string, const char*, const char*, const char*> rows[] = {
      {">PASSWORD:Verification Failed: 'Auth'", "", "", "login-refused"},
      {AUTH, "no right to use this server", "']", "login-refused"},
      {AUTH, "TEMP[backoff 60]:too many failures", "']", "login-later"},
      {AUTH, "Data channel cipher negotiation failed (no shared cipher)", "']", "no-common-cipher"},
      {LOG,
       "RESOLVE: Cannot resolve host address: nowhere.invalid:1194 (Name or service not known)", "",
       "name-not-found"},
      {">LOG:1,,", "read UDPv4 [EHOSTUNREACH]: No route to host (fd=5,code=113)", "", "no-route"},
      {LOG, "TCP: connect to [AF_INET]192.168.77.2:1194 failed: Connection refused", "",
       "no-answer"},
      {LOG,
       "VERIFY ERROR: depth=1, error=self-signed certificate in certificate chain: CN=far CA, "
       "serial=7",
       "", "server-cert-unknown"},
      {LOG, "VERIFY ERROR: depth=0, error=certificate has expired: CN=far, serial=1", "",
       "server-cert-expired"},
      {"1795625173,N,", "VERIFY ERROR: depth=0, error=certificate has expired: CN=far, serial=1",
       "", "server-cert-expired"},
      {LOG, "VERIFY ERROR: depth=0, error=certificate is not yet valid: CN=far, serial=1", "",
       "server-cert-not-yet"},
      {LOG, "OpenSSL: error:0A000415:SSL routines::sslv3 alert certificate expired:", "",
       "own-cert-expired"},
      {LOG, "tls-crypt unwrap error: packet authentication failed", "", "psk-wrong"},
      {LOG, "TLS Error: TLS key negotiation failed to occur within 60 seconds", "", "no-answer"},
      {">FATAL:", "All connections have been connect-retry-max (1) times unsuccessful, exiting", "",
       "no-answer"},
      {">FATAL:", "Cannot load private key file [[INLINE]]", "", "settings-bad"},
      {">FATAL:", "ERROR: Cannot open TUN/TAP dev /dev/net/tun: No such file or directory", "",
       "kernel-lacks"},
  };
  for (const auto& [head, detail, tail, code] : rows) {
    const std::string line = head + detail + tail;
    SCOPED_TRACE(line);
    const auto sign = sign_of(line);
    ASSERT_TRUE(sign);
    EXPECT_EQ(sign->code, code);
    EXPECT_EQ(sign->detail, detail);
    EXPECT_NE(ormel::find_reason(code), nullptr);
  }
}

TEST(OpenVpnSigns, AreNotSeenInOtherLines) {
  for (const char* line :
       {"", ">", ">LOG:", ">LOG:1,I,Initialization Sequence Completed", ">STATE:1,WAIT,,,,,,",
        ">INFO:VERIFY ERROR", "SUCCESS: VERIFY ERROR", ">PASSWORD:Need 'Auth' username/password",
        ">LOG:VERIFY", "1,CONNECTED,VERIFY ERROR",
        "1,W,Option 'connect-retry-max' in [CMD-LINE]:1 is ignored by previous <connection> blocks",
        "1,N", "x,N,VERIFY ERROR", "VERIFY ERROR"})
    EXPECT_FALSE(sign_of(line)) << line;
}

TEST(OpenVpnSigns, KnowAnOwnCertificateThatHasExpired) {
  EXPECT_TRUE(warns_of_own_certificate("1795625173,W,WARNING: Your certificate has expired!"));
  EXPECT_TRUE(warns_of_own_certificate(">LOG:1795625173,W,WARNING: Your certificate has expired!"));
  EXPECT_FALSE(warns_of_own_certificate(
      ">PASSWORD:Verification Failed: 'Auth' ['Your certificate has expired']"));
}

TEST(OpenVpnSigns, TellAttemptsApart) {
  EXPECT_TRUE(says_connected(">STATE:1795625173,CONNECTED,SUCCESS,10.8.0.2,192.168.77.2,1194,,"));
  EXPECT_TRUE(says_connected("1795625173,CONNECTED,SUCCESS,10.8.0.2,192.168.77.2,1194,,"));
  EXPECT_FALSE(says_connected(">LOG:1,N,from the server: ,CONNECTED,SUCCESS,"));
  EXPECT_TRUE(says_reconnecting(">STATE:1795625173,RECONNECTING,tls-error,,,,,"));
  EXPECT_FALSE(says_reconnecting(">STATE:1795625173,WAIT,,,,,,"));
  EXPECT_EQ(remote_count("12"), 12);
  for (const char* line : {"", "0", "END", "1,CONNECTED", "-1", "99999999999"})
    EXPECT_FALSE(remote_count(line)) << line;
}

constexpr const char* UP = ">STATE:1,CONNECTED,SUCCESS,10.8.0.2,192.168.77.2,1194,,";
constexpr const char* AGAIN = ">STATE:1,RECONNECTING,tls-error,,,,,";
constexpr const char* STRANGER =
    ">LOG:1,N,VERIFY ERROR: depth=0, error=self-signed certificate: CN=x, serial=1";
constexpr const char* FORGED = ">LOG:1,N,tls-crypt unwrap error: packet authentication failed";
constexpr const char* SILENCE = ">LOG:1,N,[server] Inactivity timeout (--ping-restart), restarting";

// The codes noted in order, "-" for a tunnel that has come up.
class OpenVpnAttempts : public testing::Test {
 protected:
  std::string after(std::initializer_list<const char*> lines) {
    noted.clear();
    for (const char* line : lines) attempts.take(line, now);
    return noted;
  }
  std::string noted;
  Attempts::Time now{};
  Attempts attempts{[this](const std::optional<Sign>& sign) {
    noted += sign ? std::string(sign->code) + ' ' : std::string("- ");
  }};
};

TEST_F(OpenVpnAttempts, GiveUpOnceAFinalReasonHasBeenMetTwice) {
  EXPECT_EQ(after({"1", "END", STRANGER, STRANGER, AGAIN}), "server-cert-unknown ");
  EXPECT_FALSE(attempts.over()) << "a packet of somebody else may have done it";
  EXPECT_EQ(after({STRANGER, AGAIN}), "server-cert-unknown ");
  EXPECT_TRUE(attempts.over());
  EXPECT_TRUE(attempts.final());
}

TEST_F(OpenVpnAttempts, TryEachServerOfTheProfile) {
  EXPECT_EQ(after({"3", STRANGER, AGAIN, STRANGER, AGAIN, STRANGER, AGAIN, UP}),
            "server-cert-unknown server-cert-unknown server-cert-unknown - ");
  after({STRANGER, AGAIN, STRANGER, AGAIN, STRANGER, AGAIN, SILENCE, AGAIN, STRANGER, AGAIN});
  EXPECT_FALSE(attempts.over()) << "not one after the other";
}

TEST_F(OpenVpnAttempts, BlameAnExpiredCertificateForAHandshakeThatTheServerDoesNotFinish) {
  constexpr const char* EXPIRED = "1,W,WARNING: Your certificate has expired!";
  constexpr const char* ANSWER = ">STATE:1,AUTH,,,,,,";
  EXPECT_EQ(after({EXPIRED, ANSWER}), "");
  attempts.look(now + std::chrono::seconds(7));
  EXPECT_EQ(noted, "") << "a server that does not look at it lets the client in by then";
  attempts.look(now + std::chrono::seconds(9));
  EXPECT_EQ(noted, "own-cert-expired ");
  const char* failed = ">LOG:1,N,TLS Error: TLS key negotiation failed to occur within 60 seconds";
  EXPECT_EQ(after({AGAIN, failed}), "no-answer ") << "nothing came from the server";
  EXPECT_EQ(after({AGAIN, "1,AUTH,,,,,,", failed, AGAIN}), "own-cert-expired ");
}

TEST_F(OpenVpnAttempts, EndAtARefusedLoginAtOnce) {
  after({">PASSWORD:Verification Failed: 'Auth'"});
  EXPECT_TRUE(attempts.over());
}

TEST_F(OpenVpnAttempts, GiveNoReasonForATunnelThatStaysUp) {
  EXPECT_EQ(
      after({UP, FORGED, ">LOG:1,,read UDPv4 [EHOSTUNREACH]: No route to host (fd=5,code=113)"}),
      "- ");
  EXPECT_EQ(after({SILENCE, AGAIN}), "no-answer ");
  EXPECT_EQ(after({UP, AGAIN}), "- ");
  attempts.end();
  EXPECT_EQ(noted, "- daemon-ended ");
}

}  // namespace
}  // namespace fenro::openvpn
