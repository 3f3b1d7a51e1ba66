// ormel-manual FOLDER SOURCE TARGET: puts the program's tables into the source of a page. FOLDER
// has their descriptions.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string_view>

#include "ormel/base/log.h"
#include "page.h"

namespace manual {

namespace {

constexpr char DIRECTIVE = '%';

struct Part {
  std::string_view name;
  void (*put)(Page& page, const Words& words);
};

constexpr Part PARTS[] = {
    {"actions", put_actions}, {"completion", put_completion},
    {"errors", put_errors},   {"form-options", put_form_options},
    {"keys", put_keys},       {"notifications", put_notifications},
    {"openapi", put_openapi}, {"options", put_options},
    {"routes", put_routes},   {"types", put_types},
};

void expand(Page& page, const std::string& line) {
  Words words = split(line.substr(1), ' ');
  for (const Part& part : PARTS) {
    if (words.empty() || part.name != words[0]) continue;
    words.erase(words.begin());
    part.put(page, words);
    return;
  }
  fail("no such part: " + line);
}

void build(const std::string& folder, const std::string& source, const std::string& target) {
  std::ifstream in(source);
  std::ofstream out(target);
  Page page{folder, out};
  if (!in) fail(source + ": cannot be read");
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] == DIRECTIVE) {
      expand(page, line);
    } else {
      out << line << '\n';
    }
  }
  page.check();
  if (!out.flush()) fail(target + ": cannot be written");
}

}  // namespace

Texts& Page::texts(const std::string& name) {
  const auto found = texts_.find(name);
  if (found != texts_.end()) return found->second;
  return texts_[name] = Texts(folder_ + '/' + name + ".txt");
}

void Page::check() const {
  for (const auto& [name, texts] : texts_) texts.check_all_used();
  check_keys();
}

void put_entry(Page& page, const std::string& head, const std::vector<std::string>& lines) {
  page.out() << head << '\n';
  for (const std::string& line : lines) page.out() << (line.empty() ? "" : "\t") << line << '\n';
  page.out() << '\n';
}

}  // namespace manual

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: ormel-manual FOLDER SOURCE TARGET\n", stderr);
    return 2;
  }
  // The appliers that run in here would log.
  ormel::__cur_level__ = ormel::ORMELLOG_NOLOG;
  manual::build(argv[1], argv[2], argv[3]);
  return manual::has_failed() ? 1 : 0;
}
