// mibsh SERVICE.METHOD [JSON]: makes one call on the service bus and prints the reply. A failed
// call prints one line on standard error and exits with the call's status.
#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "base/handle.h"

namespace {

using fenro::MibIo;

constexpr int TIMEOUT_SECONDS = 60;
constexpr int USAGE = 64;  // beyond every status of a call
constexpr int NO_FLAG = -1;
constexpr std::array<const char*, MIB_IS_INVALID + 1> STATUS_TEXTS{
    "success",
    "no answer in time",
    "nobody serves that name",
    "the service is paused",
    "rejected",
    "the connection broke",
    "the service is busy",
    "no such method, or bad arguments"};

struct Target {
  std::string service, method;
};

// A registered name ends at its first dot, since methods contain dots; an abstract socket's path
// ends at the last one.
bool parse_target(std::string_view text, Target& target) {
  const std::size_t dot = text.starts_with('@') ? text.rfind('.') : text.find('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == text.size()) return false;
  target = {std::string{text.substr(0, dot)}, std::string{text.substr(dot + 1)}};
  return true;
}

int print_reply(mib_io* io) {
  std::size_t length = 0;
  const char* const reply = mib_io_read(io, &length);
  const bool written = std::fwrite(reply, 1, length, stdout) == length && std::putchar('\n') != EOF;
  return written && std::fflush(stdout) == 0 ? MIB_SUCCESS : MIB_IO_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  Target target;
  if (argc < 2 || argc > 3 || !parse_target(argv[1], target)) {
    std::fputs("usage: mibsh SERVICE.METHOD [JSON]\n", stderr);
    return USAGE;
  }
  const std::string_view request = argc == 3 ? argv[2] : "";
  const MibIo io{mib_io_create()};
  int rc = MIB_IO_FAILURE;
  if (io &&
      mib_io_write(io.get(), request.data(), request.size()) == static_cast<int>(request.size()))
    rc =
        mib_call(target.service.c_str(), target.method.c_str(), io.get(), TIMEOUT_SECONDS, NO_FLAG);
  if (rc == MIB_SUCCESS) rc = print_reply(io.get());
  if (rc != MIB_SUCCESS)
    std::fprintf(stderr, "mibsh: %s: %s\n", argv[1], STATUS_TEXTS[static_cast<std::size_t>(rc)]);
  return rc;
}
