// The driver stepping run trees, from start-up to the end of the run.
#include <gtest/gtest.h>

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

// The launch script logs its arguments and what main's go2.dat holds then,
// and rewrites the settings and main's interaction file: the driver read
// them once, at the start.
TEST(RunProgramTest, TwoCyclesOfOneTimeStepWithTwelveSubProjects) {
  constexpr int kLast = 12;
  RunTree tree;
  tree.projects(kLast,
                "#!/bin/sh\necho \"$0 $# $1 $2 $3 $4 $(cat ../main/go2.dat)\" >> launches.log\n"
                "printf 'time_step=\\n9\\ncycle_num=\\n9\\nnum_subprojects=\\n0\\n' > analysis_settings.dat\n"
                "echo other.sh > ../main/CalculateInteraction.dat\n");
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

// Runs that end at start-up or after one cycle end: settings refused, an
// empty schedule, an interaction file that cannot be read. Nothing is asked
// of the projects beyond the schedule, and an endless settings file does
// not fill the driver's memory.
TEST(StartUpTest, RefusedSettingsEmptySchedulesAndUnreadableInteractionFiles) {
  struct Case {
    const char* name;
    std::string settings;  // planted as analysis_settings.dat
    int status;
    std::string err;  // its first line, or all of it when it has several; "%s": the run directory's full path
    std::string out = {};
    std::string path = {}, content = {};  // planted in the tree as well
    std::string go = {};  // main's, "" when none was written
  };
  const auto schedule = [](int time_step, int cycle_num) { return settings_text(time_step, cycle_num, 2); };
  const std::string settings_file = " unit 23, file %s/analysis_settings.dat";
  const std::string interaction_file = " unit 10, file %s/../sub1/CalculateInteraction.dat";
  const Case cases[] = {
      {"settings missing", "<missing>", 24,
       "recio: severe (24): end-of-file during read," + settings_file +
           "\n    in fixed-width text read, record 1\n    in settings reader, key \"time_step=\"\n    in run start-up\n"},
      {"key past the search limit", "cycle_num=\n1\nnum_subprojects=\n0\n" + std::string(20000, '\n'), 0, "",
       " Parameter reading failed!\n"},
      {"settings a directory", "<directory>", 30, "recio: severe (30): open failure," + settings_file},
      {"settings an endless device", "-> /dev/zero", 39, "recio: severe (39): error during read," + settings_file},
      {"more than 100 sub projects", settings_text(1, 1, 101), 2,
       "lockstep: num_subprojects is 101 in analysis_settings.dat; the limit is 100\n"},
      {"no cycles", schedule(1, 0), 0, ""},
      {"negative cycles", schedule(1, -3), 0, ""},
      {"time step -1", schedule(-1, 5), 0, ""},
      {"one cycle end, not waited for", schedule(0, 1), 0, "", progress(1, 1, 1), "", "", cycle_end_record(1)},
      {"100 sub projects allowed, sub 3's directory missing", settings_text(1, 0, 100), 29,
       "recio: severe (29): file not found, unit 10, file %s/../sub3/CalculateInteraction.dat"},
      {"interaction file missing", schedule(1, 1), 24, "recio: severe (24): end-of-file during read," + interaction_file,
       "", "sub1/CalculateInteraction.dat", "<missing>"},
      {"project directory is a file", schedule(1, 1), 43,
       "recio: severe (43): file name specification error," + interaction_file, "", "sub1", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree tree;
    tree.projects(2);
    plant(tree.run() / "analysis_settings.dat", c.settings);
    if (!c.path.empty()) plant(tree.run().parent_path() / c.path, c.content);
    const Exit exit = tree.lockstep();
    EXPECT_EQ(exit.status, c.status);
    std::string err = c.err;
    if (const auto at = err.find("%s"); at != std::string::npos) {
      err.replace(at, 2, std::filesystem::canonical(tree.run()).string());
    }
    EXPECT_EQ(err.find('\n') == std::string::npos ? exit.err.substr(0, exit.err.find('\n')) : exit.err, err);
    EXPECT_EQ(exit.out, c.out);
    EXPECT_LT(exit.max_rss_kib, 400 * 1024);
    EXPECT_TRUE(std::filesystem::exists(tree.run() / "analysis_settings.dat"));  // created when missing
    EXPECT_EQ(read_file(tree.project(0) / "go.dat"), c.go);
    EXPECT_EQ(read_file(tree.project(0) / "go2.dat"), c.go.empty() ? "0\n" : reset_record());
  }
}

}  // namespace
}  // namespace lockstep::testing
