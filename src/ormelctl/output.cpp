#include "ormelctl/output.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <string_view>

namespace ormelctl {
namespace {

constexpr size_t GAP = 2;  // blanks between columns

constexpr const char* GREEN = "\x1b[32m";
constexpr const char* YELLOW = "\x1b[33m";
constexpr const char* RED = "\x1b[31m";
constexpr const char* PLAIN = "\x1b[0m";
constexpr std::string_view STATE = "state";  // the member of rows whose words have colors

struct Paint {
  std::string_view word;
  const char* color;
};
constexpr Paint PAINTS[] = {
    {"up", GREEN},        {"running", GREEN},  {"ok", GREEN},           {"starting", YELLOW},
    {"retrying", YELLOW}, {"no-peer", YELLOW}, {"unreachable", YELLOW}, {"waiting", YELLOW},
    {"warn", YELLOW},     {"failed", RED},     {"given-up", RED},       {"fail", RED},
};

bool colors = false;

// Length of the well-formed UTF-8 sequence at `at`, 0 for a malformed one; its code point in
// `point`.
size_t sequence(std::string_view text, size_t at, uint32_t& point) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(at);
  if (first < 0x80) {
    point = first;
    return 1;
  }
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
  if (length == 0 || first > 0xF4 || at + length > text.size()) return 0;
  point = first & (0xFFU >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0U) != 0x80) return 0;
    point = point << 6U | (byte(at + i) & 0x3FU);
  }
  constexpr uint32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
  return point < LEAST[length] || point > 0x10FFFF || surrogate ? 0 : length;
}

// Control characters, and those that change the direction of the text around them or hide in it.
bool is_hidden(uint32_t point) {
  return point < 0x20 || (point >= 0x7F && point < 0xA0) || (point >= 0x200B && point <= 0x200F) ||
         (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069) ||
         point == 0xFEFF;
}

// Number of characters, as an approximation of the width.
size_t width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80;
  }));
}

std::string padded(const std::string& text, size_t to) {
  const size_t wide = width(text);
  return text + std::string(wide < to ? to - wide : 0, ' ');
}

std::string lines_of(const json_t* object) {
  size_t widest = 0;
  const char* key = nullptr;
  json_t* value = nullptr;
  auto* members = const_cast<json_t*>(object);  // the macro only reads
  json_object_foreach(members, key, value) widest = std::max(widest, width(key));
  std::string out;
  json_object_foreach(members, key, value) {
    const std::string text = cell(value);
    out += padded(key, widest + GAP) + (key == STATE ? painted(text, text) : text) + '\n';
  }
  return out;
}

void trim_end(std::string& line) {
  line.erase(line.find_last_not_of(' ') + 1);
}

std::vector<std::vector<std::string>> cells(const json_t* rows, const Columns& columns) {
  std::vector<std::vector<std::string>> out;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows, at, row) {
    std::vector<std::string>& line = out.emplace_back();
    for (const Column& column : columns) line.push_back(cell(json_object_get(row, column.key)));
  }
  return out;
}

}  // namespace

std::string printable(const std::string& text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    uint32_t point = 0;
    const size_t length = sequence(text, at, point);
    if (length != 0 && !is_hidden(point)) {
      out.append(text, at, length);
      at += length;
      continue;
    }
    char escaped[8];
    const size_t bytes = std::max<size_t>(length, 1);
    for (size_t i = 0; i < bytes; ++i) {
      std::snprintf(escaped, sizeof escaped, "\\x%02x",
                    static_cast<unsigned>(static_cast<unsigned char>(text[at + i])));
      out += escaped;
    }
    at += bytes;
  }
  return out;
}

void set_colors(bool on) {
  colors = on;
}

std::string painted(std::string_view word, const std::string& shown) {
  const auto* const paint = std::find_if(std::begin(PAINTS), std::end(PAINTS),
                                         [&](const Paint& known) { return known.word == word; });
  return !colors || paint == std::end(PAINTS) ? shown : paint->color + shown + PLAIN;
}

std::string cell(const json_t* value) {
  switch (value ? json_typeof(value) : JSON_NULL) {
    case JSON_STRING: {
      const std::string text = printable({json_string_value(value), json_string_length(value)});
      return text.empty() ? "-" : text;
    }
    case JSON_INTEGER: return std::to_string(json_integer_value(value));
    case JSON_TRUE: return "yes";
    case JSON_FALSE: return "no";
    case JSON_NULL: return "-";
    default: {
      const ormel::CString text{json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY)};
      return text ? printable(text.get()) : "-";
    }
  }
}

std::string table(const json_t* data, const Columns& columns) {
  if (json_is_object(data)) return lines_of(data);
  if (!json_is_array(data)) return {};
  const auto rows = cells(data, columns);
  std::vector<size_t> widths;
  for (size_t i = 0; i < columns.size(); ++i) {
    size_t widest = width(columns[i].title);
    for (const auto& row : rows) widest = std::max(widest, width(row[i]));
    widths.push_back(widest + GAP);
  }
  std::string out;
  const auto add_line = [&](const auto& text_of) {
    std::string line;
    for (size_t i = 0; i < columns.size(); ++i) {
      const std::string text = text_of(i);
      const std::string shown = padded(text, widths[i]);
      line += columns[i].key == STATE ? painted(text, shown) : shown;
    }
    trim_end(line);
    out += line + '\n';
  };
  add_line([&](size_t i) { return std::string(columns[i].title); });
  for (const auto& row : rows) add_line([&](size_t i) { return row[i]; });
  return out;
}

std::string tsv(const json_t* data, const Columns& columns) {
  std::string out;
  if (json_is_object(data)) {
    const char* key = nullptr;
    json_t* value = nullptr;
    json_object_foreach(const_cast<json_t*>(data), key, value) out +=
        std::string(key) + '\t' + cell(value) + '\n';
    return out;
  }
  for (size_t i = 0; i < columns.size(); ++i)
    out += (i == 0 ? "" : "\t") + std::string(columns[i].key);
  if (!columns.empty()) out += '\n';
  for (const auto& row : cells(data, columns)) {
    for (size_t i = 0; i < row.size(); ++i) out += (i == 0 ? "" : "\t") + row[i];
    out += '\n';
  }
  return out;
}

std::string size_text(double bytes) {
  constexpr const char* UNITS[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  constexpr double STEP = 1024;
  size_t unit = 0;
  for (; bytes >= STEP && unit + 1 < std::size(UNITS); ++unit) bytes /= STEP;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, UNITS[unit]);
  return text;
}

std::string duration_text(long seconds) {
  struct Unit {
    long length;
    const char* name;
  };
  for (const Unit unit : {Unit{86400, "d"}, Unit{3600, "h"}, Unit{60, "min"}}) {
    if (seconds >= unit.length) return std::to_string(seconds / unit.length) + ' ' + unit.name;
  }
  return std::to_string(seconds) + " s";
}

std::string moment_text(long seconds) {
  const std::time_t now = std::time(nullptr);
  const std::time_t moment = seconds;
  std::tm today{}, then{};
  if (!localtime_r(&now, &today) || !localtime_r(&moment, &then)) return std::to_string(seconds);
  const bool same_day = today.tm_year == then.tm_year && today.tm_yday == then.tm_yday;
  char text[64] = "";
  std::strftime(text, sizeof text, same_day ? "%H:%M" : "%Y-%m-%d %H:%M", &then);
  return text;
}

long moment_of(const std::string& text) {
  for (const char* format : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M"}) {
    std::tm given{};
    const char* const end = strptime(text.c_str(), format, &given);
    if (!end || *end != '\0') continue;
    std::tm real = given;
    real.tm_isdst = -1;
    const std::time_t moment = std::mktime(&real);
    // A day that the month does not have would have become one of the next.
    return real.tm_mday == given.tm_mday ? moment : -1;
  }
  return -1;
}

}  // namespace ormelctl
