#include "base/second_factor.h"

#include <ctime>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/base64.h"
#include "unit/platform/scratch.h"

namespace fenro {
namespace {

using testing::HasSubstr;
using State = SecondFactor::State;

constexpr std::string_view SECRET = "12345678901234567890";
constexpr std::int64_t NOW = 1'700'000'000 / totp::PERIOD * totp::PERIOD;

SecondFactor enrolled() {
  SecondFactor factor;
  factor.state = State::On;
  factor.secret = totp::to_base32(SECRET);
  return factor;
}

std::string code_of(std::int64_t seconds) {
  return totp::code_at(SECRET, totp::step_at(seconds));
}

TEST(Totp, ComputesTheCodesOfTheStandard) {
  // The last six of the eight digits there.
  const std::pair<std::int64_t, const char*> vectors[] = {
      {59, "287082"},         {1111111109, "081804"}, {1111111111, "050471"},
      {1234567890, "005924"}, {2000000000, "279037"}, {20000000000, "353130"}};
  for (const auto& [seconds, code] : vectors) EXPECT_EQ(code_of(seconds), code) << seconds;
}

TEST(Totp, ReadsTheBase32ThatItWrites) {
  // The vectors of RFC 4648, without their padding.
  const std::string whole = "foobar";
  const char* const texts[] = {"", "MY", "MZXQ", "MZXW6", "MZXW6YQ", "MZXW6YTB", "MZXW6YTBOI"};
  std::string bytes;
  for (size_t length = 0; length <= whole.size(); ++length) {
    EXPECT_EQ(totp::to_base32(whole.substr(0, length)), texts[length]);
    EXPECT_TRUE(totp::parse_base32(texts[length], bytes)) << length;
    EXPECT_EQ(bytes, whole.substr(0, length));
  }
  for (const char* text : {"A", "M", "MZ1", "my", "MY======", "MZ", "M Y"})
    EXPECT_FALSE(totp::parse_base32(text, bytes)) << text;
}

TEST(Totp, KeepsAHostileNameInsideItsAddress) {
  EXPECT_EQ(totp::uri("my nas", "bob&secret=A#%\n", "MY"),
            "otpauth://totp/my%20nas:bob%26secret%3DA%23%25%0A?secret=MY&issuer=my%20nas"
            "&algorithm=SHA1&digits=6&period=30");
}

TEST(TakeCode, AcceptsOneStepAroundThePresentAndNoMore) {
  using enum FactorRefusal;
  const std::pair<std::int64_t, FactorRefusal> cases[] = {
      {-31, Late}, {-30, None}, {0, None}, {59, None}, {60, Late}, {-600, Late}, {3600, Wrong}};
  for (const auto& [away, expected] : cases) {
    SecondFactor factor = enrolled();
    EXPECT_EQ(take_code(factor, code_of(NOW + away), NOW), expected) << away;
  }
}

TEST(TakeCode, CountsAStepOnceAndNoneBeforeIt) {
  SecondFactor factor = enrolled();
  ASSERT_EQ(take_code(factor, code_of(NOW), NOW), FactorRefusal::None);
  EXPECT_EQ(take_code(factor, code_of(NOW), NOW), FactorRefusal::Used);
  EXPECT_EQ(take_code(factor, code_of(NOW - 30), NOW), FactorRefusal::Used);
  EXPECT_EQ(take_code(factor, code_of(NOW + 30), NOW), FactorRefusal::None);
  EXPECT_EQ(take_code(factor, "", NOW), FactorRefusal::Absent);
}

TEST(TakeCode, CountsEachRecoveryCodeOnceHoweverItIsTyped) {
  SecondFactor factor = enrolled();
  const auto codes = renew_recovery(factor);
  ASSERT_EQ(codes.size(), RECOVERY_CODES);
  std::string small = codes[3];
  for (char& c : small) c = static_cast<char>(std::tolower(c));
  EXPECT_EQ(take_code(factor, small, NOW), FactorRefusal::None);
  EXPECT_EQ(take_code(factor, codes[3], NOW), FactorRefusal::Wrong);
  EXPECT_EQ(take_code(factor, codes[0], NOW), FactorRefusal::None);
  EXPECT_EQ(factor.recovery.size(), RECOVERY_CODES - 2);
}

TEST(SplitLogin, FindsPasswordAndCode) {
  const auto challenge = [](const std::string& password, const std::string& code) {
    return "SCRV1:" + to_base64(password) + ':' + to_base64(code);
  };
  const std::tuple<std::string, const char*, const char*> cases[] = {
      {"secret123456", "secret", "123456"},
      {"pw 2ABCD-EFGH-IJ27", "pw 2", "ABCD-EFGH-IJ27"},
      {"pwabcd-efgh-ij27", "pw", "abcd-efgh-ij27"},
      {challenge("a:b", "123 456"), "a:b", "123456"},
      {challenge("a", "ABCD-EFGH-IJ27"), "a", "ABCD-EFGH-IJ27"},
      {"123456", "", ""},
      {"secret12345", "", ""},
      {"SCRV1:", "", ""},
      {"SCRV1:YQ==:MTIzNDU2:", "", ""},
      {"SCRV1:YQ==", "", ""},
      {"SCRV1:YQ=:MTIzNDU2", "", ""},
      {challenge("a\nb", "123456"), "", ""},
      {challenge("a", "1234567"), "", ""},
      {"", "", ""},
  };
  for (const auto& [typed, password, code] : cases) {
    const TypedLogin login = split_login(typed);
    EXPECT_EQ(login.password, password) << typed;
    EXPECT_EQ(login.code, code) << typed;
  }
}

TEST(FactorStatus, LeadsBackToItsRefusal) {
  constexpr int FIRST = static_cast<int>(FactorRefusal::Absent);
  constexpr int LAST = static_cast<int>(FactorRefusal::NoLibrary);
  for (int refusal = FIRST; refusal >= LAST; --refusal)
    EXPECT_EQ(factor_of_status(status_of_factor(refusal)), refusal);
  EXPECT_EQ(status_of_factor(FIRST), 101);
  for (const int other : {0, 1, 100, 109, -1}) EXPECT_EQ(factor_of_status(other), 0) << other;
}

// A profile may still ask for a code after the second factor is off.
TEST(WithoutChallenge, LeavesThePasswordOfOneWhoHasNoCode) {
  EXPECT_EQ(without_challenge("SCRV1:" + to_base64("a:b") + ":" + to_base64("123456")), "a:b");
  EXPECT_EQ(without_challenge("SCRV1:" + to_base64("a") + ":"), "a");
  for (const char* typed : {"secret123456", "SCRV1:", "SCRV1:YQ==", "SCRV1:YQ==:MTIz:", "SCRV1::",
                            "SCRV1:YQ=:MTIz", "xSCRV1:YQ==:MTIz"})
    EXPECT_EQ(without_challenge(typed), typed);
}

class SecondFactorsTest : public testing::Test {
 protected:
  SecondFactorsTest() { std::filesystem::create_directory(scratch.path("etc")); }
  [[nodiscard]] bool enrol(const std::string& user) const {
    return store.change(user, [](SecondFactor& factor) {
      factor = enrolled();
      return true;
    });
  }
  [[nodiscard]] bool reset(const std::string& user) const {
    return store.change(user, [](SecondFactor& factor) {
      factor = {};
      return true;
    });
  }
  [[nodiscard]] State state_of(const std::string& user) const { return store.of(user).state; }
  test::Scratch scratch;
  SecondFactors store{scratch.path("etc"), scratch.path("run/totp.lock")};
};

TEST_F(SecondFactorsTest, KeepEachUserApartWhateverTheNameIs) {
  const std::string odd = "bo:b\n%\xff,";
  ASSERT_TRUE(enrol(odd));
  ASSERT_TRUE(enrol("bob"));
  EXPECT_EQ(state_of(odd), State::On);
  EXPECT_EQ(state_of("bo"), State::Off);
  EXPECT_EQ(state_of("BOB"), State::Off);
  EXPECT_EQ(scratch.mode("etc/totp.conf"), 0600U);
  ASSERT_TRUE(reset(odd));
  EXPECT_EQ(state_of(odd), State::Off);
  EXPECT_EQ(state_of("bob"), State::On);
}

TEST_F(SecondFactorsTest, DamageRefusesWhomItConcernsAndNobodyElse) {
  ASSERT_TRUE(enrol("bob"));
  const std::string whole = scratch.read("etc/totp.conf");
  const std::string contents[] = {
      "",
      "\xff\xfe\x01garbage",
      whole.substr(0, whole.size() / 2),
      "rob" + whole.substr(3),
      whole + whole,
      "bob:maybe" + whole.substr(6),
      "bob:on:free:AAAA:0:0:0:\n",
      "bob:on:free:" + totp::to_base32(SECRET) + ":0:x:0:\n",
      "bob:on:free:" + totp::to_base32(SECRET) + ":0:0:0:short\n",
      std::string(5UL << 20U, 'x'),
  };
  for (const std::string& content : contents) {
    SCOPED_TRACE(content.substr(0, 80));
    scratch.write("etc/totp.conf", content);
    EXPECT_EQ(state_of("bob"), State::Damaged);
    EXPECT_EQ(store.use("bob", code_of(std::time(nullptr))) == FactorRefusal::None, false);
    EXPECT_EQ(state_of("alice"), State::Off);
  }
  scratch.write("etc/totp.conf", "junk\n");
  ASSERT_TRUE(enrol("alice"));
  EXPECT_EQ(state_of("bob"), State::Damaged);
  ASSERT_TRUE(reset("bob"));
  EXPECT_EQ(state_of("bob"), State::Off);
  EXPECT_EQ(state_of("alice"), State::On);
}

TEST_F(SecondFactorsTest, WithoutTheFileNobodyHasOneAlsoAfterTheNextChange) {
  ASSERT_TRUE(enrol("bob"));
  std::filesystem::remove(scratch.path("etc/totp.conf"));
  EXPECT_EQ(state_of("bob"), State::Off);
  ASSERT_TRUE(enrol("alice"));
  EXPECT_EQ(state_of("bob"), State::Off);
}

TEST_F(SecondFactorsTest, OnlyRequirementsGoBack) {
  const auto require = [&](const std::string& user, bool required) {
    return store.change(user, [&](SecondFactor& factor) {
      factor.required = required;
      return true;
    });
  };
  ASSERT_TRUE(enrol("bob") && enrol("gone") && require("alice", true));
  const std::string before = requirements_in(scratch.read("etc/totp.conf"));
  EXPECT_EQ(before, "alice:off:required::0:0:0:\n");
  EXPECT_EQ(requirements_in(before), before);
  ASSERT_TRUE(require("alice", false) && require("bob", true) && enrol("eve") && reset("gone"));
  ASSERT_EQ(store.use("eve", code_of(std::time(nullptr))), FactorRefusal::None);
  ASSERT_TRUE(store.require_as(before));
  EXPECT_TRUE(store.of("alice").is_missing());
  EXPECT_FALSE(store.of("bob").required);
  EXPECT_EQ(state_of("bob"), State::On);
  EXPECT_EQ(state_of("gone"), State::Off) << "what was reset stays so";
  EXPECT_EQ(store.use("eve", code_of(std::time(nullptr))), FactorRefusal::Used);
}

TEST_F(SecondFactorsTest, ABackupTakesNoneAwayAndBringsNoUsedCodeBack) {
  ASSERT_TRUE(enrol("bob") && enrol("lost"));
  ASSERT_TRUE(store.change("lost", [](SecondFactor& factor) { return factor.required = true; }));
  const std::string backup = scratch.read("etc/totp.conf");
  EXPECT_FALSE(store.differ_from(backup));
  ASSERT_EQ(store.use("bob", code_of(std::time(nullptr))), FactorRefusal::None);
  ASSERT_TRUE(enrol("new"));
  EXPECT_FALSE(store.differ_from(backup));
  ASSERT_TRUE(reset("lost"));
  EXPECT_TRUE(store.differ_from(backup));
  ASSERT_TRUE(store.restore(backup));
  EXPECT_FALSE(store.differ_from(backup));
  for (const char* user : {"bob", "new", "lost"}) {
    EXPECT_EQ(state_of(user), State::On) << user;
    EXPECT_EQ(store.of(user).required, user == std::string_view("lost"));
  }
  EXPECT_EQ(store.use("bob", code_of(std::time(nullptr))), FactorRefusal::Used);
  std::filesystem::remove(scratch.path("etc/totp.conf"));
  ASSERT_TRUE(store.restore(backup));
  scratch.write("etc/totp.conf", "");
  EXPECT_EQ(state_of("bob"), State::Damaged) << "the list of users follows";
}

// Real processes, of which each has read the file before any has written it. One that does not get
// its turn in time, as on a disk that hangs for seconds, is refused, too.
TEST_F(SecondFactorsTest, ACodeLetsOneOf64ProcessesIn) {
  ASSERT_TRUE(enrol("bob"));
  constexpr int PROCESSES = 64;
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  const std::string code = code_of(std::time(nullptr));
  std::vector<pid_t> all;
  for (int i = 0; i < PROCESSES; ++i) {
    all.push_back(fork());
    if (all.back() != 0) continue;
    char byte = 0;
    close(gate[1]);
    if (read(gate[0], &byte, 1) != 0) _exit(3);
    _exit(status_of_factor(static_cast<int>(store.use("bob", code))));
  }
  close(gate[0]);
  close(gate[1]);
  std::map<int, int> ends;  // how many, by what waitpid() says
  for (const pid_t process : all) {
    int status = -1;  // of these alone: a child of another test may end meanwhile
    EXPECT_EQ(waitpid(process, &status, 0), process);
    ++ends[status];
  }
  const auto ended = [&](FactorRefusal refusal) {
    return ends[W_EXITCODE(status_of_factor(static_cast<int>(refusal)), 0)];
  };
  EXPECT_EQ(ended(FactorRefusal::None), 1) << testing::PrintToString(ends);
  EXPECT_EQ(ended(FactorRefusal::Used) + ended(FactorRefusal::NotWritten), PROCESSES - 1)
      << testing::PrintToString(ends);
}

TEST_F(SecondFactorsTest, ACodeThatCannotBeMarkedAsUsedIsRefused) {
  ASSERT_TRUE(enrol("bob"));
  std::filesystem::create_directory(scratch.path("run/other.lock"));
  const SecondFactors other{scratch.path("etc"), scratch.path("run/other.lock")};
  EXPECT_EQ(other.use("bob", code_of(std::time(nullptr))), FactorRefusal::NotWritten);
  EXPECT_THAT(reason_of_factor(static_cast<int>(FactorRefusal::NotWritten)),
              HasSubstr("code-not-written"));
}

}  // namespace
}  // namespace fenro
