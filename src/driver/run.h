// The run driver: start-up, then every project stepped through the
// cycle / time-step / stage schedule in lockstep.
#pragma once

#include <ostream>

#include "handshake/pacer.h"
#include "records/file_system.h"

namespace lockstep::driver {

// Exit status of a setting the driver refuses before touching any project.
inline constexpr int kRejectedSettingStatus = 2;

// Runs the whole schedule and returns the process's exit status. A record
// error ends the process from inside, with its diagnostic and number.
int run(records::FileSystem& fs, handshake::Pacer& pacer, std::ostream& messages);

}  // namespace lockstep::driver
