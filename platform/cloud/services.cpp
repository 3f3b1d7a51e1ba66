#include "cloud/services.h"

#include <string_view>

#include "base/base64.h"
#include "base/file.h"

namespace fenro::cloud {

namespace {

constexpr const char* PELMAR_TOKEN = "pelmar-token";  // token of an authorised call
constexpr const char* CLOUD_TOKEN = "cloud-token";
constexpr const char* REFRESH_TOKEN = "refresh-token";
constexpr const char* DEVICE_TOKEN = "token-of-";  // followed by the device's id
constexpr int LOGIN_LIFE = 3600;                   // seconds
constexpr int TOKEN_LIFE = 1800;
constexpr const char* LOGIN_PAGE[] = {  // the code goes between both parts
    R"(<!DOCTYPE html><html lang="en"><meta charset="utf-8"><title>Login of the demonstration</title>
<h1>You are logged in</h1><p>Everybody is, in this demonstration. Copy this code into the page of your appliance:</p>
<pre id="code" style="user-select: all; white-space: pre-wrap; overflow-wrap: anywhere">)",
    "</pre></html>\n"};

Json load(const std::string& path) {
  std::string text;
  if (read_file(path.c_str(), text) != 0) return Json{json_object()};
  Json root{json_loadb(text.data(), text.size(), 0, nullptr)};
  return root ? std::move(root) : Json{json_object()};
}

HttpReply reply_with(const Json& document, int status = 200) {
  return {.status = status, .body = compact(document.get())};
}

HttpReply refuse(int status, const char* message) {
  return reply_with(Json{json_pack("{s:i, s:s}", "code", status, "message", message)}, status);
}

std::string header(const HttpRequest& request, const char* name) {
  const auto found = request.headers.find(name);
  return found == request.headers.end() ? "" : found->second;
}

// A fault in place of an answer.
HttpReply faulty(const json_t* fault, HttpReply reply) {
  const auto number = [&](const char* key, json_int_t fallback) {
    const json_t* const value = json_object_get(fault, key);
    return json_is_integer(value) ? json_integer_value(value) : fallback;
  };
  reply.status = static_cast<int>(number("status", reply.status));
  if (const char* const body = text_or_null(fault, "body")) reply.body = body;
  if (const char* const headers = text_or_null(fault, "headers")) reply.more_headers = headers;
  reply.padding = static_cast<std::size_t>(number("padding", 0));
  reply.delay = std::chrono::milliseconds{number("delay", 0)};
  reply.hang_up = json_is_true(json_object_get(fault, "hang_up"));
  return reply;
}

bool holds(const json_t* list, std::string_view text) {
  std::size_t index = 0;
  json_t* item = nullptr;
  json_array_foreach(list, index, item) {
    if (json_is_string(item) && text == json_string_value(item)) return true;
  }
  return false;
}

}  // namespace

struct Services::Operation {
  const char* method;
  std::string_view before;  // the path up to the device's id; the whole path without an id
  std::string_view behind;  // the path after the id
  const char* header;       // that carries the token; null for a public route
  const char* scheme;       // before the token
  const char* token;        // DEVICE_TOKEN means the device's own token
  HttpReply (Services::*act)(const HttpRequest& request, const std::string& device);
};

// A longer path must precede any shorter path that is its prefix.
const Services::Operation Services::OPERATIONS[] = {
    // clang-format off
    {"GET",    "/v1.2/organization",                   "",                "authorization", "Bearer ", CLOUD_TOKEN,  &Services::list_organizations},
    {"POST",   "/v1.2/organization",                   "",                "authorization", "Bearer ", CLOUD_TOKEN,  &Services::create_organization},
    {"GET",    "/v1.2/organization/",                  "/site",           "authorization", "Bearer ", CLOUD_TOKEN,  &Services::list_sites},
    {"GET",    "/v1/login",                            "",                nullptr,         "",        "",           &Services::log_in},
    {"POST",   "/v1/token",                            "",                nullptr,         "",        "",           &Services::renew_login},
    {"GET",    "/v1.1/address",                        "",                nullptr,         "",        "",           &Services::location},
    {"GET",    "/v1.1/location",                       "",                nullptr,         "",        "",           &Services::location},
    {"POST",   "/pelmar/morvi/api/v1/token",           "",                "skarntoken",    "",        CLOUD_TOKEN,  &Services::give_token},
    {"GET",    "/v1.1/me",                             "",                "authorization", "Bearer ", CLOUD_TOKEN,  &Services::account},
    {"POST",   "/dalnet/morvi/api/v1/edge",            "",                "skarntoken",    "",        CLOUD_TOKEN,  &Services::register_edge},
    {"GET",    "/pelmar/morvi/api/v1/vpn_topology",    "",                "authorization", "Pluser ", PELMAR_TOKEN, &Services::list_groups},
    {"POST",   "/pelmar/morvi/api/v1/ip_subnet_check", "",                "authorization", "Pluser ", PELMAR_TOKEN, &Services::check_subnet},
    {"GET",    "/dalnet/morvi/api/v1/devices/",        "/cloudagent_cfg", "authorization", "",        PELMAR_TOKEN, &Services::configure_agent},
    {"GET",    "/dalnet/morvi/api/v1/devices/",        "/membership",     "authorization", "Device ", DEVICE_TOKEN, &Services::membership},
    {"PUT",    "/dalnet/morvi/api/v1/devices/",        "/network",        "authorization", "Device ", DEVICE_TOKEN, &Services::note_network},
    {"GET",    "/dalnet/morvi/api/v1/devices/",        "",                "authorization", "",        PELMAR_TOKEN, &Services::register_device},
    {"DELETE", "/dalnet/morvi/api/v1/devices/",        "",                "authorization", "",        PELMAR_TOKEN, &Services::remove_device},
    // clang-format on
};

Services::Services(std::string folder)
    : folder_(std::move(folder)), world_(load(folder_ + "/world.json")), devices_(json_object()) {}

HttpReply Services::answer(const HttpRequest& request) {
  record(request);
  const Json faults = load(folder_ + "/faults.json");
  const json_t* const fault =
      json_object_get(faults.get(), (request.method + ' ' + request.path).c_str());
  // A fault with a status or body also means that the cloud has not done the work.
  const bool works = !json_object_get(fault, "status") && !json_object_get(fault, "body");
  HttpReply reply = works ? dispatch(request) : HttpReply{};
  return fault ? faulty(fault, std::move(reply)) : reply;
}

HttpReply Services::dispatch(const HttpRequest& request) {
  for (const Operation& operation : OPERATIONS) {
    const std::string_view path = request.path;
    if (request.method != operation.method || !path.starts_with(operation.before) ||
        !path.ends_with(operation.behind) ||
        path.size() < operation.before.size() + operation.behind.size()) {
      continue;
    }
    const std::string device{path.substr(
        operation.before.size(), path.size() - operation.before.size() - operation.behind.size())};
    if (operation.before.ends_with('/') == device.empty()) continue;
    const std::string token = operation.scheme + std::string(operation.token) +
                              (operation.token == DEVICE_TOKEN ? device : "");
    if (operation.header && header(request, operation.header) != token)
      return refuse(401, "not authorised");
    return (this->*operation.act)(request, device);
  }
  return refuse(404, "no such operation");
}

HttpReply Services::list_organizations(const HttpRequest&, const std::string&) {
  return reply_with(Json{json_pack("{s:i, s:O}", "code", 0, "result", world("organizations"))});
}

HttpReply Services::create_organization(const HttpRequest& request, const std::string&) {
  const Json wish{json_loads(request.body.c_str(), 0, nullptr)};
  const char* const name = text_or_null(wish.get(), "name");
  if (!name) return refuse(400, "no name");
  const std::string id = "org-" + std::to_string(next_++);
  json_array_append_new(world("organizations"),
                        json_pack("{s:s, s:s}", "name", name, "organization_id", id.c_str()));
  return reply_with(
      Json{json_pack("{s:i, s:{s:s}}", "code", 0, "result", "organization_id", id.c_str())});
}

HttpReply Services::account(const HttpRequest&, const std::string&) {
  return reply_with(Json{json_pack("{s:O}", "result", world("account"))});
}

HttpReply Services::register_edge(const HttpRequest& request, const std::string&) {
  Json device{json_loads(request.body.c_str(), 0, nullptr)};
  if (!json_is_object(device.get())) return refuse(400, "no device");
  const int number = next_++;
  const std::string id = "device-" + std::to_string(number);
  json_object_set_new(devices_.get(), id.c_str(), device.release());
  return reply_with(
      Json{json_pack("{s:s, s:s, s:i, s:O}", "deviceId", id.c_str(), "pelmarToken", PELMAR_TOKEN,
                     "serialNumber", 4000 + number, "virtualIP", world("address"))});
}

HttpReply Services::list_groups(const HttpRequest&, const std::string&) {
  return reply_with(Json{json_pack("{s:{s:O}}", "data", "vpnGroups", world("groups"))});
}

HttpReply Services::register_device(const HttpRequest&, const std::string& device) {
  if (!json_object_get(devices_.get(), device.c_str())) return refuse(404, "no such device");
  return reply_with(Json{json_pack("{s:s}", "id", device.c_str())});
}

HttpReply Services::configure_agent(const HttpRequest& request, const std::string& device) {
  if (!json_object_get(devices_.get(), device.c_str())) return refuse(404, "no such device");
  if (request.query != "format=json") return refuse(400, "no such format");
  const std::string text =
      "DEV_ID=\"" + device + "\"\nDEV_TOKEN=\"" + DEVICE_TOKEN + device + "\"\n";
  return reply_with(Json{json_pack("{s:s}", "cloudagentCfg", text.c_str())});
}

HttpReply Services::check_subnet(const HttpRequest& request, const std::string&) {
  const Json question{json_loads(request.body.c_str(), 0, nullptr)};
  const json_t* const first = json_array_get(json_object_get(question.get(), "data"), 0);
  const char* const ip = text_or_null(first, "ip");
  if (!ip || !json_is_array(json_object_get(first, "excludedSubnets")))
    return refuse(400, "no address");
  if (!holds(world("taken"), ip)) return reply_with(Json{json_pack("{s:[]}", "data")});
  return reply_with(
      Json{json_pack("{s:[{s:{s:O}}]}", "data", "data", "sugIPNet", world("suggestion"))}, 409);
}

HttpReply Services::remove_device(const HttpRequest& request, const std::string& device) {
  if (header(request, "skarntoken") != CLOUD_TOKEN) return refuse(401, "not authorised");
  if (json_object_del(devices_.get(), device.c_str()) != 0) return refuse(404, "no such device");
  return reply_with(Json{json_pack("{s:s}", "removed", device.c_str())});
}

HttpReply Services::list_sites(const HttpRequest&, const std::string& organization) {
  return reply_with(Json{json_pack("{s:i, s:[{s:s}]}", "code", 0, "result", "organization_site_id",
                                   ("site-of-" + organization).c_str())});
}

// Returns the login result, as a page for clients that accept HTML. Every login succeeds here.
HttpReply Services::log_in(const HttpRequest& request, const std::string&) {
  const Json answer{json_pack("{s:s, s:s, s:i}", "access_token", CLOUD_TOKEN, "refresh_token",
                              REFRESH_TOKEN, "expires_in", LOGIN_LIFE)};
  const std::string code = to_base64(compact(answer.get()));
  if (header(request, "accept").find("text/html") == std::string::npos) return {.body = code};
  return {.body = std::string(LOGIN_PAGE[0]) + code + LOGIN_PAGE[1],
          .type = "text/html; charset=utf-8"};
}

HttpReply Services::renew_login(const HttpRequest& request, const std::string&) {
  const Json wish{json_loads(request.body.c_str(), 0, nullptr)};
  const char* const token = text_or_null(wish.get(), "refresh_token");
  if (!token || std::string_view{token} != REFRESH_TOKEN) return refuse(401, "not authorised");
  return reply_with(
      Json{json_pack("{s:s, s:i}", "access_token", CLOUD_TOKEN, "expires_in", LOGIN_LIFE)});
}

HttpReply Services::location(const HttpRequest&, const std::string&) {
  return reply_with(Json{json_pack("{s:O}", "result", world("location"))});
}

HttpReply Services::give_token(const HttpRequest& request, const std::string&) {
  const Json wish{json_loads(request.body.c_str(), 0, nullptr)};
  if (!text_or_null(wish.get(), "orgId")) return refuse(400, "no organisation");
  return reply_with(
      Json{json_pack("{s:s, s:i}", "pelmarToken", PELMAR_TOKEN, "expires_in", TOKEN_LIFE)});
}

HttpReply Services::membership(const HttpRequest&, const std::string& device) {
  if (!json_object_get(devices_.get(), device.c_str())) return refuse(404, "no such device");
  return reply_with(Json{json_incref(world("membership"))});
}

HttpReply Services::note_network(const HttpRequest& request, const std::string& device) {
  json_t* const known = json_object_get(devices_.get(), device.c_str());
  if (!known) return refuse(404, "no such device");
  Json network{json_loads(request.body.c_str(), 0, nullptr)};
  if (!json_is_object(network.get())) return refuse(400, "no network");
  json_object_set_new(known, "network", network.release());
  return reply_with(Json{json_object()});
}

void Services::record(const HttpRequest& request) const {
  Json headers{json_object()};
  for (const auto& [name, value] : request.headers)
    json_object_set_new(headers.get(), name.c_str(), json_text(value).release());
  const Json line{json_pack("{s:o, s:s, s:o, s:s, s:o, s:o}", "host",
                            json_text(header(request, "host")).release(), "method",
                            request.method.c_str(), "path", json_text(request.path).release(),
                            "query", request.query.c_str(), "headers", headers.release(), "body",
                            json_text(request.body).release())};
  const File file{std::fopen((folder_ + "/requests").c_str(), "ae")};
  if (file) std::fprintf(file.get(), "%s\n", compact(line.get()).c_str());
}

}  // namespace fenro::cloud
