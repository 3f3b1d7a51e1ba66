#include <fcntl.h>
#include <span>
#include <stdlib.h>
#include <string_view>

#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/openvpn/profile.h"
#include "ormel/host/notification.h"

namespace ormel::ovpn {

namespace {

using option::ConfigFile;
using option::FileOption;
using option::INLINE_OPTION_TYPE;
using option::NORMAL_OPTION_TYPE;
using option::OpenvpnRemotes;

// No key, certificate or list is that long, while a form can name any file, the memory of the host
// among them.
constexpr size_t MAX_KEY_FILE = size_t{16} * 1024 * 1024;

// A file given for one import, which becomes an inline block of the profile.
struct KeyFile {
  std::string ClientConfig::*path;
  const char* option;
  ERROR_CODE refusal;
  bool (*accepts)(const std::string& content);  // null for any content
};

constexpr KeyFile KEY_FILES[] = {
    {&ClientConfig::ca, "ca", ERR_OPENVPN_CA, openssl::is_cert},
    {&ClientConfig::dh, "dh", ERR_OPENVPN_KEY, nullptr},
    {&ClientConfig::key, "key", ERR_OPENVPN_KEY, nullptr},
    {&ClientConfig::cert, "cert", ERR_OPENVPN_CERT, nullptr},
    {&ClientConfig::pkcs12, "pkcs12", ERR_OPENVPN_CERT, nullptr},
    {&ClientConfig::extra_certs, "extra-certs", ERR_OPENVPN_CERT, nullptr},
    {&ClientConfig::tls_auth, "tls-auth", ERR_OPENVPN_TLS_AUTH, nullptr},
    {&ClientConfig::secret, "secret", ERR_OPENVPN_SECRET, nullptr},
};

struct Rename {
  std::string_view from;
  const char* to;
};

constexpr Rename PROTOCOLS[] = {{"tcp4", "tcp"}, {"tcp6", "tcp"}, {"udp4", "udp"}, {"udp6", "udp"}};

int refuse(const char* why) {
  return error_message(ERR_OPENVPN_CLIENT, why);
}

int check_mode(ClientConfig&, ConfigFile& cf) {
  const FileOption* client = cf.get_option("client");
  const FileOption* tls_client = cf.get_option("tls-client");
  if (!client && !tls_client) return refuse("no client/tls-client option in .ovpn file.");
  for (const FileOption* mode : {client, tls_client}) {
    if (mode && !mode->value.empty())
      return refuse("client/tls-client option error in .ovpn file.");
  }
  return NO_ERROR;
}

// Only that kind of interface, which gets a number of ours.
int check_device(ClientConfig&, ConfigFile& cf) {
  const FileOption* dev = cf.get_option("dev");
  return !dev || is_tun(dev->value) ? NO_ERROR : refuse("dev option error in .ovpn file.");
}

// What the profile says for all its servers.
struct Common {
  explicit Common(const ConfigFile& cf)
      : proto(cf.get_option("proto")), port(cf.get_option("port")), rport(cf.get_option("rport")) {}

  const FileOption* proto;
  const FileOption* port;
  const FileOption* rport;
};

std::string value_of(const FileOption* found) {
  return found ? found->value : std::string();
}

std::string value_of(const OpenvpnRemotes& remote, const char* name) {
  const auto found = remote.others.find(name);
  return found == remote.others.end() ? std::string() : found->second;
}

int settle_protocol(OpenvpnRemotes& remote, const Common& common) {
  std::string& proto = remote.remote_proto;
  if (!proto.starts_with("udp") && !proto.starts_with("tcp")) {
    proto = value_of(remote, "proto");
    const bool nameless = proto.empty() && remote.others.contains("proto");
    if (nameless || (common.proto && common.proto->value.empty()))
      return refuse("proto option error in .ovpn file.");
    if (proto.empty()) proto = common.proto ? common.proto->value : "udp";
  }
  for (const Rename& row : PROTOCOLS) {
    if (proto == row.from) proto = row.to;
  }
  return NO_ERROR;
}

void settle_port(OpenvpnRemotes& remote, const Common& common) {
  for (const std::string& candidate :
       {remote.remote_port, value_of(remote, "port"), value_of(remote, "rport"),
        value_of(common.port), value_of(common.rport), std::to_string(DEFAULT_PORT)}) {
    if (candidate.empty()) continue;
    remote.remote_port = candidate;
    return;
  }
}

int settle_remotes(ClientConfig& record, ConfigFile& cf) {
  record.remotes = cf.get_all_remotes();
  if (record.remotes.empty()) return refuse("remote option error in .ovpn file.");
  const Common common(cf);
  for (OpenvpnRemotes& remote : record.remotes) {
    if (const int rc = settle_protocol(remote, common); rc != NO_ERROR) return rc;
  }
  for (OpenvpnRemotes& remote : record.remotes) settle_port(remote, common);
  return NO_ERROR;
}

// Credentials go to the record; the option itself is emptied later, so that they do not stay in the
// file.
int take_login(ClientConfig& record, ConfigFile& cf) {
  const FileOption* login = cf.get_option("auth-user-pass");
  record.auth_pass = login != nullptr;
  if (!login || login->type != INLINE_OPTION_TYPE) return NO_ERROR;
  const std::vector<std::string> words = split_words(login->value);
  if (!words.empty()) record.user = words[0];
  if (words.size() > 1) record.pass = words[1];
  return NO_ERROR;
}

// An inline key has no place for the direction that follows the name of a file.
int note_key_direction(ClientConfig&, ConfigFile& cf) {
  const FileOption* tls_auth = cf.get_option("tls-auth");
  if (!tls_auth || tls_auth->type != NORMAL_OPTION_TYPE) return NO_ERROR;
  const std::vector<std::string> words = split_words(tls_auth->value);
  if (words.size() > 1 && to_int(words[1].c_str()) != 0)
    cf.add_option("key-direction", "1", NORMAL_OPTION_TYPE, false);
  return NO_ERROR;
}

// The daemon takes revocation lists from files only.
int extract_crl(ClientConfig& record, ConfigFile& cf) {
  const FileOption* crl = cf.get_option("crl-verify");
  if (!crl || crl->type != INLINE_OPTION_TYPE) return NO_ERROR;
  if (crl->value.empty()) return refuse("crl-verify option error in .ovpn file.");
  std::string path = "/tmp/XXXXXX";
  const Fd fd{mkostemp(path.data(), O_CLOEXEC)};
  if (!fd) return error_message(ERR_SAVE_FILE, "save crl-verify to file fail.");
  std::ignore = system::write_file(crl->value, path.c_str(),
                                   fenro::PRIVATE_FILE);  // without it `store_crl` finds no file
  record.crl_verify = path;
  return NO_ERROR;
}

// A content that closes its own block would go on as lines of the profile.
bool closes_block(const std::string& content, const char* option) {
  return content.find("</" + std::string(option)) != std::string::npos;
}

int embed_file(const KeyFile& row, const std::string& path, ConfigFile& cf) {
  std::string content;
  if (!system::read_file(path.c_str(), content, MAX_KEY_FILE))
    return error_message(row.refusal, path.c_str());
  if (closes_block(content, row.option) || (row.accepts && !row.accepts(content)))
    return error_message(row.refusal, path.c_str());
  // Trimmed as a block is when the profile is read again, so that the first change of it changes
  // nothing here.
  cf.add_option(row.option, trim(content), INLINE_OPTION_TYPE, false);
  return NO_ERROR;
}

int embed_files(ClientConfig& record, ConfigFile& cf) {
  for (const KeyFile& row : KEY_FILES) {
    const std::string& path = record.*row.path;
    if (path.empty()) continue;
    if (const int rc = embed_file(row, path, cf); rc != NO_ERROR) return rc;
  }
  return NO_ERROR;
}

int store_crl(ClientConfig& record, ConfigFile& cf) {
  const std::string& from = record.crl_verify;
  if (from.empty()) return NO_ERROR;
  std::string content;
  const std::string to = record.profile_path() + CRL_ENDING;
  if (!system::read_file(from.c_str(), content, MAX_KEY_FILE) || !openssl::is_crl(content) ||
      !system::move_file(from.c_str(), to.c_str(), fenro::PRIVATE_FILE))
    return error_message(ERR_OPENVPN_CRL_VERIFY, from.c_str());
  // Relative, as the daemon works in the folder of its profile.
  cf.add_option("crl-verify", to.substr(to.rfind('/') + 1), NORMAL_OPTION_TYPE, false);
  return NO_ERROR;
}

// In place of both steps for a list of revoked certificates, where nothing may be stored.
int name_crl(ClientConfig& record, ConfigFile& cf) {
  const FileOption* crl = cf.get_option("crl-verify");
  const bool inline_list = crl && crl->type == INLINE_OPTION_TYPE;
  if (record.crl_verify.empty() && !inline_list) return NO_ERROR;
  std::string content;
  if (record.crl_verify.empty()) {
    content = crl->value;
  } else {
    std::ignore =
        system::read_file(record.crl_verify.c_str(), content, MAX_KEY_FILE);  // refused below
  }
  if (!openssl::is_crl(content))
    return error_message(ERR_OPENVPN_CRL_VERIFY, "crl-verify option error in .ovpn file.");
  const std::string path = record.profile_path() + CRL_ENDING;
  cf.add_option("crl-verify", path.substr(path.rfind('/') + 1), NORMAL_OPTION_TYPE, false);
  return NO_ERROR;
}

using Step = int (*)(ClientConfig&, ConfigFile&);
// From a foreign profile to one of ours, in this order; the first refusal ends the import.
constexpr Step STEPS[] = {
    check_mode,         check_device, settle_remotes, take_login,
    note_key_direction, extract_crl,  embed_files,    store_crl,
};
constexpr Step STEPS_WITHOUT_STORING[] = {
    check_mode, check_device, settle_remotes, take_login, note_key_direction, embed_files, name_crl,
};

int rewrite(ClientConfig& record, int slot, ConfigFile& cf, std::span<const Step> steps) {
  record.imported = true;
  if (const int rc = record.load_config_file(cf); rc != NO_ERROR) return rc;
  record.set_index(slot);
  ClientConfig::remove_incompatible(cf);
  for (const Step step : steps) {
    if (const int rc = step(record, cf); rc != NO_ERROR) return rc;
  }
  if (const int rc = record.verify(); rc != NO_ERROR) return rc;
  record.override_compatible(cf);
  return NO_ERROR;
}

}  // namespace

bool is_tun(const std::string& device) {
  return device.starts_with("tun") &&
         device.find_first_not_of("0123456789", 3) == std::string::npos;
}

int ClientConfig::convert(int slot, ConfigFile& cf) {
  return rewrite(*this, slot, cf, STEPS_WITHOUT_STORING);
}

int ClientConfig::import(int slot) {
  ConfigFile cf;
  if (const int rc = rewrite(*this, slot, cf, STEPS); rc != NO_ERROR) return rc;
  std::ignore =
      save_config_file(cf);  // it has been reported, and the profile is kept without its file
  return announce(nc_message("C002", "0010"), opt_ext_dev_register);
}

}  // namespace ormel::ovpn
