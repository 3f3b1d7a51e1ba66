// The keeper's rules: pauses between attempts, when it gives up, how much is sent, and what a
// receiver can check.
#include <gmock/gmock.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "base/file.h"
#include "daemons/keeper/backoff.h"
#include "daemons/keeper/certificates.h"
#include "daemons/keeper/notifier.h"
#include "daemons/keeper/rate_limit.h"
#include "daemons/keeper/recent.h"
#include "daemons/keeper/tunnels.h"
#include "support/wait.h"
#include "unit/platform/scratch.h"

namespace fenro::keeper {
namespace {

using namespace std::chrono_literals;

TEST(KeeperBackoff, DoublesItsPausesUpToFiveMinutesAndForgetsThemInTime) {
  Backoff backoff;
  Backoff::Time now{1h};
  backoff.died(now, 2s);
  EXPECT_EQ(backoff.due() - now, 2s) << "the first attempt waits for hooks alone";
  std::vector<long> pauses;
  for (int i = 0; i < 9; ++i) {
    now = backoff.due();
    backoff.attempt(now);
    pauses.push_back((backoff.due() - now) / 1s);
  }
  EXPECT_THAT(pauses, testing::ElementsAre(5, 10, 20, 40, 80, 160, 300, 300, 300));
  now += Backoff::STEADY;
  backoff.died(now, 2s);
  EXPECT_EQ(backoff.due() - now, 2s);
  backoff.attempt(now);
  EXPECT_EQ(backoff.due() - now, 5s);
}

TEST(KeeperBackoff, GivesUpAfterFiveRestartsInTenMinutes) {
  Backoff backoff;
  Backoff::Time now{1h};
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(backoff.given_up(now));
    backoff.restarted(now);
    now += 1min;
  }
  EXPECT_TRUE(backoff.given_up(now));
  EXPECT_FALSE(backoff.given_up(now + 5min)) << "the first of them is ten minutes ago";
}

TEST(KeeperRateLimit, SendsTwentyAnHourAndThenSaysHowManyThereWere) {
  RateLimit limit;
  const RateLimit::Time begin{1h};
  int sent = 0;
  for (int i = 0; i < 50; ++i) sent += limit.admit("ops lost", begin + i * 1min) ? 1 : 0;
  EXPECT_EQ(sent, 20);
  EXPECT_TRUE(limit.admit("ops failed", begin)) << "another kind has its own hour";
  EXPECT_THAT(limit.ended(begin + 59min), testing::IsEmpty());
  const auto ended = limit.ended(begin + 1h);
  ASSERT_EQ(ended.size(), 1U);
  EXPECT_EQ(ended[0].key + ' ' + std::to_string(ended[0].held_back), "ops lost 30");
  EXPECT_TRUE(limit.admit("ops lost", begin + 1h));
}

TEST(KeeperNotifier, SignsAsTheStandardSays) {  // RFC 4231, case 2
  EXPECT_EQ(signature("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(KeeperRecent, ShowsTheLatestReportsFirstAndAHundredAtMost) {
  Recent recent;
  for (int i = 0; i < 120; ++i)
    recent.add(
        {"lost", Level::Warning, "WG_CLIENT1", "text " + std::to_string(i) + "\xff", "no-answer"},
        1000 + i);
  const Json rows = recent.show();
  ASSERT_EQ(json_array_size(rows.get()), 100U);
  EXPECT_EQ(compact(json_array_get(rows.get(), 0)),
            R"({"at":1119,"event":"lost","level":"warning","subject":"WG_CLIENT1","text":"text 119)"
            "\xEF\xBF\xBD"
            R"(","reason":"no-answer"})");
}

TEST(KeeperCertificates, AreLookedAtSoonAfterTheStartAndEachQuarterOfAnHour) {
  const test::Scratch scratch;
  const std::string tool = scratch.path("tool"), calls = scratch.path("calls");
  ASSERT_TRUE(
      replace_file(tool, "#!/bin/sh\necho \"$@\" >>" + calls + "\necho full >&2\nexit 1\n", 0755));
  const auto called = [&] {
    support::comes_true([&] { return !scratch.read("calls").empty(); });
    std::string text = scratch.read("calls");
    unlink(calls.c_str());
    return text;
  };
  Certificates::Time now{1h};
  Certificates certificates{now, tool};
  for (const auto& [pause, said] :
       {std::pair{20s, "fenro-keeperd: certificates: full\n"}, {900s, ""}}) {
    testing::internal::CaptureStderr();
    certificates.tick(now + pause - 1s);
    now += pause;
    certificates.tick(now);
    EXPECT_EQ(called(), "__tend-certificates\n");
    for (int i = 0; i < 20; ++i) {  // until it has reaped the tool
      std::this_thread::sleep_for(10ms);
      certificates.tick(now);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), said);
  }
  EXPECT_NE(access(calls.c_str(), F_OK), 0) << "no further run";
}

TEST(KeeperTunnels, KnowsSectionsAndTheirInterfaces) {
  for (const char* section : {"", "PPTP_CLIENT", "PPTP_CLIENT0", "PPTP_CLIENT33", "PPTP_CLIENT01",
                              "WG_CLIENT1x", "global"})
    EXPECT_FALSE(find_tunnel(section)) << section;
  EXPECT_TRUE(find_tunnel("OPENVPN")->is_server());
  const auto client = find_tunnel("DROVIK_CLIENT7");
  ASSERT_TRUE(client);
  EXPECT_EQ(client->section() + ' ' + client->interface(), "DROVIK_CLIENT7 dtunc2507");
  EXPECT_THAT(client->script("keep"),
              testing::ElementsAre("/etc/init.d/vpn_drovik_client.sh", "keep", "7"));
}

}  // namespace
}  // namespace fenro::keeper
