#include "libfenro/conf_index.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "base/lines.h"
#include "libfenro/ini.h"

namespace fenro {
namespace {

constexpr std::size_t BLOCK = std::size_t{16} << 10;
constexpr std::size_t LARGE_TEXT = BLOCK / 4;  // gets its own block
constexpr std::size_t FIRST_SLOTS = 64;
constexpr std::size_t USUAL_LINE = 20;  // bytes of a line, to guess the entries of a file
constexpr std::uint32_t FNV_START = 2166136261U;
constexpr std::uint32_t FNV_PRIME = 16777619U;

std::uint32_t hash_of(const char* text, std::uint32_t seed) {
  for (; *text; ++text) seed = (seed ^ static_cast<unsigned char>(*text)) * FNV_PRIME;
  return seed ^ seed >> 15;  // the low bits choose the slot
}

}  // namespace

char* Arena::reserve(std::size_t size) {
  if (size > LARGE_TEXT) {
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(size));
    return blocks_.back().get();
  }
  if (size > left_) {
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(BLOCK));
    next_ = blocks_.back().get();
    left_ = BLOCK;
  }
  char* const place = next_;
  next_ += size;
  left_ -= size;
  return place;
}

char* Arena::copy(std::string_view text) {
  char* const place = reserve(text.size() + 1);
  std::copy(text.begin(), text.end(), place);
  place[text.size()] = '\0';
  return place;
}

void HashTable::place(Slot slot) {
  const std::size_t mask = slots_.size() - 1;
  std::size_t i = slot.hash & mask;
  while (slots_[i].number != NONE) i = (i + 1) & mask;
  slots_[i] = slot;
}

void HashTable::grow(std::size_t numbers) {
  const std::size_t size = std::bit_ceil(std::max(numbers * 2, FIRST_SLOTS));
  if (size <= slots_.size()) return;
  std::vector<Slot> old(size, Slot{0, NONE});
  old.swap(slots_);
  for (const Slot& slot : old)
    if (slot.number != NONE) place(slot);
}

void HashTable::add(std::uint32_t hash, int number) {
  if (++used_ * 2 > slots_.size()) grow(used_ * 2);
  place({hash, number});
}

ConfIndex::ConfIndex(Conf_dir& conf) : conf_(conf), names_{reinterpret_cast<char*>(this)} {
  publish();
}

ConfIndex* ConfIndex::of(const Conf_dir& conf) {
  return conf.sec ? reinterpret_cast<ConfIndex*>(*(conf.sec - 1)) : nullptr;
}

ConfIndex& ConfIndex::make(Conf_dir& conf) {
  if (ConfIndex* const index = of(conf)) return *index;
  return *std::make_unique<ConfIndex>(conf).release();  // destroy() takes it back
}

void ConfIndex::destroy(Conf_dir& conf) {
  std::unique_ptr<ConfIndex>{of(conf)}.reset();
  conf.sec = nullptr;
}

// Shows the vectors as the arrays that callers may walk.
void ConfIndex::publish() {
  conf_.sec = names_.data() + 1;
  conf_.sec_num = static_cast<int>(names_.size() - 1);
  conf_.sec_size = static_cast<int>(names_.capacity() - 1);
  conf_.section = sections_.data();
  conf_.key = keys_.data();
  conf_.val = values_.data();
  conf_.n = static_cast<int>(keys_.size());
  conf_.size = static_cast<int>(keys_.capacity());
}

// Names and values stay where they were read; each is closed by a NUL in the byte after it,
// which belonged to the line's own marks.
void ConfIndex::parse(std::string_view text) {
  char* const start = arena_.copy(text);
  const auto close = [start, base = text.data()](std::string_view part) {
    char* const place = start + (part.data() - base);
    place[part.size()] = '\0';
    return place;
  };
  int section = HashTable::NONE;
  bool lost = false;
  std::string_view rest = ini::without_mark(text);
  reserve(rest.size() / USUAL_LINE);
  while (!rest.empty()) {
    const ini::Line line = ini::parse_line(take_whole_line(rest));
    if (line.kind == ini::Kind::DamagedSection) lost = true;
    if (line.kind == ini::Kind::Section) {
      char* const name = close(line.name);
      section = find_section(name);
      if (section == HashTable::NONE) section = add_section(name);
      lost = false;
    }
    if (line.kind != ini::Kind::Entry || lost) continue;
    if (section == HashTable::NONE) section = add_section(arena_.copy({}));
    put(section, close(line.name), close(line.value));
  }
  publish();
}

void ConfIndex::reserve(std::size_t entries) {
  for (auto* const texts : {&sections_, &keys_, &values_}) texts->reserve(entries);
  next_.reserve(entries);
  entry_table_.grow(entries);
}

void ConfIndex::put(int section, char* key, char* value) {
  const std::uint32_t hash = hash_of(key, chains_[static_cast<std::size_t>(section)].hash);
  const int entry = find_entry(section, key, hash);
  if (entry != HashTable::NONE)
    values_[static_cast<std::size_t>(entry)] = value;
  else
    add_entry(section, key, value, hash);
}

int ConfIndex::find_section(const char* name) {
  if (last_found_ != HashTable::NONE && std::strcmp(name_of(last_found_), name) == 0)
    return last_found_;
  const int found = section_table_.find(hash_of(name, FNV_START),
                                        [&](int i) { return std::strcmp(name_of(i), name) == 0; });
  if (found != HashTable::NONE) last_found_ = found;
  return found;
}

int ConfIndex::find_entry(int section, const char* key, std::uint32_t hash) const {
  return entry_table_.find(hash, [&](int i) {
    const auto entry = static_cast<std::size_t>(i);
    return sections_[entry] == name_of(section) && std::strcmp(keys_[entry], key) == 0;
  });
}

int ConfIndex::add_section(char* name) {
  const int number = static_cast<int>(chains_.size());
  const std::uint32_t hash = hash_of(name, FNV_START);
  names_.push_back(name);
  chains_.push_back({hash, HashTable::NONE, HashTable::NONE});
  section_table_.add(hash, number);
  return last_found_ = number;
}

void ConfIndex::add_entry(int section, char* key, char* value, std::uint32_t hash) {
  const int number = static_cast<int>(keys_.size());
  sections_.push_back(name_of(section));
  keys_.push_back(key);
  values_.push_back(value);
  next_.push_back(HashTable::NONE);

  Chain& chain = chains_[static_cast<std::size_t>(section)];
  (chain.last == HashTable::NONE ? chain.first : next_[static_cast<std::size_t>(chain.last)]) =
      number;
  chain.last = number;
  entry_table_.add(hash, number);
}

const char* ConfIndex::get(const char* section, const char* key) {
  const int in = find_section(section);
  if (in == HashTable::NONE) return nullptr;
  const int entry = find_entry(in, key, hash_of(key, chains_[static_cast<std::size_t>(in)].hash));
  return entry == HashTable::NONE ? nullptr : values_[static_cast<std::size_t>(entry)];
}

void ConfIndex::set(const char* section, const char* key, std::string_view value) {
  int in = find_section(section);
  std::uint32_t hash = 0;
  if (in != HashTable::NONE) {
    hash = hash_of(key, chains_[static_cast<std::size_t>(in)].hash);
    const int entry = find_entry(in, key, hash);
    if (entry != HashTable::NONE) return replace(entry, value);
  }
  if (!ini::key_is_writable(key) || (in == HashTable::NONE && !ini::section_is_writable(section)))
    return;
  if (in == HashTable::NONE) {
    in = add_section(arena_.copy(section));
    hash = hash_of(key, chains_[static_cast<std::size_t>(in)].hash);
  }
  add_entry(in, arena_.copy(key), arena_.copy(value), hash);
  publish();
}

void ConfIndex::replace(int entry, std::string_view value) {
  char*& old = values_[static_cast<std::size_t>(entry)];
  if (value.size() > std::strlen(old)) {
    old = arena_.copy(value);
  } else {
    std::memmove(old, value.data(), value.size());  // the new value may be a part of the old one
    old[value.size()] = '\0';
  }
}

void ConfIndex::append_entries(std::string& out, int section) const {
  for (int i = chains_[static_cast<std::size_t>(section)].first; i != HashTable::NONE;) {
    const auto entry = static_cast<std::size_t>(i);
    out.append(keys_[entry]).append(" = ").append(values_[entry]).append("\n");
    i = next_[entry];
  }
}

std::string ConfIndex::text() const {
  std::string out;
  const int count = static_cast<int>(chains_.size());
  // Entries without a section can only stand ahead of the first one.
  for (int i = 0; i < count; ++i)
    if (!*name_of(i)) append_entries(out, i);
  for (int i = 0; i < count; ++i) {
    if (!*name_of(i)) continue;
    if (!out.empty()) out += '\n';
    out.append("[").append(name_of(i)).append("]\n");
    append_entries(out, i);
  }
  return out;
}

}  // namespace fenro
