#include "common/holds.h"

#include <gmock/gmock.h>

#include "scratch.h"

namespace fenro {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HoldsTest : public testing::Test {
 protected:
  [[nodiscard]] bool hold(const std::string& who, std::int64_t seconds,
                          Hold::Kind kind = Hold::Kind::User) const {
    Hold wanted;
    wanted.kind = kind;
    wanted.who = wanted.name = who;
    return holds.add(wanted, seconds);
  }
  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const Hold& one : holds.list()) all.push_back(one.who);
    return all;
  }
  void pass(std::int64_t wall, std::int64_t up) {
    now.wall += wall;
    now.up += up;
  }
  test::Scratch scratch;
  Holds::Moment now{1700000000, 1000, "first"};
  Holds holds{scratch.path("state/holds.json"), scratch.path("lock/holds"), [this] { return now; },
              [this] { ++damages; }};
  int damages = 0;
  std::vector<Hold> ended;
};

TEST_F(HoldsTest, KeepsOutExactlyWhoIsNamedUntilTheTimeIsOver) {
  const std::string odd = "bo b\"\n\xff";
  ASSERT_TRUE(hold(odd, 60));
  EXPECT_TRUE(holds.holds(Hold::Kind::User, odd));
  EXPECT_FALSE(holds.holds(Hold::Kind::Peer, odd));
  EXPECT_FALSE(holds.holds(Hold::Kind::User, "bo b"));
  pass(59, 59);
  EXPECT_THAT(names(), ElementsAre(odd));
  pass(1, 1);
  EXPECT_THAT(names(), IsEmpty());
  ASSERT_TRUE(holds.expire(ended));
  EXPECT_EQ(ended.size(), 1U);
  EXPECT_EQ(scratch.read("state/holds.json"), "{\"holds\":[]}\n");
}

TEST_F(HoldsTest, LimitADeviceFromATimeOnBesideAnyHold) {
  Hold limit;
  limit.who = limit.name = "key";
  limit.since = now.wall + 100;
  ASSERT_TRUE(holds.limit(limit));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_EQ(holds.limits().size(), 1U);
  ASSERT_TRUE(hold("key", 60, Hold::Kind::Peer));
  pass(60, 60);
  EXPECT_FALSE(holds.holds(Hold::Kind::Peer, "key"));
  ASSERT_TRUE(holds.expire(ended));
  EXPECT_EQ(holds.limits().size(), 1U) << "the end of a hold leaves it alone";
  pass(40, 40);
  EXPECT_TRUE(holds.holds(Hold::Kind::Limit, "key"));
  pass(std::int64_t{3650} * 86400, 5);
  EXPECT_THAT(names(), ElementsAre("key")) << "it has no end";
  limit.since = 1;
  ASSERT_TRUE(holds.limit(limit));
  EXPECT_EQ(holds.limits().size(), 1U) << "one for each device";
  ASSERT_TRUE(holds.lift([](const Hold& one) { return one.kind == Hold::Kind::Limit; }, ended));
  EXPECT_THAT(holds.limits(), IsEmpty());
  for (const std::int64_t since : {std::int64_t{-1}, Holds::NO_END}) {
    limit.since = since;
    EXPECT_FALSE(holds.limit(limit)) << since;
  }
}

TEST_F(HoldsTest, OutlastAClockThatIsSetForwardAndAStartOfTheSystem) {
  ASSERT_TRUE(hold("bob", 60));
  pass(86400, 10);
  EXPECT_THAT(names(), ElementsAre("bob")) << "the clock alone does not end it";
  pass(-86400, 0);
  now.boot = "second";
  now.up = 5;
  EXPECT_THAT(names(), ElementsAre("bob"));
  pass(60, 10);
  EXPECT_THAT(names(), IsEmpty()) << "the seconds of an earlier run do not count";
}

TEST_F(HoldsTest, HaveLimitsAndOneRowForEach) {
  for (const std::int64_t seconds : {std::int64_t{0}, std::int64_t{-1}, Holds::LONGEST + 1})
    EXPECT_FALSE(hold("bob", seconds)) << seconds;
  EXPECT_FALSE(hold("", 60));
  ASSERT_TRUE(hold("bob", 60));
  ASSERT_TRUE(hold("bob", Holds::LONGEST));
  ASSERT_TRUE(hold("bob", 60, Hold::Kind::Peer));
  EXPECT_THAT(names(), ElementsAre("bob", "bob"));
  ASSERT_TRUE(holds.lift([](const Hold& one) { return one.kind == Hold::Kind::Peer; }, ended));
  EXPECT_THAT(names(), ElementsAre("bob"));
  EXPECT_EQ(holds.list()[0].until, now.wall + Holds::LONGEST);
}

TEST_F(HoldsTest, ADamagedListHoldsNoOneAndIsReplaced) {
  ASSERT_TRUE(hold("bob", 60));
  for (const char* text :
       {"", "{", "[]", R"({"holds":1})", R"({"holds":[{"kind":"user","who":"%"}]})"}) {
    scratch.write("state/holds.json", text);
    EXPECT_THAT(names(), IsEmpty()) << text;
    damages = 0;
    ASSERT_TRUE(holds.expire(ended)) << text;
    EXPECT_EQ(damages, 1) << text;
    EXPECT_EQ(scratch.read("state/holds.json"), "{\"holds\":[]}\n") << text;
  }
}

}  // namespace
}  // namespace fenro
