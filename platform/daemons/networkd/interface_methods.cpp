#include "daemons/networkd/interface_methods.h"

#include "daemons/networkd/interfaces.h"
#include "daemons/networkd/ipv4_network.h"
#include "daemons/networkd/local_networks.h"

namespace fenro::networkd {
namespace {

Answer no_kernel() {
  return fail(ERROR_PLATFORM, "no answer from the kernel");
}

Json describe(const Link& link) {
  Json object{json_object()};
  const auto set = [&](const char* key, json_t* value) {
    json_object_set_new(object.get(), key, value);
  };
  const std::string_view type = interface_type(link);
  set("ifindex", json_integer(link.index));
  set("ifname", json_text(link.name).release());
  set("interface_type", json_stringn(type.data(), type.size()));
  set("status", json_string(link.running ? "up" : "down"));
  set("mac", json_string(link.mac.c_str()));
  return object;
}

template <typename Chosen>
Json describe_all(const std::vector<Link>& links, Chosen chosen) {
  Json all{json_array()};
  for (const Link& link : links)
    if (chosen(link)) json_array_append_new(all.get(), describe(link).release());
  return all;
}

// The link that a request asks for, among all of them. False with `failure` to answer.
bool find_asked(const json_t* request, std::vector<Link>& links, const Link*& asked,
                Answer& failure) {
  const json_t* index = json_object_get(request, "ifindex");
  if (!json_is_integer(index)) {
    failure = fail(ERROR_REQUEST, "ifindex is not a number");
    return false;
  }
  if (!list_links(links)) {
    failure = no_kernel();
    return false;
  }
  asked = find_link(links, static_cast<int>(json_integer_value(index)));
  if (asked == nullptr) failure = fail(ERROR_NOT_FOUND, "no such interface");
  return asked != nullptr;
}

Answer parts_of(const json_t* request, std::string_view type) {
  std::vector<Link> links;
  const Link* whole = nullptr;
  Answer failure;
  if (!find_asked(request, links, whole, failure)) return failure;
  if (interface_type(*whole) != type)
    return fail(ERROR_NOT_FOUND, "the interface is of another type");
  return succeed(
      describe_all(links, [whole](const Link& link) { return link.master == whole->index; }));
}

}  // namespace

Answer get_available_interface_list(State&, const json_t*) {
  std::vector<Link> links;
  return list_links(links) ? succeed(describe_all(links, is_available)) : no_kernel();
}

Answer get_interface_status(State&, const json_t* request) {
  std::vector<Link> links;
  std::vector<Address> addresses;
  const Link* link = nullptr;
  Answer failure;
  if (!find_asked(request, links, link, failure)) return failure;
  if (!list_addresses(addresses)) return no_kernel();

  Json status = describe(*link);
  json_object_set_new(status.get(), "max_speed", json_integer(speed_of(*link)));
  json_object_set_new(status.get(), "IPv4", addresses_of(*link, addresses).release());
  return succeed(std::move(status));
}

Answer get_bridge_members(State&, const json_t* request) {
  return parts_of(request, BRIDGE);
}

Answer get_bonding_slaves(State&, const json_t* request) {
  return parts_of(request, BOND);
}

Answer check_ip_duplicate(State&, const json_t* request) {
  std::uint32_t ip = 0;
  if (!parse_ipv4(text_or_null(request, "ip"), ip))
    return fail(ERROR_REQUEST, "ip is not an IPv4 address");
  std::vector<Link> links;
  std::vector<Address> addresses;
  if (!list_links(links) || !list_addresses(addresses)) return no_kernel();
  for (const Address& address : addresses) {
    const Link* link = find_link(links, address.index);
    if (address.local == ip && link != nullptr && !is_own_tunnel(link->name))
      return fail(ERROR_DUPLICATE, link->name);
  }
  return succeed(json_text(""));
}

}  // namespace fenro::networkd
