// The page that a browser comes back to from the login provider.
#include <fcntl.h>

#include "ormel/base/file.h"
#include "ormel/base/log.h"
#include "ormel/host/settings.h"
#include "ormel/membership/organization.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/token.h"
#include "ormel/web/membership.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::pelmar {

namespace {

using namespace ormel::pelmar;

constexpr size_t LARGEST_RESULT = 10000;
constexpr const char* PAGE_FILE = "/opt/www/redirect.html";  // below the application's folder
constexpr std::string_view RESULT_MARK = "$RESULT";

bool has_result(const Request& request) {
  if (!request.has("result")) {
    ORMEL_LOG(ERROR, "OAuth result parameter missing");
    return false;
  }
  const size_t size = std::string_view(request.value("result")).size();
  if (size == 0) {
    ORMEL_LOG(ERROR, "OAuth result parameter is empty");
    return false;
  }
  if (size > LARGEST_RESULT) {
    ORMEL_LOG(ERROR, "OAuth result too large: %zu bytes", size);
    return false;
  }
  ORMEL_LOG(INFO, "OAuth result size: %zu bytes", size);
  return true;
}

bool make_account_file() {
  if (Fd{open(TAMID_CONF, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, fenro::PRIVATE_FILE)})
    return true;
  ORMEL_LOG(ERROR, "Failed to open %s for writing", TAMID_CONF);
  return false;
}

bool read_template(std::string& out) {
  std::string folder;
  if (get_install_path(folder) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get install path");
    return false;
  }
  if (folder.empty() || has_path_traversal(folder)) {
    ORMEL_LOG(ERROR, "Invalid install path");
    return false;
  }
  const std::string path = folder + PAGE_FILE;
  ORMEL_LOG(INFO, "callback_html_path: %s", path.c_str());
  if (has_path_traversal(path)) {
    ORMEL_LOG(ERROR, "Invalid callback HTML path");
    return false;
  }
  if (system::read_file(path.c_str(), out)) return true;
  ORMEL_LOG(ERROR, "Failed to open callback HTML file: %s", path.c_str());
  return false;
}

// 0, or the code that the page tells.
int save_login(const char* result) {
  if (save_skarn_token(result) != NO_ERROR) {
    ORMEL_LOG(ERROR, "[OAUTH] Failed to save skarnToken");
    return ERR_MYVANTRICLOUD_OAUTH_DECODE_ERROR;
  }
  if (const int rc = set_pelmar_tamid_conf(); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "[OAUTH] Failed to set pelmar tamid.conf");
    return rc;
  }
  if (system::setcfg_wrapper(TAMID_CONF, TAMID_SECTION, TOKEN_STATUS_KEY, LOGIN_STATUS) == NO_ERROR)
    return NO_ERROR;
  ORMEL_LOG(ERROR, "[OAUTH] Failed to set tamid_token_status");
  return ERR_CMD_FAILED;
}

// The text of the reply as the inside of a string of the page's script.
std::string result_text(int error) {
  JsonValue reply;
  reply["error"] = error;
  reply["reason"] = error == NO_ERROR ? "OAuth login successful"
                                      : get_error_message(static_cast<unsigned int>(error));
  std::string text;
  reply.toString(text);
  std::string out;
  for (const char c : text) {
    if (c == '"') out += '\\';
    out += c;
  }
  return out;
}

// A login that cannot be shown to the user is not kept either: the page stays empty then.
void log_in(const Request& request, Page& page) {
  if (has_result(request) && make_account_file() && read_template(page.text)) {
    page.error = save_login(request.value("result"));
    const size_t mark = page.text.find(RESULT_MARK);
    if (mark != std::string::npos)
      page.text.replace(mark, RESULT_MARK.size(), result_text(page.error));
  } else {
    page.text.clear();
  }
  ORMEL_LOG(INFO, "Serving OAuth callback HTML page\n%s\n", page.text.c_str());
}

constexpr Route ROWS[] = {
    {"/ormel/oauth_login", ADMINISTRATOR, CHANGES, page<log_in>},
};

}  // namespace

const Routes LOGIN{ROWS};

}  // namespace ormel::cgi::pelmar
