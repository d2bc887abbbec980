// Where each project lives relative to the driver's working directory.
#pragma once

#include <string>

namespace lockstep::config {

// The most sub projects a run can have; the interaction table holds the main
// project and this many sub projects.
inline constexpr int kMaxSubprojects = 100;

// A sub project's index text: one character for 1 to 9, two from 10 on,
// "**" from 100 on.
std::string index_text(int index);

// "../main/" for index 0, "../sub" + index text + "/" for a sub project.
std::string project_directory(int index);

}  // namespace lockstep::config
