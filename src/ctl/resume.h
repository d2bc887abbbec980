// lockstepctl resume: prepares a stopped run to go on after the newest cycle
// that every project recorded as a checkpoint.
#pragma once

#include <optional>
#include <ostream>
#include <string>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Returns the exit status.
int resume_main(int argc, char** argv, std::ostream& out, std::ostream& err);

// `settings` (the text of a settings file) with the number after the line
// "cycle_num=" replaced by `cycle_num`; nothing when there is no such number.
std::optional<std::string> with_cycle_num(const std::string& settings, int cycle_num);

}  // namespace lockstep::ctl
