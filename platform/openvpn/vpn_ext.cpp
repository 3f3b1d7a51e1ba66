// vpn_ext.so: the plugin that every OpenVPN client profile of the appliance loads, with the
// profile's slot as its argument. A profile comes from elsewhere, and so does what its server
// pushes: the plugin takes from the daemon, and from every script that it runs, what no tunnel
// needs, before the first packet is sent.
//
// - Rights can't grow any more, not by a program with the set-user-ID bit either.
// - Of root's capabilities those are left that tunnels, routes and name service settings need.
// - The memory, which holds the password, is never dumped, and new files are private.
#include <charconv>
#include <linux/capability.h>
#include <openvpn/openvpn-plugin.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int LAST_SLOT = 32;
constexpr mode_t PRIVATE = 077;

constexpr unsigned KEPT[] = {
    CAP_NET_ADMIN,         // interfaces and routes
    CAP_NET_RAW,           // sockets bound to an interface
    CAP_NET_BIND_SERVICE,  // a low port of our own
    CAP_KILL,              // the daemon's own children
    CAP_CHOWN,
    CAP_FOWNER,
};

// The library of capabilities is not worth a dependency for one call. Version 3 has two words of 32
// bits each.
bool keep_capabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, held) != 0) return false;
  __u32 kept[_LINUX_CAPABILITY_U32S_3] = {};
  for (const unsigned capability : KEPT) kept[CAP_TO_INDEX(capability)] |= CAP_TO_MASK(capability);
  for (unsigned word = 0; word < _LINUX_CAPABILITY_U32S_3; ++word) {
    held[word].permitted &= kept[word];
    held[word].effective &= kept[word];
    held[word].inheritable = 0;
  }
  return syscall(SYS_capset, &header, held) == 0;
}

bool contain() {
  constexpr rlimit NO_DUMP{0, 0};
  umask(PRIVATE);
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && setrlimit(RLIMIT_CORE, &NO_DUMP) == 0 &&
         keep_capabilities();
}

bool is_slot(const char* text) {
  const std::string_view digits = text ? text : "";
  int slot = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), slot);
  return failure == std::errc{} && end == digits.data() + digits.size() && slot >= 1 &&
         slot <= LAST_SLOT;
}

}  // namespace

// A daemon that can't be contained does not start.
OPENVPN_EXPORT int openvpn_plugin_open_v3(const int version,
                                          openvpn_plugin_args_open_in const* arguments,
                                          openvpn_plugin_args_open_return* result) {
  static int handle = 0;  // there is no state, yet the daemon wants to hold something
  if (version < OPENVPN_PLUGINv3_STRUCTVER || !arguments->argv[0] || !is_slot(arguments->argv[1])) {
    return OPENVPN_PLUGIN_FUNC_ERROR;
  }
  if (!contain()) {
    arguments->callbacks->plugin_log(PLOG_ERR, "vpn_ext", "the daemon can't give up its rights");
    return OPENVPN_PLUGIN_FUNC_ERROR;
  }
  result->type_mask = 0;  // nothing is to be asked later
  result->handle = &handle;
  return OPENVPN_PLUGIN_FUNC_SUCCESS;
}

OPENVPN_EXPORT int openvpn_plugin_func_v3(const int, openvpn_plugin_args_func_in const*,
                                          openvpn_plugin_args_func_return*) {
  return OPENVPN_PLUGIN_FUNC_SUCCESS;
}

OPENVPN_EXPORT void openvpn_plugin_close_v1(openvpn_plugin_handle_t) {}
