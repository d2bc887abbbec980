// The driver's start-up against settings files that it must refuse.
#include <gtest/gtest.h>

#include "run_tree.h"

namespace lockstep::testing {
namespace {

std::string lines(int count, const std::string& line = "x") {
  std::string text;
  for (int i = 0; i < count; ++i) text += line + "\n";
  return text;
}

// Four lines.
const std::string kRestOfSettings = "cycle_num=\n0\nnum_subprojects=\n0\n";

TEST(SettingsProgramTest, FailureTable) {
  struct Case {
    const char* name;
    std::string settings;  // "<none>": no file; "<directory>": a directory in its place
    int status;
    std::string first_error;  // "%s" stands for the settings file's full path
    std::string out;
  };
  const std::string eof = "recio: severe (24): end-of-file during read, unit 23, file %s";
  const Case cases[] = {
      {"missing file", "<none>", 24, eof, ""},
      {"key absent, short file", "cycle_num=\n1\n", 24, eof, ""},
      {"10,000 lines without the key", lines(10000), 0, "", " Parameter reading failed!\n"},
      {"9,999 lines without the key", lines(9999), 24, eof, ""},
      {"key at line 10,000", kRestOfSettings + lines(9995) + "time_step=\n1\n", 0, "", ""},
      {"key at line 10,001", kRestOfSettings + lines(9996) + "time_step=\n1\n", 0, "",
       " Parameter reading failed!\n"},
      {"malformed value", "time_step=\n4.0\n", 59,
       "recio: severe (59): list-directed I/O syntax error, unit 23, file %s", ""},
      {"null value", "time_step=\n,\n", 59, "recio: severe (59): list-directed I/O syntax error, unit 23, file %s",
       ""},
      {"value out of range", "time_step=\n2147483648\n", 64,
       "recio: severe (64): input conversion error, unit 23, file %s", ""},
      {"directory in its place", "<directory>", 30, "recio: severe (30): open failure, unit 23, file %s", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree tree;
    tree.projects(0);
    if (c.settings == "<directory>") {
      std::filesystem::create_directory(tree.run() / "analysis_settings.dat");
    } else if (c.settings != "<none>") {
      tree.settings(c.settings);
    }
    const Exit exit = tree.lockstep();
    EXPECT_EQ(exit.status, c.status);
    std::string expected_error = c.first_error;
    if (const auto at = expected_error.find("%s"); at != std::string::npos) {
      expected_error.replace(at, 2, tree.settings_path());
    }
    EXPECT_EQ(exit.first_error_line(), expected_error);
    EXPECT_EQ(exit.out, c.out);
    // Whatever happened, no project file was touched.
    EXPECT_FALSE(std::filesystem::exists(tree.project(0) / "go.dat"));
    EXPECT_EQ(read_file(tree.project(0) / "go2.dat"), "0\n");
  }
}

TEST(SettingsProgramTest, MissingFileIsCreatedEmptyAndTheTrailNamesTheSteps) {
  RunTree tree;
  tree.projects(0);
  const Exit exit = tree.lockstep();
  EXPECT_EQ(exit.status, 24);
  EXPECT_EQ(read_file(tree.run() / "analysis_settings.dat"), "");
  EXPECT_EQ(exit.err, "recio: severe (24): end-of-file during read, unit 23, file " + tree.settings_path() +
                          "\n"
                          "    in fixed-width text read, record 1\n"
                          "    in settings reader, key \"time_step=\"\n"
                          "    in run start-up\n");
}

}  // namespace
}  // namespace lockstep::testing
