// The path of one profile, step by step.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <optional>
#include <random>
#include <sys/timex.h>

#include "base/reason.h"
#include "ormel/base/address.h"
#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/drivers/openvpn/report.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/tool.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/interfaces.h"
#include "ormel/host/probe.h"
#include "ormelctl/doctor.h"

namespace ormelctl {

namespace {

constexpr std::chrono::seconds WHOLE_TIME{38};
constexpr int LOOKUP_SECONDS = 5;
constexpr int ANSWER_SECONDS = 6;
constexpr int LOGIN_SECONDS = 15;
constexpr int PPTP_PORT = 1723;
constexpr int IKE_PORT = 500;
constexpr const char* TUNNEL_MARK =
    "268435456";  // of packets to servers, as the start scripts set it
constexpr long HANDSHAKE_SECONDS = 180;
constexpr long SOON = 30;  // days before the end of a certificate

// What the steps share.
struct Case {
  const Profile& profile;
  const ormel::config::ClientConfig& record;
  Deadline deadline{WHOLE_TIME};
  bool up = false;
  std::string host{}, port{}, protocol{};  // of the server
  std::string address{};                   // of the server, once it is found
  std::string interface {};
  std::string stored{};  // OpenVPN: the profile's file
  std::string copy{};    // OpenVPN: what its daemon gets
  Findings tried{};      // OpenVPN, Drovik: what a login without an interface has found

  [[nodiscard]] ormel::TYPE type() const { return profile.protocol->client; }
};

std::string set_command(const Case& one, const char* options) {
  return "ormelctl profile set " + one.profile.target() + ' ' + options;
}

std::string connect_command(const Case& one) {
  return "ormelctl profile up " + one.profile.target() + " --wait 30";
}

// What the scripts and daemons have noted, and the step that it belongs to.
struct ReasonStep {
  std::string_view code;
  const char* step;
};
constexpr ReasonStep REASON_STEPS[] = {
    {"name-not-found", "name"},
    {"no-route", "way"},
    {"no-answer", "server"},
    {"no-handshake", "server"},
    {"server-full", "server"},
    {"psk-wrong", "certificate"},
    {"server-cert-unknown", "certificate"},
    {"server-cert-expired", "certificate"},
    {"server-cert-not-yet", "certificate"},
    {"own-cert-expired", "certificate"},
    {"own-cert-refused", "certificate"},
    {"login-refused", "login"},
    {"no-common-cipher", "login"},
    {"kicked", "login"},
    {"address-conflict", "address"},
};

std::optional<Finding> noted(const Case& one, std::string_view step) {
  const auto reason = ormel::read_reason(one.record.section);
  if (!reason || !reason->facts) return {};
  const auto* const row =
      std::find_if(std::begin(REASON_STEPS), std::end(REASON_STEPS),
                   [&](const ReasonStep& known) { return known.code == reason->facts->code; });
  if (step != (row == std::end(REASON_STEPS) ? "profile" : row->step)) return {};
  std::string text = std::string(reason->facts->text) + " (at " + moment_text(reason->at) + ')';
  if (!reason->detail.empty()) text += ": " + reason->detail;
  return failure(std::move(text), reason->facts->advice);
}

Finding check_openvpn(Case& one) {
  auto record = static_cast<const ormel::ovpn::ClientConfig&>(one.record);
  const std::string path = record.profile_path();
  if (!ormel::system::read_file(path.c_str(), one.stored))
    return failure("its file is missing", "import the profile again: ormelctl profile import FILE");
  const ormel::ovpn::DaemonCopy copy =
      ormel::ovpn::platform_tools().copy(one.stored, one.profile.index);
  if (!copy.made)
    return failure("the tunnel does not start: " + copy.reason,
                   "import a profile without this line");
  one.copy = copy.text;
  for (const ormel::ovpn::ProfileItem& item : ormel::ovpn::items_of(one.copy)) {
    if (item.name != "remote" || !one.host.empty()) continue;
    std::vector<std::string> words = ormel::split_words(item.text);
    words.resize(4);
    one.host = words[1];
    one.port = words[2];
    one.protocol = words[3].empty() ? "udp" : words[3];
  }
  if (one.host.empty())
    return failure("it has no server",
                   "import a profile with a \"remote\" line and an embedded <ca>");
  if (record.auth_pass && record.user.empty())
    return failure("it has no user name", set_command(one, "--user NAME --pass-file -"));
  return good("readable, allowed lines only");
}

Finding check_wireguard(Case& one) {
  const auto& record = static_cast<const ormel::wireguard::ClientConfig&>(one.record);
  if (!ormel::wireguard::is_key(record.peer_pub_key) ||
      !ormel::wireguard::is_key(record.client_pri_key))
    return failure("a key is missing or malformed", set_command(one, "--peer-key KEY"));
  const size_t colon = record.peer_endpoint.rfind(':');
  if (colon == std::string::npos)
    return failure("the endpoint is not HOST:PORT", set_command(one, "--endpoint HOST:PORT"));
  one.host = record.peer_endpoint.substr(0, colon);
  one.port = record.peer_endpoint.substr(colon + 1);
  one.protocol = "udp";
  return good("keys and endpoint are well-formed");
}

Finding check_account(Case& one) {
  one.host = one.record.host;
  if (one.host.empty()) return failure("it has no server", set_command(one, "--host HOST"));
  if (one.record.user.empty() || one.record.pass.empty())
    return failure("it has no user name or no password",
                   set_command(one, "--user NAME --pass-file -"));
  if (one.type() == ormel::DROVIK_CLIENT_TYPE) {
    const auto& record = static_cast<const ormel::drovik::ClientConfig&>(one.record);
    one.port = std::to_string(record.port);
    if (record.psk.empty())
      return failure("it has no pre-shared key", set_command(one, "--psk-file -"));
  }
  return good("server and account are there");
}

Finding profile_step(Case& one) {
  Finding found = one.type() == ormel::OVPN_CLIENT_TYPE        ? check_openvpn(one)
                  : one.type() == ormel::WIREGUARD_CLIENT_TYPE ? check_wireguard(one)
                                                               : check_account(one);
  if (found.mark == Mark::Ok && !one.up) {
    if (auto reason = noted(one, "profile")) return *reason;
  }
  return found;
}

Finding clock_step(Case&) {
  constexpr std::time_t EARLIEST = 1735689600;  // 2025: before that nothing of this was written
  char text[64] = "";
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  if (localtime_r(&now, &local)) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
  if (now < EARLIEST)
    return failure(std::string("it says ") + text,
                   "set the clock of this host: timedatectl set-ntp true");
  timex state{};
  if (adjtimex(&state) == TIME_ERROR || (state.status & STA_UNSYNC) != 0)
    return good(std::string(text) + ", not synchronised with a time server");
  return good(text);
}

Finding name_step(Case& one) {
  in_addr unused{};
  if (ormel::system::parse_address(one.host, unused)) {
    one.address = one.host;
    return good(one.host);
  }
  const LimitedRun run = run_limited({"/usr/bin/getent", "ahostsv4", "--", one.host}, "",
                                     one.deadline.seconds(LOOKUP_SECONDS));
  const std::vector<std::string> words = ormel::split_words(run.out);
  if (run.status != 0 || words.empty())
    return failure(one.host + (run.in_time ? " is not found" : ": the name servers do not answer"),
                   "check the server's name and the name servers of this host: /etc/resolv.conf");
  one.address = words[0];
  return good(one.host + " is " + one.address);
}

Finding way_step(Case& one) {
  const LimitedRun run =
      run_limited({"/sbin/ip", "-4", "route", "get", one.address, "mark", TUNNEL_MARK}, "",
                  one.deadline.seconds(LOOKUP_SECONDS));
  const std::vector<std::string> words = ormel::split_words(run.out);
  const auto value = [&](const char* name) {
    const auto at = std::find(words.begin(), words.end(), name);
    return at == words.end() || at + 1 == words.end() ? std::string() : *(at + 1);
  };
  if (run.status != 0)
    return failure("no route to " + one.address,
                   "check the cable, the address and the gateway of this host");
  if (value("dev") == one.interface)
    return failure("the server would be reached through its own tunnel",
                   "exclude the server's network from the tunnel's");
  const std::string gateway = value("via");
  return good("by " + value("dev") + (gateway.empty() ? "" : " and " + gateway));
}

Finding answer_of(bool answers, const std::string& what) {
  if (answers) return good("answers");
  return failure("no answer from " + what, ormel::find_reason("no-answer")->advice);
}

std::string random_cookie() {
  std::random_device source;
  std::string cookie(8, '\0');
  for (char& byte : cookie) byte = static_cast<char>(source());
  cookie[0] = static_cast<char>(cookie[0] | 1);  // not zero, which stands for "none"
  return cookie;
}

Finding wireguard_server(const Case& one) {
  std::string text;
  const LimitedRun run =
      run_limited({"/usr/bin/wg", "show", one.interface, "latest-handshakes"}, "", 2);
  const std::vector<std::string> words = ormel::split_words(run.out);
  if (run.status != 0 || words.size() < 2)
    return skipped("only an interface that is up can tell: " + connect_command(one));
  const long ago = std::time(nullptr) - std::strtol(words[1].c_str(), nullptr, 10);
  if (words[1] != "0" && ago < HANDSHAKE_SECONDS)
    return good("handshake " + duration_text(ago) + " ago");
  const ormel::ReasonFacts* facts = ormel::find_reason("no-handshake");
  return failure(facts->text, facts->advice);
}

// One daemon answers several steps, so that there is one login.
const Finding* tried(Case& one, const char* step) {
  const int seconds = one.deadline.seconds(LOGIN_SECONDS);
  if (one.tried.empty() && one.type() == ormel::OVPN_CLIENT_TYPE)
    one.tried = try_openvpn(one.copy, one.record.user, one.record.pass, seconds);
  if (one.tried.empty() && one.type() == ormel::DROVIK_CLIENT_TYPE)
    one.tried = try_drovik(one.record.section, one.interface, seconds);
  const auto found = std::find_if(one.tried.begin(), one.tried.end(),
                                  [&](const Finding& known) { return known.step == step; });
  return found == one.tried.end() ? nullptr : &*found;
}

bool on_its_way(const Case& one) {
  return !one.up && one.record.status == ormel::CONNECTING_STATUS && one.record.pid > 0;
}

Finding server_step(Case& one) {
  if (one.up && one.type() != ormel::WIREGUARD_CLIENT_TYPE) return good("the tunnel is up");
  const int seconds = one.deadline.seconds(ANSWER_SECONDS);
  const std::string where = one.address + (one.port.empty() ? "" : ':' + one.port);
  switch (one.type()) {
    case ormel::PPTP_CLIENT_TYPE:
      return answer_of(
          is_pptp_answer(ask_server(one.address, PPTP_PORT, true, pptp_request(), seconds)),
          where + ", TCP port 1723");
    case ormel::L2TP_CLIENT_TYPE: {
      const std::string cookie = random_cookie();
      return answer_of(
          is_ike_answer(ask_server(one.address, IKE_PORT, false, ike_request(cookie), seconds),
                        cookie),
          where + ", UDP port 500");
    }
    case ormel::DROVIK_CLIENT_TYPE:
      return answer_of(is_dtls_answer(ask_server(one.address, ormel::to_int(one.port.c_str()),
                                                 false, dtls_request(), seconds)),
                       where + "/udp");
    case ormel::WIREGUARD_CLIENT_TYPE: return wireguard_server(one);
    default: break;
  }
  if (on_its_way(one)) {
    if (auto reason = noted(one, "server")) return *reason;
    return skipped("the tunnel is being connected; its daemon is not disturbed");
  }
  const Finding* found = tried(one, "server");
  return found ? *found : skipped("not reached");
}

// The protocols whose login the doctor tries itself, unless the tunnel's own daemon is doing it.
bool tries_login(const Case& one) {
  return (one.type() == ormel::OVPN_CLIENT_TYPE || one.type() == ormel::DROVIK_CLIENT_TYPE) &&
         !on_its_way(one);
}

Finding certificate_step(Case& one) {
  if (one.type() != ormel::OVPN_CLIENT_TYPE) {
    if (one.up) return good("the tunnel is up");
    if (tries_login(one)) {
      const Finding* found = tried(one, "certificate");
      return found ? *found : skipped("not reached");
    }
    if (one.type() == ormel::WIREGUARD_CLIENT_TYPE || one.type() == ormel::PPTP_CLIENT_TYPE)
      return skipped("this protocol has none");
    if (auto reason = noted(one, "certificate")) return *reason;
    return skipped("the pre-shared key shows at a connection only");
  }
  std::string text;
  for (const ormel::ovpn::ProfileItem& item : ormel::ovpn::items_of(one.stored)) {
    if (!item.block || (item.name != "ca" && item.name != "cert")) continue;
    for (const ormel::openssl::CertificateFacts& facts :
         ormel::openssl::certificates_of(item.body)) {
      if (facts.days < 0)
        return failure("the profile's " + item.name + " (" + facts.subject + ") has expired " +
                           std::to_string(-facts.days) + " days ago",
                       "ask for a new profile");
      if (!text.empty()) text += ", ";
      text += item.name + ' ' + std::to_string(facts.days) + " days left";
      if (facts.days < SOON) text += " (renew it soon)";
    }
  }
  if (one.up) return good(text);
  if (on_its_way(one)) {
    auto reason = noted(one, "certificate");
    return reason ? *reason : skipped("the tunnel is being connected");
  }
  const Finding* found = tried(one, "certificate");
  if (!found) return skipped("not reached");
  Finding result = *found;
  if (result.mark == Mark::Ok && !text.empty()) result.text += "; " + text;
  return result;
}

Finding login_step(Case& one) {
  if (one.up) return good("the tunnel is up");
  if (one.type() == ormel::WIREGUARD_CLIENT_TYPE) return skipped("this protocol has no login");
  if (tries_login(one)) {
    const Finding* found = tried(one, "login");
    if (!found) return skipped("not reached");
    Finding result = *found;
    if (result.text == ormel::find_reason("login-refused")->text)
      result.cure = set_command(one, "--user NAME --pass-file -");
    return result;
  }
  if (auto reason = noted(one, "login")) return *reason;
  return skipped("only a connection can tell: " + connect_command(one));
}

Finding address_step(Case& one) {
  const bool wireguard = one.type() == ormel::WIREGUARD_CLIENT_TYPE;
  const std::string own =
      wireguard ? static_cast<const ormel::wireguard::ClientConfig&>(one.record).client_ip
                : one.record.local_ip;
  if (own.empty()) return skipped("the tunnel has none yet: " + connect_command(one));
  const LimitedRun run = run_limited({"/sbin/ip", "-o", "-4", "address", "show"}, "",
                                     one.deadline.seconds(LOOKUP_SECONDS));
  for (const std::string& line : ormel::split_lines(run.out)) {
    const std::vector<std::string> words = ormel::split_words(line);
    if (words.size() < 4 || words[1] == one.interface || words[1] == "lo") continue;
    const size_t slash = words[3].find('/');
    if (slash == std::string::npos) continue;
    const ormel::system::Network network{
        words[3].substr(0, slash),
        ormel::system::dotted_mask(ormel::to_int(words[3].c_str() + slash + 1))};
    if (ormel::system::is_intersect(network, {own, "255.255.255.255"}))
      return failure(own + " is in the network of " + words[1] + " (" + words[3] + ')',
                     "choose another network, here or at the server");
  }
  return good(own);
}

Finding data_step(Case& one) {
  if (!one.up) return skipped("the tunnel is off");
  const std::string& far = one.record.remote_ip;
  in_addr unused{};
  if (!ormel::system::parse_address(far, unused))
    return skipped("the far end has no address to ask");
  const LimitedRun run =
      run_limited({"/bin/ping", "-n", "-c", "2", "-i", "0.3", "-W", "3", "-I", one.interface, far},
                  "", one.deadline.seconds(ANSWER_SECONDS));
  if (run.status == 0) return good(far + " answers through the tunnel");
  return warning(far + " does not answer through the tunnel",
                 "it may not answer such requests at all; try another address of its network");
}

Finding size_step(Case& one) {
  if (!one.up) return skipped("the tunnel is off");
  constexpr int HEADERS = 28;
  constexpr int SIZES[] = {1420, 1400, 1360, 1320, 1280};
  for (const int size : SIZES) {
    const LimitedRun run =
        run_limited({"/bin/ping", "-n", "-c", "1", "-W", "1", "-M", "do", "-s",
                     std::to_string(size - HEADERS), "-I", one.interface, one.record.remote_ip},
                    "", one.deadline.seconds(2));
    if (run.status == 0) return good("packets of " + std::to_string(size) + " bytes pass");
  }
  return warning("packets of 1280 bytes do not pass, or the far end does not answer",
                 "lower the MTU of the path, or the segment size at the server");
}

Finding names_step(Case& one) {
  if (!one.up) return skipped("the tunnel is off");
  if (one.record.dns_server.empty()) return skipped("the server names no name server");
  std::vector<ormel::misc::NETHOST> servers{{one.record.dns_server.c_str(), 0, 0, 0}};
  if (ormel::misc::nslookup(servers) > 0) return good(one.record.dns_server + " answers");
  return warning("the name server " + one.record.dns_server + " does not answer",
                 "ask the administrator of the server");
}

struct Step {
  const char* name;
  Finding (*run)(Case& one);
};
constexpr Step STEPS[] = {
    {"profile", profile_step}, {"clock", clock_step},     {"name", name_step},
    {"way", way_step},         {"server", server_step},   {"certificate", certificate_step},
    {"login", login_step},     {"address", address_step}, {"data", data_step},
    {"size", size_step},       {"names", names_step},
};

}  // namespace

Finding good(std::string text) {
  return {{}, Mark::Ok, std::move(text), {}};
}
Finding warning(std::string text, std::string cure) {
  return {{}, Mark::Warning, std::move(text), std::move(cure)};
}
Finding failure(std::string text, std::string cure) {
  return {{}, Mark::Failure, std::move(text), std::move(cure)};
}
Finding skipped(std::string text) {
  return {{}, Mark::Skipped, std::move(text), {}};
}

Findings examine_profile(const Profile& profile, const Progress& progress) {
  ormel::config::Management pool;
  pool.load();
  const ormel::config::PolyConfig* holder = pool.fetch(profile.protocol->client, profile.index);
  Findings findings;
  if (!holder) return findings;
  Case one{profile, *holder->cast<ormel::config::ClientConfig>()};
  one.up = number_of(profile.record.get(), "status") == ormel::CONNECTED_STATUS;
  one.interface = ormel::interface_name(profile.protocol->client, profile.index);
  bool stopped = false;
  for (const Step& step : STEPS) {
    Finding found = stopped ? skipped("not reached") : step.run(one);
    found.step = step.name;
    stopped = stopped || found.mark == Mark::Failure;
    findings.push_back(std::move(found));
    progress(findings);
  }
  return findings;
}

}  // namespace ormelctl
