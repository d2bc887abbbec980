/* C interface to a lockstep project directory, for C, and for Fortran through
 * iso_c_binding. Functions that return int return 0 on success. */
#ifndef LOCKSTEP_PROJECT_H
#define LOCKSTEP_PROJECT_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lockstep_project lockstep_project;

/* Opens the project directory; NULL when it is missing or not writable, with
 * the reason in `error` (at most `error_size` bytes, zero-terminated). */
lockstep_project* lockstep_project_open(const char* directory, char* error, int error_size);

/* Waits for the next request. Returns 0 with the request's numbers (time step
 * -1 and stage 5 for the cycle-end request), or -1 on an error. */
int lockstep_project_wait(lockstep_project* project, int* cycle, int* time_step, int* stage);

/* Reports the request done. Returns 0, or -1 on an error. */
int lockstep_project_done(lockstep_project* project);

/* The reason for the last error, zero-terminated. */
const char* lockstep_project_error(const lockstep_project* project);

void lockstep_project_close(lockstep_project* project);

#ifdef __cplusplus
}
#endif

#endif
