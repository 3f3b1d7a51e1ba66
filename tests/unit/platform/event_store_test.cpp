#include "libfenro/event_store.h"

#include <gtest/gtest.h>

#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

int collect(void* ids, int, char** values, char**) {
  static_cast<std::vector<std::string>*>(ids)->emplace_back(values[0]);
  return 0;
}

std::time_t at(const char* text) {
  std::time_t seconds = 0;
  EXPECT_TRUE(parse_time(text, false, seconds)) << text;
  return seconds;
}

class EventTest : public testing::Test {
 protected:
  void SetUp() override {
    const Event events[] = {
        {0, at("2024-03-06 23:59:59"), "bob", "192.0.2.7", "pc", "[ORMEL Service] up", "", "", ""},
        {1, at("2024-03-07 00:00:00"), "bob", "192.0.2.8", "pc", "[ORMEL Service] 9%", "", "", ""},
        {0, at("2024-03-07 12:00:00"), "amy", "192.0.2.7", "", "It's \"quoted\"; DROP TABLE event",
         "A238", "C004", "0031"},
        {2, at("2024-03-07 23:59:59"), "amy", "", "", "of [ORMEL Service]", "A238", "C001", "0031"},
        {0, at("2024-03-08 00:00:00"), "", "", "", "last", "B1", "C004", "0040"},
    };
    for (const Event& event : events) ASSERT_TRUE(store.add(event));
  }
  [[nodiscard]] std::vector<std::string> ids(const EventFilter& filter) const {
    std::vector<std::string> out;
    EXPECT_TRUE(store.query(filter, EventOrder::OldestFirst, 0, 99, collect, &out));
    return out;
  }
  Scratch scratch;
  EventStore store{scratch.path("log/event.db")};
};

TEST_F(EventTest, EveryFilterCountsAndFindsTheSameRows) {
  const std::pair<EventFilter, std::vector<std::string>> cases[] = {
      {{}, {"1", "2", "3", "4", "5"}},
      {{.type = 0}, {"1", "3", "5"}},
      {{.type = 2}, {"4"}},
      {{.from = "2024-03-07"}, {"2", "3", "4", "5"}},
      {{.to = "2024-03-07"}, {"1", "2", "3", "4"}},
      {{.from = "2024/03/07", .to = "2024-03-07"}, {"2", "3", "4"}},
      {{.from = "2024-03-07 00:00:01", .to = "2024-03-07T12:00"}, {"3"}},
      {{.user = "bob"}, {"1", "2"}},
      {{.ip = "192.0.2.7"}, {"1", "3"}},
      {{.computer = "pc"}, {"1", "2"}},
      {{.description = "[ORMEL Service]"}, {"1", "2", "4"}},
      {{.user = "bob", .description = "[ORMEL Service]"}, {"1", "2"}},
      {{.description = "[ORMEL Service"}, {"1", "2", "4"}},
      {{.description = "%"}, {"2"}},
      {{.description = "'; DROP TABLE event; --"}, {}},
      {{.application = "A238", .category = "C004"}, {"3"}},
      {{.application = "A238", .message_id = "0031"}, {"3", "4"}},
      {{.user = "' OR 1=1 --"}, {}},
  };
  for (const auto& [filter, found] : cases) {
    EXPECT_EQ(ids(filter), found);
    EXPECT_EQ(store.count(filter), static_cast<int>(found.size()));
  }
  EXPECT_EQ(scratch.mode("log"), 0700U);
  EXPECT_EQ(scratch.mode("log/event.db"), 0600U);
}

TEST_F(EventTest, ATimeThatCannotBeReadIsAFailure) {
  for (const char* bad : {"yesterday", "2024-13-01", "2024-01-32", "2024-1-1", "2024-01-01 25:00",
                          "2024-01-01 10:00:00x", "12x"}) {
    EXPECT_EQ(store.count({.from = bad}), -1) << bad;
    EXPECT_FALSE(store.query({.to = bad}, EventOrder::NewestFirst, 0, 9, collect, nullptr)) << bad;
  }
  EXPECT_EQ(store.count({.from = std::to_string(at("2024-03-08"))}), 1);  // seconds since the epoch
}

TEST(EventStore, ALogWithoutEventsIsEmptyAndADamagedOneFails) {
  const Scratch scratch;
  std::vector<std::string> rows;
  const EventStore none{scratch.path("none.db")};
  EXPECT_EQ(none.count({}), 0);
  EXPECT_TRUE(none.query({}, EventOrder::NewestFirst, 0, 9, collect, &rows));
  const EventStore damaged{scratch.write("bad.db", std::string(4096, 'x'))};
  EXPECT_EQ(damaged.count({}), -1);
  EXPECT_FALSE(damaged.query({}, EventOrder::NewestFirst, 0, 9, collect, &rows));
  EXPECT_FALSE(damaged.add({}));
}

TEST(EventStore, TakesEventsOfManyProcessesAtOnce) {
  constexpr int WRITERS = 8;
  constexpr int EACH = 5;
  const Scratch scratch;
  const EventStore store{scratch.path("log/event.db")};
  std::vector<pid_t> writers;
  for (int i = 0; i < WRITERS; ++i) {
    writers.push_back(fork());
    if (writers.back() != 0) continue;
    bool stored = true;
    for (int n = 0; n < EACH; ++n) stored = store.add({.description = "x"}) && stored;
    _exit(stored ? 0 : 1);
  }
  for (const pid_t writer : writers) EXPECT_EQ(end_of(writer), 0);
  EXPECT_EQ(store.count({}), WRITERS * EACH);
}

}  // namespace
}  // namespace fenro::test
