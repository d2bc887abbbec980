// lockstepctl status: what a run is waiting for, and whether it runs at all.
#pragma once

#include <ostream>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Returns the exit status.
int status_main(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
