// The parser behind ConfigFile::parse_content.
//
// What counts as a line, a block and an option is defined by three POSIX expressions, of which the
// functions here are the hand-written form (regexec would look at the whole rest of the text for
// every line):
//   line    [\t ]*([^\r\n]+)
//   block   [\t ]*<([0-9a-zA-Z_-]+)>([^<]*)</([0-9a-zA-Z_-]+)>[\t ]*
//   option  [\t ]*([0-9a-zA-Z-]+)[\t ]*([^\r\n]*)     anywhere in the line
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ormel/drivers/openvpn/profile.h"

namespace ormel::option {

class ProfileParser {
 public:
  ProfileParser(std::string_view text, OpenvpnRemotesOption& remotes);

  // False for a text with a fault in it. Remotes found before the fault stay.
  [[nodiscard]] bool parse();
  // The options of a text that has been parsed.
  [[nodiscard]] ConfigFileOption take_options();

 private:
  struct Found {
    FileOption option;
    std::string_view name;  // as it is in the text, leading "-" included
    bool repeatable;
  };

  // All of the text from the start of a piece of it.
  [[nodiscard]] std::string_view text_from(std::string_view piece) const;
  [[nodiscard]] bool parse_line(std::string_view line);
  [[nodiscard]] bool parse_block();
  [[nodiscard]] bool read_connection(std::string_view from, OpenvpnRemotes& remote);
  void add(std::string_view name, std::string_view value, OPTION_TYPE type);

  std::string_view rest_;
  size_t walk_budget_;  // bytes that the walks of connection blocks may still go over
  OpenvpnRemotesOption& remotes_;
  std::vector<Found> found_;
};

}  // namespace ormel::option
