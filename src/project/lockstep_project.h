/* C interface to a lockstep project directory, for C, and for Fortran through
 * iso_c_binding. Functions that return int return LOCKSTEP_PROJECT_OK (0) on
 * success and a negative code otherwise; lockstep_project_error tells why. */
#ifndef LOCKSTEP_PROJECT_H
#define LOCKSTEP_PROJECT_H

#include "api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LOCKSTEP_PROJECT_OK 0
#define LOCKSTEP_PROJECT_ERROR (-1)
/* lockstep_project_wait: the request does not come after the last one
 * served (the driver was restarted); its numbers are returned all the same,
 * and serving it is the caller's decision. */
#define LOCKSTEP_PROJECT_OUT_OF_ORDER (-2)
/* lockstep_project_done: the driver no longer waits for the request (it
 * stopped waiting, or the tree was reset); nothing was written. */
#define LOCKSTEP_PROJECT_OVERRUN (-3)

typedef struct lockstep_project lockstep_project;

/* Opens the project directory; NULL when it is missing or not writable, with
 * the reason in `error` (at most `error_size` bytes, zero-terminated). */
LOCKSTEP_API lockstep_project* lockstep_project_open(const char* directory, char* error, int error_size);

/* Takes the directory's lock, so that no other process serves it. Returns
 * 0, or -1 when another process holds it (the error names it). */
LOCKSTEP_API int lockstep_project_lock(lockstep_project* project);

/* Waits for the next request. Returns 0 with the request's numbers (time step
 * -1 and stage 5 for the cycle-end request), LOCKSTEP_PROJECT_OUT_OF_ORDER,
 * or -1 on an error. */
LOCKSTEP_API int lockstep_project_wait(lockstep_project* project, int* cycle, int* time_step, int* stage);

/* Reports the request done. Returns 0, LOCKSTEP_PROJECT_OVERRUN, or -1 on an
 * error. */
LOCKSTEP_API int lockstep_project_done(lockstep_project* project);

/* In the cycle-end request, before it is reported done, once the solver has
 * saved its own state: records that this project can restart after this
 * cycle, with its fields as they stand. Returns 0, or -1 on an error. */
LOCKSTEP_API int lockstep_project_checkpoint(lockstep_project* project);

/* The cycle of the run after which this run resumes (lockstepctl resume),
 * whose state the solver must load before its first request; 0 for a run
 * that starts at its beginning. */
LOCKSTEP_API int lockstep_project_resumes_after(const lockstep_project* project);

/* For a solver that cannot load its state after that cycle: makes the
 * error say what is wrong (`reason`) and what to do. Returns -1. */
LOCKSTEP_API int lockstep_project_cannot_resume(lockstep_project* project, const char* reason);

/* The reason for the last error, zero-terminated. */
LOCKSTEP_API const char* lockstep_project_error(const lockstep_project* project);

LOCKSTEP_API void lockstep_project_close(lockstep_project* project);

#ifdef __cplusplus
}
#endif

#endif
