/* C interface to a lockstep project served by every rank of an MPI
 * communicator. Every function but lockstep_mpi_error and
 * lockstep_mpi_resumes_after is collective: every rank calls it, in the same
 * order, and every rank gets the same result. Results are those of
 * lockstep_project.h and lockstep_fields.h: LOCKSTEP_PROJECT_OK (0) or a
 * negative code, with the reason in lockstep_mpi_error. A failure on any
 * rank stops the project on every rank: nothing more is reported done. */
#ifndef LOCKSTEP_MPI_H
#define LOCKSTEP_MPI_H

// The C interface is all that is used, also from C++: no MPI C++ bindings.
#ifndef OMPI_SKIP_MPICXX
#define OMPI_SKIP_MPICXX 1
#endif
#ifndef MPICH_SKIP_MPICXX
#define MPICH_SKIP_MPICXX 1
#endif
#include <mpi.h>
#include <stdint.h>

#include "api.h"
#include "lockstep_fields.h"
#include "lockstep_project.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lockstep_mpi_project lockstep_mpi_project;

/* Opens and locks the project directory on the communicator's rank 0.
 * NULL on every rank when it cannot, with the reason in `error` (at most
 * `error_size` bytes, zero-terminated). */
LOCKSTEP_API lockstep_mpi_project* lockstep_mpi_open(const char* directory, MPI_Comm communicator, char* error,
                                                     int error_size);

/* The next request, the same on every rank (time step -1 and stage 5 for the
 * cycle-end request). The ranks other than 0 sleep meanwhile. Returns 0,
 * LOCKSTEP_PROJECT_OUT_OF_ORDER, or -1. */
LOCKSTEP_API int lockstep_mpi_wait(lockstep_mpi_project* project, int* cycle, int* time_step, int* stage);

/* Reports the request done, only if every rank calls it and no call failed.
 * Returns 0, LOCKSTEP_PROJECT_OVERRUN, or -1. */
LOCKSTEP_API int lockstep_mpi_done(lockstep_mpi_project* project);

/* This rank's rows of an output: `shape[0]` rows, which may be 0; every rank
 * gives the same type and the same extents after the first. */
LOCKSTEP_API int lockstep_mpi_put(lockstep_mpi_project* project, const char* name, int type, int rank,
                                  const int64_t* shape, int order, const void* values);

/* This rank's rows of an input mapped onto a mesh this project put (or the
 * whole of an input without parts); type and shape must be those rows'. */
LOCKSTEP_API int lockstep_mpi_get(lockstep_mpi_project* project, const char* name, int type, int rank,
                                  const int64_t* shape, int order, void* values, int accept);

/* In the cycle-end request, once every rank has saved its own state. */
LOCKSTEP_API int lockstep_mpi_checkpoint(lockstep_mpi_project* project);

/* The cycle after which this run resumes, 0 for a run from its beginning. */
LOCKSTEP_API int lockstep_mpi_resumes_after(const lockstep_mpi_project* project);

/* For ranks that cannot load their state after that cycle. Returns -1. */
LOCKSTEP_API int lockstep_mpi_cannot_resume(lockstep_mpi_project* project, const char* reason);

/* For a failure outside these calls on one rank: prints this rank's number
 * and `message`, and ends every rank (MPI_Abort). Does not return. */
LOCKSTEP_API void lockstep_mpi_abort(lockstep_mpi_project* project, const char* message);

LOCKSTEP_API const char* lockstep_mpi_error(const lockstep_mpi_project* project);

/* Collective: releases the directory and the communicator's duplicate. */
LOCKSTEP_API void lockstep_mpi_close(lockstep_mpi_project* project);

/* For Fortran: lockstep_mpi_open with the communicator's Fortran handle. */
LOCKSTEP_API lockstep_mpi_project* lockstep_mpi_open_fortran(const char* directory, MPI_Fint communicator,
                                                             char* error, int error_size);

#ifdef __cplusplus
}
#endif

#endif
