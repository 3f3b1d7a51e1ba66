// What a Conf_dir owns: the storage of its arrays and an index that finds an entry without a
// walk. The program makes some thousand look-ups in a run of a few milliseconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <fenro/conf.h>

namespace fenro {

// Texts that live as long as the object, cut from few large blocks.
class Arena {
 public:
  // A copy of the text, closed by a NUL.
  char* copy(std::string_view text);

 private:
  char* reserve(std::size_t size);
  std::vector<std::unique_ptr<char[]>> blocks_;
  char* next_ = nullptr;
  std::size_t left_ = 0;
};

// Open addressing over numbers counted from 0; the caller keeps what they stand for.
class HashTable {
 public:
  static constexpr int NONE = -1;
  template <typename Equal>
  [[nodiscard]] int find(std::uint32_t hash, Equal equal) const {
    if (slots_.empty()) return NONE;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = hash & mask; slots_[i].number != NONE; i = (i + 1) & mask)
      if (slots_[i].hash == hash && equal(slots_[i].number)) return slots_[i].number;
    return NONE;
  }
  void add(std::uint32_t hash, int number);
  // Makes room for that many numbers.
  void grow(std::size_t numbers);

 private:
  struct Slot {
    std::uint32_t hash;
    int number;
  };
  void place(Slot slot);
  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

// The object's index. It is found from the object alone, through the place in front of
// Conf_dir::sec, so an object that came from calloc needs no registration and one that was never
// set has none.
class ConfIndex {
 public:
  // The index of the object, or null while it holds nothing.
  [[nodiscard]] static ConfIndex* of(const Conf_dir& conf);
  // The same, made when missing.
  [[nodiscard]] static ConfIndex& make(Conf_dir& conf);
  static void destroy(Conf_dir& conf);

  // Reads the text form; a repeated section or key keeps its first place, the last value of a key
  // counts.
  void parse(std::string_view text);

  // The value or null.
  [[nodiscard]] const char* get(const char* section, const char* key);
  void set(const char* section, const char* key, std::string_view value);

  [[nodiscard]] bool has_section(const char* section) {
    return find_section(section) != HashTable::NONE;
  }

  // The whole object in its text form.
  [[nodiscard]] std::string text() const;

  // The file's text that later changes are compared with; null for an object that was not loaded.
  std::shared_ptr<const std::string> base{};

  explicit ConfIndex(Conf_dir& conf);  // for make() alone

 private:
  struct Chain {
    std::uint32_t hash;  // of the section's name; seed for its keys
    int first, last;     // its entries in the order first set
  };

  [[nodiscard]] int find_section(const char* name);
  [[nodiscard]] int find_entry(int section, const char* key, std::uint32_t hash) const;
  int add_section(char* name);
  void add_entry(int section, char* key, char* value, std::uint32_t hash);
  void put(int section, char* key, char* value);
  void replace(int entry, std::string_view value);
  void reserve(std::size_t entries);
  void publish();
  [[nodiscard]] char* name_of(int section) const {
    return names_[static_cast<std::size_t>(section) + 1];
  }
  void append_entries(std::string& out, int section) const;

  Conf_dir& conf_;
  Arena arena_;
  std::vector<char*> names_;  // in front, disguised as a name, the address of this index
  std::vector<Chain> chains_;
  std::vector<char*> sections_, keys_, values_;
  std::vector<int> next_;  // next entry of the section
  HashTable section_table_, entry_table_;
  int last_found_ = HashTable::NONE;  // a section's keys are mostly read in a row
};

}  // namespace fenro
