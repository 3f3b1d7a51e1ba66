// The records of configuration: one virtual interface for every protocol, the common fields of
// servers and of clients, and the holder that owns a record of any protocol.
//
// A record lives in the pool, or is the work record of one request that the options fill. `load`,
// `save` and `show` go by the tables that `fields` gives (config/fields.h).
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include <fenro/conf.h>

#include "base/types.h"
#include "ormel/base/address.h"
#include "ormel/base/json.h"

namespace ormel::config {

constexpr int DEFAULT_MASK = 24;  // bits
constexpr int MAX_CLIENTS = 32;   // profiles of one client type
constexpr size_t MAX_NAME_LENGTH = 600;
constexpr size_t MAX_USER_LENGTH = 64;
constexpr size_t MAX_PASS_LENGTH = 512;
constexpr size_t MAX_META_LENGTH = 128;
constexpr const char* ANY_ADDRESS = "0.0.0.0";
constexpr const char* POOL_MASK =
    "255.255.255.0";  // a server's pool is the /24 around its first address

// The far end of a tunnel.
struct Endpoint {
  std::string host;
  std::string port;
};

struct Field;
using FieldTable = std::span<const Field>;

// Every operation that returns an int gives 0 or an ERROR_CODE.
class BaseConfig {
 public:
  int mask = DEFAULT_MASK;  // netmask length of the tunnel, bits
  int index = 0;            // slot within the type: 0 for a server, 1 to 32 for a client
  bool json = false;        // set by an option, read by nothing
  bool enable = false;      // the profile is on
  bool compress = false;    // OpenVPN link compression
  bool gateway = false;     // reapply the default gateway through this OpenVPN tunnel
  pid_t pid = 0;            // process found for this profile at load time, 0 if none
  std::string file;         // path given to import
  std::string section;      // section of this record in vpn.conf
  TYPE type;
  ACTION action = NONE_ACTION;  // what was asked of this record on this run
  ENCRYPTION encryption = MEDIUM_ENCRYPTION;
  AUTHENTICATION authentication = MSCHAPV2_AUTHENTICATION;

  explicit BaseConfig(TYPE kind) : type(kind) {}
  virtual ~BaseConfig() = default;

  // Writes the driver's own files for a new profile in slot `slot` and tells the host of it.
  virtual int add(int slot);
  virtual int import(int slot);
  virtual int modify();
  // The whole record is usable.
  virtual int verify();
  virtual int connect();
  virtual int disconnect();
  // Adds or removes the routing and NAT state of a client's interface, in the background.
  virtual void route_nat(bool add);
  // Prints the record as text if `out` is null, else fills `out`. `who` decides which secrets are
  // left out.
  virtual void show(USER_TYPE who, JsonValue* out);
  virtual void set_index(int slot);
  virtual void load(Conf_dir* conf, pid_t process);
  virtual void save(Conf_dir* conf);
  virtual void reset();
  // Deletes the driver's own files of a profile and tells the host of it.
  virtual void remove();
  // Stops or starts the tunnel. `flag`: 0 silent restart of a record that was disabled, 1 a user's
  // explicit action, 2 restart of an enabled record; it selects the notification.
  virtual int do_disconnect(int flag);
  virtual int do_connect(int flag);
  virtual void update_disconnect_status();
  // Forgets a pre-shared key that is still the historic factory value.
  virtual void clean_psk();
  // The peers and keys of WireGuard. All but its classes answer ERR_NOT_SUPPORT, without a message.
  virtual int add_peer();
  virtual int check_peer_value(int peer);
  virtual int enable_peer(int peer);
  virtual int disable_peer(int peer);
  virtual int modify_peer(int peer);
  virtual int delete_peer(int peer);
  virtual int gen_pri_pub_keys(const std::string& key, JsonValue* out);
  virtual int check_private_key();
  virtual int check_config_value();
  virtual int modify_peers_ip();
  // The tables of all fields, in the order of the file.
  [[nodiscard]] virtual std::span<const FieldTable> fields() const;
  // The fields that only a live tunnel has are shown as empty or 0.
  [[nodiscard]] virtual bool is_down() const { return false; }
  // What the rules of the pool ask: the networks that the tunnel takes, the port that it listens on
  // (0 for none) and its far end.
  [[nodiscard]] virtual std::vector<system::Network> networks() const { return {}; }
  [[nodiscard]] virtual int listen_port() const { return 0; }
  [[nodiscard]] virtual Endpoint endpoint() const { return {}; }

 protected:
  BaseConfig(const BaseConfig&) = default;
  BaseConfig& operator=(const BaseConfig&) = default;
};

class ServerConfig : public BaseConfig {
 public:
  int maximum = 5;          // most concurrent clients
  bool enable_dns = false;  // manual_dns is in force
  std::string manual_dns = ANY_ADDRESS;
  std::string ip_begin;  // first address of the client pool, empty until loaded
  std::string ip_end;    // last address of the client pool, empty until loaded
  std::string out_eif = "all";
  int out_lan = 0;

  using BaseConfig::BaseConfig;

  int connect() override;
  // Throws all sessions of this server out.
  int disconnect() override;
  [[nodiscard]] std::span<const FieldTable> fields() const override;
  [[nodiscard]] std::vector<system::Network> networks() const override;
  // The segment size that this server shares with those on its outgoing interface, null if it has
  // none.
  [[nodiscard]] virtual int* shared_mss() { return nullptr; }
};

class ClientConfig : public BaseConfig {
 public:
  enum OptExternalDev { opt_ext_dev_register, opt_ext_dev_modify, opt_ext_dev_unregister };

  uint64_t rx = 0;     // bytes received
  uint64_t tx = 0;     // bytes sent
  int rx_rate = 0;     // bytes per second
  int tx_rate = 0;     // bytes per second
  int fenro_port = 0;  // web API port of a peer appliance, 0 if none
  int last_error = 0;
  time_t timestamp = 0;      // when the tunnel came up, seconds since the epoch
  bool imported = false;     // profile came from import
  bool reconnect = true;     // connect again on its own
  bool custom_mask = false;  // mask was set by hand to other than 24
  STATUS status = DISCONNECTED_STATUS;
  std::string name;  // display name, URL-encoded
  std::string host;  // server address as the user gave it
  std::string user;
  std::string pass;          // in clear, in memory only
  std::string real_ip;       // public address seen
  std::string local_ip;      // local tunnel address
  std::string remote_ip;     // remote tunnel address
  std::string country_code;  // of the server
  std::string up;            // executable called when the tunnel comes up
  std::string down;          // executable called when the tunnel goes down
  std::string vendor;        // application that owns the profile, empty for a user's own
  std::string metadata;      // free text of that application
  std::string dns_server;    // learned from the tunnel

  using BaseConfig::BaseConfig;

  int add(int slot) override;
  int import(int slot) override;
  int modify() override;
  int verify() override;
  // Mark the record as connecting or disconnected and save the pool; the drivers' own build on
  // these.
  int connect() override;
  int disconnect() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  void reset() override;
  void remove() override;
  [[nodiscard]] std::span<const FieldTable> fields() const override;
  [[nodiscard]] bool is_down() const override { return status == DISCONNECTED_STATUS; }

  // Refreshes the counters from the network daemon; they stay as they are when it cannot be asked.
  void update_connection();
  // Tells the network daemon of this profile's interface. 0, ERR_MIB_IO_FAILED,
  // ERR_MIB_CALL_FAILED, ERR_MIB_API_RET_ERROR or ERR_WRONG_JSON_FORMAT.
  int mibcall_external_dev(OptExternalDev op);

 private:
  void settle_status();
  // The registration document beyond the key, for a WireGuard client with its DNS server and
  // gateway.
  [[nodiscard]] virtual const char* registered_dns() const { return ""; }
  [[nodiscard]] virtual const char* registered_gateway() const { return ""; }
};

// Owns one record, or none.
class PolyConfig {
 public:
  std::unique_ptr<BaseConfig> bc;

  PolyConfig() = default;
  explicit PolyConfig(BaseConfig* record) : bc(record) {}  // takes over the record
  explicit PolyConfig(std::unique_ptr<BaseConfig> record) : bc(std::move(record)) {}
  PolyConfig(const PolyConfig&) = delete;
  PolyConfig& operator=(const PolyConfig&) = delete;
  ~PolyConfig() = default;

  void destroy() { bc.reset(); }
  BaseConfig* operator->() const { return bc.get(); }
  // The record as a class that its type names, unchecked; null for an empty holder.
  template <typename T>
  T* cast() const {
    return static_cast<T*>(bc.get());
  }
  // Both hold the same record, or records of one type and index; false if either is empty.
  bool operator==(const PolyConfig& other) const;
  // Copies every field into `target` if it is of the same type.
  void dup(BaseConfig* target) const;
  // A new holder with a copy; null if this one is empty.
  [[nodiscard]] std::unique_ptr<PolyConfig> clone() const;
};

// The order of the pool: by type, then by index.
[[nodiscard]] bool compare(const PolyConfig* a, const PolyConfig* b);

// The class behind a type: how to make a record, and how to copy all of one into another of that
// type.
struct RecordClass {
  TYPE type;
  std::unique_ptr<BaseConfig> (*make)(int index);
  void (*copy)(const BaseConfig& from, BaseConfig& to);
};

// Takes the table of all classes, which outlives the program's records. Called once, before `main`,
// by the layer that knows the drivers. Always true.
bool register_classes(std::span<const RecordClass> classes);

// A new record of a type, with the slot `index` for a client; null for a type without a class.
[[nodiscard]] std::unique_ptr<BaseConfig> make_record(TYPE type, int index);

}  // namespace ormel::config
