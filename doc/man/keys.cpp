// The keys of vpn.conf with their defaults, by the tables of each record's fields.
#include <algorithm>
#include <set>

#include "base/tunnel.h"
#include "ormel/config/fields.h"
#include "page.h"

namespace manual {

namespace {

using ormel::config::BaseConfig;

struct Key {
  std::string name;
  std::string fallback;
};
using Section = std::vector<Key>;
using Sections = std::map<std::string, Section>;

// The default as `save` writes it.
std::string fallback_of(const ormel::config::Field& row) {
  if (std::holds_alternative<std::string BaseConfig::*>(row.member)) return row.text;
  if (!std::holds_alternative<bool BaseConfig::*>(row.member) || row.is(ormel::config::AS_NUMBER))
    return std::to_string(row.number);
  return row.number ? "TRUE" : "FALSE";
}

Section keys_of(ormel::TYPE type) {
  Section keys;
  for (const auto& table : ormel::config::make_record(type, 1)->fields()) {
    for (const ormel::config::Field& row : table) {
      if (row.is_saved()) keys.push_back({row.key, fallback_of(row)});
    }
  }
  return keys;
}

const Sections& sections() {
  static const Sections ALL = [] {
    Sections all;
    for (const ormel::TunnelFacts& facts : ormel::TUNNELS) {
      all[facts.section] = keys_of(facts.server);
      all[facts.client_section] = keys_of(facts.client);
    }
    return all;
  }();
  return ALL;
}

std::set<std::pair<std::string, std::string>> put;  // section and key

const Key* find(const std::string& section, const std::string& name) {
  const Section& keys = sections().at(section);
  const auto found =
      std::find_if(keys.begin(), keys.end(), [&](const Key& key) { return key.name == name; });
  return found == keys.end() ? nullptr : &*found;
}

bool is_common(const Key& key, const Words& among) {
  return std::all_of(among.begin(), among.end(), [&](const std::string& section) {
    const Key* other = find(section, key.name);
    return other && other->fallback == key.fallback && !put.contains({section, key.name});
  });
}

// What a section says of a key of its own goes before what all say of it.
const Entry& describe(Texts& texts, const std::string& section, const std::string& key) {
  const Entry* own = texts.find(section + "/" + key);
  return own ? *own : texts.of(key);
}

}  // namespace

void put_keys(Page& page, const Words& words) {
  for (const std::string& section : words) {
    if (!sections().contains(section)) return fail("no such section: " + section);
  }
  if (words.empty()) return fail("keys of which section?");
  page.out() << "[[ *Key*\n:[ *Default*\n:< *Meaning*\n";
  for (const Key& key : sections().at(words[0])) {
    if (!is_common(key, words)) continue;
    const Entry& entry = describe(page.texts("keys"), words[0], key.name);
    page.out() << "|  " << literal(key.name) << "\n:  " << literal(key.fallback)
               << "\n:  " << joined(entry.lines) << '\n';
    for (const std::string& section : words) put.insert({section, key.name});
  }
}

void check_keys() {
  if (put.empty()) return;
  for (const auto& [section, keys] : sections()) {
    for (const Key& key : keys) {
      if (!put.contains({section, key.name}))
        fail("\"" + key.name + "\" of [" + section + "] is on no page");
    }
  }
}

}  // namespace manual
