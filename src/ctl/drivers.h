// Drivers at work in a run directory, as far as this machine can tell.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <vector>

namespace lockstep::ctl {

// The processes of this machine named lockstep (by program or by argv[0])
// whose working directory is `run_directory`. Processes on other machines
// and those this user may not inspect are not seen.
std::vector<pid_t> running_drivers(const std::filesystem::path& run_directory);

}  // namespace lockstep::ctl
