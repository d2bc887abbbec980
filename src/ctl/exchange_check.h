// What lockstepctl check says about a run's exchange table: lines it cannot
// read, projects outside the run, outputs nobody has published, and links
// to lockstep-exchange that lead nowhere.
#pragma once

#include "ctl/tree.h"

namespace lockstep::ctl {

// Adds to `tree`'s problems and warnings; nothing when the run directory
// holds no exchange table.
void check_exchange(TreeState& tree);

}  // namespace lockstep::ctl
