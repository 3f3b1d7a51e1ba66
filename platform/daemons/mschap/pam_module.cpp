// pam_fenro_password.so: after a password has been changed, hands it to fenro-password, which
// stores the hash that PPTP and L2TP logins need. For the "password" stack, after the module that
// changes it; a failure never undoes the change.
//
// It is loaded into programs of any kind and unloaded again, so it brings no part of the C++
// library along.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <security/pam_ext.h>
#include <security/pam_modules.h>

namespace {

constexpr const char* TOOL = "/usr/sbin/fenro-password";
constexpr std::size_t LONGEST_USER = 256;

// Only async-signal-safe calls, since the caller may have threads.
[[noreturn]] void run_tool(int password, char* user) {
  static char type[] = "PAM_TYPE=password";
  static char name[] = "fenro-password";
  static char mode[] = "--pam";
  char* arguments[] = {name, mode, nullptr};
  char* environment[] = {user, type, nullptr};
  if (dup2(password, STDIN_FILENO) == STDIN_FILENO) execve(TOOL, arguments, environment);
  _exit(127);
}

bool hand_over(const char* user, const char* password) {
  char variable[LONGEST_USER + sizeof "PAM_USER="];
  const int needed = std::snprintf(variable, sizeof variable, "PAM_USER=%s", user);
  if (needed < 0 || static_cast<std::size_t>(needed) >= sizeof variable) return false;
  int ends[2];
  // Not a pipe: a tool that ends early would end the caller by a signal.
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return false;
  const pid_t child = fork();
  if (child == 0) {
    close(ends[1]);
    run_tool(ends[0], variable);
  }
  close(ends[0]);
  const std::size_t length = std::strlen(password) + 1;  // the NUL ends it
  const bool written =
      child > 0 && length <= PAM_MAX_RESP_SIZE &&
      send(ends[1], password, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
  close(ends[1]);
  int status = -1;
  return child > 0 && TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child && written &&
         WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pam_sm_chauthtok(pam_handle_t* handle, int flags, int,
                                                               const char**) {
  if ((flags & PAM_UPDATE_AUTHTOK) == 0) return PAM_SUCCESS;
  const void* user = nullptr;
  const void* password = nullptr;
  if (pam_get_item(handle, PAM_USER, &user) != PAM_SUCCESS ||
      pam_get_item(handle, PAM_AUTHTOK, &password) != PAM_SUCCESS)
    return PAM_IGNORE;
  if (!user || !password || geteuid() != 0) return PAM_IGNORE;
  if (!hand_over(static_cast<const char*>(user), static_cast<const char*>(password)))
    pam_syslog(handle, LOG_WARNING, "no password hash for PPTP and L2TP logins could be stored");
  return PAM_IGNORE;
}
