#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string>
#include <sys/stat.h>

#include <fenro/datetime.h>

#include "libfenro/ini_file.h"
#include "libfenro/paths.h"

namespace fenro {
namespace {

constexpr std::size_t BUFFER = 64;  // what every caller has
constexpr const char* SECTION = "System";
constexpr const char* DATE_KEY = "Date Format";
constexpr const char* TIME_KEY = "Time Format";

// By the index that the administrator chose; <fenro/datetime.h> lists them too.
constexpr std::array<const char*, 6> DATE_FORMATS{"%Y/%m/%d", "%Y-%m-%d", "%m/%d/%Y",
                                                  "%m-%d-%Y", "%d/%m/%Y", "%d-%m-%Y"};

struct TimeFormat {
  const char *minutes, *seconds;
};
constexpr std::array<TimeFormat, 2> TIME_FORMATS{
    {{"%H:%M", "%H:%M:%S"}, {"%I:%M %p", "%I:%M:%S %p"}}};

int print(time_t seconds, char* buffer, const char* format) {
  tm parts{};
  if (!buffer) return -1;
  buffer[0] = '\0';
  return localtime_r(&seconds, &parts) && std::strftime(buffer, BUFFER, format, &parts) > 0 ? 0
                                                                                            : -1;
}

bool is_index(int number, std::size_t count) {
  return number >= 0 && static_cast<std::size_t>(number) < count;
}

// A setting, or the first format when it is missing or makes no sense.
int setting(const char* key, std::size_t count) {
  const std::string text = ini::read_value(paths::SYSTEM_CONF, SECTION, key).value_or("");
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return is_index(number, count) ? number : 0;
}

struct Formats {
  int date = 0;
  int time = 0;
};

// What is set now. The file is read again only when it has changed, for a list asks with each of
// its lines.
const Formats& formats() {
  thread_local struct stat seen {};
  thread_local Formats kept;
  struct stat now {};
  if (stat(paths::SYSTEM_CONF, &now) != 0) now = {};
  const bool same = now.st_ino == seen.st_ino && now.st_dev == seen.st_dev &&
                    now.st_size == seen.st_size && now.st_mtim.tv_sec == seen.st_mtim.tv_sec &&
                    now.st_mtim.tv_nsec == seen.st_mtim.tv_nsec;
  if (!same) {
    kept = now.st_ino == 0 ? Formats{}
                           : Formats{setting(DATE_KEY, DATE_FORMATS.size()),
                                     setting(TIME_KEY, TIME_FORMATS.size())};
    seen = now;
  }
  return kept;
}

}  // namespace
}  // namespace fenro

int Get_Date_Format_Index(void) {
  return fenro::formats().date;
}

int Get_Time_Format(void) {
  return fenro::formats().time;
}

int Change_Date_To_String_By_Format(time_t seconds, char* buffer, int format) {
  if (buffer) buffer[0] = '\0';
  if (!fenro::is_index(format, fenro::DATE_FORMATS.size())) return -1;
  return fenro::print(seconds, buffer, fenro::DATE_FORMATS[static_cast<std::size_t>(format)]);
}

int Change_Time_To_String_By_Format(time_t seconds, char* buffer, int seconds_too, int format) {
  if (buffer) buffer[0] = '\0';
  if (!fenro::is_index(format, fenro::TIME_FORMATS.size())) return -1;
  const fenro::TimeFormat& row = fenro::TIME_FORMATS[static_cast<std::size_t>(format)];
  return fenro::print(seconds, buffer, seconds_too ? row.seconds : row.minutes);
}

int Change_Date_Time_To_String(time_t seconds, char* buffer) {
  std::array<char, fenro::BUFFER> date{};
  std::array<char, fenro::BUFFER> time{};
  if (buffer) buffer[0] = '\0';
  if (!buffer ||
      Change_Date_To_String_By_Format(seconds, date.data(), Get_Date_Format_Index()) != 0)
    return -1;
  if (Change_Time_To_String_By_Format(seconds, time.data(), 1, Get_Time_Format()) != 0) return -1;
  return std::snprintf(buffer, fenro::BUFFER, "%s %s", date.data(), time.data()) > 0 ? 0 : -1;
}
