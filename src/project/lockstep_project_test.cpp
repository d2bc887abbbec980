#include "project/lockstep_project.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "handshake/go_files.h"
#include "process.h"

namespace lockstep::project {
namespace {

using handshake::stage_record;

// The C interface's codes, each for its case, with the request's numbers
// handed out even when it comes out of order.
TEST(CInterfaceTest, DistinctCodesForEachWayTheDriverMovesOn) {
  testing::TempDir dir;
  const auto hand_out = [&](const std::string& record) { testing::hand_out(dir.path(), record); };
  char error[256] = "untouched";
  EXPECT_EQ(lockstep_project_open((dir.path() / "missing").c_str(), error, 8), nullptr);
  EXPECT_STREQ(error, "project");
  lockstep_project* project = lockstep_project_open(dir.path().c_str(), error, sizeof error);
  lockstep_project* second = lockstep_project_open(dir.path().c_str(), error, sizeof error);
  ASSERT_NE(project, nullptr) << error;
  EXPECT_EQ(lockstep_project_lock(project), LOCKSTEP_PROJECT_OK);
  EXPECT_EQ(lockstep_project_lock(second), LOCKSTEP_PROJECT_ERROR);
  EXPECT_NE(std::string(lockstep_project_error(second)).find(" is already served by this process (PID "), std::string::npos);
  lockstep_project_close(second);

  int cycle = 0, time_step = 0, stage = 0;
  hand_out(stage_record(1, 2, 3));
  EXPECT_EQ(lockstep_project_wait(project, &cycle, &time_step, &stage), LOCKSTEP_PROJECT_OK);
  EXPECT_EQ((std::array{cycle, time_step, stage}), (std::array{1, 2, 3}));
  hand_out(stage_record(1, 2, 4));
  EXPECT_EQ(lockstep_project_done(project), LOCKSTEP_PROJECT_OVERRUN);

  hand_out(stage_record(1, 1, 1));
  EXPECT_EQ(lockstep_project_wait(project, &cycle, &time_step, &stage), LOCKSTEP_PROJECT_OUT_OF_ORDER);
  EXPECT_EQ((std::array{cycle, time_step, stage}), (std::array{1, 1, 1}));
  EXPECT_EQ(lockstep_project_done(project), LOCKSTEP_PROJECT_OK);

  // A solver whose saved state is gone says so, for the run to stop.
  EXPECT_EQ(lockstep_project_cannot_resume(project, "state.h5 is missing"), LOCKSTEP_PROJECT_ERROR);
  EXPECT_EQ(std::string(lockstep_project_error(project)),
            dir.path().string() + " cannot resume after cycle 0: state.h5 is missing; the run needs every solver's "
            "state after that cycle: stop lockstep, then resume after a cycle whose state every solver kept "
            "(lockstepctl resume --after-cycle C RUN_DIR)");
  lockstep_project_close(project);
}

}  // namespace
}  // namespace lockstep::project
