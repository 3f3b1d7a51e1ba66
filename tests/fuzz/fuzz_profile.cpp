// A foreign profile through the rewriting: read, made ours, written, read back. Input: the text of
// the profile.
#include <cstdint>
#include <string>

#include "fuzz/require.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "support/scratch_file.h"

namespace {

using fuzz::require;
using ormel::option::ConfigFile;
using ormel::option::OpenvpnRemotes;

// Rewrites a profile as a change of its settings does; the text that is written then.
std::string rewrite(const std::string& text) {
  static const support::ScratchFile scratch;
  ConfigFile cf;
  cf.parse_content(text.c_str());
  ormel::ovpn::ClientConfig record(1);
  record.imported = true;
  record.remotes = cf.get_all_remotes();
  ormel::ovpn::ClientConfig::remove_incompatible(cf);
  record.apply_base_option(cf);
  record.override_compatible(cf);
  require(cf.save(scratch.path().c_str(), true, record.remotes) == 0, "the profile can be written");
  return scratch.content();
}

// A bracket ends an inline block, so that a server with one in its words is not read again.
bool readable(const std::string& text) {
  ConfigFile cf;
  cf.parse_content(text.c_str());
  for (const OpenvpnRemotes& remote : cf.get_all_remotes()) {
    std::string words = remote.remote_ip + remote.remote_port + remote.remote_proto;
    for (const auto& [key, value] : remote.others) words += value;
    if (words.find('<') != std::string::npos) return false;
  }
  return true;
}

bool has(const std::string& lines, const std::string& start_of_line) {
  return lines.find("\n" + start_of_line) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  const std::string first = rewrite(text);

  const std::string lines =
      "\n" + first.substr(0, first.find("\n<"));  // the blocks stand behind them
  require(has(lines, "up /etc/openvpn/openvpn_up"), "the daemon runs our script");
  require(has(lines, "dev tun2001"), "the daemon has our interface");
  require(!has(lines, "user ") && !has(lines, " "),
          "the daemon's user is not the profile's to choose");
  if (!readable(text)) return 0;
  // What one name with and without dashes has twice is once the next time.
  const std::string second = rewrite(first);
  require(rewrite(second) == second, "a change of nothing changes nothing");
  return 0;
}
