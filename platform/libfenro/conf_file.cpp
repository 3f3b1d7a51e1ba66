// The C face of single reads and edits on disk, and of the locks.
#include <algorithm>
#include <cstring>

#include <fenro/conf.h>

#include "libfenro/ini_file.h"
#include "libfenro/paths.h"

using fenro::ini::Lock;

int Conf_Remove_Section(const char* path, const char* section) {
  return path && section && fenro::ini::remove_section(path, section) ? 0 : -1;
}

int Get_Private_Profile_String(const char* section, const char* key, const char* fallback,
                               char* buffer, int size, const char* path) {
  if (!buffer || size <= 0) return 0;
  const auto found =
      section && key && path ? fenro::ini::read_value(path, section, key) : std::nullopt;
  const std::string_view value =
      found ? std::string_view{*found} : std::string_view{fallback ? fallback : ""};
  const std::size_t length = std::min(value.size(), static_cast<std::size_t>(size) - 1);
  // The fallback may lie in the buffer itself.
  std::memmove(buffer, value.data(), length);
  buffer[length] = '\0';
  return static_cast<int>(length);
}

int Ini_Conf_Read_Lock_File(const char* path) {
  return path ? fenro::ini::lock_file(fenro::paths::LOCKS, path, Lock::Read) : -1;
}

int Ini_Conf_Write_Lock_File(const char* path) {
  return path ? fenro::ini::lock_file(fenro::paths::LOCKS, path, Lock::Write) : -1;
}

int Ini_Conf_Unlock_File(int descriptor) {
  return fenro::ini::unlock_file(descriptor) ? 0 : -1;
}
