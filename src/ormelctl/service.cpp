#include "ormelctl/service.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "base/tunnel.h"
#include "ormel/actions/actions.h"
#include "ormel/actions/audit.h"
#include "ormel/actions/tunnel_state.h"
#include "ormel/base/error.h"
#include "ormel/base/error_capture.h"
#include "ormel/base/http.h"
#include "ormel/changes/lock.h"
#include "ormel/host/process.h"
#include "ormel/options/table.h"
#include "ormel/web/cgi_main.h"
#include "ormelctl/trial.h"

namespace ormelctl {
namespace {

using namespace std::chrono_literals;
using ormel::Fd;

constexpr const char* LOCK_FOLDER = "/run/fenro";
constexpr const char* LOCK = "/run/fenro/ormelctl.lock";
constexpr long LOCK_SECONDS = 10;
constexpr long QUIET_SECONDS = 2;  // of these, before the user gets to know
constexpr auto PAUSE = 200ms;
constexpr size_t SECRET_LIMIT = 4096;

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string word_of(ormel::TYPE type) {
  for (const auto& row : ormel::option::type_names()) {
    if (row.type == type) return row.name;
  }
  return {};
}

ormel::Json parsed(const ormel::JsonValue& value) {
  char* text = nullptr;
  size_t length = 0;
  {
    const ormel::File stream{open_memstream(&text, &length)};
    if (stream) value.print(stream.get());
  }
  const ormel::CString owner{text};
  return text ? ormel::Json{json_loadb(text, length, JSON_DECODE_ANY, nullptr)} : nullptr;
}

using Action = int (*)(std::unique_ptr<ormel::config::PolyConfig> record, ormel::JsonValue* out);
struct ActionRow {
  ormel::ACTION action;
  Action run;
};
constexpr ActionRow ACTIONS[] = {
    {ormel::ADD_ACTION, ormel::add},         {ormel::IMPORT_ACTION, ormel::import},
    {ormel::MODIFY_ACTION, ormel::modify},   {ormel::REMOVE_ACTION, ormel::remove},
    {ormel::CONNECT_ACTION, ormel::connect}, {ormel::DISCONNECT_ACTION, ormel::disconnect},
};

// Standard error as it was at the start: it is captured while a route runs.
Fd wait_output;

void report_wait(const char* what) {
  dprintf(wait_output.get(), "waiting for %s to end ...\n", what);
}

// The pool is loaded under the lock, and stays as this run changes it.
void load_pool() {
  if (ormel::config::cm.config_pool.empty()) ormel::config::cm.load();
}

}  // namespace

Reply call(std::string_view path, const Form& form) {
  if (path.find("/ormel/config/") == 0) load_pool();
  std::string query;
  for (const auto& [name, value] : form)
    query += (query.empty() ? "" : "&") + encoded(name) + '=' + encoded(value);
  ormel::system::ErrorCapture errors;
  Reply reply;
  reply.text = ormel::cgi::call(path, query);
  const std::string detail = errors.take();
  const size_t head = reply.text.find("\r\n\r\n");
  const std::string body = head == std::string::npos ? std::string() : reply.text.substr(head + 4);
  reply.root.reset(json_loadb(body.data(), body.size(), 0, nullptr));
  if (reply.root) {
    reply.error = static_cast<int>(number_of(reply.root.get(), "error"));
    if (reply.error != 0) reply.reason = text_of(reply.root.get(), "reason");
    if (reply.error != 0 && !detail.empty()) reply.reason = detail;
  } else if (reply.text.starts_with("Status: ")) {
    reply.error = ormel::ERR_REGULAR_FILE;
    reply.reason = ormel::get_error_message(ormel::ERR_REGULAR_FILE);
  }
  return reply;
}

ormel::Json records(int mask) {
  ormel::config::Management
      pool;  // not the global one: what other runs have changed since counts too
  pool.load();
  ormel::Json rows{json_array()};
  for (const auto& holder : pool.config_pool) {
    ormel::config::BaseConfig& record = *holder->bc;
    if ((record.type & mask) == 0) continue;
    ormel::JsonValue shown;
    record.show(ormel::ADMIN_USER, &shown);
    ormel::show_state(ormel::tunnel_state(record), shown["tunnel"]);
    json_array_append_new(rows.get(), parsed(shown).release());
  }
  return rows;
}

Reply act(const std::vector<std::string>& words) {
  load_pool();
  std::vector<std::string> arguments{"ormel"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  ormel::system::Argv argv{arguments};
  ormel::system::ErrorCapture errors;
  Reply reply;
  auto record = ormel::option::get_options(static_cast<int>(arguments.size()), argv.get());
  ormel::JsonValue out;
  if (!record->bc) {
    reply.error = ormel::ERR_VALUE;
  } else {
    const ormel::ACTION action = (*record)->action;
    const auto* const row =
        std::find_if(std::begin(ACTIONS), std::end(ACTIONS),
                     [&](const ActionRow& known) { return known.action == action; });
    if (row != std::end(ACTIONS)) reply.error = row->run(std::move(record), &out);
  }
  const std::string detail = errors.take();
  if (reply.error != 0) {
    reply.reason =
        detail.empty() ? ormel::get_error_message(static_cast<unsigned>(reply.error)) : detail;
  }
  reply.root.reset(json_pack("{s:o}", "data", out.is_null() ? json_null() : parsed(out).release()));
  return reply;
}

void say_long_waits() {
  wait_output = Fd{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)};
  ormel::changes::report_long_waits(report_wait);
}

ChangeLock::ChangeLock() {
  mkdir(LOCK_FOLDER, S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH);
  Fd fd{open(LOCK, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, S_IRUSR | S_IWUSR)};
  const auto is_free = [&] { return flock(fd.get(), LOCK_EX | LOCK_NB) == 0; };
  bool locked = fd && comes_true(is_free, QUIET_SECONDS);
  if (fd && !locked) {
    report_wait("another change by ormelctl");
    locked = comes_true(is_free, LOCK_SECONDS - QUIET_SECONDS);
  }
  if (locked) fd_ = std::move(fd);
  ormel::audit::look_again();  // what others have changed while it waited is theirs
}

const std::vector<Protocol>& protocols() {
  static const std::vector<Protocol> all = [] {
    std::vector<Protocol> rows;
    for (const ormel::TunnelFacts& facts : ormel::TUNNELS) {
      rows.push_back({lower(facts.log_name), facts.server, facts.client, word_of(facts.server),
                      word_of(facts.client), facts.script});
    }
    return rows;
  }();
  return all;
}

const Protocol* find_protocol(std::string_view name) {
  const std::string wanted = lower(std::string(name));
  for (const Protocol& row : protocols()) {
    if (wanted == row.name || wanted == lower(row.client_word) || wanted == lower(row.server_word))
      return &row;
  }
  return nullptr;
}

const Protocol* protocol_of(int type) {
  for (const Protocol& row : protocols()) {
    if (row.server == type || row.client == type) return &row;
  }
  return nullptr;
}

std::string protocol_names() {
  std::string names;
  for (const Protocol& row : protocols()) names += (names.empty() ? "" : ", ") + row.name;
  return names;
}

std::string encoded(const std::string& text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || std::strchr("-._~", c)) {
      out += c;
      continue;
    }
    char code[4];
    std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned>(byte));
    out += code;
  }
  return out;
}

std::string decoded(const std::string& text) {
  std::string out;
  return ormel::system::decode_urlEncoded(text, out) == ormel::NO_ERROR ? out : text;
}

std::string text_of(const json_t* object, const char* key) {
  const json_t* value = json_object_get(object, key);
  return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                               : std::string();
}

long number_of(const json_t* object, const char* key) {
  return static_cast<long>(json_integer_value(json_object_get(object, key)));
}

std::optional<std::string> read_secret(const std::string& path) {
  std::string text;
  if (path == "-") {
    std::getline(std::cin, text);
  } else {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    text.assign(std::istreambuf_iterator<char>(in), {});
    while (text.ends_with('\n') || text.ends_with('\r')) text.pop_back();
  }
  const bool usable = text.size() <= SECRET_LIMIT &&
                      text.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
  return usable ? std::optional(text) : std::nullopt;
}

std::optional<std::string> ask_secret(const std::string& prompt) {
  const Fd terminal{open("/dev/tty", O_RDWR | O_CLOEXEC)};
  termios shown{};
  if (!terminal || tcgetattr(terminal.get(), &shown) != 0) return {};
  termios hidden = shown;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(terminal.get(), TCSAFLUSH, &hidden);
  std::string text;
  const std::string question = prompt + ": ";
  const bool asked = write(terminal.get(), question.data(), question.size()) > 0;
  for (char c = 0;
       asked && read(terminal.get(), &c, 1) == 1 && c != '\n' && text.size() < SECRET_LIMIT;)
    text += c;
  tcsetattr(terminal.get(), TCSAFLUSH, &shown);
  std::ignore = write(terminal.get(), "\n", 1);  // the user's own line end was not shown
  return text;
}

bool comes_true(const std::function<bool()>& test, long seconds) {
  if (in_trial()) return test();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!test()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(PAUSE);
  }
  return true;
}

}  // namespace ormelctl
