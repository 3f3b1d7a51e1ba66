// What the command line says about its own failures.
#include <gmock/gmock.h>

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
  const struct {
    std::vector<std::string> words;
    Exit exit;
    int error;
    const char* said;
  } rows[] = {
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
  for (const auto& row : rows) {
    Arguments arguments;
    arguments.words = {"office"};
    const Result result{.exit = row.exit, .error = row.error};
    EXPECT_THAT(advice_for(result, command(row.words), arguments), testing::HasSubstr(row.said))
        << row.said;
  }
}

TEST(OrmelCtlAdvice, FindsTheNameThatWasMeant) {
  const std::vector<std::string> known{"office", "branch", "branch-2", "", "é"};
  const struct {
    const char *word, *meant;
  } rows[] = {
      {"ofice", "office"},
      {"OFFICE", "office"},
      {"offcie", "office"},
      {"off", "office"},
      {"bra", ""},
      {"branhc", "branch"},
      {"o", ""},
      {"", ""},
      {"xy", ""},
      {"branch-3", "branch-2"},
      {"nothing-like", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(closest_name(row.word, known), row.meant) << row.word;
  EXPECT_EQ(did_you_mean("ofice", known, "list them"), "did you mean \"office\"? list them");
  EXPECT_EQ(did_you_mean("zzzzzz", known, "list them"), "list them");
}

}  // namespace
}  // namespace ormelctl
