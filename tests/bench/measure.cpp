// measure RUNS PROGRAM [ARGUMENT…]: runs a program that often with its output dropped, and prints
// the median of the wall time in microseconds and the largest resident set in KiB.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const int runs =
      std::max(1, std::atoi(argv[1]));  // NOLINT(cert-err34-c): a number of runs typed by hand
  std::vector<long> times;
  long peak = 0;
  for (int run = 0; run < runs; ++run) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
      dup2(open("/dev/null", O_RDWR), STDOUT_FILENO);
      execv(argv[2], argv + 2);
      _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) == 127)
      return 1;
    times.push_back(static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::steady_clock::now() - start)
                                          .count()));
    peak = std::max(peak, usage.ru_maxrss);
  }
  std::nth_element(times.begin(), times.begin() + runs / 2, times.end());
  std::printf("%ld %ld\n", times[static_cast<size_t>(runs) / 2], peak);
  return 0;
}
