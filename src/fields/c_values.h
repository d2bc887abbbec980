// What the C interfaces share: values and rules given as C integers, and
// outcomes and errors returned as C expects them. Exported for the MPI
// library's C interface; not installed.
#pragma once

#include <cstdint>
#include <string>

#include "api.h"
#include "access.h"
#include "rules.h"

namespace lockstep::fields {

// LOCKSTEP_PROJECT_OK, LOCKSTEP_FIELD_STALE or LOCKSTEP_PROJECT_ERROR.
LOCKSTEP_API int code(Outcome outcome);
// The values as the library takes them, or the reason they cannot be.
LOCKSTEP_API bool values_of(int type, int rank, const std::int64_t* shape, int order, const void* data, Values& values,
                            std::string& error);
LOCKSTEP_API bool accept_of(int accept, Accept& rule, std::string& error);
// `reason` into the caller's buffer of `error_size` bytes, zero-terminated.
LOCKSTEP_API void copy_error(const std::string& reason, char* error, int error_size);

}  // namespace lockstep::fields
