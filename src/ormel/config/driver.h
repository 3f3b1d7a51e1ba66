// What the drivers of all protocols share: a server and a client between the common records and
// each protocol's own classes. What differs by a constant comes from TUNNELS; what truly differs is
// overridden there.
#pragma once

#include <string>

#include "base/tunnel.h"
#include "ormel/config/record.h"
#include "ormel/host/notification.h"

namespace ormel::config {

// A server that an init script runs. `modify` does not call `verify`: values are checked where
// options are applied.
class DriverServer : public ServerConfig {
 public:
  explicit DriverServer(TYPE kind);

  int modify() override;
  int connect() override;
  int disconnect() override;
  int do_disconnect(int flag) override;
  int do_connect(int flag) override;

 protected:
  [[nodiscard]] const TunnelFacts& facts() const { return tunnel_of(type); }
};

// A client whose tunnel an init script runs.
class DriverClient : public ClientConfig {
 public:
  DriverClient(TYPE kind, int slot);

  int add(int slot) override;
  int modify() override;
  int connect() override;
  int disconnect() override;
  void set_index(int slot) override;
  void remove() override;
  int do_disconnect(int flag) override;
  // 0 at once if the tunnel's daemon is alive; the record is saved before the script starts, which
  // reads the file.
  int do_connect(int flag) override;
  void update_disconnect_status() override;

 protected:
  [[nodiscard]] const TunnelFacts& facts() const { return tunnel_of(type); }
  // Sends a notification about this profile with the protocol's label and the decoded name, then
  // tells the network daemon. ERR_CURL_FAIL if the name cannot be decoded: nothing is sent then.
  int announce(const nc_msg_struct& message, OptExternalDev op);
  // The same on the way out, with an empty name where it cannot be decoded; failures are ignored
  // then.
  void announce_removal();
  // Sends a notification with the label and the decoded name, unless the name cannot be decoded.
  void notify_profile(const nc_msg_struct& message) const;
  // Arguments of the client script: the action and this profile's index.
  [[nodiscard]] std::vector<std::string> script(const char* script_action) const;
};

// Folder of the peer files that the PPP scripts write and `remove` deletes.
constexpr const char* PEERS_FOLDER = "/etc/config/ppp/peers";

}  // namespace ormel::config
