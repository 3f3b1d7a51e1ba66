#include "openvpn/attempts.h"

#include <utility>

#include "base/reason.h"

namespace fenro::openvpn {
namespace {

constexpr std::string_view LOGIN_REFUSED = "login-refused";
constexpr std::string_view OWN_EXPIRED = "own-cert-expired";
constexpr std::string_view NO_ANSWER = "no-answer";
constexpr const char* UNFINISHED =
    "it answers, but does not finish the handshake: it may refuse the profile's certificate";
constexpr std::chrono::seconds HANDSHAKE_TIME{8};

bool is_final_code(std::string_view code) {
  const ormel::ReasonFacts* const facts = ormel::find_reason(code);
  return facts && facts->final;
}

}  // namespace

void Attempts::take(std::string_view line, Time now) {
  if (says_connected(line)) return come_up();
  if (says_reconnecting(line)) return end_attempt();
  if (const auto count = remote_count(line)) remotes_ = *count;
  if (warns_of_own_certificate(line)) own_expired_ = true;
  if (says_server_answers(line) && !answered_) answered_ = now;
  if (auto sign = sign_of(line)) take_sign(line, std::move(*sign));
}

void Attempts::look(Time now) {
  if (own_expired_ && answered_ && !up_ && noted_.empty() && now - *answered_ >= HANDSHAKE_TIME)
    note({OWN_EXPIRED, {}});
}

void Attempts::take_sign(std::string_view line, Sign sign) {
  if (up_ && sign.code != LOGIN_REFUSED) {
    last_ = std::move(sign);
    return;
  }
  // A server that looks at the certificate ends the handshake, not always with a word.
  if (noted_.empty() && says_handshake_failed(line)) {
    if (own_expired_ && (answered_ || sign.code != NO_ANSWER)) sign.code = OWN_EXPIRED;
    if (answered_ && sign.code == NO_ANSWER) sign.detail = UNFINISHED;
  }
  if (noted_.empty() || (is_final_code(sign.code) && !is_final_code(noted_))) note(sign);
  over_ = over_ || noted_ == LOGIN_REFUSED;
}

void Attempts::end() {
  if (noted_.empty()) note(last_.value_or(Sign{"daemon-ended", {}}));
}

bool Attempts::final() const {
  return is_final_code(noted_);
}

void Attempts::note(const Sign& sign) {
  noted_ = sign.code;
  note_(sign);
}

void Attempts::come_up() {
  up_ = true;
  noted_ = {};
  last_.reset();
  answered_.reset();
  final_attempts_ = 0;
  note_(std::nullopt);
}

void Attempts::end_attempt() {
  answered_.reset();
  if (std::exchange(up_, false)) {
    if (last_) note(*last_);
    last_.reset();
  } else if (!final()) {
    final_attempts_ = 0;
  } else if (++final_attempts_ > remotes_) {
    over_ = true;
    return;
  }
  noted_ = {};
}

}  // namespace fenro::openvpn
