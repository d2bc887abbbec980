// lockstepctl agent: serves a project directory by running a command once
// per request.
#pragma once

#include <ostream>

namespace lockstep::ctl {

// argv holds the words after "agent". Returns the exit status.
int agent_main(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
