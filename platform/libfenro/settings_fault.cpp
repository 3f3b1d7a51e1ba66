#include "libfenro/settings_fault.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>

#include "base/file.h"
#include "base/handle.h"
#include "libfenro/paths.h"

namespace fenro {
namespace {

constexpr const char* NOTIFY = "/usr/local/sbin/notify";

// For the small tools, which are linked without the event log.
void notify(bool error, const std::string& text) {
  std::string words[] = {NOTIFY, "send", "-A",   "A238", "-C",
                         "C001", "-M",   "9002", "-l",   error ? "error" : "info",
                         "-t",   "3",    "{0}",  text};
  char* arguments[std::size(words) + 1] = {};
  for (std::size_t i = 0; i < std::size(words); ++i) arguments[i] = words[i].data();
  pid_t child = 0;
  if (posix_spawn(&child, NOTIFY, nullptr, nullptr, arguments, environ) == 0)
    waitpid(child, nullptr, 0);
}

void report(bool error, const std::string& text) {
  syslog(LOG_DAEMON | (error ? LOG_ERR : LOG_NOTICE), "%s", text.c_str());
  report_settings_event(error, text);
}

void begin_outage(const std::string& path, int error) {
  const std::string mark = paths::SETTINGS_FAULT;
  std::ignore =
      make_private_folder(mark.substr(0, mark.rfind('/')));  // without it the next line fails
  const Fd fd{
      open(mark.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, PRIVATE_FILE)};
  if (!fd) return;  // known already, or not ours to report
  const std::string reason = strerrordesc_np(error) ? strerrordesc_np(error) : "unknown error";
  std::ignore = write_all(fd.get(), path + '\n' + reason + '\n');
  report(true, "Settings cannot be saved: " + path + ": " + reason);
}

void end_outage(const std::string& path) {
  std::string text;
  if (read_file(paths::SETTINGS_FAULT, text) != 0 || !text.starts_with(path + '\n')) return;
  if (unlink(paths::SETTINGS_FAULT) == 0) report(false, "Settings can be saved again: " + path);
}

}  // namespace

void (*report_settings_event)(bool error, const std::string& text) = notify;

bool note_save(const std::string& path, bool saved) {
  if (saved)
    end_outage(path);
  else
    begin_outage(path, errno);
  return saved;
}

}  // namespace fenro
