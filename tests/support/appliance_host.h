// What the system tests do to the private appliance they run in: programs run and caught, files
// read and written, platform parts replaced by ones that record, and a bus service with scripted
// answers.
#pragma once

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <fenro/mibservice.h>

#include "base/handle.h"
#include "libmibservice/mibserver.h"
#include "support/files.h"
#include "support/wait.h"

namespace ormel::test {

namespace fs = std::filesystem;
using support::comes_true, support::mode_of, support::read;
using testing::ContainsRegex, testing::Each, testing::ElementsAre, testing::EndsWith;
using testing::HasSubstr, testing::IsEmpty, testing::MatchesRegex, testing::Not;
using testing::StartsWith, testing::UnorderedElementsAre;

inline constexpr const char* VPN_CONF = "/etc/config/vpn.conf";
inline constexpr const char* LOG = "/var/log/network/ORMEL.log";
inline constexpr const char* CALLS =
    "/var/log/network/calls";  // what the recording stand-ins write

// Private unless the test wants another mode.
inline void write(const fs::path& path, const std::string& text, mode_t mode = 0600) {
  support::write(path, text, mode);
}

inline bool has(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

struct Result {
  int status;  // exit status; negative the signal that ended it
  std::string out;
  std::string err;
};

// Runs `work` in a child process, in the root folder, and captures its standard streams.
inline Result in_child(const std::function<int()>& work, const std::string& input = {}) {
  write("/tmp/run.in", input);
  const pid_t child = fork();
  if (child == 0) {
    const int in = open("/tmp/run.in", O_RDONLY);
    const int out = open("/tmp/run.out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open("/tmp/run.err", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const bool ready =
        chdir("/") == 0 && dup2(in, 0) == 0 && dup2(out, 1) == 1 && dup2(err, 2) == 2;
    _exit(ready ? work() : 127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), read("/tmp/run.out"),
          read("/tmp/run.err")};
}

// Runs a program with an empty environment but for `environment`.
inline Result run(const std::vector<std::string>& words,
                  const std::vector<std::string>& environment = {}, const std::string& input = {}) {
  const auto pointers = [](const std::vector<std::string>& texts) {
    std::vector<char*> list;
    list.reserve(texts.size() + 1);
    for (const std::string& text : texts) list.push_back(const_cast<char*>(text.c_str()));
    list.push_back(nullptr);
    return list;
  };
  const auto program = [&] {
    execve(words[0].c_str(), pointers(words).data(), pointers(environment).data());
    return 127;
  };
  return in_child(program, input);
}

// A program under strace, which gets `options`. The leak check of an instrumented program cannot
// work there.
inline Result traced(std::vector<std::string> options, const std::vector<std::string>& words) {
  options.insert(options.begin(), {"/usr/bin/strace", "-qq"});
  options.insert(options.end(), words.begin(), words.end());
  return run(options, {"ASAN_OPTIONS=detect_leaks=0"});
}

inline Result cli(std::vector<std::string> options) {
  options.insert(options.begin(), "/usr/sbin/ormel");
  return run(options);
}

inline const std::vector<std::string> PLACES{"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};

inline Result ctl(std::vector<std::string> words, const std::string& input = {}) {
  words.insert(words.begin(), "/usr/sbin/ormelctl");
  return run(words, PLACES, input);
}

// An account's password here.
inline std::string password_of(const std::string& user) {
  const std::string text = read("/var/lib/appliance/password." + user);
  return text.substr(0, text.find('\n'));
}

// The name of a new session.
inline std::string begin_session(const std::string& user) {
  return run({"/usr/lib/fenro/fenro-session", "create", user}).out.substr(0, 8);
}

inline std::string conf_value(const std::string& section, const std::string& key) {
  std::string value = run({"/sbin/getcfg", section, key, "-f", VPN_CONF}).out;
  if (!value.empty()) value.pop_back();
  return value;
}

inline Result shell(const std::string& script) {
  return run({"/bin/sh", "-c", script}, PLACES);
}

// Starts a daemon again, which lives on for the next test, and ends with the appliance.
inline void start_daemon(const std::string& program) {
  shell("setsid " + program + " >/dev/null 2>&1 &");
}

// One bus call of the test itself; empty when it fails.
inline std::string bus(const char* service, const char* method, const std::string& request = {}) {
  mib_io* io = mib_io_create();
  mib_io_write(io, request.data(), request.size());
  std::string reply;
  size_t length = 0;
  if (mib_call(service, method, io, 5, -1) == MIB_SUCCESS) {
    const char* bytes = mib_io_read(io, &length);
    reply.assign(bytes, length);
  }
  mib_io_free(io);
  return reply;
}

// Puts a program in the place of an init script or tool that writes its own name and arguments,
// separated by "|", as one line of CALLS and ends with `status`.
inline void record_calls(const fs::path& program, int status = 0) {
  write(program,
        "#!/bin/sh\numask 077\nline=" + program.filename().string() +
            "\nfor word do line=\"$line|$word\"; done\nprintf '%s\\n' \"$line\" >>" + CALLS +
            "\nexit " + std::to_string(status) + "\n",
        0755);
}

// The recorded calls of a program, waited for some seconds until there are `count`.
inline std::vector<std::string> recorded(const std::string& program, size_t count = 0) {
  std::vector<std::string> lines;
  comes_true([&] {
    lines.clear();
    std::ifstream in(CALLS);
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with(program + '|')) lines.push_back(line.substr(program.size() + 1));
    }
    return lines.size() >= count;
  });
  return lines;
}

// Whether `count` calls of a program have been recorded, or are within some seconds.
inline bool recorded_soon(const std::string& program, size_t count) {
  return comes_true([&] { return recorded(program).size() >= count; });
}

// A program of the test's own, ended with it.
class Child {
 public:
  explicit Child(const std::function<int()>& run) : pid_{fork()} {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(run());
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_;
};

// A bus service with scripted answers, in its own process, in place of the daemon of that
// name.
class ScriptedService {
 public:
  using Answer = std::function<fenro::bus::Reply(std::string_view request)>;

  ScriptedService(const char* service, const char* daemon, const std::vector<std::string>& methods,
                  Answer answer) {
    run({"/usr/bin/pkill", "-KILL", "-f", daemon});
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const fenro::Fd ready{ends[0]};
    fenro::Fd listening{ends[1]};
    child_ = std::make_unique<Child>([&] {
      fenro::bus::Server server{service};
      for (const std::string& method : methods) {
        server.on(method, [&, method](std::string_view body) {
          std::ofstream(CALLS, std::ios::app) << method << '|' << body << '\n';
          return answer(body);
        });
      }
      while (!server.listen()) usleep(10000);  // the killed one may still hold the name
      listening.reset();
      return server.run();
    });
    listening.reset();
    char none = 0;
    std::ignore = ::read(ready.get(), &none, 1);  // ends when the child listens, or is gone
  }
  ScriptedService(const char* service, const char* daemon, const std::vector<std::string>& methods,
                  const std::string& reply, int status = MIB_SUCCESS)
      : ScriptedService(service, daemon, methods, [&](std::string_view) {
          return fenro::bus::Reply{status, reply};
        }) {}

 private:
  std::unique_ptr<Child> child_;
};

// A test that starts from an appliance without profiles, with all scripts and notifications
// recorded.
class ProfileHost : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* file : {VPN_CONF, LOG, CALLS, "/etc/config/vpn_options.conf"})
      fs::remove(file);
    for (const auto& script : fs::directory_iterator("/etc/init.d")) {
      if (script.path().filename().string().starts_with("vpn_")) record_calls(script.path());
    }
    record_calls("/usr/local/sbin/notify");
  }
};

}  // namespace ormel::test
