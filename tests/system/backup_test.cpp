// Backups and documents: what one appliance has comes whole to an empty one, and what is wrong
// changes nothing.
// appliance: --pair --web

#include <set>

#include "base/grants.h"
#include "support/far_appliance.h"
#include "support/ormelctl.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

const std::string TOOL = "/usr/sbin/ormelctl";
const std::string FILE_NAME = "/root/office.ormel";
const std::string BY_PASSPHRASE = " --passphrase-file /root/passphrase";
const std::string BACKUP = "backup " + FILE_NAME + BY_PASSPHRASE;
const std::string RESTORE = "restore " + FILE_NAME + BY_PASSPHRASE;
const std::string SITE = "/root/site.json";
const std::string PASSPHRASE = "correct horse battery";
const std::string ADD_HUB =
    "server set wireguard --name hub --address 198.18.7.1 --port 51820 --yes";
const std::string PEER =
    " --peer-key MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM= --endpoint 192.0.2.9:51820";

Result far_ctl(const std::string& line) {
  return far::run(words_of(TOOL + ' ' + line), PLACES);
}

// All files of state as they are: a name and a digest a line.
std::string state() {
  return shell(
             "find /etc/config /etc/openvpn/keys /etc/ppp /var/lib/ormel -type f ! -name '*.db*' "
             "! -path '*/snapshots/*' ! -path '*/audit/*' -exec sha256sum {} + | sort")
      .out;
}

class Backup : public testing::Test {
 protected:
  void SetUp() override {
    if (const ormel::Fd device{open("/dev/net/tun", O_RDWR | O_CLOEXEC)}; !device)
      GTEST_SKIP() << "no OpenVPN without the TUN device /dev/net/tun";
    write("/root/passphrase", PASSPHRASE + '\n');
    write("/root/secret", "s3cret-of-tests\n");
    ASSERT_EQ(run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"}).status, 0);
    if (!fs::exists("/root/empty.ormel")) ctl("backup /root/empty.ormel" + BY_PASSPHRASE);
    ASSERT_EQ(ctl("restore /root/empty.ormel" + BY_PASSPHRASE).status, 0)
        << "each test begins with nothing";
  }
};

TEST_F(Backup, ComesWholeToAnEmptyApplianceThatOldClientsReach) {
  // One of everything.
  done("server on openvpn");
  done(ADD_HUB);
  done("server on wireguard");
  for (const char* server : {"l2tp", "drovik"})
    done(std::string("server set ") + server + " --psk-file /root/secret --yes");
  done("server set pptp --max 7 --yes");
  done("peer add phone --host vpn.example.org");
  for (const std::string protocol : {"pptp", "l2tp", "drovik"})
    done(std::string("profile add ")
             .append(protocol)
             .append(" --name ")
             .append(protocol)
             .append(" --host 192.0.2.1 --user bob --pass-file /root/secret")
             .append(protocol == "pptp" ? "" : " --psk-file /root/secret"));
  done("profile add wireguard --name w\xc3\xa9 --address 198.18.8.5" + PEER);
  write("/root/office.ovpn", ctl("profile export").out);
  done("profile import /root/office.ovpn --name far --user guest --pass-file /root/secret --yes");
  done("user grant guest openvpn l2tp");
  done("user policy --limit 4");
  done("gateway set far pptp --back 10");
  done("guard on --lan 1");
  done("notify add ops --url https://hooks.example.org/a --events failed,lost");
  EXPECT_EQ(run({"/usr/lib/fenro/fenro-hold", "add", "user", "carol", "3600"}).status, 0);
  EXPECT_THAT(done("backup " + FILE_NAME + " --passphrase-file -", PASSPHRASE + '\n').out,
              HasSubstr("5 profiles, 2 servers that are on, 1 device, 1 user with rights"));
  EXPECT_EQ(mode_of(FILE_NAME), 0600U);
  EXPECT_THAT(read(FILE_NAME), Not(HasSubstr("s3cret")));
  const std::string here = ctl("export --secrets").out;
  EXPECT_THAT(here, HasSubstr("s3cret-of-tests"));
  const std::string safe = ctl("export").out;
  EXPECT_THAT(safe, AllOf(Not(HasSubstr("s3cret-of-tests")), Not(HasSubstr("hooks.example.org"))));
  EXPECT_EQ(ctl("diff -", safe).status, 0) << "kept secrets are the stored ones";

  far::write(FILE_NAME, read(FILE_NAME));
  far::write("/root/passphrase", PASSPHRASE);
  far::run({"/etc/init.d/vpn_common.sh", "setup_vpn_entrance"});
  EXPECT_THAT(far_ctl(RESTORE + " --dry-run").out,
              AllOf(HasSubstr("+ far (openvpn/1)\n"), HasSubstr("~ openvpn server\n"),
                    EndsWith("nothing was changed\n")));
  EXPECT_THAT(far_ctl("export").out, Not(HasSubstr("\"far\"")));
  const Result restored = far_ctl(RESTORE);
  ASSERT_EQ(restored.status, 0) << restored.err;
  EXPECT_EQ(far_ctl("export --secrets").out, here);
  far::write(SITE, here);
  EXPECT_EQ(far_ctl("diff " + SITE).status, 0);
  EXPECT_THAT(far_ctl("hold list").out, HasSubstr("carol"));
  EXPECT_THAT(far::run({"/usr/bin/wg", "show", "wg0", "peers"}).out.size(), 45U);
  EXPECT_THAT(far_ctl(RESTORE).out, HasSubstr("restored: 0 differed"));

  // The guard would hold back what leaves, and the pool is that of the far end now.
  done("guard off");
  far_ctl("guard off");
  done("server off openvpn --yes");
  std::string profile = read("/root/office.ovpn");
  const size_t remote = profile.find("\nremote ");
  profile.replace(remote, profile.find('\n', remote + 1) - remote,
                  std::string("\nremote ") + far::ADDRESS + " 1194");
  write("/root/moved.ovpn", profile);
  write("/root/password", far::read("/var/lib/appliance/password.guest"));
  done("profile import /root/moved.ovpn --name old --user guest --pass-file /root/password --yes");
  done("profile up old --wait 40");
  EXPECT_THAT(far_ctl("who").out, HasSubstr("guest"));
  ctl("profile down old");
}

TEST_F(Backup, OfWhichAByteIsWrongChangesNothing) {
  ctl("profile add pptp --name a --host 192.0.2.1");
  done(BACKUP);
  const std::string good = read(FILE_NAME);
  ctl("profile add pptp --name b --host 192.0.2.2");
  const std::string before = state();
  std::string longer = good, other = good;
  longer.insert(good.size() / 3, "x");
  other[good.size() / 2] = static_cast<char>(other[good.size() / 2] ^ 1);
  for (const std::string& bad : {longer, other, good.substr(0, good.size() - 1)}) {
    write("/root/bad.ormel", bad);
    EXPECT_THAT(ended(1, "restore /root/bad.ormel" + BY_PASSPHRASE).err,
                ContainsRegex("^ormelctl: [^\n]+\n  [^\n]+\n$"));
  }
  write("/root/wrong", "another passphrase");
  EXPECT_THAT(ctl("restore " + FILE_NAME + " --passphrase-file /root/wrong").err,
              HasSubstr("the passphrase is wrong"));
  EXPECT_EQ(ctl("restore " + FILE_NAME).status, 2) << "--passphrase-file is missing";
  EXPECT_EQ(ctl(RESTORE + " --only all").status, 2);
  EXPECT_EQ(state(), before);
}

std::set<std::string> lines_of(const std::string& text) {
  std::istringstream lines(text);
  std::set<std::string> all;
  for (std::string line; std::getline(lines, line);) all.insert(line);
  return all;
}

TEST_F(Backup, LeavesEachFileOldOrNewWhereverItIsKilled) {
  done("profile add pptp --name new --host 192.0.2.1");
  done("user grant guest pptp");
  done("user policy --limit 4");
  done(BACKUP);
  done(RESTORE);
  const std::string wanted = state();
  done("profile rm new --yes");
  done("profile add l2tp --name old --host 192.0.2.1 --psk-file /root/secret");
  done("user revoke guest --yes");
  done("user policy --limit 6");
  const std::string restore_old = "restore /root/old.ormel" + BY_PASSPHRASE;
  done("backup /root/old.ormel" + BY_PASSPHRASE);
  done(restore_old);
  std::set<std::string> allowed = lines_of(wanted);
  allowed.merge(lines_of(state()));
  std::vector<std::string> traced = PLACES;
  traced.emplace_back("ASAN_OPTIONS=detect_leaks=0");  // which a traced program cannot do
  // Each call that changes what is on disk is a point to be killed at.
  constexpr int MOST = 200;
  const std::string KILLED =
      "/usr/bin/strace -qq -o /dev/null -e "
      "inject=rename,renameat,renameat2,link,linkat,unlink:signal=KILL:when=";
  const std::string command = ' ' + TOOL + ' ' + RESTORE;
  int point = 0, status = -1;
  while (status != 0 && ++point < MOST) {
    SCOPED_TRACE(point);
    const std::string when = KILLED + std::to_string(point);
    status = run(words_of(when + command), traced).status;
    for (const std::string& line : lines_of(state())) EXPECT_THAT(allowed, testing::Contains(line));
    done(RESTORE);
    EXPECT_EQ(state(), wanted);
    ASSERT_EQ(ctl(restore_old).status, 0);
  }
  EXPECT_GT(point, 6) << "there were points to be killed at";
  EXPECT_LT(point, MOST);
}

TEST_F(Backup, StartsAgainWhatItStoppedWhenAFileCannotBeWritten) {
  const char* const rights = "/etc/config/vpn_user_ex.conf";
  done("user grant guest openvpn");
  done("server on openvpn");
  done(BACKUP);
  done("server set openvpn --max 9 --yes");
  const auto daemon = [] { return run({"/usr/bin/pgrep", "-f", "openvpn/server.conf"}).out; };
  const std::string before = daemon();
  ASSERT_THAT(before, Not(testing::IsEmpty()));
  fs::remove(rights);
  fs::create_directories(std::string(rights) + "/in the way");
  EXPECT_THAT(ended(1, RESTORE).err, AllOf(HasSubstr(std::string(rights) + " cannot be written"),
                                           HasSubstr("started again: openvpn server\n")));
  EXPECT_EQ(conf_value("OPENVPN", "Max Client"), "9");
  EXPECT_THAT(daemon(), AllOf(Not(testing::IsEmpty()), Not(before)));
  fs::remove_all(rights);
  done(RESTORE);
  EXPECT_EQ(conf_value("OPENVPN", "Max Client"), "5");
}

TEST_F(Backup, BringsTheWantedPartsAlone) {
  ctl("profile add pptp --name kept --host 192.0.2.1");
  ctl("user grant guest pptp");
  done(BACKUP);
  ctl("user revoke guest --yes");
  ctl("profile rm kept --yes");
  done(RESTORE + " --only rights");
  EXPECT_THAT(ctl("user list --filter guest").out, HasSubstr("pptp"));
  EXPECT_EQ(ctl("profile show kept").status, 3);
  const std::string profiles = RESTORE + " --only profiles";
  done(profiles);
  EXPECT_EQ(ctl("profile show kept").status, 0);

  const std::string damaged = "what was here\n";
  write(VPN_CONF, damaged);
  for (const char* more : {" --as-copy", " --dry-run"})
    EXPECT_THAT(ctl(profiles + more).err, HasSubstr("restore all of the backup"))
        << "not beside this";
  EXPECT_EQ(ctl(profiles).status, 1);
  EXPECT_EQ(read(VPN_CONF), damaged);
  done(RESTORE);
  EXPECT_EQ(ctl("profile show kept").status, 0);
  EXPECT_EQ(read(std::string(VPN_CONF) + ".damaged"), damaged);
}

TEST_F(Backup, SaysThatTheNextStepOfItsRotationIsOverdue) {
  constexpr const char* ROTATION = "/etc/openvpn/keys/rotation";
  const std::string ahead = std::to_string(std::time(nullptr) + 3600);
  const std::string over = "1000";
  for (const std::string& change : {over, ahead}) {
    SCOPED_TRACE(change);
    write(ROTATION, std::string("phase=overlap\noverlap=60\nbegun=900\nchange=")
                        .append(change)
                        .append("\nend=")
                        .append(ahead)
                        .append("\n"));
    done(BACKUP);
    const auto warns = [](const std::string& line) {
      return ctl(line).out.find("change-over was due on ") != std::string::npos;
    };
    EXPECT_FALSE(warns(RESTORE + " --dry-run")) << "that is so already";
    fs::remove(ROTATION);
    EXPECT_EQ(warns(RESTORE + " --dry-run"), change == over);
    EXPECT_EQ(warns(RESTORE), change == over);
    EXPECT_TRUE(fs::exists(ROTATION)) << "it comes back even so";
  }
  fs::remove(ROTATION);
}

TEST_F(Backup, BringsCopiesOfProfilesBesideThePresentOnes) {
  done("server on openvpn");
  write("/root/office.ovpn", ctl("profile export").out);
  done("profile import /root/office.ovpn --name far --user guest --pass-file /root/secret --yes");
  done("profile add pptp --name office --host 192.0.2.1");
  done("profile add wireguard --name w --address 198.18.8.5" + PEER);
  done(BACKUP);
  EXPECT_EQ(ctl(RESTORE + " --as-copy").status, 2) << "for profiles alone";
  EXPECT_THAT(done(RESTORE + " --as-copy --only profiles").out,
              HasSubstr("warning: w (wireguard/1) is not copied: "));
  EXPECT_THAT(ctl("profile list").out, AllOf(HasSubstr("office (copy)"), HasSubstr("far (copy)"),
                                             Not(HasSubstr("w (copy)"))));
  EXPECT_THAT(read("/etc/config/openvpn/clients/client2"), HasSubstr("dev tun2002\n"));
  EXPECT_THAT(read("/etc/config/openvpn/clients/client1"), HasSubstr("dev tun2001\n"));
  EXPECT_EQ(conf_value("OPENVPN_CLIENT2", "Name"), "guest");
}

TEST_F(Backup, IsMadeShownAndRestoredOverTheWeb) {
  ctl("profile add pptp --name a --host 192.0.2.1");
  const std::string admin = begin_session("admin"), guest = begin_session("guest");
  const std::string secret = "passphrase=" + PASSPHRASE;
  EXPECT_THAT(
      run({"/usr/bin/curl", "-ksS", "-o", "/root/web.ormel", "-D", "/dev/stdout", "--data",
           "sid=" + admin, "--data-urlencode", secret, "https://localhost/ormel/backup/download"})
          .out,
      HasSubstr("filename=backup.ormel"));
  EXPECT_EQ(
      error_of(
          https("/ormel/backup/download", {"--data", "sid=" + admin + "&passphrase=short"}).body),
      15);
  EXPECT_EQ(error_of(https("/ormel/backup/download",
                           {"--data", "sid=" + guest, "--data-urlencode", secret})
                         .body),
            39);
  ctl("profile rm a --yes");
  const auto upload = [&](const std::string& route, const std::string& sid,
                          const std::string& words) {
    return https(route, {"-F", "sid=" + sid, "-F", words, "-F", "backup=@/root/web.ormel"}).body;
  };
  EXPECT_EQ(error_of(upload("/ormel/backup/inspect", guest, secret)), 39);
  EXPECT_EQ(error_of(upload("/ormel/backup/inspect", admin, "passphrase=another one")), 38);
  EXPECT_THAT(upload("/ormel/backup/inspect", admin, secret),
              AllOf(HasSubstr(R"("profiles":["a"])"), HasSubstr(R"x("added":["a (pptp/1)"])x")));
  EXPECT_EQ(ctl("profile show a").status, 3) << "a look changes nothing";
  EXPECT_EQ(error_of(upload("/ormel/backup/restore", admin, secret)), 0);
  EXPECT_EQ(ctl("profile show a").status, 0);
  EXPECT_EQ(uploads(), 0U);
  EXPECT_THAT(read(LOG), Not(HasSubstr(PASSPHRASE)));
}

TEST_F(Backup, ADocumentIsAppliedOnceAndRefusedWhole) {
  ctl("server on openvpn");
  ctl("profile add pptp --name office --host 192.0.2.1");
  write(SITE, R"({"format": 1,
    "servers": {"openvpn": {"maximum": 20}, "l2tp": {"psk": {"file": "secret"}}},
    "profiles": {"branch": {"protocol": "l2tp", "host": "192.0.2.7", "psk": "abc"}},
    "rights": {"guest": ["openvpn"]},
    "gateway": {"on": true, "first": "branch", "snat": true}})");
  EXPECT_THAT(ended(6, "diff " + SITE).out, AllOf(HasSubstr("~ servers.openvpn.maximum  5 → 20\n"),
                                                  HasSubstr("~ servers.l2tp.psk  changed\n"),
                                                  HasSubstr("+ profiles.branch (l2tp)\n"),
                                                  HasSubstr("- profiles.office (pptp)\n")));
  const std::string before = state();
  EXPECT_THAT(ctl("apply " + SITE + " --dry-run").out, EndsWith("nothing was changed\n"));
  EXPECT_EQ(state(), before);

  EXPECT_EQ(done("apply " + SITE).out, "changed 3, added 2, left 1 as they are\n");
  EXPECT_EQ(conf_value("OPENVPN", "Max Client"), "20");
  EXPECT_EQ(conf_value("L2TP_CLIENT1", "PSK"), "abc");
  const std::string settled = state();
  EXPECT_EQ(shell("strace -f -e trace=execve -o /root/trace ormelctl apply " + SITE).out,
            "changed 0, added 0, left 6 as they are\n");
  // Each run looks up the place of its log.
  EXPECT_EQ(shell("grep 'execve(' /root/trace | grep -vc /sbin/getcfg").out, "1\n")
      << read("/root/trace");
  EXPECT_EQ(state(), settled);
  EXPECT_EQ(ctl("apply " + SITE + " --prune").out,
            "changed 0, added 0, removed 1, left 5 as they are\n");
  EXPECT_EQ(ctl("diff " + SITE).status, 0);
  EXPECT_EQ(ctl("diff -", ctl("export").out).status, 0);
  EXPECT_EQ(read("/usr/share/ormel/state.schema.json"), ctl("__schema").out);
}

TEST_F(Backup, ADocumentKeepsWhoseADeviceIs) {
  done(ADD_HUB);
  done("peer add phone --host vpn.example.org");
  const auto phone = [](const char* member) {
    return datum(datum(ctl("export").out, "phone", "peers"), member);
  };
  const std::string key = phone("peer_pub_key"), address = phone("peer_allow_ip");
  const auto apply = [&](const std::string& owner) {
    write(SITE, R"({"format": 1, "access": {"guest": {"until": {}, "devices": 2}},
      "peers": {"phone": {"peer_pub_key": ")" +
                    key + R"(", "peer_allow_ip": ")" + address + R"(", "owner": ")" + owner +
                    "\"}}}");
    return ctl("apply " + SITE).status;
  };
  const auto limits = [] { return run({"/usr/lib/fenro/fenro-hold", "limits"}).out; };
  EXPECT_EQ(phone("owner"), "");
  EXPECT_EQ(apply("absent"), 1);
  for (const char* owner : {"guest", "admin", ""}) {
    SCOPED_TRACE(owner);
    EXPECT_EQ(apply(owner), 0);
    EXPECT_EQ(phone("owner"), owner);
    EXPECT_EQ(fenro::read_grants().owner_of(key), owner);
    EXPECT_EQ(ctl("diff " + SITE).status, 0) << "the second time does nothing";
    EXPECT_EQ(limits().find("end of access") != std::string::npos, owner == std::string("admin"))
        << "who may have no device";
  }
  EXPECT_EQ(ctl("peer limit phone --off").status, 0);
  for (const char* owner : {"guest", ""}) EXPECT_EQ(apply(owner), 0);
  EXPECT_THAT(limits(), HasSubstr(key)) << "which an administrator has set";
  ctl("peer rm phone --yes");
  fs::remove(fenro::GRANTS);
}

TEST_F(Backup, ADocumentThatIsWrongInOnePlaceChangesNothing) {
  ctl("profile add pptp --name office --host 192.0.2.1");
  const std::string before = state();
  const std::pair<const char*, const char*> cases[] = {
      {R"("servers": {"openvpn": {"maximum": 999}})", "servers.openvpn.maximum does not take 999"},
      {R"("servers": {"l2tp": {"enable": true, "psk": ""}})", "servers.l2tp.psk"},
      {R"("servers": {"pptp": {"out_eif": "nic0"}})", "servers.pptp.out_eif does not take nic0"},
      {R"("profiles": {"x": {"protocol": "pptp", "host": "a b"}})", "profiles.x.host"},
      {R"("profiles": {"x": {"protocol": "l2tp", "host": "192.0.2.1"}})", "profiles.x cannot be"},
      {R"("profiles": {"x": {"protocol": "l2tp", "psk": {"kept": true}}})",
       "profiles.x.psk is not kept here"},
      {R"("profiles": {"x": {"protocol": "openvpn"}})", "profiles.x.config"},
      {R"("profiles": {"x": {"protocol": "openvpn", "config": "dev tap"}})", "profiles.x.config"},
      {R"("profiles": {"office": {"protocol": "l2tp", "psk": "a"}})", "profiles.office.protocol"},
      {R"("profiles": {"office": {"protocol": "pptp", "name": "b"}})", "profiles.office.name"},
      {R"("peers": {"p": {"peer_pub_key": "x", "peer_allow_ip": "198.18.7.2/32"}})",
       "peers.p.peer_pub_key"},
      {R"("peers": {"p": {"peer_pub_key": "MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM=",
                          "peer_allow_ip": "10.9.9.2/32"}})",
       "peers.p.peer_allow_ip is not in the server's network"},
      {R"("rights": {"absent": ["pptp"]})", "rights.absent is no user"},
      {R"("gateway": {"on": true, "first": "none"})", "gateway.first is no profile"},
      {R"("notifications": {"n": {"url": "ftp://x"}})", "notifications.n.url"},
      {R"("rights": )", "line 2"},
  };
  for (const auto& [member, said] : cases) {
    // Something good comes before it.
    write(SITE, std::string(R"({"format": 1, "guard": {"mode": "strict"},)") + '\n' + member + '}');
    EXPECT_THAT(ended(1, "apply " + SITE).err, HasSubstr(said));
  }
  EXPECT_EQ(state(), before);
  EXPECT_EQ(ctl("apply /nowhere.json").status, 3);
}

}  // namespace
