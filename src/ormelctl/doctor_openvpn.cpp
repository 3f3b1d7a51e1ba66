// The doctor's own OpenVPN daemon: it logs in with a copy of the profile, without an interface, a
// route or a script.
#include <algorithm>

#include "base/reason.h"
#include "ormel/base/lines.h"
#include "ormelctl/doctor.h"

namespace ormelctl {

namespace {

constexpr const char* DAEMON = "/usr/sbin/openvpn";
constexpr const char* SETPRIV = "/usr/bin/setpriv";

// What belongs to the real tunnel, or would have the daemon ask elsewhere.
constexpr std::string_view LEFT_OUT[] = {"dev",
                                         "up",
                                         "down",
                                         "plugin",
                                         "management",
                                         "log",
                                         "daemon",
                                         "writepid",
                                         "script-security",
                                         "management-query-passwords",
                                         "nobind",
                                         "float",
                                         "crl-verify",
                                         "connect-retry-max",
                                         "auth-user-pass",
                                         "resolv-retry",
                                         "auth-retry",
                                         "mute"};

// A line of the daemon's log, the step that it decides, and the reason of a failure; null for a
// success.
struct Sign {
  std::string_view text;
  const char* step;
  const char* reason;
};
constexpr Sign SIGNS[] = {
    {"TLS: Initial packet from", "server", nullptr},
    {"VERIFY OK: depth=0", "certificate", nullptr},
    {"Initialization Sequence Completed", "login", nullptr},
    {"AUTH_FAILED", "login", "login-refused"},
    {"certificate is not yet valid", "certificate", "server-cert-not-yet"},
    {"certificate has expired", "certificate", "server-cert-expired"},
    {"VERIFY ERROR", "certificate", "server-cert-unknown"},
    {"VERIFY X509NAME ERROR", "certificate", "server-cert-unknown"},
    {"VERIFY KU ERROR", "certificate", "server-cert-unknown"},
    {"VERIFY EKU ERROR", "certificate", "server-cert-unknown"},
    {"tlsv1 alert", "certificate", "own-cert-refused"},
    {"sslv3 alert", "certificate", "own-cert-refused"},
    {"tls-crypt unwrap error", "server", "psk-wrong"},
    {"Authenticate/Decrypt packet error", "server", "psk-wrong"},
    {"failed to negotiate cipher", "login", "no-common-cipher"},
    {"Options error", "server", "profile-unknown-option"},
    {"Cannot resolve host address", "server", "name-not-found"},
    {"Network is unreachable", "server", "no-route"},
    {"No route to host", "server", "no-route"},
};
constexpr const char* STEPS[] = {"server", "certificate", "login"};

const Sign* sign_of(const std::string& line) {
  const auto* const sign = std::find_if(std::begin(SIGNS), std::end(SIGNS), [&](const Sign& known) {
    return line.find(known.text) != std::string::npos;
  });
  return sign == std::end(SIGNS) ? nullptr : sign;
}

// The decisive lines: the last success, and every failure that no later step contradicts.
bool decides(const std::string& line) {
  const Sign* sign = sign_of(line);
  return sign && (sign->reason || std::string_view(sign->step) == STEPS[2]);
}

std::string without_our_lines(const std::string& copy) {
  std::string text;
  for (const std::string& line : ormel::split_lines(copy)) {
    const std::string name = line.substr(0, line.find(' '));
    if (std::find(std::begin(LEFT_OUT), std::end(LEFT_OUT), name) == std::end(LEFT_OUT))
      text += line + '\n';
  }
  return text;
}

std::string subject_of(const std::string& line) {
  const size_t name = line.find("CN=");
  return name == std::string::npos ? "accepted" : line.substr(name, line.find(',', name) - name);
}

}  // namespace

Findings read_openvpn_log(const std::string& log) {
  Findings findings;
  const auto set = [&](Finding finding, const char* step) {
    finding.step = step;
    const auto old = std::find_if(findings.begin(), findings.end(),
                                  [&](const Finding& one) { return one.step == step; });
    if (old != findings.end())
      *old = std::move(finding);
    else
      findings.push_back(std::move(finding));
  };
  for (const std::string& line : ormel::split_lines(log)) {
    const Sign* sign = sign_of(line);
    if (!sign) continue;
    if (!sign->reason) {
      set(good(std::string_view(sign->step) == "certificate"
                   ? ormel::printable_detail(subject_of(line))
                   : "answers"),
          sign->step);
      continue;
    }
    const ormel::ReasonFacts* facts = ormel::find_reason(sign->reason);
    // Each failure says that the steps before it were passed.
    for (const char* step : STEPS) {
      if (std::string_view(step) == sign->step) break;
      const bool known = std::any_of(findings.begin(), findings.end(),
                                     [&](const Finding& one) { return one.step == step; });
      if (!known) set(good("passed"), step);
    }
    set(failure(facts->text, facts->advice), sign->step);
    return findings;
  }
  if (!findings.empty() && findings.back().step == "login") {
    findings.back().text = "accepted";
    return findings;
  }
  const ormel::ReasonFacts* facts = ormel::find_reason("no-answer");
  if (findings.empty()) {
    set(failure(facts->text, facts->advice), "server");
  } else {
    set(failure("the server answers, but does not finish the handshake", facts->advice),
        findings.size() == 1 ? "certificate" : "login");
  }
  return findings;
}

Findings try_openvpn(const std::string& copy, const std::string& user, const std::string& password,
                     int seconds) {
  std::string config = without_our_lines(copy);
  if (!user.empty())
    config += "<auth-user-pass>\n" + user + '\n' + password + "\n</auth-user-pass>\n";
  std::vector<std::string> command{SETPRIV, "--no-new-privs", "--bounding-set=-all",
                                   "--inh-caps=-all", "--"};
  command.insert(command.end(), {DAEMON,
                                 "--suppress-timestamps",
                                 "--cd",
                                 "/",
                                 "--config",
                                 "stdin",
                                 "--script-security",
                                 "0",
                                 "--dev",
                                 "null",
                                 "--nobind",
                                 "--ifconfig-noexec",
                                 "--route-noexec",
                                 "--verb",
                                 "3",
                                 "--auth-retry",
                                 "none",
                                 "--resolv-retry",
                                 "0",
                                 "--connect-retry-max",
                                 "1"});
  const LimitedRun run = run_limited(command, config, seconds, decides);
  return read_openvpn_log(run.out);
}

}  // namespace ormelctl
