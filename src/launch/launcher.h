// Running every project's interaction program once for a stage.
#pragma once

#include <cstdint>
#include <string>

#include "config/interaction.h"

namespace lockstep::launch {

// The two texts handed to runqq: the program path (project directory and
// interaction record, blank-padded) and the argument text (project index,
// cycle, time step and stage).
struct Command {
  std::string program;
  std::string arguments;
};

// Counters above 99999 and indexes from 100 on are written in full rather
// than as asterisks, so the program always receives the true numbers. In the
// path, characters the shell treats specially between double quotes are
// escaped, so the shell runs the file of exactly that name.
Command project_command(int index, const std::string& interaction_record, std::int32_t cycle,
                        std::int32_t time_step, std::int32_t stage);

// Runs the main project's program, then each sub project's in index order,
// each through the shell and waited for; results are not looked at.
void launch_programs(const config::InteractionTable& table, int num_subprojects, std::int32_t cycle,
                     std::int32_t time_step, std::int32_t stage);

}  // namespace lockstep::launch
