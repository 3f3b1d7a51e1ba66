// fenro_dial.so: pppd's plugin for client tunnels. It has ppp-client-ended note how each attempt
// ended, and ends pppd where that hook says that trying again cannot help: pppd itself goes on
// dialling with a refused login.
//
// pppd's headers are C that no C++ compiler takes; what is used of them is declared here. A
// notifier gets the phase.
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

struct notifier;

extern "C" {
extern int status;             // what pppd would exit with now
extern unsigned char persist;  // it dials again
extern char* ipparam;          // the section of the profile
extern notifier* phasechange;
void add_notifier(notifier** list, void (*function)(void* argument, int phase), void* argument);
[[gnu::visibility("default")]] char pppd_version[] = ORMEL_PPPD_VERSION;
[[gnu::visibility("default")]] void plugin_init();
}

namespace {

constexpr const char* HOOK = "/usr/lib/fenro/ppp-client-ended";
constexpr int FINAL = 10;  // exit status of the hook

enum Phase : int { DEAD = 0, SERIALCONN = 2, AUTHENTICATE = 5, TERMINATE = 9 };
enum Status : int { USER_REQUEST = 5, HANGUP = 16, AUTH_TOPEER_FAILED = 19 };

int last_phase = DEAD;
bool gave_up_login = false;

bool is_final(int ended_with) {
  const std::string number = std::to_string(ended_with);
  const pid_t child = fork();
  if (child == 0) {
    execl(HOOK, HOOK, ipparam ? ipparam : "", number.c_str(), nullptr);
    _exit(EXIT_FAILURE);
  }
  int outcome = 0;
  return child > 0 && TEMP_FAILURE_RETRY(waitpid(child, &outcome, 0)) == child &&
         WIFEXITED(outcome) && WEXITSTATUS(outcome) == FINAL;
}

// pppd closes a link by itself during the login only when that was refused. A server that hangs up
// at once overwrites the status that says so.
void on_phase(void*, int phase) {
  if (phase == SERIALCONN) gave_up_login = false;
  if (phase == TERMINATE && last_phase == AUTHENTICATE && status != USER_REQUEST)
    gave_up_login = true;
  const bool ended = phase == DEAD && last_phase != DEAD;
  last_phase = phase;
  if (!ended || status == USER_REQUEST) return;
  if (is_final(gave_up_login && status == HANGUP ? AUTH_TOPEER_FAILED : status)) persist = 0;
}

}  // namespace

void plugin_init() {
  add_notifier(&phasechange, on_phase, nullptr);
}
