#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <thread>

#include <gtest/gtest.h>

#include "base/login_throttle.h"
#include "session/login_form.h"
#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

constexpr std::time_t NOW = 100'000;
constexpr const char* HOME = "192.0.2.7";
constexpr unsigned MANY_SLOTS = 1U << 30;  // no two names meet by chance

class LoginThrottleTest : public testing::Test {
 protected:
  bool admits(const std::string& user, const std::string& address, std::time_t now = NOW) {
    const auto admission = throttle.admit(user, address, now);
    return admission && admission->retry_after == 0;
  }
  std::string nth_address(int n) { return "198.51.100." + std::to_string(n); }
  Scratch scratch;
  LoginThrottle throttle{scratch.path("login"), MANY_SLOTS};
};

TEST_F(LoginThrottleTest, DelaysMoreAndMoreThenRefusesUntilTheWindowEnds) {
  constexpr int DELAYS_MS[LoginThrottle::ADDRESS_LIMIT] = {0,    0,    0,    500,  1000,
                                                           2000, 4000, 4000, 4000, 4000};
  for (const int delay : DELAYS_MS) {
    const auto admission = throttle.admit("bob", HOME, NOW);
    ASSERT_TRUE(admission);
    EXPECT_EQ(admission->retry_after, 0);
    EXPECT_EQ(admission->delay.count(), delay);
  }
  const auto refused = throttle.admit("bob", HOME, NOW + 1);
  EXPECT_EQ(refused->retry_after, LoginThrottle::WINDOW - 1);
  EXPECT_TRUE(refused->first_refusal);
  const auto again = throttle.admit("carol", HOME, NOW + LoginThrottle::WINDOW - 1);
  EXPECT_EQ(again->retry_after, 1);
  EXPECT_FALSE(again->first_refusal);
  EXPECT_TRUE(admits("bob", "192.0.2.8"));  // the address is used up, not the user
  EXPECT_TRUE(admits("bob", HOME, NOW + LoginThrottle::WINDOW));
}

TEST_F(LoginThrottleTest, CountsAUserOverAllAddressesAndInAnyCase) {
  for (int i = 0; i < LoginThrottle::USER_LIMIT; ++i)
    EXPECT_TRUE(admits(i % 2 ? "bob" : "BOB", nth_address(i)));
  EXPECT_FALSE(admits("Bob", HOME));
  EXPECT_TRUE(admits("carol", HOME));
}

TEST_F(LoginThrottleTest, ASuccessForgivesTheUserButNotTheAddress) {
  for (int i = 0; i < LoginThrottle::ADDRESS_LIMIT - 1; ++i) EXPECT_TRUE(admits("bob", HOME));
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(admits("bob", HOME));
    EXPECT_TRUE(throttle.succeed("bob", HOME, NOW));  // his own login costs him nothing
  }
  EXPECT_EQ(throttle.admit("bob", "192.0.2.8", NOW)->delay.count(), 0);
  EXPECT_TRUE(admits("carol", HOME));
  EXPECT_FALSE(admits("carol", HOME));
}

TEST_F(LoginThrottleTest, CountsTheNetworkOfAnIpv6ClientAndAMappedAddressAsItself) {
  const std::tuple<const char*, const char*, bool> ROWS[] = {
      {"2001:db8::1", "2001:db8::ffff:2", true},
      {"2001:db8:1::1", "2001:db8:1:1::1", false},
      {"::ffff:192.0.2.9", "192.0.2.9", true},
      {"::ffff:192.0.2.10", "::ffff:192.0.2.11", false}};
  for (const auto& [used, other, same] : ROWS) {
    for (int i = 0; i < LoginThrottle::ADDRESS_LIMIT; ++i)
      std::ignore = admits(used + std::to_string(i), used);
    EXPECT_NE(admits("bob", other), same) << used;
  }
}

TEST_F(LoginThrottleTest, AdmitsNoMoreWhenManyAskAtOnce) {
  std::atomic<int> admitted = 0;
  const auto ask = [&] {
    for (int i = 0; i < 7; ++i) admitted += admits("bob", HOME);
  };
  {
    const std::jthread first{ask}, second{ask};
    ask();
  }
  EXPECT_EQ(admitted, LoginThrottle::ADDRESS_LIMIT);
}

TEST_F(LoginThrottleTest, KeepsABoundedNumberOfCountersWithoutNamesInAClosedFolder) {
  constexpr unsigned SLOTS = 4;
  throttle = LoginThrottle{scratch.path("login"), SLOTS};
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(throttle.admit("user" + std::to_string(i) + "\n1 2 3", nth_address(i), NOW)) << i;
  const std::string text = scratch.read("login/counters");
  EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 1 + 2 * SLOTS);
  EXPECT_EQ(text.find("user"), std::string::npos);
  EXPECT_EQ(scratch.mode("login"), 0700U);
  EXPECT_EQ(scratch.mode("login/counters"), 0600U);
  ASSERT_TRUE(throttle.admit("bob", HOME, NOW + LoginThrottle::WINDOW));
  const std::string later = scratch.read("login/counters");
  EXPECT_EQ(std::count(later.begin(), later.end(), '\n'), 3);  // what has run out is dropped
}

TEST_F(LoginThrottleTest, StartsAnewFromADamagedFileAndAdmitsNobodyWhereItCannotCount) {
  ASSERT_TRUE(admits("bob", HOME));
  for (const char* text :
       {"", "\n\n", "short\n1 2 3\n", "12345678901234567890123456789012\n1 x 3\n-1 -1 -1\n"}) {
    scratch.write("login/counters", text);
    EXPECT_TRUE(admits("bob", HOME)) << text;
  }
  std::filesystem::remove(scratch.path("login/counters"));
  std::filesystem::create_directory(scratch.path("login/counters"));
  EXPECT_FALSE(throttle.admit("bob", HOME, NOW));
  throttle = LoginThrottle{scratch.path("open")};
  std::filesystem::create_directory(scratch.path("open"));
  std::filesystem::permissions(scratch.path("open"), std::filesystem::perms::all);
  EXPECT_FALSE(throttle.admit("bob", HOME, NOW));
}

using Result = LoginForm::Result;

TEST(LoginFormTest, DecodesItsFields) {
  const std::tuple<const char*, const char*, const char*> ROWS[] = {
      {"user=bob&password=se+cret%21", "bob", "se cret!"},
      {"us%65r=b%6Fb&password=%3D%26%25", "bob", "=&%"},
      {"password=a=b&user=%zz%4", "%zz%4", "a=b"},
      {"user=x&user=bob&&password", "bob", ""},
      {"user[1]=bob&password=[=]", "bob", "[=]"},
      {"users=x&use=y&%", "", ""},
      {"", "", ""},
  };
  for (const auto& [text, user, password] : ROWS) {
    LoginForm form;
    EXPECT_EQ(form.take(text), Result::Ok) << text;
    EXPECT_STREQ(form.value("user"), user) << text;
    EXPECT_STREQ(form.value("password"), password) << text;
  }
}

TEST(LoginFormTest, TakesABodyOfTheAnnouncedLengthAndNoMoreThanItsLimit) {
  const std::string longest = "user=" + std::string(LoginForm::LIMIT - 5, 'u');
  const std::tuple<std::string, std::string, Result> rows[] = {
      {longest, "8192", Result::Ok},
      {longest, "", Result::Ok},
      {longest + "u", "8193", Result::TooLarge},
      {longest + "u", "", Result::TooLarge},
      {longest, "99999999999999999999999", Result::TooLarge},
      {"user=bob&more", "8", Result::Ok},
      {"user=bob", "9", Result::Malformed},
      {"user=bob", "-8", Result::Malformed},
      {"user=bob", "8x", Result::Malformed},
      {"=bob&user=x", "11", Result::Malformed},
      {"user=bob%00x", "12", Result::Malformed},
      {std::string("user=b\0b", 8), "8", Result::Malformed},
  };
  const Scratch scratch;
  for (const auto& [body, length, result] : rows) {
    const Fd fd{open(scratch.write("body", body).c_str(), O_RDONLY | O_CLOEXEC)};
    LoginForm form;
    EXPECT_EQ(form.read(fd.get(), length), result) << length << ' ' << body.substr(0, 20);
  }
}

TEST(LoginFormTest, LeavesNothingOfThePasswordBehind) {
  LoginForm form;
  ASSERT_EQ(form.take("user=bob&password=%73ecret"), Result::Ok);
  const std::string_view value{form.value("password"), std::strlen("%73ecret")};
  const std::string_view text{reinterpret_cast<const char*>(&form), sizeof form};
  ASSERT_NE(value.find("secret"), std::string_view::npos);
  ASSERT_NE(text.find("ecret"), std::string_view::npos);
  form.wipe();
  EXPECT_EQ(value.find_first_not_of('\0'), std::string_view::npos);
  EXPECT_EQ(text.find("ecret"), std::string_view::npos);
  EXPECT_STREQ(form.value("password"), "");
}

}  // namespace
}  // namespace fenro::test
