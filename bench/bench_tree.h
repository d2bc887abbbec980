// Run trees for the benchmarks: projects with a no-op interaction program,
// answered by one responder process for as long as the tree lives.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "process.h"

namespace lockstep::bench {

class BenchTree {
 public:
  // `subprojects` sub projects beside the main one; `done` is what every
  // go2.dat holds at the start; responders only when `answered`.
  BenchTree(int subprojects, const std::string& settings, bool answered = true, const std::string& done = "0\n");

  std::filesystem::path run() const { return root_.path() / "run"; }
  std::filesystem::path project(int index) const;
  int subprojects() const { return subprojects_; }

 private:
  testing::TempDir root_;
  int subprojects_;
  std::unique_ptr<testing::Background> responder_;
};

// Runs a program in the run directory to its end, its output discarded;
// returns the seconds it took.
// Writes `record` into a go file in place, as the driver does.
void replace(const std::string& path, const std::string& record);
// True when the go2.dat at `path` reports done.
bool done(const std::string& path);

double timed_run(const std::vector<std::string>& argv, const std::filesystem::path& directory);

}  // namespace lockstep::bench
