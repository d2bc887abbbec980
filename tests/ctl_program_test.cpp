// lockstepctl check and status on run trees, good, faulty and frozen mid-run.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "handshake/go_files.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using handshake::reset_record;
using handshake::stage_record;

// Every file under the tree with its content, to prove nothing changed.
std::map<std::string, std::string> snapshot(const std::filesystem::path& root) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    files[entry.path().string()] = entry.is_regular_file() ? read_file(entry.path()) : "<directory>";
  }
  return files;
}

// A ready tree: three projects, each with an executable program.
struct GoodTree {
  GoodTree() {
    tree.projects(2, "step.sh");
    tree.settings(3, 2, 2);
    for (int index = 0; index <= 2; ++index) {
      write_file(tree.project(index) / "step.sh", "#!/bin/sh\n");
      make_executable(tree.project(index) / "step.sh");
    }
  }
  Exit check(const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv = {LOCKSTEPCTL_BINARY, "check", "run"};
    argv.insert(argv.end(), options.begin(), options.end());
    return run_program(argv, tree.run().parent_path());
  }

  RunTree tree;
};

class CheckTest : public ::testing::Test, protected GoodTree {};

TEST_F(CheckTest, AGoodTreeIsReady) {
  const auto before = snapshot(tree.run().parent_path());
  const Exit exit = check();
  EXPECT_EQ(exit.status, 0) << exit.out;
  EXPECT_NE(exit.out.find("\nready: 3 projects, no problems\n"), std::string::npos) << exit.out;
  EXPECT_EQ(snapshot(tree.run().parent_path()), before);
}

TEST_F(CheckTest, EachPlantedFaultIsNamedAndNothingChanges) {
  struct Case {
    const char* name;
    std::function<void(RunTree&)> plant;
    std::string problem;  // a line of the report
  };
  const auto sub = [](RunTree& t, int index) { return t.project(index); };
  const Case cases[] = {
      {"settings missing", [](RunTree& t) { std::filesystem::remove(t.run() / "analysis_settings.dat"); },
       "  analysis_settings.dat is missing"},
      {"settings malformed", [](RunTree& t) { t.settings("time_step=\nabc\ncycle_num=\n1\nnum_subprojects=\n0\n"); },
       "  analysis_settings.dat: key \"time_step=\": line 2 holds no integer"},
      {"key missing", [](RunTree& t) { t.settings("time_step=\n1\nnum_subprojects=\n2\n"); },
       "  analysis_settings.dat: key \"cycle_num=\" not found (the file ends at line 4)"},
      {"too many sub projects", [](RunTree& t) { t.settings(3, 2, 101); }, "  num_subprojects is 101; the limit is 100"},
      {"project directory missing", [&](RunTree& t) { std::filesystem::remove_all(sub(t, 2)); },
       "sub2: project directory ../sub2/ is missing"},
      {"interaction file missing",
       [&](RunTree& t) { std::filesystem::remove(sub(t, 1) / "CalculateInteraction.dat"); },
       "sub1: CalculateInteraction.dat is missing"},
      {"interaction file empty", [&](RunTree& t) { write_file(sub(t, 1) / "CalculateInteraction.dat", ""); },
       "sub1: CalculateInteraction.dat is empty"},
      {"first line too long",
       [&](RunTree& t) {
         write_file(sub(t, 1) / "CalculateInteraction.dat", std::string(30, 'a') + "b.sh\n");
         write_file(sub(t, 1) / std::string(30, 'a'), "");
         make_executable(sub(t, 1) / std::string(30, 'a'));
       },
       "sub1: the first line of CalculateInteraction.dat is longer than 30 characters; lockstep runs \"" +
           std::string(30, 'a') + "\""},
      {"program missing", [&](RunTree& t) { std::filesystem::remove(sub(t, 1) / "step.sh"); },
       "sub1: program ../sub1/step.sh is missing"},
      {"program not executable",
       [&](RunTree& t) { std::filesystem::permissions(sub(t, 0) / "step.sh", std::filesystem::perms::owner_read); },
       "main: program ../main/step.sh is not executable"},
      {"shell specials",
       [&](RunTree& t) {
         write_file(sub(t, 2) / "CalculateInteraction.dat", "step$1.sh\n");
         std::filesystem::rename(sub(t, 2) / "step.sh", sub(t, 2) / "step$1.sh");
       },
       "sub2: the program name \"step$1.sh\" holds characters the shell treats specially (\" $ ` \\)"},
      {"go2.dat missing", [&](RunTree& t) { std::filesystem::remove(sub(t, 1) / "go2.dat"); },
       "sub1: go2.dat is missing"},
      {"go2.dat garbage", [&](RunTree& t) { write_file(sub(t, 1) / "go2.dat", "busy\n"); },
       "sub1: go2.dat holds no integer"},
      {"first stage would wait", [&](RunTree& t) { write_file(sub(t, 1) / "go2.dat", reset_record()); },
       "the done values add up to -1000, not 0: the first stage would wait; not done: ../sub1/ (-1000)"},
      {"request left in go.dat", [&](RunTree& t) { write_file(sub(t, 2) / "go.dat", stage_record(1, 2, 3)); },
       "sub2: go.dat holds a request from an earlier run (cycle 1, time step 2, stage 3)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    GoodTree fresh;
    c.plant(fresh.tree);
    const auto before = snapshot(fresh.tree.run().parent_path());
    const Exit exit = fresh.check();
    EXPECT_EQ(exit.status, 1);
    EXPECT_NE(exit.out.find("\n" + c.problem + "\n"), std::string::npos) << exit.out;
    EXPECT_NE(exit.out.find("\nnot ready: 1 problem\n"), std::string::npos) << exit.out;
    EXPECT_EQ(snapshot(fresh.tree.run().parent_path()), before);
  }
}

TEST_F(CheckTest, EveryProblemIsReportedAtOnceAlsoAsJson) {
  std::filesystem::remove(tree.project(1) / "go2.dat");
  std::filesystem::remove(tree.project(2) / "step.sh");
  const Exit text = check();
  EXPECT_EQ(text.status, 1);
  EXPECT_NE(text.out.find("sub1: go2.dat is missing\nsub2: program ../sub2/step.sh is missing\n\nnot ready: 2 problems"),
            std::string::npos)
      << text.out;

  const Exit json = check({"--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.out.rfind("{\"run_directory\":", 0), 0u);
  EXPECT_NE(json.out.find("\"ready\":false"), std::string::npos);
  EXPECT_NE(json.out.find("{\"index\":1,\"directory\":\"../sub1/\",\"program\":\"step.sh\",\"done\":null,"
                          "\"problems\":[\"go2.dat is missing\"]}"),
            std::string::npos)
      << json.out;
}

TEST(StatusTest, NamesTheProjectHoldingAFrozenRun) {
  RunTree tree;
  tree.projects(2);
  tree.settings(3, 2, 2);
  for (int index = 0; index <= 2; ++index) write_file(tree.project(index) / "go.dat", stage_record(1, 2, 3));
  const auto held = tree.project(1) / "go2.dat";
  write_file(held, reset_record());
  // Reset 90 seconds ago.
  const timespec times[2] = {{time(nullptr) - 90, 0}, {time(nullptr) - 90, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, held.c_str(), times, 0), 0);
  const auto before = snapshot(tree.run().parent_path());

  const Exit exit = run_program({LOCKSTEPCTL_BINARY, "status", tree.run().string()}, tree.run());
  EXPECT_EQ(exit.status, 0);
  EXPECT_NE(exit.out.find("request: cycle 1, time step 2, stage 3\n"
                          "position: cycle 1 of 2, time step 2 of 3, stage 3 of 4; 6 of 26 stages done\n"),
            std::string::npos)
      << exit.out;
  const std::string held_row = "main    yes\nsub1    no      ";
  const std::size_t row = exit.out.find(held_row);
  ASSERT_NE(row, std::string::npos) << exit.out;
  const double held_for = std::strtod(exit.out.c_str() + row + held_row.size(), nullptr);
  EXPECT_GE(held_for, 90.0);
  EXPECT_LT(held_for, 150.0);
  EXPECT_NE(exit.out.find("\nwaiting for: sub1\n"), std::string::npos) << exit.out;
  EXPECT_EQ(snapshot(tree.run().parent_path()), before);
}

}  // namespace
}  // namespace lockstep::testing
