// The guard of the default gateway: nothing leaves but by a tunnel.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

#include "ormel/base/error.h"
#include "ormel/host/process.h"
#include "ormelctl/advice.h"
#include "ormelctl/doctor.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

constexpr const char* SCRIPT = "/etc/init.d/vpn_guard.sh";
// Addresses that belong to no host; the script counts what leaves for them.
constexpr const char* TEST_ADDRESS = "192.0.2.9";
constexpr const char* TEST_ADDRESS6 = "2001:db8::9";
constexpr std::array<uint16_t, 2> TEST_PORTS{9, 53};
constexpr std::chrono::milliseconds SEND_PAUSE{100};
constexpr std::chrono::seconds BEFORE{3}, WITHOUT{8};
// The echoes to a neighbour begin and end with the test.
constexpr long ECHOES = 20;
constexpr const char* ECHO_PAUSE = "0.7";  // seconds
constexpr int ECHO_SECONDS = 30;           // for all of them
constexpr long LOST_BY_CHANCE =
    2;  // a guard that is in the way takes all of the time without a tunnel

// Which tunnel could be the gateway: the only profile, where there is no choice.
std::string gateway_advice() {
  const ormel::Json profiles = std::move(profile_list({}).data);
  const std::vector<std::string> names = names_in(profiles.get(), "target");
  return "ormelctl gateway set " + (names.size() == 1 ? names[0] : std::string("PROFILE")) +
         ", or ormelctl guard strict";
}

Result set(const Form& form) {
  const Reply reply = call("/ormel/guard/set", form);
  if (reply.error == 0) return guard_show({});
  Result result = failed(reply.error, reply.reason);
  if (reply.error == ormel::ERR_MISS_OPTION) result.advice = gateway_advice();
  return result;
}

Result set_mode(const char* mode, const Arguments& arguments) {
  Form form{{"mode", mode}};
  for (const char* name : {"lan", "ipv6", "dns"}) {
    if (arguments.has(name)) form.emplace_back(name, arguments.value(name));
  }
  return set(form);
}

long stopped(const json_t* data, const char* kind) {
  return number_of(json_object_get(data, "stopped"), kind);
}

std::string networks(const json_t* list) {
  std::string text;
  size_t at = 0;
  const json_t* network = nullptr;
  json_array_foreach(list, at, network) text +=
      (at ? ", " : "") + std::string(json_string_value(network));
  return text;
}

// One line for each state, and what stays open.
std::string sentence(const json_t* data) {
  const std::string mode = text_of(data, "mode"), state = text_of(data, "state"),
                    interface = text_of(data, "interface");
  if (state == "off") return "off: without a tunnel traffic leaves by this host's own network";
  if (state == "paused")
    return "paused: traffic leaves without a tunnel until this host starts again, or \"guard on\"";
  std::string text = mode + ", ";
  if (state == "guarding")
    text +=
        "guarding: what is not for the local network leaves by " + interface + ", or not at all";
  if (state == "idle") text += "idle: no tunnel is the default gateway";
  if (state == "holding")
    text += "holding: no tunnel is up, nothing leaves but for the local network";
  if (state == "failed")
    text +=
        "FAILED: the kernel lacks the filter; it is set again within seconds, or see the journal";
  if (state == "unknown")
    text += "unknown: fenro-networkd does not answer; a filter that is set stays";
  text += "\n  stopped packets: IPv4 " + std::to_string(stopped(data, "ipv4")) + ", IPv6 " +
          std::to_string(stopped(data, "ipv6")) + ", names " + std::to_string(stopped(data, "dns"));
  text += "\n  open: " + (text_of(data, "local_network") == "0"
                              ? std::string("nothing")
                              : networks(json_object_get(data, "lan")));
  text += "; answers to connections from outside pass\n  IPv6: ";
  text += text_of(data, "ipv6") == "pass" ? "passes without a tunnel"
                                          : "blocked outside of the local network";
  return text + (text_of(data, "dns") == "any" ? "; any name server may be asked\n"
                                               : "; names are asked for by the tunnel\n");
}

// Sends to an address that no one has, by IPv4 and IPv6, as any program and as one that asks for a
// name.
class Sender {
 public:
  Sender() : thread_([this] { work(); }) {}
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  ~Sender() { stop(); }
  long stop() {
    ended_ = true;
    if (thread_.joinable()) thread_.join();
    return sent_;
  }

 private:
  void work() {
    const ormel::Fd four{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    const ormel::Fd six{socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    for (; !ended_; std::this_thread::sleep_for(SEND_PAUSE)) {
      for (const uint16_t port : TEST_PORTS) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        inet_pton(AF_INET, TEST_ADDRESS, &to.sin_addr);
        sendto(four.get(), "", 1, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), sizeof to);
        sockaddr_in6 to_six{};
        to_six.sin6_family = AF_INET6;
        to_six.sin6_port = htons(port);
        inet_pton(AF_INET6, TEST_ADDRESS6, &to_six.sin6_addr);
        sendto(six.get(), "", 1, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to_six),
               sizeof to_six);
        sent_ += 2;
      }
    }
  }

  std::atomic<bool> ended_ = false;
  std::atomic<long> sent_ = 0;
  std::thread thread_;
};

// Whether the local network stays within reach: echoes to a host in it that answered one just
// before.
class Neighbour {
 public:
  explicit Neighbour(bool open) : open_(open) {
    std::string found;
    if (!open || ormel::system::do_exec_safe({SCRIPT, "neighbour"}, found) != 0) return;
    address_ = found.substr(0, found.find('\n'));
    if (in_addr unused{}; inet_pton(AF_INET, address_.c_str(), &unused) != 1) address_.clear();
    if (!address_.empty()) answers_ = std::async(std::launch::async, count_answers, address_);
  }
  // Waits for the last echo. To be called once.
  void finish() {
    if (answers_.valid()) answered_ = answers_.get();
  }
  [[nodiscard]] bool lost() const {
    return !address_.empty() && answered_ < ECHOES - LOST_BY_CHANCE;
  }
  [[nodiscard]] std::string sentence() const {
    if (!open_) return "the LAN is closed";
    if (address_.empty())
      return "no host of the LAN answers echoes, so that the LAN was not tested";
    return "LAN answered " + std::to_string(answered_) + " of " + std::to_string(ECHOES);
  }
  [[nodiscard]] json_t* data() const {
    if (address_.empty()) return json_null();
    return json_pack("{s:s, s:I, s:I}", "address", address_.c_str(), "sent",
                     static_cast<json_int_t>(ECHOES), "answered",
                     static_cast<json_int_t>(answered_));
  }

 private:
  static long count_answers(const std::string& address) {
    const LimitedRun run =
        run_limited({"/bin/ping", "-n", "-c", std::to_string(ECHOES), "-i", ECHO_PAUSE, address},
                    "", ECHO_SECONDS);
    long answers = 0;
    for (size_t at = 0; (at = run.out.find(" ttl=", at)) != std::string::npos; ++at) ++answers;
    return std::min(answers, ECHOES);
  }
  bool open_;
  std::string address_;
  std::future<long> answers_;
  long answered_ = 0;
};

}  // namespace

Result guard_show(const Arguments&) {
  Reply reply = call("/ormel/guard/get");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  ormel::Json data{json_incref(reply.data())};
  const std::string text = sentence(data.get());
  return done(text, std::move(data));
}

Result guard_on(const Arguments& arguments) {
  return set_mode("on", arguments);
}
Result guard_strict(const Arguments& arguments) {
  return set_mode("strict", arguments);
}
Result guard_off(const Arguments& arguments) {
  return set_mode("off", arguments);
}
Result guard_pause(const Arguments&) {
  return set({{"pause", "1"}});
}

// The tunnel is disconnected and connected again in the middle of it.
Result guard_test(const Arguments&) {
  const Reply state = call("/ormel/guard/get");
  if (text_of(state.data(), "state") != "guarding")
    return failed(
        Exit::Failed,
        "the guard is " + text_of(state.data(), "state") + ", so that there is nothing to test",
        "ormelctl guard on, with a tunnel that is up");
  const Reply carrier = call("/ormel/gateway/get_vpn_gw");
  const Form tunnel{{"type", std::to_string(number_of(carrier.data(), "type"))},
                    {"index", std::to_string(number_of(carrier.data(), "index"))}};
  std::string output;
  if (ormel::system::do_exec_safe({SCRIPT, "watch"}, output) != 0)
    return failed(Exit::Failed, "packets cannot be counted",
                  "look into the journal for vpn_guard.sh");
  Neighbour neighbour(text_of(state.data(), "local_network") != "0");
  Sender sender;
  std::this_thread::sleep_for(BEFORE);
  const Reply down = call("/ormel/config/disconnect", tunnel);
  std::this_thread::sleep_for(WITHOUT);
  const Reply up = call("/ormel/config/connect", tunnel);
  std::this_thread::sleep_for(BEFORE);
  const long sent = sender.stop();
  neighbour.finish();
  if (ormel::system::do_exec_safe({SCRIPT, "watched"}, output) != 0)
    return failed(Exit::Failed, "the count was removed meanwhile",
                  "try again while no firewall is loaded");
  const long left = std::strtol(output.c_str(), nullptr, 10);
  ormel::Json data{json_pack("{s:I, s:I, s:o}", "sent", static_cast<json_int_t>(sent), "left",
                             static_cast<json_int_t>(left), "lan", neighbour.data())};
  if (left != 0)
    return failed(
        Exit::Failed,
        std::to_string(left) + " of " + std::to_string(sent) + " packets left without a tunnel",
        "ormelctl guard shows its state; another program may have changed the firewall: nft list "
        "ruleset");
  if (down.error != 0) return failed(down.error, "the tunnel was not disconnected: " + down.reason);
  if (up.error != 0)
    return failed(up.error, "0 packets left, but the tunnel is not back: " + up.reason);
  if (neighbour.lost())
    return failed(Exit::Failed, "0 packets left, but " + neighbour.sentence(),
                  "look whether \"ormelctl guard\" calls its network open, and try again");
  return done(
      std::to_string(sent) + " packets sent, 0 left without a tunnel; " + neighbour.sentence(),
      std::move(data));
}

}  // namespace ormelctl
