// The frame of every route: a parsed request, the level of its session, and one reply.
//
// The envelope is a JSON object: `error` always, `reason` on failure, `data` on success where the
// route has data. Every answer is an HTTP 200; `error` alone tells the outcome.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/types.h"
#include "ormel/actions/token.h"
#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/json.h"
#include "ormel/cgi/cgi.h"
#include "ormel/changes/snapshot.h"

namespace ormel {

// The answer is "application/json"; "text/plain" for a client that takes anything.
extern bool support_json_type;

namespace system {

// The level of a session: INVAILD_USER for none, ADMIN_USER for a member of "administrators", else
// GENERAL_USER.
[[nodiscard]] USER_TYPE auth_user_session(const char* sid);

}  // namespace system

namespace cgi {

// The parsed form and the level of its session, or of the token that comes in the place of one.
// What the environment said about the request is gone from it afterwards, so that no program
// started later inherits a password or a session.
class Request : public CgiRequest {
 public:
  explicit Request(cgi_var_mode repeats = OVERRIDE_VAR_MODE);

  [[nodiscard]] USER_TYPE user() const { return user_; }
  // The token of the request; null with a session, and where neither is needed.
  [[nodiscard]] const ormel::token::Holder* token() const { return token_ ? &*token_ : nullptr; }
  // A call of a program within its own process, and not of a session.
  [[nodiscard]] bool is_local() const { return local_; }
  // The user of the session; root for such a call.
  [[nodiscard]] std::string name() const;
  // Called by a route that changes something when this request has not.
  void changes_nothing() const { changes_ = false; }
  [[nodiscard]] bool is_change() const { return changes_; }
  // A variable that is there and not empty.
  [[nodiscard]] bool filled(const char* name) const { return *value(name) != '\0'; }
  // The number that a variable says, `fallback` for one that is missing or empty.
  [[nodiscard]] int number(const char* name, int fallback) const;
  // The same, of any size; nothing for a text that is not one whole number.
  [[nodiscard]] std::optional<int64_t> whole(const char* name, int64_t fallback) const;
  // All values of a variable, in their order, where repeated ones count; those that are missing or
  // damaged are left out. They may be written to.
  [[nodiscard]] std::vector<char*> values(const char* name) const;

 private:
  USER_TYPE user_;
  bool local_;
  std::optional<ormel::token::Holder> token_;
  mutable bool changes_ = true;
};

// Who may use a route, and the code that a general user gets where only administrators may.
struct Access {
  USER_TYPE least;
  ERROR_CODE refusal;
};

constexpr Access ANY_SESSION{GENERAL_USER, ERR_SESSION_FAIL};
constexpr Access ADMINISTRATOR{ADMIN_USER, ERR_SESSION_FAIL};
constexpr Access ADMINISTRATOR_BY_NAME{ADMIN_USER,
                                       ERR_NOT_ADMIN_SESSION};  // tells a general user why

// Whether a route changes settings, tunnels or logs for its user, or gives out all secrets. Both of
// these are in the audit trail.
enum Effect { READS, REVEALS, CHANGES };

// How a route ends that says more of a failure than its code.
struct Outcome {
  int code = NO_ERROR;
  std::string reason{};     // replaces the code's own text
  bool keeps_data = false;  // sends what the work has put into the response along with the failure
};

// A short file that a route sends instead of the envelope.
struct Download {
  std::string
      head;  // lines of the HTTP head, each with its line end, without the empty one that closes it
  std::string body;
};

// A file of any size that a route sends.
struct SentFile {
  std::string head;  // as above, without the line of its length
  File content;
};

// A page that a browser shows; `error` is the code of what it reports.
struct Page {
  std::string text;
  int error = NO_ERROR;
};

// The work of one route on a request whose session is good enough: fills the answer and returns 0
// or an ERROR_CODE.
using Work = int (*)(const Request& request, JsonValue& response);
using DetailedWork = Outcome (*)(const Request& request, JsonValue& response);
using DownloadWork = int (*)(const Request& request, Download& file);
using FileWork = int (*)(const Request& request, SentFile& file);
using PageWork = void (*)(const Request& request, Page& page);

// What a route answers with.
enum Medium { JSON_MEDIUM, DOWNLOAD_MEDIUM, FILE_MEDIUM, PAGE_MEDIUM };

struct Answer {
  Medium medium;
  int (*give)(const Request& request,
              JsonValue& response);  // does the work and prints; the code of the answer
};

// One row of the route table.
struct Route {
  std::string_view path;  // matched exactly
  Access access;
  Effect effect;
  Answer answer;
  cgi_var_mode repeats = OVERRIDE_VAR_MODE;  // what becomes of a variable that comes more than once
};

// A part of the table, in the file of its routes.
using Routes = std::span<const Route>;

// Answers a request by its route: parses the form, checks the session, does the work, prints the
// one reply and frees the form with its uploads. Returns the code of the reply.
int serve(const Route& route, JsonValue& response);

// Who sends a request, and from where, as the origin of a change.
[[nodiscard]] changes::Origin origin_of(const Request& request, const std::string& what);

// Answers with a failure: logs it, prints the envelope and returns the code.
int fail(JsonValue& response, const Outcome& outcome);
// The text of a code.
[[nodiscard]] std::string reason_of(int code);

// Each prints the answer of a work that has ended. Returns the code, or another failure when the
// client went away.
int answer_json(JsonValue& response, const Outcome& outcome);
int answer_download(const Download& file, int code);
int answer_file(JsonValue& response, const SentFile& file, int code);
int answer_page(const Page& page);

// The envelope. On a failure what the work has put into the response is thrown away. `work` is a
// Work or a DetailedWork.
template <auto work>
constexpr Answer json{JSON_MEDIUM, [](const Request& request, JsonValue& response) {
                        return answer_json(response, Outcome{work(request, response)});
                      }};

// A short file, which is complete before anything of it is sent. Each failure, a bad session
// included, is the same "404 Not Found". `delivered` is called once the client has the file.
template <DownloadWork work, void (*delivered)() = nullptr>
constexpr Answer download{DOWNLOAD_MEDIUM, [](const Request& request, JsonValue&) {
                            Download file;
                            const int code = work(request, file);
                            const int rc = answer_download(file, code);
                            if (delivered != nullptr && rc == NO_ERROR) delivered();
                            return rc;
                          }};

// A file of any size, whose failures are reported in the envelope.
template <FileWork work>
constexpr Answer file{FILE_MEDIUM, [](const Request& request, JsonValue& response) {
                        SentFile sent;
                        const int code = work(request, sent);
                        return answer_file(response, sent, code);
                      }};

// A page, which reports its failures itself; a session that is not good enough is reported in the
// envelope.
template <PageWork work>
constexpr Answer page{PAGE_MEDIUM, [](const Request& request, JsonValue&) {
                        Page shown;
                        work(request, shown);
                        return answer_page(shown);
                      }};

// Whose request an answer within this process is: that of the session which the form names, or of a
// local administrator without a session.
enum Caller { OF_SESSION, LOCAL_ADMINISTRATOR };

// Returns what a web server would be sent for `work`, with `query` as the URL-encoded form.
[[nodiscard]] std::string answer_locally(const std::string& query, Caller caller,
                                         const std::function<void(JsonValue& response)>& work);

}  // namespace cgi
}  // namespace ormel
