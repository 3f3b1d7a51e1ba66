#include <filesystem>
#include <gmock/gmock.h>

#include "ormel/base/error.h"
#include "ormel/drivers/wireguard/conf_file.h"
#include "support/report_rules.h"
#include "support/scratch_file.h"

namespace ormel::test {
namespace {

using report::Fate;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

report::Report report_of(const std::string& text,
                         const ovpn::ReportTools& tools = tools_without({"route-up"})) {
  const support::ScratchFile file(text);
  ovpn::ClientConfig record(0);
  record.name = "office";
  record.file = file.path();
  report::Report found = ovpn::report_profile(record, tools);
  EXPECT_EQ(broken_rule(found, text), "") << text;
  return found;
}

const std::string HEAD = "client\nremote a.example 1194 udp\n<ca>\nABC\n</ca>\n";

TEST(OvpnReport, FindsTheFateOfEachKindOfLine) {
  const std::tuple<const char*, Fate, const char*> rows[] = {
      {"remote-cert-tls server", Fate::Kept, ""},
      {"  remote-cert-tls server\r", Fate::Kept, ""},
      {"remote-cert-tls   server", Fate::Changed, "only blanks"},
      {"dev tun", Fate::Changed, "becomes: dev tun2001"},
      {"proto udp", Fate::Changed, "becomes: remote a.example 1194 udp"},
      {"proto tcp", Fate::Dropped, "each server has its own"},
      {"auth sha1", Fate::Changed, "becomes: auth SHA1"},
      {"up /etc/evil.sh", Fate::Dropped, "never run"},
      {"route-up /etc/evil.sh", Fate::Dropped, "never run"},
      {"verb 9", Fate::Dropped, "how the daemon runs"},
      {"# a comment", Fate::Dropped, "a comment"},
      {"", Fate::Dropped, "empty"},
      {"auth-user-pass", Fate::Kept, ""},
      {"auth-user-pass creds.txt", Fate::Needs, "not read"},
      {"tls-auth ta.key 1", Fate::Needs, "ta.key"},
      {"tls-crypt-v2 'a b.key'", Fate::Needs, "a b.key"},
  };
  for (const auto& [line, fate, why] : rows) {
    const report::Report found = report_of(HEAD + line + '\n');
    EXPECT_EQ(found.lines.back().fate, fate) << line << ": " << found.lines.back().why;
    EXPECT_THAT(found.lines.back().why, HasSubstr(why)) << line;
  }
}

TEST(OvpnReport, ShowsNoSecretAndNamesWhatIsMissing) {
  const std::string key = "<key>\nSECRETSECRETSECRET\n</key>\nauth-token SECRETSECRETSECRET\n";
  const report::Report found = report_of(HEAD + key + "cert me.crt\nauth-user-pass\n");
  for (const report::Line& line : found.lines)
    EXPECT_THAT(line.text, testing::Not(HasSubstr("SECRETSECRET")));
  EXPECT_THAT(found.needs, ElementsAre("cert", "user", "pass"));
  EXPECT_FALSE(found.daemon.asked) << "there is no certificate to judge it with";
  EXPECT_THAT(found.added, Contains("float"));
}

TEST(OvpnReport, TellsOfAProfileThatCannotBeImportedOrWouldNotStart) {
  const report::Report server = report_of("mode server\ndev tun\n");
  EXPECT_EQ(server.error, ERR_OPENVPN_CLIENT);
  EXPECT_THAT(server.reason, HasSubstr("client/tls-client"));
  const report::Report tap = report_of(HEAD + "dev tap0\n");
  EXPECT_EQ(tap.lines.back().fate, Fate::Refused) << tap.reason;
  const report::Report without_ca = report_of("client\nremote a.example 1194 udp\n");
  EXPECT_EQ(without_ca.lines.back().fate, Fate::Dropped) << "an import loses its servers";

  ovpn::ReportTools tools = tools_without({});
  tools.copy = [](const std::string& stored, int) {
    const std::vector<std::string> lines = split_lines(stored);
    const auto at = std::find(lines.begin(), lines.end(), "config other");
    return ovpn::DaemonCopy{false, {}, static_cast<size_t>(at - lines.begin()) + 1, "must not run"};
  };
  const report::Report harmful = report_of(HEAD + "config other\n", tools);
  EXPECT_EQ(harmful.lines.back().fate, Fate::Refused);
  EXPECT_THAT(harmful.lines.back().why, HasSubstr("would not start"));
  EXPECT_NE(harmful.error, 0);

  tools = tools_without({});
  tools.judge = [](const std::string&, const std::string&) {
    return report::Verdict{true, false, 0, "fancy", "Options error: Unrecognized option: fancy"};
  };
  const report::Report unknown = report_of(HEAD + "fancy yes\n", tools);
  EXPECT_EQ(unknown.lines.back().fate, Fate::Refused);
  EXPECT_NE(unknown.error, 0);
}

TEST(OvpnReport, HoldsItsRulesForProfilesOfAnyShape) {
  const std::string shapes[] = {
      "",
      "\n\n",
      "client",
      "\xEF\xBB\xBF" + HEAD,
      std::string("client\r\nremote a 1\r\n") +
          "<ca>\r\nABC\r\n</ca>\r\n<tls-auth>\r\nX\r\n</tls-auth>\r\nkey-direction 1\r\n",
      "client\n<connection>\nremote a 1 udp\nmssfix 1\n</connection>\n<connection>\nremote "
      "b\n</connection>\n" +
          HEAD,
      HEAD + "<ca>\nDEF\n</ca>\ncipher a\ncipher b\nroute 1 2\nroute 1 2\n",
      HEAD + "<key>\nnever closed\n",
      HEAD + "--verb 3\n--nobind\nsetenv opt x y\nsetenv UV_A b # c\n\"quoted\" 'a\n",
      HEAD + "<ca>one line</ca>\n</ca>\n<>\n< ca >\n[inline]\nca [inline]\n",
  };
  for (const std::string& shape : shapes)
    for (const char* extra :
         {"", "dev tun\n", "auth-user-pass\n", "<auth-user-pass>\nu\np\n</auth-user-pass>\n"})
      std::ignore = report_of(shape + extra);
  size_t files = 0;
  for (const auto& file : std::filesystem::directory_iterator(ORMEL_FUZZ_CORPUS "/import")) {
    std::ignore = report_of(support::read(file.path()));
    ++files;
  }
  EXPECT_GT(files, 5U);
}

TEST(WireGuardReport, FindsTheFateOfEachLine) {
  const std::string key = "Key = MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM=\n";
  const std::string text =
      "[Interface]\nPrivate" + key + "Address = fd00::2/64, 10.0.0.2, 10.0.0.3/32\n" +
      "PostUp = evil\nMTU = 1400\n\n[Peer]\nPublic" + key +
      "Endpoint = vpn.example.org:51820\nAllowedIPs = 0.0.0.0/0\n[Peer]\nPublic" + key;
  const report::Report found = wireguard::report_conf_file(text);
  EXPECT_EQ(found.error, 0) << found.reason;
  std::vector<Fate> fates;
  for (const report::Line& line : found.lines) fates.push_back(line.fate);
  EXPECT_THAT(fates, ElementsAre(Fate::Kept, Fate::Kept, Fate::Changed, Fate::Dropped,
                                 Fate::Dropped, Fate::Dropped, Fate::Kept, Fate::Kept, Fate::Kept,
                                 Fate::Kept, Fate::Dropped, Fate::Dropped));
  EXPECT_EQ(found.count(Fate::Dropped), 4U) << "but for the blank line";
  EXPECT_EQ(found.lines[1].text, "PrivateKey = …");
  EXPECT_EQ(found.lines[2].why, "becomes: 10.0.0.2");
  EXPECT_EQ(wireguard::report_conf_file("[Interface]\nPrivateKey = x\n[Peer]\n").error,
            ERR_MISS_OPTION);
  EXPECT_FALSE(wireguard::is_conf_file("client\nremote a\n"));
}

}  // namespace
}  // namespace ormel::test
