#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "openvpn/login_socket.h"
#include "unit/platform/scratch.h"

namespace fenro::openvpn {
namespace {

constexpr const char* GREETING = ">INFO:OpenVPN Management Interface Version 5 -- type 'help'";
constexpr const char* QUESTION = ">PASSWORD:Need 'Auth' username/password";
constexpr const char* USER_TAKEN = "SUCCESS: 'Auth' username entered, but not yet verified";
constexpr const char* PASSWORD_TAKEN = "SUCCESS: 'Auth' password entered, but not yet verified";

// All ends are in this thread: what one says waits until the next reads it.
class OpenVpnLoginSocket : public testing::Test {
 protected:
  // In place of a daemon; the sockets are named as those of a listener.
  OpenVpnLoginSocket() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    scratch.path("daemon").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    attendant = Management::at_socket(scratch.path("daemon"));
    daemon = Management::accepted(listener.get());
  }
  static std::string heard(Management& end) {
    std::string text;
    char byte = 0;
    while (recv(end.fd(), &byte, 1, MSG_DONTWAIT) == 1) text += byte;
    return text;
  }
  static bool ended(const Management& end) {
    char byte = 0;
    return recv(end.fd(), &byte, 1, MSG_DONTWAIT) == 0;
  }
  Management client() {
    Management end = Management::at_socket(scratch.path("login"));
    logins.serve(attendant);
    return end;
  }
  void say(Management& end, const char* command) {
    EXPECT_TRUE(end.say(command));
    logins.serve(attendant);
  }

  test::Scratch scratch;
  Fd listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  Management attendant, daemon;
  LoginSocket logins{scratch.path("login")};
};

TEST_F(OpenVpnLoginSocket, PassesTheLoginOnAndKeepsTheDaemon) {
  ASSERT_TRUE(logins.offer());
  for (const char* line : {GREETING, QUESTION}) logins.take(line);
  Management answerer = client();
  EXPECT_EQ(heard(answerer), std::string(GREETING) + '\n' + QUESTION + '\n');
  say(answerer, "username Auth \"bob\"");
  for (const char* line :
       {"SUCCESS: bytecount interval changed", "END", ">STATE:1,WAIT,,,,,,", USER_TAKEN})
    logins.take(line);
  EXPECT_EQ(heard(answerer), std::string(USER_TAKEN) + '\n') << "the others are the attendant's";
  EXPECT_TRUE(logins.asked());
  say(answerer, "password Auth \"p\"");
  logins.take(PASSWORD_TAKEN);
  EXPECT_FALSE(logins.asked());
  EXPECT_EQ(heard(answerer), std::string(PASSWORD_TAKEN) + '\n');
  say(answerer, "quit");
  EXPECT_TRUE(ended(answerer));
  EXPECT_EQ(heard(daemon), "username Auth \"bob\"\npassword Auth \"p\"\n");
  EXPECT_FALSE(ended(daemon));
}

TEST_F(OpenVpnLoginSocket, ServesOneAfterTheOther) {
  ASSERT_TRUE(logins.offer());
  logins.take(GREETING);
  Management first = client();
  Management second = Management::at_socket(scratch.path("login"));
  first = Management{};
  logins.serve(attendant);  // the first has gone
  EXPECT_EQ(heard(second), "");
  logins.serve(attendant);
  EXPECT_EQ(heard(second), std::string(GREETING) + '\n') << "nothing has been asked";
  say(second, "username Auth \"bob\"");
  logins.take("ERROR: no username is currently needed at this time");
  EXPECT_EQ(heard(second), "ERROR: no username is currently needed at this time\n");
}

TEST_F(OpenVpnLoginSocket, IsOurOwnAndGoesWithItsOwner) {
  scratch.write("login", "of somebody else");
  const mode_t before = umask(0);
  {
    LoginSocket other{scratch.path("login")};
    EXPECT_EQ(other.fd(), -1);
    ASSERT_TRUE(other.offer());
    EXPECT_TRUE(other.offer());
    EXPECT_EQ(scratch.mode("login"), 0600U);
  }
  EXPECT_EQ(umask(before), 0U);
  EXPECT_FALSE(Management::at_socket(scratch.path("login")));
  EXPECT_FALSE(std::filesystem::exists(scratch.path("login")));
  EXPECT_FALSE(LoginSocket{scratch.path("none/login")}.offer());
  EXPECT_FALSE(LoginSocket{scratch.path(std::string(200, 'x'))}.offer());
}

}  // namespace
}  // namespace fenro::openvpn
