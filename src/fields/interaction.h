// The interaction program's side of fields. lockstep starts the program in
// its own working directory as PROGRAM PROJECT CYCLE TIME_STEP STAGE; the
// program `get`s other projects' newest outputs and `put`s its project's
// inputs, stamped with that stage.
#pragma once

#include <memory>
#include <string>

#include "api.h"
#include "access.h"
#include "endpoint.h"

namespace lockstep::fields {

class LOCKSTEP_API InteractionFields {
 public:
  // From the program's arguments (after the program name) and the settings
  // file in the working directory; fails, with the reason in `error`, when
  // either is not lockstep's.
  static std::unique_ptr<InteractionFields> open(int argc, const char* const* argv, std::string& error);

  Outcome get(int source, const std::string& name, const Values& values, Accept accept = Accept::kStage);
  Outcome get(int source, const std::string& name, const Destination& destination, Header& header,
              Accept accept = Accept::kStage);
  Outcome put(const std::string& name, const Values& values);

  int project() const { return project_; }
  const project::Request& request() const { return request_; }
  int time_steps() const { return time_steps_; }
  int subprojects() const { return subprojects_; }
  const std::string& error() const { return error_; }
  // Keeps a failure found before the library was called, for error().
  void fail(std::string error) { error_ = std::move(error); }

 private:
  InteractionFields(int project, project::Request request, int time_steps, int subprojects)
      : project_(project), request_(request), time_steps_(time_steps), subprojects_(subprojects) {}
  int project_;
  project::Request request_;
  int time_steps_;
  int subprojects_;
  std::string error_;
};

// The settings an interaction program needs, read from
// "analysis_settings.dat" in the working directory as the driver reads them.
struct RunSettings {
  int time_steps = 0;
  int cycles = 0;
  int subprojects = 0;
};
LOCKSTEP_API bool read_run_settings(const std::string& path, RunSettings& settings, std::string& error);

}  // namespace lockstep::fields
