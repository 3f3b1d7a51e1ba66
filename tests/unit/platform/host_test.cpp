#include <arpa/inet.h>
#include <cstring>

#include <fenro/auth.h>
#include <fenro/datetime.h>
#include <fenro/host.h>
#include <gtest/gtest.h>

#include "common/c_memory.h"
#include "libfenro/user.h"
#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

TEST(DateTime, EveryFormatPrintsItsOwnText) {
  tm parts{};
  parts.tm_year = 124;
  parts.tm_mon = 2;
  parts.tm_mday = 7;
  parts.tm_hour = 14;
  parts.tm_min = 5;
  parts.tm_sec = 9;
  parts.tm_isdst = -1;
  const std::time_t seconds = std::mktime(&parts);
  std::array<char, 64> buffer{};
  const char* const dates[] = {"2024/03/07", "2024-03-07", "03/07/2024", "03-07-2024", "07/03/2024", "07-03-2024"};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(Change_Date_To_String_By_Format(seconds, buffer.data(), i), 0);
    EXPECT_STREQ(buffer.data(), dates[i]);
  }
  const char* const times[2][2] = {{"14:05", "14:05:09"}, {"02:05 PM", "02:05:09 PM"}};
  for (int format = 0; format < 2; ++format)
    for (int seconds_too = 0; seconds_too < 2; ++seconds_too) {
      EXPECT_EQ(Change_Time_To_String_By_Format(seconds, buffer.data(), seconds_too, format), 0);
      EXPECT_STREQ(buffer.data(), times[format][seconds_too]);
    }
}

TEST(DateTime, AnUnknownFormatOrTimeEmptiesTheBuffer) {
  constexpr std::time_t FAR = std::time_t{1} << 60;  // no year holds it
  for (const auto& [seconds, format] : {std::pair<std::time_t, int>{0, -1}, {0, 6}, {FAR, 0}}) {
    std::array<char, 64> buffer{"old"};
    EXPECT_NE(Change_Date_To_String_By_Format(seconds, buffer.data(), format), 0);
    EXPECT_STREQ(buffer.data(), "");
  }
  EXPECT_NE(Change_Date_Time_To_String(FAR, nullptr), 0);
}

TEST(Users, APageIsCutFromTheNamesThatMatch) {
  struct Case {
    int lower, upper;
    const char* filter;
    std::vector<std::string> page;
    int total;
  };
  const Case cases[] = {
      {0, 50, "", {"amy", "bob", "bobby", "eve"}, 4},
      {1, 2, "", {"bob", "bobby"}, 4},
      {3, 3, "", {"eve"}, 4},
      {4, 9, "", {}, 4},
      {-2, 0, "", {"amy"}, 4},
      {2, 1, "", {}, 4},
      {0, 0, "bob", {"bob"}, 2},
      {1, 9, "bob", {"bobby"}, 2},
      {0, 9, "zoe", {}, 0},
      {0, -1, "", {}, 4},
  };
  for (const Case& row : cases) {
    int total = -1;
    EXPECT_EQ(page_of({"amy", "bob", "bobby", "eve"}, row.lower, row.upper, row.filter, total), row.page);
    EXPECT_EQ(total, row.total);
  }
}

TEST(Users, TheLocalListIsThatOfThePasswdFile) {
  using List = CArray<char[33]>;
  char(*rows)[33] = nullptr;
  int total = 0;
  const int count = Get_Local_User_List_V2(&rows, 0, 1000, "root", &total);
  const List owner{rows};

  ASSERT_GE(count, 1);
  EXPECT_EQ(count, total);
  EXPECT_STREQ(rows[0], "root");
  EXPECT_EQ(Get_Local_User_List_V2(&rows, 0, 9, "no such user", &total), 0);
  EXPECT_EQ(total, 0);
  EXPECT_LT(Get_Local_User_List_V2(nullptr, 0, 9, "", &total), 0);
}

TEST(Users, ANameTellsItsSource) {
  const std::vector<std::string> local{"amy", "b@b"};
  EXPECT_EQ(source_of("amy", local), Source::Local);
  EXPECT_EQ(source_of("b@b", local), Source::Local);
  EXPECT_EQ(source_of("zoe", local), Source::Ldap);
  for (const char* name : {"OFFICE\\zoe", "zoe@office.example", "OFFICE+zoe"})
    EXPECT_EQ(source_of(name, local), Source::Domain) << name;
}

TEST(Users, OnlyThePasswdLineTellsOfADirectory) {
  struct Case {
    const char* text;
    bool asks;
  };
  const Case cases[] = {
      {"passwd: files ldap\n", true},
      {"passwd:\tfiles sss", true},
      {"passwd:ldap\n", true},
      {"passwd: files systemd\n", false},
      {"group: ldap\npasswd: files\n", false},
      {"passwd: files # ldap\n", false},
      {"passwd: files noldap\n", false},
      {"", false},
  };
  for (const Case& row : cases) EXPECT_EQ(asks_directory(row.text), row.asks) << row.text;
}

TEST(Users, BelongToTheirPrimaryGroupAndNoStrangerToAny) {
  EXPECT_NE(User_Belongs_To_Group("root", "root"), 0);
  EXPECT_EQ(User_Belongs_To_Group("root", "nogroup"), 0);
  EXPECT_EQ(User_Belongs_To_Group("root", "no such group"), 0);
  EXPECT_EQ(User_Belongs_To_Group("no such user", "root"), 0);
  EXPECT_EQ(User_Belongs_To_Group(nullptr, nullptr), 0);
}

TEST(Password, RefusesWhoDoesNotExist) {
  EXPECT_NE(Check_NAS_User_Password("no such user", "secret"), 0);
  EXPECT_NE(Check_NAS_User_Password("", ""), 0);
  EXPECT_NE(Check_NAS_User_Password(nullptr, nullptr), 0);
}

// With a stack of its own in the place of the host's, whose module compares what the conversation hands it.
TEST(Password, ReachesPamAsItWasGiven) {
  const Scratch scratch;
  const std::string check =
      scratch.write("check", "#!/bin/sh\n[ \"$(tr -d '\\000')\" = 'right \"one\"' ] && [ \"$PAM_USER\" = root ]\n");
  ASSERT_EQ(chmod(check.c_str(), 0700), 0);
  std::filesystem::create_directory(scratch.path("pam.d"));
  scratch.write("pam.d/fenro",
                "auth required pam_exec.so quiet expose_authtok " + check + "\naccount required pam_permit.so\n");
  const int status = in_private_host(scratch, [&] {
    if (mount(scratch.path("pam.d").c_str(), "/etc/pam.d", nullptr, MS_BIND, nullptr) != 0) return NO_NAMESPACE;
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

TEST(Host, TheExternalAddressIsOneOrNone) {
  std::array<char, 64> buffer{};
  std::array<char, 4> small{};
  in_addr address{};
  if (Get_External_IP(buffer.data(), buffer.size()) == 0) {
    EXPECT_EQ(inet_pton(AF_INET, buffer.data(), &address), 1);
  } else {
    EXPECT_STREQ(buffer.data(), "");
  }
  EXPECT_LT(Get_External_IP(small.data(), small.size()), 0);
  EXPECT_LT(Get_External_IP(nullptr, 64), 0);
}

}  // namespace
}  // namespace fenro::test
