#include "common/keeper_report.h"

#include <string>
#include <tuple>

#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "common/json.h"

namespace fenro {
namespace {

constexpr const char* SERVICE = "KeeperService";
constexpr const char* METHOD = "keeper.report";
constexpr int SECONDS = 1;
constexpr int NO_FLAG = -1;

}  // namespace

void report_to_keeper(std::string_view kind, int level, std::string_view subject,
                      std::string_view text) {
  const Json request{json_object()};
  json_object_set_new(request.get(), "kind", json_text(kind).release());
  json_object_set_new(request.get(), "level", json_integer(level));
  json_object_set_new(request.get(), "subject", json_text(subject).release());
  json_object_set_new(request.get(), "text", json_text(text).release());
  const std::string body = compact(request.get());
  const MibIo io{mib_io_create()};
  if (io && mib_io_write(io.get(), body.data(), body.size()) >= 0)
    std::ignore = mib_call(SERVICE, METHOD, io.get(), SECONDS, NO_FLAG);
}

}  // namespace fenro
