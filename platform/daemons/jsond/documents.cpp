#include "daemons/jsond/documents.h"

#include <cstring>
#include <filesystem>

#include "base/file.h"

namespace fenro::jsond {
namespace {

namespace fs = std::filesystem;

constexpr const char* NOT_OURS = "the path is not one of a document";

std::string reason(int error) {
  return std::strerror(error);
}

}  // namespace

std::string Documents::resolve(const std::string& path) const {
  if (!path.starts_with(folder_ + '/') || path.find('\0') != std::string::npos) return {};
  const fs::path asked{path};
  const fs::path name = asked.filename();
  if (name.empty() || name == "." || name == "..") return {};

  std::error_code failure;
  const std::string root = fs::canonical(folder_, failure).string();
  if (failure) return {};
  const std::string parent = fs::canonical(asked.parent_path(), failure).string();
  if (failure || !(parent + '/').starts_with(root + '/')) return {};
  const fs::path file = parent / name;
  return fs::is_symlink(fs::symlink_status(file, failure)) ? std::string{} : file.string();
}

std::string Documents::read(const std::string& path, Json& out) const {
  const std::string file = resolve(path);
  if (file.empty()) return NOT_OURS;
  std::string text;
  if (const int error = read_file(file.c_str(), text); error != 0) return reason(error);
  if (text.size() > DOCUMENT_MAX) return "the document is too long";
  json_error_t error{};
  out = Json{json_loadb(text.data(), text.size(), 0, &error)};
  return out ? std::string{} : std::string{"the file holds no document: "} + error.text;
}

std::string Documents::write(const std::string& path, const json_t* document) const {
  const std::string file = resolve(path);
  if (file.empty()) return NOT_OURS;
  if (!json_is_object(document) && !json_is_array(document))
    return "the document is neither an object nor an array";
  const std::string text = compact(document) + '\n';
  if (text.size() > DOCUMENT_MAX) return "the document is too long";
  return replace_file(file, text) ? std::string{}
                                  : "the file could not be replaced: " + reason(errno);
}

}  // namespace fenro::jsond
