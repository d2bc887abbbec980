// lockstepctl record: a recording of every request and done report of a run.
#pragma once

#include <ostream>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Returns the exit status.
int record_main(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
