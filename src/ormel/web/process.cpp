#include "ormel/web/process.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string>
#include <tuple>
#include <unistd.h>
#include <utility>

#include "base/handle.h"

namespace ormel::cgi {

namespace {

constexpr const char* QUERY = "QUERY_STRING";
constexpr const char* AUTHORIZATION = "HTTP_AUTHORIZATION";
constexpr const char* SECRETS[] = {QUERY, "REQUEST_URI", "HTTP_COOKIE", AUTHORIZATION,
                                   "HTTP_REFERER"};
constexpr const char* PROXY =
    "HTTP_PROXY";  // a header of the client, which libcurl would take for a setting
constexpr int ENDING_SIGNALS[] = {SIGTERM, SIGUSR1, SIGHUP, SIGINT, SIGPIPE};

std::optional<std::string> query;
std::string authorization;
pid_t request_process = 0;

// A child that has not become another program yet ends without touching the request's files.
void end_request(int signal) {
  if (getpid() == request_process) remove_cgi_uploads();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void on_ending_signals(void (*action)(int)) {
  for (const int signal : ENDING_SIGNALS) std::signal(signal, action);
}

}  // namespace

void open_standard_streams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) std::ignore = open("/dev/null", O_RDWR);  // the lowest that is free
  }
}

void end_answer() {
  for (std::FILE* const stream : {stdout, stderr}) fenro::File{stream}.reset();
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

void withhold_request() {
  if (const char* text = std::getenv(QUERY)) query = text;
  if (const char* text = std::getenv(AUTHORIZATION)) authorization = text;
  for (const char* name : SECRETS) unsetenv(name);
  unsetenv(PROXY);
}

std::string take_authorization() {
  return std::exchange(authorization, {});
}

const cgi_settings& settings_with_query() {
  if (query) setenv(QUERY, query->c_str(), 1);
  return cgi_default_settings;
}

UploadsGuard::UploadsGuard() {
  request_process = getpid();
  on_ending_signals(end_request);
}

UploadsGuard::~UploadsGuard() {
  on_ending_signals(SIG_DFL);
}

void unblock_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace ormel::cgi
