// The driver's start-up against settings files that it must refuse: its
// exit status, its messages, and no project file touched.
#include <gtest/gtest.h>

#include "run_tree.h"

namespace lockstep::testing {
namespace {

TEST(SettingsProgramTest, RefusedSettingsTouchNoProjectFile) {
  struct Case {
    const char* name;
    std::string settings;  // "<none>": no file; "<directory>": a directory in its place
    int status;
    std::string err;  // "%s" stands for the settings file's full path
    std::string out = {};
  };
  const Case cases[] = {
      {"missing file", "<none>", 24,
       "recio: severe (24): end-of-file during read, unit 23, file %s\n"
       "    in fixed-width text read, record 1\n"
       "    in settings reader, key \"time_step=\"\n"
       "    in run start-up\n"},
      {"key past the search limit", "cycle_num=\n1\nnum_subprojects=\n0\n" + std::string(20000, '\n'), 0, "",
       " Parameter reading failed!\n"},
      {"malformed value", "time_step=\n4.0\n", 59, "recio: severe (59): list-directed I/O syntax error, unit 23, file %s"},
      {"directory in its place", "<directory>", 30, "recio: severe (30): open failure, unit 23, file %s"},
      {"more than 100 sub projects", "time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n101\n", 2,
       "lockstep: num_subprojects is 101 in analysis_settings.dat; the limit is 100\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree tree;
    tree.projects(0);
    std::filesystem::remove(tree.project(0) / "CalculateInteraction.dat");
    if (c.settings == "<directory>") {
      std::filesystem::create_directory(tree.run() / "analysis_settings.dat");
    } else if (c.settings != "<none>") {
      tree.settings(c.settings);
    }
    const Exit exit = tree.lockstep();
    EXPECT_EQ(exit.status, c.status);
    std::string expected_error = c.err;
    if (const auto at = expected_error.find("%s"); at != std::string::npos) {
      expected_error.replace(at, 2, tree.settings_path());
    }
    EXPECT_EQ(expected_error.find('\n') == std::string::npos ? exit.first_error_line() : exit.err, expected_error);
    EXPECT_EQ(exit.out, c.out);
    EXPECT_TRUE(std::filesystem::exists(tree.run() / "analysis_settings.dat"));  // created when missing
    EXPECT_FALSE(std::filesystem::exists(tree.project(0) / "CalculateInteraction.dat"));
    EXPECT_FALSE(std::filesystem::exists(tree.project(0) / "go.dat"));
    EXPECT_EQ(read_file(tree.project(0) / "go2.dat"), "0\n");
  }
}

}  // namespace
}  // namespace lockstep::testing
