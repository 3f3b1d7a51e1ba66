// The keeper's regular look at certificates: warns of those that end, and takes the step that is
// due at the OpenVPN server.
#include <algorithm>
#include <cctype>
#include <ctime>
#include <iterator>
#include <map>
#include <utility>

#include "ormel/actions/audit.h"
#include "ormel/actions/certificate_rotation.h"
#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/changes/recording.h"
#include "ormel/host/bus.h"
#include "ormelctl/command.h"
#include "ormelctl/service.h"

namespace ormelctl {
namespace {

namespace certificates = ormel::certificates;
using certificates::Certificate;
using certificates::Due;
using certificates::Role;

// {"stages":{"NAME":STAGE},"failed":SECONDS}: the last step before the end of a certificate that
// has caused a warning, and when a step at the server has failed.
constexpr const char* NOTES = "/var/lib/ormel/certificates.json";
constexpr std::size_t MOST_NOTES = std::size_t{1} << 20U;
constexpr long RETRY_PAUSE = 6L * 3600;  // seconds after a step that has failed
constexpr int WARNING = 1, ERROR = 2, INFORMATION = 0;
constexpr const char* SUBJECT = "certificate";

struct Notes {
  std::map<std::string, int> stages{};
  std::time_t failed = 0;
  bool operator==(const Notes&) const = default;
};

Notes read_notes() {
  std::string text;
  if (!ormel::system::read_file(NOTES, text, MOST_NOTES)) return {};
  const ormel::Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  Notes notes;
  const char* name = nullptr;
  json_t* stage = nullptr;
  json_object_foreach(json_object_get(document.get(), "stages"), name, stage) notes.stages[name] =
      static_cast<int>(json_integer_value(stage));
  notes.failed = number_of(document.get(), "failed");
  return notes;
}

// False, with a message, when they cannot be written.
bool write_notes(const Notes& notes) {
  ormel::Json rows{json_object()};
  for (const auto& [name, stage] : notes.stages)
    json_object_set_new(rows.get(), name.c_str(), json_integer(stage));
  const ormel::Json document{json_pack("{s:O, s:I}", "stages", rows.get(), "failed",
                                       static_cast<json_int_t>(notes.failed))};
  const ormel::CString text{json_dumps(document.get(), JSON_COMPACT)};
  const bool written = text && ormel::system::replace_file(NOTES, std::string(text.get()) + '\n');
  if (!written) std::fprintf(stderr, "%s cannot be written\n", NOTES);
  return written;
}

// Identifies a certificate across runs; its replacement has another end.
std::string key_of(const Certificate& one) {
  return std::string(name_of(one.role)) + '/' + std::to_string(one.index) + '/' +
         std::to_string(one.not_after) + '/' + one.subject;
}

std::string place_of(const Certificate& one) {
  switch (one.role) {
    case Role::Authority:
    case Role::NextAuthority:
    case Role::OldAuthority: return "the authority of the OpenVPN server";
    case Role::Server: return "the certificate of the OpenVPN server";
    case Role::Web: return "the certificate of the web interface";
    case Role::ProfileCrl: return "the revocation list of the profile " + decoded(one.profile);
    default: return "a certificate of the profile " + decoded(one.profile);
  }
}

std::string warning_text(const Certificate& one, int stage) {
  const long days = ormel::openssl::days_until(one.not_after);
  std::string text = place_of(one) + " (" + one.subject + ')';
  text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  if (stage == certificates::OVER) return text + " has expired";
  text += " expires in " +
          (days == 0 ? "less than a day" : std::to_string(days) + (days == 1 ? " day" : " days"));
  return one.role == Role::Server ? text + "; it will be renewed while nobody is connected" : text;
}

// The keeper stores the event and notifies those who asked for its kind.
void report(int level, const std::string& text) {
  const ormel::Json request{json_pack("{s:s, s:i, s:s, s:s, s:b}", "kind", SUBJECT, "level", level,
                                      "subject", SUBJECT, "text", printable(text).c_str(), "store",
                                      1)};
  const auto reply =
      ormel::system::plain_call(ormel::system::KEEPER_SERVICE, "keeper.report", request.get());
  if (reply.status != MIB_SUCCESS) std::fprintf(stderr, "not reported: %s\n", text.c_str());
}

// No warning for the old authority: the new one has signed the server's certificate.
int warning_stage(const Certificate& one, std::time_t now) {
  return one.role == Role::OldAuthority ? certificates::NO_STAGE : certificates::stage_of(one, now);
}

// Warns once of each step. Notes it before, so that a full disk does not repeat the event.
void warn(const std::vector<Certificate>& all, std::time_t now, Notes& notes) {
  Notes before = std::exchange(notes, Notes{.failed = notes.failed});
  for (const Certificate& one : all) {
    const int stage = warning_stage(one, now);
    if (stage != certificates::NO_STAGE) notes.stages[key_of(one)] = stage;
  }
  if (notes == before || !write_notes(notes)) return;
  for (const Certificate& one : all) {
    const int stage = warning_stage(one, now);
    int& warned = before.stages[key_of(one)];
    if (stage <= warned) continue;
    warned = stage;
    report(stage == certificates::OVER ? ERROR : WARNING, warning_text(one, stage));
  }
}

bool is_used() {
  const Reply live = call("/ormel/connection/all");
  size_t at = 0;
  const json_t* session = nullptr;
  json_array_foreach(live.data(), at, session) {
    if (number_of(session, "type") == ormel::OVPN_SERVER_TYPE) return true;
  }
  return live.error != 0;
}

struct Step {
  Due due;
  const char* action;
  const char* done;
  const char* failed;
  int (*run)(std::string& reason);
};
constexpr Step STEPS[] = {
    {Due::Renew, "cert/renew", "The certificate of the OpenVPN server was renewed",
     "The certificate of the OpenVPN server could not be renewed: ", certificates::renew},
    {Due::Advance, "cert/rotate", "The rotation of the OpenVPN authority has taken its next step",
     "The rotation of the OpenVPN authority is stuck: ", certificates::advance},
    {Due::Settle, "cert/rotate", "An interrupted rotation of the OpenVPN authority was finished",
     "The rotation of the OpenVPN authority is stuck: ", certificates::settle},
    {Due::TakeUp, "cert/renew", "The OpenVPN server was restarted with its new certificate",
     "The OpenVPN server does not take up its new certificate: ", certificates::take_up},
};

int take(const Step& step) {
  const ormel::changes::Recording recording{{"", "keeper", step.action}};
  if (!recording.refusal().empty()) return 0;  // settings go back; the next run tries again
  ormel::audit::Recorder recorder =
      ormel::audit::is_kept()
          ? ormel::audit::Recorder{{"", "keeper", ""}, step.action, "OpenVPN server"}
          : ormel::audit::Recorder{};
  std::string reason;
  const int code = recorder.finish(step.run(reason));
  if (code == ormel::NO_ERROR)
    report(INFORMATION, step.done);
  else
    report(ERROR, step.failed + reason);
  return code;
}

}  // namespace

int tend_certificates() {
  // Damaged settings name no profile, and a restart by them would end the server.
  if (ormel::config::fault_of_settings()) return 0;
  ormel::config::Management pool;
  std::ignore = pool.load();  // always 0
  const std::vector<Certificate> all = certificates::list(pool);
  certificates::Moment moment{.now = std::time(nullptr)};
  std::tm parts{};
  localtime_r(&moment.now, &parts);
  moment.hour = parts.tm_hour;
  moment.is_older = certificates::runs_with_older();
  Notes notes = read_notes();
  warn(all, moment.now, notes);
  const certificates::Rotation state = certificates::rotation();
  Due due = certificates::due(all, state, moment);
  if (due != Due::Nothing) {  // else the list of connections is not needed
    moment.is_used = is_used();
    due = certificates::due(all, state, moment);
  }
  const auto* const step = std::ranges::find(STEPS, due, &Step::due);
  const bool waits = moment.now >= notes.failed && moment.now - notes.failed < RETRY_PAUSE;
  if (step == std::end(STEPS) || waits) return 0;
  if (take(*step) == ormel::NO_ERROR) return 0;
  notes.failed = moment.now;
  std::ignore = write_notes(notes);  // else the next run tries again at once
  return 1;
}

}  // namespace ormelctl
