// JSON documents in the files of one folder and its subfolders. A document is read and replaced
// whole: a reader sees either the old or the new one.
#pragma once

#include <cstddef>
#include <string>

#include "common/json.h"

namespace fenro::jsond {

inline constexpr std::size_t DOCUMENT_MAX = std::size_t{1} << 20;

class Documents {
 public:
  explicit Documents(std::string folder) : folder_(std::move(folder)) {}

  // Both take the full path of a file and return an empty text, or the reason for the failure. A
  // path cannot leave the folder, neither by ".." nor by links. A document is an object or an
  // array.
  [[nodiscard]] std::string read(const std::string& path, Json& out) const;
  [[nodiscard]] std::string write(const std::string& path, const json_t* document) const;

 private:
  // Resolves a path and its links to a file; empty when it is outside the folder.
  [[nodiscard]] std::string resolve(const std::string& path) const;

  std::string folder_;
};

}  // namespace fenro::jsond
