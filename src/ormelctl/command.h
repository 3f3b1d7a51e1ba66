// The commands of ormelctl: one table that the parser, the help, the completion and the manual page
// read.
#pragma once

#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ormelctl/output.h"

namespace ormelctl {

// Exit statuses of the program.
enum class Exit {
  Done = 0,
  Failed = 1,
  Usage = 2,
  NotFound = 3,
  NotRoot = 4,
  TimedOut = 5,
  Differs = 6,  // the state is not the one that --check, or a document, asks for
};

// The words of one call after noun and verb.
class Arguments {
 public:
  std::vector<std::string> words;              // operands, in order
  std::map<std::string, std::string> options;  // by name without dashes; a flag has an empty value
  bool terminal = false;  // standard error is a terminal: progress and questions may be shown

  [[nodiscard]] bool has(const std::string& name) const { return options.count(name) != 0; }
  [[nodiscard]] std::string value(const std::string& name, const std::string& fallback = {}) const;
  // Whole seconds of an option such as "90", "30m", "1h" or "2d"; `fallback` without the option, -1
  // if malformed.
  [[nodiscard]] long seconds(const std::string& name, long fallback) const;
};

// The outcome of one command.
struct Result {
  Exit exit = Exit::Done;
  int error = 0;          // code of the program, 0 without one
  std::string reason{};   // what went wrong, one sentence
  std::string advice{};   // what to do about it; may be empty
  ormel::Json data{};     // an array of objects or one object; null without data
  Columns columns{};      // how `data` is shown as a table
  std::string message{};  // what was done, for people; not in JSON
  std::string note{};     // what else there is to know, for people and in JSON
  ormel::Json confirm{};  // how a change that goes back by itself is confirmed; null without one
};

[[nodiscard]] Result failed(Exit exit, std::string reason, std::string advice = {});
// A failure with a code of the program, whose text is the reason unless `detail` says more.
[[nodiscard]] Result failed(int error, const std::string& detail = {});
// The failure of a command that a ChangeLock has held back for too long.
[[nodiscard]] Result locked_out();
// The same as the second where the program's reason may be no more than a value or the name of its
// own variable: the option is named then. `variable` gives the variable of an option, or null.
[[nodiscard]] Result refused(int error, const std::string& reason, const Arguments& arguments,
                             const std::function<const char*(std::string_view)>& variable);
[[nodiscard]] Result done(std::string message, ormel::Json data = nullptr, Columns columns = {});

struct Command {
  const char* noun;
  const char* verb;      // empty for a noun that is a whole command
  const char* operands;  // "NAME", "[NAME]", "USER PROTOCOL..."; empty without any
  const char* options;   // names divided by blanks; "name=" takes a value
  bool reading;          // changes nothing
  bool dangerous;        // asks on a terminal and needs --yes elsewhere
  const char* help;      // one line
  const char* example;   // the words after "ormelctl"
  Result (*run)(const Arguments& arguments);
};

[[nodiscard]] std::span<const Command> commands();

// Options that all commands that change something have.
struct Care {
  bool dry_run = false;
  long confirm = 0;  // seconds after which the change goes back unless it is confirmed, 0 for never
};
// Runs a command that changes something, so that it can be taken back.
[[nodiscard]] Result run_with_care(const Command& command, const Arguments& arguments,
                                   const Care& care);
// The process that waits for a confirmation; `words` are a snapshot's number, "boot" or "overdue".
// For the keeper: revokes the rights whose time is over. Its exit status is 0 when none is left.
[[nodiscard]] int end_grants();
[[nodiscard]] int go_back_in_time(std::span<char*> words);
// Reports certificates that end, and does what is due at the OpenVPN server; the keeper runs it
// from time to time. An exit status.
[[nodiscard]] int tend_certificates();

// The command of the first words, which are removed from `words`; null if there is none, with the
// closest name, or those of the same noun, in `suggestion`.
[[nodiscard]] const Command* find_command(std::vector<std::string>& words, std::string& suggestion);

// Splits the words after noun and verb. An empty text, or what is wrong with them.
[[nodiscard]] std::string parse_arguments(const Command& command,
                                          const std::vector<std::string>& words, Arguments& out);

// How often a letter has to be added, removed or replaced, or two neighbours swapped, to make one
// text the other.
[[nodiscard]] size_t edit_distance(std::string_view a, std::string_view b);

[[nodiscard]] std::string overview();
[[nodiscard]] std::string describe(const Command& command);
// The commands as a section of the manual page, in the form that scdoc reads.
[[nodiscard]] std::string manual();
// Candidates for the last of `words`, a line each.
[[nodiscard]] std::string complete(const std::vector<std::string>& words);

// The commands by file.
Result status(const Arguments& arguments);
Result why(const Arguments& arguments);
Result doctor(const Arguments& arguments);

Result undo(const Arguments& arguments);
Result undo_list(const Arguments& arguments);
Result confirm(const Arguments& arguments);
Result revert(const Arguments& arguments);
Result pending(const Arguments& arguments);

Result profile_list(const Arguments& arguments);
Result profile_show(const Arguments& arguments);
Result profile_add(const Arguments& arguments);
Result profile_set(const Arguments& arguments);
Result profile_remove(const Arguments& arguments);
Result profile_up(const Arguments& arguments);
Result profile_down(const Arguments& arguments);
Result profile_import(const Arguments& arguments);
Result profile_export(const Arguments& arguments);

Result server_list(const Arguments& arguments);
Result server_show(const Arguments& arguments);
Result server_on(const Arguments& arguments);
Result server_off(const Arguments& arguments);
Result server_set(const Arguments& arguments);

Result peer_list(const Arguments& arguments);
Result peer_add(const Arguments& arguments);
Result peer_qr(const Arguments& arguments);
Result peer_limit(const Arguments& arguments);
Result peer_remove(const Arguments& arguments);

Result address_set(const Arguments& arguments);
Result address_remove(const Arguments& arguments);
Result address_show(const Arguments& arguments);

Result user_list(const Arguments& arguments);
Result user_grant(const Arguments& arguments);
Result user_revoke(const Arguments& arguments);
Result user_unlock(const Arguments& arguments);
Result user_policy(const Arguments& arguments);
Result user_totp(const Arguments& arguments);

Result who(const Arguments& arguments);
Result kick(const Arguments& arguments);
Result hold_list(const Arguments& arguments);
Result hold_lift(const Arguments& arguments);

Result gateway_show(const Arguments& arguments);
Result gateway_set(const Arguments& arguments);
Result gateway_off(const Arguments& arguments);

Result guard_show(const Arguments& arguments);
Result guard_on(const Arguments& arguments);
Result guard_strict(const Arguments& arguments);
Result guard_off(const Arguments& arguments);
Result guard_pause(const Arguments& arguments);
Result guard_test(const Arguments& arguments);

Result log_events(const Arguments& arguments);
Result log_clients(const Arguments& arguments);
Result log_servers(const Arguments& arguments);
Result log_program(const Arguments& arguments);

Result keeper_show(const Arguments& arguments);
Result notify_kinds(const Arguments& arguments);
Result notify_list(const Arguments& arguments);
Result notify_add(const Arguments& arguments);
Result notify_remove(const Arguments& arguments);
Result notify_test(const Arguments& arguments);

Result cert_list(const Arguments& arguments);
Result cert_renew(const Arguments& arguments);
Result cert_rotate(const Arguments& arguments);

Result audit_list(const Arguments& arguments);
Result audit_verify(const Arguments& arguments);

Result metrics(const Arguments& arguments);
Result token_list(const Arguments& arguments);
Result token_add(const Arguments& arguments);
Result token_remove(const Arguments& arguments);

Result site_export(const Arguments& arguments);
Result site_diff(const Arguments& arguments);
Result site_apply(const Arguments& arguments);

Result backup(const Arguments& arguments);
Result restore(const Arguments& arguments);

Result sdwan_status(const Arguments& arguments);
Result sdwan_join(const Arguments& arguments);
Result sdwan_leave(const Arguments& arguments);

}  // namespace ormelctl
