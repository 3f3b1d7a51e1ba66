// fenro-session create USER [ADDRESS [OWN-ADDRESS]] | list | end SID | end-others SID | end-user
// USER: the sessions of the web interface. Begins one for a user whose password somebody else has
// checked, so it works for root only.
#include <arpa/inet.h>
#include <cstdio>
#include <string>
#include <string_view>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "libfenro/session_store.h"
#include "libfenro/user.h"

namespace {

using Words = std::vector<std::string>;

// The exit status.
enum Status {
  DONE = 0,
  NOT_FOUND = 1,  // no such user, or no such session
  USAGE = 2,
  NOT_ROOT = 3,
  FAILED = 4  // the sessions cannot be written, or the answer cannot
};

int complain(Status status, const char* text) {
  std::fprintf(stderr, "fenro-session: %s\n", text);
  return status;
}

bool is_address(const std::string& text) {
  in6_addr address{};  // room for both kinds
  return text.empty() || inet_pton(AF_INET, text.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

int create(const Words& words) {
  const std::string address = words.size() > 1 ? words[1] : "";
  const std::string own = words.size() > 2 ? words[2] : "";
  if (!is_address(address) || !is_address(own)) return complain(USAGE, "that is no IP address");
  if (!fenro::find_user(words[0].c_str())) return complain(NOT_FOUND, "no such user");
  const std::string sid = fenro::SessionStore{}.create(words[0], address, own);
  if (sid.empty()) return complain(FAILED, "the session cannot be written");
  std::puts(sid.c_str());
  return DONE;
}

// One line a session: id, user, address or "-", time of last use; separated by tabs, which no
// user's name holds.
int list(const Words& /*words*/) {
  for (const _session& session : fenro::SessionStore{}.list())
    std::printf("%s\t%s\t%s\t%ld\n", session.sid, session.user, *session.ip ? session.ip : "-",
                session.touched);
  return DONE;
}

// Every user can read the arguments of a running command, so the id of a session that stays valid
// comes on standard input.
std::string read_sid() {
  std::string line;
  constexpr std::size_t ENOUGH = sizeof(_session::sid);
  for (int c = std::getchar(); c != EOF && c != '\n' && line.size() < ENOUGH; c = std::getchar())
    line += static_cast<char>(c);
  return line;
}

int end(const Words& words) {
  const std::string sid = words[0] == "-" ? read_sid() : words[0];
  return fenro::SessionStore{}.end(sid.c_str()) ? DONE : complain(NOT_FOUND, "no such session");
}

// Succeeds without other sessions, too.
int end_others(const Words& words) {
  const std::string sid = words[0] == "-" ? read_sid() : words[0];
  std::ignore = fenro::SessionStore{}.end_others(sid.c_str());
  return DONE;
}

int end_user(const Words& words) {
  return fenro::SessionStore{}.end_user(words[0]) > 0
             ? DONE
             : complain(NOT_FOUND, "that user has no session");
}

struct Command {
  std::string_view name;
  std::size_t least, most;  // arguments
  int (*run)(const Words& words);
  const char* help;
};
constexpr Command COMMANDS[] = {
    {"create", 1, 3, create,
     "create USER [ADDRESS [OWN-ADDRESS]]   begin a session and print its id"},
    {"list", 0, 0, list,
     "list                                  id, user, address and last use of all sessions"},
    {"end", 1, 1, end,
     "end SID                               end one session; \"-\" takes the id from standard "
     "input"},
    {"end-others", 1, 1, end_others,
     "end-others SID                        end the other sessions of its user; \"-\" as well"},
    {"end-user", 1, 1, end_user,
     "end-user USER                         end all sessions of a user"},
};

int usage() {
  std::fputs("usage: fenro-session COMMAND\n", stderr);
  for (const Command& command : COMMANDS) std::fprintf(stderr, "  %s\n", command.help);
  return USAGE;
}

}  // namespace

int main(int argc, char** argv) {
  const Words words{argv + (argc > 1 ? 2 : 1), argv + argc};
  for (const Command& command : COMMANDS) {
    if (argc < 2 || command.name != argv[1]) continue;
    if (words.size() < command.least || words.size() > command.most) return usage();
    if (geteuid() != 0) return complain(NOT_ROOT, "only root may do that");
    const int status = command.run(words);
    return std::fflush(stdout) == 0 ? status : complain(FAILED, "the answer cannot be written");
  }
  return usage();
}
