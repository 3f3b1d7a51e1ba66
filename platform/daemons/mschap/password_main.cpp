// fenro-password USER: stores the hash of a user's password, which PPTP and L2TP/IPsec logins by
// MS-CHAP need. Asks for the password on the terminal, or reads it from standard input, and stores
// it only if it is the user's.
//
// fenro-password --check USER: only looks whether it is the user's.
//
// fenro-password --pam: the same as the first for the user and the password that PAM's module
// pam_exec hands over, when a password is changed.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <termios.h>
#include <unistd.h>

#include "daemons/mschap/password_table.h"
#include "libfenro/password.h"

namespace {

constexpr std::size_t LONGEST = 1024;

// The terminal without an echo, as long as the object lives.
class HiddenInput {
 public:
  HiddenInput() : hidden_(tcgetattr(STDIN_FILENO, &shown_) == 0) {
    if (!hidden_) return;
    termios quiet = shown_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;
  ~HiddenInput() {
    if (!hidden_) return;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &shown_);
    std::fputc('\n', stderr);
  }

 private:
  termios shown_{};
  bool hidden_;
};

// Up to the line's end, or the NUL that PAM's module ends it with.
std::string read_password() {
  std::string password;
  for (char c = 0;
       password.size() < LONGEST && read(STDIN_FILENO, &c, 1) == 1 && c != '\n' && c != '\0';)
    password += c;
  return password;
}

int fail(const std::string& reason) {
  std::fprintf(stderr, "fenro-password: %s\n", reason.c_str());
  return EXIT_FAILURE;
}

int store(const std::string& user, const std::string& password) {
  return fenro::mschap::store_password(user, password)
             ? EXIT_SUCCESS
             : fail("the hash could not be stored; is /etc/config writable?");
}

int take_from_pam() {
  const char* user = std::getenv("PAM_USER");
  const char* type = std::getenv("PAM_TYPE");
  if (!user || !type || std::strcmp(type, "password") != 0) return EXIT_SUCCESS;
  const std::string password = read_password();
  return password.empty() ? EXIT_SUCCESS : store(user, password);
}

}  // namespace

int main(int argc, char** argv) {
  const bool only_check = argc == 3 && std::strcmp(argv[1], "--check") == 0;
  if (argc != 2 && !only_check) {
    std::fputs("usage: fenro-password [--check] USER, with the password on standard input\n",
               stderr);
    return 2;
  }
  if (geteuid() != 0) return fail("only root may do this");
  const std::string user = argv[argc - 1];
  if (user == "--pam" && !only_check) return take_from_pam();
  std::string password;
  {
    const bool terminal = isatty(STDIN_FILENO) != 0;
    if (terminal) std::fprintf(stderr, "Password of %s: ", user.c_str());
    const HiddenInput hidden;
    password = read_password();
  }
  if (!fenro::is_password_of(user.c_str(), password.c_str()))
    return fail("this is not the password of " + user);
  return only_check ? EXIT_SUCCESS : store(user, password);
}
