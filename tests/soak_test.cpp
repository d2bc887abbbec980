// A long run: three projects through more than 5,000 stages, answering after
// random delays, in place or by rename at random. Nothing may be lost,
// repeated or reordered.
#include <gtest/gtest.h>

#include "run_tree.h"

namespace lockstep::testing {
namespace {

TEST(SoakTest, FiveThousandStagesLoseNothing) {
  constexpr int kCycles = 4;
  constexpr int kTimeSteps = 313;  // 4 x (4 x 313 + 1) = 5,012 stages
  RunTree tree;
  tree.projects(2, "#!/bin/sh\n");
  tree.settings(kTimeSteps, kCycles, 2);
  Players players(tree);
  players.play(0, 2, kCycles * (4 * kTimeSteps + 1), {"--random", "SEED"});
  // Bounded by progress: the driver prints a line per stage.
  const Exit exit = tree.lockstep();
  ASSERT_EQ(exit.status, 0) << exit.err;
  EXPECT_EQ(exit.err, "");
  players.finish();

  const std::string expected = all_requests(kCycles, kTimeSteps);
  for (int index = 0; index <= 2; ++index) {
    EXPECT_TRUE(read_file(tree.project(index) / "requests.log") == expected) << "project " << index;
  }
  EXPECT_EQ(std::count(exit.out.begin(), exit.out.end(), '\n'), kCycles * (4 * kTimeSteps + 1));
}

}  // namespace
}  // namespace lockstep::testing
