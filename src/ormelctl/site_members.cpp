// The members of servers and profiles in the document, from the tables of options and of fields.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>

#include "ormel/base/text.h"
#include "ormelctl/profile.h"
#include "ormelctl/site.h"

namespace ormelctl::site {
namespace {

using ormel::config::BaseConfig;
using ormel::config::Field;
using ormel::option::CommandOption;

// Members that an answer of the program calls otherwise than the option does.
struct OtherName {
  int types;
  const char* shown;
  const char* option;
};
constexpr OtherName OTHER_NAMES[] = {{ALL_CLIENTS, "server_ip", "host"},
                                     {ALL_CLIENTS, "vendor_auth", "vendor-auth"}};

// What the document has elsewhere, or what follows from something else.
struct LeftOut {
  int types;
  const char* option;
};
constexpr LeftOut LEFT_OUT[] = {
    {ALL_CLIENTS | ALL_SERVERS, "enable"},          // before the members
    {ormel::WIREGUARD_CLIENT_TYPE, "client_name"},  // the name of the profile
    {ormel::OVPN_CLIENT_TYPE, "host"},              // in the text of the profile
    {ormel::OVPN_CLIENT_TYPE, "port"},
    {ormel::OVPN_CLIENT_TYPE, "proto"},
    {ormel::WIREGUARD_CLIENT_TYPE, "host"},  // of PPP and the like
    {ormel::WIREGUARD_CLIENT_TYPE, "user"},
    {ormel::WIREGUARD_CLIENT_TYPE, "pass"},
    {ormel::WIREGUARD_CLIENT_TYPE, "mask"},
};

constexpr const char* SECRETS[] = {"pass", "psk", "server_pri_key", "client_pri_key"};
constexpr const char* ENCODED[] = {"server_name"};  // in URL encoding where it is stored

template <size_t Count>
bool has(const char* const (&names)[Count], const std::string& name) {
  return std::ranges::any_of(names, [&](const char* known) { return name == known; });
}

std::string option_name(ormel::TYPE type, const char* shown) {
  for (const OtherName& row : OTHER_NAMES) {
    if ((row.types & type) != 0 && std::strcmp(row.shown, shown) == 0) return row.option;
  }
  return shown;
}

const CommandOption* option_of(ormel::TYPE type, const std::string& name) {
  const bool left_out = std::ranges::any_of(
      LEFT_OUT, [&](const LeftOut& row) { return (row.types & type) != 0 && name == row.option; });
  if (left_out) return nullptr;
  for (const CommandOption* row = ormel::option::COMMAND_OPTIONS; row->fpr; ++row) {
    if (name == row->opt.name && (row->types & type) != 0) return row;
  }
  return nullptr;
}

std::vector<Member> make_members(ormel::TYPE type) {
  std::vector<Member> members;
  const auto record = ormel::config::make_record(type, 1);
  for (const ormel::config::FieldTable& table : record->fields()) {
    for (const Field& field : table) {
      if (!field.json || !field.is_saved()) continue;
      const std::string name = option_name(type, field.json);
      if (const CommandOption* option = option_of(type, name))
        members.push_back({name, option, &field, has(SECRETS, name)});
    }
  }
  return members;
}

json_t* json_of(bool value) {
  return json_boolean(value);
}
json_t* json_of(const std::string& value) {
  json_t* const text = json_stringn(value.data(), value.size());
  return text ? text : json_string(printable(value).c_str());
}
template <typename Number>
json_t* json_of(Number value) {
  return json_integer(static_cast<json_int_t>(value));
}

// A text as the record has it once it was stored and loaded again.
std::string settled(const Field& field, const std::string& text) {
  if (field.is(ormel::config::AS_UPPER)) return ormel::to_upper(text);
  return field.is(ormel::config::AS_LOWER) ? ormel::to_lower(text) : text;
}

}  // namespace

const std::vector<Member>& members_of(ormel::TYPE type) {
  static std::map<ormel::TYPE, std::vector<Member>> known;
  const auto [found, is_new] = known.try_emplace(type);
  if (is_new) found->second = make_members(type);
  return found->second;
}

ormel::Json value_of(const BaseConfig& record, const Member& member) {
  const auto take = [&](auto field) {
    const auto& value = record.*field;
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::string>) {
      const std::string text = settled(*member.field, value);
      return json_of(has(ENCODED, member.name) ? decoded(text) : text);
    } else {
      return json_of(value);
    }
  };
  return ormel::Json{std::visit(take, member.field->member)};
}

std::string option_text(const Member& member, const json_t* value) {
  if (json_is_boolean(value)) return json_is_true(value) ? "true" : "false";
  if (json_is_integer(value)) return std::to_string(json_integer_value(value));
  const std::string text = json_is_string(value) ? json_string_value(value) : "";
  return has(ENCODED, member.name) ? encoded(text) : text;
}

}  // namespace ormelctl::site
