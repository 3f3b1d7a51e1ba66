// The JSON schema of the document, and the check of a document by it.
#include <algorithm>

#include "base/grants.h"
#include "base/tunnel.h"
#include "ormelctl/advice.h"
#include "ormelctl/site.h"

namespace ormelctl::site {
namespace {

using ormel::Json;

constexpr const char* DIALECT = "https://json-schema.org/draft/2020-12/schema";

Json typed(const char* type) {
  return Json{json_pack("{s:s}", "type", type)};
}

Json one_of(const std::vector<std::string>& words) {
  Json list{json_array()};
  for (const std::string& word : words)
    json_array_append_new(list.get(), json_string(word.c_str()));
  return Json{json_pack("{s:s, s:o}", "type", "string", "enum", list.release())};
}

Json numbers(int first, int last) {
  return Json{json_pack("{s:s, s:i, s:i}", "type", "integer", "minimum", first, "maximum", last)};
}

// A text, a file that holds it, or the stored one.
Json secret() {
  return Json{json_loads(
      R"({"writeOnly": true, "anyOf": [
        {"type": "string"},
        {"type": "object", "additionalProperties": false, "required": ["file"],
         "properties": {"file": {"type": "string", "minLength": 1}}},
        {"type": "object", "additionalProperties": false, "required": ["kept"],
         "properties": {"kept": {"enum": [true]}}}]})",
      0, nullptr)};
}

Json object_of(Json properties, const std::vector<const char*>& required = {}) {
  Json rule{json_pack("{s:s, s:b, s:o}", "type", "object", "additionalProperties", 0, "properties",
                      properties.release())};
  if (required.empty()) return rule;
  Json names{json_array()};
  for (const char* name : required) json_array_append_new(names.get(), json_string(name));
  json_object_set_new(rule.get(), "required", names.release());
  return rule;
}

// Objects under names that the user chooses.
Json named(Json rule) {
  return Json{json_pack("{s:s, s:o}", "type", "object", "additionalProperties", rule.release())};
}

void set(const Json& object, const char* key, Json rule) {
  json_object_set_new(object.get(), key, rule.release());
}

// What a member of a record takes, by the kind of its field.
struct KindOf {
  Json operator()(bool ormel::config::BaseConfig::*) const { return typed("boolean"); }
  Json operator()(std::string ormel::config::BaseConfig::*) const { return typed("string"); }
  Json operator()(ormel::ENCRYPTION ormel::config::BaseConfig::*) const {
    return numbers(ormel::NONE_ENCRYPTION, ormel::HIGH_ENCRYPTION);
  }
  Json operator()(ormel::AUTHENTICATION ormel::config::BaseConfig::*) const {
    return numbers(ormel::PAP_AUTHENTICATION, ormel::CHAP_AUTHENTICATION);
  }
  template <typename Number>
  Json operator()(Number ormel::config::BaseConfig::*) const {
    return typed("integer");
  }
};

void set_members(const Json& properties, ormel::TYPE type) {
  set(properties, "enable", typed("boolean"));
  for (const Member& member : members_of(type)) {
    set(properties, member.name.c_str(),
        member.secret ? secret() : std::visit(KindOf{}, member.field->member));
  }
}

Json server_rules() {
  Json servers{json_object()};
  for (const Protocol& protocol : protocols()) {
    const Json properties{json_object()};
    set_members(properties, protocol.server);
    set(servers, protocol.name.c_str(), object_of(Json{json_incref(properties.get())}));
  }
  return object_of(std::move(servers));
}

Json profile_rules() {
  Json kinds{json_array()};
  for (const Protocol& protocol : protocols()) {
    Json properties{json_object()};
    set(properties, "protocol", one_of({protocol.name}));
    set(properties, "name", typed("string"));
    set_members(properties, protocol.client);
    if (protocol.client == ormel::OVPN_CLIENT_TYPE) set(properties, PROFILE_TEXT, secret());
    json_array_append_new(kinds.get(), object_of(std::move(properties), {"protocol"}).release());
  }
  return named(Json{json_pack("{s:o}", "oneOf", kinds.release())});
}

Json peer_rules() {
  Json properties{json_object()};
  for (const char* text : {"name", "peer_pub_key", "peer_allow_ip", "peer_endpoint", "owner"})
    set(properties, text, typed("string"));
  set(properties, "keepalive", numbers(0, 65535));
  set(properties, "psk", secret());
  return named(object_of(std::move(properties), {"peer_pub_key", "peer_allow_ip"}));
}

Json rights_rules() {
  std::vector<std::string> names;
  for (const Protocol& protocol : protocols()) {
    if (std::ranges::find(ormel::RIGHTS, protocol.server) != ormel::RIGHTS.end())
      names.push_back(protocol.name);
  }
  return named(Json{json_pack("{s:s, s:b, s:o}", "type", "array", "uniqueItems", 1, "items",
                              one_of(names).release())});
}

Json access_rules() {
  Json until{json_object()};
  for (const Protocol& protocol : protocols())
    set(until, protocol.name.c_str(),
        Json{json_pack("{s:s, s:i, s:I}", "type", "integer", "minimum", 1, "maximum",
                       json_int_t{fenro::LAST_SECOND})});
  Json properties{json_object()};
  set(properties, "until", object_of(std::move(until)));
  set(properties, "devices", numbers(0, fenro::MOST_DEVICES));
  return named(object_of(std::move(properties), {"until", "devices"}));
}

Json fixed(const char* properties) {
  return object_of(Json{json_loads(properties, 0, nullptr)});
}

Json notification_rules() {
  Json properties{json_object()};
  set(properties, "url", secret());  // of a webhook it often holds a token
  set(properties, "events",
      Json{json_pack("{s:s, s:o}", "type", "array", "items", typed("string").release())});
  set(properties, "secret", secret());
  return named(object_of(std::move(properties), {"url"}));
}

// The check. Only what the rules above are made of is known.

std::string fault(const std::string& path, const std::string& why) {
  return (path.empty() ? "the document" : path) + ' ' + why;
}

std::string below(const std::string& path, const char* key) {
  return (path.empty() ? "" : path + '.') + key;
}

struct TypeName {
  const char* name;
  bool (*holds)(const json_t* value);
  const char* words;
};
const TypeName TYPES[] = {
    {"object", [](const json_t* value) { return bool{json_is_object(value)}; }, "an object"},
    {"array", [](const json_t* value) { return bool{json_is_array(value)}; }, "a list"},
    {"string", [](const json_t* value) { return bool{json_is_string(value)}; }, "a text"},
    {"integer", [](const json_t* value) { return bool{json_is_integer(value)}; }, "a number"},
    {"boolean", [](const json_t* value) { return bool{json_is_boolean(value)}; }, "true or false"},
};

std::string check(const json_t* value, const json_t* rule, const std::string& path);

std::string check_type(const json_t* value, const json_t* rule, const std::string& path) {
  const std::string wanted = text_of(rule, "type");
  for (const TypeName& row : TYPES) {
    if (wanted == row.name && !row.holds(value))
      return fault(path, std::string("is not ") + row.words);
  }
  return {};
}

std::string check_words(const json_t* value, const json_t* rule, const std::string& path) {
  const json_t* const words = json_object_get(rule, "enum");
  if (!words) return {};
  std::string listed;
  size_t at = 0;
  const json_t* word = nullptr;
  json_array_foreach(words, at, word) {
    if (json_equal(word, value)) return {};
    listed += (listed.empty() ? "" : ", ") + shown(word);
  }
  return fault(path, "is not " + (json_array_size(words) == 1 ? listed : "one of " + listed));
}

std::string check_range(const json_t* value, const json_t* rule, const std::string& path) {
  const json_t* const least = json_object_get(rule, "minimum");
  const json_t* const most = json_object_get(rule, "maximum");
  if (!json_is_integer(value) || !least || !most) return {};
  const json_int_t number = json_integer_value(value);
  if (number >= json_integer_value(least) && number <= json_integer_value(most)) return {};
  return fault(path, "is not between " + shown(least) + " and " + shown(most));
}

std::string unknown_member(const json_t* properties, const std::string& path, const char* key) {
  std::vector<std::string> known;
  const char* name = nullptr;
  json_t* rule = nullptr;
  json_object_foreach(const_cast<json_t*>(properties), name, rule) known.emplace_back(name);
  const std::string meant = closest_name(key, known);
  return fault(below(path, key),
               "is not known" + (meant.empty() ? "" : "; did you mean \"" + meant + "\"?"));
}

std::string check_members(const json_t* value, const json_t* rule, const std::string& path) {
  const json_t* const properties = json_object_get(rule, "properties");
  const json_t* const others = json_object_get(rule, "additionalProperties");
  size_t at = 0;
  const json_t* name = nullptr;
  json_array_foreach(json_object_get(rule, "required"), at, name) {
    if (!json_object_get(value, json_string_value(name)))
      return fault(below(path, json_string_value(name)), "is missing");
  }
  const char* key = nullptr;
  json_t* member = nullptr;
  json_object_foreach(const_cast<json_t*>(value), key, member) {
    const json_t* own = json_object_get(properties, key);
    if (!own && json_is_object(others)) own = others;
    if (!own) return unknown_member(properties, path, key);
    if (std::string wrong = check(member, own, below(path, key)); !wrong.empty()) return wrong;
  }
  return {};
}

std::string check_items(const json_t* value, const json_t* rule, const std::string& path) {
  const json_t* const items = json_object_get(rule, "items");
  size_t at = 0;
  const json_t* item = nullptr;
  json_array_foreach(value, at, item) {
    const std::string place = path + '[' + std::to_string(at) + ']';
    if (std::string wrong = check(item, items, place); !wrong.empty()) return wrong;
  }
  return {};
}

std::string check_secret(const json_t* value, const json_t* rule, const std::string& path) {
  size_t at = 0;
  const json_t* kind = nullptr;
  json_array_foreach(json_object_get(rule, "anyOf"), at, kind) {
    if (check(value, kind, path).empty()) return {};
  }
  return fault(path, R"(is not a text, {"file": "PATH"} or {"kept": true})");
}

// Kinds are distinguished by their protocol, so that a fault is one of the right kind.
const json_t* kind_of(const json_t* value, const json_t* kinds) {
  size_t at = 0;
  const json_t* kind = nullptr;
  json_array_foreach(kinds, at, kind) {
    const json_t* const rule = json_object_get(json_object_get(kind, "properties"), "protocol");
    if (check_words(json_object_get(value, "protocol"), rule, "").empty()) return kind;
  }
  return nullptr;
}

std::string check_kinds(const json_t* value, const json_t* kinds, const std::string& path) {
  if (!json_is_object(value)) return fault(path, "is not an object");
  const json_t* const kind = kind_of(value, kinds);
  return kind ? check(value, kind, path)
              : fault(below(path, "protocol"), "is not one of " + protocol_names());
}

std::string check(const json_t* value, const json_t* rule, const std::string& path) {
  if (json_object_get(rule, "anyOf")) return check_secret(value, rule, path);
  if (const json_t* kinds = json_object_get(rule, "oneOf")) return check_kinds(value, kinds, path);
  for (const auto part : {check_type, check_words, check_range}) {
    if (std::string wrong = part(value, rule, path); !wrong.empty()) return wrong;
  }
  if (json_is_object(value)) return check_members(value, rule, path);
  return json_is_array(value) ? check_items(value, rule, path) : "";
}

void visit_secrets(json_t* value, const json_t* rule, Path& path, const SecretVisitor& visit) {
  if (const json_t* kinds = json_object_get(rule, "oneOf")) rule = kind_of(value, kinds);
  const char* key = nullptr;
  void* next = nullptr;
  json_t* member = nullptr;
  json_object_foreach_safe(value, next, key, member) {
    const json_t* own = json_object_get(json_object_get(rule, "properties"), key);
    if (!own) own = json_object_get(rule, "additionalProperties");
    path.emplace_back(key);
    if (json_object_get(own, "anyOf")) {
      visit(value, path);
    } else {
      visit_secrets(member, own, path, visit);
    }
    path.pop_back();
  }
}

}  // namespace

Json schema() {
  Json properties{json_object()};
  set(properties, "format", numbers(FORMAT, FORMAT));
  set(properties, "servers", server_rules());
  set(properties, "profiles", profile_rules());
  set(properties, "peers", peer_rules());
  set(properties, "access", access_rules());
  set(properties, "rights", rights_rules());
  set(properties, "block", fixed(R"({
    "enable": {"type": "boolean"}, "limit": {"type": "integer", "minimum": 2, "maximum": 10},
    "time": {"type": "integer", "enum": [30, 60, 720, 1440]}})"));
  set(properties, "gateway", fixed(R"({
    "on": {"type": "boolean"}, "first": {"type": "string"}, "second": {"type": "string"},
    "snat": {"type": "boolean"},
    "back_minutes": {"type": "integer", "enum": [-1, 0, 1, 5, 10]}})"));
  set(properties, "guard", fixed(R"({
    "mode": {"type": "string", "enum": ["off", "on", "strict"]}, "lan": {"type": "boolean"},
    "ipv6": {"type": "string", "enum": ["block", "pass"]},
    "dns": {"type": "string", "enum": ["tunnel", "any"]}})"));
  set(properties, "notifications", notification_rules());
  Json rule = object_of(std::move(properties), {"format"});
  json_object_set_new(rule.get(), "$schema", json_string(DIALECT));
  json_object_set_new(rule.get(), "title", json_string("Configuration of a VPN service"));
  return rule;
}

std::string broken_rule(const json_t* document) {
  return check(document, schema().get(), "");
}

void for_each_secret(json_t* document, const SecretVisitor& visit) {
  const Json rule = schema();
  Path path;
  visit_secrets(document, rule.get(), path, visit);
}

}  // namespace ormelctl::site
