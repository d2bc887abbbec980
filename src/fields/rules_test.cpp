#include "fields/rules.h"

#include <gtest/gtest.h>

namespace lockstep::fields {
namespace {

using project::Request;

Stamp input(int project, Request request) { return {project, Role::kInput, request}; }
Stamp output(int project, Request request) { return {project, Role::kOutput, request}; }

TEST(FieldRulesTest, StageBeforeCrossesTimeStepsAndCycles) {
  EXPECT_EQ(stage_before({2, 3, 2}, 5), (Request{2, 3, 1}));
  EXPECT_EQ(stage_before({2, 3, 1}, 5), (Request{2, 2, 4}));
  EXPECT_EQ(stage_before({2, 1, 1}, 5), (Request{1, 5, 4}));
  EXPECT_EQ(stage_before({2, -1, 5}, 5), (Request{2, 5, 4}));
  EXPECT_EQ(stage_before({1, 1, 1}, 5), std::nullopt);
}

TEST(FieldRulesTest, AnInputMustBeThisStagesFromThisProjectsProgram) {
  const Request serving{5, 2, 3};
  const Request before{5, 2, 2};
  EXPECT_EQ(check_input("left", input(1, serving), 1, serving, before, Accept::kStage), "");
  EXPECT_EQ(check_input("left", input(1, before), 1, serving, before, Accept::kStage),
            "input \"left\" of sub1 is stale: its file was written for cycle 5, time step 2, stage 2, but cycle 5, "
            "time step 2, stage 3 needs it written for cycle 5, time step 2, stage 3; the interaction program of "
            "sub1 did not write it in cycle 5, time step 2, stage 3: it failed or did not run");
  EXPECT_EQ(check_input("left", input(1, {5, 2, 4}), 1, serving, before, Accept::kStage),
            "input \"left\" of sub1 is stale: its file was written for cycle 5, time step 2, stage 4, but cycle 5, "
            "time step 2, stage 3 needs it written for cycle 5, time step 2, stage 3; a file written for a later "
            "request is most likely left from an earlier run, and the interaction program of sub1 did not write it "
            "in cycle 5, time step 2, stage 3 (it failed or did not run); before a new run, remove what earlier "
            "runs left in sub1's fields/in/");
  EXPECT_EQ(check_input("left", std::nullopt, 1, serving, before, Accept::kStage),
            "input \"left\" of sub1 has never been written: the interaction program of sub1 did not write it, by "
            "cycle 5, time step 2, stage 3 (it failed, did not run, or does not write this field)");
  EXPECT_EQ(check_input("left", input(2, serving), 1, serving, before, Accept::kStage),
            "input \"left\" of sub1 holds the input of sub2 for cycle 5, time step 2, stage 3: a file copied or "
            "linked from elsewhere, or a project directory renamed");
  EXPECT_NE(check_input("left", output(1, serving), 1, serving, before, Accept::kStage), "");
}

TEST(FieldRulesTest, LooserRulesAndTheCycleEnd) {
  const Request end{5, -1, 5};
  const struct {
    Stamp stamp;
    Request serving;
    std::optional<Request> previous;
    Accept accept;
    bool fresh;
  } cases[] = {
      // The cycle-end request takes the last stage's inputs.
      {input(0, {5, 3, 4}), end, Request{5, 3, 4}, Accept::kStage, true},
      {input(0, {5, 3, 3}), end, Request{5, 3, 4}, Accept::kStage, false},
      // Without the request before it, any last stage of the cycle.
      {input(0, {5, 3, 4}), end, std::nullopt, Accept::kStage, true},
      {input(0, {4, 3, 4}), end, std::nullopt, Accept::kStage, false},
      {input(0, {5, 2, 1}), {5, 2, 3}, Request{5, 2, 2}, Accept::kTimeStep, true},
      {input(0, {5, 1, 4}), {5, 2, 3}, Request{5, 2, 2}, Accept::kTimeStep, false},
      {input(0, {5, 2, 4}), {5, 2, 3}, Request{5, 2, 2}, Accept::kTimeStep, false},
      {input(0, {1, 1, 1}), {5, 2, 3}, Request{5, 2, 2}, Accept::kAny, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(check_input("x", c.stamp, 0, c.serving, c.previous, c.accept).empty(), c.fresh)
        << describe(c.stamp) << " serving " << project::describe(c.serving);
  }
}

TEST(FieldRulesTest, AnInteractionReadsTheSourcesNewestOutput) {
  EXPECT_EQ(check_output("right", output(1, kStartRequest), 1, {1, 1, 1}, 3, Accept::kStage), "");
  EXPECT_EQ(check_output("right", output(1, {1, 1, 1}), 1, {1, 1, 2}, 3, Accept::kStage), "");
  EXPECT_EQ(check_output("right", output(1, {1, 3, 4}), 1, {2, 1, 1}, 3, Accept::kStage), "");
  EXPECT_EQ(check_output("right", output(1, {1, -1, 5}), 1, {2, 1, 1}, 3, Accept::kStage), "");
  EXPECT_EQ(check_output("right", output(1, {1, 1, 1}), 1, {1, 1, 3}, 3, Accept::kStage),
            "output \"right\" of sub1 is stale: its file was written for cycle 1, time step 1, stage 1, but the "
            "interaction step of cycle 1, time step 1, stage 3 needs it written for cycle 1, time step 1, stage 2; "
            "the solver of sub1 did not put it in cycle 1, time step 1, stage 2");
  EXPECT_EQ(check_output("right", output(1, {2, 1, 1}), 1, {1, 1, 3}, 3, Accept::kStage),
            "output \"right\" of sub1 is stale: its file was written for cycle 2, time step 1, stage 1, but the "
            "interaction step of cycle 1, time step 1, stage 3 needs it written for cycle 1, time step 1, stage 2; "
            "it was written for a later request: the driver was restarted, or the tree is another run's");
  EXPECT_EQ(check_output("right", std::nullopt, 2, {1, 1, 1}, 3, Accept::kStage),
            "output \"right\" of sub2 has never been written: the solver of sub2 has not put it (not even before "
            "the first request)");
  EXPECT_EQ(check_output("right", output(1, {1, 1, 4}), 1, {1, 2, 3}, 3, Accept::kTimeStep), "");
  EXPECT_NE(check_output("right", output(1, {1, 1, 4}), 1, {1, 3, 3}, 3, Accept::kTimeStep), "");
  EXPECT_EQ(check_output("right", output(1, kStartRequest), 1, {4, 3, 3}, 3, Accept::kAny), "");
}

}  // namespace
}  // namespace lockstep::fields
