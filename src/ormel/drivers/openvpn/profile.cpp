#include "ormel/drivers/openvpn/profile.h"

#include <algorithm>
#include <sys/stat.h>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/parse.h"

namespace ormel::option {

namespace {

std::string connection_text(const OpenvpnRemotes& remote) {
  std::string out = "\n<connection>\n";
  out += "remote " + remote.remote_ip + " " + remote.remote_port + " " + remote.remote_proto + "\n";
  for (const auto& [key, value] : remote.others)
    out.append(key).append(" ").append(value).append("\n");
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

int ConfigFile::load(const char* path) {
  std::string content;
  if (!system::regular_file(path) || !system::read_file(path, content)) return ERR_REGULAR_FILE;
  return parse_content(content.c_str());
}

int ConfigFile::parse_content(const char* text) {
  ProfileParser parser(text, openvpn_remote_options);
  options = parser.parse() ? parser.take_options() : ConfigFileOption{};
  return NO_ERROR;
}

std::string ConfigFile::text(bool sort, const OpenvpnRemotesOption& remotes) {
  if (sort)
    std::stable_sort(options.begin(), options.end(),
                     sort_file_option);  // "route" lines keep their order
  return render(remotes);
}

int ConfigFile::save(const char* path, bool sort, const OpenvpnRemotesOption& remotes) {
  const std::string content = text(sort, remotes);
  struct stat status {};
  const bool foreign =
      lstat(path, &status) == 0 && !S_ISREG(status.st_mode);  // a link or a device is not replaced
  const bool saved = !foreign && system::replace_file(path, content, fenro::PRIVATE_FILE);
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

void ConfigFile::add_option(std::string name, const std::string& value, OPTION_TYPE type,
                            bool repeatable) {
  if (!repeatable) del_option(name, "");
  lstrip(name, '-');
  options.push_back({type, std::move(name), value});
}

void ConfigFile::del_option(const std::string& name, const std::string& value) {
  std::erase_if(options, [&](const FileOption& option) {
    return option.name == name && option.value.starts_with(value);
  });
}

const FileOption* ConfigFile::get_option(const std::string& name) const {
  const auto found = std::find_if(options.begin(), options.end(),
                                  [&](const FileOption& option) { return option.name == name; });
  return found == options.end() ? nullptr : &*found;
}

}  // namespace ormel::option
