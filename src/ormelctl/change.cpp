// Changes that can be taken back: undo, and what goes back unless it is confirmed.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <span>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "base/lines.h"
#include "ormel/actions/audit.h"
#include "ormel/base/error.h"
#include "ormel/changes/pending.h"
#include "ormel/changes/recording.h"
#include "ormelctl/command.h"
#include "ormelctl/service.h"
#include "ormelctl/trial.h"

namespace ormelctl {

namespace {

using ormel::changes::Moment;
using ormel::changes::Origin;
using ormel::changes::Pending;
using ormel::changes::Verdict;

constexpr const char* VIA = "ormelctl";
constexpr mode_t DAEMON_MASK = 022;

// These take care of snapshots themselves, or change nothing that is in one.
constexpr std::string_view UNRECORDED[] = {"backup", "undo", "confirm", "revert", "token"};

Origin origin_of(const Command& command, const Arguments& arguments) {
  std::string what = std::string(command.noun) + (*command.verb ? " " : "") + command.verb;
  for (const std::string& word : arguments.words) what += ' ' + word;
  return {ormel::audit::local_origin(VIA).user, VIA, what};
}

Result failed_by(const Verdict& verdict) {
  return failed(verdict.code, verdict.reason);
}

bool is_recorded(const Command& command) {
  return std::ranges::find(UNRECORDED, std::string_view(command.noun)) == std::end(UNRECORDED);
}

Result run_recorded(const Command& command, const Arguments& arguments) {
  const ormel::changes::Recording recording{origin_of(command, arguments)};
  if (!recording.refusal().empty())
    return failed(Exit::Failed, recording.refusal(), "then run the command again");
  Result result = command.run(arguments);
  if (!recording.not_undoable().empty())
    result.note = "this change cannot be undone: " + recording.not_undoable();
  return result;
}

void explain_confirmation(Result& result, const std::string& code, long seconds) {
  result.note = (result.exit == Exit::Done ? "changed; goes back in "
                                           : "it has changed something; that goes back in ") +
                std::to_string(seconds) + " s unless you say:  ormelctl confirm " + code;
  result.confirm.reset(
      json_pack("{s:s, s:i}", "code", code.c_str(), "seconds", static_cast<int>(seconds)));
}

Result run_confirmed(const Command& command, const Arguments& arguments, long seconds) {
  const Pending pending;
  std::string code;
  const Verdict verdict = pending.begin(origin_of(command, arguments), seconds, code);
  if (verdict.code != ormel::NO_ERROR) return failed_by(verdict);
  const auto change = pending.find();
  const auto snapshot = pending.snapshots().find(change ? change->snapshot : 0);
  if (!snapshot) return failed(Exit::Failed, "the snapshot is missing; nothing was changed");
  Result result = failed(Exit::Failed, "settings are being restored; nothing was changed",
                         "run the command again in a few seconds");
  {
    const ormel::changes::StateLock lock{ormel::changes::Turn::CHANGE};
    if (lock) result = command.run(arguments);
  }
  if (!pending.snapshots().changed_since(*snapshot).empty()) {
    explain_confirmation(result, code, seconds);
    return result;
  }
  pending.cancel(snapshot->id);
  pending.snapshots().drop(snapshot->id);
  if (result.exit == Exit::Done)
    result.note = "no setting has changed, so there is nothing to confirm";
  return result;
}

std::string joined(const json_t* texts) {
  std::string all;
  size_t at = 0;
  const json_t* text = nullptr;
  json_array_foreach(texts, at, text) all +=
      (at ? ", " : "") + std::string(json_string_value(text));
  return all;
}

const Columns UNDO_COLUMNS = {
    {"id", "CHANGE"}, {"time_text", "TIME"}, {"user", "USER"}, {"via", "FROM"}, {"what", "WHAT"}};

}  // namespace

Result run_with_care(const Command& command, const Arguments& arguments, const Care& care) {
  if (care.dry_run) return run_trial(command, arguments);
  if (care.confirm == 0)
    return is_recorded(command) ? run_recorded(command, arguments) : command.run(arguments);
  if (!is_recorded(command))
    return failed(Exit::Usage, "--confirm does not go with \"" + std::string(command.noun) + '"');
  return run_confirmed(command, arguments, care.confirm);
}

Result undo_list(const Arguments&) {
  const Reply reply = call("/ormel/change/list");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  ormel::Json rows{json_incref(reply.data())};
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) {
    json_object_set_new(row, "time_text", json_string(moment_text(number_of(row, "time")).c_str()));
  }
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "There is nothing to undo." : "", std::move(rows), UNDO_COLUMNS);
}

Result undo(const Arguments& arguments) {
  Form form;
  if (!arguments.words.empty()) {
    const std::string& number = arguments.words[0];
    if (int id = 0; !fenro::parse_number(number, id) || id < 1)
      return failed(Exit::Usage, "\"" + number + "\" is not the number of a change",
                    "ormelctl undo list shows the numbers");
    form.emplace_back("id", number);
  }
  const Reply reply = call("/ormel/change/undo", form);
  if (reply.error != 0) return failed(reply.error, reply.reason);
  const json_t* const data = reply.data();
  const std::string affected = joined(json_object_get(data, "affected"));
  const std::string failures = joined(json_object_get(data, "failed"));
  const bool same = json_array_size(json_object_get(data, "files")) == 0;
  std::string message = "restored the state of " + moment_text(number_of(data, "time")) +
                        ", before \"" + text_of(data, "what") + '"' +
                        (affected.empty() ? "" : " (" + affected + ")");
  if (same) message = "nothing has changed since " + moment_text(number_of(data, "time"));
  ormel::Json copy{json_deep_copy(data)};
  if (failures.empty()) {
    Result result = done(std::move(message), std::move(copy));
    result.note = text_of(data, "kept");
    return result;
  }
  Result result = failed(Exit::Failed, message + ", but this failed: " + failures,
                         "ormelctl status shows what does not run, and why");
  result.data = std::move(copy);
  return result;
}

Result confirm(const Arguments& arguments) {
  if (arguments.words.empty() && !arguments.has("yes"))
    return failed(Exit::Usage, "the code is missing",
                  "ormelctl confirm CODE, or as root without the code: ormelctl confirm --yes");
  Form form;
  if (!arguments.words.empty()) form.emplace_back("code", arguments.words[0]);
  const Reply reply = call("/ormel/change/confirm", form);
  return reply.error != 0 ? failed(reply.error, reply.reason) : done("confirmed: the change stays");
}

Result revert(const Arguments&) {
  const Reply reply = call("/ormel/change/revert");
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : done("the settings from before the change are back");
}

Result pending(const Arguments&) {
  const Reply reply = call("/ormel/change/pending");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  const json_t* const data = reply.data();
  ormel::Json copy{json_deep_copy(data)};
  if (!json_is_true(json_object_get(data, "pending")))
    return done("No change waits for a confirmation.", std::move(copy));
  const std::string text = text_of(data, "what") + " by " + text_of(data, "user") + " (" +
                           text_of(data, "via") + ") goes back in " +
                           std::to_string(number_of(data, "seconds")) + " s unless it is confirmed";
  return done(text, std::move(copy));
}

int go_back_in_time(std::span<char*> words) {
  setsid();  // it outlives the terminal and the request that have started it
  umask(DAEMON_MASK);
  const std::string word = words.empty() ? "" : words[0];
  const Pending pending;
  if (word == "boot" || word == "overdue") {
    const Verdict verdict = pending.recover(word == "boot" ? Moment::BOOT : Moment::RUNNING);
    if (verdict.code != ormel::NO_ERROR) std::fprintf(stderr, "%s\n", verdict.reason.c_str());
    return verdict.code == ormel::NO_ERROR ? 0 : 1;
  }
  const auto snapshot = static_cast<int>(std::strtol(word.c_str(), nullptr, 10));
  for (auto change = pending.find(); change && change->snapshot == snapshot;
       change = pending.find()) {
    if (change->seconds_left() == 0)
      return pending.expire(snapshot).code == ormel::NO_ERROR ? 0 : 1;
    std::this_thread::sleep_for(std::chrono::seconds{1});
  }
  return 0;
}

}  // namespace ormelctl
