// The doctor's own login at a Drovik server.
#include <algorithm>

#include "base/reason.h"
#include "ormel/base/lines.h"
#include "ormelctl/doctor.h"

namespace ormelctl {

namespace {

constexpr const char* DAEMON = "/usr/lib/fenro/morvic";
// The server has answered before: what it does not finish is the handshake, where the key shows.
constexpr std::string_view OF_THE_KEY[] = {"psk-wrong", "no-answer"};

Finding named(const char* step, Finding finding) {
  finding.step = step;
  return finding;
}

}  // namespace

Findings try_drovik(const std::string& section, const std::string& interface, int seconds) {
  const LimitedRun run = run_limited({DAEMON, "--probe", section, interface}, "", seconds);
  const Finding key = named("certificate", good("the pre-shared key is the server's"));
  const ormel::ReasonFacts* facts = nullptr;
  for (const std::string& line : ormel::split_lines(run.out)) {  // the daemon's log is among them
    if (line == "ok") return {key, named("login", good("accepted"))};
    if (!facts) facts = ormel::find_reason(line);
  }
  if (!facts) facts = ormel::find_reason("no-answer");
  Finding wrong = failure(facts->text, facts->advice);
  if (std::ranges::find(OF_THE_KEY, facts->code) != std::end(OF_THE_KEY))
    return {named("certificate", std::move(wrong))};
  return {key, named("login", std::move(wrong))};
}

}  // namespace ormelctl
