// Every project's interaction record: the first 30 characters of the first
// line of its "CalculateInteraction.dat", naming the program run each stage.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "config/project_tree.h"
#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::config {

inline constexpr std::size_t kInteractionRecordLength = 30;

// Entry i holds project i's record, blank-padded to 30 characters.
using InteractionTable = std::array<std::string, kMaxSubprojects + 1>;

// "CalculateInteraction.dat" in project `index`'s directory.
std::string interaction_file(int index);

// Reads the main project's record, then sub projects 1 to num_subprojects.
// Requires num_subprojects <= kMaxSubprojects.
records::Status read_interaction_table(records::FileSystem& fs, int num_subprojects, InteractionTable& table);

}  // namespace lockstep::config
