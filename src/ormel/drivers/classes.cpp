// The classes behind the types of all protocols.
#include "base/tunnel.h"
#include "ormel/config/record.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/drivers/l2tp.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/pptp.h"
#include "ormel/drivers/wireguard/wireguard.h"

namespace ormel {

namespace {

using config::BaseConfig;

template <typename Record>
std::unique_ptr<BaseConfig> make(int index) {
  return std::make_unique<Record>(index);
}

template <typename Record>
void copy(const BaseConfig& from, BaseConfig& to) {
  static_cast<Record&>(to) = static_cast<const Record&>(from);
}

constexpr config::RecordClass CLASSES[] = {
    {PPTP_SERVER_TYPE, make<pptp::ServerConfig>, copy<pptp::ServerConfig>},
    {L2TP_SERVER_TYPE, make<l2tp::ServerConfig>, copy<l2tp::ServerConfig>},
    {OVPN_SERVER_TYPE, make<ovpn::ServerConfig>, copy<ovpn::ServerConfig>},
    {DROVIK_SERVER_TYPE, make<drovik::ServerConfig>, copy<drovik::ServerConfig>},
    {WIREGUARD_SERVER_TYPE, make<wireguard::ServerConfig>, copy<wireguard::ServerConfig>},
    {PPTP_CLIENT_TYPE, make<pptp::ClientConfig>, copy<pptp::ClientConfig>},
    {L2TP_CLIENT_TYPE, make<l2tp::ClientConfig>, copy<l2tp::ClientConfig>},
    {OVPN_CLIENT_TYPE, make<ovpn::ClientConfig>, copy<ovpn::ClientConfig>},
    {DROVIK_CLIENT_TYPE, make<drovik::ClientConfig>, copy<drovik::ClientConfig>},
    {WIREGUARD_CLIENT_TYPE, make<wireguard::ClientConfig>, copy<wireguard::ClientConfig>},
};

static_assert(std::size(CLASSES) == 2 * std::size(TUNNELS),
              "each protocol has a server and a client");

[[maybe_unused]] const bool REGISTERED = config::register_classes(CLASSES);

}  // namespace
}  // namespace ormel
