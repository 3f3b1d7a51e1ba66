#include "openvpn/signs.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace fenro::openvpn {
namespace {

constexpr std::string_view LOG = ">LOG:";
constexpr std::string_view FATAL = ">FATAL:";
constexpr std::string_view STATE = ">STATE:";
constexpr std::string_view REFUSAL = ">PASSWORD:Verification Failed";

struct Row {
  std::string_view words;
  std::string_view code;
};

// The words that a server sends with a refused login; the first that fits counts.
constexpr Row REFUSALS[] = {
    {"['TEMP", "login-later"},
    {"ipher negotiation failed", "no-common-cipher"},
    {"no shared cipher", "no-common-cipher"},
    {"", "login-refused"},
};

// Of the daemon's log; the first that fits counts.
constexpr Row SIGNS[] = {
    {"RESOLVE: Cannot resolve", "name-not-found"},
    {"code=101)", "no-route"},  // ENETUNREACH
    {"code=113)", "no-route"},  // EHOSTUNREACH
    {"failed: No route to host", "no-route"},
    {"failed: Network is unreachable", "no-route"},
    {"certificate is not yet valid", "server-cert-not-yet"},
    {"error=certificate has expired", "server-cert-expired"},
    {"VERIFY ERROR", "server-cert-unknown"},
    {"VERIFY KU ERROR", "server-cert-unknown"},
    {"VERIFY EKU ERROR", "server-cert-unknown"},
    {"VERIFY X509NAME ERROR", "server-cert-unknown"},
    {"alert certificate expired", "own-cert-expired"},
    {"alert unknown ca", "own-cert-refused"},
    {"alert bad certificate", "own-cert-refused"},
    {"alert certificate revoked", "own-cert-refused"},
    {"alert certificate unknown", "own-cert-refused"},
    {"alert unsupported certificate", "own-cert-refused"},
    {"alert certificate required", "own-cert-refused"},
    {"failed to negotiate cipher", "no-common-cipher"},
    {"alert handshake failure", "no-common-cipher"},
    {"alert protocol version", "no-common-cipher"},
    {"tls-crypt unwrap", "psk-wrong"},
    {"incoming packet authentication failed", "psk-wrong"},
    {"TLS key negotiation failed", "no-answer"},
    {"TLS handshake failed", "no-answer"},
    {"Server poll timeout", "no-answer"},
    {"server_poll", "no-answer"},
    {"have been connect-retry-max (", "no-answer"},
    {"Inactivity timeout", "no-answer"},
    {"code=111)", "no-answer"},  // ECONNREFUSED
    {"failed: Connection refused", "no-answer"},
    {"failed: Connection timed out", "no-answer"},
    {"Connection reset", "no-answer"},
    {"Cannot open TUN/TAP dev", "kernel-lacks"},
    {"Cannot ioctl TUNSETIFF", "kernel-lacks"},
};

template <std::size_t N>
std::optional<Sign> find(const Row (&rows)[N], std::string_view text, std::string_view detail) {
  const auto* const row = std::find_if(std::begin(rows), std::end(rows), [&](const Row& one) {
    return text.find(one.words) != std::string_view::npos;
  });
  if (row == std::end(rows)) return {};
  return Sign{row->code, std::string(detail)};
}

std::string_view take_field(std::string_view& line) {
  const std::string_view field = line.substr(0, line.find(','));
  line.remove_prefix(std::min(field.size() + 1, line.size()));
  return field;
}

// A line of the log is the time, its flags and the text; one that was asked for has no mark before
// it. Empty for any other line.
std::string_view log_text(std::string_view line) {
  constexpr std::string_view DIGITS = "0123456789", FLAGS = "IFNWD";
  if (line.starts_with(LOG)) line.remove_prefix(LOG.size());
  const std::string_view time = take_field(line), flags = take_field(line);
  const bool logged = !time.empty() && time.find_first_not_of(DIGITS) == std::string_view::npos &&
                      flags.find_first_not_of(FLAGS) == std::string_view::npos;
  return logged ? line : std::string_view{};
}

// What the server has said: 'Auth' ['its words'].
std::string_view server_words(std::string_view line) {
  const std::size_t begin = line.find("['");
  const std::size_t end = line.rfind("']");
  return begin == std::string_view::npos || end == std::string_view::npos || end < begin + 2
             ? std::string_view{}
             : line.substr(begin + 2, end - begin - 2);
}

}  // namespace

std::optional<Sign> sign_of(std::string_view line) {
  if (line.starts_with(REFUSAL)) return find(REFUSALS, line, server_words(line));
  if (line.starts_with(FATAL)) {
    const std::string_view text = line.substr(FATAL.size());
    const auto known = find(SIGNS, text, text);
    return known ? known : Sign{"settings-bad", std::string(text)};
  }
  const std::string_view text = log_text(line);
  return find(SIGNS, text, text);
}

bool says_connected(std::string_view line) {
  return (line.starts_with(STATE) || !line.starts_with('>')) &&
         line.find(",CONNECTED,SUCCESS,") != std::string::npos;
}

bool says_reconnecting(std::string_view line) {
  return line.starts_with(STATE) && line.find(",RECONNECTING,") != std::string::npos;
}

std::optional<int> remote_count(std::string_view line) {
  int count = 0;
  const auto [end, failure] = std::from_chars(line.data(), line.data() + line.size(), count);
  if (failure != std::errc{} || end != line.data() + line.size() || count < 1) return {};
  return count;
}

bool warns_of_own_certificate(std::string_view line) {
  return log_text(line).find("Your certificate has expired") != std::string_view::npos;
}

bool says_server_answers(std::string_view line) {
  return (line.starts_with(STATE) || !line.starts_with('>')) &&
         line.find(",AUTH,,") != std::string_view::npos;
}

bool says_handshake_failed(std::string_view line) {
  const std::string_view text = log_text(line);
  return text.find("TLS handshake failed") != std::string_view::npos ||
         text.find("TLS key negotiation failed") != std::string_view::npos;
}

}  // namespace fenro::openvpn
