// The one table of options that feeds the command line and the web forms. A row says which records
// have the option, after which actions it may stand, and what is said of a refusal; its applier
// then writes the value into the work record, which the `type` option creates.
#pragma once

#include <getopt.h>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "ormel/cgi/cgi.h"
#include "ormel/config/record.h"

namespace ormel::option {

using config::BaseConfig;
using config::PolyConfig;

// Writes `value` (null where the option has none) into `*record`. 0 or an ERROR_CODE, which it has
// reported.
using option_funcion = int (*)(BaseConfig** record, const char* value);

// The actions after which an option may stand, as masks, and the refusal after any other.
struct Actions {
  int servers;
  const char* server_refusal;
  int clients;
  const char* client_refusal;
};

struct CommandOption {
  ::option opt;        // as getopt_long takes it: long name, has_arg, null, short letter or 0
  option_funcion fpr;  // the applier, called with what has passed the columns below
  bool cgi;            // the option may also come from a web form
  int types;           // mask of the types that have it; 0 for the option that makes the record
  const char* wrong_type =
      nullptr;  // the refusal for other types; null where the applier refuses them
  const Actions* actions = nullptr;  // null for any
  const char* empty = nullptr;  // the refusal of an empty value; null where the applier takes it
  const char* empty_log = nullptr;  // what the log calls such a value; null for no line
};

// What getopt_long wants, built from the table.
struct CommandOptions {
  CommandOptions();

  int total;                  // rows, the closing empty one included
  std::string short_options;  // starts with ":", so that getopt_long reports and stays silent
  std::vector<::option> long_options;
};

// The table, closed by an empty row.
extern const CommandOption COMMAND_OPTIONS[];

// A type of profile by the name that `type` takes.
struct TypeName {
  TYPE type;
  const char* name;
};

// All types.
[[nodiscard]] std::span<const TypeName> type_names();

// True once the options come from a web form.
extern bool is_cgi_mode;

// Text of the usage message; a format with the program's name as its one argument.
extern const char* usage;
void show_usage(const char* program);

// The command line: a holder of the record that the arguments describe, with its action set. An
// empty holder when an option failed, which has been reported, or when there is no type or no
// action.
[[nodiscard]] std::unique_ptr<PolyConfig> get_options(int argc, char** argv);

// A web form: applies the variables to `record` and gives it back, or an empty holder with the code
// in `result`.
[[nodiscard]] std::unique_ptr<PolyConfig> get_options(std::unique_ptr<PolyConfig> record,
                                                      cgi_var* vars, int& result);

// Applies one row: the checks of its columns, then its applier. 0 or an ERROR_CODE, which has been
// reported.
int apply_option(const CommandOption& row, BaseConfig** record, const char* value);

// Applies one option of the command line: the row `long_index`, or with a letter the first row of
// that letter, with the global `optarg`.
int apply_cmd_option(BaseConfig** record, int letter, int long_index);
// Applies one form variable by its name; a name that no row open to the web has is ignored.
int apply_cmd_option(BaseConfig** record, CommandOptions& options, cgi_var* var);

// The type that a number or a name means, the name in any case; NONE_TYPE if neither fits.
[[nodiscard]] TYPE parse_type(const char* value);

}  // namespace ormel::option
