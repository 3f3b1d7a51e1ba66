// The command line, and the one sequence of each action that it shares with the web handlers.
#pragma once

#include <memory>

#include "ormel/base/json.h"
#include "ormel/config/record.h"

namespace ormel {

// The `ormel` personality. A handler's result, or 1 when the options describe nothing to do.
int main(int argc, char** argv);

// The actions. Each owns `record`, the work record that the options filled; it shows the outcome as
// text if `out` is null, else into `out`. 0 or an ERROR_CODE.
int add(std::unique_ptr<config::PolyConfig> record, JsonValue* out);
int import(std::unique_ptr<config::PolyConfig> record, JsonValue* out);
int show(std::unique_ptr<config::PolyConfig> record, JsonValue* out);
int modify(std::unique_ptr<config::PolyConfig> record, JsonValue* out);
int remove(std::unique_ptr<config::PolyConfig> record, JsonValue* out);
int connect(std::unique_ptr<config::PolyConfig> record, JsonValue* out);
int disconnect(std::unique_ptr<config::PolyConfig> record, JsonValue* out);

}  // namespace ormel

// For a host program that links this code: prints the gateway policy, or the member of it that
// `argv[2]` names, as one line of JSON for "get"; {"error":-1} for any other arguments. Always 0.
int cmd_global_opt(char* name, int argc, char** argv);
