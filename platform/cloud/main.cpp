// fenro-cloud FOLDER ADDRESS PORT [CERTIFICATE KEY]: the cloud services that the membership uses,
// for tests and demonstration. FOLDER holds their data, and "server.pem" and "server.key" unless
// others are named.
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/prctl.h>

#include "cloud/services.h"

int main(int argc, char** argv) {
  if (argc != 4 && argc != 6) {
    std::fputs("usage: fenro-cloud FOLDER ADDRESS PORT [CERTIFICATE KEY]\n", stderr);
    return 2;
  }
  unsigned short port = 0;
  const char* end = argv[3] + std::strlen(argv[3]);
  if (std::from_chars(argv[3], end, port).ptr != end) {
    std::fputs("fenro-cloud: PORT is a number\n", stderr);
    return 2;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // it ends with its parent
  const std::string folder = argv[1];
  fenro::cloud::Services services{folder};
  fenro::cloud::TlsServer server{argc == 6 ? argv[4] : folder + "/server.pem",
                                 argc == 6 ? argv[5] : folder + "/server.key"};
  if (!server.listen(argv[2], port)) {
    std::fputs("fenro-cloud: cannot listen, or cannot use the certificate\n", stderr);
    return 1;
  }
  server.run([&](const fenro::cloud::HttpRequest& request) { return services.answer(request); });
}
