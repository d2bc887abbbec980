// lockstepctl check: is a run tree ready for a run, and --fix after a crash.
#pragma once

#include <filesystem>
#include <ostream>
#include <string>

namespace lockstep::ctl {

// argv holds the words after the subcommand. Returns the exit status.
int check_main(int argc, char** argv, std::ostream& out, std::ostream& err);

// Writes "0\n" into go2.dat in place, never through a link and never into
// anything but a regular file; an empty string on success, else the
// system's error text.
std::string write_done(const std::filesystem::path& path);

}  // namespace lockstep::ctl
