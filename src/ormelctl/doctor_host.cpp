// Whether the host is in order.
#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "base/grants.h"
#include "ormel/base/address.h"
#include "ormel/base/crypto.h"
#include "ormel/base/file.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormelctl/doctor.h"

namespace ormelctl {

namespace {

constexpr const char* SETTINGS = "settings";
constexpr long SOON = 30;  // days before the end of a certificate

// Files and folders that hold secrets.
constexpr const char* SECRET_FILES[] = {"/etc/config/vpn.conf", "/etc/config/smbpasswd",
                                        "/etc/ppp/chap-secrets", "/etc/ppp/pap-secrets",
                                        "/var/log/network/ORMEL.log"};
constexpr const char* SECRET_FOLDERS[] = {"/etc/config/openvpn/clients",
                                          "/etc/config/ormel/wireguard", "/etc/openvpn/keys"};

void add(Findings& findings, const std::string& step, Finding finding) {
  finding.step = step;
  findings.push_back(std::move(finding));
}

void check_daemons(Findings& findings) {
  const ormel::Json rows = daemon_rows();
  std::string names;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) {
    const std::string name = text_of(row, "daemon");
    if (text_of(row, "state") == "running") {
      names += (names.empty() ? "" : ", ") + name;
    } else {
      add(findings, "daemons",
          failure(name + ' ' + text_of(row, "reason"), "systemctl restart " + name));
    }
  }
  if (!names.empty()) add(findings, "daemons", good(names + " answer"));
}

void check_servers(Findings& findings) {
  const ormel::Json rows = server_rows();
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) {
    const std::string name = text_of(row, "protocol");
    const std::string state = text_of(row, "state");
    if (state == "off") continue;
    if (state == "running")
      add(findings, "servers", good(name + " runs"));
    else
      add(findings, "servers",
          failure(name + " is on, but does not run: " + text_of(row, "why"),
                  "ormelctl server on " + name + " starts it again and says more"));
  }
}

struct Link {
  std::string interface, address, mask;
};

std::vector<Link> links() {
  constexpr const char* TUNNELS[] = {"lo", "wg", "tun", "ppp", "dtun", "pelmar"};
  std::vector<Link> found;
  const LimitedRun run = run_limited({"/sbin/ip", "-o", "-4", "address", "show"}, "", 3);
  for (const std::string& line : ormel::split_lines(run.out)) {
    const std::vector<std::string> words = ormel::split_words(line);
    const size_t slash = words.size() > 3 ? words[3].find('/') : std::string::npos;
    if (slash == std::string::npos ||
        std::any_of(std::begin(TUNNELS), std::end(TUNNELS),
                    [&](const char* prefix) { return words[1].starts_with(prefix); }))
      continue;
    found.push_back({words[1], words[3].substr(0, slash),
                     ormel::system::dotted_mask(ormel::to_int(words[3].c_str() + slash + 1))});
  }
  return found;
}

void check_pools(Findings& findings) {
  ormel::config::Management pool;
  pool.load();
  const std::vector<Link> own = links();
  bool fits = true;
  for (const Protocol& protocol : protocols()) {
    const ormel::config::PolyConfig* holder = pool.fetch(protocol.server, 0);
    if (!holder || !(*holder)->enable) continue;
    for (const ormel::system::Network& network : (*holder)->networks()) {
      for (const Link& link : own) {
        if (!ormel::system::is_intersect(network, {link.address, link.mask})) continue;
        fits = false;
        add(findings, "pools",
            failure(protocol.name + ' ' + network.address + " is in the network of " +
                        link.interface + " (" + link.address + ')',
                    "ormelctl server set " + protocol.name + " --pool NETWORK"));
      }
    }
  }
  if (fits) add(findings, "pools", good("no server's network is one of this host"));
}

void check_secret(Findings& findings, const std::string& path) {
  struct stat info {};
  constexpr mode_t OTHERS = 0077;
  if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || (info.st_mode & OTHERS) == 0)
    return;
  if (path.ends_with(".crt") || path.ends_with(".pem")) return;  // certificates are public
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
  add(findings, "secrets",
      warning(path + " can be read by others (" + mode + ')', "chmod 600 " + path));
}

void check_secrets(Findings& findings) {
  const size_t before = findings.size();
  for (const char* path : SECRET_FILES) check_secret(findings, path);
  for (const char* folder : SECRET_FOLDERS) {
    const ormel::Dir entries{opendir(folder)};
    while (const dirent* entry = entries ? readdir(entries.get()) : nullptr)
      check_secret(findings, std::string(folder) + '/' + entry->d_name);
  }
  if (findings.size() == before) add(findings, "secrets", good("only root can read them"));
}

bool opens(const char* device) {
  return static_cast<bool>(ormel::Fd{open(device, O_RDWR | O_CLOEXEC | O_NONBLOCK)});
}

void check_kernel(Findings& findings) {
  if (!opens("/dev/net/tun"))
    add(findings, "kernel",
        warning("no TUN device: OpenVPN and Drovik cannot run", "modprobe tun"));
  if (!opens("/dev/ppp"))
    add(findings, "kernel", warning("no PPP: PPTP and L2TP cannot run", "modprobe ppp_generic"));
  if (access("/usr/sbin/nft", X_OK) != 0 && access("/usr/sbin/iptables", X_OK) != 0)
    add(findings, "kernel",
        warning("no firewall tool: clients reach nothing behind this host",
                "apt install nftables"));
}

void check_disk(Findings& findings) {
  constexpr unsigned long FULL = 1UL << 20U, SCARCE = 64UL << 20U;  // bytes
  for (const char* folder : {"/etc/config", "/var/lib/ormel", "/var/log"}) {
    struct statvfs space {};
    if (statvfs(folder, &space) != 0) continue;
    const unsigned long free = space.f_bavail * space.f_frsize;
    if (free >= SCARCE) continue;
    const std::string text =
        std::string(folder) + ": " + size_text(static_cast<double>(free)) + " free";
    add(findings, "disk",
        free < FULL ? failure(text, "make room: settings cannot be saved")
                    : warning(text, "make room"));
  }
}

void check_certificates(Findings& findings) {
  struct Row {
    const char *path, *name, *cure;
  };
  constexpr Row ROWS[] = {
      {"/etc/fenro/web/server.crt", "the web interface's",
       "replace /etc/fenro/web/server.crt and server.key"},
      {"/etc/openvpn/keys/myserver.crt", "the OpenVPN server's", "ormelctl cert renew server"},
      {"/etc/openvpn/keys/ca.crt", "the OpenVPN authority's",
       "ormelctl cert rotate authority --overlap 60d"},
  };
  for (const Row& row : ROWS) {
    std::string pem;
    if (!ormel::system::read_file(row.path, pem)) continue;
    for (const ormel::openssl::CertificateFacts& one : ormel::openssl::certificates_of(pem)) {
      const std::string name = std::string(row.name) + " certificate ";
      if (one.days < 0)
        add(findings, "certificates",
            failure(name + "has expired " + std::to_string(-one.days) + " days ago", row.cure));
      else if (one.days < SOON)
        add(findings, "certificates",
            warning(name + "expires in " + std::to_string(one.days) + " days", row.cure));
      else
        add(findings, "certificates",
            good(name + "is valid for " + std::to_string(one.days) + " days"));
    }
  }
}

void check_files(Findings& findings) {
  Findings damaged = damaged_files();
  std::ranges::move(damaged, std::back_inserter(findings));
}

constexpr void (*CHECKS[])(Findings& findings) = {check_files, check_daemons,     check_servers,
                                                  check_pools, check_secrets,     check_kernel,
                                                  check_disk,  check_certificates};

}  // namespace

Findings damaged_files() {
  Findings findings;
  const std::string settings = ormel::config::VPN_CONF, grants = fenro::GRANTS;
  if (const auto fault = ormel::config::fault_of_settings())
    add(findings, SETTINGS,
        failure(fault.text + ": servers and tunnels look off, whether they run or not",
                "mv " + settings +
                    " /root/, then ormelctl undo NUMBER (ormelctl undo list) or ormelctl restore "
                    "FILE"));
  if (const fenro::GrantBook book = fenro::read_grants(); book.damaged)
    add(findings, "access",
        book.is_copy ? failure(grants + " is damaged: its last good copy counts, and no end of "
                                        "access can be changed",
                               "cp " + grants + ".good " + grants)
                     : failure(grants + " is damaged: access may not end when it should",
                               "ormelctl restore FILE, or rm " + grants +
                                   " and grant what is for a time again"));
  return findings;
}

bool settings_are_damaged(const Findings& damaged) {
  return !damaged.empty() && damaged[0].step == SETTINGS;
}

Findings examine_host() {
  Findings findings;
  for (const auto check : CHECKS) check(findings);
  return findings;
}

}  // namespace ormelctl
