// ormelctl: the VPN service on one command line.
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/changes/pending.h"
#include "ormel/host/log_file.h"
#include "ormelctl/advice.h"
#include "ormelctl/command.h"
#include "ormelctl/doctor.h"
#include "ormelctl/recording.h"
#include "ormelctl/service.h"
#include "ormelctl/site.h"

namespace ormelctl {
namespace {

using ormel::changes::LONGEST_SECONDS, ormel::changes::SHORTEST_SECONDS;

constexpr int SCHEMA = 1;  // of the JSON documents

struct Call {
  Format format = Format::Table;
  bool help = false;
  bool color = true;  // where the output is a terminal
  long timeout = 0;   // seconds, 0 without a limit
  Care care{};
  std::vector<std::string> words;
};

constexpr const char* ALL_COMMANDS = "ormelctl --help lists all commands and options";

// The value of "--name=VALUE" or of "--name VALUE", whose words are passed; nothing for another
// option.
std::optional<std::string> value_of(std::string_view name, int argc, char** argv, int& at) {
  const std::string_view word = argv[at];
  if (word == name) return at + 1 < argc ? argv[++at] : "";
  if (word.starts_with(name) && word.substr(name.size()).starts_with('='))
    return std::string(word.substr(name.size() + 1));
  return {};
}

std::string read_format(const std::string& value, Call& call) {
  if (value != "json" && value != "table" && value != "tsv")
    return "--output is table, json or tsv";
  call.format = value == "json" ? Format::Json : value == "tsv" ? Format::Tsv : Format::Table;
  return {};
}

std::string read_timeout(const std::string& value, Call& call) {
  constexpr long MOST = 86400;
  Arguments given;
  given.options["timeout"] = value;
  call.timeout = given.seconds("timeout", 0);
  return call.timeout < 1 || call.timeout > MOST ? "--timeout takes a time such as 10, 90s or 5m"
                                                 : "";
}

std::string read_confirm(const std::string& value, Call& call) {
  Arguments given;
  given.options["confirm"] = value;
  call.care.confirm = given.seconds("confirm", 0);
  return call.care.confirm < SHORTEST_SECONDS || call.care.confirm > LONGEST_SECONDS
             ? "--confirm takes a time of 30s to 10m"
             : "";
}

// Takes the options that every command has out of the words. An empty text, or what is wrong with
// them.
std::string read_global(int argc, char** argv, Call& call) {
  std::string wrong;
  for (int i = 1; i < argc && wrong.empty(); ++i) {
    const std::string_view word = argv[i];
    if (word == "--json") {
      call.format = Format::Json;
    } else if (word == "--no-color") {
      call.color = false;
    } else if (word == "--dry-run") {
      call.care.dry_run = true;
    } else if (word == "--help" || word == "-h") {
      call.help = true;
    } else if (auto format = value_of(word == "-o" ? "-o" : "--output", argc, argv, i)) {
      wrong = read_format(*format, call);
    } else if (auto time = value_of("--timeout", argc, argv, i)) {
      wrong = read_timeout(*time, call);
    } else if (auto limit = value_of("--confirm", argc, argv, i)) {
      wrong = read_confirm(*limit, call);
    } else {
      call.words.emplace_back(word);
    }
  }
  return wrong;
}

// A text that may hold any bytes as one that JSON can hold.
json_t* json_text(const std::string& text) {
  json_t* value = json_stringn(text.data(), text.size());
  return value ? value : json_string(printable(text).c_str());
}

int code_of(const Result& result) {
  if (result.exit == Exit::Done) return 0;
  return result.error != 0 ? result.error : static_cast<int>(ormel::ERR_GENERAL);
}

std::string json_of(const Result& result) {
  ormel::Json document{json_pack("{s:i, s:i}", "schema", SCHEMA, "error", code_of(result))};
  if (result.exit != Exit::Done) {
    json_object_set_new(document.get(), "exit", json_integer(static_cast<int>(result.exit)));
    json_object_set_new(document.get(), "reason", json_text(result.reason));
    if (!result.advice.empty())
      json_object_set_new(document.get(), "advice", json_text(result.advice));
  }
  if (result.data) json_object_set(document.get(), "data", result.data.get());
  if (!result.note.empty()) json_object_set_new(document.get(), "note", json_text(result.note));
  if (result.confirm) json_object_set(document.get(), "confirm", result.confirm.get());
  const ormel::CString text{json_dumps(document.get(), JSON_COMPACT)};
  return std::string(text ? text.get() : R"({"schema":1,"error":58,"reason":"out of memory"})") +
         '\n';
}

// What went wrong and what to do, for people.
std::string complaint(const Result& result) {
  std::string text = "ormelctl: " + printable(result.reason) + '\n';
  if (!result.advice.empty()) text += "  " + printable(result.advice) + '\n';
  return text;
}

// What is left to say when the time is over. It is made before, since a handler of signals may call
// next to nothing.
struct LastWords {
  int stream = STDERR_FILENO;
  std::array<char, 1024> text{};
  size_t length = 0;
};
LastWords last_words;

void end_in_time(int) {
  if (write(last_words.stream, last_words.text.data(), last_words.length) < 0)
    _exit(static_cast<int>(Exit::Failed));
  _exit(static_cast<int>(Exit::TimedOut));
}

// Nothing has been printed by then: `print` stops the clock.
void limit_time(const Call& call) {
  if (call.timeout == 0) return;
  const Result result =
      failed(Exit::TimedOut, "not done after " + std::to_string(call.timeout) + " s",
             "ormelctl status shows what is still on its way; or give it more time");
  const std::string text = call.format == Format::Json ? json_of(result) : complaint(result);
  last_words.stream = call.format == Format::Json ? STDOUT_FILENO : STDERR_FILENO;
  last_words.length = std::min(text.size(), last_words.text.size());
  std::copy_n(text.begin(), last_words.length, last_words.text.begin());
  std::signal(SIGALRM, end_in_time);
  alarm(static_cast<unsigned>(call.timeout));
}

// Where a terminal shows them, unless the user or the environment says no.
bool wants_colors(const Call& call) {
  const char* terminal = std::getenv("TERM");
  const char* refusal = std::getenv("NO_COLOR");
  return call.color && call.format == Format::Table && isatty(STDOUT_FILENO) != 0 &&
         !(refusal && *refusal) && terminal && std::string_view(terminal) != "dumb";
}

void print(const Result& result, Format format) {
  alarm(0);
  if (format == Format::Json) {
    std::fputs(json_of(result).c_str(), stdout);
    return;
  }
  if (format == Format::Tsv) {
    std::fputs(tsv(result.data.get(), result.columns).c_str(), stdout);
  } else if (!result.message.empty()) {
    const bool whole = result.message.ends_with('\n');
    std::printf("%s%s", whole ? result.message.c_str() : printable(result.message).c_str(),
                whole ? "" : "\n");
  } else if (result.exit == Exit::Done || result.exit == Exit::Differs) {
    std::fputs(table(result.data.get(), result.columns).c_str(), stdout);
  }
  std::fflush(stdout);
  if (!result.note.empty()) std::fprintf(stderr, "%s\n", printable(result.note).c_str());
  if (result.reason.empty()) return;
  std::fputs(complaint(result).c_str(), stderr);
}

bool confirmed(const Command& command, const Arguments& arguments) {
  std::string what = std::string(command.noun) + (*command.verb ? " " : "") + command.verb;
  for (const std::string& word : arguments.words) what += ' ' + printable(word);
  std::fprintf(stderr, "%s: %s. Go on? [y/N] ", what.c_str(), command.help);
  char answer[8] = "";
  return std::fgets(answer, sizeof answer, stdin) && (answer[0] == 'y' || answer[0] == 'Y');
}

// Commands that repair damaged settings, or go by neither servers nor profiles: people can be kept
// out even then. Any other one would save the settings without all that cannot be read.
struct CommandName {
  std::string_view noun, verb;  // no verb for all
};
constexpr CommandName INDEPENDENT[] = {
    {"undo", ""},    {"confirm", ""},   {"revert", ""}, {"restore", ""},
    {"address", ""}, {"guard", ""},     {"hold", ""},   {"kick", ""},
    {"notify", ""},  {"peer", "limit"}, {"token", ""},  {"user", ""},
};

// Commands that show servers and profiles: of damaged settings they would say that nothing is on.
constexpr CommandName SHOWS_SETTINGS[] = {
    {"status", ""}, {"why", ""},      {"profile", "list"},   {"profile", "show"},
    {"server", ""}, {"peer", "list"}, {"profile", "export"}, {"gateway", "show"},
    {"keeper", ""}, {"export", ""},   {"diff", ""},
};

bool is_among(std::span<const CommandName> names, const Command& command) {
  return std::ranges::any_of(names, [&](const CommandName& row) {
    return row.noun == command.noun && (row.verb.empty() || row.verb == command.verb);
  });
}

Result refused_for_settings(const Command& command, const Arguments& arguments) {
  const bool changes = is_change(command, arguments);
  if (changes ? is_among(INDEPENDENT, command) : !is_among(SHOWS_SETTINGS, command)) return {};
  const Findings damaged = damaged_files();
  if (!settings_are_damaged(damaged)) return {};
  return failed(Exit::Failed, damaged[0].text + (changes ? "; nothing was changed" : ""),
                damaged[0].cure);
}

// What must hold before a command may run.
Result permitted(const Command& command, const Arguments& arguments, bool trial) {
  if (geteuid() != 0)
    return failed(Exit::NotRoot, "only root may do this",
                  std::string("sudo ormelctl ") + command.example);
  Result refusal = refused_for_settings(command, arguments);
  if (refusal.exit != Exit::Done) return refusal;
  if (!command.dangerous || arguments.has("yes") || trial) return {};
  const bool asks = arguments.terminal && isatty(STDIN_FILENO);
  if (!asks)
    return failed(Exit::Usage, "--yes is missing: this interrupts connections or deletes settings",
                  std::string("ormelctl ") + command.example);
  return confirmed(command, arguments)
             ? Result{}
             : failed(Exit::Failed, "not done", "answer with y, or use --yes");
}

// One row of the audit trail for the whole command.
Result run_audited(const Command& command, const Arguments& arguments, const Care& care) {
  ormel::audit::Recorder recorder = recorder_of(command, arguments);
  Result result = run_with_care(command, arguments, care);
  if (result.exit == Exit::Usage && result.error == 0)
    recorder.drop();  // the words were wrong, and nothing was tried
  else
    std::ignore = recorder.finish(code_of(result));
  return result;
}

// A command with that option says more of what it would do than a trial of any command can.
bool tries_itself(const Command& command) {
  return (' ' + std::string(command.options) + ' ').find(" dry-run ") != std::string::npos;
}

Result run_change(const Command& command, const Care& care, Arguments& arguments) {
  if (!care.dry_run) return run_audited(command, arguments, care);
  if (!tries_itself(command)) return run_with_care(command, arguments, care);
  arguments.options["dry-run"];
  return command.run(arguments);
}

Result run(const Command& command, const Call& call, Arguments& arguments) {
  arguments.terminal = isatty(STDERR_FILENO) != 0 && call.format == Format::Table;
  if (std::string wrong = parse_arguments(command, call.words, arguments); !wrong.empty())
    return failed(Exit::Usage, std::move(wrong));
  if (arguments.has("follow") && call.format != Format::Table)
    return failed(Exit::Usage, "--follow has no other format than a table");
  if (command.reading && (call.care.confirm != 0 || call.care.dry_run))
    return failed(Exit::Usage, "--confirm and --dry-run are for commands that change something");
  Result refusal = permitted(command, arguments, call.care.dry_run);
  if (refusal.exit != Exit::Done) return refusal;
  return command.reading ? command.run(arguments) : run_change(command, call.care, arguments);
}

// No failure leaves the caller without a hint at what to do.
Result run_advised(const Command& command, const Call& call) {
  Arguments arguments;
  Result result = run(command, call, arguments);
  if (result.exit != Exit::Done && result.advice.empty())
    result.advice = advice_for(result, command, arguments);
  return result;
}

std::string listed(const std::string& kind) {
  std::string text;
  for (const Command& row : commands()) {
    if (kind == "--reading" && (!row.reading || *row.operands == 'P' || *row.operands == 'F'))
      continue;
    text += std::string(row.noun) + (*row.verb ? " " : "") + row.verb + '\n';
  }
  return text;
}

// Copies a manual page from standard input, with the commands in the place of their mark.
int print_manual() {
  for (std::string line; std::getline(std::cin, line);)
    std::cout << (line == "@COMMANDS@" ? manual() : line + '\n');
  return std::cout.flush() ? 0 : static_cast<int>(Exit::Failed);
}

int print_schema() {
  const ormel::CString text{json_dumps(site::schema().get(), JSON_INDENT(2))};
  const bool printed = text && std::puts(text.get()) >= 0 && std::fflush(stdout) == 0;
  return printed ? 0 : static_cast<int>(Exit::Failed);
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
  if (argc > 1 && std::strcmp(argv[1], "__go-back") == 0)
    return go_back_in_time({argv + 2, argv + argc});
  if (argc > 1 && std::strcmp(argv[1], "__end-grants") == 0) return end_grants();
  if (argc > 1 && std::strcmp(argv[1], "__tend-certificates") == 0) {
    ormel::system::set_log_file_wrapper();
    return tend_certificates();
  }
  if (argc > 1 && std::strcmp(argv[1], "__schema") == 0) return print_schema();
  if (argc > 1 && std::strcmp(argv[1], "__commands") == 0) {
    std::fputs(listed(argc > 2 ? argv[2] : "").c_str(), stdout);
    return 0;
  }
  if (const std::string wrong = read_global(argc, argv, call); !wrong.empty())
    return finish(failed(Exit::Usage, wrong, ALL_COMMANDS), call.format);
  if (call.words.empty() && !call.help && call.format == Format::Json)
    return finish(failed(Exit::Usage, "the command is missing", ALL_COMMANDS), call.format);
  if (call.words.empty()) {
    std::fputs(overview().c_str(), call.help ? stdout : stderr);
    return call.help ? 0 : static_cast<int>(Exit::Usage);
  }
  std::string suggestion;
  const std::string asked = call.words[0] + (call.words.size() > 1 ? ' ' + call.words[1] : "");
  const Command* command = find_command(call.words, suggestion);
  if (!command) {
    return finish(failed(Exit::Usage, "there is no command \"" + asked + '"',
                         suggestion.empty() ? ALL_COMMANDS
                         : suggestion.find(',') != std::string::npos
                             ? "one of: " + suggestion
                             : "did you mean \"" + suggestion + "\"?"),
                  call.format);
  }
  if (call.help) {
    std::fputs(describe(*command).c_str(), stdout);
    return 0;
  }
  ormel::system::set_log_file_wrapper();
  say_long_waits();
  set_colors(wants_colors(call));
  limit_time(call);
  return finish(run_advised(*command, call), call.format);
}

}  // namespace
}  // namespace ormelctl

int main(int argc, char** argv) {
  return ormelctl::main(argc, argv);
}
