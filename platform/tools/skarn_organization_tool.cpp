// skarn_organization_tool get_organization_site_list -o ORGANIZATION -a TOKEN: prints the sites
// of an organisation, {"result":[{"organization_site_id":…}…]}, as the cloud lists them for the
// token's owner.
#include <algorithm>
#include <cstdio>
#include <string>

#include "common/cloud_client.h"
#include "tools/arguments.h"

namespace {

constexpr int FAILED = 1;
constexpr int USAGE = 2;
constexpr const char* ACTION = "get_organization_site_list";

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = fenro::parse_arguments({argv + 1, argv + argc}, 1, {"-o", "-a"});
  if (!arguments || arguments->operands[0] != ACTION || arguments->options.size() != 2) {
    std::fputs(
        "usage: skarn_organization_tool get_organization_site_list -o ORGANIZATION -a TOKEN\n",
        stderr);
    return USAGE;
  }
  const std::string token = arguments->option("-a", "");
  // Every user of the host can read a program's arguments while they exist.
  for (int i = 1; i < argc; ++i) {
    if (token == argv[i]) std::fill_n(argv[i], token.size(), '*');
  }
  const fenro::CloudClient cloud;
  const fenro::CloudReply reply =
      cloud.ask({fenro::CloudService::ORGANIZATIONS,
                 "GET",
                 "/v1.2/organization/" + cloud.path_part(arguments->option("-o", "")) + "/site",
                 {"Authorization: Bearer " + token}});
  const bool listed = reply.good() && json_is_array(json_object_get(reply.root.get(), "result"));
  if (listed && std::puts(fenro::compact(reply.root.get()).c_str()) >= 0 &&
      std::fflush(stdout) == 0)
    return 0;
  std::fputs("skarn_organization_tool: the cloud lists no sites\n", stderr);
  return FAILED;
}
