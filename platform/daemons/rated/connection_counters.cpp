#include "daemons/rated/connection_counters.h"

#include <memory>

#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "base/handle.h"
#include "common/json.h"
#include "daemons/networkd/rtnetlink.h"

namespace fenro::rated {
namespace {

constexpr const char* DROVIK_SERVICE = "MorviServer";
constexpr const char* DROVIK_METHOD = "bytes_info";
constexpr int DROVIK_TIMEOUT = 1;  // seconds, during which no other client is served
constexpr int NO_FLAG = -1;

std::uint64_t bytes_in(const json_t* count) {
  const json_int_t bytes = json_integer_value(count);
  return bytes < 0 ? 0 : static_cast<std::uint64_t>(bytes);
}

}  // namespace

std::vector<Counters> interface_counters() {
  std::vector<networkd::Link> links;
  if (!networkd::list_links(links)) return {};
  std::vector<Counters> all;
  all.reserve(links.size());
  for (const networkd::Link& link : links)
    all.push_back({link.name, link.rx_bytes, link.tx_bytes, link.index});
  return all;
}

std::vector<Counters> drovik_clients() {
  const MibIo io{mib_io_create()};
  if (!io ||
      mib_call(DROVIK_SERVICE, DROVIK_METHOD, io.get(), DROVIK_TIMEOUT, NO_FLAG) != MIB_SUCCESS)
    return {};
  std::size_t length = 0;
  const char* const text = mib_io_read(io.get(), &length);
  const Json reply{text ? json_loadb(text, length, 0, nullptr) : nullptr};

  std::vector<Counters> all;
  std::size_t at = 0;
  const json_t* client = nullptr;
  json_array_foreach(json_object_get(reply.get(), "data"), at, client) {
    const char* const identifier = text_or_null(client, "mac");
    const json_t* const rx = json_object_get(client, "rx_bytes");
    const json_t* const tx = json_object_get(client, "tx_bytes");
    if (identifier && json_is_integer(rx) && json_is_integer(tx))
      all.push_back({identifier, bytes_in(rx), bytes_in(tx)});
  }
  return all;
}

}  // namespace fenro::rated
