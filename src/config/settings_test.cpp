#include "config/settings.h"

#include <gtest/gtest.h>

#include "config/interaction.h"
#include "memory_file_system.h"

namespace lockstep::config {
namespace {

constexpr const char* kFile = "analysis_settings.dat";

struct Read {
  int code;
  std::optional<Settings> settings;
  records::Status status;
};

Read read(testing::MemoryFileSystem& fs) {
  std::optional<Settings> settings;
  records::Status status = read_settings(fs, settings);
  return {status.code(), settings, status};
}

TEST(SettingsTest, ValuesFollowTheirKeyLines) {
  struct Case {
    const char* name;
    std::string content;
    Settings expected;
  };
  const Case cases[] = {
      {"one per line", "time_step=\n200\ncycle_num=\n3\nnum_subprojects=\n2\n", {200, 3, 2}},
      {"reverse order", "num_subprojects=\n2\ncycle_num=\n3\ntime_step=\n200\n", {200, 3, 2}},
      {"value on the key line is ignored", "time_step=200\n5\ncycle_num=\n3\nnum_subprojects=\n2", {5, 3, 2}},
      {"blank lines, signs, trailing text",
       "time_step=\n\n  -7  ignored text\ncycle_num=\n+12\nnum_subprojects=\n12,34\n",
       {-7, 12, 12}},
      {"first key line wins", "time_step=\n1\ntime_step=\n2\ncycle_num=\n3\nnum_subprojects=\n0\n", {1, 3, 0}},
      {"cr lf, last line without end", "cycle_num=\r\n3\r\nnum_subprojects=\r\n-1\r\ntime_step=\r\n0", {0, 3, -1}},
      {"near misses are not keys",
       "time_step\n9\n time_step=\n9\nTIME_STEP=\n9\nnum_subproject=\n9\ntime_step=\n1\ncycle_num=\n2\n"
       "num_subprojects=\n3\n",
       {1, 2, 3}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::MemoryFileSystem fs;
    fs.set_file(kFile, c.content);
    const Read result = read(fs);
    ASSERT_EQ(result.code, 0) << result.status.headline();
    ASSERT_TRUE(result.settings);
    EXPECT_EQ(result.settings->time_step, c.expected.time_step);
    EXPECT_EQ(result.settings->cycle_num, c.expected.cycle_num);
    EXPECT_EQ(result.settings->num_subprojects, c.expected.num_subprojects);
  }
}

TEST(SettingsTest, EachKeyIsSearchedFromAFreshOpen) {
  testing::MemoryFileSystem fs;
  fs.set_file(kFile, "time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n1\n");
  read(fs);
  const std::vector<std::string> once = {"open analysis_settings.dat readwrite", "close analysis_settings.dat"};
  std::vector<std::string> expected;
  for (int i = 0; i < 3; ++i) expected.insert(expected.end(), once.begin(), once.end());
  EXPECT_EQ(fs.log(), expected);
}

TEST(SettingsTest, ClosingTimeStepWrapsInThirtyTwoBits) {
  EXPECT_EQ((Settings{0, 1, 0}.closing_time_step()), 1);
  EXPECT_EQ((Settings{-1, 1, 0}.closing_time_step()), 0);
  EXPECT_EQ((Settings{INT32_MAX, 1, 0}.closing_time_step()), INT32_MIN);
}

TEST(SettingsTest, FailuresNameTheKeyAndTheRecord) {
  struct Case {
    const char* name;
    std::string content;
    int code;
    std::vector<std::string> trail;
  };
  const Case cases[] = {
      {"malformed value", "time_step=\n1\ncycle_num=\n\n12.5\n", 59,
       {"list-directed integer read, record 5", "settings reader, key \"cycle_num=\""}},
      {"null value", "time_step=\n,\n", 59,
       {"null value where an integer is required", "settings reader, key \"time_step=\""}},
      {"repeated null value", "time_step=\n2*\n", 59,
       {"null value where an integer is required", "settings reader, key \"time_step=\""}},
      {"out of range", "time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n-2147483649\n", 64,
       {"list-directed integer read, record 6", "settings reader, key \"num_subprojects=\""}},
      {"key on the last line", "time_step=\n1\ncycle_num=\n\n  \n", -1,
       {"list-directed integer read, record 6", "settings reader, key \"cycle_num=\""}},
      {"key absent from a short file", "time_step=\n1\n", -1,
       {"fixed-width text read, record 3", "settings reader, key \"cycle_num=\""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::MemoryFileSystem fs;
    fs.set_file(kFile, c.content);
    const Read result = read(fs);
    EXPECT_EQ(result.code, c.code);
    EXPECT_EQ(result.status.unit(), 23);
    EXPECT_EQ(result.status.path_name(), "/run/analysis_settings.dat");
    EXPECT_EQ(result.status.trail(), c.trail);
  }
}

TEST(SettingsTest, SearchLimitPrintsTheFailureMessage) {
  testing::MemoryFileSystem fs;
  std::string lines;
  for (int i = 0; i < kSearchLimit; ++i) lines += "x\n";
  fs.set_file(kFile, "time_step=\n1\n" + lines + "cycle_num=\n1\n");
  const Read result = read(fs);
  EXPECT_EQ(result.code, 0);
  EXPECT_FALSE(result.settings);
  EXPECT_EQ(fs.standard_output(), " Parameter reading failed!\n");
}

TEST(InteractionTest, RecordsAreTheFirstThirtyCharactersOfEachFirstLine) {
  testing::MemoryFileSystem fs;
  const std::string thirty = "abcdefghijklmnopqrstuvwxyz0123";
  for (const char* directory : {"../main", "../sub1", "../sub9", "../sub10", "../sub12"}) fs.add_directory(directory);
  fs.set_file("../main/CalculateInteraction.dat", "solver.exe\nignored\n");
  fs.set_file("../sub1/CalculateInteraction.dat", thirty + "cut off\n");
  fs.set_file("../sub9/CalculateInteraction.dat", "prog\r\n");
  fs.set_file("../sub10/CalculateInteraction.dat", "\n");
  fs.set_file("../sub12/CalculateInteraction.dat", "  twelve");
  for (int i : {2, 3, 4, 5, 6, 7, 8, 11}) {
    fs.add_directory("../sub" + std::to_string(i));
    fs.set_file("../sub" + std::to_string(i) + "/CalculateInteraction.dat", "p\n");
  }
  InteractionTable table;
  ASSERT_TRUE(read_interaction_table(fs, 12, table).ok());
  EXPECT_EQ(table[0], "solver.exe" + std::string(20, ' '));
  EXPECT_EQ(table[1], thirty);
  EXPECT_EQ(table[9], "prog" + std::string(26, ' '));
  EXPECT_EQ(table[10], std::string(30, ' '));
  EXPECT_EQ(table[12], "  twelve" + std::string(22, ' '));
  EXPECT_TRUE(table[13].empty());

  std::vector<std::string> opened;
  for (const std::string& entry : fs.log()) {
    if (entry.rfind("open ", 0) == 0) opened.push_back(entry);
  }
  ASSERT_EQ(opened.size(), 13u);
  EXPECT_EQ(opened[0], "open ../main/CalculateInteraction.dat readwrite");
  EXPECT_EQ(opened[9], "open ../sub9/CalculateInteraction.dat readwrite");
  EXPECT_EQ(opened[10], "open ../sub10/CalculateInteraction.dat readwrite");
}

TEST(InteractionTest, FailureNamesTheProject) {
  testing::MemoryFileSystem fs;
  fs.add_directory("../main");
  fs.set_file("../main/CalculateInteraction.dat", "p\n");
  InteractionTable table;
  const records::Status status = read_interaction_table(fs, 2, table);
  EXPECT_EQ(status.headline(),
            "recio: severe (29): file not found, unit 10, file /run/../sub1/CalculateInteraction.dat");
  EXPECT_EQ(status.trail().back(), "interaction reader, project 1");
}

}  // namespace
}  // namespace lockstep::config
