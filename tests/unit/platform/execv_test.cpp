#include <chrono>
#include <csignal>
#include <fcntl.h>

#include <fenro/mibservice.h>
#include <gtest/gtest.h>

#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

Outcome shell(const std::string& script) {
  return run({"/bin/sh", "-c", script});
}

auto open_descriptors() {
  return std::distance(std::filesystem::directory_iterator{"/proc/self/fd"}, {});
}

TEST(MibIoExecv, GivesTheExitStatusAndBothStreams) {
  const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
      {{"/bin/sh", "-c", "printf out; printf err >&2"}, 0, "out", "err"},
      {{"/bin/sh", "-c", "exit 7"}, 7, "", ""},
      {{"/bin/sh", "-c", "kill -9 $$"}, 128 + SIGKILL, "", ""},
      {{"/bin/sh", "-c", "kill -PIPE $$"}, 128 + SIGPIPE, "", ""},
      {{"/bin/echo", "-n", "$HOME; `id` 'x' %s"}, 0, "$HOME; `id` 'x' %s", ""},  // no shell
      {{"/nonexistent/program"}, -1, "", ""},
      {{"/etc/passwd"}, -1, "", ""},
      {{"sh"}, -1, "", ""},  // no search either
      {{"/bin/cat"}, 0, "", ""},
  };
  for (const auto& [words, status, out, err] : cases) {
    const Outcome got = run(words);
    EXPECT_EQ(std::tie(got.status, got.out, got.err), std::tie(status, out, err)) << words.back();
  }
  EXPECT_EQ(mib_io_execv(nullptr, nullptr, nullptr, nullptr), -1);
}

TEST(MibIoExecv, TakesAMegabyteOfEachStreamInAnyOrder) {
  const std::string blocks =
      "i=0; while [ $i -lt 16 ]; do head -c 65536 /dev/zero; head -c 65536 /dev/zero >&2; "
      "i=$((i+1)); done";
  const std::string one_by_one = "head -c 1048576 /dev/zero >&2; head -c 1048576 /dev/zero";
  for (const std::string& script : {blocks, one_by_one}) {
    const Outcome got = shell(script);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, std::string(1 << 20, '\0'));
    EXPECT_EQ(got.err, std::string(1 << 20, '\0'));
  }
}

TEST(MibIoExecv, DoesNotWaitForADaemonLeftBehind) {
  const auto start = Clock::now();
  const Outcome quiet = shell("sleep 30 & echo $!");
  const Outcome noisy = shell("(trap '' PIPE; while :; do echo noise; done) & echo $!; sleep 0.1");
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(noisy.status, 0);
  for (const Outcome* got : {&quiet, &noisy}) {
    const int pid = std::stoi(got->out.substr(got->out.find_first_of("0123456789")));
    ASSERT_GT(pid, 1);
    EXPECT_EQ(kill(pid, SIGKILL), 0);
  }
}

TEST(MibIoExecv, FeedsTheContextToStandardInput) {
  const std::string input(3 << 20, 'i');
  const MibIo in{mib_io_create()};
  const MibIo out{mib_io_create()};
  mib_io_write(in.get(), input.data(), input.size());
  char cat[] = "/bin/cat";
  char yes[] = "/bin/true";
  char* copying[] = {cat, nullptr};
  char* ignoring[] = {yes, nullptr};
  EXPECT_EQ(mib_io_execv(in.get(), out.get(), nullptr, copying), 0);
  EXPECT_TRUE(text_of(out.get()) == input);
  // No SIGPIPE for what is not read.
  EXPECT_EQ(mib_io_execv(in.get(), out.get(), nullptr, ignoring), 0);
  EXPECT_TRUE(text_of(in.get()) == input);
}

TEST(MibIoExecv, LeaksNoDescriptorEitherWay) {
  const Fd inherited{open("/dev/null", O_RDONLY)};  // as a careless caller leaves it
  const auto before = open_descriptors();
  const Outcome got = shell("ls /proc/self/fd | wc -l");
  run({"/nonexistent/program"});
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_LE(std::stoi(got.out), 4);  // the three streams and the folder that ls reads
}

TEST(MibIoExecv, WorksWithStandardDescriptorsClosedAndChildrenIgnored) {
  const pid_t child = fork();
  if (child == 0) {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(fd);
    signal(SIGCHLD, SIG_IGN);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    signal(SIGPIPE, SIG_IGN);
    if (shell("kill -PIPE $$").status != 128 + SIGPIPE) _exit(2);
    const Outcome got = shell("cat; printf out; printf err >&2; kill -TERM $$; exit 3");
    if (got.status != 128 + SIGTERM || got.out != "out" || got.err != "err") _exit(1);
    _exit(signal(SIGCHLD, SIG_IGN) == SIG_IGN ? 0 : 3);
  }
  EXPECT_EQ(end_of(child), 0);
}

}  // namespace
}  // namespace fenro::test
