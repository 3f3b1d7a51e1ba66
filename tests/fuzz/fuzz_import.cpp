// The import of a foreign profile from end to end: the file is read, judged, made ours, stored, and
// read back by the next run. Input: the file. All of it happens in a file tree in memory that only
// this process sees.
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

#include "fuzz/require.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
using fuzz::require;
using support::read;

constexpr const char* FOLDER = "/etc/config/openvpn/clients";
constexpr const char* STORED = "/etc/config/openvpn/clients/client1";
constexpr const char* CRL = "/etc/config/openvpn/clients/client1_crl.pem";
constexpr const char* FOREIGN = "/tmp/foreign.ovpn";

// Without a tree of our own the host's would be written to, so nothing is tried then. What a
// refusal says goes nowhere.
bool private_tree() {
  const int flags = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
  if (unshare(flags) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  for (const char* place : {"/etc", "/tmp", "/var"})
    if (mount("none", place, "tmpfs", 0, "size=64m") != 0) return false;
  return fs::create_directories(FOLDER);
}

// How many lines begin so.
size_t count(const std::string& lines, const std::string& start_of_line) {
  size_t found = 0;
  for (size_t at = 0; (at = lines.find('\n' + start_of_line, at)) != std::string::npos; ++at)
    ++found;
  return found;
}

void check_stored(const ormel::ovpn::ClientConfig& record) {
  require(support::mode_of(STORED) == 0600, "what is stored is private");
  const std::string text = '\n' + read(STORED);
  const std::string lines = text.substr(0, text.find("\n<"));
  for (const char* forced :
       {"up /etc/openvpn/openvpn_up\n", "down /etc/openvpn/openvpn_down\n", "dev tun2001\n",
        "log /dev/null\n", "management /tmp/openvpn.client1.sock unix\n", "script-security 3\n"})
    require(count(lines + '\n', forced) == 1, forced);
  for (const char* gone : {"remote ", "proto ", "user ", "group ", "redirect-gateway"})
    require(count(lines, gone) == 0, gone);
  require(!record.remotes.empty(), "there is a server");
  require(count(lines + '\n', "auth-user-pass\n") == (record.auth_pass ? 1U : 0U),
          "a login is asked for, and not kept in the file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = private_tree();
  if (!ready) return 0;
  for (const char* folder : {"/tmp", FOLDER})
    for (const auto& file : fs::directory_iterator(folder)) fs::remove(file);
  support::write(FOREIGN, {reinterpret_cast<const char*>(data), size});
  ormel::ovpn::ClientConfig record(0);
  record.name = "office";
  record.file = FOREIGN;

  const int rc = record.import(1);

  // The last step, a word to the network daemon, fails here; the profile is stored before.
  if (!fs::exists(STORED)) {
    require(rc != 0, "an import without a result is refused");
    return 0;
  }
  check_stored(record);
  require(!fs::exists(CRL) || read(CRL).find("BEGIN X509 CRL") != std::string::npos,
          "what is moved is a revocation list");
  return 0;
}
