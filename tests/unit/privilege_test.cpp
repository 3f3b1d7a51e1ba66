#include "ormel/actions/privilege.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>

#include <gtest/gtest.h>

#include "base/types.h"
#include "ormel/base/handle.h"
#include "support/scratch_file.h"

namespace ormel {
namespace {

namespace fs = std::filesystem;

constexpr const char* PAP = "/etc/ppp/pap-secrets";
constexpr const char* CHAP = "/etc/ppp/chap-secrets";
constexpr const char* STORE = "/etc/config/vpn_user_ex.conf";

// The three files in a root folder of the test's own.
class PrivilegeFiles : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* folder : {"/etc/ppp", "/etc/config"}) fs::create_directories(root + folder);
  }
  void write(const char* file, const std::string& text) const { support::write(root + file, text); }
  [[nodiscard]] std::string read(const char* file) const { return support::read(root + file); }
  [[nodiscard]] long files() const {
    return std::count_if(fs::recursive_directory_iterator(root), {},
                         [](const auto& e) { return e.is_regular_file(); });
  }
  const support::Scratch scratch;
  const std::string root = scratch.path("root");
};

TEST_F(PrivilegeFiles, AreReplacedWholeAndPrivate) {
  for (const char* file : {PAP, CHAP, STORE}) write(file, "old");
  chmod((root + PAP).c_str(), 0644);
  save_privileges(
      root, {{"b\"ob", PPTP_SERVER_TYPE}, {"al", 0}, {"x\nroot:1:1:1:0:1", OVPN_SERVER_TYPE}});
  EXPECT_EQ(read(PAP), "\"b\"ob\"\tpptpd\t@login\t*\n") << "quoted unchanged";
  EXPECT_EQ(read(STORE), "al:0:0:0:0:0\nb\"ob:1:0:0:0:0\n") << "in order; no line of a name's own";
  EXPECT_EQ(files(), 3) << "no temporary file is left";
  EXPECT_EQ(support::mode_of(root + PAP), 0600U);
  save_privileges(root, {});
  EXPECT_EQ(read(PAP) + read(CHAP) + read(STORE), "");
}

using StaleTemporaries = PrivilegeFiles;

TEST_F(StaleTemporaries, GoAtTheNextWriteUnlessTheirWriterLives) {
  const std::vector<std::string> kept{"-backup", "-202601", "-Ab12C", "-Ab12Cde", "-Xb12Cd"};
  for (const std::string& name : kept) write((PAP + name).c_str(), "kept");
  const Fd living{open((root + PAP + "-Xb12Cd").c_str(), O_RDWR | O_CLOEXEC)};
  ASSERT_EQ(flock(living.get(), LOCK_EX), 0);
  for (const char* file : {PAP, CHAP, STORE})
    write((std::string(file) + "-Ab12Cd").c_str(), "secret");
  for (const auto& file : fs::recursive_directory_iterator(root))
    if (file.is_regular_file()) chmod(file.path().c_str(), 0600);
  save_privileges(root, {{"bob", PPTP_SERVER_TYPE}});
  EXPECT_EQ(files(), static_cast<long>(kept.size()) + 3);
  for (const std::string& name : kept) EXPECT_EQ(read((PAP + name).c_str()), "kept");
}

TEST_F(PrivilegeFiles, StayWhenOneCannotBeWritten) {
  for (const char* file : {PAP, CHAP}) write(file, "old");
  fs::remove_all(root + "/etc/config");
  save_privileges(root, {{"bob", PPTP_SERVER_TYPE}});
  EXPECT_EQ(read(PAP) + read(CHAP), "oldold");
  EXPECT_EQ(files(), 2);
}

TEST_F(PrivilegeFiles, LoadAddsWhatTheLinesSay) {
  write(STORE,
        "bob:1:1:1:1:1\nann:0:0:2\nbob:0:0:0:1:0\nno colon\n\nodd: "
        "1:x:1:1:1\nbig:99999999999999999999:-1:0:0:0\nlast:0:1");
  PrivilegeStorage storage{{"bob", 32}, {"kept", 8}};
  load_privileges(root, storage);
  const PrivilegeStorage expected{
      {"ann", L2TP_SERVER_TYPE},  {"big", PPTP_SERVER_TYPE | OVPN_SERVER_TYPE},
      {"bob", NONE_TYPE},         {"kept", 8},
      {"last", OVPN_SERVER_TYPE}, {"odd", PPTP_SERVER_TYPE}};
  EXPECT_EQ(storage, expected);
  fs::remove(root + STORE);
  load_privileges(root, storage);
  EXPECT_EQ(storage, expected) << "a missing file adds nothing";
}

TEST(UserPrivileges, AreShownByPages) {
  UserPrivilege privileges;
  privileges.storage = {{"ann", 1}, {"bob", 2}, {"Bobby", 4}, {"carl", 8}};
  const std::tuple<int, int, const char*, const char*> rows[] = {
      {0, 0, "", "null"},  {0, 1, "", R"({"Bobby":4})"},  {1, 2, "", R"({"ann":1,"bob":2})"},
      {0, -1, "", "null"}, {1, 1, "bob", R"({"bob":2})"}, {0, 5, "bOb", R"({"Bobby":4,"bob":2})"},
      {4, 5, "", "null"},  {3, 5, "", R"({"carl":8})"},
  };
  for (const auto& [start, count, filter, expected] : rows) {
    JsonValue out;
    EXPECT_EQ(privileges.get(start, count, filter, out), 4);
    std::string page;
    out.toString(page);
    EXPECT_EQ(page, expected) << start << ' ' << count << ' ' << filter;
  }
}

}  // namespace
}  // namespace ormel
