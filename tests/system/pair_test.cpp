// appliance: --pair
#include "support/far_appliance.h"

namespace ormel::test {

TEST(Pair, RunsProgramsInTwoAppliancesOnOneNetwork) {
  EXPECT_EQ(far::run({"/bin/hostname"}).out, "far\n");
  far::write("/etc/config/a", std::string("one\0two", 7), 0640);
  EXPECT_EQ(far::read("/etc/config/a").size(), 7U);
  EXPECT_FALSE(fs::exists("/etc/config/a"));
  EXPECT_EQ(far::run({"/bin/sh", "-c", "echo $A >&2; exit 3"}, {"A=b"}).err, "b\n");
  EXPECT_EQ(run({"/bin/ping", "-c1", "-W5", far::ADDRESS}).status, 0);
  EXPECT_EQ(far::run({"/bin/ping", "-c1", "-W5", far::NEAR_ADDRESS}).status, 0);
}

}  // namespace ormel::test
