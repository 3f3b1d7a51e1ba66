#include "ormel/host/gather.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

#include "base/handle.h"
#include "ormel/base/file.h"

namespace ormel::system {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char END_MARK = '\0';  // of a whole answer

struct Asked {
  pid_t process = -1;
  fenro::Fd answer{};  // closed once it has ended
  std::string text{};
};

// Runs in a separate process group, with the programs that it starts.
[[noreturn]] void answer(const Question& question, int fd) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const bool written = write_all(fd, question() + END_MARK);
  _exit(written ? 0 : 1);
}

Asked ask(const Question& question) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  fenro::Fd reading{ends[0]};
  const fenro::Fd writing{ends[1]};
  const pid_t process = fork();
  if (process == 0) answer(question, writing.get());
  if (process < 0) return {};
  setpgid(process, process);  // in both processes, since either may run first
  return {process, std::move(reading), {}};
}

// Reads what has arrived. False at the end of the answer.
bool take(Asked& asked) {
  std::array<char, 4096> piece;
  const ssize_t length = TEMP_FAILURE_RETRY(read(asked.answer.get(), piece.data(), piece.size()));
  if (length > 0) asked.text.append(piece.data(), static_cast<size_t>(length));
  return length > 0;
}

// Waits for more output of unfinished questions. False when all have ended.
bool listen(std::vector<Asked>& all, milliseconds left) {
  std::vector<pollfd> waiting;
  for (const Asked& asked : all) {
    if (asked.answer) waiting.push_back({asked.answer.get(), POLLIN, 0});
  }
  if (waiting.empty()) return false;
  if (poll(waiting.data(), waiting.size(), static_cast<int>(left.count())) < 0)
    return errno == EINTR;
  for (Asked& asked : all) {
    const auto ready = std::ranges::any_of(waiting, [&](const pollfd& one) {
      return one.revents != 0 && asked.answer && one.fd == asked.answer.get();
    });
    if (ready && !take(asked)) asked.answer.reset();
  }
  return true;
}

std::optional<std::string> finish(Asked& asked) {
  if (asked.process < 0) return {};
  const bool whole = asked.text.ends_with(END_MARK);
  if (!whole) kill(-asked.process, SIGKILL);
  std::ignore = TEMP_FAILURE_RETRY(waitpid(asked.process, nullptr, 0));
  if (!whole) return {};
  asked.text.pop_back();
  return std::move(asked.text);
}

}  // namespace

std::vector<std::optional<std::string>> gather(const std::vector<Question>& questions,
                                               milliseconds limit) {
  const auto end = Clock::now() + limit;
  std::vector<Asked> all;
  all.reserve(questions.size());
  for (const Question& question : questions) all.push_back(ask(question));
  for (milliseconds left = limit; left.count() > 0;) {
    if (!listen(all, left)) break;
    left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
  }
  std::vector<std::optional<std::string>> answers;
  answers.reserve(all.size());
  for (Asked& asked : all) answers.push_back(finish(asked));
  return answers;
}

}  // namespace ormel::system
