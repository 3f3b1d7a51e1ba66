#include "daemons/networkd/gateway_choice.h"

#include <vector>

#include <gtest/gtest.h>

#include "daemons/networkd/tunnel_watch.h"

namespace fenro::networkd {
namespace {

using enum Health;

struct Step {
  int minute;
  Health first;
  Health second;
  Chosen chosen;
};

void walk(const GatewayPolicy& policy, const std::vector<Step>& steps) {
  GatewayChoice choice;
  for (const Step& step : steps) {
    SCOPED_TRACE(testing::Message() << "step " << &step - steps.data());
    const GatewayChoice::Clock::time_point now{std::chrono::minutes(step.minute)};
    EXPECT_EQ(choice.choose(policy, step.first, step.second, now), step.chosen);
  }
}

TEST(GatewayChoice, ReturnsAfterTheFirstHasBeenWellForTheWholeInterval) {
  walk({"tun2001", "wgc3001", false, std::chrono::minutes(5)}, {
                                                                   {0, WELL, WELL, Chosen::FIRST},
                                                                   {1, SILENT, WELL, Chosen::SECOND},
                                                                   {2, WELL, WELL, Chosen::SECOND},
                                                                   {6, SILENT, WELL, Chosen::SECOND},  // starts anew
                                                                   {7, WELL, WELL, Chosen::SECOND},
                                                                   {11, WELL, WELL, Chosen::SECOND},
                                                                   {12, WELL, WELL, Chosen::FIRST},
                                                               });
}

TEST(GatewayChoice, NeverReturnsUnlessToldOrTheSecondFails) {
  walk({"tun2001", "wgc3001", false, {}}, {
                                              {0, ABSENT, WELL, Chosen::SECOND},
                                              {1, WELL, WELL, Chosen::SECOND},
                                              {9999, WELL, WELL, Chosen::SECOND},
                                              {10000, WELL, SILENT, Chosen::FIRST},
                                          });
}

TEST(GatewayChoice, StaysInASilentTunnelForWantOfABetterOne) {
  walk({"tun2001", "", false, {}}, {{0, SILENT, WELL, Chosen::FIRST}, {1, ABSENT, WELL, Chosen::NONE}});
  walk({"tun2001", "wgc3001", false, {}}, {{0, SILENT, SILENT, Chosen::FIRST},
                                           {1, ABSENT, SILENT, Chosen::SECOND},
                                           {2, SILENT, SILENT, Chosen::SECOND},
                                           {3, SILENT, ABSENT, Chosen::FIRST},
                                           {4, ABSENT, ABSENT, Chosen::NONE}});
  walk({}, {{0, WELL, WELL, Chosen::NONE}});
}

TEST(TunnelWatch, AsksTheFarEndThatTheAddressTellsOf) {
  constexpr std::uint32_t BASE = 0x0A080000;  // 10.8.0.0
  EXPECT_EQ(far_end({1, BASE + 6, BASE + 5, 32}), BASE + 5);
  EXPECT_EQ(far_end({1, BASE + 6, BASE + 6, 24}), BASE + 1);
  EXPECT_EQ(far_end({1, BASE + 1, BASE + 1, 24}), BASE + 2);
  EXPECT_EQ(far_end({1, BASE + 6, BASE + 6, 32}), BASE + 1);
}

}  // namespace
}  // namespace fenro::networkd
