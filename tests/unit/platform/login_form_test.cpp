#include "session/login_form.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

using Result = LoginForm::Result;

TEST(LoginFormTest, DecodesItsFields) {
  struct Row {
    const char *text, *user, *password;
  };
  constexpr Row ROWS[] = {
      {"user=bob&password=se+cret%21", "bob", "se cret!"},
      {"us%65r=b%6Fb&password=%3D%26%25", "bob", "=&%"},
      {"password=a=b&user=%zz%4", "%zz%4", "a=b"},
      {"user=x&user=bob&&=&password", "bob", ""},
      {"users=x&use=y&%", "", ""},
      {"", "", ""},
  };
  for (const Row& row : ROWS) {
    SCOPED_TRACE(row.text);
    LoginForm form;
    EXPECT_EQ(form.take(row.text), Result::Ok);
    EXPECT_STREQ(form.value("user"), row.user);
    EXPECT_STREQ(form.value("password"), row.password);
  }
}

TEST(LoginFormTest, TakesABodyOfTheAnnouncedLengthAndNoMoreThanItsLimit) {
  const std::string longest = "user=" + std::string(LoginForm::LIMIT - 5, 'u');
  struct Row {
    std::string body, length;
    Result result;
  };
  const Row rows[] = {
      {longest, "8192", Result::Ok},
      {longest, "", Result::Ok},
      {longest + "u", "8193", Result::TooLarge},
      {longest + "u", "", Result::TooLarge},
      {longest, "99999999999999999999999", Result::TooLarge},
      {"user=bob&more", "8", Result::Ok},
      {"user=bob", "9", Result::Malformed},
      {"user=bob", "-8", Result::Malformed},
      {"user=bob", "8x", Result::Malformed},
      {"user=bob%00x", "12", Result::Malformed},
      {std::string("user=b\0b", 8), "8", Result::Malformed},
  };
  const Scratch scratch;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.length + " " + row.body.substr(0, 20));
    const Fd fd{open(scratch.write("body", row.body).c_str(), O_RDONLY | O_CLOEXEC)};
    LoginForm form;
    EXPECT_EQ(form.read(fd.get(), row.length), row.result);
  }
}

TEST(LoginFormTest, LeavesNothingOfThePasswordBehind) {
  LoginForm form;
  ASSERT_EQ(form.take("user=bob&password=%73ecret"), Result::Ok);
  const std::string_view raw{form.value("user"), 32};  // the rest of the text, in the memory it was read into
  ASSERT_NE(raw.find("secret"), std::string_view::npos);

  form.wipe();

  EXPECT_EQ(raw.find_first_not_of('\0'), std::string_view::npos);
  EXPECT_STREQ(form.value("password"), "");
}

}  // namespace
}  // namespace fenro::test
