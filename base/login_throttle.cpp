#include "base/login_throttle.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <nettle/sha2.h>
#include <sys/file.h>
#include <unistd.h>

#include "base/client_network.h"
#include "base/file.h"
#include "base/handle.h"
#include "base/lines.h"
#include "base/random_name.h"

namespace fenro {
namespace {

constexpr const char* COUNTERS = "/counters";
constexpr const char* LOCK = "/lock";
constexpr std::size_t KEY_LENGTH = 32;

// The wait before an attempt, by the failures before it; the last one stands for all more.
constexpr std::array<int, 7> DELAYS_MS{0, 0, 0, 500, 1000, 2000, 4000};

// The lock is held from reading to writing, never while a password is checked.
Fd lock_folder(const std::string& folder) {
  if (!make_private_folder(folder)) return Fd{};
  Fd lock{open((folder + LOCK).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, PRIVATE_FILE)};
  while (lock && flock(lock.get(), LOCK_EX) != 0)
    if (errno != EINTR) return Fd{};
  return lock;
}

unsigned slot_of(const std::string& key, std::string_view name, unsigned slots) {
  const std::string text = key + std::string{name};
  sha256_ctx context;
  sha256_init(&context);
  sha256_update(&context, text.size(), reinterpret_cast<const std::uint8_t*>(text.data()));
  std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&context, digest.size(), digest.data());
  unsigned number = 0;
  std::memcpy(&number, digest.data(), sizeof number);
  return number % slots;
}

// Some directories ignore the case of names, so the counters do too.
std::string folded(std::string_view name) {
  std::string text{name};
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text;
}

}  // namespace

std::time_t LoginThrottle::clock() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}

unsigned LoginThrottle::user_slot(const State& state, std::string_view user) const {
  return slot_of(state.key, folded(user), slots_);
}

unsigned LoginThrottle::address_slot(const State& state, std::string_view address) const {
  return slots_ + slot_of(state.key, client_network(address), slots_);
}

bool LoginThrottle::load(State& state, std::time_t now) const {
  std::string text;
  const int error = read_file((folder_ + COUNTERS).c_str(), text);
  if (error != 0 && error != ENOENT) return false;
  std::string_view rest = text;
  state.key = take_line(rest);
  if (state.key.size() != KEY_LENGTH) {
    state.key.assign(KEY_LENGTH, '\0');
    return random_name(state.key);
  }
  while (!rest.empty()) {
    std::string_view line = take_line(rest);
    unsigned slot = 0;
    Counter counter;
    if (parse_number(take_word(line), slot) && parse_number(take_word(line), counter.failures) &&
        parse_number(take_word(line), counter.since) && counter.since <= now &&
        now - counter.since < WINDOW)
      state.counters[slot] = counter;
  }
  return true;
}

bool LoginThrottle::save(const State& state) const {
  std::string text = state.key + "\n";
  for (const auto& [slot, counter] : state.counters)
    if (counter.failures > 0)
      text += std::to_string(slot) + " " + std::to_string(counter.failures) + " " +
              std::to_string(counter.since) + "\n";
  return replace_file(folder_ + COUNTERS, text);
}

// A counter one beyond its limit says that the refusal was sent. Refusals do not count as failures,
// so the window also ends for a client that keeps asking.
void LoginThrottle::refuse(const Limited& row, std::time_t now, Admission& admission) {
  auto& [counter, limit] = row;
  if (counter.failures < limit) return;
  admission.retry_after = std::max(admission.retry_after, counter.since + WINDOW - now);
  if (counter.failures == limit) admission.first_refusal = true;
  counter.failures = limit + 1;
}

void LoginThrottle::charge(const Limited& row, std::time_t now, Admission& admission) {
  if (row.counter.failures == 0) row.counter.since = now;
  const auto step = std::min(static_cast<std::size_t>(row.counter.failures), DELAYS_MS.size() - 1);
  admission.delay = std::max(admission.delay, std::chrono::milliseconds{DELAYS_MS[step]});
  ++row.counter.failures;
}

std::optional<LoginThrottle::Admission> LoginThrottle::admit(std::string_view user,
                                                             std::string_view address,
                                                             std::time_t now) const {
  const Fd lock = lock_folder(folder_);
  State state;
  if (!lock || !load(state, now)) return {};
  const Limited rows[] = {{state.counters[user_slot(state, user)], USER_LIMIT},
                          {state.counters[address_slot(state, address)], ADDRESS_LIMIT}};
  Admission admission;
  for (const Limited& row : rows) refuse(row, now, admission);
  if (admission.retry_after == 0)
    for (const Limited& row : rows) charge(row, now, admission);
  else if (!admission.first_refusal)
    return admission;  // nothing has changed, and a flood of these costs no writing
  return save(state) ? std::optional{admission} : std::nullopt;
}

std::time_t LoginThrottle::retry_after(std::string_view address, std::time_t now) const {
  State state;
  if (access((folder_ + COUNTERS).c_str(), F_OK) != 0 || !load(state, now)) return 0;
  const auto client = state.counters.find(address_slot(state, address));
  const bool over = client != state.counters.end() && client->second.failures >= ADDRESS_LIMIT;
  return over ? client->second.since + WINDOW - now : 0;
}

bool LoginThrottle::succeed(std::string_view user, std::string_view address,
                            std::time_t now) const {
  const Fd lock = lock_folder(folder_);
  State state;
  if (!lock || !load(state, now)) return false;
  state.counters.erase(user_slot(state, user));
  const auto client = state.counters.find(address_slot(state, address));
  if (client != state.counters.end() && --client->second.failures <= 0)
    state.counters.erase(client);
  return save(state);
}

}  // namespace fenro
