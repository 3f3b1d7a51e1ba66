// A page on its way from its source to scdoc: lines that begin with "%" are replaced by what the
// program's tables say.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "texts.h"

namespace manual {

using Words = std::vector<std::string>;

class Page {
 public:
  Page(std::string folder, std::ostream& out) : folder_(std::move(folder)), out_(out) {}

  [[nodiscard]] std::ostream& out() { return out_; }
  // The descriptions in FOLDER/NAME.txt.
  [[nodiscard]] Texts& texts(const std::string& name);
  // What is left over when all lines are through.
  void check() const;

 private:
  std::string folder_;
  std::ostream& out_;
  std::map<std::string, Texts> texts_{};
};

// Each puts one part into the page; `words` are those after the name of the part.
void put_actions(Page& page, const Words& words);        // the options that choose type and action
void put_options(Page& page, const Words& words);        // all others
void put_types(Page& page, const Words& words);          // names and numbers
void put_form_options(Page& page, const Words& words);   // those that a web form may carry, by type
void put_completion(Page& page, const Words& words);     // all of it, for the shell
void put_errors(Page& page, const Words& words);         // codes and texts
void put_routes(Page& page, const Words& words);         // of the web program
void put_openapi(Page& page, const Words& words);        // the same as a document of OpenAPI
void put_notifications(Page& page, const Words& words);  // of the notification centre
// The keys that each of the given sections of vpn.conf has with the same default, less those that
// were put before.
void put_keys(Page& page, const Words& words);
// Every key of every section has been put, if any has.
void check_keys();

// An entry of a list: what it is about, and the text below it.
void put_entry(Page& page, const std::string& head, const std::vector<std::string>& lines);

}  // namespace manual
