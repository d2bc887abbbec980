#include "config/settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "config/interaction.h"
#include "memory_file_system.h"

namespace lockstep::config {
namespace {

std::string lines(int count) { return std::string(static_cast<std::size_t>(count), '\n'); }

// Four lines.
const std::string kRest = "cycle_num=\n0\nnum_subprojects=\n0\n";

TEST(SettingsTest, ReadsAndFailures) {
  struct Case {
    const char* name;
    std::string content;
    int code;
    std::optional<Settings> expected;
    std::vector<std::string> trail = {};
    std::string out = {};
  };
  const auto key = [](const char* name) { return std::string("settings reader, key \"") + name + "\""; };
  const Case cases[] = {
      {"one per line", "time_step=\n200\ncycle_num=\n3\nnum_subprojects=\n2\n", 0, Settings{200, 3, 2}},
      {"reverse order", "num_subprojects=\n2\ncycle_num=\n3\ntime_step=\n200\n", 0, Settings{200, 3, 2}},
      {"value on the key line is ignored", "time_step=200\n5\ncycle_num=\n3\nnum_subprojects=\n2", 0, Settings{5, 3, 2}},
      {"first key line wins", "time_step=\n1\ntime_step=\n2\n" + kRest, 0, Settings{1, 0, 0}},
      {"cr lf, last line without end, a sign", "cycle_num=\r\n3\r\nnum_subprojects=\r\n-1\r\ntime_step=\r\n0", 0,
       Settings{0, 3, -1}},
      {"near misses are not keys", "time_step\n9\n time_step=\n9\nTIME_STEP=\n9\nnum_subproject=\n9\ntime_step=\n1\n" + kRest,
       0, Settings{1, 0, 0}},
      {"key at line 10,000", kRest + lines(9995) + "time_step=\n1\n", 0, Settings{1, 0, 0}},
      {"key at line 10,001", kRest + lines(9996) + "time_step=\n1\n", 0, std::nullopt, {},
       " Parameter reading failed!\n"},
      {"10,000 lines without the key", lines(kSearchLimit), 0, std::nullopt, {}, " Parameter reading failed!\n"},
      {"9,999 lines without the key", lines(kSearchLimit - 1), -1, std::nullopt,
       {"fixed-width text read, record 10000", key("time_step=")}},
      {"malformed value", "time_step=\n1\ncycle_num=\n\n12.5\n", 59, std::nullopt,
       {"list-directed integer read, record 5", key("cycle_num=")}},
      {"null value", "time_step=\n,\n", 59, std::nullopt,
       {"null value where an integer is required", key("time_step=")}},
      {"key on the last line", "time_step=\n1\ncycle_num=\n\n  \n", -1, std::nullopt,
       {"list-directed integer read, record 6", key("cycle_num=")}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::MemoryFileSystem fs;
    fs.set_file("analysis_settings.dat", c.content);
    std::optional<Settings> settings;
    const records::Status status = read_settings(fs, settings);
    EXPECT_EQ(status.code(), c.code) << status.headline();
    EXPECT_EQ(settings, c.expected);
    if (c.code != 0) {
      EXPECT_EQ(status.path_name(), "/run/analysis_settings.dat");
    }
    EXPECT_EQ(status.trail(), c.trail);
    EXPECT_EQ(fs.standard_output(), c.out);
    // Each key is searched from a fresh open.
    if (c.expected) {
      EXPECT_EQ(std::count(fs.log().begin(), fs.log().end(), "open analysis_settings.dat readwrite"), 3);
    }
  }
}

TEST(InteractionTest, RecordsAreTheFirstThirtyCharactersOfEachFirstLineAndAFailureNamesTheProject) {
  testing::MemoryFileSystem fs;
  const std::string thirty = "abcdefghijklmnopqrstuvwxyz0123";
  const std::map<int, std::string> files = {{0, "solver.exe\nignored\n"}, {1, thirty + "cut off\n"}, {12, "  twelve"}};
  for (int i = 0; i <= 12; ++i) {
    const std::string directory = i == 0 ? "../main" : "../sub" + std::to_string(i);
    fs.add_directory(directory);
    fs.set_file(directory + "/CalculateInteraction.dat", files.count(i) != 0 ? files.at(i) : "p\n");
  }
  InteractionTable table;
  ASSERT_TRUE(read_interaction_table(fs, 12, table).ok());
  EXPECT_EQ(table[0], "solver.exe" + std::string(20, ' '));
  EXPECT_EQ(table[1], thirty);
  EXPECT_EQ(table[12], "  twelve" + std::string(22, ' '));
  EXPECT_TRUE(table[13].empty());
  EXPECT_EQ(fs.log()[18], "open ../sub9/CalculateInteraction.dat readwrite");

  const records::Status status = read_interaction_table(fs, 13, table);
  EXPECT_EQ(status.headline(),
            "recio: severe (29): file not found, unit 10, file /run/../sub13/CalculateInteraction.dat");
  EXPECT_EQ(status.trail().back(), "interaction reader, project 13");
}

}  // namespace
}  // namespace lockstep::config
