// fenro-openvpn-profile: the only reader of foreign OpenVPN profiles, which come on standard input.
//
//   fenro-openvpn-profile copy SLOT    what the daemon of a client tunnel gets to read
//   fenro-openvpn-profile check [--ca|--cert|--key FILE]...
//                                      what the daemon that judges an upload gets to read
//   fenro-openvpn-profile value NAME   the first word of the last line of a name
//
// A copy holds options of the table below and nothing else, in one form of blanks and quotes: what
// is not understood here does not reach a daemon. "copy" leaves other options out, naming line and
// option on standard error, and refuses a profile with one that would harm the host. "check" leaves
// those out, which are not of the profile's substance, and refuses what no daemon knows, as the
// daemon would. A value is never shown: it may be a secret.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file.h"
#include "openvpn/client_sockets.h"
#include "openvpn/profile_lines.h"

namespace {

using fenro::openvpn::ProfileLine;
using fenro::openvpn::ProfileText;

constexpr std::size_t MAX_PROFILE = std::size_t{16} * 1024 * 1024;
constexpr int LAST_SLOT = 32;
constexpr std::string_view CLIENTS = "/etc/config/openvpn/clients/";
constexpr std::string_view PLAIN_BYTES =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:@%+=,-";

using Names = std::set<std::string_view>;

// Options of a client that only tell how it talks to its server.
const Names ALLOWED{
    "allow-compression",
    "allow-pull-fqdn",
    "allow-recursive-routing",
    "auth",
    "auth-nocache",
    "auth-retry",
    "auth-token",
    "auth-token-user",
    "block-ipv6",
    "cipher",
    "client",
    "client-nat",
    "comp-lzo",
    "comp-noadapt",
    "compat-mode",
    "compress",
    "connect-retry",
    "connect-retry-max",
    "connect-timeout",
    "data-ciphers",
    "data-ciphers-fallback",
    "dhcp-option",
    "disable-dco",
    "disable-occ",
    "dns",
    "ecdh-curve",
    "explicit-exit-notify",
    "fast-io",
    "float",
    "fragment",
    "hand-window",
    "http-proxy",
    "http-proxy-option",
    "http-proxy-retry",
    "http-proxy-timeout",
    "ifconfig",
    "ifconfig-ipv6",
    "ifconfig-nowarn",
    "inactive",
    "keepalive",
    "key-direction",
    "key-method",
    "link-mtu",
    "management-query-passwords",
    "max-packet-size",
    "mssfix",
    "mtu-disc",
    "mtu-test",
    "mute",
    "mute-replay-warnings",
    "ncp-ciphers",
    "nobind",
    "no-iv",
    "no-replay",
    "ns-cert-type",
    "passtos",
    "peer-fingerprint",
    "persist-key",
    "persist-local-ip",
    "persist-remote-ip",
    "persist-tun",
    "ping",
    "ping-exit",
    "ping-restart",
    "ping-timer-rem",
    "port",
    "prng",
    "proto",
    "proto-force",
    "pull",
    "pull-filter",
    "push-peer-info",
    "rcvbuf",
    "redirect-private",
    "remote",
    "remote-cert-eku",
    "remote-cert-ku",
    "remote-cert-tls",
    "remote-random",
    "remote-random-hostname",
    "reneg-bytes",
    "reneg-pkts",
    "reneg-sec",
    "replay-window",
    "resolv-retry",
    "route",
    "route-delay",
    "route-gateway",
    "route-ipv6",
    "route-ipv6-gateway",
    "route-metric",
    "route-nopull",
    "rport",
    "server-poll-timeout",
    "session-timeout",
    "shaper",
    "single-session",
    "sndbuf",
    "socket-flags",
    "socks-proxy",
    "socks-proxy-retry",
    "static-challenge",
    "tcp-queue-limit",
    "tls-cert-profile",
    "tls-cipher",
    "tls-ciphersuites",
    "tls-client",
    "tls-exit",
    "tls-groups",
    "tls-timeout",
    "tls-version-max",
    "tls-version-min",
    "topology",
    "tran-window",
    "tun-ipv6",
    "tun-max-mtu",
    "tun-mtu",
    "tun-mtu-extra",
    "tun-mtu-max",
    "txqueuelen",
    "udp-mtu",
    "verify-hash",
    "verify-x509-name",
    "x509-track",
};

// Allowed as a block only: alone they name a file of this host.
const Names BLOCKS{
    "auth-user-pass", "ca",        "cert",         "crl-verify",       "dh",
    "extra-certs",    "key",       "pkcs12",       "secret",           "http-proxy-user-pass",
    "tls-auth",       "tls-crypt", "tls-crypt-v2", "peer-fingerprint", "verify-hash"};

// A profile with one of these does not run: it was made to do something else than to reach a
// server.
const Names HARMFUL{"chroot",         "config",           "engine",    "genkey",
                    "mktun",          "pkcs11-providers", "providers", "plugin",
                    "replay-persist", "tls-export-cert",  "rmtun",     "http-proxy-user-pass"};

// What else the daemon knows. A judged profile may have them; no copy has.
const Names KNOWN{"askpass",
                  "auth-gen-token",
                  "auth-gen-token-secret",
                  "auth-user-pass-optional",
                  "auth-user-pass-verify",
                  "bcast-buffers",
                  "bind",
                  "bind-dev",
                  "block-outside-dns",
                  "capath",
                  "ccd-exclusive",
                  "cd",
                  "client-config-dir",
                  "client-connect",
                  "client-crresponse",
                  "client-disconnect",
                  "client-to-client",
                  "connect-freq",
                  "connect-freq-initial",
                  "daemon",
                  "dev",
                  "dev-node",
                  "dev-type",
                  "disable",
                  "down",
                  "down-pre",
                  "duplicate-cn",
                  "echo",
                  "errors-to-stderr",
                  "gremlin",
                  "group",
                  "hash-size",
                  "ifconfig-ipv6-pool",
                  "ifconfig-ipv6-push",
                  "ifconfig-noexec",
                  "ifconfig-pool",
                  "ifconfig-pool-persist",
                  "ifconfig-push",
                  "inetd",
                  "ipchange",
                  "iproute",
                  "iroute",
                  "iroute-ipv6",
                  "keying-material-exporter",
                  "keysize",
                  "learn-address",
                  "lladdr",
                  "local",
                  "log",
                  "log-append",
                  "lport",
                  "machine-readable-output",
                  "management",
                  "management-client",
                  "management-client-auth",
                  "management-client-group",
                  "management-client-user",
                  "management-external-cert",
                  "management-external-key",
                  "management-forget-disconnect",
                  "management-hold",
                  "management-log-cache",
                  "management-query-proxy",
                  "management-query-remote",
                  "management-signal",
                  "management-up-down",
                  "mark",
                  "max-clients",
                  "max-routes-per-client",
                  "memstats",
                  "mlock",
                  "mode",
                  "multihome",
                  "ncp-disable",
                  "nice",
                  "no-name-remapping",
                  "opt-verify",
                  "parameter",
                  "pkcs11-cert-private",
                  "pkcs11-id",
                  "pkcs11-id-management",
                  "pkcs11-pin-cache",
                  "pkcs11-private-mode",
                  "pkcs11-protected-authentication",
                  "port-share",
                  "push",
                  "push-remove",
                  "push-reset",
                  "redirect-gateway",
                  "remap-usr1",
                  "route-noexec",
                  "route-pre-down",
                  "route-up",
                  "script-security",
                  "server",
                  "server-bridge",
                  "server-ipv6",
                  "setcon",
                  "setenv",
                  "setenv-safe",
                  "stale-routes-check",
                  "status",
                  "status-version",
                  "suppress-timestamps",
                  "syslog",
                  "tcp-nodelay",
                  "test-crypto",
                  "tls-crypt-v2-verify",
                  "tls-server",
                  "tls-verify",
                  "tmp-dir",
                  "up",
                  "up-delay",
                  "up-restart",
                  "user",
                  "username-as-common-name",
                  "verb",
                  "verify-client-cert",
                  "vlan-accept",
                  "vlan-pvid",
                  "vlan-tagging",
                  "writepid",
                  "x509-username-field"};

// Of the allowed ones a check leaves out what an import replaces, and what would have the daemon
// ask or wait.
const Names NOT_JUDGED{"cipher",       "data-ciphers",         "ncp-ciphers",
                       "http-proxy",   "http-proxy-user-pass", "socks-proxy",
                       "resolv-retry", "auth-user-pass",       "management-query-passwords"};

// Variables that programs and shells obey.
constexpr std::string_view COMMANDING[] = {"LD_",      "GLIBC_", "MALLOC_", "BASH",
                                           "OPENSSL_", "LOC",    "GCONV",   "TZ"};
const Names COMMANDS{"ENV",    "PATH",    "IFS",    "SHELLOPTS",   "PS4",
                     "CDPATH", "NLSPATH", "TMPDIR", "HOSTALIASES", "RES_OPTIONS"};

bool commands(std::string_view variable) {
  return COMMANDS.contains(variable) ||
         std::any_of(std::begin(COMMANDING), std::end(COMMANDING),
                     [&](auto start) { return variable.starts_with(start); });
}

enum class Verdict { Allowed, LeftOut, Silent, Harmful, Unknown, Missing };

[[noreturn]] void refuse(std::size_t line, const std::string& what) {
  std::fprintf(stderr, "line %zu: %s\n", line, what.c_str());
  std::exit(EXIT_FAILURE);
}

std::string quoted(const std::string& word) {
  if (!word.empty() && word.find_first_not_of(PLAIN_BYTES) == std::string::npos) return word;
  std::string text = "\"";
  for (const char byte : word) {
    if (byte == '"' || byte == '\\') text += '\\';
    text += byte;
  }
  return text + '"';
}

class Copy {
 public:
  // Slot 0: the profile is judged.
  Copy(const ProfileText& text, int slot, std::set<std::string> given)
      : slot_(slot), given_(std::move(given)) {
    for (const ProfileLine& line : text.lines) note_forgiven(line);
    if (slot_ != 0) set_ours();
    for (const ProfileLine& line : text.lines) add(line, text_);
    for (const std::string& line : ours_) text_ += line + '\n';
  }
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  // How the daemon runs on this host; what an import has forced into the profile says the same,
  // but for the socket, which is the attendant's.
  void set_ours() {
    const std::string slot = std::to_string(slot_);
    ours_ = {"dev tun" + std::to_string(2000 + slot_),
             "up /etc/openvpn/openvpn_up",
             "down /etc/openvpn/openvpn_down",
             "daemon openvpn-client",
             "script-security 3",
             "management " + fenro::openvpn::daemon_socket(slot_) + " unix",
             "log /dev/null",
             "writepid /var/run/openvpn.client" + slot + ".pid",
             "plugin /usr/lib/vpn_ext.so " + slot};
  }

  [[nodiscard]] bool is_ours(const std::string& line) const {
    return std::find(ours_.begin(), ours_.end(), line) != ours_.end() ||
           line == "management " + fenro::openvpn::login_socket(slot_) + " unix";
  }

  void note_forgiven(const ProfileLine& line) {
    const auto& words = line.words;
    if (words[0] == "ignore-unknown-option") forgiven_.insert(words.begin() + 1, words.end());
    forgiving_ |= words.size() > 2 && words[0] == "setenv" && words[1] == "FORWARD_COMPATIBLE" &&
                  words[2] == "1";
  }

  [[nodiscard]] Verdict judge_file(const std::vector<std::string>& words) const {
    const std::string& name = words[0];
    if (name == "auth-user-pass") return words.size() == 1 ? Verdict::Allowed : Verdict::LeftOut;
    if (slot_ == 0 && (name == "ca" || name == "cert" || name == "key"))
      return given_.contains(name) ? Verdict::Silent : Verdict::Missing;
    return Verdict::LeftOut;
  }

  [[nodiscard]] Verdict judge_words(const std::vector<std::string>& words) const {
    const std::string& name = words[0];
    const auto word = [&](std::size_t at) {
      return at < words.size() ? std::string_view(words[at]) : "";
    };
    if (name == "ignore-unknown-option") return Verdict::Silent;
    if (name == "setenv") {
      if (word(1).starts_with("UV_") || word(1).starts_with("IV_")) return Verdict::Allowed;
      if (word(1) == "FORWARD_COMPATIBLE") return Verdict::Silent;
      return commands(word(1)) ? Verdict::Harmful : Verdict::LeftOut;
    }
    // A file of names and passwords would be sent to the proxy that the profile names.
    if (name == "socks-proxy" && words.size() > 3) return Verdict::Harmful;
    if (name == "http-proxy" && words.size() > 3 &&
        !Names{"auto", "auto-nct", "none", "stdin"}.contains(words[3]))
      return Verdict::Harmful;
    if (HARMFUL.contains(name)) return Verdict::Harmful;
    if (ALLOWED.contains(name)) return Verdict::Allowed;
    if (BLOCKS.contains(name)) return judge_file(words);
    return KNOWN.contains(name) ? Verdict::LeftOut : Verdict::Unknown;
  }

  [[nodiscard]] Verdict judge(const ProfileLine& line, const std::vector<std::string>& words,
                              bool forgiven) const {
    if (line.block && (BLOCKS.contains(words[0]) || words[0] == "connection"))
      return Verdict::Allowed;
    Verdict verdict = line.block ? Verdict::Unknown : judge_words(words);
    if (line.block &&
        (KNOWN.contains(words[0]) || HARMFUL.contains(words[0]) || ALLOWED.contains(words[0])))
      verdict = Verdict::LeftOut;
    if (verdict == Verdict::Unknown &&
        (forgiven || forgiving_ || forgiven_.contains(words[0]) || slot_ != 0))
      verdict = Verdict::LeftOut;
    return verdict;
  }

  void add(const ProfileLine& line, std::string& out) {
    std::vector<std::string> words = line.words;
    const bool forgiven =
        !line.block && words.size() > 2 && words[0] == "setenv" && words[1] == "opt";
    if (forgiven) words.erase(words.begin(), words.begin() + 2);
    // The daemon of a check has no login to offer.
    if (slot_ == 0 && words[0] == "auth-user-pass") {
      out += "<auth-user-pass>\nnobody\nnothing\n</auth-user-pass>\n";
      return;
    }
    std::string written;
    for (const std::string& word : words) written += (written.empty() ? "" : " ") + quoted(word);
    if (is_ours(written)) return;
    if (slot_ != 0 && words.size() == 2 && words[0] == "crl-verify" && words[1] == crl_name()) {
      out += "crl-verify " + std::string(CLIENTS) + crl_name() + '\n';
      return;
    }
    switch (judge(line, words, forgiven)) {
      case Verdict::Allowed: break;
      case Verdict::Silent: return;
      case Verdict::LeftOut: return leave_out(line, words[0]);
      case Verdict::Harmful:
        if (slot_ != 0)
          refuse(line.number, "must not run on this appliance, for its line: " + words[0]);
        return leave_out(line, words[0]);
      case Verdict::Unknown: refuse(line.number, "no option of the daemon: " + words[0]);
      case Verdict::Missing:
        refuse(line.number, "a file that did not come with the profile: " + words[0]);
    }
    if (slot_ == 0 && NOT_JUDGED.contains(words[0])) return;
    if (slot_ == 0 && !line.block && words[0] == "tls-cipher" && words.size() > 1 &&
        is_none(words[1]))
      return;
    if (line.block) return add_block(line, out);
    if (written.size() >= fenro::openvpn::MAX_LINE) refuse(line.number, "a line that is too long");
    out += written + '\n';
  }

  static bool is_none(std::string word) {
    for (char& byte : word) byte = static_cast<char>(byte | 0x20);
    return word == "none";
  }

  void add_block(const ProfileLine& line, std::string& out) {
    std::string body;
    if (line.words[0] == "connection") {
      const ProfileText inner = fenro::openvpn::read_profile(line.body, line.number + 1);
      if (inner.refusal) refuse(inner.refused_line, inner.refusal);
      for (const ProfileLine& row : inner.lines) add(row, body);
    } else {
      body = line.body;
      body.erase(std::remove(body.begin(), body.end(), '\r'), body.end());
    }
    out += '<' + line.words[0] + ">\n" + body + "</" + line.words[0] + ">\n";
  }

  void leave_out(const ProfileLine& line, const std::string& name) const {
    std::fprintf(stderr, "line %zu: %s\n", line.number, name.c_str());
  }

  [[nodiscard]] std::string crl_name() const {
    return "client" + std::to_string(slot_) + "_crl.pem";
  }

  int slot_;
  std::set<std::string> given_;
  std::set<std::string, std::less<>> forgiven_{};
  bool forgiving_ = false;
  std::vector<std::string> ours_{};
  std::string text_{};
};

std::string read_input() {
  std::string text;
  char chunk[65536];
  for (std::size_t got = 0; (got = std::fread(chunk, 1, sizeof chunk, stdin)) != 0;) {
    text.append(chunk, got);
    if (text.size() > MAX_PROFILE) refuse(1, "a profile that is too long");
  }
  if (std::ferror(stdin)) refuse(1, "a profile that can't be read");
  return text;
}

int slot_of(std::string_view text) {
  int slot = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), slot);
  return failure == std::errc{} && end == text.data() + text.size() && slot >= 1 &&
                 slot <= LAST_SLOT
             ? slot
             : 0;
}

ProfileText read_profile() {
  ProfileText text = fenro::openvpn::read_profile(read_input());
  if (text.refusal) refuse(text.refused_line, text.refusal);
  return text;
}

int print(const std::string& text) {
  return fenro::write_all(STDOUT_FILENO, text) ? EXIT_SUCCESS : EXIT_FAILURE;
}

int value(const char* name) {
  std::string found;
  for (const ProfileLine& line : read_profile().lines) {
    const std::size_t skip =
        line.words.size() > 2 && line.words[0] == "setenv" && line.words[1] == "opt" ? 2 : 0;
    if (line.block || line.words[skip] != name) continue;
    found = skip + 1 < line.words.size() ? line.words[skip + 1] : "";
  }
  return print(found + '\n');
}

// Key files that come beside a profile become blocks of the copy: the daemon that judges can open
// no file.
int check(int count, char** options) {
  std::set<std::string> given;
  std::string blocks;
  for (int at = 0; at < count; at += 2) {
    const std::string option = options[at];
    std::string content;
    if (at + 1 == count || !Names{"--ca", "--cert", "--key"}.contains(option))
      refuse(0, "not an option");
    if (fenro::read_file(options[at + 1], content) != 0)
      refuse(0, "a file that can't be read for " + option);
    const std::string name = option.substr(2);
    if (content.find('<') != std::string_view::npos) refuse(0, "a file with a \"<\" for " + option);
    given.insert(name);
    blocks.append("<" + name + ">\n").append(content).append("\n</" + name + ">\n");
  }
  const ProfileText text = read_profile();
  // As anything else the daemon would go on, and wait for a peer.
  const bool client =
      std::any_of(text.lines.begin(), text.lines.end(), [](const ProfileLine& line) {
        return !line.block && (line.words[0] == "client" || line.words[0] == "tls-client");
      });
  if (!client) refuse(0, "not the profile of a client");
  return print(Copy(text, 0, given).text() + blocks);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view action = argc > 1 ? argv[1] : "";
  if (action == "check" && argc % 2 == 0) return check(argc - 2, argv + 2);
  if (action == "value" && argc == 3) return value(argv[2]);
  const int slot = action == "copy" && argc == 3 ? slot_of(argv[2]) : 0;
  if (slot != 0) return print(Copy(read_profile(), slot, {}).text());
  std::fprintf(stderr, "usage: copy SLOT | check [--ca|--cert|--key FILE]... | value NAME\n");
  return EXIT_FAILURE;
}
