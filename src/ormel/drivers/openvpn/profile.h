// The text of an OpenVPN client profile, as a flat list of named options.
//
// This is no general parser of OpenVPN's language: the driver must replace, drop and re-sort the
// options of a foreign profile and write the result back in a stable layout. A profile is a list of
// "name value" lines and
// "<name>body</name>" blocks; "remote" lines and <connection> blocks are lifted out into a list of
// their own and are written only in front of an inline block named "ca". Lines of blanks, and those
// that begin with ";" or "#", are skipped. A name may stand once, a later line replaces an earlier
// one, unless the name has one of a few words in it
// ("route", "remote", ...).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace ormel::option {

enum OPTION_TYPE : int { NORMAL_OPTION_TYPE = 0, INLINE_OPTION_TYPE = 1 };

struct FileOption {
  OPTION_TYPE type = NORMAL_OPTION_TYPE;
  std::string name;   // without leading "-"
  std::string value;  // rest of the line, or body of the block, trimmed
};

// One server of a profile.
struct OpenvpnRemotes {
  std::string remote_ip;
  std::string remote_proto;                   // may be empty
  std::string remote_port;                    // may be empty
  std::map<std::string, std::string> others;  // the other options of a <connection> block
};

using ConfigFileOption = std::vector<FileOption>;
using OpenvpnRemotesOption = std::vector<OpenvpnRemotes>;

// The order of a written profile: lines before blocks, each by name, bytewise.
[[nodiscard]] bool sort_file_option(const FileOption& a, const FileOption& b);

class ConfigFile {
 public:
  ConfigFileOption options;                     // in file order
  OpenvpnRemotesOption openvpn_remote_options;  // in file order

  // 0, or ERR_REGULAR_FILE without a message.
  [[nodiscard]] int load(const char* path);
  // Always 0: a text with a fault in it leaves `options` empty, as an empty text does. Once per
  // object, since the remotes are not cleared. Takes time proportional to the text.
  int parse_content(const char* text);
  // Writes the options, sorted first if `sort`, with `remotes` in front of the inline block "ca"; a
  // profile without that block loses them. The file is replaced whole, and its owner's alone for
  // the keys in it. 0 or ERR_SAVE_FILE, reported.
  [[nodiscard]] int save(const char* path, bool sort, const OpenvpnRemotesOption& remotes);

  // The text that `save` writes.
  [[nodiscard]] std::string text(bool sort, const OpenvpnRemotesOption& remotes);

  // Appends an option; unless `repeatable`, all earlier ones of exactly that name go first.
  void add_option(std::string name, const std::string& value, OPTION_TYPE type, bool repeatable);
  // Deletes the options of that name whose value begins with `value`.
  void del_option(const std::string& name, const std::string& value);
  // The first option of that name, null if there is none; good until the list changes.
  [[nodiscard]] const FileOption* get_option(const std::string& name) const;
  [[nodiscard]] OpenvpnRemotesOption get_all_remotes() const { return openvpn_remote_options; }

 private:
  [[nodiscard]] std::string render(const OpenvpnRemotesOption& remotes) const;
};

}  // namespace ormel::option
