#include "ormel/web/cgi_main.h"

#include <string>

#include "ormel/base/log.h"
#include "ormel/config/pool.h"
#include "ormel/host/log_file.h"
#include "ormel/web/process.h"
#include "ormel/web/routes.h"

namespace ormel::cgi {

namespace {

constexpr std::string_view ANY_MEDIA_TYPE = "*/*";
constexpr std::string_view POOL_ROUTES = "/ormel/config/";  // what holds this works on the pool

}  // namespace

std::string call(std::string_view path, const std::string& query) {
  return answer_locally(query, LOCAL_ADMINISTRATOR, [path](JsonValue& response) {
    serve_path(path, response);
  });  // the answer has the code too
}

int main(int, char**) {
  open_standard_streams();
  withhold_request();
  const UploadsGuard guard;
  unblock_signals();

  const std::string url = environment("SCRIPT_URL");
  const std::string accept = environment("HTTP_ACCEPT");
  support_json_type = !accept.ends_with(ANY_MEDIA_TYPE);

  JsonValue response;
  system::set_log_file_wrapper();
  if (find_route(url)) {
    ORMEL_LOG(DEBUG, "==============API: %s==================", url.c_str());
    if (url.find(POOL_ROUTES) != std::string::npos) ormel::config::cm.load();
    system::log_rotate(__log_file__);
  }
  const int code = serve_path(url, response);
  end_answer();
  return code;
}

}  // namespace ormel::cgi
