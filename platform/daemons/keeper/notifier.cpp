#include "daemons/keeper/notifier.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/random.h>
#include <unistd.h>

#include <curl/curl.h>
#include <fenro/mibservice.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "base/argv.h"
#include "base/bus_handle.h"
#include "base/handle.h"
#include "common/json.h"

namespace fenro::keeper {
namespace {

using Curl = std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>;
using Headers = std::unique_ptr<curl_slist, FreeWith<curl_slist_free_all>>;

constexpr int ATTEMPTS = 3;
constexpr std::chrono::seconds PAUSE{
    5};  // before the second attempt; three times as long before the third
constexpr long TIMEOUT_SECONDS = 10;
constexpr std::size_t QUEUE_LIMIT = 1000;
constexpr std::size_t TESTS_KEPT = 16;
constexpr std::size_t SECRET_BYTES = 32;
constexpr std::string_view MAIL = "mail:";
constexpr char SEPARATOR = ' ';  // between target and kind; in neither of them
constexpr std::chrono::seconds LOOK_PERIOD{30};
constexpr const char* SENDMAIL = "/usr/sbin/sendmail";

std::string hex(const unsigned char* bytes, std::size_t count) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += DIGITS[bytes[i] >> 4];
    text += DIGITS[bytes[i] & 15];
  }
  return text;
}

std::string host_name() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string body_of(const Report& report) {
  Json body{json_object()};
  const auto set = [&](const char* key, std::string_view text) {
    json_object_set_new(body.get(), key, json_text(text).release());
  };
  json_object_set_new(body.get(), "schema", json_integer(1));
  set("host", host_name());
  json_object_set_new(body.get(), "time", json_integer(std::time(nullptr)));
  set("event", report.kind);
  set("subject", report.subject);
  set("text", report.text);
  if (report.reason.empty()) {
    json_object_set_new(body.get(), "reason", json_null());
  } else {
    set("reason", report.reason);
  }
  return compact(body.get());
}

std::size_t drop(const char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

Outcome post(CURL* handle, const Target& target, const std::string& body) {
  Outcome outcome;
  const std::string sum = signature(target.secret, body);
  const std::string line = "X-Ormel-Signature: sha256=" + sum;
  Headers headers{curl_slist_append(nullptr, "Content-Type: application/json")};
  if (!handle || !headers || sum.empty() || !curl_slist_append(headers.get(), line.c_str())) {
    outcome.error = "out of memory";
    return outcome;
  }
  curl_easy_reset(handle);
  const auto set = [handle](auto option, auto value) { curl_easy_setopt(handle, option, value); };
  set(CURLOPT_URL, target.url.c_str());
  set(CURLOPT_PROTOCOLS_STR,
      target.url.starts_with("https:") ? "https" : "http");  // plain is for the loopback alone
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_PROXY, "");
  set(CURLOPT_HTTPHEADER, headers.get());
  set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  set(CURLOPT_POSTFIELDS, body.c_str());
  set(CURLOPT_TIMEOUT, TIMEOUT_SECONDS);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_WRITEFUNCTION, drop);
  const CURLcode rc = curl_easy_perform(handle);
  curl_off_t spent = 0;  // microseconds
  curl_easy_getinfo(handle, CURLINFO_TOTAL_TIME_T, &spent);
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &outcome.status);
  outcome.milliseconds = static_cast<long>(spent / 1000);
  if (rc != CURLE_OK) {
    outcome.error = curl_easy_strerror(rc);
  } else if (outcome.status < 200 || outcome.status > 299) {
    outcome.error = "the receiver answers " + std::to_string(outcome.status);
  }
  return outcome;
}

// The recipient is an argument after "--"; all that comes from elsewhere is in the message.
Outcome mail(const Target& target, const std::string& subject, const std::string& body) {
  const std::string to = target.url.substr(MAIL.size());
  const std::string text = "To: " + to + "\nSubject: " + subject +
                           "\nContent-Type: text/plain; charset=utf-8\n\n" + body + '\n';
  std::vector<std::string> words{
      "/usr/bin/timeout", std::to_string(TIMEOUT_SECONDS), SENDMAIL, "-i", "--", to};
  if (access(SENDMAIL, X_OK) != 0)
    return {.error = "this host has no mail system (/usr/sbin/sendmail)"};
  const MibIo input{mib_io_create()};
  const MibIo out{mib_io_create()};
  if (!input || !out || mib_io_write(input.get(), text.data(), text.size()) < 0)
    return {.error = "out of memory"};
  const int status = mib_io_execv(input.get(), out.get(), out.get(), argv_of(words).data());
  return {.error = status == 0 ? "" : "sendmail ends with status " + std::to_string(status)};
}

// A header is one line of plain characters.
std::string header_text(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return c < ' ' || c >= 0x7f; }, '?');
  return text;
}

}  // namespace

std::string signature(const std::string& secret, std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
  unsigned length = 0;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  if (!HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()), bytes, text.size(),
            sum.data(), &length))
    return {};
  return hex(sum.data(), length);
}

std::string new_secret() {
  std::array<unsigned char, SECRET_BYTES> bytes{};
  return getrandom(bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size())
             ? hex(bytes.data(), bytes.size())
             : "";
}

Notifier::Notifier() : thread_([this] { run(); }) {}

Notifier::~Notifier() {
  {
    const std::lock_guard guard{mutex_};
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Notifier::queue(const Target& target, const Report& report, int attempts, std::uint64_t test) {
  if (queue_.size() >= QUEUE_LIMIT) return;  // an outage longer than anybody wants to read about
  const bool is_mail = target.url.starts_with(MAIL);
  queue_.push_back({target, header_text("[ormel] " + host_name() + ": " + std::string{report.kind}),
                    is_mail ? report.text : body_of(report), attempts, Clock::now(), test});
  changed_.notify_all();
}

void Notifier::send(const Report& report) {
  const std::vector<Target> targets = read_targets();
  const std::lock_guard guard{mutex_};
  for (const Target& target : targets) {
    if (target.wants(report.kind) &&
        limit_.admit(target.name + SEPARATOR + std::string{report.kind}, Clock::now()))
      queue(target, report, ATTEMPTS, 0);
  }
}

std::uint64_t Notifier::test(const std::string& name) {
  const std::vector<Target> targets = read_targets();
  const auto target = std::ranges::find(targets, name, &Target::name);
  if (target == targets.end()) return 0;
  const std::lock_guard guard{mutex_};
  queue(
      *target,
      {TEST_KIND, Level::Information, name, "This is a test of the notifications to " + name + "."},
      1, ++last_test_);
  return last_test_;
}

std::optional<Outcome> Notifier::test_outcome(std::uint64_t number) const {
  const std::lock_guard guard{mutex_};
  const auto found = tests_.find(number);
  return found == tests_.end() ? std::nullopt : std::optional{found->second};
}

std::optional<Outcome> Notifier::last_outcome(const std::string& name) const {
  const std::lock_guard guard{mutex_};
  const auto found = outcomes_.find(name);
  return found == outcomes_.end() ? std::nullopt : std::optional{found->second};
}

// One notification says how many more there were.
void Notifier::summarize(Clock::time_point now) {
  const std::vector<RateLimit::Summary> summaries = limit_.ended(now);
  if (summaries.empty()) return;
  const std::vector<Target> targets = read_targets();
  for (const RateLimit::Summary& summary : summaries) {
    const std::size_t cut = summary.key.find(SEPARATOR);
    const auto target = std::ranges::find(targets, summary.key.substr(0, cut), &Target::name);
    const std::string kind = summary.key.substr(cut + 1);
    if (target == targets.end()) continue;
    queue(*target,
          {kind, Level::Information, "",
           std::to_string(summary.held_back) + " more events of kind " + kind +
               " in the last hour were not sent one by one."},
          ATTEMPTS, 0);
  }
}

void Notifier::run() {
  const Curl handle{curl_easy_init()};
  std::unique_lock lock{mutex_};
  while (!ending_) {
    summarize(Clock::now());
    const auto next = std::ranges::min_element(queue_, {}, &Delivery::due);
    if (next == queue_.end()) {
      changed_.wait_for(lock, LOOK_PERIOD);
      continue;
    }
    if (next->due > Clock::now()) {
      changed_.wait_until(lock, next->due);
      continue;
    }
    Delivery delivery = std::move(*next);
    queue_.erase(next);
    lock.unlock();
    Outcome outcome = delivery.target.url.starts_with(MAIL)
                          ? mail(delivery.target, delivery.subject, delivery.body)
                          : post(handle.get(), delivery.target, delivery.body);
    outcome.at = std::time(nullptr);
    lock.lock();
    outcomes_[delivery.target.name] = outcome;
    if (delivery.test != 0) tests_[delivery.test] = outcome;
    if (tests_.size() > TESTS_KEPT) tests_.erase(tests_.begin());
    if (outcome.error.empty() || --delivery.attempts <= 0) continue;
    delivery.due = Clock::now() + (delivery.attempts == ATTEMPTS - 1 ? PAUSE : 3 * PAUSE);
    queue_.push_back(std::move(delivery));
  }
}

}  // namespace fenro::keeper
