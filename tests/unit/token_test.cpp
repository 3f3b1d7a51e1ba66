// Tokens of other programs: what is stored of them, how long they are valid, and how guessing is
// stopped.
#include "ormel/actions/token.h"

#include <ctime>
#include <gmock/gmock.h>

#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "unit/platform/scratch.h"

namespace ormel::token {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Tokens : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(add("prom", "metrics", 3600, "admin", token, text).code, NO_ERROR);
  }
  void TearDown() override { places() = former_; }

  static Holder ask(const std::string& header, int64_t now = std::time(nullptr),
                    const char* from = "192.0.2.1") {
    return check(header, from, now);
  }
  // The code for a new one.
  static int code_of(const std::string& name, const std::string& scope = "read",
                     int64_t life = 60) {
    Token made;
    std::string ignored;
    return add(name, scope, life, "admin", made, ignored).code;
  }
  static std::vector<Token> all() {
    std::vector<Token> tokens;
    EXPECT_TRUE(list(tokens));
    return tokens;
  }

  Token token;
  std::string text;

 private:
  fenro::test::Scratch scratch_;
  Places former_ = std::exchange(
      places(), {scratch_.path("tokens.json"), scratch_.path("lock"), scratch_.path("counters")});
};

TEST_F(Tokens, KeepNothingThatCouldBeUsed) {
  EXPECT_EQ(text.size(), 6 + 8 + 1 + 64);
  const std::string secret = text.substr(text.rfind('_') + 1);
  const std::string file = support::read(places().file);
  EXPECT_THAT(file, Not(HasSubstr(secret)));
  EXPECT_THAT(file, Not(HasSubstr(openssl::sha256(secret)))) << "of the bytes, not of their text";
  EXPECT_EQ(support::mode_of(places().file), 0600U);
  Token other;
  std::string next;
  ASSERT_EQ(add("b", "read", 60, "admin", other, next).code, NO_ERROR);
  EXPECT_NE(other.id, token.id);
  EXPECT_NE(other.hash, token.hash);
}

TEST_F(Tokens, AreTakenByTheirWholeTextAlone) {
  EXPECT_EQ(ask("Bearer " + text).name, "token:prom");
  EXPECT_EQ(ask("bEARER   " + text).name, "token:prom");
  const std::string secret = text.substr(text.rfind('_') + 1);
  std::string last = text;
  last.back() = last.back() == '0' ? '1' : '0';
  int number = 0;
  const std::string headers[] = {
      text,
      "Basic " + text,
      "Bearer",
      "Bearer " + last,
      "Bearer " + text + "0",
      "Bearer " + text + ' ',
      "Bearer " + text.substr(0, text.size() - 2),
      "Bearer ormel_" + token.id + '_',
      "Bearer ormel__" + secret,
      "Bearer ormel_" + token.id + '_' + token.hash,
      "Bearer " + std::string(100000, 'x'),
      "Bearer ormel_" + token.id + std::string(1, '\0') + secret,
  };
  for (const std::string& header : headers) {
    const std::string from = "198.51.100." + std::to_string(++number);
    const Holder holder = ask(header, std::time(nullptr), from.c_str());
    EXPECT_THAT(holder.name, IsEmpty()) << header.substr(0, 200);
    EXPECT_THAT(holder.refusal, HasSubstr("unknown or out of date"));
  }
}

TEST_F(Tokens, EndInTheSecondThatWasSaidOrWhenTheyAreRemoved) {
  EXPECT_EQ(ask("Bearer " + text, token.expires - 1).name, "token:prom");
  EXPECT_THAT(ask("Bearer " + text, token.expires).name, IsEmpty());
  EXPECT_EQ(remove("prom").code, NO_ERROR);
  EXPECT_THAT(ask("Bearer " + text, token.expires - 1).name, IsEmpty());
  EXPECT_EQ(remove(token.id).code, ERR_CONFIGURE_INDEX);
}

// "admin" is the one administrator here.
TEST_F(Tokens, EndWithTheRightOfTheirMaker) {
  const std::pair<const char*, bool> rows[] = {
      {"admin", true}, {"root", true}, {"", true}, {"guest", false}, {"Admin", false}};
  const int64_t now = std::time(nullptr);
  for (const auto& [by, valid] : rows) {
    SCOPED_TRACE(by);
    std::ignore = remove("prom");
    ASSERT_EQ(add("prom", "admin", 3600, by, token, text).code, NO_ERROR);
    for (const bool first : {true, false}) {
      const Holder holder = ask("Bearer " + text);
      EXPECT_EQ(holder.name, valid ? "token:prom" : "");
      EXPECT_EQ(holder.refusal, valid ? "" : ask("Bearer " + text, token.expires).refusal);
      EXPECT_EQ(holder.orphan, !valid && first ? "prom" : "") << "is reported once";
    }
    EXPECT_EQ(state_of(all()[0], now), valid ? State::Valid : State::NoMaker);
    EXPECT_EQ(state_of(all()[0], token.expires), State::Expired);
  }
  token.by = "admin";
  token.uid = 54321;  // of an account that has gone
  EXPECT_EQ(state_of(token, now), State::NoMaker);
}

TEST_F(Tokens, NoteTheirUseOnceAMinute) {
  const int64_t now = std::time(nullptr);
  EXPECT_EQ(all()[0].used, 0);
  for (const auto& [after, from, noted, where] : {std::tuple{0, "192.0.2.1", 0, "192.0.2.1"},
                                                  {59, "192.0.2.2", 0, "192.0.2.1"},
                                                  {60, "192.0.2.2", 60, "192.0.2.2"},
                                                  {30, "192.0.2.3", 30, "192.0.2.3"}}) {
    std::ignore = ask("Bearer " + text, now + after, from);
    EXPECT_EQ(all()[0].used, now + noted) << after;
    EXPECT_EQ(all()[0].from, where) << after;
  }
}

TEST_F(Tokens, AreClosedToAnAddressThatHasTriedTenWrongOnes) {
  for (int i = 0; i < 20; ++i)
    EXPECT_THAT(ask("Bearer " + text, token.expires).refusal, HasSubstr("out of date"));
  EXPECT_EQ(ask("Bearer " + text).name, "token:prom");
  for (int i = 0; i < 10; ++i)
    EXPECT_THAT(ask("Bearer ormel_x_" + std::to_string(i)).refusal, HasSubstr("unknown"));
  EXPECT_THAT(ask("Bearer " + text).refusal, HasSubstr("try again in "));
  EXPECT_EQ(ask("Bearer " + text, std::time(nullptr), "192.0.2.2").name, "token:prom");
}

TEST_F(Tokens, HaveANameAScopeAndATimeWithinLimits) {
  const std::tuple<std::string, const char*, int64_t, int> rows[] = {
      {"", "read", 60, ERR_VALUE},
      {std::string(40, 'a'), "read", 60, NO_ERROR},
      {std::string(41, 'a'), "read", 60, ERR_VALUE},
      {"a b", "read", 60, ERR_VALUE},
      {"a\nb", "read", 60, ERR_VALUE},
      {"prom", "read", 60, ERR_VALUE},
      {token.id, "read", 60, ERR_VALUE},
      {"b", "", 60, ERR_VALUE},
      {"b", "root", 60, ERR_VALUE},
      {"b", "read", 59, ERR_VALUE},
      {"b", "read", LONGEST_LIFE + 1, ERR_VALUE},
      {"b", "admin", LONGEST_LIFE, NO_ERROR}};
  for (const auto& [name, scope, life, code] : rows)
    EXPECT_EQ(code_of(name, scope, life), code) << name << ' ' << scope << ' ' << life;
  for (size_t count = all().size(); count < MOST_TOKENS; ++count)
    EXPECT_EQ(code_of("t" + std::to_string(count)), NO_ERROR) << count;
  EXPECT_EQ(code_of("more"), ERR_VALUE);
}

TEST_F(Tokens, LetNobodyInByADamagedFileAndKeepItAsItIs) {
  for (const char* content : {"", "[]", "{\"tokens\":{}}", "{\"tokens\":[{}]}", "\xff"}) {
    support::write(places().file, content);
    EXPECT_THAT(ask("Bearer " + text).name, IsEmpty()) << content;
    EXPECT_EQ(code_of("b"), ERR_SAVE_FILE);
    EXPECT_EQ(support::read(places().file), content);
  }
}

}  // namespace
}  // namespace ormel::token
