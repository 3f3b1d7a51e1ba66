// Logins of PPTP and L2TP clients, as pppd's plugin asks for them: who is admitted, what counts,
// what is logged.
#include <fenro/event_log.h>

#include "daemons/mschap/mschap.h"
#include "support/log_rows.h"

using namespace ormel::test;

namespace {

constexpr const char* HELPER = "/usr/lib/fenro/fenro-mschap";
constexpr const char* PASSWORD_TOOL = "/usr/sbin/fenro-password";
constexpr const char* TABLE = "/etc/config/smbpasswd";
constexpr const char* POLICY = "/etc/config/vpn_block.conf";
constexpr const char* PAP_SECRETS = "/etc/ppp/pap-secrets";
constexpr const char* CHALLENGE = "D02E4386BCE91226";

std::string request(const std::string& password) {
  using namespace fenro::mschap;
  NtHash hash{};
  Challenge challenge{};
  Response response{};
  EXPECT_TRUE(nt_hash(password, hash) && parse_hex(CHALLENGE, challenge));
  expected_response(hash, challenge, response);
  return std::string("Username: guest\nLANMAN-Challenge: ") + CHALLENGE +
         "\nNT-response: " + to_hex(response) + "\n.\n";
}

std::ptrdiff_t refusals() {
  return server_events(1, 1, "guest");
}

class PppLogin : public testing::Test {
 protected:
  void SetUp() override {
    password = read("/var/lib/appliance/password.guest");
    password.pop_back();
    write("/etc/ppp/chap-secrets", "\"guest\"\tpptpd\t&/etc/config/smbpasswd\t*\n");
    write(PAP_SECRETS, "\"guest\"\tpptpd\t@login\t*\n\"other\"\tpptpd\tsecret\t*\n");
    write(POLICY, R"({"global": {"enable": true, "limit": 3, "time": 30}})");
    run({"/usr/bin/mibsh", "@/var/run/ormeld.sock.db_privilege_user_block_clean"});
    run({"/usr/bin/mibsh", "@/var/run/ormeld.sock.db_conn_server_log_clean"});
    ASSERT_EQ(run({PASSWORD_TOOL, "guest"}, {}, password + '\n').status, 0);
  }
  void TearDown() override {
    for (const char* file : {POLICY, PAP_SECRETS}) fs::remove(file);
    run({"/usr/sbin/usermod", "--unlock", "guest"});
    run({"/usr/sbin/chpasswd"}, {}, "guest:" + password + '\n');
    run({PASSWORD_TOOL, "guest"}, {}, password + '\n');
  }
  static bool admits(const std::string& word) {
    return run({HELPER, "pptpd"}, {}, request(word)).out.starts_with("Authenticated: Yes\n");
  }
  static int pap(const std::string& user, const std::string& word) {
    return run({HELPER, "pptpd", "pap"}, {}, user + '\n' + word + '\n').status;
  }
  std::string password;
};

TEST_F(PppLogin, AUserWhoIsKeptOutIsRefusedByBothWaysAndNotCounted) {
  ASSERT_EQ(run({"/usr/lib/fenro/fenro-hold", "add", "user", "guest", "3600"}).status, 0);
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(admits(password));
  EXPECT_EQ(pap("guest", password), 1);
  EXPECT_EQ(refusals(), 5);
  ASSERT_EQ(run({"/usr/lib/fenro/fenro-hold", "lift", "guest"}).status, 0);
  EXPECT_TRUE(admits(password)) << "refusals did not block the user";
  EXPECT_EQ(pap("guest", password), 0);
}

TEST_F(PppLogin, WrongPasswordsByPapCountBlockAndAreLogged) {
  EXPECT_EQ(pap("guest", password), 0);
  EXPECT_EQ(pap("other", "secret"), 3) << "pppd's own affair";
  EXPECT_EQ(pap("admin", "x"), 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(pap("guest", "wrong"), 1);
  EXPECT_EQ(pap("guest", password), 1) << "blocked";
  EXPECT_EQ(refusals(), 4);
}

TEST_F(PppLogin, ManyWrongPasswordsAtOnceCountLikeOneAfterTheOther) {
  EXPECT_TRUE(admits(password));
  EXPECT_EQ(refusals(), 0);
  write("/tmp/wrong", request("wrong"));
  const char* script =
      "for i in $(seq 32); do /usr/lib/fenro/fenro-mschap pptpd </tmp/wrong >/dev/null & done; "
      "wait";
  EXPECT_EQ(run({"/bin/bash", "-c", script}, {"PATH=/usr/bin"}).status, 0);
  const auto rows =
      log_rows<db_privilege_user_block_data>(ormel::log_db::PRIVILEGE_USER_BLOCK.query);
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows.front().limit, 3U) << "those after the third found the user blocked";
  EXPECT_FALSE(admits(password)) << "blocked";
  EXPECT_EQ(refusals(), 33);
}

TEST_F(PppLogin, TheHashFollowsThePassword) {
  ASSERT_EQ(run({"/usr/bin/passwd", "guest"}, {}, "other-word-1\nother-word-1\n").status, 0);
  EXPECT_TRUE(admits("other-word-1"));
  EXPECT_FALSE(admits(password));
  EXPECT_NE(run({PASSWORD_TOOL, "guest"}, {}, "no-such-word\n").status, 0);
  EXPECT_TRUE(admits("other-word-1"));
  EXPECT_EQ(mode_of(TABLE), 0600U);
  ASSERT_EQ(run({"/usr/sbin/usermod", "--lock", "guest"}).status, 0);
  EXPECT_FALSE(admits("other-word-1")) << "a locked account";
  ASSERT_EQ(run({"/usr/sbin/usermod", "--unlock", "guest"}).status, 0);
  const std::string accounts = read("/etc/passwd"), secrets = read("/etc/shadow");
  EXPECT_TRUE(admits("other-word-1"));
  run({"/bin/sed", "-i", "/^guest:/d", "/etc/passwd", "/etc/shadow"});
  EXPECT_FALSE(admits("other-word-1")) << "a deleted account";
  write("/etc/passwd", accounts);
  write("/etc/shadow", secrets);
}

TEST_F(PppLogin, WithoutAHashNobodyIsCounted) {
  fs::remove(TABLE);
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(admits(password));
  EXPECT_TRUE(
      log_rows<db_privilege_user_block_data>(ormel::log_db::PRIVILEGE_USER_BLOCK.query).empty());
  EXPECT_EQ(naslog_event_query_count_ex(0, nullptr, nullptr, "guest", nullptr, nullptr,
                                        "[VPN] guest may use PPTP", nullptr, nullptr),
            1);
  ASSERT_EQ(run({PASSWORD_TOOL, "guest"}, {}, password + '\n').status, 0);
  EXPECT_TRUE(admits(password));
}

}  // namespace
