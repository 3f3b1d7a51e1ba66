// What a general user may do about their own access, and access that ends: with the real servers,
// daemons and the keeper of two appliances.
// appliance: --pair --web

#include "base/grants.h"
#include "support/far_appliance.h"
#include "support/ormelctl.h"
#include "support/web_request.h"

namespace ormel::test {
namespace {

using testing::Contains;

constexpr int PATIENCE = 40;  // seconds for a tunnel to come or go on a busy machine
constexpr const char* STORE = "/etc/config/vpn_user_ex.conf";
constexpr const char* PEERS = "/etc/config/ormel/wireguard/server_peers.conf";

// One member of each row of a list in the data.
std::vector<std::string> column(const std::string& body, const char* list, const char* name) {
  const Json answer = parsed(body);
  std::vector<std::string> values;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(json_object_get(json_object_get(answer.get(), "data"), list), at, row)
      values.push_back(text_of(json_object_get(row, name)));
  return values;
}

class MyAccess : public testing::Test {
 protected:
  void SetUp() override {
    if (const fenro::Fd device{open("/dev/net/tun", O_RDWR | O_CLOEXEC)}; !device)
      GTEST_SKIP() << "no TUN device";
    for (const char* file : {STORE, PEERS, fenro::GRANTS, "/run/fenro/device_changes.json",
                             "/var/lib/ormel/holds.json", "/etc/config/ormel/public_address"})
      fs::remove(file);
    far::run({"/bin/rm", "-rf", VPN_CONF, "/etc/config/openvpn/clients/client1"});
    static const Result server =  // one for all tests
        shell(
            "rm -f /etc/config/vpn.conf; /etc/init.d/vpn_common.sh setup_vpn_entrance && "
            "ormel --type=SOVPN --modify=0 --ip_pool=10.8.0.0 --port=1194 --enable=TRUE");
    ASSERT_EQ(server.status, 0) << server.err;
    ASSERT_EQ(ctl("user grant guest openvpn").status, 0);
    guest = begin_session("guest");
    admin = begin_session("admin");
    ASSERT_EQ(error_of(ask("log/cleanup", admin, "&type=23")), 0);
  }
  void TearDown() override {
    if (IsSkipped()) return;
    far::run({"/etc/init.d/vpn_openvpn_client.sh", "stop", "1"});
    cli({"--type=SWG", "--modify=0", "--enable=FALSE"});
    EXPECT_TRUE(comes_true([&] { return sessions().empty(); }, PATIENCE));
  }
  static std::string ask(const std::string& route, const std::string& sid,
                         const std::string& form = {}) {
    return https("/ormel/" + route, {"--data", "sid=" + sid + form}).body;
  }
  [[nodiscard]] std::string my(const std::string& route, const std::string& form = {}) const {
    return ask("my/" + route, guest, form);
  }
  [[nodiscard]] int remove_device(const std::string& key) const {
    return error_of(https("/ormel/my/device_remove",
                          {"--data", "sid=" + guest, "--data-urlencode", "key=" + key})
                        .body);
  }
  // The profile that the user has downloaded connects the far appliance.
  void connect() const {
    far::write("/tmp/office.ovpn", my("profile"));
    ASSERT_EQ(
        far::cli(
            words_of("--type=OVPN --import=/tmp/office.ovpn --name=office --user=guest --pass=" +
                     password))
            .status,
        0);
    ASSERT_EQ(far::cli({"--type=OVPN", "--connect=1"}).status, 0);
    ASSERT_TRUE(comes_true([&] { return !sessions().empty(); }, PATIENCE));
  }
  [[nodiscard]] std::vector<std::string> sessions() const {
    return column(my("show"), "sessions", "id");
  }
  // How the servers decide about a password, the right one by default.
  [[nodiscard]] int login(const std::string& typed = {}) const {
    return run({"/usr/sbin/ormel.sauth"},
               {"username=guest", "password=" + (typed.empty() ? password : typed),
                "untrusted_ip=192.0.2.9", "auth_failed_reason_file=/tmp/reason"})
        .status;
  }
  static void turn_wireguard_on(int devices) {
    ASSERT_EQ(shell("ormel --type=SWG --modify=0 --server_name=office --server_ip=198.18.7.1 "
                    "--server_mask=24 --enable=TRUE")
                  .status,
              0);
    ASSERT_EQ(ctl("user grant guest --devices " + std::to_string(devices)).status, 0);
  }
  const std::string password = password_of("guest");
  std::string guest, admin;
};

TEST_F(MyAccess, IsThatOfTheSessionAlone) {
  turn_wireguard_on(2);
  ASSERT_EQ(ctl("user grant admin --devices 1").status, 0);
  const std::string mine = datum(ask("my/device_add", admin, "&name=laptop"), "key");
  ASSERT_EQ(mine.size(), 44U);
  connect();
  const std::string id = "&id=4%7C" + sessions().front().substr(2);
  const std::tuple<const char*, std::string, int> rows[] = {
      {"my/show", "&user=admin&name=admin", 0}, {"my/device_remove", "&key=x" + mine, 30},
      {"my/end", "&id=4%7C192.0.2.1:1", 30},    {"my/device_add", "&name=", 13},
      {"my/device_add", "&name=%07", 9},        {"my/device_add", "&name=%ff", 9}};
  for (const auto& [route, form, code] : rows) {
    SCOPED_TRACE(route + form);
    for (const char* sid : {"", "00000000"}) EXPECT_EQ(error_of(ask(route, sid, form)), 39);
    for (const std::string& sid : {guest, admin}) EXPECT_EQ(error_of(ask(route, sid, form)), code);
  }
  EXPECT_EQ(error_of(ask("my/profile", "")), 39);
  EXPECT_EQ(error_of(ask("my/profile", admin)), 45) << "an administrator without the right";

  EXPECT_EQ(datum(my("show", "&user=admin"), "user"), "guest");
  EXPECT_THAT(column(my("show"), "devices", "name"), IsEmpty());
  EXPECT_THAT(column(ask("my/show", admin), "devices", "name"), ElementsAre("laptop"));
  EXPECT_THAT(column(ask("my/show", admin), "sessions", "id"), IsEmpty());
  EXPECT_EQ(remove_device(mine), 30) << "an administrator's device";
  EXPECT_EQ(error_of(ask("my/end", admin, id)), 30) << "a session of another user";
  EXPECT_THAT(read(PEERS), HasSubstr(mine));
  EXPECT_THAT(sessions(), Not(IsEmpty()));
  EXPECT_THAT(my("show"), Not(ContainsRegex("pri_key|psk|password")));
}

TEST_F(MyAccess, ConnectsByTheOwnProfileAndEndsTheOwnSession) {
  ASSERT_EQ(ctl("address set 192.168.77.1").status, 0);
  EXPECT_THAT(my("profile"), HasSubstr("\nremote 192.168.77.1 1194\n"));
  connect();
  const std::string shown = my("show");
  EXPECT_THAT(column(shown, "rights", "name"), ElementsAre("OpenVPN"));
  EXPECT_THAT(column(shown, "rights", "until"), ElementsAre("0"));
  EXPECT_THAT(column(shown, "logins", "refused"), Not(IsEmpty()));
  const std::string id = column(shown, "sessions", "id").front();
  EXPECT_EQ(error_of(my("end", "&id=4%7C" + id.substr(2))), 0);
  EXPECT_THAT(ctl("audit --json").out, HasSubstr("my/end"));
  ASSERT_EQ(ctl("user revoke guest --yes").status, 0);
  EXPECT_EQ(error_of(my("profile")), 45);
  EXPECT_NE(login(), 0);
  EXPECT_THAT(column(my("show"), "logins", "reason").front(), "no right to use this server");
}

TEST_F(MyAccess, EndsOnTime) {
  connect();
  ASSERT_EQ(login(), 0);
  const std::string end = std::to_string(std::time(nullptr) + 6);
  ASSERT_EQ(error_of(ask("grant/set", admin, "&user=guest&type=4&until=" + end)), 0);
  EXPECT_EQ(login(), 0) << "not yet";
  EXPECT_TRUE(comes_true([&] { return read(STORE) == "guest:0:0:0:0:0\n"; }, PATIENCE));
  EXPECT_TRUE(comes_true([&] { return sessions().empty(); }, PATIENCE));
  EXPECT_NE(login(), 0);
  EXPECT_TRUE(comes_true([] { return fenro::read_grants().grants.empty(); }, PATIENCE))
      << "its end is forgotten once the right is gone";
  EXPECT_THAT(ctl("audit").out, ContainsRegex("keeper +user revoke +guest .*openvpn → none +ok"));
  EXPECT_THAT(ctl("log events").out, HasSubstr("The access of guest to OpenVPN has ended"));
  // A new right does not get an earlier end.
  ASSERT_EQ(ctl("user grant guest openvpn").status, 0);
  EXPECT_EQ(login(), 0);
}

TEST_F(MyAccess, EndsOnTimeThoughTheListOfEndsIsDamaged) {
  const std::string file = fenro::GRANTS, copy = file + ".good";
  ASSERT_EQ(ctl("user grant guest openvpn --until 5s").status, 0);
  ASSERT_TRUE(comes_true([&] { return read(copy) == read(file); }, PATIENCE));
  write(file, "{\"grants\":[");
  EXPECT_EQ(login(), 0) << "not yet";
  EXPECT_TRUE(comes_true([&] { return login() != 0; }, PATIENCE));
  EXPECT_TRUE(comes_true([&] { return read(STORE) == "guest:0:0:0:0:0\n"; }, PATIENCE));
  const std::string cure = "cp " + copy + ' ' + file;
  EXPECT_THAT(ctl("doctor").out, HasSubstr("-> " + cure));
  EXPECT_THAT(done("status").err, HasSubstr(cure));
  EXPECT_THAT(ctl("log events").out, HasSubstr(cure));
  EXPECT_NE(ctl("user grant guest openvpn --until 1d").status, 0);
  ASSERT_EQ(shell(cure).status, 0);
  EXPECT_TRUE(comes_true([] { return fenro::read_grants().grants.empty(); }, PATIENCE));
  EXPECT_TRUE(comes_true([&] { return read(copy) == read(file); }, PATIENCE));
}

// A keeper that hangs, then one that is started again: nobody comes in meanwhile.
TEST_F(MyAccess, EndsWithoutTheKeeperAndIsRevokedOnceItIsBack) {
  ASSERT_EQ(shell("pkill -STOP -x fenro-keeperd").status, 0);
  ASSERT_EQ(ctl("user grant guest openvpn --until 2s").status, 0);
  EXPECT_TRUE(comes_true([&] { return login() != 0; }, PATIENCE));
  EXPECT_EQ(read("/tmp/reason"), "the right to use this server has ended");
  EXPECT_EQ(error_of(my("profile")), 45);
  EXPECT_THAT(column(my("show"), "rights", "name"), IsEmpty());
  EXPECT_EQ(read(STORE), "guest:0:1:0:0:0\n");
  shell("pkill -KILL -x fenro-keeperd; /usr/lib/fenro/fenro-keeperd </dev/null >/dev/null 2>&1 &");
  EXPECT_TRUE(comes_true([&] { return read(STORE) == "guest:0:0:0:0:0\n"; }, PATIENCE));
  EXPECT_NE(login(), 0);
  // A run that read the rights earlier writes them again: they do not come back without their end.
  EXPECT_TRUE(comes_true([] { return fenro::read_grants().grants.empty(); }, PATIENCE));
}

// The other servers ask at each login, too; the keeper hangs.
TEST_F(MyAccess, EndsAtEachServer) {
  write(STORE, "guest:0:0:0:0:0\n");
  ASSERT_EQ(ctl("user grant guest pptp,l2tp,drovik").status, 0);
  ASSERT_EQ(shell("ormel --type=SDROVIK --modify=0 --enable=TRUE --psk=key --port=4443").status, 0);
  ASSERT_EQ(far::cli(words_of("--type=DROVIK --add --name=office --host=192.168.77.1 --port=4443 "
                              "--user=guest --psk=key --pass=" +
                              password))
                .status,
            0);
  const auto dialled = [&](const char* server) {
    return run({"/usr/lib/fenro/fenro-mschap", server, "pap"}, {}, "guest\n" + password + '\n')
        .status;
  };
  EXPECT_EQ(dialled("pptpd"), 0);
  EXPECT_EQ(dialled("l2tpd"), 0);
  ASSERT_EQ(shell("pkill -STOP -x fenro-keeperd").status, 0);
  ASSERT_EQ(ctl("user grant guest pptp,drovik --until 1s").status, 0);
  EXPECT_TRUE(comes_true([&] { return dialled("pptpd") == 1; }, PATIENCE));
  EXPECT_EQ(dialled("l2tpd"), 0) << "its right has no end";
  far::cli({"--type=DROVIK", "--connect=1"});
  EXPECT_TRUE(
      comes_true([&] { return column(my("show"), "logins", "type").front() == "16"; }, PATIENCE));
  EXPECT_THAT(column(my("show"), "logins", "reason"),
              Each("the right to use this server has ended"));
  run({"/usr/bin/pkill", "-CONT", "-x", "fenro-keeperd"});
  EXPECT_TRUE(comes_true([&] { return read(STORE) == "guest:0:0:1:0:0\n"; }, PATIENCE));
  far::cli({"--type=DROVIK", "--remove=1"});
  cli({"--type=SDROVIK", "--modify=0", "--enable=FALSE"});
}

TEST_F(MyAccess, ConnectsAnOwnDevice) {
  turn_wireguard_on(1);
  const std::string added = my("device_add", "&name=phone");
  far::write("/tmp/phone.conf", datum(added, "configuration"));
  const Result imported =
      far::run(words_of("/usr/sbin/ormelctl profile import /tmp/phone.conf --yes"), PLACES);
  ASSERT_EQ(imported.status, 0) << imported.out << imported.err;
  ASSERT_EQ(far::cli({"--type=WG", "--connect=1"}).status, 0);
  const auto reaches = [] {
    return far::run({"/bin/ping", "-c1", "-W1", "198.18.7.1"}).status == 0;
  };
  EXPECT_TRUE(comes_true(reaches, PATIENCE));
  EXPECT_THAT(column(my("show"), "devices", "handshake"), Not(Contains("0")));
  EXPECT_EQ(remove_device(datum(added, "key")), 0);
  EXPECT_FALSE(reaches());
  far::cli({"--type=WG", "--remove=1"});
}

TEST_F(MyAccess, AddsDevicesUpToTheQuotaAndOnTimeOnly) {
  EXPECT_EQ(error_of(my("device_add", "&name=phone")), 45) << "no right to have any";
  turn_wireguard_on(2);
  const std::string added = my("device_add", "&name=%C3%A9%22%5B%25&all=1");
  ASSERT_EQ(error_of(added), 0) << added;
  const std::string file = datum(added, "configuration");
  EXPECT_THAT(file, HasSubstr("AllowedIPs = 0.0.0.0/0\nEndpoint = 192.168.77.1:51820\n"));
  EXPECT_THAT(column(my("show"), "devices", "name"), ElementsAre("é\"[%"));
  const std::string private_key = file.substr(file.find("= ") + 2, 44);
  EXPECT_EQ(shell("grep -rqF " + private_key + " /etc /var /run/fenro").status, 1)
      << "is kept nowhere";

  // Two at once for the last place.
  const std::string add =
      "curl -ksS https://localhost/ormel/my/device_add -d 'sid=" + guest + "&name=";
  const std::string answers = shell(add + "a' & " + add + "b'; wait").out;
  EXPECT_THAT(answers, AllOf(HasSubstr("\"error\":0"), HasSubstr("\"error\":43")));
  EXPECT_EQ(column(my("show"), "devices", "key").size(), 2U);

  // The end of devices keeps them out.
  ASSERT_EQ(ctl("user grant guest --devices 2 --until 3s").status, 0);
  EXPECT_TRUE(comes_true([&] { return datum(my("show"), "quota") == "0"; }, PATIENCE));
  EXPECT_EQ(error_of(my("device_add", "&name=late")), 45);
  EXPECT_TRUE(comes_true([] { return wireguard_peers().empty(); }, PATIENCE));
  ASSERT_EQ(ctl("user grant guest --devices 2").status, 0);

  // What an administrator keeps out stays out, whatever is granted to its user.
  const std::string key = datum(added, "key");
  EXPECT_TRUE(
      comes_true([&] { return wireguard_peers().find(key) != std::string::npos; }, PATIENCE));
  ASSERT_EQ(ctl({"peer", "limit", "é\"[%", "--off"}).status, 0);
  ASSERT_EQ(ctl("user grant guest --devices 3 --until 1h").status, 0);
  ASSERT_EQ(ctl("user grant guest --devices 2").status, 0);
  EXPECT_THAT(wireguard_peers(), AllOf(Not(HasSubstr(key)), HasSubstr("=")));
  // The last right goes, since PPTP takes no codes, but the devices stay.
  ASSERT_EQ(ctl("user revoke guest openvpn --yes").status, 0);
  ASSERT_EQ(ctl("user grant guest pptp").status, 0);
  ASSERT_EQ(ctl("user totp guest require").status, 0);
  EXPECT_EQ(fenro::read_grants().of("guest").devices, 2);
  ASSERT_EQ(ctl("user totp guest optional").status, 0);
  ASSERT_EQ(ctl("user grant guest openvpn").status, 0);
  guest = begin_session("guest");  // the requirement has ended the other one

  // An administrator removes one: the user has a place again.
  ASSERT_EQ(ctl({"peer", "rm", "é\"[%", "--yes"}).status, 0);
  EXPECT_EQ(column(my("show"), "devices", "key").size(), 1U);
}

// Each gets a separate index and address.
TEST_F(MyAccess, AddsDevicesBesideAnAdministrator) {
  turn_wireguard_on(8);
  shell("for i in 1 2 3 4 5 6 7 8; do curl -ksS -d sid=" + guest +
        " -d name=own$i https://localhost/ormel/my/device_add & "
        "ormelctl peer add near$i --host 192.0.2.1 & wait; done >/tmp/answers");
  const std::string addresses = std::string("grep -o '198[.]18[.]7[.][0-9]*' ") + PEERS;
  const std::string stored = shell(addresses + " | wc -l").out;
  EXPECT_EQ(shell(addresses + " | sort -u | wc -l").out, stored) << read(PEERS);
  EXPECT_EQ(shell("grep -o '[[]Interface]' /tmp/answers | wc -l").out, stored)
      << read("/tmp/answers");
  EXPECT_GT(std::stoi(stored), 8);
}

TEST_F(MyAccess, ChangesDevicesTenTimesAnHourAtMost) {
  turn_wireguard_on(3);
  for (int i = 0; i < 5; ++i) {
    const std::string key = datum(my("device_add", "&name=phone"), "key");
    ASSERT_EQ(key.size(), 44U);
    ASSERT_EQ(remove_device(key), 0);
  }
  EXPECT_EQ(error_of(my("device_add", "&name=phone")), 45);
  EXPECT_EQ(error_of(ask("my/device_add", admin, "&name=phone")), 45) << "has no right at all";
  ASSERT_EQ(ctl("user grant admin --devices 1").status, 0);
  EXPECT_EQ(error_of(ask("my/device_add", admin, "&name=phone")), 0) << "another user's ten";
}

TEST_F(MyAccess, ShowsWrongPasswordsAndTheBlock) {
  EXPECT_EQ(error_of(ask("privilege/block", admin, "&enable=true&limit=2&time=30")), 0);
  for (const auto& [failed, blocked] : {std::pair{"1", false}, {"2", true}}) {
    EXPECT_NE(login("wrong"), 0);
    const std::string shown = my("show");
    EXPECT_EQ(datum(shown, "failed"), failed);
    EXPECT_EQ(datum(shown, "blocked_until") != "0", blocked) << failed;
  }
  EXPECT_EQ(ctl("user unlock guest").status, 0);
  EXPECT_EQ(error_of(ask("privilege/block", admin, "&enable=true&limit=5&time=30")), 0);
  EXPECT_EQ(login(), 0);
}

TEST_F(MyAccess, IsSeenInTheListOfUsers) {
  ASSERT_EQ(ctl("user grant guest openvpn,drovik --until 2037-12-31T18:00 --devices 2").status, 0);
  EXPECT_THAT(ctl("user list").out,
              ContainsRegex("guest +openvpn drovik wireguard\\(2\\) +2037-12-31 18:00"));
  // A document takes the end along, and refuses one that is over.
  const std::string site = ctl("export").out;
  write("/root/site.json", site);
  ASSERT_EQ(ctl("user revoke guest --yes").status, 0);
  EXPECT_TRUE(fenro::read_grants().grants.empty());
  EXPECT_EQ(ctl("apply /root/site.json").status, 0);
  EXPECT_EQ(ctl("diff /root/site.json").status, 0);
  EXPECT_THAT(fenro::read_grants().of("guest").until, testing::SizeIs(3));
  const std::string end = std::to_string(fenro::read_grants().of("guest").end_of(4));
  write("/root/old.json", std::string(site).replace(site.find(end), end.size(), "1000000000"));
  EXPECT_THAT(ctl("apply /root/old.json").err, HasSubstr("is over"));

  EXPECT_EQ(ctl("user revoke guest drovik --yes").status, 0);
  EXPECT_THAT(fenro::read_grants().of("guest").until, testing::SizeIs(2)) << "its end went with it";
  EXPECT_EQ(ctl("user grant guest openvpn").status, 0);
  EXPECT_EQ(fenro::read_grants().of("guest").end_of(4), 0) << "no date any more";
  for (const char* wrong : {"yesterday", "2001-01-01", "2037-02-30"})
    EXPECT_EQ(ctl(std::string("user grant guest openvpn --until ") + wrong).status, 2) << wrong;
  EXPECT_EQ(ctl("user grant guest --devices 101").status, 2);
  EXPECT_EQ(ctl("undo --yes").status, 0);
  EXPECT_NE(fenro::read_grants().of("guest").end_of(4), 0) << "back with its date";
}

}  // namespace
}  // namespace ormel::test
