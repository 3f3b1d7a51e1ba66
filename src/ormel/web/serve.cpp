#include "ormel/web/serve.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <fenro/auth.h>

#include "base/body.h"
#include "base/lines.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/changes/recording.h"
#include "ormel/config/pool.h"
#include "ormel/web/access.h"
#include "ormel/web/audit_record.h"
#include "ormel/web/process.h"

namespace ormel {

bool support_json_type = true;

USER_TYPE system::auth_user_session(const char* sid) {
  _session session{};
  if (!sid || auth_get_session(sid, 1, &session) != 0) return INVAILD_USER;
  return User_Belongs_To_Group(session.user, "administrators") ? ADMIN_USER : GENERAL_USER;
}

namespace cgi {

namespace {

constexpr size_t COPY_SIZE = size_t{64} * 1024;
constexpr size_t OUTPUT_SIZE =
    size_t{64} * 1024;  // most answers leave in one write, which wakes the server once

// Where a local call gets its answer; null for a web request.
std::FILE* local_output = nullptr;
Caller local_caller = OF_SESSION;

std::FILE* output() {
  return local_output ? local_output : stdout;
}

// The platform's mark of settings that it could not save. Every answer has it as a header, as the
// answers themselves have no place for it.
constexpr const char* SETTINGS_FAULT = "/run/fenro/settings_fault";

const char* fault_header() {
  return access(SETTINGS_FAULT, F_OK) == 0 ? "X-Ormel-Settings: unsaved\r\n" : "";
}

// The same for a change that no snapshot was made of.
bool undo_is_lost = false;

const char* undo_header() {
  return undo_is_lost ? "X-Ormel-Undo: none\r\n" : "";
}

// The answer is for a token that may change nothing.
bool hides_secrets = false;

// Printing is the last thing that a request does. A client that has gone away must not keep it from
// cleaning up. The stream gets a buffer of that size, or none.
void begin_output(char* buffer, size_t size) {
  if (local_output) return;
  if (!environment("CONTENT_LENGTH").empty()) fenro::discard_body(STDIN_FILENO);
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, buffer, buffer ? _IOFBF : _IONBF, size);
}

std::string with_marks(const std::string& head) {
  return head + fault_header() + undo_header() + "\r\n";
}

void print_head(const std::string& head) {
  static std::array<char, OUTPUT_SIZE> buffer;
  begin_output(buffer.data(), buffer.size());
  std::fputs(with_marks(head).c_str(), output());
}

// What is printed to a stream in memory.
std::string printed(const std::function<void(std::FILE* stream)>& print) {
  char* text = nullptr;
  size_t length = 0;
  {
    const File stream{open_memstream(&text, &length)};
    if (stream) print(stream.get());
  }
  const CString owner{text};
  return text ? std::string(text, length) : std::string();
}

void print_reply(const JsonValue& response) {
  const std::string media_type = support_json_type ? "application/json" : "text/plain";
  std::string text;
  text.reserve(OUTPUT_SIZE);
  text += with_marks("Content-type: " + media_type + "; charset=utf-8\r\n");
  if (hides_secrets) {
    std::string whole;
    response.print(whole);
    text += without_secrets(whole);
  } else {
    response.print(text);
  }
  begin_output(nullptr, 0);
  std::fwrite(text.data(), 1, text.size(), output());
  std::fflush(output());
}

void log_failure(int code, const std::string& reason) {
  // Escaped: it can quote the address that was asked for.
  ORMEL_LOG(ERROR, "%d, %s", code, escape_json(reason).c_str());
}

int succeed(JsonValue& response) {
  response["error"] = static_cast<int32_t>(NO_ERROR);
  print_reply(response);
  return NO_ERROR;
}

cgi_settings settings_for(cgi_var_mode repeats) {
  cgi_settings settings = settings_with_query();
  settings.var_mode = repeats;
  return settings;
}

// False when the client went away.
bool copy_to_output(const File& file) {
  std::array<char, COPY_SIZE> piece;
  size_t length = 0;
  while ((length = std::fread(piece.data(), 1, piece.size(), file.get())) > 0) {
    if (std::fwrite(piece.data(), 1, length, output()) < length) return false;
  }
  return std::fflush(output()) == 0;
}

// These routes keep, confirm and restore snapshots themselves.
constexpr std::string_view UNRECORDED = "/ormel/change/";

// Open to all users, who must not evict the administrators' snapshots.
constexpr std::string_view OF_USERS = "/ormel/my/";

// Routes that go by the settings of servers and profiles, and may save them. Others beside the
// fixed ones repair damaged settings, or keep people out, which must work even then.
constexpr std::string_view BY_SETTINGS[] = {
    "/ormel/cert/renew", "/ormel/cert/rotate", "/ormel/my/device_add", "/ormel/my/device_remove",
    "/ormel/peer/add",   "/ormel/peer/modify", "/ormel/peer/remove"};

std::string refusal_for_settings(const Route& route) {
  const bool goes_by = std::ranges::find(BY_SETTINGS, route.path) != std::end(BY_SETTINGS);
  return goes_by ? ormel::config::refusal_for_settings() : std::string();
}

bool can_be_taken_back(const Route& route) {
  return route.effect == CHANGES && local_caller == OF_SESSION &&
         !route.path.starts_with(UNRECORDED) && changes::Snapshots().wanted();
}

int refuse_download(int code) {
  log_failure(code, reason_of(code));
  print_head("Status: 404 Not Found\r\nContent-Type: text/html\r\n");
  std::fflush(output());
  return code;
}

}  // namespace

std::string reason_of(int code) {
  return get_error_message(static_cast<unsigned int>(code));
}

int fail(JsonValue& response, const Outcome& outcome) {
  const std::string reason = outcome.reason.empty() ? reason_of(outcome.code) : outcome.reason;
  log_failure(outcome.code, reason);
  if (!outcome.keeps_data) response.erase();
  response["error"] = outcome.code;
  response["reason"] = reason;
  print_reply(response);
  return outcome.code;
}

Request::Request(cgi_var_mode repeats)
    : CgiRequest(settings_for(repeats)),
      user_(INVAILD_USER),
      local_(local_caller == LOCAL_ADMINISTRATOR) {
  withhold_request();
  const std::string authorization = take_authorization();
  if (!local_ && !find("sid") && ormel::token::is_bearer(authorization)) {
    token_ = holder_of(authorization);
    user_ = token_->name.empty() ? INVAILD_USER : ADMIN_USER;
  } else {
    user_ = local_ ? ADMIN_USER : system::auth_user_session(get_cgi_var_value(find("sid")));
  }
}

std::string Request::name() const {
  _session session{};
  if (local_ || auth_get_session(value("sid"), 1, &session) != 0) return local_ ? "root" : "";
  return field_text(session.user);
}

int Request::number(const char* name, int fallback) const {
  return filled(name) ? to_int(value(name)) : fallback;
}

std::optional<int64_t> Request::whole(const char* name, int64_t fallback) const {
  int64_t number = fallback;
  if (filled(name) && !fenro::parse_number(value(name), number)) return {};
  return number;
}

std::vector<char*> Request::values(const char* name) const {
  std::vector<char*> all;
  for (cgi_var* var = find(name); var; var = get_cgi_var(var, name)) {
    char* const value = get_cgi_var_value(var);
    if (value && get_cgi_var_status(var) == CORRECT_VAR) all.push_back(value);
  }
  return all;
}

namespace {

int refuse(const Route& route, JsonValue& response, const Outcome& outcome) {
  return route.answer.medium == DOWNLOAD_MEDIUM ? refuse_download(outcome.code)
                                                : fail(response, outcome);
}

// The work of a route that changes something, so that it can be taken back.
int give_undoable(const Route& route, const Request& request, JsonValue& response) {
  const changes::Recording recording{origin_of(request, std::string(route.path)),
                                     !route.path.starts_with(OF_USERS)};
  if (!recording.refusal().empty())
    return refuse(route, response, {ERR_ACCESS, recording.refusal()});
  if (!recording.not_undoable().empty())
    ORMEL_LOG(ERROR, "this change cannot be taken back: %s", recording.not_undoable().c_str());
  undo_is_lost = !recording.not_undoable().empty();
  return route.answer.give(request, response);
}

int give(const Route& route, const Request& request, JsonValue& response) {
  if (std::string why = refusal_for_settings(route); !why.empty())
    return refuse(route, response, {ERR_REGULAR_FILE, std::move(why)});
  return can_be_taken_back(route) ? give_undoable(route, request, response)
                                  : route.answer.give(request, response);
}

}  // namespace

changes::Origin origin_of(const Request& request, const std::string& what) {
  if (local_caller == LOCAL_ADMINISTRATOR) return {"root", "ormelctl", what};
  const Sender sender = sender_of(request);
  if (sender.user.empty()) return {"", "web", what};
  return {sender.user, "web " + sender.ip, what};
}

int serve(const Route& route, JsonValue& response) {
  const Request request{route.repeats};
  if (const Outcome denied = check_access(route, request); denied.code != NO_ERROR) {
    record_refusal(route, request, denied.code);
    return refuse(route, response, denied);
  }
  hides_secrets = request.token() && request.token()->scope < ormel::token::Scope::Admin;
  ormel::audit::Recorder recorder = recorder_of(route, request);
  const int rc = give(route, request, response);
  if (request.is_change()) return recorder.finish(rc);
  recorder.drop();
  return rc;
}

int answer_json(JsonValue& response, const Outcome& outcome) {
  return outcome.code == NO_ERROR ? succeed(response) : fail(response, outcome);
}

int answer_download(const Download& file, int code) {
  if (code != NO_ERROR) return refuse_download(code);
  print_head(file.head);
  std::fwrite(file.body.data(), 1, file.body.size(), output());
  return std::fflush(output()) == 0 && !std::ferror(output()) ? NO_ERROR : ERR_GENERAL;
}

int answer_file(JsonValue& response, const SentFile& file, int code) {
  if (code != NO_ERROR) return fail(response, Outcome{code});
  struct stat info {};
  if (fstat(fileno(file.content.get()), &info) != 0) return fail(response, Outcome{ERR_CMD_FAILED});
  print_head(file.head + "Content-Length: " + std::to_string(info.st_size) + "\r\n");
  return copy_to_output(file.content) ? NO_ERROR : ERR_GENERAL;
}

int answer_page(const Page& page) {
  print_head("Content-Type: text/html\r\n");
  std::fwrite(page.text.data(), 1, page.text.size(), output());
  std::fflush(output());
  return page.error;
}

std::string answer_locally(const std::string& query, Caller caller,
                           const std::function<void(JsonValue&)>& work) {
  for (const char* name : {"REQUEST_METHOD", "CONTENT_TYPE", "CONTENT_LENGTH", "HTTP_ACCEPT"})
    unsetenv(name);
  setenv("QUERY_STRING", query.c_str(), 1);
  withhold_request();
  return printed([&](std::FILE* stream) {
    local_output = stream;
    local_caller = caller;
    JsonValue response;
    work(response);
    local_caller = OF_SESSION;
    local_output = nullptr;
  });
}

}  // namespace cgi
}  // namespace ormel
