// Internals of the growing buffer, for the other parts of the library.
#pragma once

#include <string>

#include <fenro/mibservice.h>

struct mib_io {
  std::string bytes;
};
