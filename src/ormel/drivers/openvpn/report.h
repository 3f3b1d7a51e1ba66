// The report on an OpenVPN profile.
#pragma once

#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/report.h"

namespace ormel::ovpn {

// The copy that the daemon gets of a stored profile.
struct DaemonCopy {
  bool made = false;
  std::string text{};
  std::size_t line = 0;  // of the stored profile, for which no copy is made
  std::string reason{};
};

// What the report asks of the platform; tests replace it.
struct ReportTools {
  std::function<DaemonCopy(const std::string& stored, int slot)> copy;
  // Judges the profile at `path`; `arguments` are the checker's for key files.
  std::function<report::Verdict(const std::string& path, const std::string& arguments)> judge;
};
[[nodiscard]] ReportTools platform_tools();

// Reports on the profile at `record.file`, with the key files that the record names. `record` is a
// fresh work record, and holds the account and the servers afterwards.
[[nodiscard]] report::Report report_profile(ClientConfig& record, const ReportTools& tools);

// A piece of a profile: an option, a whole block, a line around or within a <connection> block, or
// a blank line.
struct ProfileItem {
  std::size_t first = 0, last = 0;  // numbers of its lines, from 1
  std::string name{};               // of the option or the block, without leading "--"
  std::string text{};               // of the line, trimmed; the tag of a block
  std::string body{};               // of a block, trimmed
  bool block = false, blank = false;
};
[[nodiscard]] std::vector<ProfileItem> items_of(const std::string& profile);

}  // namespace ormel::ovpn
