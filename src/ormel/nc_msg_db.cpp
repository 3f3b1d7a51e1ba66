#include "ormel/nc_msg_db.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include <fenro/event_log.h>

#include "ormel/system_process.h"

namespace ormel {

// clang-format off
const nc_msg_struct __NC_MSG_DB__[] = {
    {"C001", "0001", "info",  "[{0}] Enabled {1} server."},
    {"C001", "0002", "info",  "[{0}] Disabled {1} server."},
    {"C001", "0003", "info",  "[{0}] Applied the {1} server configuration."},
    {"C001", "0004", "info",  "[{0}] Applied the privilege settings for \"{1}\"."},
    {"C001", "0005", "warn",  "[{0}] Removed the privileges of \"{1}\"."},
    {"C002", "0006", "info",  "[{0}] Connected the {1} profile: \"{2}\"."},
    {"C002", "0007", "info",  "[{0}] Disconnected the {1} profile: \"{2}\"."},
    {"C002", "0008", "warn",  "[{0}] Deleted the {1} profile: \"{2}\"."},
    {"C002", "0009", "info",  "[{0}] Edited the {1} profile: \"{2}\"."},
    {"C002", "0010", "info",  "[{0}] Added the {1} profile: \"{2}\"."},
    {"C002", "0011", "info",  "[{0}] Set NAS default gateway to the {1} profile: \"{2}\"."},
    {"C002", "0012", "info",  "[{0}] Set backup NAS default gateway to the {1} profile: \"{2}\"."},
    {"C002", "0013", "info",  "[{0}] Set the delay for NAS default gateway reversion to \"{1}\"."},
    {"C003", "0014", "info",  "[{0}] Disabled {1} server."},
    {"C003", "0015", "info",  "[{0}] Disconnected the {1} profile: \"{2}\"."},
    {"C003", "0016", "info",  "[{0}] Enabled {1} server."},
    {"C001", "0017", "info",  "[{0}] Connection log information. Date: {1}, Uptime: {2}, Username: {3}, Source: {4}, Client IP: {5}, Transmission rate: {6}, Receiving rate: {7}, Protocol: {8}, Connection status: {9}."},
    {"C002", "0018", "info",  "[{0}] Connection log information. Date: {1}, Uptime: {2}, Username: {3}, Protocol: {4}, Client IP: {5}, Public IP: {6}, Server country: {7}, Transmission rate: {8}, Receiving rate: {9}, Connection status: {10}."},
    {"C001", "0019", "info",  "[{0}] Updated the login attempt policy. Number of login attempts: {1}, Login failure block time: {2}, Login attempt policy: {3}."},
    {"C001", "0020", "warn",  "[{0}] Blocked user \"{1}\". The user has reached the login attempt limit."},
    {"C001", "0021", "info",  "[{0}] Unblocked user \"{1}\"."},
    {"C001", "0022", "info",  "[{0}] Edited the WireGuard server settings. Server name: {1}, IP address: {2}, Listen port: {3}, Network interface: {4}, DNS server: {5}."},
    {"C001", "0023", "info",  "[{0}] Added WireGuard peer. Peer name: {1}, Endpoint: {2}, Allowed IPs: {3}, Persistent keepalive: {4}."},
    {"C001", "0024", "info",  "[{0}] Deleted WireGuard peer. Peer name: {1}, Endpoint: {2}, Allowed IPs: {3}, Persistent keepalive: {4}."},
    {"C001", "0025", "info",  "[{0}] Edited WireGuard peer. Peer name: {1}, Endpoint: {2}, Allowed IPs: {3}, Persistent keepalive: {4}."},
    {"C002", "0026", "info",  "[{0}] Added WireGuard client. Name: {1}, Address: {2}, Listen port: {3}, DNS server: {4}, Endpoint: {5}, Allowed IPs: {6}, Persistent keepalive: {7}."},
    {"C002", "0027", "info",  "[{0}] Edited WireGuard client settings. Name: {1}, Address: {2}, Listen port: {3}, DNS server: {4}, Endpoint: {5}, Allowed IPs: {6}, Persistent keepalive: {7}."},
    {"C002", "0028", "info",  "[{0}] Deleted WireGuard client. Name: {1}, Address: {2}, Listen port: {3}, DNS server: {4}, Endpoint: {5}, Allowed IPs: {6}, Persistent keepalive: {7}."},
    {"C001", "0029", "info",  "[{0}] \"{1}\" status: {2}. The status will be synchronized with the Brannix rules."},
    {"C001", "0030", "warn",  "[{0}] Failed to add \"{1}\" to the Brannix allow rule."},
    {"C001", "0031", "warn",  "[{0}] setup_vpn_entrance failed. VPN connection may appear connected but network traffic cannot be sent out"},
    {"C001", "0032", "warn",  "[{0}] boot_setup_nat may not execute properly."},
    {"C001", "0033", "warn",  "[{0}] Set vpn routing rule failed."},
    {"C001", "0034", "warn",  "[{0}] Failed to load ipip.ko or fou.ko."},
    {"C004", "0031", "info",  "[{0}] Connected NAS to Pelmar Orchestrator. Organization: {1}, Region: {2}, Hub: {3}."},
    {"C004", "0032", "info",  "[{0}] Disconnected NAS from Pelmar Orchestrator. Organization: {1}, Region: {2}, Hub: {3}."},
    {"C004", "0036", "warn",  "[{0}] Reducing data transmission speed soon because the Super Node is approaching its usage limit (less than 5 GB remaining). Renewal date: {1}."},
    {"C004", "0037", "warn",  "[{0}] Reduced the data transmission speed because the Super Node has reached its monthly usage limit. Renewal date: {1}."},
    {"C004", "0038", "error", "[{0}] Failed to connect to the Super Node."},
    {"C004", "0039", "info",  "[{0}] Reconnected to the Super Node."},
    {"C004", "0040", "info",  "[{0}] Changed the Pelmar Express NAS Virtual IP from {1} to {2}."},
};
// clang-format on

namespace {

constexpr const char* NOTIFY = "/usr/local/sbin/notify";
constexpr const char* SENDER = "ORMEL Service";
constexpr size_t MAX_ARGUMENTS = 12;
constexpr size_t MAX_EVENT_TEXT = 2048;  // bytes of an event's description
constexpr size_t EVENT_BUFFER = 1025;    // of the texts that are put together here

enum { EVENT_INFORMATION = 0, EVENT_WARNING = 1 };

// The first child's side: it leaves the tool to a child of its own that nobody has to wait for.
[[noreturn]] void start_notify(char* const* argv) {
  close_range(STDERR_FILENO + 1, ~0U, 0);
  const pid_t pid = fork();
  if (pid != 0) _exit(pid == -1 ? 1 : 0);
  const int null = open("/dev/null", O_RDWR);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, fd);
  execvp(argv[0], argv);
  _exit(1);
}

}  // namespace

std::span<const nc_msg_struct> nc_messages() {
  return __NC_MSG_DB__;
}

const nc_msg_struct& nc_message(const char* category, const char* id) {
  return *std::find_if(std::begin(__NC_MSG_DB__), std::end(__NC_MSG_DB__) - 1, [&](const nc_msg_struct& row) {
    return std::string_view(row.category_id) == category && std::string_view(row.message_id) == id;
  });
}

void nclog::notify_send(const nc_msg_struct* msg, ...) {
  std::vector<std::string> command{NOTIFY,       "send",          "-A", NOTICE_APPLICATION, "-C", msg->category_id,
                                   "-M",         msg->message_id, "-l", msg->level,         "-t", "3",
                                   msg->message, SENDER};
  const size_t fixed = command.size();
  va_list arguments;
  va_start(arguments, msg);
  while (const char* argument = va_arg(arguments, const char*)) {
    if (command.size() < fixed + MAX_ARGUMENTS) command.emplace_back(argument);
  }
  va_end(arguments);

  const system::Argv argv(command);
  const pid_t pid = fork();
  if (pid == 0) start_notify(argv.get());
  if (pid > 0) TEMP_FAILURE_RETRY(waitpid(pid, nullptr, 0));
}

namespace system {

namespace {

[[gnu::format(printf, 2, 3)]] void add_formatted(int type, const char* format, ...) {
  char text[EVENT_BUFFER];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  add_log(text, type);
}

void notify_users(const nc_msg_struct& message, const std::vector<std::string>& users) {
  for (const std::string& user : users) nclog::notify_send(&message, user.c_str(), nullptr);
}

}  // namespace

void add_log(const std::string& text, int type) {
  naslog_event event{};
  event.type = type;
  text.copy(event.event_desc, MAX_EVENT_TEXT);
  naslog_event_add(&event);
}

void add_up_event_log(const char* a, const char* b, const char* c) {
  add_formatted(EVENT_INFORMATION, "[ORMEL Service] %s %s is %s.", a, b, c);
}

void add_down_event_log(const char* a, const char* b, const char* c) {
  add_up_event_log(a, b, c);
}

void add_apply_event_log(const char* a, const char* b) {
  add_formatted(EVENT_INFORMATION, "[ORMEL Service] %s %s configuration is applied.", a, b);
}

void add_remove_event_log(const char* a, const char* b) {
  add_formatted(EVENT_WARNING, "[ORMEL Service] %s %s configuration is removed.", a, b);
}

void set_privilege_event_log(const std::vector<std::string>& users) {
  notify_users(nc_message("C001", "0004"), users);
}

void unset_privilege_event_log(const std::vector<std::string>& users) {
  notify_users(nc_message("C001", "0005"), users);
}

}  // namespace system
}  // namespace ormel
