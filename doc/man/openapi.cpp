// The routes as a document of OpenAPI 3.1, from the same texts as their page.
#include <algorithm>

#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/options/table.h"
#include "ormel/web/access.h"
#include "ormel/web/routes.h"
#include "page.h"
#include "route_text.h"

namespace manual {

namespace {

using ormel::Json;
using ormel::cgi::Route;

constexpr unsigned int HIGHEST_STATUS = 255;
constexpr unsigned int NO_CODE = 1'000'000;
constexpr const char* FORM = "application/x-www-form-urlencoded";
constexpr const char* UPLOAD = "multipart/form-data";

Json text(const std::string& value) {
  return Json{json_string(value.c_str())};
}

void set(const Json& object, const std::string& key, Json value) {
  json_object_set_new(object.get(), key.c_str(), value.release());
}

Json reference(const char* kind, const char* name) {
  return Json{
      json_pack("{s:o}", "$ref", text(std::string("#/components/") + kind + '/' + name).release())};
}

// Mark-up of the pages is what Markdown takes as well, but for an escaped character.
std::string paragraphs(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += (out.empty() ? "" : "\n") + line;
  return out;
}

Json schema_of(const Variable& variable) {
  const bool file = variable.type == "file";
  Json schema{json_pack("{s:s}", "type", file ? "string" : variable.type.c_str())};
  if (file) set(schema, "contentMediaType", text("application/octet-stream"));
  if (!variable.fallback.empty())
    set(schema, "default",
        variable.type == "integer" ? Json{json_integer(std::stoll(variable.fallback))}
                                   : text(variable.fallback));
  if (!variable.text.empty()) set(schema, "description", text(variable.text));
  if (!variable.repeated) return schema;
  return Json{json_pack("{s:s, s:o}", "type", "array", "items", schema.release())};
}

// The variables of a profile in the place of "*".
std::vector<Variable> expanded(const std::vector<Variable>& variables) {
  std::vector<Variable> all;
  for (const Variable& variable : variables) {
    if (variable.name != "*") {
      all.push_back(variable);
      continue;
    }
    for (const auto* row = ormel::option::COMMAND_OPTIONS; row->opt.name; ++row) {
      const bool known =
          std::ranges::find(variables, row->opt.name, &Variable::name) != variables.end();
      if (row->cgi && row->types != 0 && !known && row->opt.val == 0)
        all.push_back({.name = row->opt.name,
                       .type = "string",
                       .text = "As the option of ormel(8).",
                       .optional = true});
    }
  }
  return all;
}

Json parameters_of(const std::vector<Variable>& variables) {
  Json rows{json_array()};
  for (const Variable& variable : variables) {
    Json row{json_pack("{s:s, s:s, s:b, s:o}", "name", variable.name.c_str(), "in", "query",
                       "required", variable.optional ? 0 : 1, "schema",
                       schema_of(variable).release())};
    json_array_append_new(rows.get(), row.release());
  }
  return rows;
}

Json form_of(const std::vector<Variable>& variables) {
  Json properties{json_object()}, required{json_array()};
  for (const Variable& variable : variables) {
    set(properties, variable.name, schema_of(variable));
    if (!variable.optional) json_array_append_new(required.get(), text(variable.name).release());
  }
  set(properties, "sid", reference("schemas", "Session"));
  const bool upload = std::ranges::find(variables, "file", &Variable::type) != variables.end();
  Json schema{json_pack("{s:s, s:o}", "type", "object", "properties", properties.release())};
  if (json_array_size(required.get()) > 0) set(schema, "required", std::move(required));
  return Json{
      json_pack("{s:{s:{s:o}}}", "content", upload ? UPLOAD : FORM, "schema", schema.release())};
}

Json success_of(const RouteText& route) {
  Json properties{json_pack("{s:{s:i}}", "error", "const", 0)};
  if (route.answer == "any") {
    set(properties, "data", Json{json_object()});
  } else if (!route.answer.empty()) {
    set(properties, "data", Json{json_pack("{s:[s, s]}", "type", route.answer.c_str(), "null")});
  }
  for (const std::string& number : route.more)
    set(properties, number, Json{json_pack("{s:s}", "type", "integer")});
  return Json{json_pack("{s:s, s:[s], s:o}", "type", "object", "required", "error", "properties",
                        properties.release())};
}

Json envelope_of(const RouteText& route) {
  return Json{json_pack("{s:{s:{s:[o, o]}}}", "application/json", "schema", "anyOf",
                        success_of(route).release(), reference("schemas", "Failure").release())};
}

Json failure_content() {
  return Json{json_pack("{s:{s:o}}", "application/json", "schema",
                        reference("schemas", "Failure").release())};
}

// What a route answers with that sends no envelope on success.
Json file_content(const Route& route, const RouteText& described) {
  std::string media =
      route.answer.medium == ormel::cgi::PAGE_MEDIUM ? "text/html" : "application/octet-stream";
  if (described.answer == "file" && !described.more.empty()) media = described.more.front();
  Json content = failure_content();
  if (media != "application/json")
    set(content, media, Json{json_pack("{s:{s:s}}", "schema", "type", "string")});
  else
    content.reset(json_pack("{s:{s:{s:s}}}", media.c_str(), "schema", "type", "object"));
  return content;
}

Json responses_of(const Route& route, const RouteText& described) {
  const bool envelope = route.answer.medium == ormel::cgi::JSON_MEDIUM;
  Json content = envelope ? envelope_of(described) : file_content(route, described);
  Json all{json_pack("{s:{s:s, s:o}}", "200", "description",
                     envelope ? "The envelope; error is 0 on success."
                              : "What is sent; or the envelope of a failure.",
                     "content", content.release())};
  if (route.answer.medium == ormel::cgi::DOWNLOAD_MEDIUM)
    set(all, "404", Json{json_pack("{s:s}", "description", "Any failure, without an envelope.")});
  return all;
}

const char* session_of(const Route& route) {
  return route.access.least == ormel::GENERAL_USER ? "any" : "administrator";
}

Json security_of(const Route& route) {
  Json all{json_pack("[{s:[]}]", "session")};
  const auto scope = ormel::cgi::least_scope(route);
  if (scope)
    json_array_append_new(all.get(), json_pack("{s:[s]}", "token", ormel::token::name_of(*scope)));
  return all;
}

std::string operation_of(const std::string& path, const char* method) {
  std::string id = path.substr(1) + '/' + method;
  std::ranges::replace(id, '/', '_');
  return id;
}

Json operation(const Route& route, const RouteText& described, const char* method) {
  const std::string path(route.path);
  const bool post = std::string_view(method) == "post";
  const auto scope = ormel::cgi::least_scope(route);
  const size_t family = path.find('/', 1);
  const std::string tag = path.substr(family + 1, path.find('/', family + 1) - family - 1);
  const std::vector<Variable> variables = expanded(described.variables);
  Json object{json_pack(
      "{s:o, s:[s], s:o, s:o, s:o, s:{s:s, s:o, s:s}}", "operationId",
      text(operation_of(path, method)).release(), "tags", tag.c_str(), "description",
      text(paragraphs(described.prose)).release(), "security", security_of(route).release(),
      "responses", responses_of(route, described).release(), "x-least", "session",
      session_of(route), "token", scope ? json_string(ormel::token::name_of(*scope)) : json_null(),
      "effect", route.effect == ormel::cgi::CHANGES ? "changes" : "reads")};
  if (post)
    set(object, "requestBody", form_of(variables));
  else
    set(object, "parameters", parameters_of(variables));
  return object;
}

// A route that changes something or takes uploads is a POST, although a GET works as well.
Json path_item(const Route& route, const RouteText& described) {
  Json item{json_object()};
  set(item, "post", operation(route, described, "post"));
  const bool upload =
      std::ranges::find(described.variables, "file", &Variable::type) != described.variables.end();
  if (route.effect == ormel::cgi::READS && !upload)
    set(item, "get", operation(route, described, "get"));
  return item;
}

std::string codes() {
  std::string all;
  const std::string unknown = ormel::get_error_message(NO_CODE);
  for (unsigned int code = 1; code <= HIGHEST_STATUS; ++code) {
    const std::string meaning = ormel::get_error_message(code);
    if (meaning != unknown) all += "\n- " + std::to_string(code) + ": " + meaning;
  }
  return all;
}

Json components() {
  return Json{json_pack(
      "{s:{s:{s:s, s:s, s:s, s:s}, s:{s:s, s:s, s:s}}, s:{s:{s:s, s:s}, s:{s:s, s:[s, s], "
      "s:{s:{s:s, s:o}, s:{s:s}}}}}",
      "securitySchemes",                                                                   //
      "session", "type", "apiKey", "in", "query", "name", "sid", "description",            //
      "A session; with POST it belongs into the form, never into the address.",            //
      "token", "type", "http", "scheme", "bearer", "description",                          //
      "A token of ormelctl token add, where no sid is given.",                             //
      "schemas",                                                                           //
      "Session", "type", "string", "description", "The session; not with a token.",        //
      "Failure", "type", "object", "required", "error", "reason", "properties",            //
      "error", "type", "integer", "description", text("The code:\n" + codes()).release(),  //
      "reason", "type", "string")};
}

}  // namespace

void put_openapi(Page& page, const Words&) {
  Json paths{json_object()};
  for (const Route& route : ormel::cgi::routes()) {
    const std::string path(route.path);
    const RouteText described = route_text(page.texts("routes").of(path));
    set(paths, path, path_item(route, described));
  }
  const Json document{json_pack(
      "{s:s, s:{s:s, s:s, s:s, s:{s:s, s:s}}, s:[{s:s}], s:o, s:o}", "openapi", "3.1.0", "info",
      "title", "ormel", "version", ORMEL_VERSION, "description",
      "The routes of the VPN service. Every answer is an HTTP 200 with a JSON object, unless said "
      "otherwise; its member error alone tells the outcome.",
      "license", "name", "MIT", "identifier", "MIT", "servers", "url", "/", "paths",
      paths.release(), "components", components().release())};
  const ormel::CString shown{json_dumps(document.get(), JSON_INDENT(1))};
  if (!shown) fail("the description of the routes is not valid UTF-8");
  page.out() << (shown ? shown.get() : "") << '\n';
}

}  // namespace manual
