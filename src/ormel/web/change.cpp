// Taking changes back: the list of snapshots, and changes that go back unless they are confirmed.
#include <string>

#include "base/utf8.h"
#include "ormel/changes/pending.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::change {

namespace {

using changes::Asker;
using changes::Pending;
using changes::PendingChange;
using changes::Verdict;

Outcome outcome_of(const Verdict& verdict) {
  return {verdict.code, verdict.reason};
}

std::string shown(const std::string& text) {
  return fenro::valid_utf8(text);
}

// The routes of the same work within ormelctl run for root.
Asker asker_of(const Request& request) {
  const changes::Origin origin = origin_of(request, "");
  return {origin.user, origin.via == "ormelctl"};
}

void show_origin(const changes::Origin& origin, JsonValue& out) {
  out["user"] = shown(origin.user);
  out["via"] = shown(origin.via);
  out["what"] = shown(origin.what);
}

int list(const Request&, JsonValue& reply) {
  const Pending pending;
  JsonValue& rows = reply["data"].make_array();
  for (const changes::Snapshot& snapshot : pending.snapshots().list()) {
    auto row = std::make_unique<JsonValue>();
    (*row)["id"] = snapshot.id;
    (*row)["time"] = static_cast<int64_t>(snapshot.time);
    show_origin(snapshot.origin, *row);
    rows.append(std::move(row));
  }
  return NO_ERROR;
}

void show_texts(const std::vector<std::string>& texts, JsonValue& out) {
  out.make_array();
  for (const std::string& text : texts) out << shown(text);
}

Outcome undo(const Request& request, JsonValue& reply) {
  changes::Plan done;
  changes::Snapshot restored;
  const int id = request.number("id", 0);
  const Verdict verdict = Pending().undo(
      origin_of(request, id == 0 ? "undo" : "undo " + std::to_string(id)), id, done, restored);
  if (verdict.code != NO_ERROR) return outcome_of(verdict);
  JsonValue& data = reply["data"];
  data["id"] = restored.id;
  data["time"] = static_cast<int64_t>(restored.time);
  show_origin(restored.origin, data);
  show_texts(done.files, data["files"]);
  show_texts(changes::affected(done), data["affected"]);
  show_texts(done.failed, data["failed"]);
  data["kept"] = done.kept;
  return {};
}

Outcome begin(const Request& request, JsonValue& reply) {
  std::string code;
  const Pending pending;
  const Verdict verdict =
      pending.begin(origin_of(request, "change/begin"),
                    request.number("seconds", static_cast<int>(changes::DEFAULT_SECONDS)), code);
  if (verdict.code != NO_ERROR) return outcome_of(verdict);
  const std::optional<PendingChange> change = pending.find();
  JsonValue& data = reply["data"];
  data["code"] = code;
  data["until"] = change ? change->until : 0;
  data["seconds"] = change ? change->seconds_left() : 0;
  return {};
}

Outcome confirm(const Request& request, JsonValue&) {
  if (!request.filled("code") && !asker_of(request).root) return {ERR_MISS_OPTION, "code"};
  return outcome_of(Pending().confirm(asker_of(request), request.value("code")));
}

Outcome revert(const Request& request, JsonValue&) {
  return outcome_of(Pending().revert(asker_of(request)));
}

int show(const Request& request, JsonValue& reply) {
  const std::optional<PendingChange> change = Pending().find();
  JsonValue& data = reply["data"];
  data["pending"] = change.has_value();
  if (!change) return NO_ERROR;
  show_origin(change->origin, data);
  data["until"] = change->until;
  data["seconds"] = change->seconds_left();
  data["mine"] = change->owned_by(asker_of(request));
  return NO_ERROR;
}

constexpr Route ROWS[] = {
    {"/ormel/change/list", ADMINISTRATOR, READS, json<list>},
    {"/ormel/change/undo", ADMINISTRATOR, CHANGES, json<undo>},
    {"/ormel/change/begin", ADMINISTRATOR, CHANGES, json<begin>},
    {"/ormel/change/confirm", ADMINISTRATOR, CHANGES, json<confirm>},
    {"/ormel/change/revert", ADMINISTRATOR, CHANGES, json<revert>},
    {"/ormel/change/pending", ADMINISTRATOR, READS, json<show>},
};

}  // namespace

const Routes CHANGE{ROWS};

}  // namespace ormel::cgi::change
