#include "ormel/web/metrics.h"

#include <chrono>

#include "ormel/actions/exposition.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::metrics {

namespace {

constexpr std::chrono::milliseconds PATIENCE{1500};
constexpr const char* HEAD = "Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n";

int give(const Request& request, JsonValue&) {
  return answer_download({HEAD, exposition(request.number("users", 0) == 1)}, NO_ERROR);
}

constexpr Route ROWS[] = {
    {"/ormel/metrics", ADMINISTRATOR, READS, {FILE_MEDIUM, give}},
};

}  // namespace

std::string exposition(bool users) {
  ormel::config::Management pool;
  std::ignore = pool.load();  // always 0
  const std::vector<Source> all = sources(pool, users);
  std::vector<system::Question> questions;
  questions.reserve(all.size());
  for (const Source& source : all) questions.push_back(source.ask);
  const auto answers = system::gather(questions, PATIENCE);
  std::string samples = ormel::metrics::sample("ormel_build_info", {{"version", ORMEL_VERSION}}, 1);
  for (size_t i = 0; i < all.size(); ++i) samples += answers[i].value_or(all[i].silence);
  return ormel::metrics::document(samples);
}

const Routes METRICS{ROWS};

}  // namespace ormel::cgi::metrics
