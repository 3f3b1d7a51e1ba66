// Unit tests leave no lines in the host's log.
#include "ormel/base/log.h"

namespace {

[[maybe_unused]] const int quiet = ormel::__cur_level__ = ormel::ORMELLOG_NOLOG;

}  // namespace
