// The driver of the appliance's own tunnel.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ormel/config/driver.h"

namespace ormel::drovik {

constexpr int DEFAULT_PORT = 443;

class ServerConfig : public config::DriverServer {
 public:
  int port = DEFAULT_PORT;
  int debug = 0;  // 0 or 1
  std::string psk;

  explicit ServerConfig(int);

  int verify() override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
  void clean_psk() override;
};

class ClientConfig : public config::DriverClient {
 public:
  std::string ip;  // what `host` resolved to when the record was last saved
  int port = DEFAULT_PORT;
  std::string psk;
  int debug = 0;  // 0 or 1

  explicit ClientConfig(int slot) : DriverClient(DROVIK_CLIENT_TYPE, slot) {}

  int verify() override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
  void save(Conf_dir* conf) override;
  [[nodiscard]] config::Endpoint endpoint() const override { return {ip, std::to_string(port)}; }
};

// Throws one client of the server out, by the identifier that the connection list shows. 0,
// ERR_MIB_IO_FAILED, ERR_MIB_CALL_FAILED, ERR_WRONG_JSON_FORMAT or ERR_MIB_API_RET_ERROR.
[[nodiscard]] int drovik_server_kick_client(const char* mac);

// Bytes received and sent of each connected client, by its identifier; empty when the server's
// daemon cannot be asked.
[[nodiscard]] std::map<std::string, std::vector<unsigned long long>> get_drovik_client_bytes_info();

// Hook entries for a host program that links this code; no personality reaches them.
inline int up(int, char**) {
  return 0;
}
inline int down(int, char**) {
  return 0;
}

}  // namespace ormel::drovik
