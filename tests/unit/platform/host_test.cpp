#include <fenro/auth.h>
#include <fenro/datetime.h>
#include <fenro/host.h>
#include <gtest/gtest.h>

#include "libfenro/user.h"
#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

TEST(DateTime, EveryFormatPrintsItsOwnText) {
  tm parts{};
  strptime("2024-03-07 14:05:09", "%F %T", &parts);
  parts.tm_isdst = -1;
  const std::time_t seconds = std::mktime(&parts);
  std::array<char, 64> buffer{};
  for (int format = 0; const char* date : {"2024/03/07", "2024-03-07", "03/07/2024", "03-07-2024",
                                           "07/03/2024", "07-03-2024"}) {
    EXPECT_EQ(Change_Date_To_String_By_Format(seconds, buffer.data(), format++), 0);
    EXPECT_STREQ(buffer.data(), date);
  }
  for (int form = 0; const char* time : {"14:05", "14:05:09", "02:05 PM", "02:05:09 PM"}) {
    EXPECT_EQ(Change_Time_To_String_By_Format(seconds, buffer.data(), form % 2, form / 2), 0);
    EXPECT_STREQ(buffer.data(), time);
    ++form;
  }
}

TEST(Users, ANameTellsItsSource) {
  const std::vector<std::string> local{"amy", "b@b"};
  EXPECT_EQ(source_of("amy", local), Source::Local);
  EXPECT_EQ(source_of("b@b", local), Source::Local);
  EXPECT_EQ(source_of("zoe", local), Source::Ldap);
  for (const char* name : {"OFFICE\\zoe", "zoe@office.example", "OFFICE+zoe"})
    EXPECT_EQ(source_of(name, local), Source::Domain) << name;
}

TEST(Users, AreThePeopleAmongTheAccounts) {
  const Scratch scratch;
  const std::string file =
      scratch.write("passwd",
                    "root:x:0:0::/root:/bin/bash\nwww-data:x:33:33::/var/www:/usr/sbin/nologin\n"
                    "mail-in:x:1500:8::/:/bin/false\nzoe:x:1002:1002::/home/zoe:/bin/bash\n"
                    "amy:x:1000:1000::/home/amy:\nlow:x:999:1::/:/bin/sh\n"
                    "nobody:x:65534:65534::/nonexistent:/usr/sbin/nologin\n");
  EXPECT_EQ(people_of_file(file.c_str(), 1000), (std::vector<std::string>{"amy", "zoe"}));
  EXPECT_EQ(people_of_file(file.c_str(), 1001), std::vector<std::string>{"zoe"});
  EXPECT_TRUE(people_of_file(scratch.path("none").c_str(), 0).empty());
  EXPECT_EQ(least_person("# UID_MIN 5\nSYS_UID_MIN 100\nUID_MIN\t\t 2000\n"), 2000U);
  for (const char* text : {"", "UID_MIN\n", "UID_MIN x\n", "UID_MINOR 7\n"})
    EXPECT_EQ(least_person(text), 1000U) << text;
}

TEST(Users, OnlyThePasswdLineTellsOfADirectory) {
  for (const char* text : {"passwd: files ldap\n", "passwd:\tfiles sss", "passwd:ldap\n"})
    EXPECT_TRUE(asks_directory(text)) << text;
  for (const char* text : {"passwd: files systemd\n", "group: ldap\npasswd: files\n",
                           "passwd: files # ldap\n", "passwd: files noldap\n", ""})
    EXPECT_FALSE(asks_directory(text)) << text;
}

TEST(Users, FilesAreReadHereWhereTheyComeFirst) {
  for (const char* text : {"passwd: files systemd\n", "passwd:files",
                           "group: sss\npasswd:\tfiles\n", "passwd:\n", "group: sss files\n", ""})
    EXPECT_TRUE(asks_files_first(text, "passwd:")) << text;
  for (const char* text : {"passwd: sss files\n", "passwd: compat", "# passwd: files\npasswd: db\n",
                           "passwd: files [SUCCESS=continue] sss\n"})
    EXPECT_FALSE(asks_files_first(text, "passwd:")) << text;
}

TEST(Users, AreTheOnesOfTheHostsFiles) {
  const Scratch scratch;
  const std::pair<const char*, const char*> files[] = {
      {"passwd",
       "#eve:x:4:4::/:/bin/sh\nadmin2:x:5:5::/:/bin/sh\nadmin:x:1000:100::/:/bin/sh\n"
       "admin:x:7:7::/:/bin/sh\nbob:x:1001:27::/:/bin/sh\nbad:x::9::/:/bin/sh\n"
       "+:x:1002:27::/:/bin/sh\ncar:x:1004:100::/:/bin/sh\ncarl:x:1003:100::/:/bin/sh\n"},
      {"group",
       "users:x:100:\nwheel:x:27:root,admin,\nwheels:x:28:carl\nempty:x:29:\n"
       "+:x:30:admin\n"},
      {"nsswitch.conf", "passwd: files\ngroup: files\n"},
  };
  const std::tuple<const char*, const char*, int> cases[] = {
      {"admin", "wheel", 1}, {"admin", "users", 1}, {"admin2", "wheel", 0}, {"bob", "wheel", 1},
      {"carl", "wheel", 0},  {"carl", "wheels", 1}, {"car", "wheels", 0},   {"root", "wheel", 0},
      {"admin", "empty", 0}, {"#eve", "wheel", 0},  {"admin", "whee", 0},   {"admin", "", 0},
      {"", "wheel", 0},      {"+", "wheel", 0},     {"admin", "+", 0},      {"adm", "wheel", 0},
      {"bad", "wheel", 0},
  };
  const int status = in_private_host(scratch, [&] {
    for (const auto& [name, text] : files) {
      const std::string own = scratch.write(name, text);
      if (mount(own.c_str(), (std::string("/etc/") + name).c_str(), nullptr, MS_BIND, nullptr) != 0)
        return NO_NAMESPACE;
    }
    int wrong = 0;
    const auto admin = find_user("admin");
    if (!admin || admin->uid != 1000 || admin->gid != 100) wrong = 1;
    for (const auto& [user, group, belongs] : cases) {
      if (User_Belongs_To_Group(user, group) == belongs) continue;
      std::fprintf(stderr, "wrong for \"%s\" and \"%s\"\n", user, group);
      wrong = 1;
    }
    return wrong;
  });
  if (status < 0) GTEST_SKIP() << "no mount namespace here";
  EXPECT_EQ(status, 0);
}

// With its own stack in the place of the host's, whose module compares what it is handed.
TEST(Password, ReachesPamAsItWasGiven) {
  const Scratch scratch;
  const std::string check = scratch.write(
      "check",
      "#!/bin/sh\n[ \"$(tr -d '\\000')\" = 'right \"one\"' ] && [ \"$PAM_USER\" = root ]\n");
  ASSERT_EQ(chmod(check.c_str(), 0700), 0);
  std::filesystem::create_directory(scratch.path("pam.d"));
  scratch.write("pam.d/fenro", "auth required pam_exec.so quiet expose_authtok " + check +
                                   "\naccount required pam_permit.so\n");
  const int status = in_private_host(scratch, [&] {
    if (mount(scratch.path("pam.d").c_str(), "/etc/pam.d", nullptr, MS_BIND, nullptr) != 0)
      return NO_NAMESPACE;
    const int right = Check_NAS_User_Password("root", "right \"one\"") == 0 ? 0 : 1;
    const int wrong = Check_NAS_User_Password("root", "right") != 0 ? 0 : 2;
    const int other = Check_NAS_User_Password("nobody", "right \"one\"") != 0 ? 0 : 4;
    return right + wrong + other;
  });
  if (status < 0) GTEST_SKIP() << "no mount namespace, or no PAM here";
  EXPECT_EQ(status, 0);
}

TEST(Host, ATemporaryNameIsNewAndOnlyTheMarkChanges) {
  const Scratch scratch;
  std::string first = scratch.path("pap-XXXXXX-XXXXXX");
  std::string second = first;
  EXPECT_EQ(vantri_mktmpname(first.data()), 0);
  EXPECT_EQ(vantri_mktmpname(second.data()), 0);
  EXPECT_NE(first, second);
  EXPECT_TRUE(first.starts_with(scratch.path("pap-XXXXXX-")));
  EXPECT_EQ(scratch.files(), 0U);
  for (std::string bad : {"", "XXXXX", "fileXXXXXXx", "/nonexistent\n/XXXXX"}) {
    const std::string before = bad;
    EXPECT_NE(vantri_mktmpname(bad.data()), 0) << bad;
    EXPECT_EQ(bad, before);
  }
}

}  // namespace
}  // namespace fenro::test
