#include "common/online_users.h"

#include <algorithm>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>

#include "base/base64.h"
#include "base/file.h"
#include "base/handle.h"
#include "base/online_line.h"

namespace fenro {
namespace {

// The lock of all writers; it goes with the descriptor. The start scripts take the same one with
// flock(1).
Fd lock_list(const std::string& path) {
  std::ignore =
      make_private_folder(path.substr(0, path.rfind('/')));  // without it the next line fails
  Fd fd{open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, PRIVATE_FILE)};
  if (fd && TEMP_FAILURE_RETRY(flock(fd.get(), LOCK_EX)) != 0) fd.reset();
  return fd;
}

std::optional<OnlineUser> parse_line(std::string_view line) {
  OnlineLine parts;
  OnlineUser session;
  if (!parse_online_line(line, parts) || !parse_base64(parts.user, session.user)) return {};
  session.interface = parts.interface;
  session.source = parts.source;
  session.number = parts.number;
  session.local = parts.local;
  session.remote = parts.remote;
  session.type = parts.type;
  session.since = parts.since;
  session.device = parts.device;
  return session;
}

bool is_word(const std::string& text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) { return c > ' ' && c < '\x7f'; });
}

// A device names itself; its text may not end the line.
std::string without_breaks(std::string text) {
  std::ranges::replace_if(
      text, [](char c) { return LINE_BREAKS.find(c) != std::string_view::npos; }, ' ');
  return text;
}

std::string line_of(const OnlineUser& session) {
  std::string line = session.interface + ' ' + session.source + ' ' +
                     std::to_string(session.number) + ' ' + session.local + ' ' + session.remote +
                     ' ' + std::to_string(session.type) + ' ' + std::to_string(session.since) +
                     ' ' + to_base64(session.user);
  if (!session.device.empty()) line += ' ' + without_breaks(session.device);
  return line + '\n';
}

}  // namespace

std::vector<OnlineUser> OnlineUsers::list() const {
  std::vector<OnlineUser> sessions;
  std::string text;
  if (read_file(file_.c_str(), text) != 0) return sessions;
  for (std::string_view rest = text; !rest.empty();) {
    if (auto session = parse_line(take_line(rest))) sessions.push_back(std::move(*session));
  }
  return sessions;
}

bool OnlineUsers::add(const OnlineUser& session) const {
  for (const std::string* word :
       {&session.interface, &session.source, &session.local, &session.remote}) {
    if (!is_word(*word)) return false;
  }
  if (session.user.empty())
    return false;  // it would take no place, and all words after it would move up
  const Fd lock = lock_list(lock_);
  std::string text;
  if (const int failure = read_file(file_.c_str(), text);
      !lock || (failure != 0 && failure != ENOENT))
    return false;
  std::string lines{text};
  if (!lines.empty() && lines.back() != '\n') lines += '\n';
  return replace_file(file_, lines + line_of(session));
}

bool OnlineUsers::remove(const Chosen& chosen, std::vector<OnlineUser>& removed) const {
  const Fd lock = lock_list(lock_);
  std::string text;
  const int failure = lock ? read_file(file_.c_str(), text) : EIO;
  if (failure != 0) return failure == ENOENT;
  std::string kept;
  const std::size_t before = removed.size();
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = take_line(rest);
    if (auto session = parse_line(line); session && chosen(*session)) {
      removed.push_back(std::move(*session));
    } else {
      kept.append(line) += '\n';
    }
  }
  return removed.size() == before || replace_file(file_, kept);
}

}  // namespace fenro
