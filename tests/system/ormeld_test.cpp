// The log database under load and under the knife: what it has acknowledged is there afterwards.
#include "support/log_rows.h"

using namespace ormel::test;
namespace log_db = ormel::log_db;

namespace {

constexpr const char* DAEMON = "/usr/lib/fenro/ormeld";

int call(const char* method, const std::string& request = {}) {
  mib_io* io = mib_io_create();
  mib_io_write(io, request.data(), request.size());
  const int status = mib_call(log_db::SERVICE, method, io, 10, -1);
  mib_io_free(io);
  return status;
}

// A record of a writer, numbered in "uptime".
bool add(int writer, std::uint64_t number) {
  db_conn_server_log record{};
  record.vpn_type = writer;
  record.uptime = number;
  return call(log_db::CONN_SERVER_LOG.insert, bytes_of(record)) == MIB_SUCCESS;
}

class LogDatabase : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(call(log_db::CONN_SERVER_LOG.clean), MIB_SUCCESS);
    ASSERT_EQ(call(log_db::PRIVILEGE_USER_BLOCK.clean), MIB_SUCCESS);
  }
  static bool starts_again() {
    start_daemon(DAEMON);
    return comes_true(
        [] { return call(log_db::PRIVILEGE_USER_BLOCK_CHECK, "bob") == MIB_SUCCESS; });
  }
};

TEST_F(LogDatabase, AKillInTheMiddleOfAddsLosesNothingAcknowledged) {
  constexpr int WRITERS = 4;
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(call(log_db::CONN_SERVER_LOG.clean), MIB_SUCCESS);
    std::atomic<std::uint64_t> acknowledged[WRITERS] = {};
    std::vector<std::thread> writers;
    writers.reserve(WRITERS);
    for (int writer = 0; writer < WRITERS; ++writer) {
      writers.emplace_back([&, writer] {
        while (add(writer, acknowledged[writer])) ++acknowledged[writer];
      });
    }
    EXPECT_TRUE(
        comes_true([&] { return acknowledged[0] >= static_cast<std::uint64_t>(10 * round); }, 30));
    run({"/usr/bin/pkill", "-KILL", "-f", DAEMON});
    for (std::thread& writer : writers) writer.join();
    ASSERT_TRUE(starts_again());
    std::uint64_t found[WRITERS] = {};
    for (const auto& row : log_rows<db_conn_server_log>(log_db::CONN_SERVER_LOG.query)) {
      EXPECT_EQ(row.uptime, found[row.vpn_type]++);  // none missing, none twice, in their order
    }
    for (int writer = 0; writer < WRITERS; ++writer) {
      EXPECT_GE(found[writer], acknowledged[writer]);
      EXPECT_LE(found[writer],
                acknowledged[writer] + 1);  // the one whose answer did not come any more
    }
  }
}

}  // namespace
