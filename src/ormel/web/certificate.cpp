// The list of all certificates, and renewal of the OpenVPN server's.
#include <ctime>
#include <memory>
#include <string>

#include "ormel/actions/certificate_rotation.h"
#include "ormel/actions/certificates.h"
#include "ormel/base/crypto.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::certificate {

namespace {

using ormel::certificates::Certificate;
using ormel::certificates::Phase;
using ormel::certificates::Rotation;

constexpr long USUAL_OVERLAP = 60 * ormel::certificates::DAY;

const char* state_of(const Certificate& one, std::time_t now) {
  using ormel::certificates::stage_of;
  if (!one.fault.empty()) return "unreadable";
  if (one.not_before > now) return "early";
  const int stage = stage_of(one, now);
  return stage == ormel::certificates::OVER ? "over" : stage > 0 ? "soon" : "good";
}

// Times are seconds since 1970. `days` is missing where nothing ends.
void describe(const Certificate& one, std::time_t now, JsonValue& row) {
  row["role"] = name_of(one.role);
  row["subject"] = one.subject;
  row["state"] = state_of(one, now);
  row["not_before"] = static_cast<int64_t>(one.not_before);
  row["not_after"] = static_cast<int64_t>(one.not_after);
  if (one.ends()) row["days"] = static_cast<int64_t>(openssl::days_until(one.not_after));
  row["used_by"] = one.used_by;
  row["profile"] = one.profile;
  row["type"] = one.type;
  row["index"] = one.index;
  row["fault"] = one.fault;
}

void describe(const Rotation& state, JsonValue& out) {
  out["phase"] = name_of(state.phase);
  out["begun"] = static_cast<int64_t>(state.begun);
  out["change"] = static_cast<int64_t>(state.change);
  out["end"] = static_cast<int64_t>(state.end);
  JsonValue& holders = out["holders"].make_array();
  if (state.phase == Phase::None) return;
  for (const auto& holder : ormel::certificates::holders_of_old(state.begun)) {
    auto row = std::make_unique<JsonValue>();
    (*row)["user"] = holder.user;
    (*row)["last_login"] = static_cast<int64_t>(holder.last_login);
    (*row)["last_download"] = static_cast<int64_t>(holder.last_download);
    holders.append(std::move(row));
  }
}

int list(const Request&, JsonValue& reply) {
  ormel::config::Management pool;
  std::ignore = pool.load();  // always 0
  const std::time_t now = std::time(nullptr);
  const auto all = ormel::certificates::list(pool);
  JsonValue& data = reply["data"];
  JsonValue& rows = data["certificates"].make_array();
  for (const Certificate& one : all) {
    auto row = std::make_unique<JsonValue>();
    describe(one, now, *row);
    rows.append(std::move(row));
  }
  data["renewal"] = static_cast<int64_t>(ormel::certificates::renewal_begin(all));
  describe(ormel::certificates::rotation(), data["rotation"]);
  return NO_ERROR;
}

Outcome renew(const Request&, JsonValue&) {
  Outcome outcome;
  outcome.code = ormel::certificates::renew(outcome.reason);
  return outcome;
}

// `step` is "begin" with an `overlap` in seconds, "advance" or "cancel".
Outcome rotate(const Request& request, JsonValue& reply) {
  const std::string step = request.value("step");
  const auto overlap = request.whole("overlap", USUAL_OVERLAP);
  if (!overlap) return {ERR_VALUE, "overlap is a number of seconds"};
  Outcome outcome;
  if (step == "begin") {
    outcome.code = ormel::certificates::rotate(*overlap, outcome.reason);
  } else if (step == "advance") {
    outcome.code = ormel::certificates::advance(outcome.reason);
  } else if (step == "cancel") {
    outcome.code = ormel::certificates::cancel(outcome.reason);
  } else {
    outcome = {ERR_VALUE, "step is begin, advance or cancel"};
  }
  if (outcome.code == NO_ERROR) describe(ormel::certificates::rotation(), reply["data"]);
  return outcome;
}

constexpr Route ROWS[] = {
    {"/ormel/cert/list", ADMINISTRATOR, READS, json<list>},
    {"/ormel/cert/renew", ADMINISTRATOR, CHANGES, json<renew>},
    {"/ormel/cert/rotate", ADMINISTRATOR, CHANGES, json<rotate>},
};

}  // namespace

const Routes CERTIFICATES{ROWS};

}  // namespace ormel::cgi::certificate
