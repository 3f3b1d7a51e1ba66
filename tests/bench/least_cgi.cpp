// The fixed text once more, from a program that links what ours cannot do without and runs getcfg,
// as every request must to learn where the log goes: what no program in this place can be quicker
// than.
#include <array>
#include <cstdio>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

int main() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return 1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  const char* const words[] = {
      "/sbin/getcfg", "ORMEL", "Install_Path", "-f", "/etc/config/pakrix.conf", "-d", "", nullptr};
  pid_t child = -1;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): posix_spawn changes none of them
  const int failed =
      posix_spawn(&child, words[0], &actions, nullptr, const_cast<char* const*>(words), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::array<char, 64> answer{};
  while (!failed && read(ends[0], answer.data(), answer.size()) > 0) continue;
  if (failed || waitpid(child, nullptr, 0) != child) return 1;
  std::puts("Content-type: application/json; charset=utf-8\r\n\r");
  std::puts("{\"data\":null,\"error\":0}");
  return 0;
}
