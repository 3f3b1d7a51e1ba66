// The private appliance itself: what every other system test relies on without saying so.
#include "support/appliance_host.h"

using namespace ormel::test;

TEST(Appliance, ShowsNothingOfTheHostsLogsAndHomes) {
  for (const char* folder : {"/root", "/home/admin", "/var/spool", "/var/mail", "/mnt", "/srv"}) {
    SCOPED_TRACE(folder);
    EXPECT_TRUE(fs::is_directory(folder));
    EXPECT_TRUE(fs::is_empty(folder));
  }
  for (const auto& entry : fs::directory_iterator("/var/log")) EXPECT_EQ(entry.path(), "/var/log/network");
  EXPECT_FALSE(fs::exists("/etc/ssh"));
}

TEST(Appliance, KeepsThePasswordsOfItsUsersClosed) {
  for (const char* file : {"/etc/shadow", "/var/lib/appliance/password.admin", "/etc/ppp/chap-secrets"}) {
    EXPECT_EQ(mode_of(file), 0600U) << file;
  }
}

TEST(Appliance, CanBeChangedAnywhereButInTheKernelAndInTheSources) {
  for (const char* file : {"/etc/config/a", "/usr/sbin/a", "/usr/share/ormel/a", "/var/log/network/a"}) {
    SCOPED_TRACE(file);
    EXPECT_TRUE(std::ofstream(file) << "x" << std::flush);
  }
  EXPECT_FALSE(std::ofstream("/proc/sys/kernel/domainname") << "x" << std::flush);
  EXPECT_FALSE(std::ofstream(fs::path(__FILE__).parent_path() / "a") << "x" << std::flush);
}

TEST(Appliance, HasOneLocalNetworkAndNoWayOut) {
  EXPECT_EQ(read("/sys/class/net/eth0/operstate"), "up\n");
  const std::string routes = read("/proc/net/route");
  EXPECT_NE(routes.find("eth0\t00000000\tFE4DA8C0"), std::string::npos) << routes;
  EXPECT_NE(routes.find("eth0\t004DA8C0\t00000000"), std::string::npos) << routes;
}
