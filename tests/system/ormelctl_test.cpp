// The friendly command line: what it says in each state, and that it loses nothing.
// appliance: --web

#include "support/ormelctl.h"

#include <chrono>
#include <set>
#include <sstream>

using namespace ormel::test;

namespace {

std::string text_at(const Result& result, size_t row, const char* key) {
  const ormel::Json answer = parsed(result.out);
  const json_t* data = json_object_get(answer.get(), "data");
  const json_t* found = json_is_array(data) ? json_array_get(data, row) : data;
  const char* text = json_string_value(json_object_get(found, key));
  return text ? text : "";
}

std::vector<std::string> reading_commands() {
  std::vector<std::string> all;
  std::istringstream lines(ctl("__commands --reading").out);
  for (std::string line; std::getline(lines, line);) all.push_back(line);
  return all;
}

class OrmelCtl : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove(VPN_CONF);
    ASSERT_EQ(run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"}).status, 0);
  }
  void TearDown() override {
    for (const char* line : {"peer rm 1 --yes", "server off wireguard --yes",
                             "server off drovik --yes", "server off openvpn --yes"})
      ctl(line);
    fs::remove(VPN_CONF);
  }
  // A WireGuard server at 198.18.7.1.
  static Result start_hub() {
    done("server set wireguard --name hub --address 198.18.7.1 --port 51820 --yes");
    return done("server on wireguard --json");
  }
  // Each prints one document with its schema, whatever it says.
  static void expect_documents(const char* state) {
    const auto commands = reading_commands();
    EXPECT_GT(commands.size(), 10U);
    // As a loop of the shell has them, a word at a time.
    std::set<std::string> lines;
    for (const std::string& line : commands) lines.insert({line, line.substr(0, line.find(' '))});
    for (const std::string& line : lines) {
      const Result result = ctl(line + " --json");
      const ormel::Json answer = parsed(result.out);
      EXPECT_EQ(json_integer_value(json_object_get(answer.get(), "schema")), 1)
          << state << ": " << line << result.out << result.err;
      EXPECT_EQ(json_integer_value(json_object_get(answer.get(), "error")) == 0, result.status == 0)
          << result.out;
    }
  }
};

TEST_F(OrmelCtl, SaysWhatIsWrongAndWhatToDo) {
  EXPECT_THAT(ctl("guard on").err,
              HasSubstr("ormelctl gateway set PROFILE, or ormelctl guard strict"));
  ASSERT_EQ(ctl("profile add pptp --name office --host 192.0.2.1").status, 0);
  ASSERT_EQ(ctl("notify add ops --url https://hooks.example.org/ --events failed").status, 0);
  const std::tuple<const char*, int, const char*> cases[] = {
      {"", 2, "profile list"},
      {"statsu", 2, "did you mean \"status\"?"},
      {"profile lst", 2, "did you mean \"profile list\"?"},
      {"profile add", 2, "missing: PROTOCOL"},
      {"profile add ptp --name a", 2, "one of pptp, l2tp, openvpn, drovik, wireguard"},
      {"profile add pptp --name a", 2, "--host is missing"},
      {"profile add l2tp --name a --host 192.0.2.1", 2, "--psk-file is missing"},
      {"profile add pptp --name a --pass x", 2, "unknown option --pass"},
      {"profile add pptp --name a --host 192.0.2.1 --port 1", 1, "only"},
      {"profile add pptp --name a --host 192.0.2.1 --endpoint b:1", 2, "--endpoint is not for"},
      {"profile add pptp --name a --host a;b", 2, "--host does not take a;b"},
      {"server set openvpn --port 99999 --yes", 1, "--port does not take 99999: port range"},
      {"server set openvpn --pool zzz --yes", 2, "--pool takes an IPv4 address"},
      {"server set wireguard --mask 99 --yes", 2, "--mask takes 0 to 32"},
      {"peer add a --endpoint 192.0.2.1:99999", 2, "the port being 1 to 65535"},
      {"user policy --limit 5x", 2, "limit has a wrong value"},
      {"user policy --time 4294967326", 2, "time has a wrong value"},
      {"user grant guest openvpn --devices 2x", 2, "--devices takes 0 to 100"},
      {"undo 99999999999 --yes", 2, "is not the number of a change"},
      {"peer", 2, "one of: peer list, peer add, peer qr, peer limit, peer rm"},
      {"peer limit phone", 2, "one of --until, --off and --on is needed"},
      {"peer limit phone --off --on", 2, "one of --until, --off and --on is needed"},
      {"peer limit phone --until 2099-02-30", 2, "--until takes a day such as"},
      {"peer limit phone --until 2001-01-01", 2, "--until 2001-01-01 is over"},
      {"peer limit phone --off", 3, "no device is named phone"},
      {"address set vpn.example.org:1194", 2, "is not a host name or an address"},
      {"profile export --host a;b", 2, "--host is a name or an address"},
      {"--json", 2, "\"reason\":\"the command is missing\""},
      {"profile rm none --yes", 3, "no profile is named none"},
      {"profile rm none", 2, "--yes is missing"},
      {"profile import /nowhere.ovpn", 3, "cannot be read"},
      {"server on drovik", 2, "--psk-file -"},
      {"user grant absent pptp", 3, "no user is named absent"},
      {"user grant guest wireguard", 2, "has no rights of users"},
      {"user unlock guest", 3, "guest is not blocked"},
      {"kick guest --yes", 3, "guest is not connected"},
      {"log events --since yesterday", 2, "30m, 1h or 2d"},
      {"log events --limit 5x", 2, "--limit takes 1 to 10000"},
      {"notify rm absent --yes", 3, "no target is named absent"},
      {"status openvpn --check running", 6, "openvpn is off, not running"},
      {"status -o xml", 2, "table, json or tsv"},
      {"profile show ofice", 3, "did you mean \"office\"?"},
      {"status opnvpn", 3, "did you mean \"openvpn\"?"},
      {"server on wiregard", 2, "did you mean \"wireguard\"? one of pptp"},
      {"user grant gest pptp", 3, "did you mean \"guest\"?"},
      {"notify test osp", 3, "did you mean \"ops\"?"},
      {"notify add a --url https://hooks.example.org/ --events faild", 2, "ormelctl notify kinds"},
      {"profile set office --hots b --yes", 2, "did you mean --host?"},
      {"profiel", 2, "one of: profile list, profile show"},
      {"guard on", 1, "  ormelctl gateway set pptp/1, or ormelctl guard strict\n"},
  };
  for (const auto& [line, status, said] : cases) {
    const Result result = ended(status, line);
    EXPECT_THAT(result.out + result.err, HasSubstr(said)) << line;
    if (line == std::string_view() || line == std::string_view("--json")) continue;
    EXPECT_THAT(result.err, ContainsRegex("^ormelctl: [^\n]+\n  [^ \n][^\n]+\n$"))
        << "each failure says what to do: " << line;
  }
  EXPECT_THAT(ctl("profile show nothing-like-it").err, Not(HasSubstr("did you mean")));
  EXPECT_EQ(ctl("notify rm ops --yes").status, 0);
}

TEST_F(OrmelCtl, EndsInTimeAndLeavesNothingBehind) {
  run({"/usr/bin/pkill", "-STOP", "-f", "/usr/lib/fenro/ormeld"});
  const auto began = std::chrono::steady_clock::now();
  const Result late = ctl("log servers --timeout 1 --json");
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
  run({"/usr/bin/pkill", "-CONT", "-f", "/usr/lib/fenro/ormeld"});
  EXPECT_EQ(late.status, 5);
  EXPECT_EQ(json_integer_value(json_object_get(parsed(late.out).get(), "schema")), 1) << late.out;
  EXPECT_THAT(late.out, AllOf(HasSubstr("not done after 1 s"), HasSubstr("\"advice\":")));
  EXPECT_EQ(ctl("log servers --timeout=1m --json").status, 0);
  EXPECT_EQ(ctl("--timeout soon status").status, 2);

  // An archive that never comes: what was unpacked so far goes with the program.
  run({"/usr/bin/mkfifo", "/tmp/slow.zip"});
  EXPECT_EQ(ctl("profile import /tmp/slow.zip --report --timeout 1").status, 5);
  EXPECT_TRUE(comes_true([] { return shell("ls -d /run/ormelctl.* 2>/dev/null").out.empty(); }));
  fs::remove("/tmp/slow.zip");
}

TEST_F(OrmelCtl, ShowsColorsToATerminalOnly) {
  const auto on_terminal = [](const std::string& command) {
    return run({"/usr/bin/script", "-qec", command, "/dev/null"},
               {"PATH=/usr/sbin:/usr/bin:/bin", "TERM=xterm"})
        .out;
  };
  EXPECT_THAT(on_terminal("ormelctl status"), HasSubstr("\x1b[32mrunning"));
  for (const char* plain :
       {"ormelctl --no-color status", "NO_COLOR=1 ormelctl status", "ormelctl status | cat"})
    EXPECT_THAT(on_terminal(plain), AllOf(HasSubstr("running"), Not(HasSubstr("\x1b["))));
}

TEST_F(OrmelCtl, KeepsProfilesOfEveryName) {
  const std::string name = "a b\x1b[31m\"\xe2\x80\xae";  // a colour, and text that runs backwards
  auto words = words_of("profile add pptp --host 192.0.2.1 --user bob --pass-file - --name");
  words.push_back(name);
  ASSERT_EQ(ctl(words, "secret\n").status, 0);
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Name"), "bob");
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "AccessCode"), "c2VjcmV0");
  EXPECT_EQ(text_at(ctl({"profile", "show", name, "--json"}), 0, "name"), name);
  EXPECT_THAT(ctl("profile list").out, HasSubstr("a b\\x1b[31m\"\\xe2\\x80\\xae"));
  EXPECT_EQ(ctl("profile set pptp/1 --host 192.0.2.2 --yes").status, 0);
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Server Address"), "192.0.2.2");
  ASSERT_EQ(ctl(words, "secret\n").status, 0);
  const Result twice = ctl({"profile", "rm", name, "--yes"});
  EXPECT_EQ(twice.status, 2);
  EXPECT_THAT(twice.err, HasSubstr("pptp/1, pptp/2"));
  EXPECT_EQ(ctl("profile rm pptp/1 --yes").status, 0);
  EXPECT_EQ(text_at(ctl("profile list --json"), 0, "target"), "pptp/2");
}

TEST_F(OrmelCtl, ReportsOnProfilesAndTheirFilesBeforeItStoresThem) {
  const std::string folder = "/tmp/profiles";
  fs::create_directories(folder);
  run({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
       "-nodes", "-days", "9", "-subj", "/CN=Test", "-keyout", "/tmp/key", "-out",
       folder + "/ca.crt"});
  run({"/usr/sbin/openvpn", "--genkey", "secret", folder + "/ta.key"});
  const std::string profile =
      "client\nremote vpn.example.org 1194\nup /etc/evil.sh\nca ca.crt\ntls-auth ta.key 1\n"
      "auth-user-pass creds.txt\nremote-cert-tls server\n";
  write(folder + "/good.ovpn", profile);
  write(folder + "/bad.ovpn", profile + "fancy-new-option yes\n");
  write(folder + "/home.conf",
        "[Interface]\nPrivateKey = MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM=\nPostUp = x\n"
        "Address = 10.7.0.2/32\n[Peer]\nEndpoint = 192.0.2.1:51820\n"
        "PublicKey = MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM=\nAllowedIPs = 0.0.0.0/0\n");
  EXPECT_THAT(ended(1, "profile import " + folder + "/good.ovpn --report").out,
              HasSubstr("the file ta.key, which did not come with the profile"));
  run({"/bin/tar", "czf", "/tmp/all.tgz", "-C", folder, "."});
  EXPECT_THAT(ended(1, "profile import /tmp/all.tgz --report --json").out,
              HasSubstr("no option of the daemon: fancy-new-option"));
  EXPECT_EQ(ctl("profile import /tmp/all.tgz").status, 2) << "--yes is missing";
  EXPECT_EQ(text_at(ctl("profile list --json"), 0, "target"), "") << "nothing is stored";

  EXPECT_THAT(ended(1, "profile import /tmp/all.tgz --user bob --yes").out,
              AllOf(HasSubstr("3 files: 2 stored, 1 refused"), HasSubstr(" days left")));
  EXPECT_THAT(ctl("profile list").out,
              AllOf(HasSubstr("good"), HasSubstr("home"), Not(HasSubstr("bad"))));
  EXPECT_THAT(read("/etc/config/openvpn/clients/client1"), HasSubstr("\n<tls-auth>\n"));
  fs::remove_all(folder);
}

TEST_F(OrmelCtl, LosesNoProfileOfParallelRuns) {
  const char* script =
      "for i in $(seq 32); do ormelctl profile add pptp --name p$i --host 192.0.2.$i >/dev/null & "
      "done; wait";
  ASSERT_EQ(shell(script).status, 0);
  std::set<std::string> names;
  const Result list = ctl("profile list --json");
  for (size_t i = 0; i < 32; ++i) names.insert(text_at(list, i, "name"));
  EXPECT_EQ(names.size(), 32U);
  EXPECT_EQ(names.count(""), 0U);
  EXPECT_EQ(ctl("profile add pptp --name more --host 192.0.2.99").status, 1);
  expect_documents("full");
}

TEST_F(OrmelCtl, RunsServersAndDevices) {
  EXPECT_EQ(text_at(start_hub(), 0, "state"), "running");
  EXPECT_THAT(ctl("peer add phone --key AAAA").err, HasSubstr("--key is not a public key"));
  const Result peer = ctl("peer add phone --host vpn.example.org --qr");
  EXPECT_THAT(peer.out,
              AllOf(HasSubstr("Address = 198.18.7.2/32\n"),
                    HasSubstr("Endpoint = vpn.example.org:51820\n"), HasSubstr("\n████")));
  const std::string old_key = text_at(ctl("peer list --json"), 0, "key");
  const std::string renewal = "peer qr phone --host 2001:db8::1 --json";
  EXPECT_EQ(ctl(renewal).status, 2) << "--yes is missing";
  EXPECT_EQ(wireguard_peers(), old_key + '\n');
  const std::string renewed = text_at(ctl(renewal + " --yes"), 0, "configuration");
  EXPECT_THAT(renewed, AllOf(HasSubstr("\nAddress = 198.18.7.2/32\n"),
                             HasSubstr("\nEndpoint = [2001:db8::1]:51820\n")));
  constexpr size_t KEY_AT = std::string_view("[Interface]\nPrivateKey = ").size(), KEY_SIZE = 44;
  const std::string new_key =
      run({"/usr/bin/wg", "pubkey"}, {}, renewed.substr(KEY_AT, KEY_SIZE)).out;
  EXPECT_NE(new_key, old_key + '\n');
  EXPECT_EQ(wireguard_peers(), new_key) << "the old key is gone, the printed one is in its place";
  EXPECT_EQ(text_at(ctl("peer list --json"), 0, "key") + '\n', new_key);
  EXPECT_EQ(ctl("peer qr tablet --host vpn.example.org --yes").status, 3);
  EXPECT_THAT(ctl("peer rm phoen --yes").err, HasSubstr("did you mean \"phone\"?"));
  EXPECT_EQ(ctl("peer rm phone --yes").status, 0);
  EXPECT_EQ(ctl("server off wireguard --yes").status, 0);
  EXPECT_EQ(ctl("status wireguard --check off").status, 0);
}

TEST_F(OrmelCtl, KeepsADeviceOutFromADayOn) {
  start_hub();
  ASSERT_EQ(ctl("peer add phone --host vpn.example.org").status, 0);
  const std::tuple<std::vector<std::string>, const char*, const char*, bool> rows[] = {
      {{"--off"}, "is kept out", "no", false},
      {{"--on"}, "may connect", "yes", true},
      {{"--until", "2099-12-31"},
       "may connect until 2099-12-31 00:00",
       "until 2099-12-31 00:00",
       true},
      {{"--until", "2099-12-31 18:30"},
       "may connect until 2099-12-31 18:30",
       "until 2099-12-31 18:30",
       true},
      {{"--until", "never"}, "may connect", "yes", true},
  };
  EXPECT_EQ(ctl("peer limit phone --until 2099-12-31 --dry-run --timeout 30").status, 0)
      << "a trial does not wait for the day";
  for (const auto& [options, said, allowed, connects] : rows) {
    std::vector<std::string> words{"peer", "limit", "phone"};
    words.insert(words.end(), options.begin(), options.end());
    EXPECT_EQ(ctl(words).out, "phone " + std::string(said) + '\n');
    EXPECT_EQ(text_at(ctl("peer list --json"), 0, "allowed"), allowed);
    EXPECT_EQ(!wireguard_peers().empty(), connects) << said;
  }
}

TEST_F(OrmelCtl, KeepsOnePublicAddressForAllThatIsHandedOut) {
  start_hub();
  ASSERT_EQ(ctl("server on openvpn").status, 0);
  EXPECT_THAT(ctl("profile export").out, HasSubstr("\nremote 192.168.77.1 1194\n"));
  EXPECT_THAT(ctl("peer add phone").err, HasSubstr("--host is missing"));

  EXPECT_EQ(ctl("address set 10.0.0.1").out, "10.0.0.1 works only inside your own network\n");
  EXPECT_EQ(ctl("address set vpn.example.org").out, "vpn.example.org\n");
  EXPECT_EQ(read("/etc/config/ormel/public_address"), "vpn.example.org\n");
  EXPECT_EQ(text_at(ctl("address --json"), 0, "address"), "vpn.example.org");
  EXPECT_THAT(ctl("peer add phone").out, HasSubstr("Endpoint = vpn.example.org:51820\n"));
  EXPECT_THAT(ctl("profile export").out, HasSubstr("\nremote vpn.example.org 1194\n"));
  EXPECT_THAT(ctl("profile export --host 192.0.2.1").out, HasSubstr("\nremote 192.0.2.1 1194\n"));

  write("/etc/config/ormel/public_address", "a\nremote b\n");
  EXPECT_THAT(ctl("address").out, HasSubstr("No public address is set")) << "damaged";
  EXPECT_EQ(ctl("address rm --yes").status, 0);
  EXPECT_FALSE(fs::exists("/etc/config/ormel/public_address"));
  EXPECT_THAT(ctl("profile export").out, HasSubstr("\nremote 192.168.77.1 1194\n"));
}

TEST_F(OrmelCtl, HidesNoDeviceWhoseNameIsNoText) {
  start_hub();
  ASSERT_EQ(ctl({"peer", "add", "\xff", "--host", "192.0.2.1"}).status, 0);
  EXPECT_EQ(text_at(ctl("peer list --json"), 0, "name"), "\xef\xbf\xbd");
  EXPECT_THAT(ctl("export").out, HasSubstr("\"device/1\": {"));
}

TEST_F(OrmelCtl, FindsWhatIsWrongWithTheHost) {
  const auto found = [] { return ctl("doctor --json").out; };
  EXPECT_THAT(found(), Not(HasSubstr("\"fail\"")));
  write("/etc/config/openvpn/clients/client9", "secret", 0644);
  EXPECT_THAT(
      found(),
      HasSubstr(R"("step":"secrets","result":"warn","text":"/etc/config/openvpn/clients/client9)"));
  fs::remove("/etc/config/openvpn/clients/client9");
  write(VPN_CONF,
        "[DROVIK]\nEnable = TRUE\nClient IP 1 = 192.168.77.2\nClient IP 2 = 192.168.77.254\n");
  EXPECT_THAT(
      found(),
      AllOf(HasSubstr(R"("step":"servers","result":"fail","text":"drovik is on, but does not run)"),
            HasSubstr(R"("step":"pools","result":"fail","text":"drovik 192.168.77.)")));
  EXPECT_EQ(ctl("doctor").status, 1);
  EXPECT_EQ(ctl("doctor absent").status, 3);
  ctl("doctor --bundle /root/case.tar.gz");
  EXPECT_EQ(mode_of("/root/case.tar.gz"), 0600U);
  EXPECT_THAT(shell("tar tzf /root/case.tar.gz").out,
              AllOf(HasSubstr("doctor.json"), HasSubstr("events.json"), HasSubstr("logs.tar.gz")));
}

TEST_F(OrmelCtl, TakesNoForeignProcessForAServer) {
  write(VPN_CONF, "[DROVIK]\nEnable = TRUE\n");
  // Another user's, with the daemon's name and argument, and root's own with the name alone.
  const char* script =
      "setpriv --reuid=guest --clear-groups bash -c \"exec -a morvid sh -c 'sleep 60' DROVIK\" & "
      "echo $! >/tmp/foreign;"
      "bash -c 'exec -a morvid sleep 60' & echo $! >>/tmp/foreign";
  shell(script);
  ASSERT_TRUE(comes_true([] { return run({"/usr/bin/pgrep", "-fc", "^morvid"}).out == "2\n"; }));
  EXPECT_TRUE(
      comes_true([] { return text_at(ctl("status drovik --json"), 0, "state") == "failed"; }, 20));
  shell("kill $(cat /tmp/foreign)");
}

TEST_F(OrmelCtl, HearsAPptpServerBeforeALogin) {
  write("/tmp/pptpd.conf", "option /dev/null\nlocalip 10.0.0.1\nremoteip 10.0.0.2-20\n");
  shell("exec setsid pptpd -f -c /tmp/pptpd.conf -p /tmp/pptpd.pid </dev/null >/dev/null 2>&1 &");
  done("profile add pptp --name a --host 127.0.0.1 --user b --pass-file -", "c\n");
  const auto hears = [] {
    return ctl("doctor a --json").out.find(R"("step":"server","result":"ok")") != std::string::npos;
  };
  EXPECT_TRUE(comes_true(hears));
  run({"/usr/bin/pkill", "-f", "/tmp/pptpd.conf"});
  EXPECT_TRUE(comes_true([&] { return !hears(); }));
}

TEST_F(OrmelCtl, AnswersWithEachDaemonDeadInTurn) {
  expect_documents("empty");
  for (const std::string daemon : {"ormeld", "fenro-networkd", "fenro-jsond", "fenro-rated",
                                   "pelmar-agentd", "fenro-keeperd"}) {
    const std::string path = "/usr/lib/fenro/" + daemon;
    const std::string failed = daemon + std::string(16 - daemon.size(), ' ') + "failed";
    run({"/usr/bin/pkill", "-KILL", "-f", path});
    ASSERT_TRUE(comes_true([&] { return run({"/usr/bin/pgrep", "-f", path}).status == 1; }));
    expect_documents(daemon.c_str());
    EXPECT_THAT(ctl("status").out, HasSubstr(failed));
    shell("exec setsid " + path + " </dev/null >/dev/null 2>&1 &");
    ASSERT_TRUE(comes_true([&] { return ctl("status").out.find(failed) == std::string::npos; }))
        << daemon;
  }
}

TEST_F(OrmelCtl, PrintsOneDocumentForAnyoneWhoIsNotRoot) {
  for (const std::string& line : reading_commands()) {
    SCOPED_TRACE(line);
    const Result result = run(words_of(
        "/usr/bin/setpriv --reuid=guest --clear-groups /usr/sbin/ormelctl " + line + " --json"));
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(json_integer_value(json_object_get(parsed(result.out).get(), "schema")), 1);
    EXPECT_THAT(result.out, HasSubstr("\"reason\":\"only root may do this\""));
  }
}

TEST_F(OrmelCtl, CompletesItsWords) {
  EXPECT_EQ(ctl("__complete prof").out, "profile\n");
  EXPECT_EQ(ctl("__complete server o").out, "off\non\n");
  EXPECT_EQ(ctl("__complete server on w").out, "wireguard\n");
  EXPECT_EQ(ctl("__complete profile up x --").out, "--wait=\n");
}

}  // namespace
