// A run killed part-way, resumed with lockstepctl resume, and completed; and
// every way a resume can be wrong, each refused with what to do.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "resume/checkpoint.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

constexpr int kCycles = 4;

// Logs the request and, in a resumed run, the cycle it resumes after.
const std::string kLogResumed = kLogCommand + " && echo \"resumes after ${LOCKSTEP_RESUMES_AFTER:-none}\" >> resumed.log";

class ResumeTest : public ::testing::Test {
 protected:
  ResumeTest() {
    tree.projects(2, "#!/bin/sh\n");
    tree.settings(1, kCycles, 2);
  }
  Exit resume(const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv = {LOCKSTEPCTL_BINARY, "resume"};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(tree.run().string());
    return run_program(argv, tree.run());
  }
  // Runs the driver until main has served `served` requests, then kills it
  // and every agent.
  void run_and_kill(std::size_t served) {
    Players players(tree);
    for (int index = 0; index <= 2; ++index) players.agent(index, {"--checkpoint"}, kLogResumed);
    Background driver({LOCKSTEP_BINARY}, tree.run());
    ASSERT_TRUE(wait_until([&] { return read_file(tree.project(0) / "agent.log").size() >= served * 6; },
                           [&] { return read_file(tree.project(0) / "agent.log"); }));
    kill(driver.pid(), SIGKILL);
  }

  RunTree tree;
};

// Killed in cycle 3, resumed after cycle 2: each project is asked for the
// rest of the run in its own numbers, told whence it resumes, and the
// recording and status name the run's cycles.
TEST_F(ResumeTest, AKilledRunGoesOnAfterTheNewestCycleEveryProjectRecorded) {
  run_and_kill(2 * 5 + 2);
  const std::string settings = read_file(tree.run() / "analysis_settings.dat");
  const Exit dry = resume({"--dry-run"});
  EXPECT_EQ(dry.status, 0) << dry.err;
  EXPECT_THAT(dry.out, HasSubstr("would resume " + tree.run().string() + " after cycle 2 of 4"));
  EXPECT_THAT(dry.out, HasSubstr("\n  analysis_settings.dat: cycle_num 4 -> 2 (the cycles after cycle 2)\n"
                                 "nothing changed (--dry-run)\n"));
  EXPECT_EQ(read_file(tree.run() / "analysis_settings.dat"), settings);
  EXPECT_FALSE(std::filesystem::exists(tree.run() / "lockstep-resume.dat"));

  const Exit resumed = resume();
  ASSERT_EQ(resumed.status, 0) << resumed.err;
  const auto changes = [](const std::string& out) { return out.substr(out.find('\n'), out.rfind("\n  ") - out.find('\n')); };
  EXPECT_EQ(resumed.out.substr(0, resumed.out.find('\n')),
            "resuming " + tree.run().string() + " after cycle 2 of 4: lockstep runs the 2 cycles that remain as "
            "cycles 1 to 2, which the projects see as cycles 3 to 4");
  EXPECT_EQ(changes(resumed.out), changes(dry.out));
  EXPECT_EQ(read_file(tree.run() / "analysis_settings.dat.before-resume"), settings);
  EXPECT_EQ(read_file(tree.run() / "analysis_settings.dat"), settings_text(1, 2, 2));
  const Exit check = run_program({LOCKSTEPCTL_BINARY, "check", "."}, tree.run());
  EXPECT_EQ(check.status, 0) << check.out;

  const std::vector<std::string> first_part = {read_file(tree.project(0) / "agent.log"),
                                               read_file(tree.project(1) / "agent.log"),
                                               read_file(tree.project(2) / "agent.log")};
  Players players(tree);
  for (int index = 0; index <= 2; ++index) {
    std::filesystem::remove(tree.project(index) / "agent.log");
    players.agent(index, {"--checkpoint", "--last-cycle", std::to_string(kCycles)}, kLogResumed);
  }
  const std::string recording = (tree.run() / "../run.rec").string();
  const Exit driver = run_program({LOCKSTEPCTL_BINARY, "record", "--output", recording, "--", LOCKSTEP_BINARY}, tree.run());
  ASSERT_EQ(driver.status, 0) << driver.err;
  // The driver's own lines keep its numbering.
  EXPECT_EQ(driver.out.substr(0, driver.out.find('\n')), "cycle=   1      time step=    1      runge-kutta step= 1");
  players.finish();
  const std::string whole = schedule(kCycles, 1);
  const std::string after_two = whole.substr(whole.find("3 1 1\n"));
  const std::size_t two = whole.find("3 1 1\n");
  const auto repeat = [](const std::string& line, long times) {
    std::string lines;
    for (long i = 0; i < times; ++i) lines += line;
    return lines;
  };
  for (int index = 0; index <= 2; ++index) {
    SCOPED_TRACE(index);
    EXPECT_EQ(read_file(tree.project(index) / "agent.log"), after_two);
    // The first part ran cycles 1 and 2 whole, then at most part of cycle 3.
    const std::string& first = first_part[static_cast<std::size_t>(index)];
    EXPECT_EQ(first.substr(0, two), whole.substr(0, two));
    EXPECT_EQ(after_two.rfind(first.substr(two), 0), 0u);
    EXPECT_EQ(read_file(tree.project(index) / "resumed.log"),
              repeat("resumes after none\n", std::count(first.begin(), first.end(), '\n')) +
                  repeat("resumes after 2\n", 10));
  }
  const Exit report = run_program({LOCKSTEPCTL_BINARY, "report", recording, "--json"}, tree.run());
  const nlohmann::json summary = nlohmann::json::parse(report.out);
  EXPECT_EQ(summary["timeline"].front()["request"], nlohmann::json({{"cycle", 3}, {"time_step", 1}, {"stage", 1}}));
  EXPECT_EQ(summary["timeline"].back()["request"], nlohmann::json({{"cycle", 4}, {"time_step", -1}, {"stage", 5}}));
  const Exit status = run_program({LOCKSTEPCTL_BINARY, "status", "."}, tree.run());
  EXPECT_THAT(status.out, HasSubstr("request: the cycle-end request of cycle 4 (the run resumed after cycle 2)\n"
                                    "position: cycle 4 of 4, closing time step; 20 of 20 stages done\n"));
}

// The main project alone, which the driver allows, resumes as any run.
TEST_F(ResumeTest, TheMainProjectAloneResumesAsAnyRun) {
  tree.settings(1, kCycles, 0);
  {
    Players players(tree);
    players.agent(0, {"--checkpoint"}, kLogResumed);
    Background driver({LOCKSTEP_BINARY}, tree.run());
    ASSERT_TRUE(wait_until([&] { return read_file(tree.project(0) / "agent.log").size() >= 12 * 6; },
                           [&] { return read_file(tree.project(0) / "agent.log"); }));
    kill(driver.pid(), SIGKILL);
  }
  const Exit resumed = resume();
  ASSERT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_THAT(resumed.out, HasSubstr("resuming " + tree.run().string() + " after cycle 2 of 4"));
  EXPECT_EQ(read_file(tree.run() / "analysis_settings.dat"), settings_text(1, 2, 0));
}

// Each way a resume goes wrong, refused with what to do: by resume itself,
// by check, and by the project library when a driver runs anyway.
TEST_F(ResumeTest, MismatchesAreRefusedWithWhatToDo) {
  const std::string run = tree.run().string();
  const auto refused = [&](const std::vector<std::string>& options, const std::string& message) {
    const Exit exit = resume(options);
    EXPECT_EQ(exit.status, 1);
    EXPECT_EQ(exit.err, "lockstepctl resume: " + message + "\n");
  };
  refused({}, "no cycle was recorded as a checkpoint by every project; main: none; sub1: none; sub2: none. A solver "
              "records one with checkpoint() in a cycle-end request, once it has saved its state; the agent with "
              "--checkpoint");
  run_and_kill(2 * 5 + 2);
  std::filesystem::remove_all(tree.project(1) / "checkpoints/2");
  refused({"--after-cycle", "2"}, "sub1 recorded no checkpoint after cycle 2 (it recorded: 1); every project "
                                  "recorded: 1");
  for (int index = 0; index <= 2; ++index) std::filesystem::create_directories(tree.project(index) / "checkpoints/4");
  refused({"--after-cycle", "4"}, "cycle 4 is the run's last (cycle_num=4): nothing is left to run");
  {
    const int held = ::open((tree.run() / ".lockstep-resume.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(held, F_OFD_SETLK, &whole), 0);
    refused({}, "another lockstepctl resume is preparing " + run + " (it holds " + run +
                    "/.lockstep-resume.lock); let it finish, then look at the tree with lockstepctl check");
    ::close(held);
  }
  {
    write_file(tree.project(2) / "go2.dat", handshake::reset_record());
    Background driver({LOCKSTEP_BINARY}, tree.run());
    ASSERT_TRUE(wait_until([&] {
      return run_program({LOCKSTEPCTL_BINARY, "status", "."}, tree.run()).out.find("lockstep: running") !=
             std::string::npos;
    }));
    refused({}, "lockstep is running in " + run + " (PID " + std::to_string(driver.pid()) +
                    "); resume prepares a run that has stopped: stop it first");
  }
  ASSERT_EQ(resume({"--after-cycle", "1"}).status, 0);

  // Settings changed behind the resumed run's back, a project's record gone.
  tree.settings(1, 7, 2);
  std::filesystem::remove(tree.project(2) / "lockstep-resume.dat");
  refused({}, run + "/analysis_settings.dat was changed after the last resume (time_step=1 cycle_num=7 "
                    "num_subprojects=2; the resumed run has time_step=1 cycle_num=3 num_subprojects=2): put back what "
                    "lockstepctl resume wrote, or start the run afresh from analysis_settings.dat.before-resume");
  const Exit check = run_program({LOCKSTEPCTL_BINARY, "check", "."}, tree.run());
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(check.out, HasSubstr("\nsub2: lockstep-resume.dat is missing, but the run resumes after cycle 1: its "
                                   "solver would count cycles wrong; run lockstepctl resume again\n"));
  EXPECT_THAT(check.out, HasSubstr("\nanalysis_settings.dat was changed after lockstepctl resume: the run resumes "
                                   "after cycle 1 with time_step=1 cycle_num=3 num_subprojects=2; put those back, or "
                                   "run lockstepctl resume again\n"));
  // A solver whose state after the cycle the run resumes after is gone.
  const Exit solver = run_program({CHAIN_SOLVER_BINARY, tree.project(1).string(), "4", "4", "4"}, tree.run());
  EXPECT_EQ(solver.status, 1);
  EXPECT_EQ(solver.err, "chain_solver: " + tree.project(1).string() + " cannot resume after cycle 1: " +
                            tree.project(1).string() + "/state-1.txt does not hold this solver's state; the run needs "
                            "every solver's state after that cycle: stop lockstep, then resume after a cycle whose "
                            "state every solver kept (lockstepctl resume --after-cycle C RUN_DIR)\n");
  // A driver started all the same asks main for its cycle 4, the run's 5.
  hand_out(tree.project(0), handshake::stage_record(4, 1, 1));
  const Exit agent = run_program(testing::agent(tree.project(0), {}, "true"), tree.run());
  EXPECT_EQ(agent.status, 1);
  EXPECT_EQ(agent.err, "lockstepctl agent: the driver asks for cycle 4, the run's cycle 5, past its last, cycle 4: the "
                       "settings were changed after lockstepctl resume (their cycle_num must be 3); stop lockstep and "
                       "run lockstepctl check\nlockstepctl agent: served 0 requests, 0 failed\n");
}

// Going back to an earlier cycle ends the timeline of the checkpoints after
// it: they are set aside, listed, and never chosen again, also when the
// resumed run stops before it records a checkpoint of its own.
TEST_F(ResumeTest, ARollbackSetsAsideTheCheckpointsAfterItsCycle) {
  const auto record = [&](int cycle) {
    for (int index = 0; index <= 2; ++index) {
      std::filesystem::create_directories(tree.project(index) / "checkpoints" / std::to_string(cycle) / "fields/out");
    }
  };
  for (int cycle = 1; cycle <= 4; ++cycle) record(cycle);
  const Exit back = resume({"--after-cycle", "1"});
  ASSERT_EQ(back.status, 0) << back.err;
  for (const int cycle : {2, 3, 4}) {
    EXPECT_THAT(back.out, HasSubstr("\n  sub2: checkpoints/" + std::to_string(cycle) +
                                    " set aside as checkpoints/abandoned-1/" + std::to_string(cycle) +
                                    " (recorded before this resume, after cycle 1: no resume uses it)\n"));
  }
  EXPECT_TRUE(std::filesystem::is_directory(tree.project(0) / "checkpoints/abandoned-1/4/fields/out"));
  EXPECT_FALSE(std::filesystem::exists(tree.project(0) / "checkpoints/2"));

  // The resumed run stopped in cycle 2 before any checkpoint: a plain resume
  // goes on after cycle 1 again, not after the abandoned 4.
  const Exit again = resume({"--dry-run"});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("would resume " + tree.run().string() + " after cycle 1 of 4"));
  EXPECT_THAT(run_program({LOCKSTEPCTL_BINARY, "status", "."}, tree.run()).out,
              HasSubstr("\ncheckpoints set aside by a resume that went back to an earlier cycle (never used again):\n"
                        "  main: cycles 2, 3, 4 (checkpoints/abandoned-*)\n"));

  // A checkpoint of the new timeline, then another rollback: a second folder.
  record(2);
  const Exit second = resume({"--after-cycle", "1"});
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_THAT(second.out, HasSubstr("main: checkpoints/2 set aside as checkpoints/abandoned-2/2"));
  EXPECT_EQ(resume::set_aside_cycles(tree.project(1).string()), (std::vector<std::int32_t>{2, 2, 3, 4}));
}

// The settings backup is what resume and check trust most: one that cannot
// be read stops resume and shows in check, with what to do.
TEST_F(ResumeTest, AnUnreadableSettingsBackupIsReportedWithWhatToDo) {
  for (int index = 0; index <= 2; ++index) std::filesystem::create_directories(tree.project(index) / "checkpoints/1");
  write_file(tree.run() / "analysis_settings.dat.before-resume", "");
  const std::string problem =
      "analysis_settings.dat.before-resume, the settings as first written that lockstepctl resume keeps, cannot be "
      "used (" + tree.run().string() + "/analysis_settings.dat.before-resume does not give time_step=, cycle_num= "
      "and num_subprojects= as lockstep reads them): write the run's first time_step=, cycle_num= and "
      "num_subprojects= into " + tree.run().string() + "/analysis_settings.dat.before-resume, then run lockstepctl "
      "resume again";
  const Exit refused = resume();
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "lockstepctl resume: " + problem + "\n");
  const Exit check = run_program({LOCKSTEPCTL_BINARY, "check", "."}, tree.run());
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(check.out, HasSubstr(problem + "\n"));

  // Written by resume itself, it is whole and leaves no temporary file behind.
  std::filesystem::remove(tree.run() / "analysis_settings.dat.before-resume");
  const std::string settings = read_file(tree.run() / "analysis_settings.dat");
  ASSERT_EQ(resume().status, 0);
  EXPECT_EQ(read_file(tree.run() / "analysis_settings.dat.before-resume"), settings);
  for (const auto& entry : std::filesystem::directory_iterator(tree.run())) {
    EXPECT_FALSE(entry.path().filename().string().ends_with(".tmp")) << entry.path();
  }
}

}  // namespace
}  // namespace lockstep::testing
