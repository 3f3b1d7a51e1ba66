// The audit trail of a host: who has changed what by which program, without a secret, and what is
// said when it cannot be written or has been tampered with.
// appliance: --web

#include <jansson.h>

#include "ormel/base/handle.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* FOLDER = "/var/lib/ormel/audit";
constexpr const char* FIRST_FILE = "/var/lib/ormel/audit/000000000001.jsonl";

Result ctl(std::vector<std::string> words, const std::string& input = {}) {
  words.insert(words.begin(), "/usr/sbin/ormelctl");
  return run(words, {"PATH=/usr/sbin:/usr/bin", "SSH_CONNECTION=192.0.2.9 1 192.0.2.1 22"}, input);
}

class AuditTrail : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    support::make_empty_folder(FOLDER);
  }
  void TearDown() override { support::make_empty_folder(FOLDER); }

  // "user|via|ip|action|subject|error" of all rows, the oldest first.
  static std::vector<std::string> rows() {
    const Result result = ctl({"audit", "--limit", "1000", "--json"});
    const ormel::Json answer{json_loads(result.out.c_str(), 0, nullptr)};
    std::vector<std::string> all;
    size_t at = 0;
    const json_t* row = nullptr;
    json_array_foreach(json_object_get(answer.get(), "data"), at, row) {
      std::string text;
      for (const char* name : {"user", "via", "ip", "action", "subject"})
        text += std::string(json_string_value(json_object_get(row, name))) + '|';
      all.push_back(text + std::to_string(json_integer_value(json_object_get(row, "error"))));
    }
    return all;
  }
};

TEST_F(AuditTrail, HasOneRowForEachChangeByWhicheverProgram) {
  ASSERT_EQ(https("/ormel/gateway/set?" + admin + "&as_gw_en=0").status, 0);
  EXPECT_THAT(ctl({"audit", "-n", "1"}).out, HasSubstr("gateway/set"));
  cgi("/ormel/privilege/set", admin + "&user=guest%7C4");
  cgi("/ormel/privilege/set", guest + "&user=guest%7C4", {"REMOTE_ADDR=192.0.2.7"});
  cgi("/ormel/config/show", admin + "&type=256");
  cgi("/ormel/backup/download", admin + "&passphrase=of-all-secrets");
  cli({"-TPPTP", "-M1", "--host=127.0.0.2"});
  cli({"-TPPTP", "-S1"});
  ctl({"user", "revoke", "guest", "--yes"});
  ctl({"profile", "set", "office1", "--host", "127.0.0.3", "--yes"});
  ctl({"profile", "rm", "nowhere", "--yes"});
  ctl({"profile", "rm", "office1"});
  ctl({"profile", "list"});

  EXPECT_THAT(rows(),
              ElementsAre(ContainsRegex("^admin\\|web\\|[0-9.:]*\\|gateway/set\\|\\|0$"),
                          StartsWith("admin|web|"), "guest|web|192.0.2.7|privilege/set|guest|39",
                          ContainsRegex("^admin\\|web\\|[0-9.:]*\\|backup/download\\|\\|0$"),
                          "root|ormel||--modify|pptp/1 (office1)|0",
                          "root|ormelctl ssh|192.0.2.9|user revoke|guest|0",
                          "root|ormelctl ssh|192.0.2.9|profile set|office1|0",
                          ContainsRegex("profile rm\\|nowhere\\|[1-9]")));
  const std::string shown = ctl({"audit"}).out;
  EXPECT_THAT(shown, HasSubstr("rights/guest: none → openvpn"));
  EXPECT_THAT(shown, HasSubstr("PPTP_CLIENT1/Server Address: 127.0.0.1 → 127.0.0.2"));
  EXPECT_THAT(shown, Not(HasSubstr("DROVIK"))) << "defaults that the first save writes";
  EXPECT_THAT(ctl({"audit", "verify"}).out, StartsWith("8 entries, unbroken since "));
  EXPECT_EQ(mode_of(FIRST_FILE), 0600U);
}

TEST_F(AuditTrail, HoldsNoSecret) {
  const std::string form = admin + "&type=256&index=1&host=127.0.0.9&pass=sesame1";
  cgi("/ormel/config/modify", form);
  cgi("/ormel/config/add",
      admin + "&type=512&name=sec&host=127.0.0.9&user=u&pass=sesame2&psk=sesame3");
  ctl({"profile", "set", "office1", "--pass-file", "-", "--yes"}, "sesame4\n");
  ctl({"notify", "add", "ops", "--url", "https://h/sesame5", "--secret-file", "-"}, "sesame6\n");
  cgi("/ormel/peer/add", admin + "&peer_name=p&peer_pub_key=sesame7&peer_allow_ip=1&psk=sesame8");
  cli({"-TL2TP", "-A", "--name=y", "--host=127.0.0.8", "--user=u", "--pass=sesame9",
       "--psk=sesame10"});
  ctl({"confirm", "sesameco"});
  EXPECT_EQ(rows().size(), 7U) << testing::PrintToString(rows());
  const std::string trail = read(FIRST_FILE);
  EXPECT_THAT(trail, HasSubstr(R"("field":"PPTP_CLIENT1/AccessCode","from":"","to":"changed")"));
  for (const std::string& secret :
       {std::string("sesame"), std::string("c2VzYW1l"), admin.substr(4)})
    EXPECT_THAT(trail, Not(HasSubstr(secret)));
  ctl({"notify", "rm", "ops", "--yes"});
}

TEST_F(AuditTrail, NamesTheEntryThatHasBeenAltered) {
  for (int i = 0; i < 3; ++i) cgi("/ormel/gateway/set", admin + "&as_gw_en=0");
  std::string text = read(FIRST_FILE);
  text[text.find('\n') + 150] ^= 1;
  write(FIRST_FILE, text);
  const Result result = ctl({"audit", "verify"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, StartsWith("ormelctl: entry 2 "));
  EXPECT_THAT(result.err, HasSubstr("1 entry before it"));
}

TEST_F(AuditTrail, RefusesNoChangeWhenItCannotBeWritten) {
  fs::remove(FOLDER);
  write(FOLDER, "in the way");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(cgi("/ormel/gateway/set", admin + "&as_gw_en=0").status, 0);
  EXPECT_THAT(read(LOG), HasSubstr("cannot be recorded in the audit trail"));
  const std::string events = ctl({"log", "events"}).out;
  const std::string said = "Changes cannot be recorded in the audit trail";
  EXPECT_NE(events.find(said), std::string::npos) << events;
  EXPECT_EQ(events.find(said), events.rfind(said)) << "an outage is one event";
  support::make_empty_folder(FOLDER);
  EXPECT_EQ(cgi("/ormel/gateway/set", admin + "&as_gw_en=0").status, 0);
  EXPECT_THAT(ctl({"audit", "verify"}).out,
              HasSubstr("3 changes before entry 1 could not be recorded"));
}

TEST_F(AuditTrail, CostsOneLookWithoutItsFolderAsSnapshotsDo) {
  fs::rename("/var/lib/ormel", "/var/lib/ormel.away");
  run({"/usr/bin/strace", "-f", "-qq", "-o", "/tmp/trace", CGI},
      {"SCRIPT_URL=/ormel/gateway/set", "QUERY_STRING=" + admin + "&as_gw_en=0",
       "ASAN_OPTIONS=detect_leaks=0"});
  fs::rename("/var/lib/ormel.away", "/var/lib/ormel");
  EXPECT_EQ(shell("grep -o '/var/lib/ormel[^\"]*' /tmp/trace | sort").out,
            std::string(FOLDER) + "\n/var/lib/ormel/snapshots\n");
}

TEST_F(AuditTrail, RecordsARequestThatIsKilled) {
  write("/etc/init.d/vpn_pptp_client.sh", "#!/bin/sh\nsleep 3\n", 0755);
  EXPECT_EQ(run({"/usr/bin/timeout", "-s", "KILL", "1", CGI},
                {"SCRIPT_URL=/ormel/config/connect", "QUERY_STRING=" + admin + "&type=256&index=1"})
                .status,
            -SIGKILL);
  EXPECT_TRUE(comes_true([] { return rows().size() == 1; }));
  EXPECT_THAT(rows(), ElementsAre(EndsWith("|config/connect|pptp/1 (office1)|-1")));
}

}  // namespace
