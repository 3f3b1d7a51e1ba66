#include "base/grants.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemons/keeper/grants.h"
#include "scratch.h"
#include "support/wait.h"

namespace fenro {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t OPENVPN = 4;
constexpr std::uint32_t WIREGUARD = 32;

class GrantsTest : public testing::Test {
 protected:
  [[nodiscard]] GrantChange open() const { return GrantChange{file, scratch.path("lock/grants")}; }
  void put(const Grant& grant) const {
    GrantChange change = open();
    ASSERT_TRUE(change);
    change.book.put(grant);
    ASSERT_TRUE(change.save());
  }
  test::Scratch scratch;
  std::string file = scratch.path("state/grants.json");
};

TEST_F(GrantsTest, EndARightAtItsSecond) {
  const std::string odd = "bo b\"\n\xff";
  put({.user = odd, .devices = 2, .until = {{OPENVPN, 1000}, {WIREGUARD, 2000}}});
  EXPECT_FALSE(has_ended(odd, OPENVPN, file, 999));
  EXPECT_TRUE(has_ended(odd, OPENVPN, file, 1000));
  EXPECT_FALSE(has_ended(odd, WIREGUARD, file, 1000));
  EXPECT_FALSE(has_ended(odd, 1, file, 5000)) << "a right without an end";
  EXPECT_FALSE(has_ended("bo b", OPENVPN, file, 5000)) << "another user";
  EXPECT_EQ(read_grants(file).next_end(), 1000);
  EXPECT_EQ(scratch.mode("state/grants.json"), 0600U);
  put({.user = odd});
  EXPECT_THAT(read_grants(file).grants, IsEmpty());
}

TEST_F(GrantsTest, KnowWhoseADeviceIsWhateverKeyItGets) {
  GrantChange change = open();
  change.book.devices = {{"a", "bob"}, {"b", "eve"}, {"c", "bob"}};
  ASSERT_TRUE(change.save());
  change.book.replace_key("a", "d");
  change.book.replace_key("b", "");
  change.book.replace_key("x", "y");
  ASSERT_TRUE(change.save());
  const GrantBook book = read_grants(file);
  EXPECT_THAT(book.keys_of("bob"), ElementsAre("d", "c"));
  EXPECT_EQ(book.owner_of("d"), "bob");
  EXPECT_EQ(book.owner_of("b"), "");
  EXPECT_EQ(book.owner_of(""), "");
}

TEST_F(GrantsTest, NeverReplaceADamagedFile) {
  put({.user = "first", .devices = 1});
  const std::string good = R"({"grants":[{"user":"Ym9i","devices":1,"until":{"4":1000}})";
  const std::pair<std::string, size_t> rows[] = {
      {"", 0},
      {"{}", 0},
      {"[]", 0},
      {std::string(1 << 16, '['), 0},
      {good + R"(,{"user":"!"}],"devices":[]})", 1},
      {good + R"(,{"user":"ZXZl","until":{"4x":1}}],"devices":[]})", 1},
      {good + R"(,{"user":"ZXZl","until":{"4":-1}}],"devices":[]})", 1},
      {good + R"(,{"user":"ZXZl","until":{"4":0}}],"devices":[]})", 1},
      {good + R"(],"devices":[{"key":"","owner":"Ym9i"}]})", 1},
  };
  for (const auto& [text, readable] : rows) {
    SCOPED_TRACE(text.substr(0, 120));
    scratch.write("state/grants.json", text);
    EXPECT_EQ(read_grants(file).grants.size(), readable);
    EXPECT_TRUE(read_grants(file).damaged);
    EXPECT_EQ(has_ended("bob", OPENVPN, file, 1000), readable == 1);
    EXPECT_FALSE(open());
    EXPECT_EQ(scratch.read("state/grants.json"), text);
  }
}

TEST_F(GrantsTest, KeepTheirEndsByTheLastGoodCopyOfADamagedFile) {
  const auto copy = [&] { return scratch.read("state/grants.json.good"); };
  put({.user = "bob", .devices = 1, .until = {{OPENVPN, 1000}}});
  ASSERT_TRUE(keep_good_copy(file));
  const std::string good = scratch.read("state/grants.json");
  EXPECT_EQ(copy(), good);
  for (const char* text : {"", "{", R"({"grants":[],"devices":[{}]})"}) {
    SCOPED_TRACE(text);
    scratch.write("state/grants.json", text);
    ASSERT_TRUE(keep_good_copy(file));
    EXPECT_EQ(copy(), good) << "what is damaged is not copied";
    EXPECT_TRUE(has_ended("bob", OPENVPN, file, 1000));
    EXPECT_FALSE(has_ended("bob", OPENVPN, file, 999));
    const GrantBook book = read_grants(file);
    EXPECT_TRUE(book.damaged && book.is_copy);
    EXPECT_EQ(book.next_end(), 1000);
    EXPECT_FALSE(open()) << "and nothing is changed";
  }
  scratch.write("state/grants.json.good", "{");
  EXPECT_FALSE(read_grants(file).is_copy);
  unlink(file.c_str());
  keeper::Grants{[](const keeper::Report&) {}, file, "/bin/true"}.boot();
  EXPECT_FALSE(std::filesystem::exists(file + ".good")) << "no ends were left: none come back";
}

TEST_F(GrantsTest, AreCopiedAsSoonAsThereIsRoomForTheCopy) {
  put({.user = "bob", .devices = 1, .until = {{OPENVPN, 1000}}});
  std::filesystem::create_directories(file + ".good/in the way");
  keeper::Grants grants{[](const keeper::Report&) {}, file, "/bin/true"};
  grants.tick(keeper::Grants::Time{});
  std::filesystem::remove_all(file + ".good");
  grants.tick(keeper::Grants::Time{});
  EXPECT_EQ(scratch.read("state/grants.json.good"), scratch.read("state/grants.json"));
}

TEST_F(GrantsTest, LoseNothingThatManyWriteAtOnce) {
  constexpr int WRITERS = 16;
  for (int i = 0; i < WRITERS; ++i) {
    if (fork() == 0) {
      put({.user = "user" + std::to_string(i), .devices = 1});
      _exit(0);
    }
  }
  for (int i = 0; i < WRITERS; ++i) wait(nullptr);
  EXPECT_EQ(read_grants(file).grants.size(), static_cast<size_t>(WRITERS));
}

TEST_F(GrantsTest, AreRevokedByTheKeeperAtItsStartAndReportedOnce) {
  std::vector<std::string> reports;
  // The tool that revokes, and fails to for the first time.
  scratch.write("tool", "#!/bin/sh\necho \"$1\" >>" + scratch.path("calls") + "\n");
  ASSERT_EQ(chmod(scratch.path("tool").c_str(), 0700), 0);
  keeper::Grants grants{[&](const keeper::Report& what) { reports.push_back(what.text); }, file,
                        scratch.path("tool")};
  grants.boot();
  put({.user = "eve", .devices = 0, .until = {{OPENVPN, LAST_SECOND}}});
  grants.boot();
  EXPECT_EQ(scratch.read("calls"), "") << "nothing has ended";
  put({.user = "bob", .devices = 1, .until = {{OPENVPN, 1000}, {WIREGUARD, 1000}}});
  grants.boot();
  EXPECT_EQ(scratch.read("calls"), "__end-grants\n");
  auto now = keeper::Grants::Time{} + std::chrono::hours(1);
  const auto calls = [&] { return std::ranges::count(scratch.read("calls"), '\n'); };
  for (int round = 2; round < 5; ++round, now += std::chrono::seconds(5)) {
    EXPECT_TRUE(support::comes_true([&] {
      grants.tick(now);
      return calls() == round;
    }));
    for (int look = 0; look < 5; ++look) grants.tick(now + std::chrono::seconds(4));
    EXPECT_EQ(calls(), round) << "every five seconds, as long as it is not done";
  }
  EXPECT_THAT(reports, ElementsAre("The access of bob to OpenVPN, WireGuard has ended"));
  scratch.write("state/grants.json", "{");
  EXPECT_TRUE(support::comes_true([&] {
    grants.tick(now);
    return reports.back().find("is damaged") != std::string::npos;
  }));
}

}  // namespace
}  // namespace fenro
