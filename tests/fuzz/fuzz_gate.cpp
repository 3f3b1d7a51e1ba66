// A web server's request as the gate reads it. Input: the recipe line, then the bytes of the
// connection.
#include "fuzz/cgi_fuzz.h"
#include "gate/fastcgi.h"
#include "gate/rules.h"

namespace {

using fenro::gate::Request;

constexpr std::string_view NAMES[] = {"SCRIPT_URL", "CONTENT_LENGTH", "REMOTE_ADDR",
                                      "QUERY_STRING"};

// Whatever a request is, the gate's questions about it have answers.
std::string describe(const Request& request) {
  std::string text = std::to_string(static_cast<int>(request.state())) + '\n';
  for (const std::string_view name : NAMES) text.append(request.variable(name)) += '\n';
  if (request.state() != Request::State::Whole) return text;
  const fenro::gate::Profile profile = fenro::gate::profile_of(request);
  fuzz::require(may_be_same(profile, profile), "a profile is itself");
  text += profile.type + '\n' + std::to_string(profile.index) + '\n';
  text += std::to_string(fenro::gate::has_too_many_fields(request)) + '\n';
  return text + request.body();
}

Request read(std::string_view bytes, const fuzz::Recipe& recipe) {
  Request request;
  fuzz::run_pieces(bytes, recipe, [&](const char* piece, size_t length) {
    request.feed({piece, length});
    return length;
  });
  return request;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes = fuzz::input(data, size);
  const fuzz::Recipe recipe(fuzz::take_line(bytes));

  Request request = read(bytes, recipe);
  const std::string seen = describe(request);
  fuzz::require(seen == describe(read(bytes, fuzz::Recipe({}))),
                "a request in pieces is what it is whole");
  fuzz::require(request.body().size() == request.body_size(), "the body is as long as it says");
  fuzz::require(!request.refusal("400 Bad Request", "x", 1).empty(), "a refusal is an answer");
  if (request.state() != Request::State::Whole) return 0;

  const std::string body = request.body();
  Request again;
  again.feed(request.release());
  fuzz::require(again.state() == Request::State::Whole && again.body() == body,
                "what is forwarded is read again");
  return 0;
}
