#include "common/cloud_client.h"

#include <algorithm>

#include "base/authority.h"
#include "base/http_limit.h"
#include "base/lines.h"
#include "base/pelmar_files.h"
#include "libfenro/ini_file.h"

namespace fenro {

namespace {

constexpr long TIMEOUT_SECONDS = 10;

std::size_t take_answer(const char* bytes, std::size_t size, std::size_t count, std::string* text) {
  if (text->size() + size * count > HTTP_ANSWER_MAX) return 0;
  text->append(bytes, size * count);
  return size * count;
}

struct Library {
  decltype(&::curl_easy_perform) easy_perform = ::curl_easy_perform;
  decltype(&::curl_easy_setopt) easy_setopt = ::curl_easy_setopt;
  decltype(&::curl_easy_getinfo) easy_getinfo = ::curl_easy_getinfo;
};

bool is_insecure() {
  return ini::read_value(pelmar::SETTINGS, "Debug", "InsecureCurl").value_or("") == "true";
}

}  // namespace

CloudReply CloudClient::ask(const CloudRequest& request) const {
  // A line end in a token would add headers that others have chosen.
  if (!handle_ || !std::all_of(request.headers.begin(), request.headers.end(), one_line)) return {};
  curl_easy_reset(handle_.get());  // the connections stay
  std::unique_ptr<curl_slist, FreeWith<curl_slist_free_all>> headers;
  const auto add = [&headers](const char* line) {
    curl_slist* const longer = curl_slist_append(headers.get(), line);
    if (longer) std::ignore = headers.release(), headers.reset(longer);
    return longer != nullptr;
  };
  bool complete = add("accept: application/json") &&
                  (request.body.empty() || add("Content-Type: application/json"));
  for (const std::string& line : request.headers) complete = complete && add(line.c_str());
  if (!complete) return {};

  std::string text;
  const std::string url = cloud_base(request.service) + request.path;
  const auto set = [this](auto option, auto value) {
    curl_easy_setopt(handle_.get(), option, value);
  };
  set(CURLOPT_URL, url.c_str());
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_PROTOCOLS_STR, "https");
  set(CURLOPT_CUSTOMREQUEST, request.method);
  set(CURLOPT_HTTPHEADER, headers.get());
  set(CURLOPT_TIMEOUT, TIMEOUT_SECONDS);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_WRITEFUNCTION, take_answer);
  set(CURLOPT_WRITEDATA, &text);
  if (!request.body.empty()) {
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    set(CURLOPT_POSTFIELDS, request.body.c_str());
  }
  if (is_insecure()) {  // a laboratory's cloud; the program obeys the same switch
    set(CURLOPT_SSL_VERIFYPEER, 0L);
    set(CURLOPT_SSL_VERIFYHOST, 0L);
  }
  CloudReply reply;
  bool needs_bundle =
      false;  // asked again each time: the host's authorities may change while a daemon runs
  if (perform_with_authority(Library{}, handle_.get(), TIMEOUT_SECONDS, needs_bundle) != CURLE_OK)
    return reply;
  curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &reply.status);
  reply.root = parse_request(text, HTTP_ANSWER_MAX);
  return reply;
}

std::string CloudClient::path_part(const std::string& text) const {
  const std::unique_ptr<char, FreeWith<curl_free>> coded{
      curl_easy_escape(handle_.get(), text.c_str(), static_cast<int>(text.size()))};
  return coded ? coded.get() : "";
}

}  // namespace fenro
