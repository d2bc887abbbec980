// lockstepctl check: is a run tree ready for a run, and --fix after a crash.
#pragma once

#include <ostream>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Returns the exit status.
int check_main(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
