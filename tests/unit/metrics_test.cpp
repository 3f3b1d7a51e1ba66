// Figures for a monitoring system: the document, questions that hang, and the names in use.
#include <array>
#include <chrono>
#include <cstdlib>
#include <gmock/gmock.h>
#include <poll.h>
#include <regex>
#include <unistd.h>

#include "ormel/actions/exposition.h"
#include "ormel/host/gather.h"
#include "support/exposition.h"
#include "support/files.h"

namespace ormel::metrics {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Metrics, AreWellFormedWhateverAProfileIsCalled) {
  std::string samples;
  for (const std::string& name :
       {std::string("of\"fi\nce\\"), std::string("a\r\tb"), std::string("}\"} 1 # HELP"),
        std::string("caf\xc3\xa9"), std::string("\xff\xfe"), std::string("nul\0nul", 7),
        std::string(" "), std::string("to the office"), std::string(5000, 'x')})
    samples += sample("ormel_tunnel_up", {{"protocol", "pptp"}, {"profile", name}}, 1);
  const support::Exposition parsed = support::parse_exposition(document(samples));
  EXPECT_THAT(parsed.faults, IsEmpty());
  EXPECT_EQ(parsed.samples.size(), 9U);
  EXPECT_TRUE(
      parsed.samples.count(R"re(ormel_tunnel_up{protocol="pptp",profile="of\"fi\nce\\"})re"));
}

TEST(Metrics, ShowEachFamilyOnceInTheOrderOfTheTable) {
  const std::string text = document(
      sample("ormel_users_blocked", {}, 1) + sample("ormel_daemon_up", {{"daemon", "b"}}, 0) +
      sample("ormel_made_up", {}, 1) + sample("ormel_daemon_up", {{"daemon", "a"}, {"x", ""}}, 1) +
      sample("ormel_daemon_up", {{"daemon", "b"}}, 1));
  EXPECT_EQ(text,
            "# HELP ormel_daemon_up Whether a daemon of the service bus answers.\n"
            "# TYPE ormel_daemon_up gauge\n"
            "ormel_daemon_up{daemon=\"b\"} 0\n"
            "ormel_daemon_up{daemon=\"a\"} 1\n"
            "# HELP ormel_users_blocked Users who are blocked for wrong passwords.\n"
            "# TYPE ormel_users_blocked gauge\n"
            "ormel_users_blocked 1\n");
}

TEST(Metrics, WaitForNoQuestionThatHangsOrDies) {
  const auto start = std::chrono::steady_clock::now();
  const auto answers =
      system::gather({[] { return std::string("one"); },
                      []() -> std::string {
                        pause();
                        return "never";
                      },
                      []() -> std::string { _exit(0); }, [] { return std::string(300000, 'x'); },
                      [] { return std::string(); }},
                     300ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_THAT(answers,
              ElementsAre("one", std::nullopt, std::nullopt, std::string(300000, 'x'), ""));
}

TEST(Metrics, LeaveNoProgramBehindThatAQuestionHasStarted) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  std::ignore = system::gather({[]() -> std::string {
                                 std::ignore = std::system("sleep 60");
                                 return "never";
                               }},
                               300ms);
  close(ends[1]);
  pollfd held{ends[0], POLLIN, 0};  // by the program, as long as it lives
  EXPECT_EQ(poll(&held, 1, 2000), 1);
  close(ends[0]);
}

// What the repository ships for monitoring systems, and what it says of the figures.
TEST(Metrics, HaveTheNamesThatAlertsDashboardAndDocumentationUse) {
  std::set<std::string> known;
  for (const Family& family : families()) known.emplace(family.name);
  for (const char* file : {"packaging/monitoring/prometheus-alerts.yml",
                           "packaging/monitoring/grafana-dashboard.json", "doc/monitoring.md"}) {
    const std::string text = support::read(std::string(ORMEL_SOURCE) + '/' + file);
    const std::regex name(R"(\bormel_[a-z][a-z_0-9]+)");
    std::set<std::string> used;
    for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at)
      used.insert(at->str());
    EXPECT_FALSE(used.empty()) << file;
    for (const std::string& one : used) EXPECT_TRUE(known.count(one)) << file << ": " << one;
    if (std::string_view(file).ends_with(".md")) {
      EXPECT_EQ(used, known) << "all are explained";
    }
  }
}

}  // namespace
}  // namespace ormel::metrics
