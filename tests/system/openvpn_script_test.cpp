// Foreign OpenVPN profiles: judged by the real checker, imported both ways, and kept from doing
// harm when they run.

#include "ormel/base/handle.h"
#include "ormel/base/lines.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* VERIFY = "/usr/sbin/verify_ovpn.sh";
constexpr const char* COMMON = "/etc/init.d/vpn_common.sh";
constexpr const char* CLIENT = "/etc/init.d/vpn_openvpn_client.sh";
constexpr const char* STORED = "/etc/config/openvpn/clients/client1";
constexpr const char* ONLINE = "/var/log/ormel_online_users";
constexpr const char* MARK = "/tmp/mark";  // what nothing may make
constexpr const char* TRAP = "/tmp/trap";  // a program that makes it
constexpr const char* UPLOAD = "/tmp/u.ovpn";

class OpenVpnProfile : public WebHost {
 protected:
  static void SetUpTestSuite() {
    run({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-nodes", "-subj", "/CN=vpn", "-keyout", "/tmp/own.key", "-out", "/tmp/own.crt"});
    run({"/usr/bin/openssl", "genpkey", "-algorithm", "ED25519", "-out", "/tmp/other.key"});
  }
  void SetUp() override {
    const std::string client = read(CLIENT);
    common = read(COMMON);
    WebHost::SetUp();
    write(CLIENT, client, 0755);
    fs::remove(MARK);
    write(TRAP, "#!/bin/sh\necho >/tmp/mark\n", 0755);
  }
  void TearDown() override {
    run({CLIENT, "stop", "1"});
    write(COMMON, common, 0755);
    for (const char* file : {STORED, ONLINE, MARK}) fs::remove(file);
  }
  static std::string profile(const std::string& lines = {}) {
    return "client\ndev tun\nremote 127.0.0.1 9 udp\nauth-user-pass\n" + lines + "<ca>\n" +
           read("/tmp/own.crt") + "</ca>\n";
  }
  static int verify(const std::string& text, const std::string& arguments = {}) {
    write(UPLOAD, text);
    return run({VERIFY, UPLOAD, arguments}).status;
  }
  static Result import_profile(const std::string& text) {
    write(UPLOAD, text);
    return cli({"--type=OVPN", std::string("--import=") + UPLOAD, "--name=office", "--user=bob",
                "--pass=p"});
  }
  std::string common;
};

// Each of these would have the daemon run, load or write something, if it met them unprepared.
const std::string ACTIVE_LINES =
    "up /tmp/trap\nroute-up /tmp/trap\ntls-verify /tmp/trap\nipchange /tmp/trap\n"
    "learn-address /tmp/trap\nauth-user-pass-verify /tmp/trap via-env\nplugin /tmp/trap\n"
    "\"plugin\" /tmp/trap\nsetenv opt plugin /tmp/trap\nconfig /tmp/trap\ncd /nowhere\n"
    "chroot /tmp\nmanagement /tmp/mark unix\nlog /tmp/mark\nlog-append /tmp/mark\n"
    "status /tmp/mark\nwritepid /tmp/mark\niproute /tmp/trap\ndaemon\n"
    "genkey tls-auth /tmp/mark\nscript-security 3\n";

TEST_F(OpenVpnProfile, IsJudgedByTheDaemonWithoutActing) {
  EXPECT_EQ(verify(profile()), 0);
  EXPECT_EQ(verify(profile(ACTIVE_LINES)), 0) << "they are not of the profile's substance";
  EXPECT_FALSE(fs::exists(MARK));
  for (const char* kept :
       {"cipher BF-CBC\n", "<connection>\nremote b.example 443 tcp\n</connection>\n",
        "tls-auth ta.key 1\n", "pkcs12 me.p12\n", "crl-verify crl.pem\n", "tls-cipher NONE\n",
        "comp-lzo\n", "ncp-disable\n"})
    EXPECT_EQ(verify(profile(kept)), 0) << kept;
}

TEST_F(OpenVpnProfile, IsRefusedWhenTheDaemonCanNotTakeIt) {
  std::string text = profile();
  const std::string rows[] = {
      "",
      "client\n",
      text.substr(0, text.size() - 7),  // a block without an end
      profile("no-such-option 1\n"),
      profile("remote\n"),
      profile("tls-version-min 9.9\n"),
      profile("<tls-auth>\nnot a key</tls-auth>\nplugin /tmp/trap\n"),  // the daemon would go on in
                                                                        // the block
      "client\ndev tun\nremote 127.0.0.1 9\nauth-user-pass\n<ca>\nnot a certificate\n</ca>\n",
      profile("<cert>\n" + read("/tmp/own.crt") + "</cert>\n<key>\n" + read("/tmp/other.key") +
              "</key>\n"),
      profile("verb " + std::string(1 << 20, '1') + "\nsetenv " + std::string(1 << 20, 'A') + "\n"),
      profile(std::string(10 << 20, 'x')),
  };
  for (const std::string& row : rows) EXPECT_NE(verify(row), 0) << row.substr(0, 300);
  EXPECT_FALSE(fs::exists(MARK));
  for (const auto& file : fs::directory_iterator("/tmp"))
    EXPECT_THAT(file.path().string(), Not(HasSubstr("verify-ovpn")));
}

TEST_F(OpenVpnProfile, IsRefusedWithTheCauseInWords) {
  run({"/bin/sh", "-c",
       "cd /tmp; openssl req -newkey rsa:2048 -nodes -subj /CN=c -keyout weak.key -out weak.csr;"
       "openssl x509 -req -sha1 -in weak.csr -CA own.crt -CAkey own.key -CAcreateserial -days 9 "
       "-out weak.crt;"
       "openssl req -x509 -newkey rsa:512 -nodes -subj /CN=c -keyout short.key -out short.crt"},
      {"PATH=/usr/bin:/bin"});
  const std::tuple<std::string, std::string, std::string, const char*> rows[] = {
      {"own.crt", "weak.crt", "weak.key", "signed with a digest that is too weak"},
      {"own.crt", "short.crt", "short.key", "the key of a certificate is too short"},
      {"own.crt", "own.crt", "other.key", "the key is not that of the certificate"},
      {"own.crt", "weak.csr", "weak.key", "not in PEM format: CERTIFICATE"},
      {"own.key", "own.crt", "own.key", "Cannot load CA certificate"},
  };
  write(UPLOAD,
        "client\ndev tun\nremote 127.0.0.1 9\nca ca.crt\ncert client.crt\nkey client.key\n");
  const auto upload = [](const char* name, const std::string& file) {
    return part(name, read("/tmp/" + file), file);
  };
  for (const auto& [ca, certificate, key, cause] : rows) {
    const std::string files = std::string("--ca /tmp/")
                                  .append(ca)
                                  .append(" --cert /tmp/")
                                  .append(certificate)
                                  .append(" --key /tmp/")
                                  .append(key)
                                  .append(" ");
    EXPECT_THAT(run({VERIFY, UPLOAD, files}).err, HasSubstr(cause)) << files;
    const std::string body = part("ovpn", read(UPLOAD), "p.ovpn") + upload("ca", ca) +
                             upload("cert", certificate) + upload("key", key) + "--edge--\r\n";
    EXPECT_THAT(cgi("/ormel/config/report", admin, {MULTIPART, "CONTENT_LENGTH=1"}, body).body,
                HasSubstr(cause))
        << files;
  }
}

TEST_F(OpenVpnProfile, ComesWithKeyFilesThatAreNamedPlainly) {
  const std::string names = "ca ca.crt\ncert client.crt\nkey client.key\n";
  const std::string text = "client\ndev tun\nremote 127.0.0.1 9\n" + names;
  EXPECT_EQ(verify(text, "--ca /tmp/own.crt --cert /tmp/own.crt --key /tmp/own.key "), 0);
  for (const char* wrong :
       {"", "--ca /tmp/own.crt ", "--ca /tmp/own.crt --cert /tmp/own.crt --key /tmp/other.key ",
        "--ca /tmp/own.crt --cert /tmp/own.crt --key /tmp/own.key --up /tmp/trap ",
        "--ca $(/tmp/trap) ", "--ca /tmp/own.crt;/tmp/trap", "--ca /tmp ", "--ca own.crt ", "--ca"})
    EXPECT_NE(verify(text, wrong), 0) << wrong;
  EXPECT_FALSE(fs::exists(MARK));
}

TEST_F(OpenVpnProfile, IsImportedByBothWays) {
  EXPECT_EQ(import_profile(profile("cipher aes-256-cbc\nplugin other.so\n")).status, 0);
  EXPECT_THAT(read(STORED), HasSubstr("\ncipher AES-256-CBC\n"));
  EXPECT_THAT(read(STORED), HasSubstr("\nplugin other.so\n"));
  EXPECT_EQ(mode_of(STORED), 0600U);
  EXPECT_EQ(cli({"--type=OVPN", "--remove=1"}).status, 0);
  EXPECT_FALSE(fs::exists(STORED));
  const auto post = [&](const char* route, const std::string& text) {
    return cgi(route, admin + "&name=office&user=bob&pass=cA==", {MULTIPART, "CONTENT_LENGTH=1"},
               part("ovpn", text, "office.ovpn") + "--edge--\r\n")
        .body;
  };
  EXPECT_EQ(post("/ormel/config/import", profile("no-such-option\n")),
            refusal(23, "incorrect client config"));
  EXPECT_FALSE(fs::exists(STORED));
  EXPECT_THAT(post("/ormel/config/check", profile("comp-lzo\n")), HasSubstr("\"compress\":true"));
  EXPECT_THAT(post("/ormel/config/import", profile()), HasSubstr("\"server_ip\":\"127.0.0.1\""));
  EXPECT_THAT(read(STORED), HasSubstr("<connection>\nremote 127.0.0.1 9 udp\n"));
}

TEST_F(OpenVpnProfile, DoesNotRunWhenALineCouldDoHarm) {
  ASSERT_EQ(import_profile(profile()).status, 0);
  const std::string stored = read(STORED);
  for (const char* line :
       {"plugin /tmp/trap", "plugin /usr/lib/../../tmp/trap", "setenv opt plugin /tmp/trap",
        "config /tmp/trap", "chroot /tmp", "engine dynamic", "providers /tmp/trap",
        "pkcs11-providers /tmp/trap", "setenv LD_PRELOAD /tmp/trap", "setenv PATH /tmp",
        "replay-persist /tmp/mark", "genkey secret /tmp/mark",
        "http-proxy 127.0.0.1 9 /etc/shadow basic", "socks-proxy 127.0.0.1 9 /etc/shadow"}) {
    SCOPED_TRACE(line);
    write(STORED, std::string(line) + '\n' + stored);
    const Result started = run({CLIENT, "start", "1"});
    EXPECT_EQ(started.status, 1);
    EXPECT_THAT(started.err, HasSubstr("must not run on this appliance, for its line: "));
    EXPECT_FALSE(fs::exists(MARK));
  }
}

// Profiles made to have the daemon load, run, read or write something. They lie where an earlier
// version has stored them, or come as uploads; the plugin is where root's own libraries do.
class HostileProfile : public OpenVpnProfile {
 protected:
  void SetUp() override {
    OpenVpnProfile::SetUp();
    for (const char* place : {"/usr/lib/canary.so", "/tmp/canary.so"})
      fs::copy_file(ORMEL_CANARY, place, fs::copy_options::overwrite_existing);
  }
  // What the daemon has read: its copy is in a view of the file system that only it has.
  static std::string copy() {
    std::string pid = run({"/usr/bin/pgrep", "-f", "^/usr/lib/fenro/openvpnclient"}).out;
    return read("/proc/" + pid.substr(0, pid.find('\n')) +
                "/root/run/fenro/openvpn-client1/profile");
  }
  // Events of the start script; those of the program come when they may.
  static std::vector<std::string> events() {
    std::vector<std::string> found = recorded("notify");
    std::erase_if(
        found, [](const std::string& event) { return event.find("|9001|") == std::string::npos; });
    return found;
  }
  // With the lines at the beginning, so that the first of them is line 1.
  static void goes_through_all(const std::string& lines, const std::string& good = {}) {
    std::ignore = verify(lines + profile(good));
    std::ignore = import_profile(lines + profile(good));
    cli({"--type=OVPN", "--remove=1"});
    EXPECT_FALSE(fs::exists(MARK)) << "by check or import";
    ASSERT_EQ(import_profile(profile(good)).status, 0);
    write(STORED, lines + read(STORED));
  }
  void TearDown() override {
    cli({"--type=OVPN", "--remove=1"});
    OpenVpnProfile::TearDown();
  }
};

TEST_F(HostileProfile, DoesNotRunAndTheAnswerNamesTheLine) {
  const std::pair<std::string, const char*> rows[] = {
      // lines, and the answer for the first
      {"plugin openvpn-plugin-down-root.so /bin/sh -c \"/tmp/trap\"\n",
       "line 1: must not run on this appliance, for its line: plugin"},
      {"plugin /usr/lib/canary.so\n", "for its line: plugin"},
      {"--plugin /usr/lib/canary.so\n", "for its line: plugin"},
      {"\"plugin\"/usr/lib/canary.so\n", "for its line: plugin"},
      {"\xEF\xBB\xBFplugin /usr/lib/canary.so\n", "for its line: plugin"},
      {"setenv opt plugin /usr/lib/canary.so\n", "for its line: plugin"},
      {"setenv opt\vplugin /usr/lib/canary.so\n", "line 1: a control byte"},
      {"setenv opt\fplugin /usr/lib/canary.so\n", "line 1: a control byte"},
      {"setenv opt\vdown \"/bin/sh -c /tmp/trap\"\n", "line 1: a control byte"},
      {"setenv opt\fdown \"/bin/sh -c /tmp/trap\"\n", "line 1: a control byte"},
      {"setenv opt\rplugin /usr/lib/canary.so\n", "line 1: a control byte"},
      {"mute 1\rplugin /usr/lib/canary.so\n", "line 1: a control byte"},
      {"ignore-unknown-option <foo </foo\n<foo bar>\nplugin /usr/lib/canary.so\n</foo bar>\n",
       "line 2: a name that"},
      {"<ca>\n<ca>\n</ca>\nplugin /usr/lib/canary.so\n", "line 2: a \"<\" within a block"},
      {"<ca>\n", "within a block"},
      {"mute 1" + std::string(250, ' ') + "plugin /usr/lib/canary.so\n",
       "line 1: a line that is too long"},
      {"mute \"1\n", "line 1: a quotation without an end"},
      {"mute a\\b\n", "line 1: a backslash before a plain byte"},
      {"http-proxy-user-pass /etc/shadow\n", "for its line: http-proxy-user-pass"},
  };
  for (const auto& [lines, told] : rows) {
    SCOPED_TRACE(lines);
    goes_through_all(lines);
    const Result started = run({CLIENT, "start", "1"});
    EXPECT_EQ(started.status, 1);
    EXPECT_THAT(started.err, HasSubstr(told));
    EXPECT_FALSE(fs::exists(MARK));
    cli({"--type=OVPN", "--remove=1"});
  }
}

TEST_F(HostileProfile, RunsWithoutItsLineAndAnEventNamesItOnce) {
  if (const ormel::Fd device{open("/dev/net/tun", O_RDWR | O_CLOEXEC)}; !device)
    GTEST_SKIP() << "no OpenVPN without the TUN device /dev/net/tun";
  const std::string text =
      "up /tmp/trap\nsetenv opt down /tmp/trap\nroute-up /tmp/trap\ntls-verify /tmp/trap\n"
      "ipchange /tmp/trap\nstatus /tmp/mark\nlog-append /tmp/mark\nwritepid /tmp/mark\n"
      "management 127.0.0.1 7999\nuser nobody\nca /etc/shadow\naskpass /etc/shadow\n"
      "auth-user-pass /etc/shadow\ncrl-verify /etc/shadow\ncd /tmp\ntmp-dir /tmp\n"
      "memstats /tmp/mark\nsetenv-safe A b\nsetenv A b\nno-such-option /tmp/trap\n";
  const std::vector<std::string> lines = ormel::split_lines(text);
  goes_through_all(text, "cipher BF-CBC\nproto tcp-client\nsetenv UV_ID 1\n");
  ASSERT_EQ(run({CLIENT, "start", "1"}).status, 0);
  const std::string found = run({"/usr/bin/pgrep", "-af", "client1"}).out;
  EXPECT_THAT(found, HasSubstr("/usr/lib/fenro/openvpnclient "));
  EXPECT_THAT(found, HasSubstr("/usr/lib/fenro/fenro-openvpn-login client1"));
  EXPECT_THAT(found, Not(HasSubstr("BF-CBC"))) << "a cipher that the daemon would end for";
  EXPECT_THAT(cgi(SHOW, admin + "&type=1024").body, HasSubstr("\"status\":2"));
  const std::string given = copy();
  EXPECT_THAT(given, HasSubstr("plugin /usr/lib/vpn_ext.so 1\n"));
  ASSERT_EQ(run({CLIENT, "start", "1"}).status, 0);
  ASSERT_EQ(events().size(), 1U) << "once for one content";
  EXPECT_THAT(events()[0], Not(AnyOf(HasSubstr("/tmp/"), HasSubstr("/etc/"))));
  for (size_t at = 0; at < lines.size(); ++at) {
    const std::string option =
        lines[at].starts_with("setenv opt ") ? lines[at].substr(11) : lines[at];
    EXPECT_THAT(given, Not(HasSubstr('\n' + option))) << option;
    EXPECT_THAT(events()[0], HasSubstr("line " + std::to_string(at + 1) + ": " +
                                       option.substr(0, option.find(' '))));
  }
  EXPECT_EQ(run({CLIENT, "stop", "1"}).status, 0);
  EXPECT_EQ(run({"/usr/bin/pgrep", "-f", "openvpnclient"}).status, 1);
  EXPECT_FALSE(fs::exists(MARK));
}

// Even a line that got through could not do much.
TEST_F(HostileProfile, ADaemonCanNotChangeTheSystem) {
  constexpr const char* JAIL =
      ". /usr/lib/fenro/vpn_lib.sh; . /usr/lib/fenro/ovpn_lib.sh; ovpn_jail \"$0\" sh -c \"$1\"";
  constexpr const char* PLACE = "/run/fenro/place";
  const auto jailed = [](const char* place, const std::string& script) {
    return run({"/bin/sh", "-c", JAIL, place, script});
  };
  for (const char* path : {"/usr/lib/mark", "/usr/sbin/mark", "/etc/mark"})
    EXPECT_NE(jailed(PLACE, std::string("echo >") + path).status, 0) << path;
  for (const char* path :
       {"/usr/lib/mark", "/usr/sbin/mark", "/etc/mark", "/mark", "/etc/config/mark", "/root/mark",
        "/run/mark", "/var/lib/mark", "/var/tmp/mark"})
    EXPECT_NE(jailed("", std::string("echo >") + path).status, 0) << path;
  EXPECT_EQ(jailed("", "echo >/tmp/mark").err, "");
  EXPECT_FALSE(fs::exists(MARK)) << "its /tmp is its own";
  EXPECT_EQ(jailed(PLACE, "echo >/etc/config/jail && rm /etc/config/jail").err, "")
      << "the hooks write settings";
}

// The hooks get what a stranger said about himself.
TEST_F(OpenVpnProfile, HooksTakeAnyEnvironment) {
  constexpr const char *UP = "/usr/lib/fenro/ovpn-server-up",
                       *DOWN = "/usr/lib/fenro/ovpn-server-down";
  const std::vector<std::string> place{"trusted_ip=192.0.2.7", "trusted_port=4000",
                                       "ifconfig_local=10.8.0.1",
                                       "ifconfig_pool_remote_ip=10.8.0.9"};
  EXPECT_EQ(run({UP}).status, 0);
  EXPECT_EQ(run({DOWN}).status, 0);
  EXPECT_EQ(read(ONLINE), "");
  EXPECT_EQ(run({UP}, place).status, 0);
  EXPECT_EQ(read(ONLINE), "") << "nobody";
  for (const std::string& name :
       {std::string(10240, 'n'), std::string("a b\n$(/tmp/trap)\xff'\""), std::string("bob")}) {
    std::vector<std::string> environment = place;
    environment.insert(environment.end(),
                       {"username=" + name, "IV_PLAT=$(/tmp/trap)\nx", "bytes_sent=nan"});
    EXPECT_EQ(run({UP}, environment).status, 0);
    const std::string list = read(ONLINE);
    EXPECT_THAT(list, StartsWith("openvpn 192.0.2.7 4000 10.8.0.1 10.8.0.9 4 "));
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 1) << "one address, one session";
  }
  EXPECT_EQ(run({DOWN}, place).status, 0);
  EXPECT_EQ(read(ONLINE), "");
  for (const char* hook : {"/etc/openvpn/openvpn_up", "/etc/openvpn/openvpn_down"}) {
    for (const char* interface :
         {"", "tun", "tun1", "tun2001", "tun02001", "tun$(/tmp/trap)", "tun2001;/tmp/trap"})
      run({hook, interface, "1500", "0", "10.8.0.2", "255.255.255.0", "init"},
          {"route_vpn_gateway=$(/tmp/trap)"});
  }
  EXPECT_FALSE(fs::exists(MARK));
  EXPECT_EQ(conf_value("OPENVPN_CLIENT1", "LocalIP"), "") << "there is no such profile";
}

}  // namespace
