// skarn_cli -x 13 -e: prints the public address of this host, as the cloud sees it.
// skarn_cli -g ADDRESS: prints where an address is,
// {"result":{"latitude":…,"longitude":…,"country_code":…}}. Neither needs a login.
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "common/cloud_client.h"

namespace {

constexpr int FAILED = 1;
constexpr int USAGE = 2;

using Words = std::vector<std::string_view>;

// Returns the object "result" of an answer, or null.
json_t* result_of(const fenro::CloudReply& reply) {
  json_t* const result = json_object_get(reply.root.get(), "result");
  return reply.good() && json_is_object(result) ? result : nullptr;
}

std::string public_address(const fenro::CloudClient& cloud) {
  const fenro::CloudReply reply =
      cloud.ask({fenro::CloudService::ACCOUNTS, "GET", "/v1.1/address"});
  const char* const address = fenro::text_or_null(result_of(reply), "address");
  return address ? address : "";
}

std::string location(const fenro::CloudClient& cloud, const std::string& address) {
  const fenro::CloudReply reply = cloud.ask(
      {fenro::CloudService::ACCOUNTS, "GET", "/v1.1/location?address=" + cloud.path_part(address)});
  return result_of(reply) ? fenro::compact(reply.root.get()) : "";
}

}  // namespace

int main(int argc, char** argv) {
  const Words words{argv + 1, argv + argc};
  const bool where = words.size() == 2 && words[0] == "-g";
  if (!where && words != Words{"-x", "13", "-e"}) {
    std::fputs("usage: skarn_cli -x 13 -e | -g ADDRESS\n", stderr);
    return USAGE;
  }
  const fenro::CloudClient cloud;
  const std::string answer = where ? location(cloud, std::string{words[1]}) : public_address(cloud);
  if (!answer.empty() && std::puts(answer.c_str()) >= 0 && std::fflush(stdout) == 0) return 0;
  std::fputs("skarn_cli: no answer from the cloud\n", stderr);
  return FAILED;
}
