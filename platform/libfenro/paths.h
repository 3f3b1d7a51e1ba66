// Where the platform keeps its files. Functions that work on them take the path, so that tests
// bring their own.
#pragma once

namespace fenro::paths {

constexpr const char* SYSTEM_CONF = "/etc/config/Corlin.conf";
constexpr const char* SESSIONS = "/run/fenro/sessions";
// Not under /run/lock, where every user may put a lock of that name in our way.
constexpr const char* LOCKS = "/run/fenro/locks";
constexpr const char* SETTINGS_FAULT = "/run/fenro/settings_fault";
constexpr const char* EVENT_DATABASE = "/var/lib/fenro/event.db";
constexpr const char* PASSWD = "/etc/passwd";
constexpr const char* GROUP = "/etc/group";
constexpr const char* LOGIN_DEFS = "/etc/login.defs";
constexpr const char* NSSWITCH = "/etc/nsswitch.conf";

}  // namespace fenro::paths
