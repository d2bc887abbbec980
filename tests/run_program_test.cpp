// The driver stepping run trees whose projects are played by fake_project.
#include <gtest/gtest.h>

#include <functional>

#include "handshake/go_files.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using handshake::cycle_end_record;
using handshake::reset_record;

std::string progress(int k, int t, int s) {
  char line[64];
  std::snprintf(line, sizeof line, "cycle=%4d      time step=%5d      runge-kutta step=%2d\n", k, t, s);
  return line;
}

// The launch script logs its arguments and what main's go2.dat holds then.
TEST(RunProgramTest, TwoCyclesOfOneTimeStepWithTwelveSubProjects) {
  constexpr int kLast = 12;
  RunTree tree;
  tree.projects(kLast);
  tree.launch_script(kLast, "#!/bin/sh\necho \"$0 $# $1 $2 $3 $4 $(cat ../main/go2.dat)\" >> launches.log\n");
  tree.settings(1, 2, kLast);
  Players players(tree);
  players.play(0, kLast, 10);
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  EXPECT_EQ(exit.err, "");
  players.finish();

  std::string expected_out;
  std::string expected_launches;
  for (int k = 1; k <= 2; ++k) {
    for (int s = 1; s <= 4; ++s) {
      expected_out += progress(k, 1, s);
      for (int index = 0; index <= kLast; ++index) {
        expected_launches += "../" + tree.project(index).filename().string() + "/launch.sh 4 " +
                             std::to_string(index) + " " + std::to_string(k) + " 1 " + std::to_string(s) + " 0\n";
      }
    }
    expected_out += progress(k, 2, 1);
  }
  EXPECT_EQ(exit.out, expected_out);
  EXPECT_EQ(read_file(tree.run() / "launches.log"), expected_launches);
  for (int index = 0; index <= kLast; ++index) {
    EXPECT_EQ(read_file(tree.project(index) / "requests.log"), all_requests(2, 1)) << "project " << index;
    EXPECT_EQ(read_file(tree.project(index) / "go.dat"), cycle_end_record(2));
  }
}

// Runs that end at start-up or after one cycle end: nothing asked of the
// projects but what the schedule holds, the interaction files read first.
TEST(StartUpTest, EmptySchedulesAndUnreadableInteractionFiles) {
  struct Case {
    const char* name;
    int time_step, cycle_num;
    std::function<void(RunTree&)> plant;
    int status;
    std::string first_error;  // "%s" stands for the failing interaction file's full path
    std::string out = {};
    std::string go = {};  // main's, "" when none was written
  };
  const auto interaction = [](RunTree& t) { return t.project(1) / "CalculateInteraction.dat"; };
  const Case cases[] = {
      {"no cycles", 1, 0, [](RunTree&) {}, 0, ""},
      {"negative cycles", 1, -3, [](RunTree&) {}, 0, ""},
      {"time step -1", -1, 5, [](RunTree&) {}, 0, ""},
      {"one cycle end, not waited for", 0, 1, [](RunTree&) {}, 0, "", progress(1, 1, 1), cycle_end_record(1)},
      {"no cycles, sub 2's directory missing", 1, 0, [](RunTree& t) { std::filesystem::remove_all(t.project(2)); },
       29, "recio: severe (29): file not found, unit 10, file %s/../sub2/CalculateInteraction.dat"},
      {"interaction file missing", 1, 1, [&](RunTree& t) { std::filesystem::remove(interaction(t)); }, 24,
       "recio: severe (24): end-of-file during read, unit 10, file %s/../sub1/CalculateInteraction.dat"},
      {"project directory is a file", 1, 1,
       [](RunTree& t) {
         std::filesystem::remove_all(t.project(1));
         write_file(t.project(1), "");
       },
       43, "recio: severe (43): file name specification error, unit 10, file %s/../sub1/CalculateInteraction.dat"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree tree;
    tree.projects(2);
    tree.settings(c.time_step, c.cycle_num, 2);
    c.plant(tree);
    const Exit exit = tree.lockstep();
    EXPECT_EQ(exit.status, c.status);
    std::string first_error = c.first_error;
    if (const auto at = first_error.find("%s"); at != std::string::npos) {
      first_error.replace(at, 2, std::filesystem::canonical(tree.run()).string());
    }
    EXPECT_EQ(exit.first_error_line(), first_error);
    EXPECT_EQ(exit.out, c.out);
    EXPECT_EQ(read_file(tree.project(0) / "go.dat"), c.go);
    EXPECT_EQ(read_file(tree.project(0) / "go2.dat"), c.go.empty() ? "0\n" : reset_record());
    EXPECT_FALSE(std::filesystem::exists(tree.run() / "launches.log"));
  }
}

TEST(RunProgramTest, HundredSubProjectsShareTheStarDirectory) {
  RunTree tree;
  tree.projects(99);
  write_file(tree.run() / "../sub**/CalculateInteraction.dat", "p\n");
  write_file(tree.run() / "../sub**/go2.dat", "0\n");
  tree.settings(0, 1, 100);
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  EXPECT_EQ(read_file(tree.run() / "../sub**/go.dat"), cycle_end_record(1));
  EXPECT_EQ(read_file(tree.run() / "../sub**/go2.dat"), reset_record());
  EXPECT_EQ(read_file(tree.project(99) / "go.dat"), cycle_end_record(1));
}

}  // namespace
}  // namespace lockstep::testing
