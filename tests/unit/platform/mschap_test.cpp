#include <gtest/gtest.h>

#include "daemons/mschap/accounts.h"
#include "daemons/mschap/helper.h"
#include "daemons/mschap/password_table.h"
#include "unit/platform/scratch.h"

namespace fenro::mschap {
namespace {

// The worked example that the protocol's authors published: user "User", password "clientPass".
constexpr const char* CHALLENGE = "D02E4386BCE91226";
constexpr const char* RESPONSE = "82309ECD8D708B5EA08FAA3981CD83544233114A3D85D6DF";
constexpr const char* PASSWORD_HASH = "44EBBA8D5312B8D611474411F56989AE";
constexpr const char* SESSION_KEY = "41C00C584BD2D91C4017A2A12FA59F3F";

TEST(MschapTest, GivesThePublishedResponse) {
  NtHash hash{};
  Challenge challenge{};
  Response response{};
  ASSERT_TRUE(nt_hash("clientPass", hash) && parse_hex(CHALLENGE, challenge));
  expected_response(hash, challenge, response);
  EXPECT_EQ(to_hex(hash), PASSWORD_HASH);
  EXPECT_EQ(to_hex(response), RESPONSE);
  EXPECT_EQ(to_hex(session_key(hash)), SESSION_KEY);
  for (const char* bad : {"\xff", "\xc3", "\xed\xa0\x80", "\xc0\x80", "\xf8\x88\x80\x80\x80"})
    EXPECT_FALSE(nt_hash(bad, hash));
}

class HelperTest : public testing::Test {
 protected:
  HelperTest() {
    const std::string hash = PASSWORD_HASH, none(32, 'X');
    const std::string lines = "User:1000:" + none + ":" + hash + ":[U  ]:LCT-5F000000:\n" +
                              "off:1001:X:" + hash + ":[UD  ]:LCT-5F000000:\n" +
                              "none:1002:X:" + none + ":[U]:\n" + "DOM\\User:1003:X:" + hash +
                              ":[U]:\n";
    table = "&" + scratch.write("smbpasswd", lines);
    std::string users = line("plain", "clientPass") + "\"other\"\tl2tpd\t" + table + "\t*\n";
    for (const char* user : {"User", "off", "none", "DOM\\User"}) users += line(user, table);
    secrets = scratch.write("chap-secrets", users);
  }
  static std::string line(const std::string& user, const std::string& secret) {
    return "\"" + user + "\"\tpptpd\t" + secret + "\t*\n";
  }
  std::string ask(const std::string& names, const std::string& response = RESPONSE) {
    const std::string request =
        names + "LANMAN-Challenge: " + CHALLENGE + "\nLANMAN-response: " + std::string(48, '0') +
        "\nNT-response: " + response + "\nRequest-User-Session-Key: yes\n.\n";
    return judge(request, secrets.c_str(), "pptpd");
  }
  test::Scratch scratch;
  std::string table, secrets;
};

TEST_F(HelperTest, AdmitsListedUsersWithTheRightResponse) {
  const std::string yes =
      std::string{"Authenticated: Yes\nUser-session-key: "} + SESSION_KEY + "\n.\n";
  EXPECT_EQ(ask("Full-Username:: VXNlcg==\n"), yes);
  EXPECT_EQ(ask("Username: User\n"), yes);
  EXPECT_EQ(ask("NT-Domain:: RE9N\nFull-Username:: VXNlcg==\n"), yes);
  EXPECT_EQ(ask("Username: plain\n"), yes);  // a secret of the administrator's own
}

TEST_F(HelperTest, RefusesEverybodyElse) {
  std::string wrong = RESPONSE;
  wrong.back() = '0';
  for (const std::string& verdict : std::initializer_list<std::string>{
           ask("Username: User\n", wrong), ask("Username: User\n", ""), ask("Username: off\n"),
           ask("Username: none\n"), ask("Username: other\n"), ask("Username: nobody\n"),
           ask("Username: User\"\n"), ask("Username: User\"\tpptpd\t&\n"), ask("Username: \n"),
           ask(""), ask("Username:: !!!\n"), ask("nonsense\n"), judge("", "/dev/null", "pptpd"),
           judge("Username: User\n", secrets.c_str(), "pptpd")})
    EXPECT_EQ(verdict, "Authenticated: No\n.\n");
}

// The text that stands for the table must never do as a password itself.
TEST_F(HelperTest, TheNameOfTheTableIsNoPassword) {
  NtHash hash{};
  Challenge challenge{};
  Response response{};
  ASSERT_TRUE(nt_hash(table, hash) && parse_hex(CHALLENGE, challenge));
  expected_response(hash, challenge, response);
  EXPECT_EQ(ask("Username: User\n", to_hex(response)), "Authenticated: No\n.\n");
}

// The hash of "clientPass" as a line of the table.
std::string password_line(const std::string& user, const char* change) {
  return user + ":1000:" + std::string(32, 'X') + ':' + PASSWORD_HASH + ":[U          ]:" + change +
         ":\n";
}

TEST(PasswordTable, ReplacesOneUsersLineAndKeepsTheRest) {
  const std::string other = "bobby:7:a:b:[U]:LCT-1:\n";
  const std::string now = password_line("bob", "LCT-00000010");
  const std::string before = password_line("bob", "LCT-00000001");
  const std::pair<std::string, std::string> rows[] = {
      {"", now},
      {other, other + now},
      {"bob:1000:x:00:[U]:LCT-1:\n" + other, other + now},
      {before + other, before + other},  // the same password: nothing to write
      {before + before, before},
  };
  for (const auto& [table, expected] : rows)
    EXPECT_EQ(with_password(table, "bob", 1000, "clientPass", 16), expected) << table;
  for (const char* user : {"", "a:b", "a\nb"})
    EXPECT_EQ(with_password("", user, 1, "p", 1), "") << user;
  EXPECT_EQ(with_password("", "bob", 1, "\xff", 1), "");
}

}  // namespace
}  // namespace fenro::mschap
