// ormelctl: the VPN service on one command line.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/host/log_file.h"
#include "ormelctl/command.h"

namespace ormelctl {
namespace {

constexpr int SCHEMA = 1;  // of the JSON documents

struct Call {
  Format format = Format::Table;
  bool help = false;
  std::vector<std::string> words;
};

// Takes the options that every command has out of the words. An empty text, or what is wrong with them.
std::string read_global(int argc, char** argv, Call& call) {
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    std::string value;
    bool output = false;
    if (word == "--json") {
      call.format = Format::Json;
    } else if (word == "--help" || word == "-h") {
      call.help = true;
    } else if (word == "-o" || word == "--output") {
      output = true;
      value = i + 1 < argc ? argv[++i] : "";
    } else if (word.starts_with("--output=")) {
      output = true;
      value = word.substr(std::strlen("--output="));
    } else {
      call.words.push_back(std::move(word));
    }
    if (!output) continue;
    if (value != "json" && value != "table" && value != "tsv") return "--output is table, json or tsv";
    call.format = value == "json" ? Format::Json : value == "tsv" ? Format::Tsv : Format::Table;
  }
  return {};
}

// A text that may hold any bytes as one that JSON can hold.
json_t* json_text(const std::string& text) {
  json_t* value = json_stringn(text.data(), text.size());
  return value ? value : json_string(printable(text).c_str());
}

void print_json(const Result& result) {
  ormel::Json document{json_pack("{s:i, s:i}", "schema", SCHEMA, "error",
                                 result.exit == Exit::Done ? 0
                                 : result.error != 0       ? result.error
                                                           : static_cast<int>(ormel::ERR_GENERAL))};
  if (result.exit != Exit::Done) {
    json_object_set_new(document.get(), "exit", json_integer(static_cast<int>(result.exit)));
    json_object_set_new(document.get(), "reason", json_text(result.reason));
    if (!result.advice.empty()) json_object_set_new(document.get(), "advice", json_text(result.advice));
  }
  if (result.data) json_object_set(document.get(), "data", result.data.get());
  const ormel::CString text{json_dumps(document.get(), JSON_COMPACT)};
  std::printf("%s\n", text ? text.get() : R"({"schema":1,"error":58,"reason":"out of memory"})");
}

void print(const Result& result, Format format) {
  if (format == Format::Json) return print_json(result);
  if (format == Format::Tsv) {
    std::fputs(tsv(result.data.get(), result.columns).c_str(), stdout);
  } else if (!result.message.empty()) {
    const bool whole = result.message.ends_with('\n');
    std::printf("%s%s", whole ? result.message.c_str() : printable(result.message).c_str(), whole ? "" : "\n");
  } else if (result.exit == Exit::Done || result.exit == Exit::Differs) {
    std::fputs(table(result.data.get(), result.columns).c_str(), stdout);
  }
  if (result.reason.empty()) return;
  std::fflush(stdout);
  std::fprintf(stderr, "ormelctl: %s\n", printable(result.reason).c_str());
  if (!result.advice.empty()) std::fprintf(stderr, "  %s\n", printable(result.advice).c_str());
}

bool confirmed(const Command& command, const Arguments& arguments) {
  std::string what = std::string(command.noun) + (*command.verb ? " " : "") + command.verb;
  for (const std::string& word : arguments.words) what += ' ' + printable(word);
  std::fprintf(stderr, "%s: %s. Go on? [y/N] ", what.c_str(), command.help);
  char answer[8] = "";
  return std::fgets(answer, sizeof answer, stdin) && (answer[0] == 'y' || answer[0] == 'Y');
}

// What must hold before a command may run.
Result permitted(const Command& command, const Arguments& arguments) {
  if (geteuid() != 0)
    return failed(Exit::NotRoot, "only root may do this", std::string("sudo ormelctl ") + command.example);
  if (!command.dangerous || arguments.has("yes")) return {};
  const bool asks = arguments.terminal && isatty(STDIN_FILENO);
  if (!asks)
    return failed(Exit::Usage, "--yes is missing: this interrupts connections or deletes settings",
                  std::string("ormelctl ") + command.example);
  return confirmed(command, arguments) ? Result{} : failed(Exit::Failed, "not done");
}

Result run(const Command& command, const Call& call) {
  Arguments arguments;
  arguments.terminal = isatty(STDERR_FILENO) != 0 && call.format == Format::Table;
  if (const std::string wrong = parse_arguments(command, call.words, arguments); !wrong.empty()) {
    return failed(Exit::Usage, wrong, std::string("example: ormelctl ") + command.example);
  }
  if (arguments.has("follow") && call.format != Format::Table)
    return failed(Exit::Usage, "--follow has no other format than a table");
  Result refusal = permitted(command, arguments);
  return refusal.exit == Exit::Done ? command.run(arguments) : std::move(refusal);
}

std::string listed(const std::string& kind) {
  std::string text;
  for (const Command& row : commands()) {
    if (kind == "--reading" && (!row.reading || *row.operands == 'P' || *row.operands == 'F')) continue;
    text += std::string(row.noun) + (*row.verb ? " " : "") + row.verb + '\n';
  }
  return text;
}

// Copies a manual page from standard input, with the commands in the place of their mark.
int print_manual() {
  for (std::string line; std::getline(std::cin, line);) std::cout << (line == "@COMMANDS@" ? manual() : line + '\n');
  return std::cout.flush() ? 0 : static_cast<int>(Exit::Failed);
}

int finish(const Result& result, Format format) {
  print(result, format);
  return std::fflush(stdout) == 0 ? static_cast<int>(result.exit) : static_cast<int>(Exit::Failed);
}

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_DFL);
  Call call;
  if (argc > 1 && std::strcmp(argv[1], "__complete") == 0) {
    std::fputs(complete({argv + 2, argv + argc}).c_str(), stdout);
    return 0;
  }
  if (argc > 1 && std::strcmp(argv[1], "__manual") == 0) return print_manual();
  if (argc > 1 && std::strcmp(argv[1], "__commands") == 0) {
    std::fputs(listed(argc > 2 ? argv[2] : "").c_str(), stdout);
    return 0;
  }
  if (const std::string wrong = read_global(argc, argv, call); !wrong.empty())
    return finish(failed(Exit::Usage, wrong), call.format);
  if (call.words.empty() && !call.help && call.format == Format::Json)
    return finish(failed(Exit::Usage, "the command is missing", "ormelctl --help lists all"), call.format);
  if (call.words.empty()) {
    std::fputs(overview().c_str(), call.help ? stdout : stderr);
    return call.help ? 0 : static_cast<int>(Exit::Usage);
  }
  std::string suggestion;
  const std::string asked = call.words[0] + (call.words.size() > 1 ? ' ' + call.words[1] : "");
  const Command* command = find_command(call.words, suggestion);
  if (!command) {
    return finish(failed(Exit::Usage, "there is no command \"" + asked + '"',
                         suggestion.empty()                          ? "ormelctl --help lists all"
                         : suggestion.find(',') != std::string::npos ? "one of: " + suggestion
                                                                     : "did you mean \"" + suggestion + "\"?"),
                  call.format);
  }
  if (call.help) {
    std::fputs(describe(*command).c_str(), stdout);
    return 0;
  }
  ormel::system::set_log_file_wrapper();
  return finish(run(*command, call), call.format);
}

}  // namespace
}  // namespace ormelctl

int main(int argc, char** argv) {
  return ormelctl::main(argc, argv);
}
