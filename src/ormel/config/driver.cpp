#include "ormel/config/driver.h"

#include "ormel/base/error.h"
#include "ormel/base/http.h"
#include "ormel/config/pool.h"
#include "ormel/host/notification.h"
#include "ormel/host/process.h"

namespace ormel::config {

namespace {

// Bits of the flag of do_connect and do_disconnect.
constexpr int FLAG_EXPLICIT = 1;
constexpr int FLAG_RESTART = 2;

void notify_server(const nc_msg_struct& message, const TunnelFacts& facts) {
  nclog::notify_send(&message, facts.label, nullptr);
}

}  // namespace

DriverServer::DriverServer(TYPE kind) : ServerConfig(kind) {
  section = facts().section;
}

int DriverServer::modify() {
  notify_server(nc_message("C001", "0003"), facts());
  return NO_ERROR;
}

int DriverServer::connect() {
  return do_connect(FLAG_EXPLICIT);
}

int DriverServer::disconnect() {
  return do_disconnect(FLAG_EXPLICIT);
}

int DriverServer::do_connect(int flag) {
  system::invoke_vpn_script(facts().script, "start");
  if (flag & FLAG_RESTART) {
    notify_server(nc_message("C003", "0016"), facts());
  } else {
    notify_server(nc_message("C001", "0001"), facts());
  }
  return NO_ERROR;
}

int DriverServer::do_disconnect(int flag) {
  if (facts().kicks_on_stop) std::ignore = ServerConfig::disconnect();  // the kick has no result
  system::invoke_vpn_script(facts().script, "stop");
  if (flag == 0) return NO_ERROR;
  if (enable) {
    notify_server(nc_message("C003", "0014"), facts());
  } else {
    notify_server(nc_message("C001", "0002"), facts());
  }
  return NO_ERROR;
}

DriverClient::DriverClient(TYPE kind, int slot) : ClientConfig(kind) {
  DriverClient::set_index(slot);
}

void DriverClient::set_index(int slot) {
  ClientConfig::set_index(slot);
  section = facts().client_section + std::to_string(slot);
}

int DriverClient::add(int slot) {
  if (const int rc = verify(); rc != NO_ERROR) return rc;
  set_index(slot);
  return announce(nc_message("C002", "0010"), opt_ext_dev_register);
}

int DriverClient::modify() {
  if (const int rc = verify(); rc != NO_ERROR) return rc;
  set_index(index);
  return announce(nc_message("C002", "0009"), opt_ext_dev_modify);
}

void DriverClient::remove() {
  announce_removal();
}

int DriverClient::announce(const nc_msg_struct& message, OptExternalDev op) {
  std::string plain;
  if (const int rc = system::decode_urlEncoded(name, plain); rc != NO_ERROR) return rc;
  nclog::notify_send(&message, facts().label, plain.c_str(), nullptr);
  return mibcall_external_dev(op);
}

void DriverClient::announce_removal() {
  std::string plain;
  std::ignore = system::decode_urlEncoded(name, plain);  // the profile is removed anyway
  nclog::notify_send(&nc_message("C002", "0008"), facts().label, plain.c_str(), nullptr);
  std::ignore = mibcall_external_dev(opt_ext_dev_unregister);  // it has been logged
}

void DriverClient::notify_profile(const nc_msg_struct& message) const {
  std::string plain;
  if (system::decode_urlEncoded(name, plain) != NO_ERROR) return;
  nclog::notify_send(&message, facts().label, plain.c_str(), nullptr);
}

std::vector<std::string> DriverClient::script(const char* script_action) const {
  return {facts().client_script, script_action, std::to_string(index)};
}

int DriverClient::connect() {
  return do_connect(FLAG_EXPLICIT);
}

int DriverClient::disconnect() {
  update_disconnect_status();
  return do_disconnect(FLAG_EXPLICIT);
}

void DriverClient::update_disconnect_status() {
  std::ignore =
      ClientConfig::disconnect();  // the tunnel goes down whether or not that could be written
}

int DriverClient::do_connect(int) {
  if (enable && pid != 0) return NO_ERROR;
  std::ignore = ClientConfig::connect();  // the script is started with what the file holds
  notify_profile(nc_message("C002", "0006"));
  return system::background(script(facts().start));
}

int DriverClient::do_disconnect(int flag) {
  if (flag != 0)
    notify_profile(flag & FLAG_RESTART ? nc_message("C003", "0015") : nc_message("C002", "0007"));
  return system::foreground(script(facts().stop));
}

}  // namespace ormel::config
