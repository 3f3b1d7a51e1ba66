// The log database under load and under the knife: what it has acknowledged is there afterwards.
#include <atomic>
#include <cstring>
#include <string_view>

#include "ormel/ormel_api_db_records.h"
#include "support/appliance_host.h"

using namespace ormel::test;
namespace log_db = ormel::log_db;

namespace {

constexpr const char* DAEMON = "/usr/lib/fenro/ormeld";

// One bus call; the status, and with MIB_SUCCESS the reply's bytes.
int call(const char* method, std::string_view request, std::string* reply = nullptr) {
  mib_io* io = mib_io_create();
  mib_io_write(io, request.data(), request.size());
  const int status = mib_call(log_db::SERVICE, method, io, 10, -1);
  std::size_t length = 0;
  const char* bytes = mib_io_read(io, &length);
  if (reply && status == MIB_SUCCESS) reply->assign(bytes, length);
  mib_io_free(io);
  return status;
}

// A record of a writer, numbered in "uptime".
bool add(int writer, std::uint64_t number) {
  db_conn_server_log record{};
  std::strcpy(record.username, "bob");
  record.vpn_type = writer;
  record.uptime = number;
  return call(log_db::CONN_SERVER_LOG.insert, {reinterpret_cast<const char*>(&record), sizeof record}) == MIB_SUCCESS;
}

template <typename Row>
std::vector<Row> rows(const char* method) {
  const db_query_cond cond{0, -1, 0, 0, {}, {}};
  std::string reply;
  db_query_answer<Row> head{};
  if (call(method, {reinterpret_cast<const char*>(&cond), sizeof cond}, &reply) != MIB_SUCCESS) return {};
  std::memcpy(&head, reply.data(), sizeof head);
  std::vector<Row> out(head.count);
  if (head.count > 0) std::memcpy(out.data(), &reply[sizeof head], head.count * sizeof(Row));
  return out;
}

class LogDatabase : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(call(log_db::CONN_SERVER_LOG.clean, {}), MIB_SUCCESS);
    ASSERT_EQ(call(log_db::PRIVILEGE_USER_BLOCK.clean, {}), MIB_SUCCESS);
  }
  void kill_daemon() { run({"/usr/bin/pkill", "-KILL", "-f", DAEMON}); }
  // It lives on for the next test, and ends with the appliance.
  bool start_daemon() {
    if (fork() == 0) {
      execl(DAEMON, DAEMON, nullptr);
      _exit(127);
    }
    return comes_true([] { return call(log_db::PRIVILEGE_USER_BLOCK_CHECK, "bob") == MIB_SUCCESS; });
  }
};

TEST_F(LogDatabase, AKillInTheMiddleOfAddsLosesNothingAcknowledged) {
  constexpr int WRITERS = 4;
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(call(log_db::CONN_SERVER_LOG.clean, {}), MIB_SUCCESS);
    std::atomic<std::uint64_t> acknowledged[WRITERS] = {};
    std::vector<std::thread> writers;
    writers.reserve(WRITERS);
    for (int writer = 0; writer < WRITERS; ++writer) {
      writers.emplace_back([&, writer] {
        while (add(writer, acknowledged[writer])) ++acknowledged[writer];
      });
    }
    EXPECT_TRUE(comes_true([&] { return acknowledged[0] >= static_cast<std::uint64_t>(10 * round); }, 30));
    kill_daemon();
    for (std::thread& writer : writers) writer.join();
    ASSERT_TRUE(start_daemon());

    std::uint64_t found[WRITERS] = {};
    for (const auto& row : rows<db_conn_server_log>(log_db::CONN_SERVER_LOG.query)) {
      EXPECT_EQ(row.uptime, found[row.vpn_type]++);  // none missing, none twice, in their order
    }
    for (int writer = 0; writer < WRITERS; ++writer) {
      EXPECT_GE(found[writer], acknowledged[writer]);
      EXPECT_LE(found[writer], acknowledged[writer] + 1);  // the one whose answer did not come any more
    }
  }
}

TEST_F(LogDatabase, FiftyAtOnceAreAllAddedAndCounted) {
  constexpr int LOGINS = 50;
  std::atomic<int> done = 0;
  std::vector<std::thread> logins;
  logins.reserve(LOGINS);
  for (int i = 0; i < LOGINS; ++i) {
    logins.emplace_back([&, i] {
      const bool counted = call(log_db::PRIVILEGE_USER_BLOCK.insert, "bob") == MIB_SUCCESS;
      if (add(4, static_cast<std::uint64_t>(i)) && counted) ++done;
    });
  }
  for (std::thread& login : logins) login.join();

  EXPECT_EQ(done, LOGINS);
  std::vector<int> seen(LOGINS);
  for (const auto& row : rows<db_conn_server_log>(log_db::CONN_SERVER_LOG.query)) ++seen.at(row.uptime);
  EXPECT_EQ(seen, std::vector<int>(LOGINS, 1));
  const auto blocks = rows<db_privilege_user_block_data>(log_db::PRIVILEGE_USER_BLOCK.query);
  ASSERT_EQ(blocks.size(), 1U);
  EXPECT_EQ(blocks[0].limit, LOGINS);
}

}  // namespace
