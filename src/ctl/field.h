// lockstepctl field show: a field file's stamp, type, shape and values.
#pragma once

#include <ostream>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Returns the exit status.
int field_main(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
