// The readiness wait: read every project's go2.dat until the done values add
// up to 0.
#pragma once

#include <vector>

#include "handshake/go_files.h"
#include "handshake/pacer.h"
#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::handshake {

inline constexpr long kPollLimit = 1'000'000;
inline constexpr std::chrono::milliseconds kPollPause{1};

// A go2.dat that cannot be opened or read is retried at once, each time
// closed and opened again so that a file replaced or rewritten shorter is
// seen; after kFailuresBeforePausing failures in a row on one file the
// retries pause kPollPause each. Retries never count as passes.
inline constexpr int kFailuresBeforePausing = 1000;

// Returns when a pass finds the done values summing to 0, or after kPollLimit
// passes, each failed pass followed by a pause of kPollPause. Only a failing
// close comes back as a status.
records::Status wait_for_readiness(records::FileSystem& fs, Pacer& pacer, const std::vector<GoFilePaths>& paths);

}  // namespace lockstep::handshake
