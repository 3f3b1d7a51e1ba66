#include "common/online_users.h"

#include <gmock/gmock.h>
#include <thread>

#include "base/base64.h"
#include "scratch.h"

namespace fenro {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OnlineUsersTest : public testing::Test {
 protected:
  bool add(const std::string& interface, std::uint32_t number = 7) const {
    return users.add({interface, "192.0.2.9", number, "10.8.0.1", "10.8.0.2", 4, 1700000000,
                      "bo b:\n", "my  phone\nx"});
  }
  [[nodiscard]] std::vector<std::string> interfaces() const {
    std::vector<std::string> names;
    for (const OnlineUser& session : users.list()) names.push_back(session.interface);
    return names;
  }
  test::Scratch scratch;
  OnlineUsers users{scratch.path("users"), scratch.path("lock")};
  std::vector<OnlineUser> removed;
};

TEST_F(OnlineUsersTest, KeepsAUserOfAnyBytesAndADeviceOnItsLine) {
  ASSERT_TRUE(add("tun"));
  EXPECT_EQ(scratch.read("users"),
            "tun 192.0.2.9 7 10.8.0.1 10.8.0.2 4 1700000000 Ym8gYjoK my  phone x\n");
  ASSERT_THAT(users.list(), SizeIs(1));
  EXPECT_EQ(users.list()[0].user, "bo b:\n");
  EXPECT_EQ(users.list()[0].device, "my  phone x");
}

TEST_F(OnlineUsersTest, RefusesWhatWouldBreakTheLine) {
  for (const char* word : {"", "a b", "a\nb", "a\tb"}) EXPECT_FALSE(add(word)) << word;
  EXPECT_FALSE(users.add({"tun", "192.0.2.9", 7, "10.8.0.1", "10.8.0.2", 4, 1700000000, ""}));
  EXPECT_THAT(users.list(), IsEmpty());
}

TEST_F(OnlineUsersTest, RemovesWhatIsChosenAndKeepsForeignLines) {
  scratch.write(
      "users",
      "not a line of ours\na 1 2 3 4 4 5 !!!!\n\nlast 1.1.1.1 9 2.2.2.2 3.3.3.3 1 1700000000 Ym9i");
  ASSERT_TRUE(add("one"));
  ASSERT_TRUE(add("two", 8));
  ASSERT_TRUE(users.remove([](const OnlineUser& session) { return session.number == 7; }, removed));
  ASSERT_THAT(removed, SizeIs(1));
  EXPECT_EQ(removed[0].interface, "one");
  EXPECT_THAT(interfaces(), ElementsAre("last", "two"));
  EXPECT_TRUE(scratch.read("users").starts_with("not a line of ours\na 1 2 3 4 4 5 !!!!\n\nlast "));
}

TEST_F(OnlineUsersTest, IsEmptyWithoutAFileAndRefusesAListThatIsNoFile) {
  EXPECT_TRUE(users.remove([](const OnlineUser&) { return true; }, removed));
  std::filesystem::create_directory(scratch.path("users"));
  EXPECT_FALSE(add("tun"));
  EXPECT_FALSE(users.remove([](const OnlineUser&) { return true; }, removed));
}

TEST_F(OnlineUsersTest, LosesNoneOfManyAtOnce) {
  constexpr int WRITERS = 8;
  std::vector<std::jthread> writers;
  writers.reserve(WRITERS);
  for (int i = 0; i < WRITERS; ++i) {
    writers.emplace_back([this, number = std::to_string(i)] {
      EXPECT_TRUE(add("stays" + number));
      EXPECT_TRUE(add("goes" + number));
      std::vector<OnlineUser> gone;
      EXPECT_TRUE(users.remove(
          [&](const OnlineUser& one) { return one.interface == "goes" + number; }, gone));
      EXPECT_THAT(gone, SizeIs(1));
    });
  }
  writers.clear();
  EXPECT_THAT(users.list(), SizeIs(WRITERS));
}

TEST(Base64, IsReadAsItWasWritten) {
  std::string bytes, back;
  for (int length = 0; length < 260; ++length) {
    ASSERT_TRUE(parse_base64(to_base64(bytes), back));
    ASSERT_EQ(back, bytes);
    bytes += static_cast<char>(length * 37);
  }
  EXPECT_EQ(to_base64("ab"), "YWI=");
  for (const char* wrong : {"YWI", "=WI=", "Y===", "Y=I=", "YW==YW==", "YW I", "====", "YWI*"})
    EXPECT_FALSE(parse_base64(wrong, back)) << wrong;
}

}  // namespace
}  // namespace fenro
