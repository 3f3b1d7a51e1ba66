// What servers and the OpenVPN daemon say to the doctor. Input: an answer, or a log.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ormelctl/doctor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ormelctl;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const bool answers[] = {is_pptp_answer(text), is_ike_answer(text, "cookie12"),
                          is_dtls_answer(text)};
  if (text.size() < 10 && (answers[0] || answers[1] || answers[2])) std::abort();
  const Findings findings = read_openvpn_log(text);
  if (findings.empty()) std::abort();  // the doctor always has a word
  for (size_t at = 0; at + 1 < findings.size(); ++at)
    if (findings[at].mark == Mark::Failure) std::abort();  // nothing follows a failure
  return 0;
}
