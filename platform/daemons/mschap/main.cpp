// fenro-mschap SERVER: pppd's login helper (option "ntlm_auth-helper"). It reads one login from its standard input.

#include <cstdio>
#include <string>

#include "daemons/mschap/helper.h"

namespace {

constexpr const char* SECRETS = "/etc/ppp/chap-secrets";
constexpr std::size_t REQUEST_MAX = 16UL * 1024;

// Up to the line that ends the request: the plugin keeps its end open while it waits for the answer.
std::string read_request() {
  std::string request;
  char line[1024];
  while (request.size() < REQUEST_MAX && std::fgets(line, sizeof line, stdin) != nullptr) {
    request += line;
    if (request == ".\n" || request.ends_with("\n.\n")) break;
  }
  return request;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fenro-mschap SERVER\n");
    return 2;
  }
  const std::string verdict = fenro::mschap::judge(read_request(), SECRETS, argv[1]);
  return std::fputs(verdict.c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
}
