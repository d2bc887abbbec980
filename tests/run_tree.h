// A run tree in a temporary directory: "run/" where the driver works, and
// "main/", "sub1/", ... beside it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "process.h"

namespace lockstep::testing {

class RunTree {
 public:
  std::filesystem::path run() const { return root_.path() / "run"; }
  std::filesystem::path project(int index) const {
    return root_.path() / (index == 0 ? std::string("main") : "sub" + std::to_string(index));
  }
  // The settings file as the driver's diagnostics name it.
  std::string settings_path() const { return (std::filesystem::canonical(run()) / "analysis_settings.dat").string(); }

  void settings(const std::string& content) { write_file(run() / "analysis_settings.dat", content); }
  void settings(int time_step, int cycle_num, int num_subprojects) {
    settings("time_step=\n" + std::to_string(time_step) + "\ncycle_num=\n" + std::to_string(cycle_num) +
             "\nnum_subprojects=\n" + std::to_string(num_subprojects) + "\n");
  }

  // Project directories 0 to `last`, each with its interaction record and a
  // go2.dat that reports done.
  void projects(int last, const std::string& record = "launch.sh") {
    std::filesystem::create_directories(run());
    for (int index = 0; index <= last; ++index) {
      write_file(project(index) / "CalculateInteraction.dat", record + "\n");
      write_file(project(index) / "go2.dat", "0\n");
    }
  }

  Exit lockstep() const { return run_program({LOCKSTEP_BINARY}, run()); }

 private:
  TempDir root_;
};

}  // namespace lockstep::testing
