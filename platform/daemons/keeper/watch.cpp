#include "daemons/keeper/watch.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include <fenro/mibservice.h>

#include "base/argv.h"
#include "base/bus_handle.h"
#include "base/file.h"
#include "base/handle.h"
#include "common/online_users.h"
#include "daemons/keeper/settings.h"

namespace fenro::keeper {
namespace {

constexpr std::chrono::seconds SETTLE{2};  // for the hooks of a daemon that has just ended
constexpr int NOTHING_TO_DO = 4;           // exit status of the scripts' "keep"
constexpr const char* COMMON_SCRIPT = "/etc/init.d/vpn_common.sh";
constexpr const char* CONNECTION_TOOL = "/usr/lib/fenro/fenro-connection";
constexpr std::chrono::seconds HANDSHAKE_PERIOD{10};
constexpr long HANDSHAKE_SECONDS = 180;

constexpr const char* STATE_WORDS[] = {"starting", "running",  "waiting",
                                       "failed",   "given-up", "left-alone"};

std::string duration_text(std::time_t seconds) {
  constexpr std::time_t MINUTE = 60;
  constexpr std::time_t HOUR = 3600;
  if (seconds < 2 * MINUTE) return std::to_string(seconds) + " s";
  if (seconds < 2 * HOUR) return std::to_string(seconds / MINUTE) + " min";
  return std::to_string(seconds / HOUR) + " h";
}

std::string capital(std::string text) {
  if (!text.empty()) text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  return text;
}

bool is_wireguard(const Tunnel& tunnel) {
  return tunnel.protocol->server.name.empty();
}

// The time of the last handshake of a client's only peer; 0 without any.
std::time_t last_handshake(const std::string& interface) {
  std::vector<std::string> words{"/usr/bin/timeout", "2", "/usr/bin/wg", "show", interface,
                                 "latest-handshakes"};
  const MibIo out{mib_io_create()};
  if (!out || mib_io_execv(nullptr, out.get(), nullptr, argv_of(words).data()) != 0) return 0;
  std::size_t length = 0;
  const char* const bytes = mib_io_read(out.get(), &length);
  const std::string_view text{bytes, length};
  const std::size_t tab = text.find('\t');
  std::time_t at = 0;
  if (tab != std::string_view::npos) std::from_chars(bytes + tab + 1, bytes + length, at);
  return at;
}

// The host of "HOST:PORT", unless it is an address.
bool has_name(std::string_view endpoint) {
  return !endpoint.starts_with('[') &&
         std::ranges::any_of(endpoint.substr(0, endpoint.rfind(':')),
                             [](unsigned char c) { return std::isalpha(c); });
}

// A line of a script, without the name that it begins with.
std::string words_of_script(const std::string& line) {
  const std::size_t colon = line.find(".sh: ");
  return colon == std::string::npos ? line : line.substr(colon + 5);
}

}  // namespace

void Watch::boot() {
  held_ = true;
  const Settings settings = read_settings();
  for (const Tunnel& tunnel : configured_tunnels()) {
    const bool kept = tunnel.is_server() ? settings.servers : settings.clients;
    if (kept && is_true(setting(tunnel, "Enable"))) booting_.push_back(tunnel);
    // The kernel's tables are empty: what the program sets up when a profile is added is missing
    // for all of them.
    if (!tunnel.is_server())
      jobs_.push_back({COMMON_SCRIPT, "add_vpnclient_profile", tunnel.interface()});
  }
  if (!booting_.empty()) jobs_.push_front({COMMON_SCRIPT, "setup_vpn_entrance"});
}

void Watch::run_jobs() {
  if (held_) return;
  if (job_ && job_->poll()) job_.reset();
  if (!job_ && !jobs_.empty()) {
    job_ = std::make_unique<Child>(std::move(jobs_.front()));
    jobs_.pop_front();
  }
  if (job_ || booting_.empty() || !jobs_.empty()) return;
  std::ignore = make_private_folder(WANTED);
  for (const Tunnel& tunnel : booting_) {
    const std::string section = tunnel.section();
    // A person may have been quicker. O_EXCL leaves that start its mark.
    const Fd mark{open((std::string{WANTED} + '/' + section).c_str(),
                       O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600)};
    if (mark) subjects_[section].boot = true;
  }
  booting_.clear();
}

void Watch::reap() {
  std::erase_if(orphans_,
                [](const std::unique_ptr<Child>& child) { return child->poll().has_value(); });
}

void Watch::read_marks() {
  std::set<std::string> wanted;
  if (const Dir folder{opendir(WANTED)}) {
    while (const dirent* entry = readdir(folder.get())) {
      const auto tunnel = find_tunnel(entry->d_name);
      struct stat mark {};
      if (!tunnel || fstatat(dirfd(folder.get()), entry->d_name, &mark, AT_SYMLINK_NOFOLLOW) != 0)
        continue;
      wanted.insert(entry->d_name);
      Subject& subject = subjects_[entry->d_name];
      if (subject.mark.tv_sec == mark.st_mtim.tv_sec &&
          subject.mark.tv_nsec == mark.st_mtim.tv_nsec)
        continue;
      const bool boot = subject.boot && !subject.tunnel.protocol;
      if (subject.child) orphans_.push_back(std::move(subject.child));
      subject = Subject{};
      subject.tunnel = *tunnel;
      subject.mark = mark.st_mtim;
      subject.boot = boot;
      subject.since = std::time(nullptr);
    }
  }
  for (auto entry = subjects_.begin(); entry != subjects_.end();) {
    if (wanted.contains(entry->first)) {
      ++entry;
      continue;
    }
    if (entry->second.child) orphans_.push_back(std::move(entry->second.child));
    entry = subjects_.erase(entry);
  }
}

void Watch::tick(Backoff::Time now) {
  run_jobs();
  reap();
  read_marks();
  if (subjects_.empty()) return;
  const Processes processes;
  for (auto& [section, subject] : subjects_) step(subject, processes, now);
  end_dead_sessions(processes);
}

void Watch::step(Subject& subject, const Processes& processes, Backoff::Time now) {
  if (subject.child) {
    const auto ended = subject.child->poll();
    if (!ended) return;
    subject.child.reset();
    const Task task = std::exchange(subject.task, Task::None);
    if (task == Task::Keep) return on_kept(subject, *ended, now);
    if (task == Task::Resolve && ended->status == 0)
      tell(subject, "endpoint", Level::Information,
           capital(subject.tunnel.name()) + ": " + words_of_script(ended->said));
    return;
  }
  const bool running = processes.runs(subject.tunnel);
  if (!subject.tunnel.is_server()) look_at_tunnel(subject, running);
  if (!running) return on_dead(subject, now);
  if (subject.state != State::Running) {
    set(subject, State::Running);
    subject.ran = true;
    subject.cleared = false;
    if (subject.tunnel.is_server()) subject.reported = false;
  }
  if (!subject.tunnel.is_server() && is_wireguard(subject.tunnel)) look_at_handshake(subject, now);
}

void Watch::begin(Subject& subject, Task task) {
  constexpr const char* ACTIONS[] = {"", "keep", "forget", "resolve"};
  subject.task = task;
  subject.child = std::make_unique<Child>(subject.tunnel.script(ACTIONS[static_cast<int>(task)]));
}

void Watch::on_dead(Subject& subject, Backoff::Time now) {
  const Tunnel& tunnel = subject.tunnel;
  if (subject.state == State::Starting || subject.state == State::Running) {
    if (tunnel.is_server() && subject.ran && tunnel.protocol->sessions != 0)
      jobs_.push_back({CONNECTION_TOOL, "down", std::to_string(tunnel.protocol->sessions)});
    subject.backoff.died(now, tunnel.is_server() ? SETTLE : tunnel.protocol->redial);
    subject.died = now;
    set(subject, State::Waiting);
  }
  if (!tunnel.is_server() && now - subject.died >= SETTLE && !std::exchange(subject.cleared, true))
    return begin(subject, Task::Forget);
  if (subject.state == State::LeftAlone || subject.state == State::GivenUp ||
      now < subject.backoff.due())
    return;
  const Settings settings = read_settings();
  if (!(tunnel.is_server() ? settings.servers : settings.clients) ||
      !is_true(setting(tunnel, "Enable")))
    return set(subject, State::LeftAlone);
  if (const auto reason = reason_of(tunnel); reason && reason->final) {
    subject.reason = reason->text;
    subject.code = reason->code;
    if (!std::exchange(subject.reported, true))
      tell(subject, "failed", Level::Warning,
           capital(tunnel.name()) + " does not run: " + subject.reason);
    return set(subject, State::LeftAlone);
  }
  const bool first = subject.boot && !subject.ran;
  if (!tunnel.is_server() && !first && !is_true(setting(tunnel, "Reconnect", "1")))
    return set(subject, State::LeftAlone);
  if (subject.backoff.given_up(now)) {
    set(subject, State::GivenUp);
    tell(subject, "given-up", Level::Error,
         capital(tunnel.name()) +
             " ends again and again and is not started any more; turn it off and on to try again");
    return;
  }
  subject.backoff.attempt(now);
  begin(subject, Task::Keep);
}

void Watch::on_kept(Subject& subject, const Ended& ended, Backoff::Time now) {
  const std::string name = capital(subject.tunnel.name());
  if (ended.status == NOTHING_TO_DO) return;
  if (ended.status == 0) {
    const bool again = std::exchange(subject.ran, true) || !subject.boot;
    if (again) {
      subject.backoff.restarted(now);
      ++subject.restarts;
      subject.restarted = std::time(nullptr);
    }
    if (subject.tunnel.is_server() && (again || subject.reported)) {
      tell(subject, "restarted", Level::Warning,
           subject.reported ? name + " runs again"
                            : name + " had ended unexpectedly and was started again");
    }
    if (subject.tunnel.is_server()) subject.reported = false;
    subject.reason.clear();
    subject.code.clear();
    return set(subject, State::Running);
  }
  const auto reason = reason_of(subject.tunnel);
  subject.reason = reason ? reason->text : words_of_script(ended.said);
  subject.code = reason ? reason->code : "";
  set(subject, State::Failed);
  if (!std::exchange(subject.reported, true))
    tell(subject, "failed", Level::Warning, name + " does not run: " + subject.reason);
}

void Watch::look_at_tunnel(Subject& subject, bool running) {
  const std::string mark = std::string{CLIENT_MARKS} + '/' + subject.tunnel.section();
  const bool up = running && !subject.silent && access(mark.c_str(), F_OK) == 0;
  if (up == std::exchange(subject.up, up)) return;
  const std::time_t now = std::time(nullptr);
  if (!up) {
    const auto reason = reason_of(subject.tunnel);
    const std::string words = reason           ? reason->text
                              : !running       ? "its daemon has ended"
                              : subject.silent ? "the server does not answer"
                                               : "the connection has ended";
    subject.lost = now;
    subject.code = reason ? reason->code : "";
    return tell(subject, "lost", Level::Warning,
                capital(subject.tunnel.name()) + " is lost: " + words);
  }
  subject.reported = false;
  if (const std::time_t lost = std::exchange(subject.lost, 0); lost != 0)
    tell(subject, "back", Level::Information,
         capital(subject.tunnel.name()) + " is back after " + duration_text(now - lost));
}

// A tunnel without keep-alives may be silent because nothing is sent. Asking for the server's
// address again does no harm.
void Watch::look_at_handshake(Subject& subject, Backoff::Time now) {
  if (now - subject.looked < HANDSHAKE_PERIOD) return;
  subject.looked = now;
  const std::time_t seen = std::max(last_handshake(subject.tunnel.interface()), subject.since);
  const bool old = std::time(nullptr) - seen > HANDSHAKE_SECONDS;
  subject.silent = old && setting(subject.tunnel, "Peer keepalive", "0") != "0";
  if (!old || now - subject.resolved < std::chrono::seconds{HANDSHAKE_SECONDS}) return;
  subject.resolved = now;
  if (has_name(setting(subject.tunnel, "Peer Endpoint"))) begin(subject, Task::Resolve);
}

// Sessions whose own daemon was killed: its hook has not run.
void Watch::end_dead_sessions(const Processes& processes) {
  const bool asked = std::ranges::any_of(subjects_, [](const auto& entry) {
    return entry.second.tunnel.is_server() && entry.second.tunnel.protocol->has_pid;
  });
  if (!asked || !jobs_.empty()) return;
  for (const OnlineUser& user : OnlineUsers{}.list()) {
    for (const Protocol& protocol : protocols()) {
      if (user.type != protocol.sessions || !protocol.has_pid || processes.has_session(user.number))
        continue;
      if (!subjects_.contains(std::string{protocol.section})) continue;
      jobs_.push_back({CONNECTION_TOOL, "down", std::to_string(user.type), "number",
                       std::to_string(user.number)});
    }
  }
}

void Watch::set(Subject& subject, State state) {
  if (subject.state != state) subject.since = std::time(nullptr);
  subject.state = state;
}

void Watch::tell(const Subject& subject, std::string_view kind, Level level,
                 const std::string& text) {
  report_({kind, level, subject.tunnel.section(), text, subject.code});
}

Json Watch::show() const {
  Json rows{json_array()};
  for (const auto& [section, subject] : subjects_) {
    if (!subject.tunnel.protocol) continue;
    Json row{json_object()};
    const auto set_text = [&](const char* key, std::string_view text) {
      json_object_set_new(row.get(), key, json_text(text).release());
    };
    set_text("section", section);
    set_text("name", subject.tunnel.name());
    set_text("state", STATE_WORDS[static_cast<int>(subject.state)]);
    set_text("reason", subject.reason);
    set_text("code", subject.code);
    json_object_set_new(row.get(), "since", json_integer(subject.since));
    json_object_set_new(row.get(), "restarts", json_integer(subject.restarts));
    json_object_set_new(row.get(), "restarted", json_integer(subject.restarted));
    json_array_append_new(rows.get(), row.release());
  }
  return rows;
}

}  // namespace fenro::keeper
