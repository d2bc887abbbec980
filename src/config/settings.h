// The run settings, read once from "analysis_settings.dat".
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::config {

struct Settings {
  std::int32_t time_step = 0;        // ordinary time steps per cycle
  std::int32_t cycle_num = 0;        // cycles
  std::int32_t num_subprojects = 0;  // sub projects, indices 1 to num_subprojects
  // The closing time step, time_step + 1 in 32-bit arithmetic.
  std::int32_t closing_time_step() const;
  bool operator==(const Settings&) const = default;
};

inline constexpr int kSearchLimit = 10000;

// The keys in the order they are read.
inline constexpr std::array<std::string_view, 3> kSettingKeys = {"time_step=", "cycle_num=", "num_subprojects="};

// One key's search: from a fresh open, through at most kSearchLimit lines,
// then the integer after the key line. `found` is false when the limit was
// reached; `line` is the last line read, the value's when it was found.
struct KeySearch {
  bool found = false;
  std::int32_t value = 0;
  long line = 0;
};
records::Status find_setting(records::FileSystem& fs, std::string_view key, KeySearch& search);

// Searches each key from the first line. Leaves `settings` empty when a key
// is not among the first kSearchLimit lines, after printing
// " Parameter reading failed!" on standard output. Any record error, a
// null value included, comes back as the status.
records::Status read_settings(records::FileSystem& fs, std::optional<Settings>& settings);

}  // namespace lockstep::config
