#include "ormel/host/notification.h"

#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fenro/event_log.h>

#include "ormel/host/process.h"

namespace ormel {

namespace {

constexpr const char* NOTIFY = "/usr/local/sbin/notify";
constexpr const char* SENDER = "ORMEL Service";
constexpr size_t MAX_ARGUMENTS = 12;

// The first child's side: it leaves the tool to its own child, which needs no waiting for.
[[noreturn]] void start_notify(char* const* argv) {
  close_range(STDERR_FILENO + 1, ~0U, 0);
  const pid_t pid = fork();
  if (pid != 0) _exit(pid == -1 ? 1 : 0);
  const int null = open("/dev/null", O_RDWR);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, fd);
  execvp(argv[0], argv);
  _exit(1);
}

}  // namespace

std::span<const nc_msg_struct> nc_messages() {
  return __NC_MSG_DB__;
}

void nclog::notify_send(const nc_msg_struct* msg, ...) {
  std::vector<std::string> command{
      NOTIFY,       "send",          "-A", NOTICE_APPLICATION, "-C", msg->category_id,
      "-M",         msg->message_id, "-l", msg->level,         "-t", "3",
      msg->message, SENDER};
  const size_t fixed = command.size();
  va_list arguments;
  va_start(arguments, msg);
  while (const char* argument = va_arg(arguments, const char*)) {
    if (command.size() < fixed + MAX_ARGUMENTS) command.emplace_back(argument);
  }
  va_end(arguments);

  const system::Argv argv(command);
  const pid_t pid = fork();
  if (pid == 0) start_notify(argv.get());
  if (pid > 0) TEMP_FAILURE_RETRY(waitpid(pid, nullptr, 0));
}

}  // namespace ormel
