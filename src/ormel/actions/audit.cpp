#include "ormel/actions/audit.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/lines.h"
#include "base/tunnel.h"
#include "ormel/base/file.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/host/event_log.h"

namespace ormel::audit {

namespace {

constexpr const char* FOLDER = "/audit";
constexpr const char* REFUSALS = "/audit/refused";
constexpr int64_t REFUSAL_SECONDS = 3600;
constexpr const char* FAULT = "/run/fenro/audit_fault";  // a byte for each change without a row
constexpr int EVENT_ERROR = 2;
constexpr uid_t NO_LOGIN = static_cast<uid_t>(-1);

uid_t number_or_none(std::string_view text) {
  uid_t number = NO_LOGIN;
  return fenro::parse_number(fenro::trimmed(text), number) ? number : NO_LOGIN;
}

// The kernel keeps who logged in, whatever that user has become since; sudo says who called it.
uid_t login_user() {
  std::string text;
  std::ignore = system::read_file("/proc/self/loginuid", text);  // without it, nobody logged in
  const uid_t user = number_or_none(text);
  if (user != NO_LOGIN) return user;
  const char* const caller = std::getenv("SUDO_UID");
  return caller ? number_or_none(caller) : NO_LOGIN;
}

std::string name_of(uid_t user) {
  const passwd* const entry = getpwuid(user);
  return entry ? entry->pw_name : std::to_string(user);
}

std::string terminal() {
  constexpr std::string_view DEVICES = "/dev/";
  char name[64] = "";
  for (const int fd : {STDIN_FILENO, STDERR_FILENO, STDOUT_FILENO}) {
    if (ttyname_r(fd, name, sizeof name) != 0) continue;
    const std::string_view path = name;
    return std::string(path.starts_with(DEVICES) ? path.substr(DEVICES.size()) : path);
  }
  return {};
}

// Any caller can set the variable: nothing but an address is taken from it.
std::string ssh_client() {
  const char* const connection = std::getenv("SSH_CONNECTION");
  const std::string address(
      connection ? std::string_view(connection).substr(0, std::strcspn(connection, " "))
                 : std::string_view());
  in6_addr any{};
  const bool valid = inet_pton(AF_INET, address.c_str(), &any) == 1 ||
                     inet_pton(AF_INET6, address.c_str(), &any) == 1;
  return valid ? address : std::string();
}

int64_t lost_so_far() {
  struct stat info {};
  return stat(FAULT, &info) == 0 ? static_cast<int64_t>(info.st_size) : 0;
}

void report_fault(int reason) {
  const bool known = access(FAULT, F_OK) == 0;
  const Fd mark{
      open(FAULT, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, fenro::PRIVATE_FILE)};
  if (mark) std::ignore = system::write_all(mark.get(), ".");
  if (known) return;
  const char* const text = strerrordesc_np(reason);
  std::string event = "[ORMEL Service] Changes cannot be recorded in the audit trail: ";
  event += trail().folder() + ": " + (text ? text : "unknown error");
  ORMEL_LOG(ERROR, "%s", event.c_str());
  system::add_log(event, EVENT_ERROR);
}

void add(Entry entry) {
  entry.time = std::time(nullptr);
  entry.lost = lost_so_far();
  if (!trail().append(entry)) {
    report_fault(errno);
  } else if (entry.lost != 0) {
    unlink(FAULT);
  }
}

// Counts a refusal within its hour. Returns whether it is one of the first. One process at a time
// does: a count that is read half written would start again at 0.
bool is_counted() {
  const std::string path = parent_folder() + REFUSALS;
  const Fd turn{
      open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, fenro::PRIVATE_FILE)};
  if (!turn || TEMP_FAILURE_RETRY(flock(turn.get(), LOCK_EX)) != 0) return false;
  const int64_t now = std::time(nullptr);
  int64_t start = 0, count = 0;
  std::string text;
  if (system::read_file(path.c_str(), text)) {
    std::string_view rest = text;
    if (!fenro::parse_number(fenro::take_word(rest), start) ||
        !fenro::parse_number(fenro::trimmed(rest), count))
      start = 0;
  }
  if (now < start || now - start >= REFUSAL_SECONDS) {
    start = now;
    count = 0;
  }
  if (count >= MOST_REFUSALS) return false;
  text = std::to_string(start) + ' ' + std::to_string(count + 1);
  return system::write_file(text, path.c_str(), fenro::PRIVATE_FILE);
}

Recorder* active = nullptr;

}  // namespace

Recorder::Recorder(Origin origin, std::string action, std::string subject) {
  if (!is_kept()) return;
  entry_ = Entry{.user = std::move(origin.user),
                 .via = std::move(origin.via),
                 .ip = std::move(origin.ip),
                 .action = std::move(action),
                 .subject = std::move(subject)};
  active = this;
  look_again();
}

Recorder::~Recorder() {
  if (active == this) active = nullptr;
}

void Recorder::look_again() {
  if (!entry_) return;
  before_ = read_state();
  witness_.release();
  witness_ = Witness([this] { add_row(UNFINISHED); });
}

void Recorder::add_row(int error) const {
  Entry row = *entry_;
  row.changes = changes_between(before_, read_state());
  row.error = error;
  add(std::move(row));
}

int Recorder::finish(int error) {
  if (entry_) add_row(error);
  drop();
  return error;
}

void Recorder::drop() {
  witness_.release();
  entry_.reset();
}

void look_again() {
  if (active) active->look_again();
}

Origin local_origin(const std::string& program) {
  const uid_t user = login_user();
  Origin origin{name_of(user == NO_LOGIN ? geteuid() : user), program, ssh_client()};
  if (!origin.ip.empty()) origin.via += " ssh";
  if (const std::string name = terminal(); !name.empty()) origin.via += ' ' + name;
  return origin;
}

std::string& parent_folder() {
  static std::string folder = "/var/lib/ormel";
  return folder;
}

bool is_kept() {
  return access((parent_folder() + FOLDER).c_str(), F_OK) == 0;
}

Trail trail() {
  return Trail(parent_folder() + FOLDER);
}

void note(const Origin& origin, const std::string& action, const std::string& subject,
          const std::vector<Change>& changes, int error) {
  if (!is_kept()) return;
  add({.user = origin.user,
       .via = origin.via,
       .ip = origin.ip,
       .action = action,
       .subject = subject,
       .changes = changes,
       .error = error});
}

void note_refusal(const Origin& origin, const std::string& action, const std::string& subject,
                  int error) {
  if (is_kept() && is_counted()) note(origin, action, subject, {}, error);
}

std::string subject_of(TYPE type, int index, const std::string& name) {
  const TunnelFacts* const facts = find_tunnel(type);
  if (!facts) return name;
  std::string text = to_lower(facts->log_name);
  if (is_server(type)) return text;
  if (index != 0) text += '/' + std::to_string(index);
  const config::PolyConfig* const stored = name.empty() ? config::cm.fetch(type, index) : nullptr;
  const std::string shown =
      stored ? percent_decoded(stored->cast<config::ClientConfig>()->name) : name;
  return shown.empty() ? text : text + " (" + shown + ')';
}

}  // namespace ormel::audit
