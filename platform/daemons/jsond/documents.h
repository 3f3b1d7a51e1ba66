// JSON documents in the files of one folder and those below it. A document is read and replaced whole: whoever reads
// sees the old one or the new one.
#pragma once

#include <cstddef>
#include <string>

#include "common/json.h"

namespace fenro::jsond {

inline constexpr std::size_t DOCUMENT_MAX = std::size_t{1} << 20;

class Documents {
 public:
  explicit Documents(std::string folder) : folder_(std::move(folder)) {}

  // Each takes the full path of a file and returns an empty text, or why not. A path leads out of the folder neither by
  // its words nor by links. A document is an object or an array.
  [[nodiscard]] std::string read(const std::string& path, Json& out) const;
  [[nodiscard]] std::string write(const std::string& path, const json_t* document) const;

 private:
  // The file that a path means, with no links left in it; empty when it is not ours.
  [[nodiscard]] std::string resolve(const std::string& path) const;

  std::string folder_;
};

}  // namespace fenro::jsond
