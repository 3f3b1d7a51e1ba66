#include "ormel/actions/audit_row.h"

#include <algorithm>

#include "ormel/base/crypto.h"

namespace ormel::audit {

namespace {

constexpr std::string_view HEAD = R"({"hash":")";
constexpr std::string_view AFTER_HASH = R"(",)";
constexpr size_t BODY = HEAD.size() + FIRST_HASH.size() + AFTER_HASH.size();

// Texts of a row by their names.
struct TextMember {
  const char* name;
  std::string Entry::*value;
};
constexpr TextMember TEXTS[] = {
    {"user", &Entry::user},     {"via", &Entry::via},         {"ip", &Entry::ip},
    {"action", &Entry::action}, {"subject", &Entry::subject},
};
struct ChangeMember {
  const char* name;
  std::string Change::*value;
};
constexpr ChangeMember CHANGE_TEXTS[] = {
    {"field", &Change::field}, {"from", &Change::from}, {"to", &Change::to}};

void set_text(json_t* object, const char* name, const std::string& text) {
  const std::string valid = shortened(text);
  json_object_set_new(object, name, json_stringn(valid.data(), valid.size()));
}

void set_number(json_t* object, const char* name, int64_t number) {
  json_object_set_new(object, name, json_integer(number));
}

json_t* json_of(const Change& change) {
  json_t* const object = json_object();
  for (const ChangeMember& member : CHANGE_TEXTS)
    set_text(object, member.name, change.*member.value);
  return object;
}

json_t* json_of(const std::vector<Change>& changes) {
  json_t* const array = json_array();
  const bool all = changes.size() <= MOST_CHANGES;
  const size_t count = all ? changes.size() : MOST_CHANGES - 1;
  for (size_t i = 0; i < count; ++i) json_array_append_new(array, json_of(changes[i]));
  if (!all)
    json_array_append_new(
        array, json_of(Change{std::to_string(changes.size() - count) + " more", "", ""}));
  return array;
}

void set_entry(json_t* object, const Entry& entry) {
  set_number(object, "time", entry.time);
  for (const TextMember& member : TEXTS) set_text(object, member.name, entry.*member.value);
  json_object_set_new(object, "changes", json_of(entry.changes));
  set_number(object, "error", entry.error);
  if (entry.lost != 0) set_number(object, "lost", entry.lost);
}

std::string text_of(const json_t* object, const char* name) {
  const json_t* const value = json_object_get(object, name);
  return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                               : std::string();
}

int64_t number_of(const json_t* object, const char* name) {
  return json_integer_value(json_object_get(object, name));
}

void read_changes(const json_t* array, std::vector<Change>& changes) {
  size_t at = 0;
  const json_t* object = nullptr;
  json_array_foreach(array, at, object) {
    Change& change = changes.emplace_back();
    for (const ChangeMember& member : CHANGE_TEXTS)
      change.*member.value = text_of(object, member.name);
  }
}

Entry entry_of(const json_t* object) {
  Entry entry;
  entry.number = number_of(object, "n");
  entry.time = number_of(object, "time");
  for (const TextMember& member : TEXTS) entry.*member.value = text_of(object, member.name);
  read_changes(json_object_get(object, "changes"), entry.changes);
  entry.error = static_cast<int>(number_of(object, "error"));
  entry.lost = number_of(object, "lost");
  return entry;
}

std::string hash_of(std::string_view previous, std::string_view body) {
  return openssl::sha256(std::string(previous) += body);
}

}  // namespace

std::string line_of(const Row& row, std::string_view previous) {
  const Json object{json_object()};
  set_number(object.get(), "n", row.entry.number);
  set_entry(object.get(), row.entry);
  if (!row.previous.empty()) set_text(object.get(), "previous", row.previous);
  if (row.torn != 0) set_number(object.get(), "torn", static_cast<int64_t>(row.torn));
  const CString text{json_dumps(object.get(), JSON_COMPACT | JSON_ENSURE_ASCII)};
  const std::string body = text ? text.get() + 1 : "";  // without the brace that HEAD has
  return std::string(HEAD) + hash_of(previous, body) + std::string(AFTER_HASH) + body + '\n';
}

std::optional<Row> parse_row(std::string_view line) {
  if (line.size() <= BODY || !line.starts_with(HEAD)) return {};
  const Json object{json_loadb(line.data(), line.size(), 0, nullptr)};
  Row row{.entry = entry_of(object.get()),
          .hash = text_of(object.get(), "hash"),
          .previous = text_of(object.get(), "previous"),
          .torn = static_cast<size_t>(std::max<int64_t>(number_of(object.get(), "torn"), 0))};
  if (row.entry.number < 1 || row.hash != line.substr(HEAD.size(), FIRST_HASH.size())) return {};
  return row;
}

bool is_chained(std::string_view line, std::string_view previous) {
  return line.size() > BODY &&
         line.substr(HEAD.size(), FIRST_HASH.size()) == hash_of(previous, line.substr(BODY));
}

Json document_of(const Entry& entry) {
  Json object{json_object()};
  set_number(object.get(), "id", entry.number);
  set_entry(object.get(), entry);
  return object;
}

}  // namespace ormel::audit
