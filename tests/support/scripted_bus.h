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

  [[nodiscard]] std::string command() const;  // the words separated by blanks
};

class ScriptedBus {
 public:
  std::vector<BusCall> calls;
  std::vector<ProgramCall> programs;
  // Give the status of a call and fill the reply; give the exit status of a program and fill its
  // output.
  std::function<int(const BusCall& call, std::string& reply)> serve;
  std::function<int(const ProgramCall& call, std::string& output)> run;

  ScriptedBus();
  ScriptedBus(const ScriptedBus&) = delete;
  ScriptedBus& operator=(const ScriptedBus&) = delete;
  ~ScriptedBus();

  // Every call from now on succeeds with this reply.
  void answer(const std::string& reply);
};

}  // namespace ormel::test
