// Refusals are printed to standard error where they arise; this reads them for a caller that has to
// pass them on.
#pragma once

#include <string>

#include "ormel/base/handle.h"

namespace ormel::system {

// Standard error as a text, for as long as the object lives.
class ErrorCapture {
 public:
  ErrorCapture();
  ErrorCapture(const ErrorCapture&) = delete;
  ErrorCapture& operator=(const ErrorCapture&) = delete;
  ~ErrorCapture() { restore(); }
  // Puts standard error back and returns the first line without its "Error: ", or an empty text for
  // any other line.
  std::string take();

 private:
  void restore();

  Fd saved_, file_;
};

}  // namespace ormel::system
