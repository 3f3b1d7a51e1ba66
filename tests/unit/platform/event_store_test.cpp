#include "libfenro/event_store.h"

#include <fenro/event_log.h>
#include <gtest/gtest.h>

#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

using Row = std::vector<std::pair<std::string, std::string>>;

int collect(void* context, int columns, char** values, char** names) {
  Row row;
  for (int i = 0; i < columns; ++i) row.emplace_back(names[i], values[i] ? values[i] : "(null)");
  static_cast<std::vector<Row>*>(context)->push_back(std::move(row));
  return 0;
}

std::string column(const Row& row, std::string_view name) {
  for (const auto& [key, value] : row)
    if (key == name) return value;
  return "(absent)";
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
        {1, at("2024-03-07 00:00:00"), "bob", "192.0.2.8", "pc", "[ORMEL Service] 100% removed", "", "", ""},
        {0, at("2024-03-07 12:00:00"), "amy", "192.0.2.7", "", "It's \"quoted\"; DROP TABLE event", "A238", "C004",
         "0031"},
        {2, at("2024-03-07 23:59:59"), "amy", "", "", "of [ORMEL Service], too", "A238", "C001", "0031"},
        {0, at("2024-03-08 00:00:00"), "", "", "", "last", "B1", "C004", "0040"},
    };
    for (const Event& event : events) ASSERT_TRUE(store.add(event));
  }
  [[nodiscard]] std::vector<std::string> ids(const EventFilter& filter, EventOrder order, int lower, int upper) const {
    std::vector<Row> rows;
    EXPECT_TRUE(store.query(filter, order, lower, upper, collect, &rows));
    std::vector<std::string> out;
    out.reserve(rows.size());
    for (const Row& row : rows) out.push_back(column(row, "id"));
    return out;
  }

  Scratch scratch;
  EventStore store{scratch.path("log/event.db")};
};

TEST_F(EventTest, EveryFilterCountsAndFindsTheSameRows) {
  struct Case {
    EventFilter filter;
    std::vector<std::string> ids;
  };
  const Case cases[] = {
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
  for (const Case& row : cases) {
    EXPECT_EQ(ids(row.filter, EventOrder::OldestFirst, 0, 99), row.ids);
    EXPECT_EQ(store.count(row.filter), static_cast<int>(row.ids.size()));
  }
}

TEST_F(EventTest, PagesCountFromNoughtAndIncludeTheLast) {
  using Ids = std::vector<std::string>;
  EXPECT_EQ(ids({}, EventOrder::NewestFirst, 0, 1), (Ids{"5", "4"}));
  EXPECT_EQ(ids({}, EventOrder::NewestFirst, 3, 50), (Ids{"2", "1"}));
  EXPECT_EQ(ids({}, EventOrder::OldestFirst, -5, 0), (Ids{"1"}));
  EXPECT_EQ(ids({}, EventOrder::OldestFirst, 5, 9), (Ids{}));
  EXPECT_EQ(ids({}, EventOrder::OldestFirst, 3, 2), (Ids{}));
}

TEST_F(EventTest, ARowHasItsColumnsInOrder) {
  std::vector<Row> rows;
  ASSERT_TRUE(store.query({.message_id = "0031"}, EventOrder::OldestFirst, 0, 0, collect, &rows));

  EXPECT_EQ(rows.at(0), (Row{{"id", "3"},
                             {"type", "0"},
                             {"date", "2024-03-07"},
                             {"time", "12:00:00"},
                             {"user", "amy"},
                             {"ip", "192.0.2.7"},
                             {"computer", ""},
                             {"description", "It's \"quoted\"; DROP TABLE event"},
                             {"application", "A238"},
                             {"category", "C004"},
                             {"message_id", "0031"}}));
}

TEST_F(EventTest, ATimeThatCannotBeReadIsAFailure) {
  for (const char* bad :
       {"yesterday", "2024-13-01", "2024-01-32", "2024-1-1", "2024-01-01 25:00", "2024-01-01 10:00:00x", "12x"}) {
    EXPECT_EQ(store.count({.from = bad}), -1) << bad;
    EXPECT_FALSE(store.query({.to = bad}, EventOrder::NewestFirst, 0, 9, collect, nullptr)) << bad;
  }
  EXPECT_EQ(store.count({.from = std::to_string(at("2024-03-08"))}), 1);  // seconds since the epoch
}

TEST_F(EventTest, TheLogIsForItsOwnerAlone) {
  struct stat info {};
  ASSERT_EQ(stat(scratch.path("log").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0700U);
  ASSERT_EQ(stat(scratch.path("log/event.db").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600U);
}

TEST(EventStore, ALogWithoutEventsIsEmptyAndADamagedOneFails) {
  const Scratch scratch;
  std::vector<Row> rows;
  EXPECT_EQ(EventStore{scratch.path("none.db")}.count({}), 0);
  EXPECT_TRUE(EventStore{scratch.path("none.db")}.query({}, EventOrder::NewestFirst, 0, 9, collect, &rows));

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
  for (const pid_t writer : writers) {
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(store.count({}), WRITERS * EACH);
}

TEST(EventLog, TheLibraryStoresAndFindsOnTheHost) {
  const Scratch scratch;
  const int status = in_private_host(scratch, [] {
    naslog_event event{};
    event.type = 1;
    std::fill(std::begin(event.event_desc), std::end(event.event_desc), 'd');  // no NUL at the end
    if (naslog_event_add(&event) != 0 || naslog_event_add(nullptr) == 0) return 1;
    const char* const none = nullptr;
    if (naslog_event_query_count_ex(0, none, none, none, none, none, "dd", none, none) != 1) return 2;
    if (naslog_event_query_count_ex(2, none, none, none, none, none, none, none, none) != 0) return 3;
    std::vector<Row> rows;
    if (naslog_event_query_ex(collect, 0, 0, 9, "1", none, none, none, none, none, none, &rows, none, none) != 0)
      return 4;
    if (naslog_event_query_ex2(collect, 0, 9, none, none, none, none, none, &rows) != 0 || rows.size() != 2) return 5;
    std::time_t stored = 0;
    if (!parse_time(column(rows[0], "date") + " " + column(rows[0], "time"), false, stored)) return 9;
    if (std::abs(stored - std::time(nullptr)) > 5) return 6;  // no time given means now
    if (naslog_event_query_ex(collect, 0, 0, 9, "x", none, none, none, none, none, none, &rows, none, none) == 0)
      return 7;
    return column(rows[1], "description").size() == sizeof event.event_desc ? 0 : 8;
  });
  if (status < 0) GTEST_SKIP() << "no mount namespace";
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace fenro::test
