#include "ormel/drivers/wireguard/peers.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/log.h"

namespace ormel::wireguard {

namespace {

constexpr const char* GLOBAL = "global";
constexpr const char* PEERS_NUM = "peers_num";
constexpr const char* MAX_INDEX = "max_index";
constexpr const char* ALLOW_IP = "allow_ip";
constexpr mode_t FOLDER_MODE = 0700;

struct PeerKey {
  const char* key;
  std::string Peer::*field;
};

// In the order of writing a new section, and of completing an old one.
constexpr PeerKey ADD_ORDER[] = {
    {"name", &Peer::name},         {"pub_key", &Peer::pub_key},
    {ALLOW_IP, &Peer::allow_ip},   {"allow_ip_mask", &Peer::allow_ip_mask},
    {"endpoint", &Peer::endpoint}, {"keepalive", &Peer::keepalive},
    {"psk", &Peer::psk},
};
constexpr PeerKey MODIFY_ORDER[] = {
    {"name", &Peer::name},
    {"pub_key", &Peer::pub_key},
    {ALLOW_IP, &Peer::allow_ip},
    {"allow_ip_mask", &Peer::allow_ip_mask},
    {"psk", &Peer::psk},
    {"endpoint", &Peer::endpoint},
    {"keepalive", &Peer::keepalive},
};

std::string section_of(int index) {
  return "PEER" + std::to_string(index);
}

void set_peer(Conf_dir* conf, int index, const Peer& peer, const PeerKey (&order)[7]) {
  const std::string section = section_of(index);
  for (const PeerKey& row : order)
    Conf_Dir_Set_Str(conf, section.c_str(), row.key, (peer.*row.field).c_str());
}

// Makes a folder and those above it, as far as they are missing.
void make_folder(const std::string& path) {
  if (mkdir(path.c_str(), FOLDER_MODE) == 0 || errno != ENOENT) return;
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return;
  make_folder(path.substr(0, slash));
  mkdir(path.c_str(), FOLDER_MODE);
}

}  // namespace

PeerFile::PeerFile(const std::string& folder)
    : folder_(folder), path_(folder + "/server_peers.conf"), conf_(Conf_Dir_Load(path_.c_str())) {}

int PeerFile::number(const char* key) const {
  return std::clamp(Conf_Dir_Get_Int(conf_.get(), GLOBAL, key, 0), 0, MAX_PEER_INDEX);
}

int PeerFile::max_index() const {
  return number(MAX_INDEX);
}

Peer PeerFile::peer(int index) const {
  Peer peer;
  const std::string section = section_of(index);
  for (const PeerKey& row : ADD_ORDER) {
    std::string& field = peer.*row.field;
    field = std::string(Conf_Dir_Get_Str(conf_.get(), section.c_str(), row.key, field.c_str()));
  }
  return peer;
}

bool PeerFile::is_free(int index) const {
  return *Conf_Dir_Get_Str(conf_.get(), section_of(index).c_str(), ALLOW_IP, "") == '\0';
}

int PeerFile::next_index() const {
  const int last = max_index();
  if (last == number(PEERS_NUM) && last < MAX_PEER_INDEX) return last + 1;
  int index = 1;
  while (index <= last && !is_free(index)) ++index;
  return index;
}

int PeerFile::find_conflict(int index, const Peer& candidate) const {
  for (int other = 1; other <= max_index(); ++other) {
    if (other == index) continue;
    const Peer stored = peer(other);
    if (stored.allow_ip == candidate.allow_ip) {
      ORMEL_LOG(ERROR, "ip conflict. peer ip: %s.", candidate.allow_ip.c_str());
      return ERR_IP_POOL_CONFLICT;
    }
    if (stored.pub_key == candidate.pub_key) {
      ORMEL_LOG(ERROR, "key conflict. peer public key: %s.", candidate.pub_key.c_str());
      return ERR_WIREGUARD_PEER_PUB_KEY_CONFLICT;
    }
  }
  return NO_ERROR;
}

bool PeerFile::write() const {
  make_folder(folder_);
  return Conf_Dir_Wirte_File(conf_.get()) == 0;
}

int PeerFile::failed_update(int index) const {
  ORMEL_LOG(ERROR, "update file %s failed. index: %d", path_.c_str(), index);
  return ERR_SAVE_CONFIG;
}

int PeerFile::add(const Peer& peer) {
  const int index = next_index();
  if (index > MAX_PEER_INDEX) return error_message(ERR_MAX_CONFIGS, nullptr);
  set_peer(conf_.get(), index, peer, ADD_ORDER);
  Conf_Dir_Set_Int(conf_.get(), GLOBAL, PEERS_NUM, number(PEERS_NUM) + 1);
  Conf_Dir_Set_Int(conf_.get(), GLOBAL, MAX_INDEX, std::max(max_index(), index));
  return write() ? NO_ERROR : failed_update(index);
}

int PeerFile::replace(int index, const Peer& peer) {
  set_peer(conf_.get(), index, peer, MODIFY_ORDER);
  return write() ? NO_ERROR : failed_update(index);
}

int PeerFile::remove(int index) {
  int last = max_index();
  const int left = std::max(number(PEERS_NUM) - 1, 0);
  unlink(psk_path(index).c_str());
  std::ignore = Conf_Remove_Section(path_.c_str(),
                                    section_of(index).c_str());  // what is in the file then tells
  conf_.reset(Conf_Dir_Load(path_.c_str()));
  if (!is_free(index)) return failed_update(index);
  while (last > 0 && is_free(last)) --last;
  Conf_Dir_Set_Int(conf_.get(), GLOBAL, PEERS_NUM, left);
  Conf_Dir_Set_Int(conf_.get(), GLOBAL, MAX_INDEX, last);
  return write() ? NO_ERROR : failed_update(index);
}

int PeerFile::renumber(const std::string& prefix) {
  int host = 2;  // the customary number of the server itself is 1
  for (int index = 1; index <= max_index(); ++index) {
    if (is_free(index)) continue;
    Conf_Dir_Set_Str(conf_.get(), section_of(index).c_str(), ALLOW_IP,
                     (prefix + std::to_string(host++)).c_str());
  }
  if (write()) return NO_ERROR;
  ORMEL_LOG(ERROR, "save file failed. file: %s.", path_.c_str());
  return ERR_SAVE_CONFIG;
}

std::string PeerFile::psk_path(int index) const {
  return folder_ + "/peer_psk" + std::to_string(index);
}

int PeerFile::write_psk(int index, const std::string& psk) const {
  make_folder(folder_);
  const std::string path = psk_path(index);
  if (system::replace_file(path, psk, fenro::PRIVATE_FILE)) return NO_ERROR;
  ORMEL_LOG(ERROR, "cannot write %s", path.c_str());
  return ERR_SAVE_FILE;
}

}  // namespace ormel::wireguard
