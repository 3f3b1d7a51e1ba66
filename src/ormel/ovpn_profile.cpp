#include "ormel/ovpn_profile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ormel/error.h"
#include "ormel/handle.h"
#include "ormel/ovpn_parse.h"
#include "ormel/system_process.h"

namespace ormel::option {

namespace {

constexpr unsigned int PRIVATE = 0600;
constexpr size_t READ_CHUNK = 65536;

std::string connection_text(const OpenvpnRemotes& remote) {
  std::string out = "\n<connection>\n";
  out += "remote " + remote.remote_ip + " " + remote.remote_port + " " + remote.remote_proto + "\n";
  for (const auto& [key, value] : remote.others) out.append(key).append(" ").append(value).append("\n");
  return out + "</connection>\n";
}

std::string line_text(const FileOption& option) {
  return option.value.empty() ? option.name : option.name + " " + option.value;
}

std::string block_text(const FileOption& option, const OpenvpnRemotesOption& remotes) {
  std::string out;
  if (option.name == "ca" && !remotes.empty()) {
    for (const OpenvpnRemotes& remote : remotes) out += connection_text(remote);
    out += "\n";
  }
  return out + "<" + option.name + ">\n" + option.value + "\n</" + option.name + ">\n";
}

}  // namespace

bool sort_file_option(const FileOption& a, const FileOption& b) {
  return a.type != b.type ? a.type < b.type : a.name < b.name;
}

bool read_file(const char* path, std::string& out, size_t limit) {
  out.clear();
  const Fd fd{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  struct stat status {};
  if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  for (size_t length = 0;;) {
    out.resize(length + READ_CHUNK);
    const ssize_t got = TEMP_FAILURE_RETRY(read(fd.get(), out.data() + length, READ_CHUNK));
    length += static_cast<size_t>(std::max<ssize_t>(got, 0));
    out.resize(length);
    if (length > limit) return false;
    if (got <= 0) return got == 0;
  }
}

int ConfigFile::load(const char* path) {
  std::string content;
  if (!system::regular_file(path) || !read_file(path, content)) return ERR_REGULAR_FILE;
  return parse_content(content.c_str());
}

int ConfigFile::parse_content(const char* text) {
  ProfileParser parser(text, openvpn_remote_options);
  options = parser.parse() ? parser.take_options() : ConfigFileOption{};
  return NO_ERROR;
}

int ConfigFile::save(const char* path, bool sort, const OpenvpnRemotesOption& remotes) {
  if (sort) std::stable_sort(options.begin(), options.end(), sort_file_option);  // "route" lines keep their order
  struct stat status {};
  const bool foreign = lstat(path, &status) == 0 && !S_ISREG(status.st_mode);  // a link or a device is not replaced
  const bool saved = !foreign && system::replace_file(path, render(remotes), PRIVATE);
  return saved ? NO_ERROR : error_message(ERR_SAVE_FILE, path);
}

std::string ConfigFile::render(const OpenvpnRemotesOption& remotes) const {
  std::string out;
  for (const FileOption& option : options) {
    if (&option != options.data()) out += "\n";
    out += option.type == INLINE_OPTION_TYPE ? block_text(option, remotes) : line_text(option);
  }
  return out + "\n";
}

void ConfigFile::add_option(std::string name, const std::string& value, OPTION_TYPE type, bool repeatable) {
  if (!repeatable) del_option(name, "");
  lstrip(name, '-');
  options.push_back({type, std::move(name), value});
}

void ConfigFile::del_option(const std::string& name, const std::string& value) {
  std::erase_if(options,
                [&](const FileOption& option) { return option.name == name && option.value.starts_with(value); });
}

const FileOption* ConfigFile::get_option(const std::string& name) const {
  const auto found =
      std::find_if(options.begin(), options.end(), [&](const FileOption& option) { return option.name == name; });
  return found == options.end() ? nullptr : &*found;
}

}  // namespace ormel::option
