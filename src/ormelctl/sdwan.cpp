// The membership of the SD-WAN.
#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

// The organisation by its name or id; empty without one.
ormel::Json find_organization(const json_t* all, const std::string& wanted) {
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(const_cast<json_t*>(all), at, row) {
    const bool is_default = wanted.empty() && json_is_true(json_object_get(row, "is_default"));
    if (is_default || text_of(row, "name") == wanted || text_of(row, "organization_id") == wanted)
      return ormel::Json{json_incref(row)};
  }
  return wanted.empty() ? ormel::Json{json_incref(json_array_get(all, 0))} : nullptr;
}

}  // namespace

Result sdwan_status(const Arguments&) {
  const Reply reply = call("/ormel/pelmar/get_pelmar_status");
  if (reply.error == ormel::ERR_REGULAR_FILE) {
    return done("", ormel::Json{json_pack("{s:b, s:s}", "member", 0, "reason",
                                          "the SD-WAN service is not installed on this host")});
  }
  if (reply.error != 0) return failed(reply.error, reply.reason);
  const Reply device = call("/ormel/pelmar/check_device");
  ormel::Json data{json_copy(reply.data())};
  const bool member = json_is_true(json_object_get(device.data(), "is_on_pelmar")) ||
                      number_of(device.data(), "is_on_pelmar") == 1;
  json_object_set_new(data.get(), "member", json_boolean(member));
  return done("", std::move(data));
}

Result sdwan_join(const Arguments& arguments) {
  if (!arguments.has("result-file")) {
    return failed(Exit::Usage,
                  "--result-file is missing (the result that the provider's login page shows)",
                  "ormelctl sdwan join --result-file - --organization Mine");
  }
  const auto result = read_secret(arguments.value("result-file"));
  if (!result) return failed(Exit::Failed, "--result-file cannot be read, or is not one line");
  if (arguments.terminal) std::fputs("joining, this takes up to two minutes ...\n", stderr);
  if (const Reply login = call("/ormel/oauth_login", {{"result", *result}}); login.error != 0)
    return failed(login.error, login.reason);
  const Reply organizations = call("/ormel/pelmar/organization_list");
  if (organizations.error != 0) return failed(organizations.error, organizations.reason);
  const ormel::Json organization =
      find_organization(organizations.data(), arguments.value("organization"));
  if (!organization)
    return failed(
        Exit::NotFound, "the account has no organization named " + arguments.value("organization"),
        did_you_mean(arguments.value("organization"), names_in(organizations.data(), "name"),
                     "the provider's page shows them"));
  const std::string region = arguments.value("region", "auto");
  const Reply reply = call("/ormel/pelmar/device_register",
                           {{"org_ID", text_of(organization.get(), "organization_id")},
                            {"org_name", text_of(organization.get(), "name")},
                            {"region_ID", region},
                            {"region_name", region}});
  if (reply.error != 0) return failed(reply.error, reply.reason);
  return done("this host is a member of " + text_of(organization.get(), "name"));
}

Result sdwan_leave(const Arguments&) {
  const Reply reply = call("/ormel/pelmar/device_unregister");
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : done("this host has left the SD-WAN");
}

}  // namespace ormelctl
