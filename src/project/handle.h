// What a lockstep_project handle of the C interface holds; shared with the
// fields' C interface.
#pragma once

#include <memory>
#include <string>

#include "project/endpoint.h"

struct lockstep_project {
  std::unique_ptr<lockstep::project::Endpoint> endpoint;
  // The reason for the last failed field operation; cleared by the others.
  std::string field_error;
};
