// fenro_pap.so: pppd's plugin for servers that take PAP logins. It has fenro-mschap check them, so
// that wrong passwords count and blocked users stay out; logins that the secrets file has a
// password for are left to pppd.
//
// pppd's headers are C that no C++ compiler takes. What is used of them is declared here:
// "pap_auth_hook" returns 1 to admit, 0 to refuse and -1 to leave the decision to pppd, and the
// addresses that it admits are a list that pppd frees.
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

struct wordlist {
  wordlist* next;
  char* word;
};

extern "C" {
extern int (*pap_auth_hook)(char* user, char* password, char** message, wordlist** addresses,
                            wordlist** options);
extern char our_name[];  // the server's name in the secrets files, by the option "name"
[[gnu::visibility("default")]] char pppd_version[] = ORMEL_PPPD_VERSION;
[[gnu::visibility("default")]] void plugin_init();
}

namespace {

constexpr const char* HELPER = "/usr/lib/fenro/fenro-mschap";
constexpr int ADMITTED = 0;
constexpr int NOT_OURS = 3;
constexpr int LEAVE = -1;

// Any address; one block, as pppd allocates its lists. It has no C++ to give it back to.
wordlist* any_address() {
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory): pppd frees it
  void* const block = std::malloc(sizeof(wordlist) + 2);
  if (!block) return nullptr;
  auto* const list = static_cast<wordlist*>(block);
  list->next = nullptr;
  list->word = reinterpret_cast<char*>(list + 1);
  std::memcpy(list->word, "*", 2);
  return list;
}

// The exit status of the helper; -1 when it could not be asked.
int ask_helper(const std::string& request) {
  int ends[2];
  if (pipe(ends) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    static char name[] = "fenro-mschap";
    static char mode[] = "pap";
    char* arguments[] = {name, our_name, mode, nullptr};
    char* environment[] = {nullptr};
    close(ends[1]);
    if (dup2(ends[0], STDIN_FILENO) == STDIN_FILENO) execve(HELPER, arguments, environment);
    _exit(1);
  }
  close(ends[0]);
  const bool sent = child > 0 && write(ends[1], request.data(), request.size()) ==
                                     static_cast<ssize_t>(request.size());
  close(ends[1]);
  int status = -1;
  const bool ended = child > 0 && TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child;
  return sent && ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int check(char* user, char* password, char** message, wordlist** addresses, wordlist**) {
  static char refused[] = "Login incorrect";
  static char welcome[] = "";
  const int status = ask_helper(std::string(user) + '\n' + password + '\n');
  if (status == NOT_OURS) return LEAVE;
  *message = status == ADMITTED ? welcome : refused;
  if (status != ADMITTED) return 0;
  *addresses = any_address();
  return 1;
}

}  // namespace

void plugin_init() {
  pap_auth_hook = check;
}
