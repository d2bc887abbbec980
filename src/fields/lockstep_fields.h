/* C interface to fields, for C, and for Fortran through iso_c_binding.
 * Functions return LOCKSTEP_PROJECT_OK (0), LOCKSTEP_FIELD_STALE when the
 * field is not the one this request needs, or LOCKSTEP_PROJECT_ERROR (-1);
 * lockstep_project_error or lockstep_interaction_error tells why. */
#ifndef LOCKSTEP_FIELDS_H
#define LOCKSTEP_FIELDS_H

#include <stdint.h>

#include "api.h"
#include "lockstep_project.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The field is stale: its stamp is not the request it is needed for (the
 * interaction program failed or did not run, the solver did not put it). */
#define LOCKSTEP_FIELD_STALE (-4)

/* Value types. */
#define LOCKSTEP_FLOAT64 1
#define LOCKSTEP_INT32 2
#define LOCKSTEP_INT64 3

/* Order of the values of a field of two or more dimensions. */
#define LOCKSTEP_ROW_MAJOR 0
#define LOCKSTEP_COLUMN_MAJOR 1

/* How recent a field must be: this stage (the rule), this time step, or any
 * time (a constant). */
#define LOCKSTEP_ACCEPT_STAGE 0
#define LOCKSTEP_ACCEPT_TIME_STEP 1
#define LOCKSTEP_ACCEPT_ANY 2

/* A solver's output, stamped with the request being served, or as a
 * starting output before the first request. */
LOCKSTEP_API int lockstep_project_put(lockstep_project* project, const char* name, int type, int rank,
                                      const int64_t* shape, int order, const void* values);

/* A solver's input, written by its interaction program for the request
 * being served; type and shape must be the field's. */
LOCKSTEP_API int lockstep_project_get(lockstep_project* project, const char* name, int type, int rank,
                                      const int64_t* shape, int order, void* values, int accept);

typedef struct lockstep_interaction lockstep_interaction;

/* From the interaction program's arguments (argv[1] to argv[4]) and the
 * settings in the working directory; NULL with the reason in `error`. */
LOCKSTEP_API lockstep_interaction* lockstep_interaction_open(int argc, const char* const* argv, char* error,
                                                             int error_size);

/* The project this program serves and the stage it was started for. */
LOCKSTEP_API void lockstep_interaction_request(const lockstep_interaction* interaction, int* project, int* cycle,
                                               int* time_step, int* stage);

/* Another project's newest output. */
LOCKSTEP_API int lockstep_interaction_get(lockstep_interaction* interaction, int source, const char* name, int type,
                                          int rank, const int64_t* shape, int order, void* values, int accept);

/* An input of this program's project, stamped with its stage. */
LOCKSTEP_API int lockstep_interaction_put(lockstep_interaction* interaction, const char* name, int type, int rank,
                                          const int64_t* shape, int order, const void* values);

LOCKSTEP_API const char* lockstep_interaction_error(const lockstep_interaction* interaction);

LOCKSTEP_API void lockstep_interaction_close(lockstep_interaction* interaction);

#ifdef __cplusplus
}
#endif

#endif
