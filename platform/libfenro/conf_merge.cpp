#include "libfenro/conf_merge.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace fenro {
namespace {

// An object of our own with an index.
class Parsed {
 public:
  explicit Parsed(std::string_view content = {}) {
    index().parse(content);
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
  }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;
  ~Parsed() { ConfIndex::destroy(conf_); }
  [[nodiscard]] ConfIndex& index() { return ConfIndex::make(conf_); }
  [[nodiscard]] const Conf_dir& conf() const { return conf_; }

 private:
  Conf_dir conf_{};
};

bool same(const char* a, const char* b) {
  return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

struct Entry {
  const char *section, *key, *value;
};

template <typename Each>
void for_each_entry(const Conf_dir& conf, Each each) {
  for (int i = 0; i < conf.n; ++i) each(Entry{conf.section[i], conf.key[i], conf.val[i]});
}

}  // namespace

std::string merged_text(const std::string& base, std::string_view file, const Conf_dir& mine) {
  Parsed old{base};
  Parsed now{file};
  Parsed result;
  ConfIndex* const own = ConfIndex::of(mine);
  const auto removed_by_others = [&](const char* section) {
    return old.index().has_section(section) && !now.index().has_section(section);
  };
  const auto unchanged = [&](const Entry& entry) {
    return same(old.index().get(entry.section, entry.key), entry.value);
  };

  std::set<std::string_view> changed;
  for_each_entry(mine, [&](const Entry& entry) {
    if (!unchanged(entry)) changed.emplace(entry.section);
  });
  for_each_entry(mine, [&](const Entry& entry) {
    if (removed_by_others(entry.section) && !changed.contains(entry.section)) return;
    const char* const present = now.index().get(entry.section, entry.key);
    // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker)
    result.index().set(entry.section, entry.key,
                       present && unchanged(entry) ? present : entry.value);
  });
  for_each_entry(now.conf(), [&](const Entry& entry) {
    const bool left_out =
        old.index().get(entry.section, entry.key) ||
        (old.index().has_section(entry.section) && !(own && own->has_section(entry.section)));
    if (!left_out && !(own && own->get(entry.section, entry.key)))
      result.index().set(entry.section, entry.key, entry.value);
  });
  return result.index().text();
}

}  // namespace fenro
