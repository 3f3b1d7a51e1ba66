#include <gtest/gtest.h>

#include "ormel/base/error.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "support/scratch_file.h"

namespace ormel::ovpn {
namespace {

using option::ConfigFile;
using support::ScratchFile;

const std::string ALL_CIPHERS =
    "AES-256-GCM:AES-128-GCM:AES-128-CBC:AES-192-CBC:AES-256-CBC:AES-192-GCM"
    ":CAMELLIA-128-CBC:CAMELLIA-256-CBC";

ConfigFile parse(const std::string& text) {
  ConfigFile cf;
  cf.parse_content(text.c_str());
  return cf;
}

std::string value_of(const ConfigFile& cf, const char* name) {
  const option::FileOption* found = cf.get_option(name);
  return found ? found->value : "(none)";
}

std::string rewrite(ClientConfig& record, const std::string& text) {
  ConfigFile cf = parse(text);
  record.remotes = cf.get_all_remotes();
  ClientConfig::remove_incompatible(cf);
  record.apply_base_option(cf);
  record.override_compatible(cf);
  const ScratchFile file;
  EXPECT_EQ(cf.save(file.path().c_str(), true, record.remotes), NO_ERROR);
  return file.content();
}

TEST(OvpnRewrite, ListsTheCiphersThatFit) {
  const std::string long_name(101, 'n');
  const std::pair<std::string, std::string> rows[] = {
      // Eight names of 105 bytes: the ninth would pass the limit.
      {"client", ALL_CIPHERS},
      {"cipher aes-192-gcm",
       "AES-192-GCM:AES-256-GCM:AES-128-GCM:AES-128-CBC:AES-192-CBC:AES-256-CBC"
       ":CAMELLIA-128-CBC:CAMELLIA-256-CBC"},
      {"cipher q:w::z\ndata-ciphers XAES-128-CBCX:b",
       "XAES-128-CBCX:b:Q:W:Z:AES-256-GCM:AES-128-GCM:AES-192-CBC:AES-256-CBC:AES-192-GCM"
       ":CAMELLIA-128-CBC"},
      // 101 bytes and 11 more: the separator makes it 113.
      {"data-ciphers " + long_name, long_name + ":AES-256-GCM"},
  };
  for (const auto& [profile, ciphers] : rows) {
    ConfigFile cf = parse(profile);
    ClientConfig record(3);
    ClientConfig::remove_incompatible(cf);
    record.override_compatible(cf);
    EXPECT_EQ(value_of(cf, "data-ciphers"), ciphers) << profile;
  }
}

TEST(OvpnRewrite, ReplacesWhatDecidesHowTheDaemonRuns) {
  ClientConfig record(3);
  record.imported = true;
  const std::string text = rewrite(
      record,
      "client\nuser nobody\nredirect-gateway def1\nup /tmp/evil\nlog /etc/passwd\n"
      "script-security 2\ndev tun7\nauth sha256\nremote a 1194 udp\nport 7\nroute 10.0.0.0\n"
      "plugin /usr/lib/vpn_ext.so 7\nplugin other.so\nmanagement 0.0.0.0 1\n<ca>\nA\n</ca>");
  EXPECT_EQ(
      text,
      "auth SHA256\nauth-user-pass\nclient\nconnect-retry-max 1\nconnect-timeout 10\n"
      "daemon openvpn-client\ndata-ciphers " +
          ALL_CIPHERS +
          "\ndev tun2003\ndown /etc/openvpn/openvpn_down\nfloat\nlog /dev/null\n"
          "management /tmp/openvpn.client3.sock unix\nmanagement-query-passwords\nnobind\n"
          "plugin other.so\nplugin /usr/lib/vpn_ext.so 3\nreneg-sec 0\nresolv-retry infinite\n"
          "route 10.0.0.0\nscript-security 3\ntls-exit\nup /etc/openvpn/openvpn_up\n"
          "writepid /var/run/openvpn.client3.pid\n\n<connection>\nremote a 1194 udp\n"
          "explicit-exit-notify 1\n</connection>\n\n<ca>\nA\n</ca>\n\n");
}

TEST(OvpnRewrite, ChangesNothingOfItsOwnOutput) {
  for (const bool imported : {false, true}) {
    ClientConfig record(1);
    record.imported = imported;
    record.auth_pass = imported;
    const std::string once =
        rewrite(record,
                "client\ncipher bf-cbc\nroute 2\nroute 1\nplugin b\nplugin a\n<cert>C</cert>\n"
                "<connection>\nremote a 1 udp\nport 2\nexplicit-exit-notify 3\n</connection>\n"
                "remote b 443 tcp\n<auth-user-pass>u p</auth-user-pass>\n<ca>A</ca>");
    EXPECT_EQ(rewrite(record, once), once);
    EXPECT_NE(once.find("remote a 1 udp\nexplicit-exit-notify 3\n</connection>"),
              std::string::npos);
    EXPECT_EQ(once.find("u p"), std::string::npos);
  }
}

TEST(OvpnRewrite, GivesOwnProfilesTheCiphersOfTheirLevel) {
  ConfigFile cf = parse("tls-cipher X");
  ClientConfig record(1);
  const std::tuple<ENCRYPTION, const char*, std::string> rows[] = {
      {HIGH_ENCRYPTION, "AES-256-CBC", tls_ciphers()},
      {MEDIUM_ENCRYPTION, "AES-128-CBC", tls_ciphers()},
      {NONE_ENCRYPTION, "none", "(none)"}};
  for (const auto& [level, cipher, tls_cipher] : rows) {
    record.encryption = level;
    record.apply_base_option(cf);
    EXPECT_EQ(value_of(cf, "cipher"), cipher);
    EXPECT_EQ(value_of(cf, "tls-cipher"), tls_cipher);
  }
}

struct Outcome {
  int code;
  std::string errors;  // on standard error
};

// Imports a profile of these lines, with an inline certificate, into a slot that no profile has.
Outcome import(ClientConfig& record, const std::string& lines) {
  const ScratchFile profile(lines + "\n<ca>\nA\n</ca>\n");
  record.file = profile.path();
  record.name = "office";
  testing::internal::CaptureStderr();
  const int code = record.import(0);
  unlink(record.profile_path().c_str());
  return {code, testing::internal::GetCapturedStderr()};
}

TEST(OvpnImport, SettlesPortAndProtocolOfEveryServer) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"remote a", "1194", "udp"},
      {"remote a 443 tcp-client", "443", "tcp-client"},
      {"remote a 1194\nproto tcp4", "1194", "tcp"},
      {"remote a\nport 1\nrport 2\nproto udp6", "1", "udp"},
      {"remote a\nrport 2", "2", "udp"},
      {"remote a 5 foo\nproto tcp6", "5", "tcp"},
      {"proto tcp\nport 9\n<connection>\nremote a\nrport 3\nproto udp4\n</connection>", "3", "udp"},
      {"port 9\n<connection>\nremote a\nport 2\nrport 3\n</connection>", "2", "udp"},
  };
  for (const auto& [lines, port, protocol] : rows) {
    SCOPED_TRACE(lines);
    ClientConfig record(0);
    import(record, std::string("client\n") + lines);
    ASSERT_EQ(record.remotes.size(), 1U);
    EXPECT_EQ(record.remotes[0].remote_port, port);
    EXPECT_EQ(record.remotes[0].remote_proto, protocol);
    EXPECT_EQ(std::to_string(record.port), port);
    EXPECT_EQ(record.host, "a");
  }
}

TEST(OvpnImport, RefusesWhatCannotRunHere) {
  const std::tuple<const char*, int, const char*> rows[] = {
      // lines, code, message where it is not that of the code
      {"dev tun\nremote a", 23, "no client/tls-client option in .ovpn file."},
      {"client\n<ca>\nremote a", 23, "no client/tls-client option in .ovpn file."},
      {"client x\nremote a", 23, "client/tls-client option error in .ovpn file."},
      {"client\ntls-client x\nremote a", 23, "client/tls-client option error in .ovpn file."},
      {"client\ndev tap0\nremote a", 23, "dev option error in .ovpn file."},
      {"client\ndev tun0x\nremote a", 23, "dev option error in .ovpn file."},
      {"client\ndev\nremote a", 23, "dev option error in .ovpn file."},
      {"client\ndev tun7", 23, "remote option error in .ovpn file."},
      {"client\nremote a\nproto", 23, "proto option error in .ovpn file."},
      {"client\n<connection>\nremote a\nproto\n</connection>", 23,
       "proto option error in .ovpn file."},
      {"client\nremote a\n<crl-verify>\n</crl-verify>", 23,
       "crl-verify option error in .ovpn file."},
      {"tls-client\nremote a 0", 18, nullptr},
      {"client\nremote a abc", 18, nullptr},
      {"client\nremote a 65536", 18, nullptr},
      {"client\nremote a 1 tcpx", 19, nullptr},
      {"client\nremote", 11, nullptr},
  };
  for (const auto& [lines, code, message] : rows) {
    SCOPED_TRACE(lines);
    ClientConfig record(0);
    const Outcome outcome = import(record, lines);
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.errors,
              std::string("Error: ") +
                  (message ? message : get_error_message(static_cast<unsigned>(code))) + "\n");
  }
}

TEST(OvpnImport, TakesTheLoginOutOfTheProfile) {
  ClientConfig record(0);
  import(record, "client\nremote a\n<auth-user-pass>\nu p\n</auth-user-pass>");
  EXPECT_TRUE(record.auth_pass);
  EXPECT_EQ(record.user, "u");
  EXPECT_EQ(record.pass, "p");
  import(record, "client\nremote a");
  EXPECT_FALSE(record.auth_pass);
}

TEST(OvpnImport, RefusesAKeyFileWithItsOwnCodeAndItsPath) {
  const std::tuple<std::string ClientConfig::*, const char*, int> rows[] = {
      {&ClientConfig::ca, nullptr, 24},
      {&ClientConfig::ca, "no certificate", 24},
      {&ClientConfig::dh, nullptr, 25},
      {&ClientConfig::key, "K\n</key>\nup /bin/sh\n<key>", 25},
      {&ClientConfig::cert, nullptr, 26},
      {&ClientConfig::pkcs12, nullptr, 26},
      {&ClientConfig::extra_certs, nullptr, 26},
      {&ClientConfig::tls_auth, nullptr, 27},
      {&ClientConfig::secret, nullptr, 28},
      {&ClientConfig::crl_verify, nullptr, 29},
      {&ClientConfig::crl_verify, "no list", 29},
  };
  for (const auto& [field, content, code] : rows) {
    const ScratchFile key(content ? content : "");
    if (!content) unlink(key.path().c_str());
    ClientConfig record(0);
    record.*field = key.path();
    const Outcome outcome = import(record, "client\nremote a");
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.errors, "Error: " + key.path() + "\n");
  }
}

TEST(OvpnHook, EscapesQuotesAndBackslashes) {
  EXPECT_EQ(escap(R"(a"b\c)"), R"(a\"b\\c)");
}

TEST(OvpnServer, ReadsThePeersOfTheDaemon) {
  const Status peers = read_peer_status(
      "1.2.3.4:5 10.8.0.2 18446744073709551615 7\n9.9.9.9:1\n1.2.3.4:5 10.8.0.3 1 2\n");
  ASSERT_EQ(peers.size(), 2U);
  EXPECT_EQ(peers.at("1.2.3.4:5").peer_ipv4, "10.8.0.3");
  EXPECT_EQ(peers.at("1.2.3.4:5").rx, 1U);
  EXPECT_EQ(peers.at("1.2.3.4:5").tx, 2U);
  EXPECT_EQ(peers.at("9.9.9.9:1").peer_ipv4, "");
}

}  // namespace
}  // namespace ormel::ovpn
