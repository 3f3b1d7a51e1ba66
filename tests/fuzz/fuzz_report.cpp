// The report on a foreign profile. Input: the file, which is the only one that is written.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "support/files.h"
#include "support/report_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string source(reinterpret_cast<const char*>(data), size);
  ormel::ovpn::ClientConfig record(0);
  record.name = "office";
  record.file = "/tmp/fuzz-report-" + std::to_string(getpid());
  support::write(record.file, source);

  const ormel::report::Report report =
      report_profile(record, ormel::test::tools_without({"route"}));

  unlink(record.file.c_str());
  const std::string broken = ormel::test::broken_rule(report, source);
  if (!broken.empty()) {
    std::fprintf(stderr, "does not hold: %s\n", broken.c_str());
    std::abort();
  }
  return 0;
}
