#include "ormel/config/fields.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <type_traits>

#include "base/tunnel.h"
#include "ormel/base/crypto.h"
#include "ormel/base/text.h"

namespace ormel::config {

namespace {

// Calls `work` with each row and the member of `record` that it stands for.
template <typename Work>
void for_each_field(BaseConfig& record, Work work) {
  for (const FieldTable& table : record.fields()) {
    for (const Field& row : table)
      std::visit([&](auto member) { work(row, record.*member); }, row.member);
  }
}

std::string read_text(const Field& row, const char* value) {
  if (row.is(AS_BASE64)) return openssl::base64_decode(value);
  if (row.is(AS_UPPER)) return to_upper(value);
  if (row.is(AS_LOWER)) return to_lower(value);
  return value;
}

template <typename Value>
void read(const Field& row, Value& value, Conf_dir* conf, const char* section) {
  if constexpr (std::is_same_v<Value, std::string>) {
    value = read_text(row, Conf_Dir_Get_Str(conf, section, row.key, row.text));
  } else if constexpr (std::is_same_v<Value, bool>) {
    const auto get = row.is(AS_NUMBER) ? Conf_Dir_Get_Int : Conf_Dir_Get_Bool;
    value = get(conf, section, row.key, row.number) != 0;
  } else if constexpr (sizeof(Value) > sizeof(int)) {
    value = static_cast<Value>(
        std::strtoll(Conf_Dir_Get_Str(conf, section, row.key, "0"), nullptr, 10));
  } else {
    value = static_cast<Value>(Conf_Dir_Get_Int(conf, section, row.key, row.number));
  }
}

template <typename Value>
void write(const Field& row, const Value& value, Conf_dir* conf, const char* section) {
  if constexpr (std::is_same_v<Value, std::string>) {
    const bool encoded = row.is(AS_BASE64) && !value.empty();
    Conf_Dir_Set_Str(conf, section, row.key,
                     encoded ? openssl::base64_encode(value).c_str() : value.c_str());
  } else if constexpr (std::is_same_v<Value, bool>) {
    const auto set = row.is(AS_NUMBER) ? Conf_Dir_Set_Int : Conf_Dir_Set_Bool;
    set(conf, section, row.key, value);
  } else if constexpr (sizeof(Value) > sizeof(int)) {
    Conf_Dir_Set_Str(conf, section, row.key, std::to_string(value).c_str());
  } else {
    Conf_Dir_Set_Int(conf, section, row.key, value);
  }
}

std::string text_of(const std::string& value) {
  return value;
}

template <typename Number>
std::string text_of(Number value) {
  return std::to_string(value);
}

template <typename Value>
void put(JsonValue& out, const Value& value) {
  if constexpr (std::is_enum_v<Value>) {
    out = static_cast<int32_t>(value);
  } else {
    out = value;
  }
}

// What is shown of a field: its value, or none of its kind.
template <typename Value>
const Value& shown(const Field& row, const Value& value, bool down) {
  static const Value NONE{};
  return down && row.is(IF_UP) ? NONE : value;
}

void print_table(BaseConfig& record, const FieldTable& table, bool down) {
  for (int line = 1;; ++line) {
    const auto row = std::find_if(table.begin(), table.end(),
                                  [&](const Field& field) { return field.line == line; });
    if (row == table.end()) return;
    const auto print = [&](auto member) {
      std::printf("%s = %s\n", row->key, text_of(shown(*row, record.*member, down)).c_str());
    };
    std::visit(print, row->member);
  }
}

std::string plain_text(const std::string& value) {
  return value;
}
std::string plain_text(bool value) {
  return value ? "true" : "false";
}
template <typename Number>
std::string plain_text(Number value) {
  return std::to_string(value);
}

bool is_live(const Field& row) {
  return row.is(IF_UP) || row.is(LEARNED);
}

bool is_setting(const Field& row) {
  return row.is_saved() && !is_live(row);
}

TYPE type_of_section(std::string_view section) {
  for (const TunnelFacts& facts : TUNNELS) {
    if (section == facts.section) return facts.server;
    if (section.starts_with(facts.client_section)) return facts.client;
  }
  return NONE_TYPE;
}

std::set<std::string_view> live_keys_of(TYPE type) {
  std::set<std::string_view> keys;
  const auto record = make_record(type, 0);
  for (const FieldTable& table : record->fields()) {
    for (const Field& row : table) {
      if (is_live(row)) keys.insert(row.key);
    }
  }
  return keys;
}

}  // namespace

bool is_live_key(std::string_view section, std::string_view key) {
  static std::map<TYPE, std::set<std::string_view>> known;
  const TYPE type = type_of_section(section);
  if (type == NONE_TYPE) return false;
  const auto [keys, is_new] = known.try_emplace(type);
  if (is_new) keys->second = live_keys_of(type);
  return keys->second.contains(key);
}

std::string value_text(const BaseConfig& record, const Field& row) {
  return std::visit([&](auto member) { return plain_text(record.*member); }, row.member);
}

void forget_live_values(BaseConfig& record) {
  for_each_field(record, [](const Field& row, auto& value) {
    if (row.is(IF_UP)) value = {};
  });
}

bool same_settings(const BaseConfig& one, const BaseConfig& other) {
  if (one.type != other.type) return false;
  for (const FieldTable& table : one.fields()) {
    for (const Field& row : table) {
      if (is_setting(row) && value_text(one, row) != value_text(other, row)) return false;
    }
  }
  return true;
}

std::span<const FieldTable> BaseConfig::fields() const {
  static constexpr FieldTable TABLES[] = {BASE_FIELDS};
  return TABLES;
}

std::span<const FieldTable> ServerConfig::fields() const {
  static constexpr FieldTable TABLES[] = {BASE_FIELDS, SERVER_FIELDS};
  return TABLES;
}

std::span<const FieldTable> ClientConfig::fields() const {
  static constexpr FieldTable TABLES[] = {BASE_FIELDS, CLIENT_FIELDS};
  return TABLES;
}

void BaseConfig::load(Conf_dir* conf, pid_t process) {
  pid = process;
  for_each_field(*this, [&](const Field& row, auto& value) {
    if (!row.is(UNSTORED)) read(row, value, conf, section.c_str());
  });
}

void BaseConfig::save(Conf_dir* conf) {
  for_each_field(*this, [&](const Field& row, const auto& value) {
    if (row.is_saved()) write(row, value, conf, section.c_str());
  });
}

void BaseConfig::show(USER_TYPE who, JsonValue* out) {
  const bool down = is_down();
  if (!out) {
    std::printf("[%s]\n", section.c_str());
    for (const FieldTable& table : fields()) print_table(*this, table, down);
    std::puts("");
    return;
  }
  (*out)["type"] = static_cast<int32_t>(type);
  for_each_field(*this, [&](const Field& row, const auto& value) {
    if (!row.json || (row.is(FOR_ADMIN) && who != ADMIN_USER)) return;
    put((*out)[row.json], shown(row, value, down));
  });
}

}  // namespace ormel::config
