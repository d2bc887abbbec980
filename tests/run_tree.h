// A run tree in a temporary directory: "run/" where the driver works, and
// "main/", "sub1/", ... beside it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "handshake/go_files.h"
#include "process.h"

namespace lockstep::testing {

using ::testing::HasSubstr;

// Every request one project receives in a run of `cycles` cycles of
// `time_steps` time steps, in order, each as `line` writes it.
template <typename Line>
std::string each_request(int cycles, int time_steps, Line line) {
  std::string all;
  for (int k = 1; k <= cycles; ++k) {
    for (int t = 1; t <= time_steps; ++t) {
      for (int s = 1; s <= 4; ++s) all += line(k, t, s);
    }
    all += line(k, -1, 5);
  }
  return all;
}

// Every request of such a run as go.dat holds it.
inline std::string all_requests(int cycles, int time_steps) {
  return each_request(cycles, time_steps, [](int k, int t, int s) {
    return t == -1 ? handshake::cycle_end_record(k) : handshake::stage_record(k, t, s);
  });
}

// analysis_settings.dat holding these values.
inline std::string settings_text(int time_step, int cycle_num, int num_subprojects) {
  return "time_step=\n" + std::to_string(time_step) + "\ncycle_num=\n" + std::to_string(cycle_num) +
         "\nnum_subprojects=\n" + std::to_string(num_subprojects) + "\n";
}

class RunTree {
 public:
  std::filesystem::path run() const { return root_.path() / "run"; }
  std::filesystem::path project(int index) const {
    return root_.path() / (index == 0 ? std::string("main") : "sub" + std::to_string(index));
  }
  void settings(const std::string& content) { write_file(run() / "analysis_settings.dat", content); }
  void settings(int time_step, int cycle_num, int num_subprojects) {
    settings(settings_text(time_step, cycle_num, num_subprojects));
  }

  // Project directories 0 to `last`, each with its interaction record naming
  // `program`, a go2.dat that reports done and, unless `script` is empty,
  // `script` as that program.
  void projects(int last, const std::string& script = "", const std::string& program = "launch.sh") {
    std::filesystem::create_directories(run());
    for (int index = 0; index <= last; ++index) {
      write_file(project(index) / "CalculateInteraction.dat", program + "\n");
      write_file(project(index) / "go2.dat", "0\n");
      if (script.empty()) continue;
      write_file(project(index) / program, script);
      make_executable(project(index) / program);
    }
  }

  Exit lockstep() const { return run_program({LOCKSTEP_BINARY}, run()); }

 private:
  TempDir root_;
};

// lockstepctl agent serving `directory` with a shell command; its
// arguments are the request's numbers.
inline std::vector<std::string> agent(const std::filesystem::path& directory, const std::vector<std::string>& options,
                                      const std::string& shell_command) {
  std::vector<std::string> argv = {LOCKSTEPCTL_BINARY, "agent", "--dir", directory.string()};
  argv.insert(argv.end(), options.begin(), options.end());
  argv.insert(argv.end(), {"--", "/bin/sh", "-c", shell_command, "sh"});
  return argv;
}

// Logs the request's numbers, passed as arguments, when the environment
// says the same and the command runs in the project directory.
inline const std::string kLogCommand =
    "[ \"$1 $2 $3 $PWD\" = \"$LOCKSTEP_CYCLE $LOCKSTEP_TIME_STEP $LOCKSTEP_STAGE $LOCKSTEP_PROJECT_DIR\" ] && "
    "echo \"$1 $2 $3\" >> \"$LOCKSTEP_PROJECT_DIR/agent.log\"";

// Every request of such a run as kLogCommand logs it.
inline std::string schedule(int cycles, int time_steps) {
  return each_request(cycles, time_steps, [](int k, int t, int s) {
    return std::to_string(k) + " " + std::to_string(t) + " " + std::to_string(s) + "\n";
  });
}

// The projects of a tree played by fake_project, each logging the requests
// it served to requests.log in its directory, or served by agents.
class Players {
 public:
  explicit Players(const RunTree& tree) : tree_(tree) {}

  // Projects first to last, `requests` requests each; `options` go to every
  // player, "--rename" to the odd ones unless `options` are given.
  void play(int first, int last, int requests, std::vector<std::string> options = {}) {
    for (int index = first; index <= last; ++index) {
      std::vector<std::string> argv = {FAKE_PROJECT_BINARY, tree_.project(index).string(),
                                       (tree_.project(index) / "requests.log").string(), std::to_string(requests)};
      if (options.empty() && index % 2 == 1) argv.push_back("--rename");
      for (const std::string& option : options) argv.push_back(option == "SEED" ? std::to_string(index) : option);
      players_.push_back(std::make_unique<Background>(argv, tree_.run()));
    }
  }
  void agent(int index, const std::vector<std::string>& options, const std::string& shell_command) {
    players_.push_back(std::make_unique<Background>(testing::agent(tree_.project(index), options, shell_command), tree_.run()));
  }

  // Every player has ended by itself, with status 0.
  void finish() {
    for (auto& player : players_) EXPECT_EQ(player->wait(kStall), 0);
  }

 private:
  const RunTree& tree_;
  std::vector<std::unique_ptr<Background>> players_;
};

}  // namespace lockstep::testing
