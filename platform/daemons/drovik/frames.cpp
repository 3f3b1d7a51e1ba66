#include "daemons/drovik/frames.h"

#include <algorithm>
#include <array>
#include <optional>

namespace fenro::drovik {
namespace {

enum FieldNumber : std::uint8_t {
  VERSION = 1,
  USER = 2,
  PASSWORD = 3,
  IDENTIFIER = 4,
  ADDRESS = 5,
  GATEWAY = 6,
  PREFIX = 7,
  MTU = 8,
  NAME_SERVERS = 9,
  REASON = 10,
  FIELDS_END = 11,
};
using Fields = std::array<std::optional<std::string_view>, FIELDS_END>;

constexpr std::size_t FIELD_HEAD = 3;
constexpr std::size_t ADDRESS_BYTES = sizeof(Ipv4);
constexpr std::uint8_t LONGEST_PREFIX = 30;  // a network of two ends

template <typename Number>
std::string bytes_of(Number number) {
  std::string bytes;
  for (std::size_t i = sizeof number; i-- > 0;)
    bytes += static_cast<char>(number >> (8 * i) & 0xff);
  return bytes;
}

template <typename Number>
Number number_in(std::string_view bytes) {
  std::uint64_t number = 0;
  for (const char byte : bytes.substr(0, sizeof(Number)))
    number = number << 8 | static_cast<unsigned char>(byte);
  return static_cast<Number>(number);
}

class Message {
 public:
  explicit Message(Kind kind) : text_(1, static_cast<char>(kind)) {}
  Message& add(FieldNumber field, std::string_view value) {
    text_ += static_cast<char>(field);
    (text_ += bytes_of(static_cast<std::uint16_t>(value.size()))) += value;
    return *this;
  }
  [[nodiscard]] std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

// The fields of a control message of this kind.
bool take_fields(std::string_view message, Kind kind, Fields& fields) {
  if (kind == Kind::None || kind_of(message) != kind) return false;
  message.remove_prefix(1);
  while (!message.empty()) {
    if (message.size() < FIELD_HEAD) return false;
    const auto number = static_cast<unsigned char>(message[0]);
    const std::size_t length = number_in<std::uint16_t>(message.substr(1));
    message.remove_prefix(FIELD_HEAD);
    if (length > message.size()) return false;
    if (number > 0 && number < FIELDS_END) {
      if (fields.at(number)) return false;
      fields.at(number) = message.substr(0, length);
    }
    message.remove_prefix(length);
  }
  return true;
}

template <typename Number>
bool take_number(const Fields& fields, FieldNumber field, Number& out) {
  const auto& value = fields.at(field);
  if (!value || value->size() != sizeof(Number)) return false;
  out = number_in<Number>(*value);
  return true;
}

// Text that people chose: it goes to logs, lists and PAM, so it is one line.
bool take_text(const Fields& fields, FieldNumber field, std::string& out) {
  const auto& value = fields.at(field);
  if (!value || value->empty() || value->size() > LOGIN_TEXT_MAX) return false;
  if (std::ranges::any_of(*value, [](unsigned char c) { return c < ' ' || c == 0x7f; }))
    return false;
  out = *value;
  return true;
}

bool take_name_servers(const Fields& fields, std::vector<Ipv4>& out) {
  const auto& value = fields.at(NAME_SERVERS);
  if (!value) return true;
  if (value->size() % ADDRESS_BYTES != 0 || value->size() > NAME_SERVERS_MAX * ADDRESS_BYTES)
    return false;
  for (std::size_t at = 0; at < value->size(); at += ADDRESS_BYTES)
    out.push_back(number_in<Ipv4>(value->substr(at)));
  return true;
}

constexpr const char* REASONS[] = {"no reason given",
                                   "user, password or right is wrong",
                                   "the server is full",
                                   "another user is online under this identifier",
                                   "the versions do not fit",
                                   "thrown out by an administrator",
                                   "the server stops",
                                   "the client has logged in again",
                                   "the keys are worn",
                                   "the client has left",
                                   "nothing was heard for too long"};

}  // namespace

const char* reason_text(Reason reason) {
  const auto row = static_cast<std::size_t>(reason);
  return row < std::size(REASONS) ? REASONS[row] : REASONS[0];
}

Kind kind_of(std::string_view message) {
  if (message.empty() || message.size() > MESSAGE_MAX) return Kind::None;
  const auto kind = static_cast<unsigned char>(message[0]);
  return kind <= static_cast<unsigned char>(Kind::Bye) ? static_cast<Kind>(kind) : Kind::None;
}

std::string encode(const Login& login) {
  return Message{Kind::Login}
      .add(VERSION, bytes_of(login.version))
      .add(USER, login.user)
      .add(PASSWORD, login.password)
      .add(IDENTIFIER, login.identifier)
      .take();
}

std::string encode(const Welcome& welcome) {
  std::string name_servers;
  for (const Ipv4 server : welcome.name_servers) name_servers += bytes_of(server);
  return Message{Kind::Welcome}
      .add(ADDRESS, bytes_of(welcome.address))
      .add(GATEWAY, bytes_of(welcome.gateway))
      .add(PREFIX, bytes_of(welcome.prefix))
      .add(MTU, bytes_of(welcome.mtu))
      .add(NAME_SERVERS, name_servers)
      .take();
}

std::string encode(Kind kind, Reason reason) {
  Message message{kind};
  if (reason != Reason::None) message.add(REASON, bytes_of(static_cast<std::uint8_t>(reason)));
  return message.take();
}

bool decode(std::string_view message, Login& login) {
  Fields fields;
  if (!take_fields(message, Kind::Login, fields) || !take_number(fields, VERSION, login.version))
    return false;
  if (login.version != PROTOCOL_VERSION) return true;  // the rest may have another form
  return take_text(fields, USER, login.user) && take_text(fields, PASSWORD, login.password) &&
         take_text(fields, IDENTIFIER, login.identifier) && is_identifier(login.identifier);
}

bool decode(std::string_view message, Welcome& welcome) {
  Fields fields;
  welcome.name_servers.clear();
  return take_fields(message, Kind::Welcome, fields) &&
         take_number(fields, ADDRESS, welcome.address) &&
         take_number(fields, GATEWAY, welcome.gateway) &&
         take_number(fields, PREFIX, welcome.prefix) && take_number(fields, MTU, welcome.mtu) &&
         take_name_servers(fields, welcome.name_servers) && welcome.prefix > 0 &&
         welcome.prefix <= LONGEST_PREFIX && welcome.mtu >= LOWEST_MTU &&
         welcome.mtu <= TUNNEL_MTU && welcome.address != 0 && welcome.address != welcome.gateway;
}

Reason reason_of(std::string_view message) {
  Fields fields;
  std::uint8_t reason = 0;
  const bool found =
      take_fields(message, kind_of(message), fields) && take_number(fields, REASON, reason);
  return found && reason < std::size(REASONS) ? static_cast<Reason>(reason) : Reason::None;
}

bool is_identifier(std::string_view text) {
  constexpr std::string_view FORM = "xx:xx:xx:xx:xx:xx";
  constexpr std::string_view DIGITS = "0123456789abcdef";
  if (text.size() != FORM.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (FORM[i] == ':' ? text[i] != ':' : DIGITS.find(text[i]) == std::string_view::npos)
      return false;
  }
  return true;
}

}  // namespace fenro::drovik
