#include <fcntl.h>

#include <gtest/gtest.h>

#include "libfenro/session_store.h"
#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

class SessionTest : public testing::Test {
 protected:
  // Moves the last use of a session, or its beginning, into the past.
  void age(const std::string& sid, std::time_t idle, std::time_t since_login = 0) {
    const std::string name = "sessions/" + sid;
    std::string text = scratch.read(name);
    const std::time_t now = std::time(nullptr);
    text.replace(text.find("created = "), std::string::npos,
                 "created = " + std::to_string(now - since_login) + "\n");
    scratch.write(name, text);
    const timespec stamp[2] = {{now - idle, 0}, {now - idle, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, scratch.path(name).c_str(), stamp, 0), 0);
  }
  static bool locked(const char* user) {
    ++questions;
    return user == locked_user;
  }
  static inline int questions;
  static inline std::string locked_user;
  void SetUp() override {
    questions = 0;
    locked_user = "";
  }
  Scratch scratch;
  SessionStore store{scratch.path("sessions"), locked};
};

TEST_F(SessionTest, FindsWhatItCreated) {
  const std::string sid = store.create("root", "192.0.2.7", "192.0.2.1");
  ASSERT_EQ(sid.size(), 8U);
  EXPECT_EQ(sid.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"),
            std::string::npos);
  const auto session = store.find(sid.c_str(), false);
  ASSERT_TRUE(session);
  EXPECT_EQ(session->sid, sid);
  EXPECT_EQ(std::string(session->user) + ' ' + session->ip + ' ' + session->host_ip,
            "root 192.0.2.7 192.0.2.1");
  EXPECT_EQ(session->uid, 0);
  EXPECT_EQ(session->type, 0);
  EXPECT_EQ(scratch.mode("sessions"), 0700U);
  EXPECT_EQ(scratch.mode("sessions/" + sid), 0600U);
}

TEST_F(SessionTest, RunsOutWhenIdleOrOld) {
  constexpr std::time_t MARGIN = 5;
  const std::tuple<std::time_t, std::time_t, bool> cases[] = {
      {SessionStore::IDLE_LIMIT - MARGIN, 0, true},
      {SessionStore::IDLE_LIMIT, 0, false},
      {0, SessionStore::AGE_LIMIT - MARGIN, true},
      {0, SessionStore::AGE_LIMIT, false},
      {-3600, 0, false},  // from a clock that has been set back since
      {0, -3600, false},
  };
  for (const auto& [idle, since_login, valid] : cases) {
    const std::string sid = store.create("root", "", "");
    age(sid, idle, since_login);
    EXPECT_EQ(store.find(sid.c_str(), true).has_value(), valid) << idle << " " << since_login;
  }
}

TEST_F(SessionTest, OnlyATouchProlongs) {
  const std::string sid = store.create("root", "", "");
  age(sid, 1000);
  const std::time_t now = std::time(nullptr);
  EXPECT_LT(store.find(sid.c_str(), false)->touched, now - 900);
  EXPECT_LT(store.find(sid.c_str(), false)->touched, now - 900);
  EXPECT_GE(store.find(sid.c_str(), true)->touched, now);
  EXPECT_GE(store.find(sid.c_str(), false)->touched, now - 1);
}

TEST_F(SessionTest, EndsWithinAMinuteOfTheLockingOfItsUser) {
  const std::string sid = store.create("root", "", "");
  age(sid, SessionStore::ACCOUNT_CHECK);
  EXPECT_TRUE(store.find(sid.c_str(), true));
  EXPECT_EQ(questions, 1);
  locked_user = "root";
  age(sid, SessionStore::ACCOUNT_CHECK);
  EXPECT_FALSE(store.find(sid.c_str(), true));
  EXPECT_EQ(scratch.mode("sessions/" + sid), 0U) << "it is gone for good";
}

TEST_F(SessionTest, TheTwentyFirstOfAUserEndsTheOldest) {
  const std::string other = store.create("daemon", "", ""), oldest = store.create("root", "", "");
  age(other, 0, 2000);
  age(oldest, 0, 1000);
  for (std::size_t i = 1; i < SessionStore::USER_LIMIT; ++i)
    std::ignore = store.create("root", "", "");
  EXPECT_TRUE(store.find(oldest.c_str(), true));
  const std::string newest = store.create("root", "", "");
  EXPECT_FALSE(store.find(oldest.c_str(), true));
  EXPECT_TRUE(store.find(newest.c_str(), true));
  EXPECT_TRUE(store.find(other.c_str(), true));
  EXPECT_EQ(store.list().size(), SessionStore::USER_LIMIT + 1);
}

TEST_F(SessionTest, RefusesEverySidOfAnotherForm) {
  const std::string sid = store.create("root", "", "");
  scratch.write("outside1", scratch.read("sessions/" + sid));
  for (const char* bad : {"", "1234567", "123456789", "../outsi", "../outside1", "1234 678",
                          "1234567\n", "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4"})
    EXPECT_FALSE(store.find(bad, true)) << bad;
  EXPECT_FALSE(store.find(nullptr, true));
  std::filesystem::create_symlink("../outside1", scratch.path("sessions/Linked01"));
  EXPECT_FALSE(store.find("Linked01", true));
}

TEST_F(SessionTest, AFileThatIsNoSessionIsNone) {
  ASSERT_FALSE(store.create("root", "", "").empty());
  const std::string now =
      "\nip = \nhost_ip = \ncreated = " + std::to_string(std::time(nullptr)) + '\n';
  const std::pair<std::string, bool> cases[] = {
      {"", false},
      {"user = root\nuid = 0\nip = \n", false},
      {"user = root\nuid = 12" + now, false},  // another user has the name now
      {"user = no such user\nuid = 12" + now, false},
      {"user = " + std::string(57, 'u') + "\nuid = 0" + now, false},
      {"user = root\nuid = 0\nip = \nhost_ip = \ncreated = soon\n", false},
      {std::string(8192, '\0'), false},
      {"user = root\nuid = 0" + now, true},
  };
  for (const auto& [text, valid] : cases) {
    scratch.write("sessions/Damaged1", text);
    EXPECT_EQ(store.find("Damaged1", true).has_value(), valid) << text;
  }
}

TEST_F(SessionTest, CreatesNoneThatCouldNotBeReadBack) {
  EXPECT_EQ(store.create("no such user", "", ""), "");
  EXPECT_EQ(store.create("root", "1\nuid = 5", ""), "");
  EXPECT_EQ(store.create("root", "", std::string(65, '1')), "");
  ASSERT_EQ(mkdir(scratch.path("open").c_str(), 0700), 0);
  ASSERT_EQ(chmod(scratch.path("open").c_str(), 0777), 0);
  const SessionStore open{scratch.path("open"), locked};
  EXPECT_EQ(open.create("root", "", ""), "");  // others could write sessions there
}

}  // namespace
}  // namespace fenro::test
