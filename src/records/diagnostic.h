// The fatal path: the one place where a record error ends the process.
#pragma once

#include "records/status.h"

namespace lockstep::records {

// Writes the record diagnostic to standard error (the headline, then the
// trail of operations, innermost first) and exits with the error number.
[[noreturn]] void die(const Status& status);

// Fatal mode for one call: returns only when `status` is a success.
inline void must(const Status& status) {
  if (!status.ok()) die(status);
}

}  // namespace lockstep::records
