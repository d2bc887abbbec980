// When a field's stamp is the one a reader must see: an input written by
// this project's interaction program for the request being served, an
// output that is its project's newest when an interaction program reads it.
#pragma once

#include <optional>
#include <string>

#include "format.h"

namespace lockstep::fields {

// How recent a field must be. kStage is the rule unless a reader asks for
// less, for a field not exchanged every stage.
enum class Accept {
  kStage,     // written for exactly the stage it is needed in
  kTimeStep,  // written in the same time step (inputs) or this one or the one before (outputs)
  kAny,       // any time: a constant
};

// The ordinary stage before `request` in a run of `time_steps` time steps
// per cycle; nullopt for the first stage of the run.
std::optional<project::Request> stage_before(const project::Request& request, int time_steps);

// Why the input `name` with `stamp` must not be used by project `project`
// serving `serving` (`previous`: the request served before it, if any);
// empty when it may. `stamp` is nullopt when the file is missing.
std::string check_input(const std::string& name, const std::optional<Stamp>& stamp, int project,
                        const project::Request& serving, const std::optional<project::Request>& previous,
                        Accept accept);

// Why the output `name` of project `source` with `stamp` must not be read by
// the interaction step `step` of a run of `time_steps` time steps per cycle;
// empty when it may.
std::string check_output(const std::string& name, const std::optional<Stamp>& stamp, int source,
                         const project::Request& step, int time_steps, Accept accept);

}  // namespace lockstep::fields
