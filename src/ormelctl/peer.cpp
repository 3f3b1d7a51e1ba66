// The devices of the WireGuard server.
#include <ctime>
#include <map>
#include <unistd.h>

#include "base/utf8.h"
#include "ormel/base/error.h"
#include "ormel/drivers/wireguard/device.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/public_address.h"
#include "ormel/web/hold.h"
#include "ormelctl/advice.h"
#include "ormelctl/profile.h"
#include "ormelctl/qr.h"

namespace ormelctl {
namespace {

const Columns PEER_COLUMNS = {{"name", "NAME"},       {"index", "INDEX"},
                              {"address", "ADDRESS"}, {"seen", "LAST HANDSHAKE"},
                              {"allowed", "ALLOWED"}, {"key", "KEY"}};

ormel::Json peer_row(const json_t* peer) {
  const std::string seen = text_of(peer, "latest_handshake");
  return ormel::Json{json_pack(
      "{s:s, s:i, s:s, s:s, s:s, s:s}", "name",
      fenro::valid_utf8(decoded(text_of(peer, "peer_name"))).c_str(), "index",
      static_cast<int>(number_of(peer, "index")), "address", text_of(peer, "peer_allow_ip").c_str(),
      "key", text_of(peer, "peer_pub_key").c_str(), "seen", seen.empty() ? "never" : seen.c_str(),
      "endpoint", text_of(peer, "peer_endpoint").c_str())};
}

ormel::Json peer_rows(const json_t* peers) {
  ormel::Json rows{json_array()};
  size_t at = 0;
  const json_t* peer = nullptr;
  json_array_foreach(peers, at, peer) json_array_append_new(rows.get(), peer_row(peer).release());
  return rows;
}

// From when on each device is kept out, by its key. A host that keeps no one out has no list.
using Limits = std::map<std::string, long>;
Result read_limits(Limits& limits) {
  if (!ormel::cgi::hold::has_list()) return {};
  const Reply reply = call("/ormel/peer/limits");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  size_t at = 0;
  const json_t* limit = nullptr;
  json_array_foreach(reply.data(), at, limit) limits[text_of(limit, "who")] =
      number_of(limit, "since");
  return {};
}

// Adds to each row whether the device is let in: "since" is its limit, 0 without one.
void add_limits(json_t* rows, const Limits& limits) {
  const long now = std::time(nullptr);
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows, at, row) {
    const auto found = limits.find(text_of(row, "key"));
    const long since = found == limits.end() ? 0 : found->second;
    json_object_set_new(row, "limit", json_integer(since));
    const std::string allowed = since == 0    ? "yes"
                                : since > now ? "until " + moment_text(since)
                                              : "no";
    json_object_set_new(row, "allowed", json_string(allowed.c_str()));
  }
}

// What the options of a limit ask for: seconds since 1970, 0 for no limit. A failure with the
// reason for anything but one option.
Result wanted_limit(const Arguments& arguments, long& since) {
  if (arguments.options.size() != 1)
    return failed(Exit::Usage, "one of --until, --off and --on is needed");
  const long now = std::time(nullptr);
  const std::string until = arguments.value("until", "never");
  if (arguments.has("off")) {
    since = now;
  } else if (until == "never") {
    since = 0;
  } else if (since = moment_of(until); since < 0) {
    return failed(Exit::Usage,
                  "--until takes a day such as 2030-12-31, with a time after it such "
                  "as \"2030-12-31 18:00\", or never");
  } else if (since <= now) {
    return failed(Exit::Usage, "--until " + until + " is over",
                  "--off keeps the device out from now on");
  }
  return {};
}

ormel::Json server() {
  const ormel::Json all = records(ormel::WIREGUARD_SERVER_TYPE);
  return ormel::Json{json_incref(json_array_get(all.get(), 0))};
}

std::string configuration(const json_t* hub, const std::string& host, const std::string& address,
                          const std::string& key, const std::string& psk, bool all) {
  const bool has_dns = json_is_true(json_object_get(hub, "enable_dns"));
  return ormel::wireguard::configuration(
      {text_of(hub, "server_pub_key"), host, static_cast<int>(number_of(hub, "port")),
       text_of(hub, "server_ip"), static_cast<int>(number_of(hub, "server_mask")),
       has_dns ? text_of(hub, "manual_dns") : ""},
      {address, key, psk, all});
}

// The lowest free address of the server's network.
std::string free_address(const json_t* hub) {
  const ormel::wireguard::PeerFile peers(ormel::wireguard::FOLDER);
  return ormel::wireguard::free_address(peers, text_of(hub, "server_ip"),
                                        static_cast<int>(number_of(hub, "server_mask")));
}

// What a device gets, once.
struct Handout {
  std::string name, address, key;  // the key is the public one
  std::string file;                // empty for a device that made its own key
  std::string code{};              // the file as a QR code, when asked for
};

// Draws the code, before anything is changed. An empty text, or why it could not be drawn.
std::string add_code(Handout& handout) {
  return draw_qr(handout.file, isatty(STDOUT_FILENO) != 0, handout.code);
}

Result handed_out(const Handout& handout) {
  std::string message = handout.file.empty() ? handout.name + " can connect" : handout.file;
  if (!handout.code.empty()) message += '\n' + handout.code;
  return done(std::move(message),
              ormel::Json{json_pack("{s:s, s:s, s:s, s:s}", "name", printable(handout.name).c_str(),
                                    "address", handout.address.c_str(), "key", handout.key.c_str(),
                                    "configuration", handout.file.c_str())});
}

// The host of a device's configuration: that of --host, else the public address. A failure with the
// example when it is of no use.
Result usable_host(const Arguments& arguments, const char* example, std::string& host) {
  constexpr const char* MISSING =
      "--host is missing (the public name or address of this host, for the device's configuration; "
      "ormelctl address set keeps one)";
  host = arguments.has("host") ? arguments.value("host") : ormel::system::public_address();
  if (host.empty()) return failed(Exit::Usage, MISSING, example);
  return ormel::system::is_host(host)
             ? Result{}
             : failed(Exit::Usage, "--host is a name or an address, without a port", example);
}

// The device of a name or an index in `found`, which is part of `peers`; a failure without exactly
// one.
Result find_peer(const std::string& word, Reply& peers, const json_t*& found) {
  peers = call("/ormel/peer/list");
  if (peers.error != 0) return failed(peers.error, peers.reason);
  size_t at = 0;
  const json_t* peer = nullptr;
  json_array_foreach(peers.data(), at, peer) {
    if (word != std::to_string(number_of(peer, "index")) &&
        word != decoded(text_of(peer, "peer_name")))
      continue;
    if (found)
      return failed(Exit::Usage, "several devices are named " + word,
                    "use the index: ormelctl peer list");
    found = peer;
  }
  if (found) return {};
  const ormel::Json rows = peer_rows(peers.data());
  return failed(Exit::NotFound, "no device is named " + word,
                did_you_mean(word, names_in(rows.get(), "name"), "ormelctl peer list"));
}

}  // namespace

Result peer_list(const Arguments&) {
  const Reply reply = call("/ormel/peer/list");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  ormel::Json rows = peer_rows(reply.data());
  Limits limits;
  if (Result unread = read_limits(limits); unread.exit != Exit::Done) return unread;
  add_limits(rows.get(), limits);
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "No devices. Add one: ormelctl peer add phone --host vpn.example.org" : "",
              std::move(rows), PEER_COLUMNS);
}

Result peer_add(const Arguments& arguments) {
  const ormel::Json hub = server();
  if (text_of(hub.get(), "server_pub_key").empty()) {
    return failed(Exit::Failed, "the WireGuard server has no key yet",
                  "ormelctl server set wireguard --name hub --address 198.18.7.1 --port 51820, "
                  "then ormelctl server on "
                  "wireguard");
  }
  const bool own_key = arguments.has("key");
  if (own_key && arguments.has("qr"))
    return failed(Exit::Usage, "--qr needs the device's private key, which is not here with --key");
  if (arguments.words[0].empty()) return failed(Exit::Usage, "the device's name is empty");
  if (own_key && !ormel::wireguard::is_key(arguments.value("key")))
    return failed(Exit::Usage, "--key is not a public key of WireGuard",
                  "wg pubkey prints one of 44 characters");
  std::string host;
  Result wrong_host =
      usable_host(arguments, "ormelctl peer add phone --host vpn.example.org", host);
  if (!own_key && wrong_host.exit != Exit::Done) return wrong_host;
  const ChangeLock lock;
  if (!lock) return locked_out();
  const Reply before = call("/ormel/peer/list");
  if (before.error != 0) return failed(before.error, before.reason);
  const std::string address = arguments.value("address", free_address(hub.get()));
  std::string psk;
  if (arguments.has("psk-file")) {
    const auto secret = read_secret(arguments.value("psk-file"));
    if (!secret) return failed(Exit::Failed, "--psk-file cannot be read, or is not one line");
    if (!ormel::wireguard::is_key(*secret))
      return failed(Exit::Usage, "--psk-file holds no pre-shared key of WireGuard",
                    "wg genpsk makes one");
    psk = *secret;
  }
  const Reply keys = own_key ? Reply{} : call("/ormel/peer/keys");
  if (keys.error != 0) return failed(keys.error, keys.reason);
  const std::string public_key = own_key ? arguments.value("key") : text_of(keys.data(), "pub_key");
  Form form{{"peer_name", encoded(arguments.words[0])},
            {"peer_pub_key", public_key},
            {"peer_allow_ip", address + "/32"}};
  if (arguments.has("endpoint")) form.emplace_back("peer_endpoint", arguments.value("endpoint"));
  if (arguments.has("keepalive")) form.emplace_back("keepalive", arguments.value("keepalive"));
  if (!psk.empty()) form.emplace_back("psk", psk);
  Handout handout{
      .name = arguments.words[0],
      .address = address,
      .key = public_key,
      .file = own_key ? ""
                      : configuration(hub.get(), host, address, text_of(keys.data(), "pri_key"),
                                      psk, arguments.has("all"))};
  if (arguments.has("qr")) {
    if (const std::string wrong = add_code(handout); !wrong.empty())
      return failed(Exit::Failed, wrong);
  }
  const Reply reply = call("/ormel/peer/add", form);
  return reply.error != 0 ? failed(reply.error, reply.reason) : handed_out(handout);
}

Result peer_qr(const Arguments& arguments) {
  std::string host;
  Result wrong_host =
      usable_host(arguments, "ormelctl peer qr phone --host vpn.example.org --yes", host);
  if (wrong_host.exit != Exit::Done) return wrong_host;
  const ormel::Json hub = server();
  const ChangeLock lock;
  if (!lock) return locked_out();
  Reply peers;
  const json_t* peer = nullptr;
  if (Result none = find_peer(arguments.words[0], peers, peer); none.exit != Exit::Done)
    return none;
  const Reply keys = call("/ormel/peer/keys");
  if (keys.error != 0) return failed(keys.error, keys.reason);
  const std::string network = text_of(peer, "peer_allow_ip");
  const std::string address = network.substr(0, network.find('/'));
  Handout handout{.name = decoded(text_of(peer, "peer_name")),
                  .address = address,
                  .key = text_of(keys.data(), "pub_key"),
                  .file = configuration(hub.get(), host, address, text_of(keys.data(), "pri_key"),
                                        text_of(peer, "psk"), arguments.has("all"))};
  if (const std::string wrong = add_code(handout); !wrong.empty())
    return failed(Exit::Failed, wrong);
  const Reply reply =
      call("/ormel/peer/modify",
           {{"index", std::to_string(number_of(peer, "index"))}, {"peer_pub_key", handout.key}});
  return reply.error != 0 ? failed(reply.error, reply.reason) : handed_out(handout);
}

Result peer_limit(const Arguments& arguments) {
  long since = 0;
  if (Result wrong = wanted_limit(arguments, since); wrong.exit != Exit::Done) return wrong;
  const ChangeLock lock;
  if (!lock) return locked_out();
  Reply peers;
  const json_t* peer = nullptr;
  if (Result none = find_peer(arguments.words[0], peers, peer); none.exit != Exit::Done)
    return none;
  const Reply reply =
      call("/ormel/peer/limit",
           {{"index", std::to_string(number_of(peer, "index"))}, {"since", std::to_string(since)}});
  if (reply.error != 0) return failed(reply.error, reply.reason);
  const std::string name = decoded(text_of(peer, "peer_name"));
  return done(arguments.has("off") ? name + " is kept out"
              : since == 0         ? name + " may connect"
                                   : name + " may connect until " + moment_text(since));
}

Result peer_remove(const Arguments& arguments) {
  const ChangeLock lock;
  if (!lock) return locked_out();
  Reply peers;
  const json_t* peer = nullptr;
  if (Result none = find_peer(arguments.words[0], peers, peer); none.exit != Exit::Done)
    return none;
  const Reply reply =
      call("/ormel/peer/remove", {{"index", std::to_string(number_of(peer, "index"))}});
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : done(arguments.words[0] + " removed");
}

}  // namespace ormelctl
