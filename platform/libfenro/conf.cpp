// The C face of the files in memory. Callers rely on an object and on what they set in it, so a
// shortage of memory is not made into a result here.
#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <strings.h>

#include <fenro/conf.h>

#include "base/c_memory.h"
#include "base/file.h"
#include "libfenro/conf_index.h"
#include "libfenro/conf_merge.h"
#include "libfenro/ini.h"
#include "libfenro/ini_file.h"

namespace fenro {
namespace {

constexpr const char* TRUE_TEXT = "TRUE";
constexpr const char* FALSE_TEXT = "FALSE";
constexpr std::array<const char*, 3> TRUE_WORDS{TRUE_TEXT, "1", "YES"};
constexpr int FAILED = -1;

const char* value_of(const Conf_dir* conf, const char* section, const char* key) {
  ConfIndex* const index = conf ? ConfIndex::of(*conf) : nullptr;
  return index && section && key ? index->get(section, key) : nullptr;
}

bool path_of(const Conf_dir& conf, std::string& path) {
  path.assign(conf.file, strnlen(conf.file, sizeof conf.file));
  return !path.empty() && path.size() < sizeof conf.file;
}

// For each path, the text that this process read first or wrote last: the base of the next change
// by a new object.
class Bases {
 public:
  using Text = std::shared_ptr<const std::string>;
  void read(const std::string& path, const Text& text) {
    const std::lock_guard lock{mutex_};
    texts_.try_emplace(path, text);
  }
  void written(const std::string& path, Text text) {
    const std::lock_guard lock{mutex_};
    texts_[path] = std::move(text);
  }
  Text of(const std::string& path) {
    const std::lock_guard lock{mutex_};
    const auto found = texts_.find(path);
    return found == texts_.end() ? nullptr : found->second;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, Text> texts_;
};

Bases& bases() {
  static Bases all;
  return all;
}

int save(Conf_dir& conf) {
  std::string path;
  if (!path_of(conf, path)) return FAILED;
  ConfIndex* const index = ConfIndex::of(conf);
  auto mine = std::make_shared<const std::string>(index ? index->text() : std::string{});
  const Bases::Text base = index && index->base ? index->base : bases().of(path);
  const bool saved = ini::replace_under_lock(path, [&](std::string_view now) {
    return !base || now.empty() || now == *base ? *mine : merged_text(*base, now, conf);
  });
  if (!saved) return FAILED;
  // The next save of this object compares with what this one held, not with what others have
  // added to it.
  if (index && index->base) index->base = mine;
  bases().written(path, std::move(mine));
  return 0;
}

}  // namespace
}  // namespace fenro

using fenro::ConfIndex;

Conf_dir* Conf_Dir_Load(const char* path) {
  auto conf = fenro::c_array<Conf_dir>(1);
  if (!conf) throw std::bad_alloc{};
  const std::size_t length = path ? std::strlen(path) : 0;
  if (length == 0 || length >= sizeof conf[0].file)
    return conf.release();  // a path that was cut would name another file
  std::copy_n(path, length, conf[0].file);
  std::string text;
  const bool found = fenro::read_file(path, text) == 0;
  const auto base = std::make_shared<const std::string>(std::move(text));
  if (found) {
    ConfIndex& index = ConfIndex::make(conf[0]);
    index.base = base;
    index.parse(*base);
  }
  fenro::bases().read(path, base);
  return conf.release();
}

void Conf_Dir_Free(Conf_dir* conf) {
  if (!conf) return;
  ConfIndex::destroy(*conf);
  fenro::CArray<Conf_dir>{conf}.reset();
}

const char* Conf_Dir_Get_Str(Conf_dir* conf, const char* section, const char* key,
                             const char* fallback) {
  const char* const value = fenro::value_of(conf, section, key);
  return value ? value : fallback;
}

int Conf_Dir_Get_Int(Conf_dir* conf, const char* section, const char* key, int fallback) {
  const char* const value = fenro::value_of(conf, section, key);
  return value
             ? static_cast<int>(std::clamp<long>(std::strtol(value, nullptr, 10), INT_MIN, INT_MAX))
             : fallback;
}

BOOL Conf_Dir_Get_Bool(Conf_dir* conf, const char* section, const char* key, BOOL fallback) {
  const char* const value = fenro::value_of(conf, section, key);
  if (!value) return fallback;
  return std::any_of(fenro::TRUE_WORDS.begin(), fenro::TRUE_WORDS.end(),
                     [value](const char* word) { return strcasecmp(value, word) == 0; });
}

void Conf_Dir_Set_Str(Conf_dir* conf, const char* section, const char* key, const char* value) {
  if (!conf || !section || !key) return;
  ConfIndex::make(*conf).set(section, key, fenro::ini::first_line(value ? value : ""));
}

void Conf_Dir_Set_Int(Conf_dir* conf, const char* section, const char* key, int value) {
  std::array<char, 16> text{};
  std::to_chars(text.data(), text.data() + text.size() - 1, value);
  Conf_Dir_Set_Str(conf, section, key, text.data());
}

void Conf_Dir_Set_Bool(Conf_dir* conf, const char* section, const char* key, BOOL value) {
  Conf_Dir_Set_Str(conf, section, key, value ? fenro::TRUE_TEXT : fenro::FALSE_TEXT);
}

int Conf_Dir_Wirte_File(Conf_dir* conf) {
  return conf ? fenro::save(*conf) : fenro::FAILED;
}
