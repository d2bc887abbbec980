#include <memory>
#include <string>

#include "fields/c_values.h"
#include "mpi/lockstep_mpi.h"
#include "mpi/parallel_project.h"

struct lockstep_mpi_project {
  std::unique_ptr<lockstep::mpi::Project> project;
};

namespace {

using lockstep::fields::code;
using lockstep::fields::Values;

}  // namespace

extern "C" {

lockstep_mpi_project* lockstep_mpi_open(const char* directory, MPI_Comm communicator, char* error, int error_size) {
  std::string why;
  auto project = lockstep::mpi::Project::open(directory == nullptr ? "" : directory, communicator, why);
  if (!project) {
    lockstep::fields::copy_error(why, error, error_size);
    return nullptr;
  }
  return new lockstep_mpi_project{std::move(project)};
}

lockstep_mpi_project* lockstep_mpi_open_fortran(const char* directory, MPI_Fint communicator, char* error,
                                                int error_size) {
  return lockstep_mpi_open(directory, MPI_Comm_f2c(communicator), error, error_size);
}

int lockstep_mpi_wait(lockstep_mpi_project* project, int* cycle, int* time_step, int* stage) {
  lockstep::project::Request request;
  const auto result = project->project->wait(request);
  *cycle = request.cycle;
  *time_step = request.time_step;
  *stage = request.stage;
  switch (result) {
    case lockstep::project::WaitResult::kRequest: return LOCKSTEP_PROJECT_OK;
    case lockstep::project::WaitResult::kOutOfOrder: return LOCKSTEP_PROJECT_OUT_OF_ORDER;
    default: return LOCKSTEP_PROJECT_ERROR;
  }
}

int lockstep_mpi_done(lockstep_mpi_project* project) {
  switch (project->project->done()) {
    case lockstep::project::DoneResult::kDone: return LOCKSTEP_PROJECT_OK;
    case lockstep::project::DoneResult::kOverrun: return LOCKSTEP_PROJECT_OVERRUN;
    case lockstep::project::DoneResult::kError: break;
  }
  return LOCKSTEP_PROJECT_ERROR;
}

// A wrong type, rank or order is this rank's own failure: it still takes
// part in the call, which then fails on every rank with its message.
int lockstep_mpi_put(lockstep_mpi_project* project, const char* name, int type, int rank, const int64_t* shape,
                     int order, const void* values) {
  Values given;
  std::string why;
  if (!lockstep::fields::values_of(type, rank, shape, order, values, given, why)) given = {};
  return code(project->project->put(name == nullptr ? "" : name, given, why));
}

int lockstep_mpi_get(lockstep_mpi_project* project, const char* name, int type, int rank, const int64_t* shape,
                     int order, void* values, int accept) {
  Values wanted;
  lockstep::fields::Accept rule = lockstep::fields::Accept::kStage;
  std::string why;
  if (!lockstep::fields::values_of(type, rank, shape, order, values, wanted, why) ||
      !lockstep::fields::accept_of(accept, rule, why)) {
    wanted = {};
  }
  return code(project->project->get(name == nullptr ? "" : name, wanted, rule, why));
}

int lockstep_mpi_checkpoint(lockstep_mpi_project* project) {
  return project->project->checkpoint() ? LOCKSTEP_PROJECT_OK : LOCKSTEP_PROJECT_ERROR;
}

int lockstep_mpi_resumes_after(const lockstep_mpi_project* project) {
  return project->project->resumes_after().value_or(0);
}

int lockstep_mpi_cannot_resume(lockstep_mpi_project* project, const char* reason_text) {
  project->project->cannot_resume(reason_text == nullptr ? "" : reason_text);
  return LOCKSTEP_PROJECT_ERROR;
}

void lockstep_mpi_abort(lockstep_mpi_project* project, const char* message) {
  project->project->abort(message == nullptr ? "" : message);
}

const char* lockstep_mpi_error(const lockstep_mpi_project* project) { return project->project->error().c_str(); }

void lockstep_mpi_close(lockstep_mpi_project* project) { delete project; }

}  // extern "C"
