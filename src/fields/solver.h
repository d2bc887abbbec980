// The solver's side of fields: `put` an output stamped with the request
// being served (or as a starting output before the first), `get` an input
// that this project's interaction program wrote for that request.
#pragma once

#include <memory>
#include <string>

#include "api.h"
#include "access.h"
#include "endpoint.h"

namespace lockstep::fields {

class LOCKSTEP_API SolverFields {
 public:
  // Fails, with the reason in `error`, when the endpoint's directory is not
  // named by lockstep's rule (main, sub1, ...): the stamps need its index.
  static std::unique_ptr<SolverFields> open(const project::Endpoint& endpoint, std::string& error);

  Outcome put(const std::string& name, const Values& values);
  // The values must have the field's type and shape.
  Outcome get(const std::string& name, const Values& values, Accept accept = Accept::kStage);
  // Any shape: `destination` gets the header and says where the values go.
  Outcome get(const std::string& name, const Destination& destination, Header& header,
              Accept accept = Accept::kStage);

  int project() const { return project_; }
  // The reason for the last kStale or kError.
  const std::string& error() const { return error_; }

 private:
  SolverFields(const project::Endpoint& endpoint, int project) : endpoint_(endpoint), project_(project) {}
  const project::Endpoint& endpoint_;
  int project_;
  std::string error_;
};

}  // namespace lockstep::fields
