// ormeld: the log database, on the abstract socket that its clients name.

#include <cstdio>
#include <ctime>
#include <string>
#include <sys/stat.h>

#include "base/log_db_records.h"
#include "daemons/ormeld/methods.h"
#include "libmibservice/mibserver.h"

namespace {

constexpr const char* DATABASE = "/var/lib/ormel/log.db";
constexpr const char* BLOCK_POLICY = "/etc/config/vpn_block.conf";
constexpr mode_t PRIVATE = 077;

}  // namespace

int main() {
  using namespace fenro;
  umask(PRIVATE);
  ormeld::LogDatabase database{BLOCK_POLICY, [] { return std::time(nullptr); }};
  if (!database.open(DATABASE)) return 1;

  bus::Server server{ormel::log_db::SERVICE};
  for (const ormeld::Method& method : ormeld::methods()) {
    server.on(method.name,
              [&](std::string_view body) { return method.run(database, method.table, body); });
  }
  if (!server.listen()) {
    std::fprintf(stderr, "ormeld: service name %s is already in use\n", ormel::log_db::SERVICE);
    return 1;
  }
  return server.run();
}
