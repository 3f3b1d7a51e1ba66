// All settings that an action can change, as fields with their values, so that two looks show what
// an action has changed.
//
// A field is "SECTION/KEY" of vpn.conf, or begins with what its file is about: "gateway/gw1/index",
// "rights/bob", "peers/PEER1/endpoint". A file of keys or certificates is one field by its path.
// What tunnels write about themselves while they come and go is left out.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ormel/actions/audit_trail.h"

namespace ormel::audit {

using Fields = std::map<std::string, std::string>;

// What a look has found. It is taken apart when two are compared, and then only where they differ:
// each change costs two looks.
struct State {
  std::vector<std::string> texts{};  // the files of settings
  Fields key_files{};                // digests of the files with keys, by path
};

// The settings below the folder `root`; an appliance has them below "". A file that is missing or
// damaged has no fields.
[[nodiscard]] State read_state(const std::string& root = {});

// The fields that differ, by name. One that is missing has its default.
[[nodiscard]] std::vector<Change> changes_between(const State& before, const State& after);

// A URL-encoded name as people read it.
[[nodiscard]] std::string percent_decoded(std::string_view text);

}  // namespace ormel::audit
