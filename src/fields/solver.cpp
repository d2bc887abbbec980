#include "fields/solver.h"

namespace lockstep::fields {

std::unique_ptr<SolverFields> SolverFields::open(const project::Endpoint& endpoint, std::string& error) {
  const std::optional<int> index = project_index(endpoint.directory());
  if (!index) {
    error = "cannot tell which project " + endpoint.directory() +
            " is: fields need the directory named as lockstep names it (main, sub1, sub2, ...)";
    return nullptr;
  }
  return std::unique_ptr<SolverFields>(new SolverFields(endpoint, *index));
}

Outcome SolverFields::put(const std::string& name, const Values& values) {
  const Stamp stamp{project_, Role::kOutput, endpoint_.handed_out().value_or(endpoint_.start())};
  return put_field(name, field_path(endpoint_.directory(), Role::kOutput, name), stamp, values, error_);
}

Outcome SolverFields::get(const std::string& name, const Values& values, Accept accept) {
  std::vector<char> scratch;
  Header header;
  const Outcome outcome = get(name, into(values, scratch), header, accept);
  if (outcome == Outcome::kOk) finish_into(values, header, scratch);
  return outcome;
}

Outcome SolverFields::get(const std::string& name, const Destination& destination, Header& header, Accept accept) {
  const std::optional<project::Request>& serving = endpoint_.handed_out();
  if (!serving) {
    error_ = "input \"" + name + "\" of " + project_name(project_) +
             " cannot be read before the first request: inputs are written for a request";
    return Outcome::kError;
  }
  const auto check = [&](const std::optional<Stamp>& stamp) {
    return check_input(name, stamp, project_, *serving, endpoint_.handed_out_before(), accept);
  };
  return get_field(name, field_path(endpoint_.directory(), Role::kInput, name), check, destination, header, error_);
}

}  // namespace lockstep::fields
