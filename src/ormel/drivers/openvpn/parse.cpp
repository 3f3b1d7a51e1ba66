#include "ormel/drivers/openvpn/parse.h"

#include <algorithm>
#include <set>
#include <utility>

#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/profile.h"

namespace ormel::option {

namespace {

constexpr std::string_view LINE_ENDS = "\r\n";
constexpr std::string_view BLANKS_AND_LINE_ENDS = "\t \r\n";
constexpr std::string_view NAME_BYTES =
    "-0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::string_view TAG_BYTES =
    "_-0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::string_view CONNECTION = "connection";
constexpr std::string_view REMOTE = "remote";

// A name that has one of these anywhere in it may stand more than once.
constexpr std::string_view REPEATABLE[] = {
    "route", "plugin", "remote", "asyncmap", "http-proxy-option", "ignore-unknown-option",
};

// The walk of a connection block may run on beyond it (see there). Together the walks go this many
// times over the text, so that a hostile profile of such blocks costs no more than a bounded share
// of its length.
constexpr size_t WALKS = 4;
constexpr size_t SMALL_TEXT = 4096;  // bytes; a smaller text is given as much as one of this size

bool repeatable(std::string_view name) {
  return std::any_of(std::begin(REPEATABLE), std::end(REPEATABLE), [&](std::string_view word) {
    return name.find(word) != std::string_view::npos;
  });
}

bool comment(std::string_view line) {
  return line[0] == ';' || line[0] == '#';
}

std::string trimmed(std::string_view text) {
  return ntrim(text.data(), static_cast<unsigned int>(text.size()));
}

// Takes the next line that is not blank, from its first byte that is no blank to its end.
bool take_line(std::string_view& rest, std::string_view& line) {
  rest.remove_prefix(std::min(rest.find_first_not_of(BLANKS_AND_LINE_ENDS), rest.size()));
  line = rest.substr(0, rest.find_first_of(LINE_ENDS));
  rest.remove_prefix(line.size());
  return !line.empty();
}

// A name of dashes alone is refused: without them nothing would be left of it, and its value would
// be written as a line of its own.
bool named(std::string_view name) {
  return name.find_first_not_of('-') != std::string_view::npos;
}

// Splits a line into the first name in it and what follows.
bool read_option(std::string_view line, std::string_view& name, std::string_view& value) {
  line.remove_prefix(std::min(line.find_first_of(NAME_BYTES), line.size()));
  name = line.substr(0, line.find_first_not_of(NAME_BYTES));
  value = line.substr(name.size());
  return named(name);
}

bool take_tag(std::string_view& rest, std::string_view opening, std::string_view& tag) {
  if (!rest.starts_with(opening)) return false;
  rest.remove_prefix(opening.size());
  tag = rest.substr(0, rest.find_first_not_of(TAG_BYTES));
  rest.remove_prefix(tag.size());
  if (!named(tag) || !rest.starts_with('>')) return false;
  rest.remove_prefix(1);
  return true;
}

struct Block {
  std::string_view tag;
  std::string_view body;
  std::string_view closing;
};

bool take_block(std::string_view& rest, Block& block) {
  if (!take_tag(rest, "<", block.tag)) return false;
  block.body = rest.substr(0, rest.find('<'));
  rest.remove_prefix(block.body.size());
  return take_tag(rest, "</", block.closing);
}

void set_remote(OpenvpnRemotes& remote, std::string_view value) {
  std::vector<std::string> words = split_words(trimmed(value));
  words.resize(3);  // a missing word is empty, more are ignored
  remote.remote_ip = std::move(words[0]);
  remote.remote_port = std::move(words[1]);
  remote.remote_proto = std::move(words[2]);
}

}  // namespace

ProfileParser::ProfileParser(std::string_view text, OpenvpnRemotesOption& remotes)
    : rest_(text), walk_budget_(WALKS * std::max(text.size(), SMALL_TEXT)), remotes_(remotes) {}

bool ProfileParser::parse() {
  for (std::string_view line; take_line(rest_, line);) {
    if (comment(line)) continue;
    if (line[0] == '<') {
      rest_ = text_from(line);
      if (!parse_block()) return false;
    } else if (!parse_line(line)) {
      return false;
    }
  }
  return true;
}

std::string_view ProfileParser::text_from(std::string_view piece) const {
  return {piece.data(), static_cast<size_t>(rest_.data() + rest_.size() - piece.data())};
}

bool ProfileParser::parse_line(std::string_view line) {
  std::string_view name;
  std::string_view value;
  if (!read_option(line, name, value)) return false;
  if (name == REMOTE) {
    set_remote(remotes_.emplace_back(), value);
  } else {
    add(name, value, NORMAL_OPTION_TYPE);
  }
  return true;
}

bool ProfileParser::parse_block() {
  Block block;
  if (!take_block(rest_, block)) return false;
  // As far as the opening tag goes: "<ca>" is closed by "</cax>" too.
  if (!block.closing.starts_with(block.tag)) return false;
  // Again as far as the tag goes: "<conn>" is a connection block too.
  if (!CONNECTION.starts_with(block.tag)) {
    add(block.tag, block.body, INLINE_OPTION_TYPE);
    return true;
  }
  OpenvpnRemotes remote;
  if (!read_connection(text_from(block.body), remote)) return false;
  remotes_.push_back(std::move(remote));
  return true;
}

// Reads lines up to one whose name is "connection": that is how the closing tag shows. A block that
// has none such, as
// "<conn>", or has it behind another word, runs on through the text behind it; what is read there
// counts for the block, and once more for itself.
bool ProfileParser::read_connection(std::string_view from, OpenvpnRemotes& remote) {
  bool has_remote = false;
  for (std::string_view line; take_line(from, line);) {
    if (line.size() >= walk_budget_) return false;
    walk_budget_ -= line.size() + 1;
    if (comment(line)) continue;
    std::string_view name;
    std::string_view value;
    if (!read_option(line, name, value)) return false;
    if (name == CONNECTION) return true;
    if (name != REMOTE) {
      remote.others[std::string(name)] = trimmed(value);
      continue;
    }
    if (std::exchange(has_remote, true)) return false;
    set_remote(remote, value);
  }
  return true;
}

void ProfileParser::add(std::string_view name, std::string_view value, OPTION_TYPE type) {
  std::string stripped(name);
  found_.push_back({{type, lstrip(stripped, '-'), trimmed(value)}, name, repeatable(name)});
}

// The result of one ConfigFile::add_option after the other, without its walk over the list for
// each: backwards, an option stays unless a later one that may stand once has its name.
ConfigFileOption ProfileParser::take_options() {
  std::set<std::string_view> replaced;
  ConfigFileOption options;
  for (auto found = found_.rbegin(); found != found_.rend(); ++found) {
    if (!replaced.contains(found->option.name)) options.push_back(std::move(found->option));
    if (!found->repeatable) replaced.insert(found->name);
  }
  std::reverse(options.begin(), options.end());
  return options;
}

}  // namespace ormel::option
