// The driver against faults in the run tree while it runs.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <thread>

#include "handshake/go_files.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using handshake::stage_record;

TEST(FaultTest, ProjectDirectoryRemovedAndRestoredLosesNothing) {
  RunTree tree;
  // Before the go files of stage (1, 2, 1) are written, sub 1's directory
  // goes away.
  tree.projects(1, "#!/bin/sh\n[ \"$1 $2 $3 $4\" = \"0 1 2 1\" ] && mv ../sub1 ../sub1.away\nexit 0\n");
  tree.settings(2, 1, 1);
  Players players(tree);
  players.play(0, 1, 9);
  std::thread restore([&] {
    const auto away = tree.run() / "../sub1.away";
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(away); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    std::filesystem::rename(away, tree.project(1));
  });
  const Exit exit = tree.lockstep();
  restore.join();
  ASSERT_EQ(exit.status, 0) << exit.err;
  players.finish();
  // One line when the failure has lasted a second, one when it ends; the
  // shell's complaint about sub 1's missing program comes before them.
  const std::size_t failing = exit.err.find(
      "\nlockstep: cannot write ../sub1/go.dat: No such file or directory; retrying until it can be written\n"
      "lockstep: wrote ../sub1/go.dat again after 1.");
  EXPECT_NE(failing, std::string::npos) << exit.err;
  EXPECT_EQ(exit.err.find("lockstep:"), failing + 1) << exit.err;
  for (int index = 0; index <= 1; ++index) {
    EXPECT_EQ(read_file(tree.project(index) / "requests.log"), all_requests(1, 2)) << "project " << index;
  }
}

TEST(FaultTest, SettingsAndInteractionFilesChangedDuringTheRunHaveNoEffect) {
  RunTree tree;
  tree.projects(1,
                     "#!/bin/sh\n"
                     "echo \"$0 $1\" >> launches.log\n"
                     "printf 'time_step=\\n9\\ncycle_num=\\n9\\nnum_subprojects=\\n0\\n' > analysis_settings.dat\n"
                     "echo other.sh > ../main/CalculateInteraction.dat\n");
  tree.settings(1, 2, 1);
  Players players(tree);
  players.play(0, 1, 10);
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  players.finish();
  EXPECT_EQ(std::count(exit.out.begin(), exit.out.end(), '\n'), 10);
  std::string launches;
  for (int stage = 0; stage < 8; ++stage) launches += "../main/launch.sh 0\n../sub1/launch.sh 1\n";
  EXPECT_EQ(read_file(tree.run() / "launches.log"), launches);
}

// Nobody plays sub 1: the driver waits for it, and status names it, how long
// it has held the run, and where the run stands.
TEST(FaultTest, AProjectThatNeverAnswersHoldsTheRunAndStatusNamesIt) {
  RunTree tree;
  tree.projects(1, "#!/bin/sh\n");
  tree.settings(1, 1, 1);
  Players players(tree);
  players.play(0, 0, 5);
  Background driver({LOCKSTEP_BINARY}, tree.run());
  ASSERT_TRUE(wait_until([&] {
    return !read_file(tree.project(0) / "requests.log").empty() && read_file(tree.project(0) / "go2.dat") == "0\n";
  }));
  // Reset 90 seconds ago, as status sees it.
  const auto held = tree.project(1) / "go2.dat";
  const timespec times[2] = {{time(nullptr) - 90, 0}, {time(nullptr) - 90, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, held.c_str(), times, 0), 0);
  const Exit status = run_program({LOCKSTEPCTL_BINARY, "status", "."}, tree.run());
  EXPECT_FALSE(driver.wait(std::chrono::seconds(0)));
  EXPECT_THAT(status.out, HasSubstr("\nlockstep: running (PID " + std::to_string(driver.pid()) + ")\n"));
  EXPECT_THAT(status.out, HasSubstr("request: cycle 1, time step 1, stage 1\n"
                                    "position: cycle 1 of 1, time step 1 of 1, stage 1 of 4; 0 of 5 stages done\n"));
  const std::string held_row = "main    yes\nsub1    no      ";
  const std::size_t row = status.out.find(held_row);
  ASSERT_NE(row, std::string::npos) << status.out;
  const double held_for = std::strtod(status.out.c_str() + row + held_row.size(), nullptr);
  EXPECT_GE(held_for, 90.0);
  EXPECT_LT(held_for, 150.0);
  EXPECT_THAT(status.out, HasSubstr("\nwaiting for: sub1\n"));
  EXPECT_EQ(read_file(tree.project(0) / "requests.log"), stage_record(1, 1, 1));
}

}  // namespace
}  // namespace lockstep::testing
