// The list of all certificates, and renewal of the OpenVPN server's.
#include <ctime>

#include "ormel/actions/audit.h"
#include "ormel/actions/certificate_rotation.h"
#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

using ormel::certificates::DAY;

constexpr const char* SERVER = "server";
constexpr const char* AUTHORITY = "authority";

const Columns COLUMNS = {
    {"what", "ROLE"}, {"subject", "SUBJECT"}, {"days_text", "DAYS"}, {"note", "NOTE"}};

struct RoleText {
  std::string_view role;
  const char* text;
};
constexpr RoleText ROLES[] = {
    {"authority", "openvpn authority"},
    {"authority-next", "openvpn authority, next"},
    {"authority-old", "openvpn authority, old"},
    {"server", "openvpn server"},
    {"web", "web interface"},
    {"profile-ca", "ca"},
    {"profile-cert", "cert"},
    {"profile-extra", "extra-certs"},
    {"profile-crl", "revocation list"},
};

std::string role_text(const json_t* row) {
  std::string role = text_of(row, "role");
  for (const RoleText& known : ROLES) {
    if (known.role != role) continue;
    const std::string profile = decoded(text_of(row, "profile"));
    return profile.empty() ? known.text : "profile " + profile + " " + known.text;
  }
  return role;
}

std::string day_text(long seconds) {
  const std::time_t at = seconds;
  std::tm parts{};
  char text[16] = "";
  if (localtime_r(&at, &parts)) std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
  return text;
}

// What a person can do about a certificate that ends.
struct Cure {
  std::string_view role;
  const char* text;
};
constexpr Cure CURES[] = {
    {"authority", "ormelctl cert rotate authority --overlap 60d"},
    {"web", "replace /etc/fenro/web/server.crt and server.key"},
};
constexpr const char* PROFILE_CURE = "ask the server's administrator for a new profile";

std::string cure_of(const std::string& role) {
  for (const Cure& row : CURES) {
    if (row.role == role) return row.text;
  }
  return role.starts_with("profile") ? PROFILE_CURE : "";
}

std::string note_of(const json_t* row, const json_t* data) {
  const std::string role = text_of(row, "role"), state = text_of(row, "state");
  const json_t* const rotation = json_object_get(data, "rotation");
  if (state == "unreadable") return text_of(row, "fault");
  if (state == "early") return "not valid before " + day_text(number_of(row, "not_before"));
  if (role == "authority-next") return "signs from " + day_text(number_of(rotation, "change"));
  if (role == "authority-old") return "trusted until " + day_text(number_of(rotation, "end"));
  if (role == SERVER && state != "good")
    return "is renewed in the next night without users, or ormelctl cert renew server";
  std::string cure = cure_of(role);
  if (state == "over") return "has ended" + (cure.empty() ? "" : ": " + cure);
  if (state == "soon") return cure;
  return role == SERVER ? "renewed from " + day_text(number_of(data, "renewal")) : "";
}

void add_texts(json_t* row, const json_t* data) {
  const json_t* const days = json_object_get(row, "days");
  const std::string text = days ? std::to_string(json_integer_value(days)) : "";
  json_object_set_new(row, "days_text", json_string(text.c_str()));
  json_object_set_new(row, "what", json_string(role_text(row).c_str()));
  json_object_set_new(row, "note", json_string(note_of(row, data).c_str()));
}

std::string holder_text(const json_t* holder) {
  const long login = number_of(holder, "last_login"), file = number_of(holder, "last_download");
  return text_of(holder, "user") + " (" +
         (login == 0 ? "no login known" : "last login " + moment_text(login)) + ", " +
         (file == 0 ? "never downloaded" : "downloaded " + moment_text(file)) + ')';
}

std::string holders_text(const json_t* rotation) {
  std::string text;
  size_t at = 0;
  const json_t* holder = nullptr;
  json_array_foreach(json_object_get(rotation, "holders"), at, holder) text +=
      (at ? ", " : "") + holder_text(holder);
  return text;
}

// Where a rotation is, and who needs a new profile before its next step.
std::string rotation_text(const json_t* rotation) {
  const std::string phase = text_of(rotation, "phase");
  if (phase == "none") return "";
  if (phase == "changing") return "The change-over was interrupted: ormelctl cert rotate --advance";
  const std::string when =
      phase == "overlap"
          ? "The server changes over on " + day_text(number_of(rotation, "change"))
          : "The old authority is forgotten on " + day_text(number_of(rotation, "end"));
  const std::string holders = holders_text(rotation);
  return when + (holders.empty() ? "; nobody is known to have an older profile"
                                 : "; perhaps still on the old one: " + holders);
}

Result refused(const Reply& reply) {
  Result result = failed(reply.error, reply.reason);
  if (reply.error == ormel::ERR_VALUE)
    result.exit = Exit::Usage;
  else
    result.advice = "ormelctl cert shows the certificates and the rotation";
  return result;
}

bool names(const Arguments& arguments, const char* what) {
  return arguments.words.empty() || arguments.words[0] == what;
}

Result wrong_name(const Arguments& arguments, const char* what) {
  return failed(Exit::Usage, "\"" + arguments.words[0] + "\" is not \"" + what + '"');
}

// Who is connected to the OpenVPN server, which a restart ends.
std::string live_users() {
  const Reply live = call("/ormel/connection/all");
  std::string text;
  size_t at = 0;
  const json_t* session = nullptr;
  json_array_foreach(live.data(), at, session) {
    if (number_of(session, "type") == ormel::OVPN_SERVER_TYPE)
      text += (text.empty() ? "" : ", ") + text_of(session, "name");
  }
  return text;
}

std::string ended_text(const std::string& users) {
  return users.empty() ? "" : "the restart has ended the sessions of " + users;
}

Result step(const char* name, const Form& form, std::string message) {
  const ChangeLock lock;
  if (!lock)
    return failed(Exit::TimedOut, "another change is still running", "try again when it has ended");
  Form whole{{"step", name}};
  whole.insert(whole.end(), form.begin(), form.end());
  const Reply reply = call("/ormel/cert/rotate", whole);
  if (reply.error != 0) return refused(reply);
  Result result = done(std::move(message), ormel::Json{json_incref(reply.data())});
  result.note = rotation_text(reply.data());
  return result;
}

}  // namespace

Result cert_list(const Arguments&) {
  const Reply reply = call("/ormel/cert/list");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  ormel::Json rows{json_incref(json_object_get(reply.data(), "certificates"))};
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) add_texts(row, reply.data());
  const bool none = json_array_size(rows.get()) == 0;
  Result result = done(none ? "There are no certificates." : "", std::move(rows), COLUMNS);
  result.note = rotation_text(json_object_get(reply.data(), "rotation"));
  return result;
}

Result cert_renew(const Arguments& arguments) {
  if (!names(arguments, SERVER)) return wrong_name(arguments, SERVER);
  const ChangeLock lock;
  if (!lock)
    return failed(Exit::TimedOut, "another change is still running", "try again when it has ended");
  const std::string users = live_users();
  const Reply reply = call("/ormel/cert/renew");
  if (reply.error != 0) return refused(reply);
  Result result =
      done("the OpenVPN server has a new certificate by the same authority: no profile changes");
  result.note = ended_text(users);
  return result;
}

Result cert_rotate(const Arguments& arguments) {
  if (!names(arguments, AUTHORITY)) return wrong_name(arguments, AUTHORITY);
  if (arguments.has("advance") && arguments.has("cancel"))
    return failed(Exit::Usage, "--advance and --cancel exclude each other");
  if (arguments.has("cancel")) return step("cancel", {}, "the new authority is forgotten");
  if (arguments.has("advance")) return step("advance", {}, "the next step of the rotation is done");
  const long overlap = arguments.seconds("overlap", 60 * DAY);
  if (overlap < 0) return failed(Exit::Usage, "--overlap takes a time such as 60d or 12h");
  return step("begin", {{"overlap", std::to_string(overlap)}},
              "a new authority is made; profiles that are downloaded from now on trust both");
}

}  // namespace ormelctl
