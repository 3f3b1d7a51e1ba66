#include "gate/rules.h"

#include <algorithm>
#include <cstdlib>
#include <strings.h>
#include <tuple>

#include "gate/fastcgi.h"
#include "ormel/cgi/cgi_parser.h"
#include "ormel/cgi/formpart.h"
#include "ormel/cgi/multipart.h"

namespace fenro::gate {
namespace {

using std::chrono::seconds;

constexpr std::size_t FORM = std::size_t{64} << 10U;
constexpr std::size_t UPLOAD = std::size_t{2} << 20U;  // an encoded file of 1 MiB and its form
constexpr seconds FORM_TIME{10};
constexpr seconds UPLOAD_TIME{30};
constexpr std::ptrdiff_t MOST_FIELDS = 4096;
constexpr std::size_t MOST_NAMES = 512;  // an upload has two: of the field and of the file

// Password checks are slow on purpose, and so are tunnels: both together leave a program for other
// requests. One address never occupies all logins.
constexpr Group PLAIN{PROGRAMS, PROGRAMS, seconds{30}};
constexpr Group LOGINS{4, 3, seconds{20}};
constexpr Group TUNNELS{3, 3, seconds{60}};
// What every user may do, and what takes its time: none of it keeps administrators waiting.
constexpr Group OWN{2, 1, seconds{30}};

constexpr Rule RULES[] = {
    {"/fenro/login", "POST", &LOGINS, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/config/add", "", &PLAIN, SLOTS | SAVE, UPLOAD, UPLOAD_TIME},
    {"/ormel/config/import", "", &PLAIN, SLOTS | SAVE, UPLOAD, UPLOAD_TIME},
    {"/ormel/config/check", "", &PLAIN, NO_LOCK, UPLOAD, UPLOAD_TIME},
    {"/ormel/config/report", "", &PLAIN, NO_LOCK, UPLOAD, UPLOAD_TIME},
    {"/ormel/config/modify", "", &TUNNELS, PROFILE | SAVE, UPLOAD, UPLOAD_TIME},
    {"/ormel/config/connect", "", &TUNNELS, PROFILE | SAVE, FORM, FORM_TIME},
    {"/ormel/config/disconnect", "", &TUNNELS, PROFILE | SAVE, FORM, FORM_TIME},
    {"/ormel/config/remove", "", &TUNNELS, SLOTS | PROFILE | SAVE, FORM, FORM_TIME},
    {"/ormel/config/download", "", &PLAIN, SAVE, FORM, FORM_TIME},
    {"/ormel/config/downloadcert", "", &PLAIN, SAVE, FORM, FORM_TIME},
    {"/ormel/backup/download", "", &TUNNELS, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/backup/inspect", "", &TUNNELS, NO_LOCK, UPLOAD, UPLOAD_TIME},
    {"/ormel/backup/restore", "", &TUNNELS, SLOTS | PROFILE | SAVE, UPLOAD, UPLOAD_TIME},
    {"/ormel/cert/renew", "", &TUNNELS, SLOTS | SAVE, FORM, FORM_TIME},
    {"/ormel/cert/rotate", "", &TUNNELS, SLOTS | SAVE, FORM, FORM_TIME},
    {"/ormel/connection/end", "", &TUNNELS, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/my/profile", "", &OWN, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/my/end", "", &OWN, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/my/device_add", "", &OWN, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/my/device_remove", "", &OWN, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/my/totp_begin", "", &LOGINS, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/my/totp_off", "", &LOGINS, NO_LOCK, FORM, FORM_TIME},
    {"/ormel/change/undo", "", &TUNNELS, SLOTS | SAVE, FORM, FORM_TIME},
    {"/ormel/change/revert", "", &TUNNELS, SLOTS | SAVE, FORM, FORM_TIME},
    {"/ormel/log/dump", "", &PLAIN, ARCHIVE, FORM, FORM_TIME},
};
constexpr Rule ALL_OTHERS{"", "", &PLAIN, NO_LOCK, FORM, FORM_TIME};

// Without a template the parser stops at an upload instead of creating its file.
constexpr cgi_settings WITHOUT_UPLOADS{.fstream = -1,
                                       .var_mode = OVERRIDE_VAR_MODE,
                                       .upload_tempname = "",
                                       .upload_limit = 1,
                                       .buffer_size = 1};

void parse_form(cgi_parser& parser, std::string_view text) {
  formpart_parser state;
  std::ignore = formpart_parser_execute(&parser, &state, text.data(), text.size());
  std::ignore = formpart_parser_execute(&parser, &state, "&", 1);
}

const char* value_of(const cgi_parser& parser, const char* name) {
  const char* const value = get_cgi_var_value(get_cgi_var(parser.var_list, name));
  return value ? value : "";
}

bool is_number(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

const Rule& rule_of(std::string_view path, std::string_view method) {
  const auto* const found = std::find_if(std::begin(RULES), std::end(RULES), [&](const Rule& rule) {
    return rule.path == path && (rule.method.empty() || rule.method == method);
  });
  return found == std::end(RULES) ? ALL_OTHERS : *found;
}

Profile profile_of(const Request& request) {
  const std::string type{request.variable("CONTENT_TYPE")}, body = request.body();
  cgi_parser parser{WITHOUT_UPLOADS, type.c_str()};
  if (!parser.var_list) return {};
  parse_form(parser, request.variable("QUERY_STRING"));
  if (const MultipartParser parts = new_multipart_parser(&parser))
    std::ignore = multipart_parser_execute(parts.get(), body.data(), body.size());
  else
    parse_form(parser, body);
  return {value_of(parser, "type"), std::strtol(value_of(parser, "index"), nullptr, 10)};
}

bool may_be_same(const Profile& one, const Profile& other) {
  if (one.index != other.index) return false;
  return is_number(one.type) != is_number(other.type) ||
         strcasecmp(one.type.c_str(), other.type.c_str()) == 0;
}

bool has_too_many_fields(const Request& request) {
  const std::string_view query = request.variable("QUERY_STRING");
  const std::string body = request.body();
  if (std::count(query.begin(), query.end(), '&') > MOST_FIELDS) return true;
  if (request.variable("CONTENT_TYPE").find("boundary=") == std::string_view::npos)
    return std::count(body.begin(), body.end(), '&') > MOST_FIELDS;
  // Independent of the boundary: each part has a header with its name.
  constexpr std::string_view NAME = "name=\"";
  std::size_t names = 0;
  for (std::size_t at = body.find(NAME); at != std::string::npos && names <= MOST_NAMES;
       at = body.find(NAME, at + 1))
    ++names;
  return names > MOST_NAMES;
}

}  // namespace fenro::gate
