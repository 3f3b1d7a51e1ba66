// notify send -A APPLICATION -C CATEGORY -M ID -l LEVEL -t CHANNELS MESSAGE ARG...: stores a
// message of the notification centre in the event log, with "{0}", "{1}"... filled from the
// arguments.
#include <cstdio>
#include <ctime>

#include "tools/notification.h"

namespace {
constexpr int FAILED = 1;
constexpr int USAGE = 2;
}  // namespace

int main(int argc, char** argv) {
  auto event = fenro::parse_notification({argv + 1, argv + argc});
  if (!event) {
    std::fputs(
        "usage: notify send -A APPLICATION -C CATEGORY -M ID -l info|warn|error -t CHANNELS "
        "MESSAGE [ARG...]\n",
        stderr);
    return USAGE;
  }
  event->time = std::time(nullptr);
  if (fenro::EventStore{}.add(*event)) return 0;
  std::fputs("notify: the event log cannot be written\n", stderr);
  return FAILED;
}
