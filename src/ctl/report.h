// lockstepctl check and status: a run tree's readiness before a run and its
// state during one.
#pragma once

#include <ostream>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Each returns the exit status.
int check_main(int argc, char** argv, std::ostream& out, std::ostream& err);
int status_main(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
