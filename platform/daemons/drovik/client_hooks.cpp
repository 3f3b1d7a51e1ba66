#include "daemons/drovik/client_hooks.h"

#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>

#include "base/argv.h"
#include "common/heard.h"
#include "daemons/drovik/log.h"

namespace fenro::drovik {
namespace {

constexpr const char* UP = "/usr/lib/fenro/drovik-client-up";
constexpr const char* NOTE = "/usr/lib/fenro/fenro-reason";
constexpr const char* DOWN = "/usr/lib/fenro/drovik-client-down";

// With an empty environment and no signal blocked.
bool run(std::vector<std::string> words) {
  const std::vector<char*> argv = argv_of(words);
  char* const environment[] = {nullptr};
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) return false;
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t child = 0;
  const int failure = posix_spawn(&child, argv[0], nullptr, &attributes, argv.data(), environment);
  posix_spawnattr_destroy(&attributes);
  int status = 0;
  return failure == 0 && TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child && status == 0;
}

Workers::Job job(std::vector<std::string> words) {
  return [words = std::move(words)]() -> Workers::Then {
    if (!run(words)) log_line(LOG_WARNING, "%s fails", words.front().c_str());
    return {};
  };
}

}  // namespace

void ClientHooks::up(const Welcome& welcome, Ipv4 server) {
  const std::string dns = welcome.name_servers.empty() ? "" : to_text(welcome.name_servers.front());
  runner_.submit(job({UP, section_, interface_, to_text(welcome.address), to_text(welcome.gateway),
                      to_text(server), dns}));
}

void ClientHooks::down(Traffic traffic) {
  runner_.submit(
      job({DOWN, section_, std::to_string(traffic.received), std::to_string(traffic.sent)}));
}

void ClientHooks::heard() {
  note_heard(interface_);
}

void ClientHooks::failed(const char* code, const char* detail) {
  runner_.submit(job({NOTE, section_, code, detail}));
}

}  // namespace fenro::drovik
