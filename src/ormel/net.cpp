#include "ormel/net.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <netdb.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ormel/error.h"
#include "ormel/json.h"
#include "ormel/system.h"

namespace ormel::system {

namespace {

constexpr long HTTP_TIMEOUT = 10;  // seconds
constexpr size_t ANSWER_LIMIT = size_t{4} * 1024 * 1024;
constexpr const char* VERIFY_SCRIPT = "/usr/sbin/verify_ovpn.sh";
constexpr const char* DEFAULT_CONF = "/etc/default_config/Corlin.conf";
constexpr const char* SYSTEM_CONF = "/etc/config/Corlin.conf";

using InterfaceList = std::unique_ptr<ifaddrs, FreeWith<freeifaddrs>>;

bool marked(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

using HostText = char[256];

const char* host_text(HostText& buffer, const char* key, const char* path) {
  Get_Private_Profile_String("System", key, "", buffer, sizeof buffer, path);
  return buffer;
}

const in_addr& address_of(const sockaddr* address) {
  return reinterpret_cast<const sockaddr_in*>(address)->sin_addr;  // the family has been looked at
}

void collect_subnet(const ifaddrs& interface, std::vector<std::string>& out) {
  if (!interface.ifa_netmask) {
    ORMEL_LOG(DEBUG, "Interface %s has no netmask, skipping\n", interface.ifa_name);
    return;
  }
  const int prefix = netmask_to_prefix(address_of(interface.ifa_netmask).s_addr);
  if (prefix < 0) {
    ORMEL_LOG(ERROR, "Invalid netmask for %s, skipping\n", interface.ifa_name);
    return;
  }
  char address[NI_MAXHOST];
  const int rc =
      getnameinfo(interface.ifa_addr, sizeof(sockaddr_in), address, sizeof address, nullptr, 0, NI_NUMERICHOST);
  if (rc != 0) {
    ORMEL_LOG(ERROR, "getnameinfo() failed for %s: %s\n", interface.ifa_name, gai_strerror(rc));
    return;
  }
  out.push_back(std::string(address) + '/' + std::to_string(prefix));
  ORMEL_LOG(DEBUG, "Found subnet on interface %s: %s\n", interface.ifa_name, out.back().c_str());
}

void kick(const char* action, TYPE type, const char* arg) {
  std::ignore = background({COMMON_SCRIPT, action, std::to_string(type), arg ? arg : ""});  // nobody waits for it
}

}  // namespace

uint32_t calculate_net(const in_addr& addr, const in_addr& mask) {
  return addr.s_addr & mask.s_addr;
}

uint32_t calculate_broadcast(const in_addr& addr, const in_addr& mask) {
  return addr.s_addr | ~mask.s_addr;
}

bool is_intersect(const in_addr& a, const in_addr& a_mask, const in_addr& b, const in_addr& b_mask) {
  return ntohl(calculate_net(a, a_mask)) <= ntohl(calculate_broadcast(b, b_mask)) &&
         ntohl(calculate_broadcast(a, a_mask)) >= ntohl(calculate_net(b, b_mask));
}

int is_network_intersect(const char* ip, const char* mask) {
  constexpr const char* METHOD = "api.check_network_intersect";
  const MibIo io{mib_io_create()};
  if (!io) return ERR_MIB_IO_FAILED;
  // The addresses can come from a form: escaped, they cannot add a member to the request or a line to the log.
  const std::string address = escape_json(ip);
  const std::string netmask = escape_json(mask);
  const std::string call = std::string(NETWORK_SERVICE) + '.' + METHOD + ", ip: " + address + ", mask: " + netmask;
  mib_io_printf(io.get(), "{\"ip\":\"%s\", \"mask\": \"%s\"}", address.c_str(), netmask.c_str());
  if (const int rc = mib_call(NETWORK_SERVICE, METHOD, io.get(), BUS_TIMEOUT, BUS_FLAG)) {
    ORMEL_LOG(ERROR, "%s: %s, mib_call failed ret:%d\n", __func__, call.c_str(), rc);
    return ERR_MIB_CALL_FAILED;
  }

  size_t length = 0;
  const char* text = mib_io_read(io.get(), &length);
  const Json root{text ? json_loadb(text, length, 0, nullptr) : nullptr};
  if (!root) {
    ORMEL_LOG(ERROR, "%s: %s, failed to parse json.\n", __func__, call.c_str());
    return ERR_MIB_CALL_FAILED;
  }
  const json_t* error = json_object_get(root.get(), "error");
  const json_int_t code = json_is_integer(error) ? json_integer_value(error) : -1;
  if (code == 0) return NO_ERROR;
  if (code == 1) {
    ORMEL_LOG(ERROR, "%s: %s, ip pool conflict with FENRO network.\n", __func__, call.c_str());
    return ERR_IP_POOL_CONFLICT;
  }
  const char* data = json_string_value(json_object_get(root.get(), "data"));
  ORMEL_LOG(ERROR, "%s: %s, mib_call failed ret:%d, data: %s.\n", __func__, call.c_str(), static_cast<int>(code),
            data ? data : "");
  return ERR_MIB_API_RET_ERROR;
}

int collect_all_interface_subnet(std::vector<std::string>& out) {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) {
    ORMEL_LOG(ERROR, "Failed to get network interfaces: %s\n", std::strerror(errno));
    return ERR_CMD_FAILED;
  }
  const InterfaceList interfaces{first};
  for (const ifaddrs* interface = first; interface; interface = interface->ifa_next) {
    const bool ipv4 = interface->ifa_addr && interface->ifa_addr->sa_family == AF_INET;
    if (ipv4 && std::strcmp(interface->ifa_name, "lo") != 0) collect_subnet(*interface, out);
  }
  ORMEL_LOG(DEBUG, "Collected %zu subnets from network interfaces\n", out.size());
  return NO_ERROR;
}

int netmask_to_prefix(uint32_t mask) {
  const uint32_t bits = ntohl(mask);
  const int prefix = std::countl_one(bits);
  if (std::popcount(bits) == prefix) return prefix;
  ORMEL_LOG(ERROR, "Invalid netmask: 0x%08x (non-consecutive bits)\n", bits);
  return -1;
}

std::string dotted_mask(int prefix) {
  const int length = std::clamp(prefix, 0, 32);
  const in_addr mask{htonl(length == 0 ? 0 : ~uint32_t{0} << (32 - length))};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &mask, text, sizeof text);
}

bool parse_address(const std::string& text, in_addr& addr) {
  return inet_pton(AF_INET, text.c_str(), &addr) == 1;
}

void nslookup(const std::string& host, std::vector<std::string>& out) {
  const hostent* entry = gethostbyname(host.c_str());
  if (!entry || entry->h_addrtype != AF_INET) return;
  for (char** address = entry->h_addr_list; *address; ++address) {
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, *address, text, sizeof text)) out.emplace_back(text);
  }
}

std::string nslookup(const std::string& host) {
  std::vector<std::string> addresses;
  nslookup(host, addresses);
  return addresses.empty() ? std::string() : addresses.front();
}

size_t curl_memory_data(void* bytes, size_t size, size_t count, void* out) {
  std::string& text = *static_cast<std::string*>(out);
  const size_t length = size * count;
  if (length > ANSWER_LIMIT - std::min(text.size(), ANSWER_LIMIT)) {
    ORMEL_LOG(ERROR, "[easycurl] the answer is larger than %zu bytes and is dropped", ANSWER_LIMIT);
    text.clear();  // nobody works on a part of it, and it does not belong in the log
    return 0;
  }
  text.append(static_cast<const char*>(bytes), length);
  return length;
}

namespace {

// Of the host's folder of authorities one file is read, where the bundle of all takes longer than the rest of a
// request. What is trusted is the same: an authority that stands in the bundle alone is looked for there.
CURLcode perform(const curl::Api& library, CURL* handle) {
  static bool needs_bundle = false;  // once in this run, and the next request begins with it
  if (needs_bundle) return library.easy_perform(handle);
  library.easy_setopt(handle, CURLOPT_CAINFO, nullptr);
  const CURLcode rc = library.easy_perform(handle);
  if (rc != CURLE_PEER_FAILED_VERIFICATION && rc != CURLE_SSL_CACERT_BADFILE) return rc;
  const char* bundle = nullptr;
  curl_off_t spent = 0;  // microseconds
  if (library.easy_getinfo(handle, CURLINFO_CAINFO, &bundle) != CURLE_OK || !bundle) return rc;
  library.easy_getinfo(handle, CURLINFO_TOTAL_TIME_T, &spent);
  needs_bundle = true;
  library.easy_setopt(handle, CURLOPT_CAINFO, bundle);
  library.easy_setopt(handle, CURLOPT_TIMEOUT_MS, std::max(1L, HTTP_TIMEOUT * 1000 - static_cast<long>(spent / 1000)));
  return library.easy_perform(handle);
}

}  // namespace

int easycurl(Curl handle, std::string& out) {
  if (!handle) return ERR_EASYCURL_FAIL;
  const curl::Api& library = *curl::api();
  library.easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, curl_memory_data);
  library.easy_setopt(handle.get(), CURLOPT_WRITEDATA, &out);
  library.easy_setopt(handle.get(), CURLOPT_TIMEOUT, HTTP_TIMEOUT);
  if (const CURLcode rc = perform(library, handle.get()); rc != CURLE_OK) {
    ORMEL_LOG(ERROR, "[easycurl] curl_easy_perform failed with error code: %d, %s, %s\n", static_cast<int>(rc),
              library.easy_strerror(rc), out.c_str());
    return static_cast<int>(rc);
  }
  long status = 0;
  library.easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status >= 200 && status <= 299) return NO_ERROR;
  ORMEL_LOG(ERROR, "[easycurl] HTTP request failed with status code: %ld, response: %s\n", status, out.c_str());
  return ERR_HTTP_ERROR;
}

bool is_demo() {
  return marked("/etc/IS_DEMO");
}
bool is_generic() {
  return marked("/etc/IS_GENERIC");
}
bool is_hexan() {
  return marked("/etc/FENRO_ZFS");
}

const char* get_model_name() {
  static HostText buffer;
  return host_text(buffer, "Model", DEFAULT_CONF);
}

const char* get_server_name() {
  static HostText buffer;
  return host_text(buffer, "Server Name", SYSTEM_CONF);
}

const char* get_firmware_version() {
  static HostText buffer;
  return host_text(buffer, "Version", DEFAULT_CONF);
}

const char* get_server_region() {
  static HostText buffer;
  return host_text(buffer, "Region", SYSTEM_CONF);
}

void kick_all_connection(TYPE type, const char* arg) {
  kick("kick_all_connection", type, arg);
}

void kick_one_connection(TYPE type, const char* arg) {
  kick("kick_one_connection", type, arg);
}

bool verify_ovpn_config(char* a, char* b) {
  const std::vector<std::string> command{VERIFY_SCRIPT, a, b};
  const Argv argv(command);
  const pid_t pid = fork();
  if (pid == -1) return false;
  if (pid == 0) exec_detached(argv.get());
  int status = 0;
  if (TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) == -1) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace ormel::system
