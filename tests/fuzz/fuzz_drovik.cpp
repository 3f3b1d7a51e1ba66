// The messages of the appliance's own tunnel. Input: one message.
#include <algorithm>
#include <memory>

#include "daemons/drovik/frames.h"
#include "fuzz/require.h"

namespace {

using namespace fenro::drovik;
using fuzz::require;

void check_login(std::string_view message) {
  Login login, again;
  if (!decode(message, login) || login.version != PROTOCOL_VERSION) return;
  require(login.user.size() <= LOGIN_TEXT_MAX && login.user.find('\n') == std::string::npos,
          "a user is one short line");
  require(is_identifier(login.identifier), "an identifier has its form");
  require(
      decode(encode(login), again) && again.user == login.user && again.password == login.password,
      "a login that was read can be written and read again");
}

void check_welcome(std::string_view message) {
  Welcome welcome, again;
  if (!decode(message, welcome)) return;
  require(welcome.mtu >= LOWEST_MTU && welcome.mtu <= TUNNEL_MTU, "the interface takes the MTU");
  require(decode(encode(welcome), again) && again.address == welcome.address &&
              again.name_servers == welcome.name_servers,
          "a welcome that was read can be written and read again");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto exact = std::make_unique<char[]>(size);  // a look beyond the end is seen
  if (size > 0) std::copy(data, data + size, exact.get());
  const std::string_view message{exact.get(), size};

  check_login(message);
  check_welcome(message);
  require(*reason_text(reason_of(message)) != '\0', "each reason has its words");
  if (packet_ends(message)) require(is_packet(message), "a packet is known by its first byte");
  return 0;
}
