// The peers of the WireGuard server: their own file, and one key file for each peer with a
// pre-shared key.
//
// server_peers.conf is an INI file. Section "global" has "peers_num", the number of peers, and
// "max_index", the highest index in use. Peer N has the section "PEERN" with the keys "name"
// (URL-encoded), "pub_key", "allow_ip", "allow_ip_mask" (prefix length), "endpoint", "keepalive"
// and "psk". Indexes begin at 1; a section whose "allow_ip" is empty or absent is free. Free
// indexes arise by deletion and are used again, lowest first.
#pragma once

#include <string>

#include "ormel/base/handle.h"

namespace ormel::wireguard {

constexpr int MAX_PEER_INDEX = 65535;  // bounds the walk over a file whose "max_index" is garbage

struct Peer {
  std::string name;  // URL-encoded
  std::string pub_key;
  std::string allow_ip;
  std::string allow_ip_mask = "32";  // prefix length, bits
  std::string endpoint;              // may be empty
  std::string keepalive = "0";       // seconds
  std::string psk;                   // may be empty
};

// The file as it stood when the object was made. Each change is written at once and gives 0 or an
// ERROR_CODE, the cause being in the log.
class PeerFile {
 public:
  explicit PeerFile(const std::string& folder);

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] int max_index() const;
  // The values of a section, with defaults for what is absent; a free one has no `allow_ip`.
  [[nodiscard]] Peer peer(int index) const;
  [[nodiscard]] bool is_free(int index) const;
  // The index that the next new peer takes.
  [[nodiscard]] int next_index() const;

  // 0, or ERR_IP_POOL_CONFLICT or ERR_WIREGUARD_PEER_PUB_KEY_CONFLICT, logged, when another peer
  // than that of `index` has this address or key.
  [[nodiscard]] int find_conflict(int index, const Peer& candidate) const;

  [[nodiscard]] int add(const Peer& peer);
  [[nodiscard]] int replace(int index, const Peer& peer);
  // Deletes the section and the key file.
  [[nodiscard]] int remove(int index);
  // Gives the peers, in index order, the addresses `prefix` and a number from 2 on.
  [[nodiscard]] int renumber(const std::string& prefix);

  // The file that holds a peer's pre-shared key for the tool, which takes it in no other way.
  [[nodiscard]] std::string psk_path(int index) const;
  // Writes that file, readable by its owner alone. 0 or ERR_SAVE_FILE.
  [[nodiscard]] int write_psk(int index, const std::string& psk) const;

 private:
  [[nodiscard]] int number(const char* key) const;
  [[nodiscard]] bool write() const;
  [[nodiscard]] int failed_update(int index) const;

  std::string folder_;
  std::string path_;
  Conf conf_;
};

}  // namespace ormel::wireguard
