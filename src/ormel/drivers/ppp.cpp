#include "ormel/drivers/ppp.h"

#include <unistd.h>

#include "ormel/base/address.h"
#include "ormel/base/error.h"

namespace ormel::ppp {

namespace {

// A record from a damaged file can hold any number.
bool is_known(AUTHENTICATION authentication) {
  return authentication >= PAP_AUTHENTICATION && authentication <= CHAP_AUTHENTICATION;
}

}  // namespace

int ServerConfig::verify() {
  if (!is_known(authentication)) return error_message(ERR_AUTHENTICATION, nullptr);
  if (mss < LEAST_MSS || mss > MOST_MSS) return error_message(ERR_VALUE, "mss");
  return BaseConfig::verify();
}

int ClientConfig::verify() {
  if (!is_known(authentication)) return error_message(ERR_AUTHENTICATION, nullptr);
  return config::ClientConfig::verify();
}

void ClientConfig::save(Conf_dir* conf) {
  ip = system::nslookup(host);  // again for the script, and empty if it does not resolve any more
  DriverClient::save(conf);
}

void ClientConfig::remove() {
  unlink((std::string(config::PEERS_FOLDER) + '/' + peer_ + std::to_string(index)).c_str());
  announce_removal();
}

}  // namespace ormel::ppp
