// Foreign OpenVPN profiles: judged, and imported.
#include "ormel/web/config_upload.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "ormel/actions/actions.h"
#include "ormel/base/handle.h"
#include "ormel/base/lines.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/check.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/openvpn/profile.h"
#include "ormel/host/bus.h"
#include "ormel/web/config.h"
#include "ormel/web/routes.h"

namespace ormel {

namespace {

constexpr int PIECE = 256;  // bytes of the profile that are looked at at once

// A file that a profile can refer to.
struct Companion {
  const char* variable;  // the upload, and the option of the checker
  const char* file;      // its name in replies
  const char* pattern;   // of the line that refers to it
};

constexpr Companion COMPANIONS[] = {
    {"ca", "ca.crt", "^ca "}, {"cert", "client.crt", "^cert "}, {"key", "client.key", "^key "}};

bool refers(std::FILE* profile, const Regex& pattern) {
  bool hit = false;
  char piece[PIECE];
  while (!hit && std::fgets(piece, sizeof piece, profile)) hit = pattern.search(piece);
  std::rewind(profile);
  return hit;
}

// The checker splits its arguments at blanks: a path with one would turn into several.
bool one_word(const char* path) {
  return std::strpbrk(path, " \t\r\n\v\f") == nullptr;
}

}  // namespace

int ca_files_check(cgi_var* ovpn, cgi_var* request, json_t* missing, json_t* excessive,
                   std::string& arguments, bool* wrong) {
  const char* path = get_cgi_var_value(ovpn);
  // An upload that was cut for its size has lost its file.
  const File profile{path && get_cgi_var_status(ovpn) == CORRECT_VAR ? std::fopen(path, "re")
                                                                     : nullptr};
  if (!profile) {
    ORMEL_LOG(ERROR, "%s", path ? path : "");
    return ERR_FILE_DESCRIPTOR_ERROR;
  }
  for (const Companion& row : COMPANIONS) {
    const char* value = get_cgi_var_value(get_cgi_var(request, row.variable));
    const bool brought = value && *value;
    const Regex pattern(row.pattern);
    if (!pattern) return ERR_REGEX_FAIL;
    const bool needed = refers(profile.get(), pattern);
    if (needed && brought) {
      if (!one_word(value)) return ERR_FILE_DESCRIPTOR_ERROR;
      arguments.append("--").append(row.variable).append(" ").append(value).append(" ");
    } else if (needed || brought) {
      json_array_append_new(needed ? excessive : missing, json_string(row.file));
      *wrong = true;
    }
  }
  return NO_ERROR;
}

namespace cgi::config {

using option::ConfigFile;
using option::FileOption;
using option::NORMAL_OPTION_TYPE;
using ormel::config::cm;

namespace {

// The uploaded profile with its companion files, before anything in it is used.
Outcome check_upload(const Request& request, JsonValue& reply) {
  cgi_var* ovpn = request.find("ovpn");
  if (!get_cgi_var_filename(ovpn)) return {ERR_REGULAR_FILE};
  Json missing{json_array()};
  Json excessive{json_array()};
  std::string arguments;
  bool wrong = false;
  const int rc =
      ca_files_check(ovpn, request.vars(), missing.get(), excessive.get(), arguments, &wrong);
  if (rc != NO_ERROR) return {rc, "ca_files_check ERROR"};
  if (wrong) {
    JsonValue& data = reply["data"];
    data["missing"] = missing.release();
    data["excessive"] = excessive.release();
    return {ERR_WRONG_CA_FILES, {}, true};
  }
  return {system::verify_ovpn_config(get_cgi_var_value(ovpn), arguments.data())
              ? NO_ERROR
              : ERR_OPENVPN_CLIENT};
}

int check_mode(const ConfigFile& cf, JsonValue&) {
  bool found = false;
  for (const char* name : {"client", "tls-client"}) {
    const FileOption* mode = cf.get_option(name);
    if (mode && !mode->value.empty()) return ERR_OPENVPN_CLIENT;
    found = found || mode;
  }
  return found ? NO_ERROR : ERR_OPENVPN_CLIENT;
}

int check_device(const ConfigFile& cf, JsonValue&) {
  const FileOption* dev = cf.get_option("dev");
  return !dev || ovpn::is_tun(dev->value) ? NO_ERROR : ERR_OPENVPN_CLIENT;
}

// An option that can name a file.
struct ExternalFile {
  const char* option;
  const char* member;    // in the reply
  bool first_word_only;  // what follows the name is no part of it
};

constexpr ExternalFile EXTERNAL_FILES[] = {
    {"ca", "ca", false},
    {"dh", "dh", false},
    {"key", "key", false},
    {"cert", "cert", false},
    {"pkcs12", "pkcs12", false},
    {"extra-certs", "extra-certs", false},
    {"tls-auth", "tls_auth", true},
    {"crl-verify", "crl_verify", false},
};

// The files that the profile needs beside itself, for the client to ask the user for them.
int list_files(const ConfigFile& cf, JsonValue& data) {
  Json files{json_object()};
  for (const ExternalFile& row : EXTERNAL_FILES) {
    const FileOption* found = cf.get_option(row.option);
    if (!found || found->type != NORMAL_OPTION_TYPE || found->value.empty()) continue;
    const std::string name = row.first_word_only ? split_words(found->value).at(0) : found->value;
    json_object_set_new(files.get(), row.member, json_string(system::valid_utf8(name).c_str()));
  }
  data["files"] = files.release();
  return NO_ERROR;
}

int note_login(const ConfigFile& cf, JsonValue& data) {
  const FileOption* login = cf.get_option("auth-user-pass");
  data["auth_user_pass"] = login && login->type == NORMAL_OPTION_TYPE;
  return NO_ERROR;
}

// Whether a remote without a protocol that we know can do without: nothing else may name one and
// leave it empty.
bool protocol_settled(const ConfigFile& cf, const option::OpenvpnRemotes& remote) {
  const std::string proto = to_lower(remote.remote_proto);
  if (proto.starts_with("udp") || proto.starts_with("tcp")) return true;
  const FileOption* common = cf.get_option("proto");
  if (common && common->value.empty()) return false;
  const auto own = remote.others.find("proto");
  return own == remote.others.end() || !own->second.empty();
}

int list_servers(const ConfigFile& cf, JsonValue& data) {
  const option::OpenvpnRemotesOption remotes = cf.get_all_remotes();
  if (remotes.empty()) {
    ORMEL_LOG(ERROR, ": remote ip is empty.");
    return ERR_OPENVPN_CLIENT;
  }
  std::string list;
  for (const option::OpenvpnRemotes& remote : remotes) {
    list += remote.remote_ip + ',';
    if (!protocol_settled(cf, remote)) return ERR_OPENVPN_CLIENT;
  }
  list.pop_back();
  data["server_ip"] = system::valid_utf8(list);
  return NO_ERROR;
}

int note_compression(const ConfigFile& cf, JsonValue& data) {
  const FileOption* lzo = cf.get_option("comp-lzo");
  if (!lzo) return NO_ERROR;
  const std::string value = to_lower(lzo->value);
  const bool on = value.empty() || value == "yes";
  if (!on && value != "no" && value != "adaptive") return ERR_OPENVPN_CLIENT;
  data["compress"] = on;
  return NO_ERROR;
}

// What is reported about a profile, in this order; the first refusal ends it.
constexpr int (*STEPS[])(const ConfigFile& cf, JsonValue& data) = {
    check_mode, check_device, list_files, note_login, list_servers, note_compression,
};

int describe(const ConfigFile& cf, JsonValue& data) {
  for (const auto step : STEPS) {
    if (const int rc = step(cf, data); rc != NO_ERROR) return rc;
  }
  return NO_ERROR;
}

Outcome check_profile(const Request& request, JsonValue& reply) {
  if (Outcome refusal = check_upload(request, reply); refusal.code != NO_ERROR) return refusal;
  ConfigFile cf;
  if (const int rc = cf.load(request.value("ovpn")); rc != NO_ERROR) return {rc};
  return {describe(cf, reply["data"])};
}

Outcome import_profile(const Request& request, JsonValue& reply) {
  if (cm.is_full()) return {ERR_CONFIGURATION_FULL};
  if (Outcome refusal = check_upload(request, reply); refusal.code != NO_ERROR) return refusal;
  int rc = NO_ERROR;
  auto record = import_record(request, rc);
  return {rc == NO_ERROR ? ormel::import(std::move(record), &reply["data"]) : rc};
}

constexpr Route ROWS[] = {
    {"/ormel/config/check", ADMINISTRATOR, READS, json<check_profile>},
    {"/ormel/config/import", ADMINISTRATOR, CHANGES, json<import_profile>},
};

}  // namespace

const Routes UPLOADS{ROWS};

}  // namespace cgi::config
}  // namespace ormel
