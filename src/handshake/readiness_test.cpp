#include "handshake/readiness.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "fake_pacer.h"
#include "memory_file_system.h"

namespace lockstep::handshake {
namespace {

class ReadinessTest : public ::testing::Test {
 protected:
  // Main project first, then sub projects 1, 2, ...
  void projects(const std::vector<std::string>& go2_contents) {
    paths = go_file_paths(static_cast<int>(go2_contents.size()) - 1);
    for (std::size_t i = 0; i < go2_contents.size(); ++i) {
      const std::string& go2 = paths[i].go2;
      fs.add_directory(go2.substr(0, go2.rfind('/')));
      fs.set_file(go2, go2_contents[i]);
    }
  }
  records::Status wait() { return wait_for_readiness(fs, pacer, paths); }

  testing::MemoryFileSystem fs;
  testing::FakePacer pacer;
  std::vector<GoFilePaths> paths;
};

// Ready at once when the done values add up to 0; a missing file holds the
// pass, and failures beyond the first ones pause; the wait gives up after
// the last pass and its pause.
TEST_F(ReadinessTest, HowManyPausesAWaitTakes) {
  struct Case {
    std::vector<std::string> go2;
    int failing_opens;
    long pauses;
  };
  const Case cases[] = {{{"0\n"}, 0, 0},
                        {{"0\n", "0\n", "0\n"}, 0, 0},
                        {{"3\n", "-3\n"}, 0, 0},
                        {{"/\n", "1\n"}, 0, 0},
                        {{"0\n"}, kFailuresBeforePausing + 20, 21},
                        {{"0\n", "-1000\n"}, 0, kPollLimit}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.go2.back());
    fs = {};
    fs.logging = false;
    pacer.pauses = 0;
    projects(c.go2);
    fs.fail("open", "../main/go2.dat", c.failing_opens, ENOENT);
    ASSERT_TRUE(wait().ok());
    EXPECT_EQ(pacer.pauses, c.pauses);
  }
  fs.fail("close", "../main/go2.dat", 1, EIO);
  EXPECT_EQ(wait().number(), records::error::kReadError);
}

TEST_F(ReadinessTest, EveryPassReadsEveryProjectInOrderThenPauses) {
  projects({"0\n", "-1000\n", "0\n"});
  pacer.on_pause = [&] {
    if (pacer.pauses == 3) fs.set_file("../sub1/go2.dat", "0\n");
  };
  ASSERT_TRUE(wait().ok());
  EXPECT_EQ(pacer.pauses, 3);
  const std::vector<std::string> one_pass = {
      "open ../main/go2.dat read", "close ../main/go2.dat", "open ../sub1/go2.dat read",
      "close ../sub1/go2.dat",     "open ../sub2/go2.dat read", "close ../sub2/go2.dat"};
  std::vector<std::string> expected;
  for (int pass = 0; pass < 4; ++pass) expected.insert(expected.end(), one_pass.begin(), one_pass.end());
  EXPECT_EQ(fs.log(), expected);
}

TEST_F(ReadinessTest, UnreadableFilesAreReopenedUntilTheyHoldAnInteger) {
  for (const char* bad : {"", "   \n", "garbage\n", "4.5"}) {
    SCOPED_TRACE(bad);
    fs = {};
    pacer.pauses = 0;
    projects({"0\n", bad});
    const auto opens = [&] { return std::count(fs.log().begin(), fs.log().end(), "open ../sub1/go2.dat read"); };
    fs.before_read = [&](const std::string& path) {
      if (path == "../sub1/go2.dat" && opens() == 50) fs.set_file(path, "0\n");
    };
    ASSERT_TRUE(wait().ok());
    EXPECT_EQ(pacer.pauses, 0);
    // Each attempt opened the file afresh.
    EXPECT_EQ(opens(), 50);
  }
}

}  // namespace
}  // namespace lockstep::handshake
