// The private appliance itself: what every other system test relies on without saying so.
#include <sstream>

#include "support/appliance_host.h"

using namespace ormel::test;

namespace {

// Whether a path is a folder that the caller asked to show (a mount), or is above one.
bool leads_to_a_mount(const std::string& path) {
  std::istringstream mounts(read("/proc/self/mountinfo"));
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream words(line);
    const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    if ((fields.at(4) + '/').starts_with(path + '/')) return true;
  }
  return false;
}

}  // namespace

TEST(Appliance, ShowsNothingOfTheHostsLogsAndHomes) {
  for (const char* folder :
       {"/root", "/home", "/home/admin", "/var/spool", "/var/mail", "/mnt", "/srv"}) {
    SCOPED_TRACE(folder);
    EXPECT_TRUE(fs::is_directory(folder));
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path() == "/home/admin" || entry.path() == "/home/guest") continue;
      EXPECT_TRUE(leads_to_a_mount(entry.path())) << entry.path();
    }
  }
  for (const auto& entry : fs::directory_iterator("/var/log"))
    EXPECT_EQ(entry.path(), "/var/log/network");
  EXPECT_FALSE(fs::exists("/etc/ssh"));
}

TEST(Appliance, KeepsThePasswordsOfItsUsersClosed) {
  for (const char* file :
       {"/etc/shadow", "/var/lib/appliance/password.admin", "/etc/ppp/chap-secrets"}) {
    EXPECT_EQ(mode_of(file), 0600U) << file;
  }
}

TEST(Appliance, CanBeChangedAnywhereButInTheKernelAndInTheSources) {
  for (const char* file :
       {"/etc/config/a", "/usr/sbin/a", "/usr/share/ormel/a", "/var/log/network/a"}) {
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
