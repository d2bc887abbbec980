// The driver stepping run trees whose projects are played by fake_project.
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

#include "handshake/go_files.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using handshake::cycle_end_record;
using handshake::reset_record;
using handshake::stage_record;

// Logs its arguments and what the main project's go2.dat holds at launch.
constexpr const char* kLaunchScript =
    "#!/bin/sh\n"
    "echo \"$0 $# $1 $2 $3 $4 $(cat ../main/go2.dat)\" >> launches.log\n";

std::string progress(int k, int t, int s) {
  char line[64];
  std::snprintf(line, sizeof line, "cycle=%4d      time step=%5d      runge-kutta step=%2d\n", k, t, s);
  return line;
}

class RunProgramTest : public ::testing::Test {
 protected:
  void projects(int last) {
    tree.projects(last);
    tree.launch_script(last, kLaunchScript);
  }

  RunTree tree;
  Players players{tree};
};

TEST_F(RunProgramTest, TwoCyclesOfOneTimeStepWithTwelveSubProjects) {
  constexpr int kLast = 12;
  projects(kLast);
  tree.settings(1, 2, kLast);
  players.play(0, kLast, 10);
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  EXPECT_EQ(exit.err, "");
  players.finish();

  std::string expected_out;
  std::string expected_requests;
  std::string expected_launches;
  for (int k = 1; k <= 2; ++k) {
    for (int s = 1; s <= 4; ++s) {
      expected_out += progress(k, 1, s);
      expected_requests += stage_record(k, 1, s);
      for (int index = 0; index <= kLast; ++index) {
        const std::string directory = index == 0 ? "main" : "sub" + std::to_string(index);
        expected_launches += "../" + directory + "/launch.sh 4 " + std::to_string(index) + " " +
                             std::to_string(k) + " 1 " + std::to_string(s) + " 0\n";
      }
    }
    expected_out += progress(k, 2, 1);
    expected_requests += cycle_end_record(k);
  }
  EXPECT_EQ(exit.out, expected_out);
  EXPECT_EQ(read_file(tree.run() / "launches.log"), expected_launches);
  for (int index = 0; index <= kLast; ++index) {
    EXPECT_EQ(read_file(tree.project(index) / "requests.log"), expected_requests) << "project " << index;
    EXPECT_EQ(read_file(tree.project(index) / "go.dat"), cycle_end_record(2));
  }
}

TEST_F(RunProgramTest, TimeStepZeroSendsOnlyCycleEnds) {
  projects(1);
  tree.settings(0, 2, 1);
  players.play(0, 1, 2);
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  players.finish();
  EXPECT_EQ(exit.out, progress(1, 1, 1) + progress(2, 1, 1));
  EXPECT_EQ(read_file(tree.project(1) / "requests.log"), cycle_end_record(1) + cycle_end_record(2));
  EXPECT_FALSE(std::filesystem::exists(tree.run() / "launches.log"));
}

TEST_F(RunProgramTest, NothingToRun) {
  struct Case {
    const char* name;
    int time_step;
    int cycle_num;
    bool sub1_missing;
    int status;
  };
  const Case cases[] = {
      {"no cycles", 1, 0, false, 0},
      {"negative cycles", 1, -3, false, 0},
      {"time step -1", -1, 5, false, 0},
      {"no cycles, interaction files still read", 1, 0, true, 29},
      {"time step -1, interaction files still read", -1, 5, true, 29},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree run_tree;
    run_tree.projects(c.sub1_missing ? 0 : 1);
    run_tree.settings(c.time_step, c.cycle_num, 1);
    const Exit exit = run_tree.lockstep();
    EXPECT_EQ(exit.status, c.status);
    EXPECT_EQ(exit.out, "");
    EXPECT_FALSE(std::filesystem::exists(run_tree.project(0) / "go.dat"));
    EXPECT_EQ(read_file(run_tree.project(0) / "go2.dat"), "0\n");
    EXPECT_FALSE(std::filesystem::exists(run_tree.run() / "launches.log"));
  }
}

TEST_F(RunProgramTest, EndsWithoutWaitingForTheLastCycleEnd) {
  // Nobody plays the projects: only the first wait can pass.
  projects(1);
  tree.settings(0, 1, 1);
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  EXPECT_EQ(read_file(tree.project(1) / "go.dat"), cycle_end_record(1));
  EXPECT_EQ(read_file(tree.project(1) / "go2.dat"), reset_record());
}

TEST_F(RunProgramTest, ReadinessSumsDoneValues) {
  const std::vector<std::vector<std::string>> ready = {{"3\n", "-3\n"}, {"/\n", "1\n"}, {"0 5 7\n", "0\n"}};
  for (const auto& done : ready) {
    SCOPED_TRACE(done.front());
    RunTree run_tree;
    run_tree.projects(1);
    run_tree.settings(0, 1, 1);
    for (int index = 0; index <= 1; ++index) write_file(run_tree.project(index) / "go2.dat", done[index]);
    const Exit exit = run_tree.lockstep();
    EXPECT_EQ(exit.status, 0);
    EXPECT_EQ(read_file(run_tree.project(0) / "go.dat"), cycle_end_record(1));
  }
}

TEST_F(RunProgramTest, WaitsOutAGo2ThatIsMissingEmptyOrGarbage) {
  for (const char* content : {"<missing>", "", "garbage\n"}) {
    SCOPED_TRACE(content);
    RunTree run_tree;
    run_tree.projects(0);
    run_tree.settings(0, 1, 0);
    const auto go2 = run_tree.project(0) / "go2.dat";
    if (std::string(content) == "<missing>") {
      std::filesystem::remove(go2);
    } else {
      write_file(go2, content);
    }
    Background driver({LOCKSTEP_BINARY}, run_tree.run());
    EXPECT_FALSE(driver.wait(std::chrono::seconds(0)));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(std::filesystem::exists(run_tree.project(0) / "go.dat")) << "the driver did not wait";
    write_file(go2, "0\n");
    int status = -1;
    ASSERT_TRUE(driver.wait(std::chrono::seconds(30), &status));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(run_tree.project(0) / "go.dat"), cycle_end_record(1));
  }
}

TEST_F(RunProgramTest, InteractionFileFailures) {
  struct Case {
    const char* name;
    int status;
    std::string message;
    int failing_project;
  };
  const Case cases[] = {
      {"file missing", 24, "end-of-file during read", 1},
      {"file empty", 24, "end-of-file during read", 1},
      {"directory missing", 29, "file not found", 2},
      {"directory is a file", 43, "file name specification error", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree run_tree;
    run_tree.projects(1);
    run_tree.settings(1, 1, 2);
    const auto file = run_tree.project(1) / "CalculateInteraction.dat";
    const std::string name = c.name;
    if (name == "file missing") std::filesystem::remove(file);
    if (name == "file empty") write_file(file, "");
    if (name == "directory is a file") {
      std::filesystem::remove_all(run_tree.project(1));
      write_file(run_tree.project(1), "");
    }
    const Exit exit = run_tree.lockstep();
    EXPECT_EQ(exit.status, c.status);
    const std::string dir = c.failing_project == 1 ? "sub1" : "sub2";
    EXPECT_EQ(exit.first_error_line(), "recio: severe (" + std::to_string(c.status) + "): " + c.message +
                                           ", unit 10, file " + std::filesystem::canonical(run_tree.run()).string() +
                                           "/../" + dir + "/CalculateInteraction.dat");
    if (name == "file missing") {
      EXPECT_EQ(read_file(file), "") << "the empty file stays behind";
    }
    EXPECT_FALSE(std::filesystem::exists(run_tree.project(0) / "go.dat"));
  }
}

TEST_F(RunProgramTest, UnreadableInteractionFileIsPermissionDenied) {
  // Root is never denied, so the driver runs as nobody then.
  projects(0);
  tree.settings(1, 1, 0);
  const auto file = tree.project(0) / "CalculateInteraction.dat";
  std::filesystem::permissions(file, std::filesystem::perms::none);
  std::vector<std::string> argv = {LOCKSTEP_BINARY};
  if (geteuid() == 0) {
    if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv is needed to run as another user";
    argv.insert(argv.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  }
  const Exit exit = run_program(argv, tree.run());
  EXPECT_EQ(exit.status, 9) << exit.err;
  EXPECT_EQ(exit.first_error_line(), "recio: severe (9): permission to access file denied, unit 10, file " +
                                         std::filesystem::canonical(tree.run()).string() +
                                         "/../main/CalculateInteraction.dat");
}

TEST_F(RunProgramTest, HundredSubProjectsShareTheStarDirectory) {
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

TEST_F(RunProgramTest, MoreThanHundredSubProjectsIsRefusedBeforeAnyProjectFile) {
  tree.projects(0);
  std::filesystem::remove(tree.project(0) / "CalculateInteraction.dat");
  tree.settings(1, 1, 101);
  const Exit exit = tree.lockstep();
  EXPECT_EQ(exit.status, 2);
  EXPECT_EQ(exit.err, "lockstep: num_subprojects is 101 in analysis_settings.dat; the limit is 100\n");
  EXPECT_EQ(exit.out, "");
  EXPECT_FALSE(std::filesystem::exists(tree.project(0) / "CalculateInteraction.dat"));
  EXPECT_FALSE(std::filesystem::exists(tree.project(0) / "go.dat"));
}

}  // namespace
}  // namespace lockstep::testing
