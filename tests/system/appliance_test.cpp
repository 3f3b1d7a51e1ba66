// The private appliance itself: what every other system test relies on without saying so.
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

std::string read(const fs::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Whether somebody listens on an abstract socket; "" in `name` stands for nobody.
bool answers(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
  close(fd);
  return connected;
}

}  // namespace

TEST(Appliance, HasItsOwnNameProcessesAndUsers) {
  utsname name{};
  ASSERT_EQ(uname(&name), 0);

  EXPECT_STREQ(name.nodename, "appliance");
  EXPECT_EQ(getuid(), 0U);
  EXPECT_LT(getpid(), 1000) << "the process numbers are the host's";
  EXPECT_NE(read("/etc/group").find("administrators:x:1900:admin\n"), std::string::npos);
  EXPECT_EQ(read("/etc/passwd").find("root:x:0:0:"), 0U);
}

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
    SCOPED_TRACE(file);
    struct stat status {};
    ASSERT_EQ(stat(file, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
  }
}

TEST(Appliance, GivesTheSystemsToolsAndFoldersFromTheInstalledTree) {
  for (const char* program : {"/usr/sbin/ormel", "/usr/sbin/ormel.cgi", "/sbin/ormel"}) {
    SCOPED_TRACE(program);
    EXPECT_EQ(access(program, X_OK), 0) << std::strerror(errno);
  }
  EXPECT_TRUE(fs::is_directory("/etc/config"));
  EXPECT_EQ(access("/etc/pam.d/fenro", R_OK), 0);
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

TEST(Appliance, HasItsDaemonsUpBeforeTheCommandStarts) {
  if (fs::exists("/usr/lib/fenro/fenro-networkd")) {
    EXPECT_TRUE(answers("fenro-bus/NetworkService"));
  }
  EXPECT_FALSE(answers("fenro-bus/Nobody"));
}
