// The state of each client tunnel and each server, with the reason where it does not work.
#include "ormel/actions/tunnel_state.h"
#include "ormel/config/pool.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::status {
namespace {

constexpr int ALL_TYPES = ~0;

// `type` is a mask of the types that are wanted, all without it.
int list_states(const Request& request, JsonValue& reply) {
  const int mask = request.number("type", ALL_TYPES);
  ormel::config::Management pool;
  std::ignore = pool.load();  // always 0
  JsonValue& rows = reply["data"].make_array();
  int32_t total = 0;
  for (const auto& holder : pool.config_pool) {
    const ormel::config::BaseConfig& record = *holder->bc;
    if ((record.type & mask) == 0) continue;
    auto row = std::make_unique<JsonValue>();
    (*row)["type"] = static_cast<int32_t>(record.type);
    (*row)["index"] = record.index;
    (*row)["name"] = encoded_name(record);
    show_state(tunnel_state(record), *row);
    rows.append(std::move(row));
    ++total;
  }
  reply["total"] = total;
  // Of settings that cannot be read the rows above are not true.
  if (const auto fault = ormel::config::fault_of_settings()) {
    JsonValue& settings = reply["settings"];
    settings["code"] = fault.code;
    settings["text"] = fault.text;
  }
  return NO_ERROR;
}

constexpr Route ROWS[] = {
    {"/ormel/status/list", ADMINISTRATOR, READS, json<list_states>},
};

}  // namespace

const Routes STATES{ROWS};

}  // namespace ormel::cgi::status
