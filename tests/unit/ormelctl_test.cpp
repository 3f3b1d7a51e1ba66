// What the command line says about its own failures.
#include <gmock/gmock.h>
#include <map>
#include <sstream>

#include "base/error_code.h"
#include "ormelctl/advice.h"

namespace ormelctl {
namespace {

const Command& command(std::vector<std::string> words) {
  std::string ignored;
  const Command* found = find_command(words, ignored);
  return found ? *found : commands().front();
}

TEST(OrmelCtlAdvice, GoesByTheCodeOrTheStatus) {
  const std::tuple<std::vector<std::string>, Exit, int, const char*> rows[] = {
      {{"who"}, Exit::Failed, ormel::ERR_MIB_CALL_FAILED, "systemctl restart"},
      {{"who"}, Exit::Failed, ormel::ERR_WRONG_JSON_FORMAT, "systemctl restart"},
      {{"profile", "add"}, Exit::Failed, ormel::ERR_SAVE_CONFIG, "df /etc/config"},
      {{"sdwan", "join"}, Exit::Failed, ormel::ERR_PELMARAPI_WANIP, "sdwan status"},
      {{"who"}, Exit::Failed, ormel::ERR_ACCESS, "ormelctl doctor"},
      {{"peer", "rm"}, Exit::NotFound, 0, "ormelctl peer list"},
      {{"gateway", "set"}, Exit::NotFound, 0, "ormelctl status"},
      {{"kick"}, Exit::Usage, 0, "example: ormelctl kick bob --for 30m --yes"},
      {{"status"}, Exit::Differs, 0, "ormelctl why office"},
  };
  for (const auto& [words, exit, error, said] : rows) {
    Arguments arguments;
    arguments.words = {"office"};
    EXPECT_THAT(advice_for({.exit = exit, .error = error}, command(words), arguments),
                testing::HasSubstr(said));
  }
}

// Which of the options are numbers, so that a new one has to say it.
enum class Kind { Text, Number, Time, ByCommand };
const std::map<std::string, Kind> KINDS{
    {"max", Kind::Number},      {"port", Kind::Number},    {"mss", Kind::Number},
    {"back", Kind::Number},     {"mask", Kind::Number},    {"keepalive", Kind::Number},
    {"overlap", Kind::Time},    {"wait", Kind::Time},      {"for", Kind::Time},
    {"since", Kind::Time},      {"expires", Kind::Time},   {"until", Kind::ByCommand},
    {"limit", Kind::ByCommand}, {"time", Kind::ByCommand}, {"devices", Kind::ByCommand},
};
constexpr const char* TEXTS =
    " check bundle progress name host user pass-file psk-file auth enc reconnect address "
    "private-key-file peer-key endpoint allowed dns ca cert key tls-auth pool proto interface "
    "redirect compress filter enable snat lan ipv6 url to events secret-file textfile scope "
    "passphrase-file only result-file organization region ";

TEST(OrmelCtlNumbers, AreWholeWordsInEveryCommand) {
  constexpr const char* WRONG[] = {"5x",  "-5",  "",    " 5",  "5 ", "+5",
                                   "0x5", "5.5", "5,5", "1e1", "x",  "99999999999999999999"};
  for (const Command& row : commands()) {
    std::istringstream options{row.options};
    for (std::string option; options >> option;) {
      if (!option.ends_with('=')) continue;
      option.pop_back();
      const auto kind = KINDS.find(option);
      if (kind == KINDS.end()) {
        EXPECT_THAT(TEXTS, testing::HasSubstr(' ' + option + ' ')) << "number or text?";
        continue;
      }
      const auto is_taken = [&](const std::string& value) {
        Arguments arguments;
        std::vector<std::string> words{std::string("--").append(option).append("=").append(value)};
        if (*row.operands && *row.operands != '[') words.emplace_back("a");
        return parse_arguments(row, words, arguments).empty() &&
               (kind->second != Kind::Time || arguments.seconds(option, 0) >= 0);
      };
      EXPECT_TRUE(is_taken("5")) << row.noun << " --" << option;
      if (kind->second == Kind::ByCommand) continue;
      for (const char* value : WRONG)
        EXPECT_FALSE(is_taken(value)) << row.noun << " --" << option << ' ' << value;
    }
  }
}

TEST(OrmelCtlAdvice, FindsTheNameThatWasMeant) {
  const std::vector<std::string> known{"office", "branch", "branch-2", "", "é"};
  const std::pair<const char*, const char*> rows[] = {
      {"bra", ""}, {"ofice", "office"},  {"branhc", "branch"},
      {"o", ""},   {"OFFICE", "office"}, {"branch-3", "branch-2"},
      {"", ""},    {"offcie", "office"}, {"nothing-like", ""},
      {"xy", ""},  {"off", "office"},
  };
  for (const auto& [word, meant] : rows) EXPECT_EQ(closest_name(word, known), meant) << word;
  EXPECT_EQ(did_you_mean("ofice", known, "list them"), "did you mean \"office\"? list them");
  EXPECT_EQ(did_you_mean("zzzzzz", known, "list them"), "list them");
}

}  // namespace
}  // namespace ormelctl
