// The owner of what a call on the service bus carries.
#pragma once

#include <memory>

#include <fenro/mibservice.h>

#include "base/handle.h"

namespace fenro {

using MibIo = std::unique_ptr<mib_io, FreeWith<mib_io_free>>;

}  // namespace fenro
