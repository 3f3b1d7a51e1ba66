// The `ormel.cgi` personality: one web request, found in the route table and answered with one envelope.
//
// The envelope is a JSON object: `error` always, `reason` on failure, `data` on success where the route has data. Every
// answer is an HTTP 200; `error` alone tells the outcome.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ormel/cgi/cgi.h"
#include "ormel/error.h"
#include "ormel/handle.h"
#include "ormel/json.h"
#include "ormel/types.h"

namespace ormel {

// The answer is "application/json"; "text/plain" for a client that takes anything.
extern bool support_json_type;

namespace system {

// The level of a session: INVAILD_USER for none, ADMIN_USER for a member of "administrators", else GENERAL_USER.
[[nodiscard]] USER_TYPE auth_user_session(const char* sid);

}  // namespace system

namespace cgi {

// The personality. The code of the answer.
int main(int argc, char** argv);

// The parsed form and the level of its session. What the environment told of the request is gone from it afterwards,
// so that no program started later inherits a password or a session.
class Request : public CgiRequest {
 public:
  explicit Request(cgi_var_mode repeats = OVERRIDE_VAR_MODE);

  [[nodiscard]] USER_TYPE user() const { return user_; }
  // A variable that is there and not empty.
  [[nodiscard]] bool filled(const char* name) const { return *value(name) != '\0'; }
  // The number that a variable says, `fallback` for one that is missing or empty.
  [[nodiscard]] int number(const char* name, int fallback) const;
  // All values of a variable, in their order, where repeated ones count; those that are missing or damaged are left
  // out. They may be written to.
  [[nodiscard]] std::vector<char*> values(const char* name) const;

 private:
  USER_TYPE user_;
};

// Who may use a route, and the code that a general user gets where only administrators may.
struct Access {
  USER_TYPE least;
  ERROR_CODE refusal;
};

constexpr Access ANY_SESSION{GENERAL_USER, ERR_SESSION_FAIL};
constexpr Access ADMINISTRATOR{ADMIN_USER, ERR_SESSION_FAIL};
constexpr Access ADMINISTRATOR_BY_NAME{ADMIN_USER, ERR_NOT_ADMIN_SESSION};  // tells a general user why

// How a route ends that says more of a failure than its code.
struct Outcome {
  int code = NO_ERROR;
  std::string reason{};     // in place of the code's own text
  bool keeps_data = false;  // what the work has put into the response goes out with the failure
};

// The work of one route on a request whose session is good enough: fills `response` and gives 0 or an ERROR_CODE.
using Work = int (*)(const Request& request, JsonValue& response);
using DetailedWork = Outcome (*)(const Request& request, JsonValue& response);

// The frame of every handler: parses the request, checks its session, does the work, prints the one reply and frees the
// form with its uploads. On a failure what the work has put into `response` is thrown away. The code of the reply.
// `repeats` says what becomes of a variable that comes more than once.
int serve(JsonValue& response, Access access, Work work, cgi_var_mode repeats = OVERRIDE_VAR_MODE);
int serve(JsonValue& response, Access access, DetailedWork work, cgi_var_mode repeats = OVERRIDE_VAR_MODE);

// A file that a route sends in place of the envelope.
struct Download {
  std::string head;  // lines of the HTTP head, each with its line end, without the empty one that closes it
  std::string body;
};

// The same frame for a route that sends a file, which nobody sees before the work has ended well. Each failure, that of
// the session too, is one and the same "404 Not Found". The code; not 0 either when the client went away.
using DownloadWork = int (*)(const Request& request, Download& file);
int serve_download(Access access, DownloadWork work);

// A file of any size that a route sends, whose failures are told in the envelope.
struct SentFile {
  std::string head;  // as above, without the line of its length
  File content;
};
using FileWork = int (*)(const Request& request, SentFile& file);
int serve_file(JsonValue& response, Access access, FileWork work);

// A page that a browser is sent to; `error` is the code of what it tells.
struct Page {
  std::string text;
  int error = NO_ERROR;
};
// The same frame for a route that answers with a page: what went wrong is the page's to tell, but for a session that is
// not good enough, which is told in the envelope.
using PageWork = void (*)(const Request& request, Page& page);
int serve_page(JsonValue& response, Access access, PageWork work);

// One row of the route table.
struct Route {
  std::string_view path;  // matched exactly
  int (*handler)(JsonValue& response);
};

// The route table.
[[nodiscard]] std::span<const Route> routes();

}  // namespace cgi
}  // namespace ormel
