#include "base/reason.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/c_memory.h"
#include "base/handle.h"
#include "base/json_handle.h"
#include "base/lines.h"
#include "base/tunnel.h"

namespace ormel {
namespace {

constexpr size_t LONGEST_DETAIL = 200;
constexpr size_t LONGEST_FILE = 4096;
bool is_slot(std::string_view text) {
  int slot = 0;
  return fenro::parse_number(text, slot) && slot >= 1 && slot <= MAX_TUNNEL_INDEX &&
         text.front() != '0';
}

// Bytes of the character of UTF-8 at the start of `text`, 0 for one that is malformed or must not
// be shown: control characters, and those that change the direction or the line of what follows.
size_t printable_length(std::string_view text) {
  constexpr unsigned CONTINUATION = 0x80, CONTINUATION_MASK = 0xc0, PAYLOAD = 0x3f,
                     PAYLOAD_BITS = 6;
  constexpr struct {
    unsigned mask, lead, least;
    size_t length;
  } FORMS[] = {{0x80, 0x00, 0x20, 1},
               {0xe0, 0xc0, 0xa0, 2},
               {0xf0, 0xe0, 0x800, 3},
               {0xf8, 0xf0, 0x10000, 4}};
  constexpr struct {
    unsigned first, last;
  } HIDDEN[] = {{0x7f, 0x9f},     {0x200b, 0x200f}, {0x2028, 0x202e},    {0x2060, 0x206f},
                {0xd800, 0xdfff}, {0xfeff, 0xfeff}, {0x110000, 0x1fffff}};
  const auto first = static_cast<unsigned char>(text.front());
  for (const auto& form : FORMS) {
    if ((first & form.mask) != form.lead) continue;
    if (text.size() < form.length) return 0;
    unsigned code = first & ~form.mask;
    for (const char c : text.substr(1, form.length - 1)) {
      const auto byte = static_cast<unsigned char>(c);
      if ((byte & CONTINUATION_MASK) != CONTINUATION) return 0;
      code = (code << PAYLOAD_BITS) | (byte & PAYLOAD);
    }
    const bool hidden = std::any_of(std::begin(HIDDEN), std::end(HIDDEN), [&](const auto& range) {
      return code >= range.first && code <= range.last;
    });
    return code < form.least || hidden ? 0 : form.length;
  }
  return 0;
}

}  // namespace

bool is_tunnel_section(std::string_view section) {
  return std::ranges::any_of(TUNNELS, [&](const TunnelFacts& facts) {
    if (section == facts.section) return true;
    const std::string_view client = facts.client_section;
    return section.starts_with(client) && is_slot(section.substr(client.size()));
  });
}

std::optional<NotedReason> read_reason(const std::string& section) {
  if (!is_tunnel_section(section)) return {};
  const fenro::Fd file{open((std::string(REASONS_FOLDER) + '/' + section).c_str(),
                            O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  char text[LONGEST_FILE];
  const ssize_t got = TEMP_FAILURE_RETRY(read(file.get(), text, sizeof text));
  if (got <= 0) return {};
  const fenro::Json root{json_loadb(text, static_cast<size_t>(got), 0, nullptr)};
  const char* code = nullptr;
  const char* detail = nullptr;
  json_int_t since = 0;
  json_int_t at = 0;
  json_int_t count = 0;
  if (json_unpack(root.get(), "{s:s, s:I, s:I, s:I, s:s}", "code", &code, "since", &since, "at",
                  &at, "count", &count, "detail", &detail) != 0) {
    return {};
  }
  const ReasonFacts* facts = find_reason(code);
  if (!facts && *code != '\0') return {};
  return NotedReason{facts, since, at, static_cast<long>(count), printable_detail(detail)};
}

void forget_reason(const std::string& section) {
  if (is_tunnel_section(section)) unlink((std::string(REASONS_FOLDER) + '/' + section).c_str());
}

std::string reason_text(const NotedReason& reason) {
  return reason.facts->own_words && !reason.detail.empty() ? reason.detail : reason.facts->text;
}

std::string reason_line(const NotedReason& reason) {
  const fenro::Json root{json_pack(
      "{s:s, s:I, s:I, s:I, s:s}", "code", reason.facts ? reason.facts->code : "", "since",
      static_cast<json_int_t>(reason.since), "at", static_cast<json_int_t>(reason.at), "count",
      static_cast<json_int_t>(reason.count), "detail", printable_detail(reason.detail).c_str())};
  const fenro::CString text{json_dumps(root.get(), JSON_COMPACT)};
  return text ? std::string(text.get()) + '\n' : std::string();
}

std::string printable_detail(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const size_t length = printable_length(text);
    if (out.size() + std::max<size_t>(length, 1) > LONGEST_DETAIL) break;
    if (length == 0) {
      out += '?';
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return out;
}

}  // namespace ormel
