// Prints tables for those that are not C++: the rows of TUNNELS, "shell" for the start scripts and
// "typescript" for the web interface, and the names of secrets, "awk" for the log archive. Runs at
// build time.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/secret_names.h"
#include "base/tunnel.h"

namespace {

using ormel::Sessions;
using ormel::TunnelFacts;

std::string base_name(const char* script) {
  const std::string name = std::strrchr(script, '/') + 1;
  return name.substr(0, name.rfind('.'));
}

// The word by which vpn_common.sh finds the functions that end the sessions of a server.
const char* word_of(Sessions sessions) {
  switch (sessions) {
    case Sessions::PPP: return "ppp";
    case Sessions::OPENVPN: return "ovpn";
    case Sessions::DROVIK: return "drovik";
    case Sessions::NONE: break;
  }
  return nullptr;
}

// One assignment: a word for each row that `row` has text for.
template <typename Row>
void print_list(const char* name, const char* comment, Row row) {
  std::string words;
  for (const TunnelFacts& facts : ormel::TUNNELS) {
    const std::string word = row(facts);
    if (!word.empty()) words += (words.empty() ? "" : " ") + word;
  }
  std::printf("\n# %s\n%s='%s'\n", comment, name, words.c_str());
}

void print_shell() {
  std::puts(
      "# shellcheck shell=dash disable=SC2034\n# Made from base/tunnel.h by the build: rows of the "
      "protocols. Read by "
      "vpn_lib.sh.");
  print_list(
      "CLIENT_TUNNELS",
      "section of a profile before its slot : interface before its unit : the unit less the slot",
      [](const TunnelFacts& facts) {
        return std::string(facts.client_section) + ':' + facts.interface + ':' +
               std::to_string(facts.base);
      });
  print_list("SERVER_TUNNELS",
             "section of vpn.conf : script : the client script's action that ends a tunnel",
             [](const TunnelFacts& facts) {
               return std::string(facts.section) + ':' + base_name(facts.script) + ':' + facts.stop;
             });
  print_list(
      "LOGGED_CLIENTS", "section of a profile before its slot : its type in the connection log",
      [](const TunnelFacts& facts) {
        return facts.logged ? std::string(facts.client_section) + ':' + std::to_string(facts.client)
                            : "";
      });
  print_list("SESSION_KINDS", "type of a server : what ends its sessions",
             [](const TunnelFacts& facts) {
               const char* word = word_of(facts.sessions);
               return word ? std::to_string(facts.server) + ':' + word : "";
             });
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return text;
}

void print_typescript() {
  std::vector<const TunnelFacts*> rows;
  for (const TunnelFacts& facts : ormel::TUNNELS) rows.push_back(&facts);
  std::ranges::sort(rows, {}, &TunnelFacts::place);
  std::puts(
      "// Made from base/tunnel.h by the build (protocols.ts below build/*/base): never edited by "
      "hand.\n"
      "\n"
      "export interface Protocol {\n"
      "  id: string\n"
      "  label: string\n"
      "  server: number\n"
      "  client: number\n"
      "  right: boolean // users are granted and denied its server\n"
      "  colour: string // of its curve, a property of the style sheet\n"
      "}\n"
      "\n"
      "export const PROTOCOL = {");
  for (const TunnelFacts* row : rows) {
    const std::string id = lower(row->client_word);
    std::printf(
        "  %s: { id: '%s', label: '%s', server: %d, client: %d, right: %s, colour: '--curve-%d' "
        "},\n",
        id.c_str(), id.c_str(), row->title, row->server, row->client,
        row->right_field > 0 ? "true" : "false", row->place);
  }
  std::puts(
      "} as const\n"
      "\n"
      "// In the order in which they are shown.\n"
      "export const PROTOCOLS: readonly Protocol[] = Object.values(PROTOCOL)");
}

// What lib/blank_secrets.awk looks for.
void print_awk() {
  std::string names;
  for (const fenro::SecretName& row : fenro::SECRET_NAMES) {
    if (row.pattern) names += (names.empty() ? "" : "|") + std::string(row.pattern);
  }
  std::printf("# Made from base/secret_names.h by the build.\nBEGIN { NAME = \"%s\" }\n",
              names.c_str());
}

struct Form {
  const char* name;
  void (*print)();
};
constexpr Form FORMS[] = {
    {"shell", print_shell}, {"typescript", print_typescript}, {"awk", print_awk}};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view wanted = argc == 2 ? argv[1] : "";
  for (const Form& form : FORMS) {
    if (wanted != form.name) continue;
    form.print();
    return 0;
  }
  std::fputs("usage: protocol_tables shell|typescript|awk\n", stderr);
  return 2;
}
