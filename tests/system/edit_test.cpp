// The edit routes of the web interface, and the login hook of the OpenVPN server.
#include "support/log_rows.h"
#include "support/web_request.h"

using namespace ormel::test;
namespace log_db = ormel::log_db;

namespace {

constexpr const char* CHECK = "/ormel/config/check";
constexpr const char* IMPORT = "/ormel/config/import";
constexpr const char* VERIFY = "/usr/sbin/verify_ovpn.sh";
constexpr const char* CA = "/etc/openvpn/keys/ca.crt";

// A service script that leaves a line about its work in vpn.conf, as the real ones do.
void leave_line(const std::string& line) {
  write("/etc/init.d/vpn_openvpn.sh",
        "#!/bin/sh\nprintf '%s\\n' '" + line + "' >>" + std::string(VPN_CONF) + "\n", 0755);
}

class ConfigModify : public WebHost {
 protected:
  [[nodiscard]] WebReply modify(const std::string& query) const {
    return cgi("/ormel/config/modify", admin + '&' + query);
  }
};

TEST_F(ConfigModify, RefusesInOrderAndChangesNothing) {
  const std::string before = read(VPN_CONF);
  const std::tuple<const char*, int, const char*> rows[] = {
      {"", 2, "no type"},
      {"type=9&enable=true", 2, "no type"},
      {"type=256", 36, "miss option"},
      {"type=256&index=7", 30, "no such config"},
      {"type=32&enable=true&server_mask=24&server_ip=10.0.0.1", 36, "miss option"},
      {"type=32&enable=true&server_pri_key=k&server_ip=10.0.0.1", 36, "miss option"},
      {"type=32&enable=true&server_pri_key=k&server_mask=24", 36, "miss option"},
      {"type=32&enable=TRUE&server_pri_key=k&server_mask=16&server_ip=192.168.1.1", 44,
       "ip pool conflict"},
      {"type=4&enable=True&ip_pool=192.168.77.0", 44, "ip pool conflict"},
      {"type=1&auth=nonsense", 5, "unknown option"},
  };
  for (const auto& [query, code, reason] : rows) {
    SCOPED_TRACE(query);
    const WebReply reply = modify(query);
    EXPECT_EQ(reply.status, code);
    EXPECT_EQ(reply.body, refusal(code, reason));
    EXPECT_THAT(read(LOG), HasSubstr(std::to_string(code) + ", " + reason + "\n"));
  }
  for (const char* line :
       {":index is empty.\n", ":server_pri_key is NULL.\n", ":server_mask is NULL.\n"})
    EXPECT_THAT(read(LOG), HasSubstr(line));
  EXPECT_EQ(read(VPN_CONF), before);
  EXPECT_THAT(recorded("vpn_openvpn.sh"), IsEmpty());
}

TEST_F(ConfigModify, TurnsNothingOnWithoutTheEntrance) {
  write(VPN_CONF,
        "[global]\nsetup_vpn_entrance_status = FALSE\nsetup_vpn_entrance_status = TRUE\n");
  EXPECT_EQ(modify("enable=TRUE").body, refusal(79, "setup vpn entrance failed"));
  EXPECT_EQ(modify("enable=1").body, refusal(2, "no type"));
  EXPECT_EQ(modify("type=1&enable=false&ip_pool=192.168.77.0").status, 0);
  write(VPN_CONF, "[global]\nsetup_vpn_entrance_status = TRUE\nx = FALSE\n");
  EXPECT_EQ(modify("enable=true").body, refusal(2, "no type"));
  fs::remove(VPN_CONF);
  EXPECT_EQ(modify("enable=true").body, refusal(80, "missing vpn.conf"));
}

TEST_F(ConfigModify, RestartsAServerAndReadsBackItsRules) {
  const std::string query = "type=SOVPN&enable=true&ip_pool=10.9.0.0&port=1195";
  leave_line("OPENVPN_iptables_rules = FALSE");
  EXPECT_EQ(modify(query).body, refusal(81, "wrong vpn iptables rules"));
  EXPECT_EQ(conf_value("OPENVPN", "Enable") + conf_value("OPENVPN", "VPN Port"), "TRUE1195")
      << "it is kept anyway";
  leave_line("OPENVPN_iptables_rules = TRUE");
  EXPECT_THAT(modify(query).body, AllOf(StartsWith(R"({"data":{)"), HasSubstr(R"("download":2)"),
                                        EndsWith(R"(,"error":0})")));
  leave_line("PPTP_iptables_rules = FALSE");
  EXPECT_EQ(modify(query).status, 0) << "that of another server";
}

// A profile and its companion files as an upload.
class ConfigUpload : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    record_calls(VERIFY);
  }
  [[nodiscard]] WebReply post(const char* route, const std::string& parts,
                              const std::string& query = "") const {
    return cgi(route, admin + query, {MULTIPART, "CONTENT_LENGTH=1"}, parts + "--edge--\r\n");
  }
  [[nodiscard]] WebReply check(const std::string& profile, const std::string& more = "") const {
    return post(CHECK, part("ovpn", profile, "office.ovpn") + more);
  }
};

const std::string PROFILE =
    "client\ndev tun3\nremote a.example 1194 udp\nremote b.example\n<ca>\nCERT\n</ca>\n";

TEST_F(ConfigUpload, IsJudgedByItsOptions) {
  const std::pair<std::string, const char*> rows[] = {
      {PROFILE, R"("auth_user_pass":false,"files":{},"server_ip":"a.example,b.example")"},
      {"tls-client\nremote a\nauth-user-pass\ncomp-lzo\n",
       R"("auth_user_pass":true,"compress":true,"files":{},"server_ip":"a")"},
      {"client\nremote a\ncomp-lzo YES\ndh dh.pem\npkcs12 a b\nextra-certs e\ntls-auth ta.key "
       "1\ncrl-verify crl.pem\n",
       R"("auth_user_pass":false,"compress":true,"files":{"dh":"dh.pem","pkcs12":"a b",)"
       R"("extra-certs":"e","tls_auth":"ta.key","crl_verify":"crl.pem"},"server_ip":"a")"},
      {"client\nremote a\ncomp-lzo adaptive\n<auth-user-pass>\nu\np\n</auth-user-pass>\n",
       R"("auth_user_pass":false,"compress":false,"files":{},"server_ip":"a")"},
      {"client\nremote a 1 XYZ\nproto tcp\n",
       R"("auth_user_pass":false,"files":{},"server_ip":"a")"},
      {"client\nremote a 1 TCP4\nproto\n", R"("auth_user_pass":false,"files":{},"server_ip":"a")"},
      {"client\nremote a 1 xyz\nproto\n", nullptr},
      {"client\n<connection>\nremote a\nproto\n</connection>\n", nullptr},
      {"client\nremote a\ncomp-lzo maybe\n", nullptr},
      {"client\ntls-client 1\nremote a\n", nullptr},
      {"client\ndev tun3x\nremote a\n", nullptr},
      {"client\n", nullptr},
      {"", nullptr},
  };
  for (const auto& [profile, data] : rows) {
    SCOPED_TRACE(profile);
    const std::string expected = data ? R"({"data":{)" + std::string(data) + R"(},"error":0})"
                                      : refusal(23, "incorrect client config");
    EXPECT_EQ(check(profile).body, expected);
  }
  EXPECT_EQ(uploads(), 0U);
}

TEST_F(ConfigUpload, MustBringTheFilesThatItNames) {
  const std::string ca = part("ca", "CERT", "mine.pem");
  const std::string key = part("key", "KEY", "k");
  const std::tuple<std::string, std::string, const char*> rows[] = {
      {"client\nremote a\nca ca.crt\n", "", R"("excessive":["ca.crt"],"missing":[])"},
      {PROFILE, ca + key, R"("excessive":[],"missing":["ca.crt","client.key"])"},
      {"ca x\ncert x\n", key, R"("excessive":["ca.crt","client.crt"],"missing":["client.key"])"},
      {"client\nremote a\n ca x\ncax\n", ca, R"("excessive":[],"missing":["ca.crt"])"},
      {"client\nremote a\n" + std::string(248, '#') + "\n#" + std::string(254, 'x') + "ca \n", ca,
       nullptr},
      {"client\nremote a\nca ca.crt\nkey k\n", ca + key, nullptr},
  };
  for (const char* route : {CHECK, IMPORT}) {
    for (const auto& [profile, more, lists] : rows) {
      SCOPED_TRACE(route + profile);
      fs::remove(CALLS);
      const std::string body = post(route, part("ovpn", profile, "o") + more, "&name=n").body;
      if (lists) {
        EXPECT_EQ(body, R"({"data":{)" + std::string(lists) +
                            R"(},"error":61,"reason":"missing or excessive ca files"})");
      }
      EXPECT_EQ(recorded("verify_ovpn.sh").size(), lists ? 0U : 1U);
    }
  }
  std::ignore = check("client\nremote a\nca ca.crt\nkey k\n", ca + key);
  EXPECT_THAT(recorded("verify_ovpn.sh").back(),
              MatchesRegex("/tmp/cgi-[^ |]*\\|--ca /tmp/cgi-[^ ]* --key /tmp/cgi-[^ ]* "));
}

TEST_F(ConfigUpload, IsRefusedUnread) {
  EXPECT_EQ(post(CHECK, part("ovpn", PROFILE)).body, refusal(7, "not a regular file"));
  EXPECT_EQ(post(IMPORT, "").body, refusal(7, "not a regular file"));
  EXPECT_EQ(check(std::string(1048577, '#')).body, refusal(-1, "ca_files_check ERROR"));
  EXPECT_EQ(check("ca x\n" + PROFILE, part("ca", "/tmp/a --key /etc/shadow")).body,
            refusal(-1, "ca_files_check ERROR"));
  EXPECT_THAT(recorded("verify_ovpn.sh"), IsEmpty());
  record_calls(VERIFY, 1);
  EXPECT_EQ(check(PROFILE).body, refusal(23, "incorrect client config"));
  EXPECT_EQ(post(IMPORT, part("ovpn", PROFILE, "o"), "&name=n").body,
            refusal(23, "incorrect client config"));
  EXPECT_EQ(uploads(), 0U);
}

TEST_F(ConfigUpload, IsImportedIntoTheLowestSlot) {
  const WebReply reply =
      post(IMPORT, part("ovpn", PROFILE, "o"), "&name=office&user=bob&import=/etc/passwd");
  EXPECT_EQ(reply.status, 0) << reply.body;
  EXPECT_THAT(reply.body, HasSubstr(R"("profile":"office")"));
  EXPECT_EQ(conf_value("OPENVPN_CLIENT1", "Server Address"), "a.example,b.example");
  EXPECT_THAT(read("/etc/config/openvpn/clients/client1"),
              HasSubstr("remote a.example 1194 udp\n"));
  EXPECT_EQ(uploads(), 0U);
  EXPECT_EQ(post(IMPORT, part("ovpn", PROFILE, "o")).body,
            refusal(13, "miss name or over maximum length"));
  std::string full;
  for (int i = 1; i <= 16; ++i) full += pptp_client(i);
  write(VPN_CONF, full);
  EXPECT_EQ(post(IMPORT, "").body, refusal(43, "configuration full"));
}

class ConfigDownload : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    write(CA, certificate);
    write(
        VPN_CONF,
        "[OPENVPN]\nVPN Port = 1195\nVPN Proto Type = udp\nDownload Status = 2\nEncryption = 2\n");
  }
  [[nodiscard]] WebReply get(const std::string& route) const {
    return cgi("/ormel/config/" + route, admin);
  }
  const std::string certificate = std::string(5000, 'C') + "\n";
};

TEST_F(ConfigDownload, HandsOutTheCertificateWhole) {
  const WebReply reply = get("downloadcert");
  EXPECT_EQ(reply.status, 0);
  EXPECT_EQ(reply.head,
            "Content-type: application/octet-stream\r\nContent-Disposition: attachment; "
            "filename=appliance.ca\r\nContent-Transfer-Encoding: binary");
  EXPECT_EQ(reply.body, certificate);
  EXPECT_EQ(conf_value("OPENVPN", "Download Status"), "0");
}

TEST_F(ConfigDownload, MakesAProfileOfTheServersSettings) {
  const WebReply reply = get("download");
  EXPECT_THAT(reply.head, HasSubstr("attachment; filename=appliance.ovpn\r\n"));
  EXPECT_THAT(
      reply.body,
      MatchesRegex(
          "## How to setup OpenVPN client\\?\n"
          "## 1\\. Install OpenVPN software on your platform\\.\n"
          "## 2\\. Double click appliance\\.ovpn file to create new connection profile\\.\n"
          "## 3\\. Type username and password while connection\\.\n\nclient\ndev tun\n"
          "script-security 3\nremote 192\\.168\\.77\\.1 1195\nresolv-retry infinite\nnobind\n"
          "auth-nocache\nauth-user-pass\nremote-cert-tls server\nreneg-sec 0\n"
          "cipher AES-256-CBC\ntls-cipher TLS-ECDHE-RSA-WITH-AES-256-GCM-SHA384:[^\n]*SHA256\n"
          "comp-lzo\nproto udp\nexplicit-exit-notify 1\n<ca>\nC*\n</ca>\n"));
  EXPECT_EQ(conf_value("OPENVPN", "Download Status"), "0");
  write(VPN_CONF,
        "[OPENVPN]\nVPN Proto Type = tcp\nEncryption = 0\nEnable compressed VPN link = FALSE\n"
        "Signature Algorithm = sha1WithRSAEncryption\n");
  EXPECT_THAT(
      get("download").body,
      HasSubstr(
          "\nremote 192.168.77.1 1194\n"
          "resolv-retry infinite\nnobind\nauth-nocache\nauth-user-pass\nremote-cert-tls server\n"
          "reneg-sec 0\ncipher none\ntls-cipher NONE:@SECLEVEL=0\n\nproto tcp\n\n<ca>\n"));
}

TEST_F(ConfigDownload, IsNotFoundWhateverFails) {
  const std::string not_found = "Status: 404 Not Found\r\nContent-Type: text/html\r\n\r\n";
  const auto answer = [](const std::string& route, const std::string& query) {
    return run({CGI}, {"SCRIPT_URL=/ormel/config/" + route, "QUERY_STRING=" + query}).out;
  };
  for (const char* route : {"download", "downloadcert"}) {
    for (const std::string& query : {std::string(), guest})
      EXPECT_EQ(answer(route, query), not_found);
    fs::remove(CA);
    EXPECT_EQ(answer(route, admin), not_found);
    write(CA, certificate);
  }
  EXPECT_THAT(read(LOG), HasSubstr("39, session invalid\n"));
  EXPECT_EQ(conf_value("OPENVPN", "Download Status"), "2");
}

const std::string ADMITTED = "(none)";

class LoginHook : public ProfileHost {
 protected:
  void SetUp() override {
    ProfileHost::SetUp();
    write("/etc/config/vpn_user_ex.conf", "admin:0:1:0:0:0\nguest:1:0:1:0:1\nblocked:0:1:0:0:0\n");
    password = password_of("admin");
  }
  static int login(const std::string& user, const std::string& pass) {
    return run({"/usr/sbin/ormel.sauth"},
               {"username=" + user, "password=" + pass, "untrusted_ip=203.0.113.9"})
        .status;
  }
  std::string password;
};

TEST_F(LoginHook, AdmitsByRightBlockAndPassword) {
  const std::string device = "0123456789abcdef0123456789abcdef0123", long_name(10240, 'n');
  db_device_info_data known{};
  device.copy(known.dev_uuid, sizeof known.dev_uuid - 1);
  std::strcpy(known.user_id, "admin");
  bus(log_db::SERVICE, log_db::DEVICE_INFO.insert, bytes_of(known));
  for (int i = 0; i < 5; ++i) bus(log_db::SERVICE, log_db::PRIVILEGE_USER_BLOCK.insert, "blocked");
  const std::tuple<std::string, std::string, std::string, int> rows[] = {
      // user, password, the refused name in the log, how many failures of "admin" are counted then
      {"admin", "wr0ng-secret", "admin", 1},
      {device + "-more", "wr0ng-secret", "admin", 2},
      {"guest", password, "guest", 2},
      {"blocked", password, "blocked", 2},
      {"", "", "", 2},
      {"a\xff%s\x01", "%n", "a\xff%s\x01", 2},
      {"admin", password + "\nx", "admin", 2},
      {long_name, long_name, long_name.substr(0, 1024), 2},
      {device + "-more", password, ADMITTED, 0},
      {"admin", password, ADMITTED, 0},
  };
  for (const auto& [user, pass, refused, failures] : rows) {
    SCOPED_TRACE(user.substr(0, 50));
    bus(log_db::SERVICE, log_db::CONN_SERVER_LOG.clean);
    EXPECT_EQ(login(user, pass), refused == ADMITTED ? 0 : 1);
    const auto logged = log_rows<db_conn_server_log>(log_db::CONN_SERVER_LOG.query);
    ASSERT_EQ(logged.size(), refused == ADMITTED ? 0U : 1U);
    for (const db_conn_server_log& row : logged)
      EXPECT_EQ(row.username + std::string("|") + row.source_ip, refused + "|203.0.113.9");
    for (const db_conn_server_log& row : logged) EXPECT_EQ(row.vpn_type * 10 + row.action, 41);
    int counted = 0;
    for (const auto& row :
         log_rows<db_privilege_user_block_data>(log_db::PRIVILEGE_USER_BLOCK.query))
      if (row.username == std::string("admin")) counted = row.limit;
    EXPECT_EQ(counted, failures);
  }
  EXPECT_EQ(run({"/usr/sbin/ormel.sauth"}).status, 1) << "without any variable";

  for (const char* line :
       {"sauth: ORMEL none user. guest\n", "sauth: check_privilege_user_block. blocked\n",
        "sauth: user: admin, password failed.\n"})
    EXPECT_THAT(read(LOG), HasSubstr(line));
  EXPECT_THAT(read(LOG), Not(testing::AnyOf(HasSubstr("wr0ng-secret"), HasSubstr(password))));
}

TEST_F(LoginHook, RefusesEveryoneWithoutTheDatabase) {
  run({"/usr/bin/pkill", "-KILL", "-f", "/usr/lib/fenro/ormeld"});
  EXPECT_EQ(login("admin", password), 1);
  EXPECT_THAT(read(LOG), HasSubstr("sauth: check_privilege_user_block. admin\n"));
}

}  // namespace
