#include "daemons/keeper/certificates.h"

#include <cstdio>

namespace fenro::keeper {

// A failed run is repeated, and its message logged once.
void Certificates::report(const Ended& ended) {
  std::string fault;
  if (ended.status != 0)
    fault = ended.said.empty() ? "exit status " + std::to_string(ended.status) : ended.said;
  if (!fault.empty() && fault != fault_)
    std::fprintf(stderr, "fenro-keeperd: certificates: %s\n", fault.c_str());
  fault_ = fault;
}

void Certificates::tick(Time now) {
  if (const auto ended = child_ ? child_->poll() : std::nullopt) {
    report(*ended);
    child_.reset();
  }
  if (child_ || now < due_) return;
  due_ = now + PERIOD;
  child_ = std::make_unique<Child>(std::vector<std::string>{tool_, "__tend-certificates"});
}

}  // namespace fenro::keeper
