// Stand-ins for the service bus and for the programs that are run with their output captured. While
// one is alive and has the function set, it answers in place of the platform's library; every call
// is recorded.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <fenro/mibservice.h>

namespace ormel::test {

struct BusCall {
  std::string service;
  std::string method;
  std::string request;
};

struct ProgramCall {
  std::vector<std::string> argv;
  std::string input;  // what was on its standard input

  // The words separated by blanks.
  [[nodiscard]] std::string command() const {
    std::string text;
    for (const std::string& word : argv) text += (text.empty() ? "" : " ") + word;
    return text;
  }
};

class ScriptedBus {
 public:
  static inline ScriptedBus* active = nullptr;
  std::vector<BusCall> calls;
  std::vector<ProgramCall> programs;
  // Give the status of a call and fill the reply; give the exit status of a program and fill its
  // output.
  std::function<int(const BusCall& call, std::string& reply)> serve;
  std::function<int(const ProgramCall& call, std::string& output)> run;

  ScriptedBus() { active = this; }
  ScriptedBus(const ScriptedBus&) = delete;
  ScriptedBus& operator=(const ScriptedBus&) = delete;
  ~ScriptedBus() { active = nullptr; }

  // Every call from now on succeeds with this reply.
  void answer(const std::string& reply) {
    serve = [reply](const BusCall&, std::string& out) {
      out = reply;
      return MIB_SUCCESS;
    };
  }
};

}  // namespace ormel::test
