#include <cstring>
#include <memory>
#include <string>

#include "fields/c_values.h"
#include "fields/interaction.h"
#include "fields/lockstep_fields.h"
#include "fields/solver.h"
#include "project/handle.h"

struct lockstep_interaction {
  std::unique_ptr<lockstep::fields::InteractionFields> fields;
};

namespace {

using lockstep::fields::Accept;
using lockstep::fields::accept_of;
using lockstep::fields::code;
using lockstep::fields::copy_error;
using lockstep::fields::Outcome;
using lockstep::fields::Values;
using lockstep::fields::values_of;

// The project's fields, or nullptr with the reason kept for
// lockstep_project_error.
std::unique_ptr<lockstep::fields::SolverFields> solver_fields(lockstep_project* project) {
  project->field_error.clear();
  auto fields = lockstep::fields::SolverFields::open(*project->endpoint, project->field_error);
  return fields;
}

}  // namespace

extern "C" {

int lockstep_project_put(lockstep_project* project, const char* name, int type, int rank, const int64_t* shape,
                         int order, const void* values) {
  auto fields = solver_fields(project);
  Values given;
  if (!fields || !values_of(type, rank, shape, order, values, given, project->field_error)) return LOCKSTEP_PROJECT_ERROR;
  const Outcome outcome = fields->put(name == nullptr ? "" : name, given);
  project->field_error = fields->error();
  return code(outcome);
}

int lockstep_project_get(lockstep_project* project, const char* name, int type, int rank, const int64_t* shape,
                         int order, void* values, int accept) {
  auto fields = solver_fields(project);
  Values wanted;
  Accept rule = Accept::kStage;
  if (!fields || !values_of(type, rank, shape, order, values, wanted, project->field_error) ||
      !accept_of(accept, rule, project->field_error)) {
    return LOCKSTEP_PROJECT_ERROR;
  }
  const Outcome outcome = fields->get(name == nullptr ? "" : name, wanted, rule);
  project->field_error = fields->error();
  return code(outcome);
}

lockstep_interaction* lockstep_interaction_open(int argc, const char* const* argv, char* error, int error_size) {
  std::string reason;
  auto fields = lockstep::fields::InteractionFields::open(argc > 0 ? argc - 1 : 0, argv + (argc > 0 ? 1 : 0), reason);
  if (!fields) {
    copy_error(reason, error, error_size);
    return nullptr;
  }
  return new lockstep_interaction{std::move(fields)};
}

void lockstep_interaction_request(const lockstep_interaction* interaction, int* project, int* cycle, int* time_step,
                                  int* stage) {
  *project = interaction->fields->project();
  *cycle = interaction->fields->request().cycle;
  *time_step = interaction->fields->request().time_step;
  *stage = interaction->fields->request().stage;
}

int lockstep_interaction_get(lockstep_interaction* interaction, int source, const char* name, int type, int rank,
                             const int64_t* shape, int order, void* values, int accept) {
  Values wanted;
  Accept rule = Accept::kStage;
  std::string error;
  if (!values_of(type, rank, shape, order, values, wanted, error) || !accept_of(accept, rule, error)) {
    interaction->fields->fail(error);
    return LOCKSTEP_PROJECT_ERROR;
  }
  return code(interaction->fields->get(source, name == nullptr ? "" : name, wanted, rule));
}

int lockstep_interaction_put(lockstep_interaction* interaction, const char* name, int type, int rank,
                             const int64_t* shape, int order, const void* values) {
  Values given;
  std::string error;
  if (!values_of(type, rank, shape, order, values, given, error)) {
    interaction->fields->fail(error);
    return LOCKSTEP_PROJECT_ERROR;
  }
  return code(interaction->fields->put(name == nullptr ? "" : name, given));
}

const char* lockstep_interaction_error(const lockstep_interaction* interaction) {
  return interaction->fields->error().c_str();
}

void lockstep_interaction_close(lockstep_interaction* interaction) { delete interaction; }

}  // extern "C"

namespace lockstep::fields {

int code(Outcome outcome) {
  switch (outcome) {
    case Outcome::kOk: return LOCKSTEP_PROJECT_OK;
    case Outcome::kStale: return LOCKSTEP_FIELD_STALE;
    case Outcome::kError: break;
  }
  return LOCKSTEP_PROJECT_ERROR;
}

// The values as the library takes them, or the reason they cannot be.
bool values_of(int type, int rank, const int64_t* shape, int order, const void* data, Values& values,
               std::string& error) {
  switch (type) {
    case LOCKSTEP_FLOAT64: values.type = Type::kFloat64; break;
    case LOCKSTEP_INT32: values.type = Type::kInt32; break;
    case LOCKSTEP_INT64: values.type = Type::kInt64; break;
    default: error = "unknown value type " + std::to_string(type) + "; use LOCKSTEP_FLOAT64, _INT32 or _INT64"; return false;
  }
  if (rank < 0 || rank > static_cast<int>(lockstep::fields::kMaxRank) || (rank > 0 && shape == nullptr)) {
    error = "a field has 0 to " + std::to_string(lockstep::fields::kMaxRank) + " dimensions, not " +
            std::to_string(rank);
    return false;
  }
  if (order != LOCKSTEP_ROW_MAJOR && order != LOCKSTEP_COLUMN_MAJOR) {
    error = "unknown order " + std::to_string(order) + "; use LOCKSTEP_ROW_MAJOR or LOCKSTEP_COLUMN_MAJOR";
    return false;
  }
  values.shape.assign(shape, shape + rank);
  values.column_major = order == LOCKSTEP_COLUMN_MAJOR;
  values.data = const_cast<void*>(data);
  return true;
}

bool accept_of(int accept, Accept& rule, std::string& error) {
  switch (accept) {
    case LOCKSTEP_ACCEPT_STAGE: rule = Accept::kStage; return true;
    case LOCKSTEP_ACCEPT_TIME_STEP: rule = Accept::kTimeStep; return true;
    case LOCKSTEP_ACCEPT_ANY: rule = Accept::kAny; return true;
    default: error = "unknown rule " + std::to_string(accept) + "; use LOCKSTEP_ACCEPT_STAGE, _TIME_STEP or _ANY"; return false;
  }
}

void copy_error(const std::string& reason, char* error, int error_size) {
  if (error == nullptr || error_size <= 0) return;
  const std::size_t length = std::min(reason.size(), static_cast<std::size_t>(error_size - 1));
  std::memcpy(error, reason.data(), length);
  error[length] = '\0';
}

}  // namespace lockstep::fields
