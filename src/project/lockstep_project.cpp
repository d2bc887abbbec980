#include "project/lockstep_project.h"

#include <cstring>
#include <memory>
#include <string>

#include "project/endpoint.h"
#include "project/handle.h"

extern "C" {

lockstep_project* lockstep_project_open(const char* directory, char* error, int error_size) {
  std::string reason;
  auto endpoint = lockstep::project::Endpoint::open(directory == nullptr ? "" : directory, reason);
  if (!endpoint) {
    if (error != nullptr && error_size > 0) {
      const auto room = static_cast<std::size_t>(error_size - 1);
      const std::size_t length = reason.size() < room ? reason.size() : room;
      std::memcpy(error, reason.data(), length);
      error[length] = '\0';
    }
    return nullptr;
  }
  return new lockstep_project{std::move(endpoint), {}};
}

int lockstep_project_lock(lockstep_project* project) {
  project->field_error.clear();
  return project->endpoint->lock() ? LOCKSTEP_PROJECT_OK : LOCKSTEP_PROJECT_ERROR;
}

int lockstep_project_wait(lockstep_project* project, int* cycle, int* time_step, int* stage) {
  using lockstep::project::WaitResult;
  project->field_error.clear();
  lockstep::project::Request request;
  const WaitResult result = project->endpoint->wait(request);
  if (result != WaitResult::kRequest && result != WaitResult::kOutOfOrder) return LOCKSTEP_PROJECT_ERROR;
  *cycle = request.cycle;
  *time_step = request.time_step;
  *stage = request.stage;
  return result == WaitResult::kRequest ? LOCKSTEP_PROJECT_OK : LOCKSTEP_PROJECT_OUT_OF_ORDER;
}

int lockstep_project_done(lockstep_project* project) {
  using lockstep::project::DoneResult;
  project->field_error.clear();
  switch (project->endpoint->report_done()) {
    case DoneResult::kDone: return LOCKSTEP_PROJECT_OK;
    case DoneResult::kOverrun: return LOCKSTEP_PROJECT_OVERRUN;
    case DoneResult::kError: break;
  }
  return LOCKSTEP_PROJECT_ERROR;
}

int lockstep_project_checkpoint(lockstep_project* project) {
  project->field_error.clear();
  return project->endpoint->checkpoint() ? LOCKSTEP_PROJECT_OK : LOCKSTEP_PROJECT_ERROR;
}

int lockstep_project_resumes_after(const lockstep_project* project) {
  return project->endpoint->resumes_after().value_or(0);
}

int lockstep_project_cannot_resume(lockstep_project* project, const char* reason) {
  project->field_error.clear();
  project->endpoint->cannot_resume(reason == nullptr ? "" : reason);
  return LOCKSTEP_PROJECT_ERROR;
}

const char* lockstep_project_error(const lockstep_project* project) {
  return (project->field_error.empty() ? project->endpoint->error() : project->field_error).c_str();
}

void lockstep_project_close(lockstep_project* project) { delete project; }

}  // extern "C"
