// lockstepctl report: what a recording says about where a run's time went.
#pragma once

#include <ostream>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Returns the exit status.
int report_main(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
