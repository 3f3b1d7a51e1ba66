// What the keeper keeps running, and who is notified of its events.
#include <ctime>

#include "ormel/base/error.h"
#include "ormel/host/bus.h"
#include "ormelctl/advice.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

constexpr long TEST_SECONDS = 12;  // a receiver may take ten

const Columns KEEPER_COLUMNS = {
    {"section", "SECTION"},        {"name", "NAME"}, {"state", "STATE"}, {"for", "FOR"},
    {"restarts", "STARTED AGAIN"}, {"reason", "WHY"}};
const Columns TARGET_COLUMNS = {
    {"name", "NAME"}, {"url", "TO"}, {"events", "EVENTS"}, {"last", "LAST DELIVERY"}};

// One call; a failure is in `problem`.
ormel::Json ask(const char* method, const ormel::Json& request, Result& problem) {
  const ormel::system::PlainReply reply =
      ormel::system::plain_call(ormel::system::KEEPER_SERVICE, method, request.get());
  if (!json_is_object(reply.document.get())) {
    problem = failed(Exit::Failed, "the keeper does not answer", "systemctl restart fenro-keeperd");
    return nullptr;
  }
  const auto error = static_cast<int>(number_of(reply.document.get(), "error"));
  if (error == 0) return ormel::Json{json_incref(reply.data())};
  problem = failed(error, text_of(reply.document.get(), "reason"));
  if (error == ormel::ERR_VALUE) problem.exit = Exit::Usage;
  return nullptr;
}

ormel::Json named(const std::string& name) {
  return ormel::Json{json_pack("{s:s}", "name", name.c_str())};
}

// The same for a target: one that is not known gets a suggestion.
ormel::Json ask_target(const char* method, const std::string& name, Result& problem) {
  ormel::Json data = ask(method, named(name), problem);
  if (data || problem.exit != Exit::NotFound) return data;
  Result ignored;
  const ormel::Json known = ask("notify.list", nullptr, ignored);
  problem.advice = did_you_mean(name, names_in(known.get(), "name"), "ormelctl notify list");
  return nullptr;
}

std::string outcome_text(const json_t* row) {
  if (!json_object_get(row, "at")) return "";
  std::string failure = text_of(row, "failure");
  if (!failure.empty()) return failure;
  return (number_of(row, "status") != 0 ? std::to_string(number_of(row, "status")) + " " : "") +
         "in " + std::to_string(number_of(row, "milliseconds")) + " ms";
}

}  // namespace

Result keeper_show(const Arguments&) {
  Result result;
  ormel::Json rows = ask("keeper.show", nullptr, result);
  if (!rows) return result;
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) {
    json_object_set_new(
        row, "for",
        json_string(duration_text(std::time(nullptr) - number_of(row, "since")).c_str()));
  }
  return done(
      json_array_size(rows.get()) == 0 ? "Nothing is on, so that nothing is kept running." : "",
      std::move(rows), KEEPER_COLUMNS);
}

Result notify_kinds(const Arguments&) {
  Result result;
  ormel::Json rows = ask("notify.kinds", nullptr, result);
  return rows ? done("", std::move(rows), {{"kind", "KIND"}, {"text", "EVENT"}})
              : std::move(result);
}

Result notify_list(const Arguments&) {
  Result result;
  ormel::Json rows = ask("notify.list", nullptr, result);
  if (!rows) return result;
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row)
      json_object_set_new(row, "last", json_string(outcome_text(row).c_str()));
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "No one is notified. Add a target: ormelctl notify add ops --url "
                     "https://hooks.example.org/ormel"
                   : "",
              std::move(rows), TARGET_COLUMNS);
}

Result notify_add(const Arguments& arguments) {
  const std::string url = arguments.value("url", arguments.value("to"));
  if (url.empty()) {
    return failed(Exit::Usage, "--url is missing: one that begins with https://, or mail:USER",
                  "ormelctl notify add ops --url https://hooks.example.org/ormel");
  }
  std::string secret;
  if (arguments.has("secret-file")) {
    const auto given = read_secret(arguments.value("secret-file"));
    if (!given) return failed(Exit::Failed, "--secret-file cannot be read, or is not one line");
    secret = *given;
  }
  const std::string& name = arguments.words[0];
  const ormel::Json request{
      json_pack("{s:s, s:s, s:s, s:s}", "name", name.c_str(), "url", url.c_str(), "events",
                arguments.value("events", "all").c_str(), "secret", secret.c_str())};
  Result result;
  ormel::Json data = ask("notify.set", request, result);
  if (!data) {
    if (result.reason.starts_with("there are no events"))
      result.advice = "ormelctl notify kinds shows the events";
    return result;
  }
  const std::string made = text_of(data.get(), "secret");
  return done(name + " is notified" +
                  (made.empty() ? "" : "; the secret of the signature, shown this once: " + made),
              std::move(data));
}

Result notify_remove(const Arguments& arguments) {
  Result result;
  if (!ask_target("notify.remove", arguments.words[0], result)) return result;
  return done(arguments.words[0] + " is not notified any more");
}

Result notify_test(const Arguments& arguments) {
  Result result;
  const ormel::Json number = ask_target("notify.test", arguments.words[0], result);
  if (!number) return result;
  if (arguments.terminal) std::fputs("sending ...\n", stderr);
  ormel::Json outcome;
  const auto sent = [&] {
    outcome = ask("notify.result", number, result);
    return !outcome || json_is_true(json_object_get(outcome.get(), "done"));
  };
  if (!comes_true(sent, TEST_SECONDS))
    return failed(Exit::TimedOut, "other notifications are still being sent",
                  "ormelctl notify list");
  if (!outcome) return result;
  const std::string text = outcome_text(outcome.get());
  if (!text_of(outcome.get(), "failure").empty())
    return failed(Exit::Failed, arguments.words[0] + ": " + text,
                  "check the receiver and its address: ormelctl notify list");
  return done(arguments.words[0] + ": " + text, std::move(outcome));
}

}  // namespace ormelctl
