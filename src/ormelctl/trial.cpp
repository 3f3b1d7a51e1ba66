#include "ormelctl/trial.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fnmatch.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/file.h"
#include "base/lines.h"
#include "base/tunnel.h"
#include "ormel/changes/difference.h"
#include "ormel/changes/state_files.h"
#include "ormel/host/bus_filter.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

namespace fs = std::filesystem;
using ormel::Fd;
using ormel::changes::Contents;
using ormel::changes::FileDifference;

constexpr const char* RUN = "/run/fenro";  // becomes a file system in memory that holds all copies
constexpr const char* TRIAL = "/run/fenro/trial";
constexpr const char* RECORD = "/run/fenro/trial/programs";
constexpr const char* SCRIPTS = "/etc/init.d";
constexpr const char* WG = "/usr/bin/wg";
constexpr const char* NOTIFY = "/usr/local/sbin/notify";
constexpr const char* FOLDERS[] = {"/etc/config", "/etc/openvpn", "/etc/ppp"};
constexpr const char* STATE = "/var/lib/ormel";  // of which the files of state alone are copied
constexpr std::uintmax_t LARGEST = std::uintmax_t{4} << 20;  // bytes of a file that is copied

// What a copy of the settings cannot show, and why.
struct Untriable {
  std::string_view noun, verb;
  const char* reason;
};
constexpr Untriable UNTRIABLE[] = {
    {"profile", "import", "use --report, which shows what becomes of each line and stores nothing"},
    {"peer", "qr", "it makes a new key each time"},
    {"user", "unlock", "the locks of users are in the log database, not in the settings"},
    {"kick", "", "it ends sessions and changes no setting: ormelctl who lists them"},
    {"guard", "pause", "it changes no setting"},
    {"guard", "test", "it is a test of the real tunnel"},
    {"backup", "", "it changes no setting, and writes the file that it is given"},
    {"notify", "", "the keeper itself stores who is notified"},
    {"token", "", "tokens are no part of what can be taken back"},
    {"sdwan", "", "the cloud would have to be asked"},
    {"undo", "", "ormelctl undo list shows what was changed"},
    {"confirm", "", "it only ends the time of a change"},
    {"revert", "", "ormelctl pending shows what would go back"},
};

// Calls that only ask. All others are answered as done.
constexpr const char* QUESTIONS[] = {"api.*",
                                     "interfaces_monitor.*",
                                     "external_dev.list",
                                     "external_dev.guard_state",
                                     "read_json",
                                     "keeper.show",
                                     "notify.list",
                                     "notify.kinds",
                                     "notify.recent",
                                     "db_*_query",
                                     "rate*",
                                     "ping"};

// In the place of a program: questions are passed on, all else is noted and counts as done.
constexpr const char* RECORDER = R"(#!/bin/sh
name=${0##*/}
case "$name ${1-}" in
  'vpn_wireguard.sh peers' | 'vpn_guard.sh report' | 'vpn_guard.sh neighbour' | *' status') ;;
  'wg show' | 'wg genkey' | 'wg pubkey' | 'wg genpsk') ;;
  'notify '*) exit 0 ;;
  *)
    line=$0
    for word do line="$line $word"; done
    printf '%s\n' "$line" >>/run/fenro/trial/programs
    exit 0
    ;;
esac
exec "/run/fenro/trial/original/$name" "$@"
)";

bool trying = false;

bool bind_mount(const std::string& from, const std::string& to) {
  return mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// Owner and mode as they are, so that the command finds what it would find.
void dress(const struct stat& like, const std::string& path) {
  std::ignore = lchown(path.c_str(), like.st_uid, like.st_gid);
  if (!S_ISLNK(like.st_mode)) chmod(path.c_str(), like.st_mode & 07777);
}

// Copies files, folders and links; what is too large for settings is left out, sockets as well.
bool copy_tree(const std::string& from, const std::string& to) {
  struct stat info {};
  if (lstat(from.c_str(), &info) != 0) return false;
  std::error_code failure;
  if (S_ISDIR(info.st_mode)) {
    if (mkdir(to.c_str(), S_IRWXU) != 0 && errno != EEXIST) return false;
    for (const fs::directory_entry& entry : fs::directory_iterator(from, failure)) {
      const std::string name = '/' + entry.path().filename().string();
      if (!copy_tree(from + name, to + name)) return false;
    }
  } else if (S_ISLNK(info.st_mode)) {
    fs::copy_symlink(from, to, failure);
  } else if (S_ISREG(info.st_mode) && static_cast<std::uintmax_t>(info.st_size) <= LARGEST) {
    std::string text;
    if (fenro::read_file(from.c_str(), text) != 0 || !fenro::replace_file(to, text)) return false;
  } else {
    return true;
  }
  if (!failure) dress(info, to);
  return !failure;
}

// Nothing outside of file systems in memory can be written from here on.
bool close_everything() {
  struct mount_attr read_only {};
  read_only.attr_set = MOUNT_ATTR_RDONLY;
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &read_only, sizeof read_only) == 0;
}

bool open_memory() {
  const Fd old{open(RUN, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!old || mount("ormel-trial", RUN, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700") != 0)
    return false;
  return copy_tree("/proc/self/fd/" + std::to_string(old.get()) + "/.", RUN) &&
         mkdir(TRIAL, S_IRWXU) == 0;
}

bool cover_folders() {
  size_t number = 0;
  const std::string state = std::string(TRIAL) + "/state";
  if (mkdir(state.c_str(), S_IRWXU) != 0) return false;
  for (const std::string& path : ormel::changes::existing_state()) {
    if (path.starts_with(STATE) && !copy_tree(path, state + path.substr(std::strlen(STATE))))
      return false;
  }
  if (access(STATE, F_OK) == 0 && !bind_mount(state, STATE)) return false;
  return std::ranges::all_of(FOLDERS, [&](const char* folder) {
    if (access(folder, F_OK) != 0) return true;
    const std::string copy = std::string(TRIAL) + '/' + std::to_string(number++);
    return copy_tree(folder, copy) && bind_mount(copy, folder);
  });
}

std::vector<std::string> covered_programs() {
  std::vector<std::string> paths{WG, NOTIFY};
  std::error_code failure;
  for (const fs::directory_entry& entry : fs::directory_iterator(SCRIPTS, failure)) {
    if (entry.path().extension() == ".sh") paths.push_back(entry.path().string());
  }
  std::erase_if(paths, [](const std::string& path) { return access(path.c_str(), X_OK) != 0; });
  return paths;
}

// The originals first: a cover goes over what a link leads to.
bool cover_programs() {
  const std::string recorder = std::string(TRIAL) + "/recorder";
  const std::string originals = std::string(TRIAL) + "/original/";
  if (!fenro::replace_file(recorder, RECORDER, S_IRWXU) || mkdir(originals.c_str(), S_IRWXU) != 0)
    return false;
  const std::vector<std::string> paths = covered_programs();
  for (const std::string& path : paths) {
    const std::string original = originals + path.substr(path.rfind('/') + 1);
    if (!fenro::replace_file(original, "") || !bind_mount(path, original)) return false;
  }
  return std::ranges::all_of(paths,
                             [&](const std::string& path) { return bind_mount(recorder, path); });
}

// The daemon that writes documents below /etc/config does not see the copies.
void write_document(std::string_view request) {
  const ormel::Json call{json_loadb(request.data(), request.size(), 0, nullptr)};
  const std::string path = text_of(call.get(), "path");
  const ormel::CString text{json_dumps(json_object_get(call.get(), "data"), JSON_COMPACT)};
  if (text && ormel::changes::find_state_file(path))
    std::ignore = fenro::replace_file(path, std::string(text.get()) + '\n');  // the copy shows it
}

std::optional<std::string> answer(std::string_view, std::string_view method,
                                  std::string_view request) {
  const std::string name{method};
  const bool asks = std::ranges::any_of(
      QUESTIONS, [&](const char* pattern) { return fnmatch(pattern, name.c_str(), 0) == 0; });
  if (asks) return {};
  if (method == "write_json") write_document(request);
  return R"({"error":0,"data":{}})";
}

bool enter() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // programs that are started in the background are waited for
  if (!fenro::make_private_folder(RUN) || !close_everything() || !open_memory() ||
      !cover_folders() || !cover_programs())
    return false;
  ormel::system::filter_calls(answer);
  trying = true;
  return true;
}

// A process that this one has inherited from the tool that keeps devices out: it waits for the day
// of a limit, which may be years away.
bool is_watch(pid_t process) {
  const std::string id = std::to_string(process), head = id + " (fenro-hold) ";
  std::string text;
  if (fenro::read_file(("/proc/" + id + "/stat").c_str(), text) != 0) return false;
  const size_t parent = head.size() + 1;  // after the letter of its state
  return text.starts_with(head) &&
         text.find(' ' + std::to_string(getpid()) + ' ', parent) == parent;
}

// It knows the copies alone, so that nothing is lost with it.
void end_watches() {
  std::error_code failure;
  for (fs::directory_iterator entry("/proc", failure), end; entry != end;
       entry.increment(failure)) {
    pid_t process = 0;
    if (fenro::parse_number(entry->path().filename().string(), process) && is_watch(process))
      kill(process, SIGKILL);
  }
}

std::vector<std::string> recorded_programs() {
  end_watches();
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) continue;
  std::string text;
  if (fenro::read_file(RECORD, text) != 0) return {};
  std::vector<std::string> lines = fenro::split_lines(text);
  std::erase(lines, "");
  return lines;
}

// Which sessions a program of a start script would end: those of a server, or a tunnel.
bool ends(const std::vector<std::string>& words, const json_t* session) {
  const long type = number_of(session, "type");
  const ormel::TunnelFacts* const facts = ormel::find_tunnel(static_cast<ormel::TYPE>(type));
  if (!facts || words.size() < 2) return false;
  if (words[0] == facts->script) return words[1] != "sync_peers";
  return words[1] == "kick_all_connection" && words.size() > 2 &&
         words[2] == std::to_string(type) &&
         (words.size() == 3 || words[3].empty() || words[3] == text_of(session, "name"));
}

std::string session_text(const json_t* session) {
  const Protocol* const protocol = protocol_of(static_cast<int>(number_of(session, "type")));
  return text_of(session, "name") + " (" + (protocol ? protocol->name : "") + ", " +
         text_of(session, "allocate_ip") + ", for " + duration_text(number_of(session, "uptime")) +
         ')';
}

// A profile that is up, by the script that would stop it.
bool ends_profile(const std::vector<std::string>& words, const json_t* profile) {
  const Protocol* const protocol = find_protocol(text_of(profile, "protocol"));
  const ormel::TunnelFacts* const facts = protocol ? ormel::find_tunnel(protocol->client) : nullptr;
  return facts && words.size() == 3 && words[0] == facts->client_script &&
         words[1] == facts->stop && words[2] == std::to_string(number_of(profile, "index"));
}

std::vector<std::string> ended(const std::vector<std::string>& programs, const json_t* sessions,
                               const json_t* profiles) {
  std::vector<std::string> texts;
  const auto note = [&](std::string text) {
    if (std::ranges::find(texts, text) == texts.end()) texts.push_back(std::move(text));
  };
  for (const std::string& program : programs) {
    std::vector<std::string> words = fenro::split_words(program);
    size_t at = 0;
    json_t* row = nullptr;
    json_array_foreach(sessions, at, row) {
      if (ends(words, row)) note(session_text(row));
    }
    json_array_foreach(profiles, at, row) {
      if (ends_profile(words, row) && text_of(row, "state") == "up")
        note("tunnel " + text_of(row, "name"));
    }
  }
  return texts;
}

ormel::Json texts(const std::vector<std::string>& lines) {
  ormel::Json rows{json_array()};
  for (const std::string& line : lines)
    json_array_append_new(rows.get(), json_string(printable(line).c_str()));
  return rows;
}

ormel::Json files_of(const std::vector<FileDifference>& files) {
  ormel::Json rows{json_array()};
  for (const FileDifference& file : files) {
    json_array_append_new(rows.get(), json_pack("{s:s, s:o}", "path", file.path.c_str(), "lines",
                                                texts(file.lines).release()));
  }
  return rows;
}

std::string listed(const char* head, const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += head + printable(line) + '\n';
  return text;
}

// The command was refused by a check, and would be in earnest too. A server that does not run
// during a trial is no refusal.
bool is_refusal(const Result& result) {
  return result.exit != Exit::Done &&
         (result.exit != Exit::Failed || result.error != 0 || !result.data);
}

}  // namespace

bool in_trial() {
  return trying;
}

Result run_trial(const Command& command, const Arguments& arguments) {
  for (const Untriable& row : UNTRIABLE) {
    if (row.noun == command.noun && (row.verb.empty() || row.verb == command.verb))
      return failed(Exit::Usage, "\"" + std::string(row.noun) + "\" cannot be tried", row.reason);
  }
  if (std::string_view(command.noun) == "peer" && std::string_view(command.verb) == "add" &&
      !arguments.has("key"))
    return failed(Exit::Usage, "a new key is made each time, so that this cannot be tried",
                  "give the device's public key with --key");
  const Reply sessions = call("/ormel/connection/all");
  const ormel::Json profiles = std::move(profile_list({}).data);
  const Contents before = ormel::changes::read_state();
  if (!enter())
    return failed(Exit::Failed,
                  std::string("this host cannot keep a trial apart: ") + std::strerror(errno),
                  "a trial needs root's right to mount, and Linux 5.12; nothing was changed");
  Result result = command.run(arguments);
  const std::vector<std::string> programs = recorded_programs();
  if (is_refusal(result)) return result;
  const auto files = ormel::changes::differences(before, ormel::changes::read_state());
  const auto dropped = ended(programs, sessions.data(), profiles.get());
  std::string text;
  for (const FileDifference& file : files) text += file.path + '\n' + listed("  ", file.lines);
  text += listed("would run   ", programs) + listed("would drop  ", dropped);
  return done(
      text + "nothing was changed\n",
      ormel::Json{json_pack("{s:o, s:o, s:o}", "files", files_of(files).release(), "programs",
                            texts(programs).release(), "dropped", texts(dropped).release())});
}

}  // namespace ormelctl
