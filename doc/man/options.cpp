// The option table: what each option takes, of which types, and after which actions.
#include <algorithm>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "base/tunnel.h"
#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/options/apply.h"
#include "ormel/options/table.h"
#include "page.h"

namespace manual {

namespace {

using ormel::ACTION;
using ormel::TYPE;
using ormel::option::COMMAND_OPTIONS;
using ormel::option::CommandOption;
using ormel::option::type_names;
using ormel::option::TypeName;

constexpr const char* NO_CHOICE = "~";
constexpr char CHOICE_MARK = '|';
constexpr const char* CLIENTS =
    "client";  // behind the argument of an action that servers do not have

struct ActionName {
  ACTION action;
  const char* option;
};
constexpr ActionName SETTING_ACTIONS[] = {{ormel::ADD_ACTION, "--add"},
                                          {ormel::IMPORT_ACTION, "--import"},
                                          {ormel::MODIFY_ACTION, "--modify"}};

// Appliers tell the user what they refuse; nobody wants to read that here.
class QuietErrors {
 public:
  QuietErrors() : kept_(dup(STDERR_FILENO)) {
    const ormel::Fd null{open("/dev/null", O_WRONLY | O_CLOEXEC)};
    dup2(null.get(), STDERR_FILENO);
  }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;
  ~QuietErrors() { dup2(kept_.get(), STDERR_FILENO); }

 private:
  ormel::Fd kept_;
};

std::vector<const CommandOption*> rows() {
  std::vector<const CommandOption*> all;
  for (const CommandOption* row = COMMAND_OPTIONS; row->fpr; ++row) all.push_back(row);
  return all;
}

// Type and actions: all that have a letter.
bool is_action(const CommandOption& row) {
  return row.opt.val != 0;
}

int apply(const CommandOption& row, TYPE type, ACTION action, const std::string& value) {
  const QuietErrors quiet;
  const auto record = ormel::config::make_record(type, 1);
  ormel::config::BaseConfig* target = record.get();
  target->action = action;
  return ormel::option::apply_option(row, &target, value.c_str());
}

// What the header of a description says: the argument, and for an action whether clients alone have
// it.
struct Argument {
  std::string name;
  bool clients = false;
};

Argument argument_of(const CommandOption& row, const Entry& entry) {
  const size_t mark = entry.detail.find(" | ");
  Argument argument{entry.detail.substr(0, mark), false};
  if (mark != std::string::npos) argument.clients = entry.detail.substr(mark + 3) == CLIENTS;
  if (entry.detail == CLIENTS) argument = {"", true};
  if (argument.name.empty() != (row.opt.has_arg == no_argument))
    fail(std::string("argument of --") + row.opt.name);
  return argument;
}

bool has_type(const CommandOption& row, const Argument& argument, TYPE type) {
  if (argument.clients && ormel::is_server(type)) return false;
  return row.types == 0 || (row.types & type) != 0;
}

std::vector<std::string> types_of(const CommandOption& row, const Argument& argument) {
  std::vector<std::string> names;
  for (const TypeName& type : type_names()) {
    if (has_type(row, argument, type.type)) names.emplace_back(type.name);
  }
  return names;
}

std::string listed(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

std::string words_of(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& name : names) out += (out.empty() ? "" : " ") + name;
  return out;
}

std::string types_text(const CommandOption& row, const Argument& argument) {
  const std::vector<std::string> names = types_of(row, argument);
  const auto types = type_names();
  const auto clients = std::count_if(types.begin(), types.end(),
                                     [](const TypeName& t) { return is_client(t.type); });
  const auto named = std::count_if(types.begin(), types.end(), [&](const TypeName& t) {
    return is_client(t.type) && has_type(row, argument, t.type);
  });
  const auto total = static_cast<std::ptrdiff_t>(names.size());
  if (names.size() == types.size()) return "all";
  if (named == clients && total == clients) return "all clients";
  if (named == 0 && total == static_cast<std::ptrdiff_t>(types.size()) - clients)
    return "all servers";
  return listed(names);
}

// The actions behind which alone the option may stand; empty for any place.
std::string places_text(const CommandOption& row) {
  if (!row.actions) return "";
  std::vector<std::string> names;
  for (const ActionName& action : SETTING_ACTIONS) {
    if (((row.actions->servers | row.actions->clients) & action.action) != 0)
      names.emplace_back(action.option);
  }
  return listed(names);
}

bool takes(const CommandOption& row, const std::string& value) {
  const auto types = type_names();
  return std::any_of(types.begin(), types.end(), [&](const TypeName& type) {
    return apply(row, type.type, ormel::ADD_ACTION, value) == ormel::NO_ERROR ||
           apply(row, type.type, ormel::MODIFY_ACTION, value) == ormel::NO_ERROR;
  });
}

// The words that a description offers are those that the applier takes.
void check_choices(const CommandOption& row, const std::string& argument) {
  if (argument.find(CHOICE_MARK) == std::string::npos) return;
  for (const std::string& choice : split(argument, CHOICE_MARK)) {
    if (!takes(row, choice)) fail(std::string("--") + row.opt.name + " does not take " + choice);
  }
  if (takes(row, NO_CHOICE))
    fail(std::string("--") + row.opt.name + " takes more than " + argument);
}

std::string head_of(const CommandOption& row, const std::string& argument) {
  std::string shown;
  for (const std::string& word : split(argument, CHOICE_MARK)) {
    if (!shown.empty()) shown += CHOICE_MARK;
    shown += argument.find(CHOICE_MARK) == std::string::npos ? '_' + word + '_' : literal(word);
  }
  std::string head;
  if (is_action(row))
    head = std::string("*-") + static_cast<char>(row.opt.val) + '*' +
           (shown.empty() ? "" : " " + shown) + ", ";
  head += "*--" + literal(row.opt.name) + '*';
  return shown.empty() ? head : head + '=' + shown;
}

void put_row(Page& page, const CommandOption& row) {
  const Entry& entry = page.texts("options").of(row.opt.name);
  const Argument argument = argument_of(row, entry);
  check_choices(row, argument.name);
  std::vector<std::string> lines = entry.lines;
  std::string facts = "Types: " + types_text(row, argument) + '.';
  if (!is_action(row)) {
    const std::string places = places_text(row);
    if (!places.empty()) facts += " Only behind " + places + '.';
    facts += row.cgi ? "" : " Not in a web form.";
  }
  if (row.types != 0) lines.insert(lines.end(), {"", facts});
  put_entry(page, head_of(row, argument.name), lines);
}

}  // namespace

void put_actions(Page& page, const Words&) {
  for (const CommandOption* row : rows()) {
    if (is_action(*row)) put_row(page, *row);
  }
}

void put_options(Page& page, const Words&) {
  for (const CommandOption* row : rows()) {
    if (!is_action(*row)) put_row(page, *row);
  }
}

void put_types(Page& page, const Words&) {
  page.out() << "[[ *Name*\n:[ *Number*\n:< *What*\n";
  for (const TypeName& type : type_names()) {
    page.out() << "|  " << type.name << "\n:  " << type.type
               << "\n:  " << joined(page.texts("types").of(type.name).lines) << '\n';
  }
}

void put_form_options(Page& page, const Words&) {
  page.out() << "[[ *Type*\n:[ *Number*\n:< *Variables*\n";
  for (const TypeName& type : type_names()) {
    std::vector<std::string> names;
    for (const CommandOption* row : rows()) {
      if (row->cgi && !is_action(*row) && has_type(*row, {}, type.type))
        names.push_back(literal(row->opt.name));
    }
    page.out() << "|  " << type.name << "\n:  " << type.type << "\n:  " << listed(names) << '\n';
  }
}

void put_completion(Page& page, const Words&) {
  page.out() << "_ormel_types='";
  for (const TypeName& type : type_names()) {
    const char* section = is_client(type.type) ? ormel::tunnel_of(type.type).client_section : "";
    page.out() << type.name << ';' << type.type << ';' << section << ' ';
  }
  page.out() << "'\n_ormel_interface='" << ormel::option::OUT_EIF << "'\n_ormel_options='\n";
  for (const CommandOption* row : rows()) {
    const Argument argument = argument_of(*row, page.texts("options").of(row->opt.name));
    const std::string letter =
        is_action(*row) ? std::string(1, static_cast<char>(row->opt.val)) : "";
    page.out() << row->opt.name << ';' << letter << ';' << argument.name << "; "
               << words_of(types_of(*row, argument)) << " \n";
  }
  page.out() << "'\n";
}

}  // namespace manual
