// The cloud's data and answers: one account, its organisations with their groups of VPN hubs, and
// the joined devices.
//
// All data is in one folder. "world.json" is read at the start:
//   {"account": {"display_name", "email", "site"}, "organizations": [{"name", "organization_id",
//   "created_by"}],
//    "groups": [{"groupId", "name", "hubs"}], "address": the address that the next device gets,
//    "taken": [addresses that clash], "suggestion": "address/prefix" offered for those,
//    "location": {"address", "latitude", "longitude", "country_code"} of every host,
//    "membership": what each device learns about its hub and super node}
// "faults.json", if it exists, is read for each request. It maps "METHOD /path" to a fault that
// replaces the answer,
//   {"status", "body", "headers", "padding", "delay": milliseconds, "hang_up"}, each of which may
//   be missing.
// "requests" gets one line for each request: {"host", "method", "path", "query", "headers",
// "body"}.
#pragma once

#include <string>

#include "cloud/tls_server.h"
#include "common/json.h"

namespace fenro::cloud {

class Services {
 public:
  explicit Services(std::string folder);

  [[nodiscard]] HttpReply answer(const HttpRequest& request);

 private:
  [[nodiscard]] HttpReply dispatch(const HttpRequest& request);
  [[nodiscard]] HttpReply list_organizations(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply create_organization(const HttpRequest& request,
                                              const std::string& device);
  [[nodiscard]] HttpReply account(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply register_edge(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply list_groups(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply register_device(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply configure_agent(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply check_subnet(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply remove_device(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply list_sites(const HttpRequest& request, const std::string& organization);
  [[nodiscard]] HttpReply log_in(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply renew_login(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply location(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply give_token(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply membership(const HttpRequest& request, const std::string& device);
  [[nodiscard]] HttpReply note_network(const HttpRequest& request, const std::string& device);

  struct Operation;
  static const Operation OPERATIONS[];

  [[nodiscard]] json_t* world(const char* key) const { return json_object_get(world_.get(), key); }
  void record(const HttpRequest& request) const;

  std::string folder_;
  Json world_;
  Json devices_;  // by id: the body that each was registered with
  int next_ = 1;  // number of the next organisation or device
};

}  // namespace fenro::cloud
