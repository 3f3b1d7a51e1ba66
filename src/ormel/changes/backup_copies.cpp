// Client profiles of a backup beside the present ones.
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/error_capture.h"
#include "ormel/base/file.h"
#include "ormel/changes/backup_restore.h"
#include "ormel/config/fields.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/wireguard/wireguard.h"

namespace ormel::changes {

namespace {

using config::BaseConfig;
using config::ClientConfig;
using config::cm;
using config::PolyConfig;

constexpr const char* COPY_MARK = "%20%28copy%29";  // " (copy)", encoded as names are

void rename(BaseConfig& record) {
  auto& client = static_cast<ClientConfig&>(record);
  client.name += COPY_MARK;
  if (record.type == WIREGUARD_CLIENT_TYPE)
    static_cast<wireguard::ClientConfig&>(record).client_name += COPY_MARK;
}

// The files of an imported profile under the number of the copy; the list of revoked certificates
// is named in the profile.
bool write_files(const Backup& backup, const std::string& from, const std::string& to) {
  const BackupFile* const profile = backup.find(from);
  if (!profile) return false;
  std::string text = profile->content;
  const std::string old_name = from.substr(from.rfind('/') + 1) + ovpn::CRL_ENDING;
  const size_t at = text.find("crl-verify " + old_name);
  if (at != std::string::npos)
    text.replace(text.find(old_name, at), old_name.size(),
                 to.substr(to.rfind('/') + 1) + ovpn::CRL_ENDING);
  const BackupFile* const list = backup.find(from + ovpn::CRL_ENDING);
  return system::replace_file(to, text, fenro::PRIVATE_FILE) &&
         (!list || system::replace_file(to + ovpn::CRL_ENDING, list->content, fenro::PRIVATE_FILE));
}

// An imported profile has its own text, which is rewritten in its new place; any other is added.
int add_copy(const Backup& backup, BaseConfig& record, int slot) {
  if (record.type != OVPN_CLIENT_TYPE) {
    record.set_index(0);  // a new one, which may not clash with any other
    return record.add(slot);
  }
  auto& client = static_cast<ovpn::ClientConfig&>(record);
  const std::string from = client.profile_path();
  client.set_index(slot);
  client.file.clear();
  const std::string to = client.profile_path();
  const int rc = write_files(backup, from, to) ? client.modify() : ERR_SAVE_FILE;
  if (rc == NO_ERROR) return rc;
  for (const std::string& left : {to, to + ovpn::CRL_ENDING}) unlink(left.c_str());
  return rc;
}

// Empty, or why a profile cannot be beside the present ones.
std::string copy(const Backup& backup, PolyConfig& holder) {
  const int slot = cm.is_full() ? 0 : cm.fetch_slot(holder->type);
  if (slot == 0) return "there is no room for more profiles";
  system::ErrorCapture errors;
  const int rc = add_copy(backup, *holder.bc, slot);
  const std::string detail = errors.take();
  if (rc != NO_ERROR) return detail.empty() ? get_error_message(static_cast<unsigned>(rc)) : detail;
  std::ignore = cm.update(&holder);  // it cannot fail
  holder->route_nat(true);
  return {};
}

}  // namespace

Fault copy_profiles(const Backup& backup, bool dry, Restored& out) {
  if (Fault fault = refusal_for_settings({.servers = false})) return fault;
  const BackupFile* const settings = backup.find(config::VPN_CONF);
  const system::MemoryFile memory(settings ? settings->content : "");
  config::Management archived;
  archived.load(memory.path().c_str());
  if (cm.config_pool.empty()) cm.load();
  for (const auto& holder : archived.config_pool) {
    if (!is_client((*holder)->type)) continue;
    config::forget_live_values(*holder->bc);
    (*holder)->enable = false;
    (*holder)->pid = 0;
    const std::string label = label_of(*holder->bc);
    rename(*holder->bc);
    const std::string why = dry ? std::string() : copy(backup, *holder);
    if (why.empty())
      out.added.push_back(label_of(*holder->bc));
    else
      out.warnings.push_back(std::string(label).append(" is not copied: ").append(why));
  }
  if (dry || out.added.empty() || cm.save() == NO_ERROR) return {};
  return {ERR_SAVE_CONFIG, std::string(config::VPN_CONF) + " cannot be written",
          "look whether its disk has room"};
}

}  // namespace ormel::changes
