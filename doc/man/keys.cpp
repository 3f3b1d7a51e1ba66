// The keys of vpn.conf: what each record writes when it has read nothing.
#include <algorithm>
#include <memory>
#include <set>

#include <fenro/conf.h>

#include "ormel/config_record.h"
#include "ormel/handle.h"
#include "ormel/tunnel.h"
#include "page.h"

namespace manual {

namespace {

struct Key {
  std::string name;
  std::string fallback;
};
using Section = std::vector<Key>;
using Sections = std::map<std::string, Section>;

Section keys_of(ormel::TYPE type) {
  constexpr int SLOT = 1;
  const auto record = ormel::config::make_record(type, SLOT);
  const ormel::Conf empty{Conf_Dir_Load("")};
  const ormel::Conf written{Conf_Dir_Load("")};
  record->load(empty.get(), 0);
  record->save(written.get());
  Section keys;
  for (int i = 0; i < written->n; ++i) keys.push_back({written->key[i], written->val[i]});
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
  const auto found = std::find_if(keys.begin(), keys.end(), [&](const Key& key) { return key.name == name; });
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
    page.out() << "|  " << literal(key.name) << "\n:  " << literal(key.fallback) << "\n:  " << joined(entry.lines)
               << '\n';
    for (const std::string& section : words) put.insert({section, key.name});
  }
}

void check_keys() {
  if (put.empty()) return;
  for (const auto& [section, keys] : sections()) {
    for (const Key& key : keys) {
      if (!put.contains({section, key.name})) fail("\"" + key.name + "\" of [" + section + "] is on no page");
    }
  }
}

}  // namespace manual
