// What the server tells others: the list of live connections, the connection log, and the bus.
#include <algorithm>

#include "common/json.h"
#include "daemons/drovik/log.h"
#include "daemons/drovik/server.h"

namespace fenro::drovik {
namespace {

constexpr std::uint32_t SERVER_BIT = 16;  // of this server in the list of live connections

// Results of the bus.
constexpr int DONE = 0;
constexpr int NO_SUCH_CLIENT = 1;
constexpr int BAD_REQUEST = 2;

Workers::Then noted(bool done) {
  if (!done) log_line(LOG_WARNING, "the list of connections or their log could not be written");
  return {};
}

}  // namespace

std::string bytes_reply(const std::vector<ClientBytes>& clients) {
  Json data{json_array()};
  for (const ClientBytes& client : clients) {
    Json row{json_object()};
    json_object_set_new(row.get(), "mac", json_text(client.identifier).release());
    json_object_set_new(row.get(), "rx_bytes",
                        json_integer(static_cast<json_int_t>(client.received)));
    json_object_set_new(row.get(), "tx_bytes", json_integer(static_cast<json_int_t>(client.sent)));
    json_array_append_new(data.get(), row.release());
  }
  return reply_text(DONE, std::move(data));
}

// The identifier takes the interface's place: it is the name by which a connection is counted and
// kicked.
OnlineUser TunnelServer::record_of(const Session& session) const {
  const Peer& peer = session.channel->peer();
  return {session.bytes.identifier,
          to_text(peer.address),
          peer.port,
          to_text(settings_.gateway),
          to_text(session.address),
          SERVER_BIT,
          session.since,
          session.user,
          session.bytes.identifier};
}

void TunnelServer::note_begin(const Session& session) {
  log_line(LOG_INFO, "%s from %s is online on %s", session.user.c_str(),
           to_text(session.channel->peer().address).c_str(), to_text(session.address).c_str());
  notes_.submit(
      [record = record_of(session)] { return noted(begin_session(OnlineUsers{}, record)); });
}

void TunnelServer::note_end(const Session& session) {
  const Traffic traffic{static_cast<std::int64_t>(session.bytes.received),
                        static_cast<std::int64_t>(session.bytes.sent)};
  notes_.submit([record = record_of(session), traffic] {
    const auto same = [&](const OnlineUser& each) {
      return each.type == SERVER_BIT && each.interface == record.interface &&
             each.number == record.number;
    };
    return noted(end_sessions(OnlineUsers{}, same, traffic));
  });
}

void TunnelServer::note_refusal(const Session& session, const std::string& why) {
  OnlineUser record = record_of(session);
  record.remote.clear();  // it got no address
  notes_.submit([record = std::move(record), why] { return noted(log_refusal(record, why)); });
}

bus::Reply TunnelServer::disconnect(std::string_view body) {
  const Json request = parse_request(body);
  const char* identifier = text_or_null(request.get(), "mac");
  if (!identifier) return {MIB_SUCCESS, reply_text(BAD_REQUEST, json_text("mac is not a string"))};
  Session* session = find(roster_.named(identifier));
  if (!session) return {MIB_SUCCESS, reply_text(NO_SUCH_CLIENT, json_text("no such client"))};
  end(*session, Reason::Kicked);
  reap();
  socket_.flush();
  return {MIB_SUCCESS, reply_text(DONE, json_text(""))};
}

bus::Reply TunnelServer::bytes_info() {
  std::vector<ClientBytes> clients;
  for (const auto& [id, session] : sessions_) {
    if (session.stage == Stage::Online && !session.gone) clients.push_back(session.bytes);
  }
  return {MIB_SUCCESS, bytes_reply(clients)};
}

}  // namespace fenro::drovik
