// The driver against faults in the run tree while it runs.
#include <gtest/gtest.h>

#include <thread>

#include "handshake/go_files.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using handshake::stage_record;

bool wait_for(const std::function<bool()>& condition, std::chrono::seconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

TEST(FaultTest, ProjectDirectoryRemovedAndRestoredLosesNothing) {
  RunTree tree;
  tree.projects(1);
  // Before the go files of stage (1, 2, 1) are written, sub 1's directory
  // goes away.
  tree.launch_script(1, "#!/bin/sh\n[ \"$1 $2 $3 $4\" = \"0 1 2 1\" ] && mv ../sub1 ../sub1.away\nexit 0\n");
  tree.settings(2, 1, 1);
  Players players(tree);
  players.play(0, 1, 9);
  std::thread restore([&] {
    const auto away = tree.run() / "../sub1.away";
    ASSERT_TRUE(wait_for([&] { return std::filesystem::exists(away); }, std::chrono::seconds(60)));
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

TEST(FaultTest, InteractionProgramsThatCrashHangOrAreMissing) {
  RunTree tree;
  tree.projects(2);
  tree.launch_script(0, "#!/bin/sh\nkill -SEGV $$\n");
  tree.launch_script(1, "#!/bin/sh\n[ \"$4\" = 2 ] && sleep 0.3\nexit 7\n");
  write_file(tree.project(2) / "CalculateInteraction.dat", "missing.sh\n");
  tree.settings(2, 2, 2);
  Players players(tree);
  players.play(0, 2, 18);
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  players.finish();
  for (int index = 0; index <= 2; ++index) {
    EXPECT_EQ(read_file(tree.project(index) / "requests.log"), all_requests(2, 2)) << "project " << index;
  }
}

TEST(FaultTest, SettingsAndInteractionFilesChangedDuringTheRunHaveNoEffect) {
  RunTree tree;
  tree.projects(1);
  tree.launch_script(1,
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

TEST(FaultTest, AProjectThatNeverAnswersHoldsTheRunAndStatusNamesIt) {
  RunTree tree;
  tree.projects(1);
  tree.launch_script(1, "#!/bin/sh\n");
  tree.settings(1, 1, 1);
  Players players(tree);
  players.play(0, 0, 5);
  Background driver({LOCKSTEP_BINARY}, tree.run());
  // The driver hands out the first request and then waits for sub 1.
  ASSERT_TRUE(wait_for([&] { return read_file(tree.project(0) / "requests.log") != ""; }, std::chrono::seconds(30)));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(driver.wait(std::chrono::seconds(0)));
  const Exit status = run_program({LOCKSTEPCTL_BINARY, "status", "."}, tree.run());
  EXPECT_NE(status.out.find("request: cycle 1, time step 1, stage 1\n"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("\nwaiting for: sub1\n"), std::string::npos) << status.out;
  EXPECT_EQ(read_file(tree.project(0) / "requests.log"), stage_record(1, 1, 1));
}

}  // namespace
}  // namespace lockstep::testing
