// lockstepctl agent serving projects of real lockstep runs, and alone.
#include <signal.h>

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "handshake/go_files.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using handshake::cycle_end_record;
using handshake::reset_record;
using handshake::stage_record;

class AgentAloneTest : public ::testing::Test {
 protected:
  // A project directory holding a pending request for cycle 1, time step 1,
  // stage 1.
  AgentAloneTest() { hand_out(stage_record(1, 1, 1)); }
  std::filesystem::path project() const { return dir.path() / "main"; }
  void hand_out(const std::string& record) { testing::hand_out(project(), record); }

  TempDir dir;
};

// Started from the directory above, the command runs in the project's with
// /dev/null as its standard input; --command-dir and --stdin change that. A
// failure leaves its request not done, unless --done-on-failure.
TEST_F(AgentAloneTest, HowTheCommandRunsAndWhatItsFailureLeaves) {
  const auto serve = [&](const std::string& options) {
    return run_program({"sh", "-c", "echo typed | " LOCKSTEPCTL_BINARY " agent --dir " + project().string() + options +
                                        " -- /bin/sh -c 'pwd > where; cat > stdin; exit 3'"},
                       dir.path());
  };
  const Exit exit = serve("");
  EXPECT_EQ(exit.status, 1);
  EXPECT_EQ(exit.err,
            "lockstepctl agent: /bin/sh failed on cycle 1, time step 1, stage 1: exit status 3; left not done\n"
            "lockstepctl agent: served 0 requests, 1 failed\n");
  EXPECT_EQ(read_file(project() / "go2.dat"), reset_record());
  EXPECT_EQ(read_file(project() / "where"), project().string() + "\n");
  EXPECT_EQ(read_file(project() / "stdin"), "");

  EXPECT_EQ(serve(" --command-dir . --stdin").status, 1);
  EXPECT_EQ(read_file(dir.path() / "where"), dir.path().string() + "\n");
  EXPECT_EQ(read_file(dir.path() / "stdin"), "typed\n");

  Background served(agent(project(), {"--done-on-failure"}, "kill -9 $$"), dir.path());
  EXPECT_TRUE(wait_until([&] { return read_file(project() / "go2.dat") == "0\n"; }));
  // Now waiting for the next request: SIGTERM ends it cleanly.
  kill(served.pid(), SIGTERM);
  EXPECT_EQ(served.wait(kStall), 0);
}

// A cycle end whose checkpoint cannot be recorded (a file where the
// checkpoints go) is an error, status 1, and left not done.
TEST_F(AgentAloneTest, ACheckpointThatCannotBeRecordedLeavesTheCycleEndNotDone) {
  hand_out(cycle_end_record(1));
  write_file(project() / "checkpoints", "not a directory");
  const Exit exit = run_program({LOCKSTEPCTL_BINARY, "agent", "--dir", project().string(), "--checkpoint", "--",
                                 "/bin/true"},
                                dir.path());
  EXPECT_EQ(exit.status, 1);
  EXPECT_THAT(exit.err, ::testing::StartsWith("lockstepctl agent: cannot record the checkpoint of cycle 1: "));
  EXPECT_THAT(exit.err, HasSubstr("; left not done\n"));
  EXPECT_EQ(read_file(project() / "go2.dat"), reset_record());
}

TEST_F(AgentAloneTest, UsageAndHelp) {
  struct Case {
    std::vector<std::string> argv;
    int status;
    std::string first_line;  // of standard output when the status is 0, else of standard error
  };
  const Case cases[] = {
      {{"--help"}, 0, "usage: lockstepctl SUBCOMMAND [OPTIONS]"},
      {{"agent", "--help"}, 0, "Serves a project directory by running COMMAND once per request of the lockstep driver."},
      {{"--version"}, 0, "lockstepctl " LOCKSTEP_VERSION},
      {{"report", "--version"}, 0, "lockstepctl " LOCKSTEP_VERSION},
      {{"check", "--frob"}, 2, "lockstepctl check: The following argument was not expected: --frob"},
      {{"record", "--", "lockstep"}, 2, "lockstepctl record: --output is required"},
      {{"agent", "--poll-ceiling", "60001", "--", "true"}, 2,
       "lockstepctl agent: --poll-ceiling: Value 60001 not in range 1 to 60000"},
      {{"report", "nowhere.rec"}, 1, "lockstepctl report: cannot read nowhere.rec: No such file or directory"},
      {{}, 2, "lockstepctl: no subcommand given"},
      {{"frobnicate"}, 2, "lockstepctl: unknown subcommand \"frobnicate\""},
      {{"agent"}, 2, "lockstepctl agent: no command given after \"--\""},
      {{"agent", "--last-cycle", "0", "--", "true"}, 2, "lockstepctl agent: --last-cycle: Value 0 not in range 1 to 2147483647"},
      {{"agent", "--dir", "nowhere", "--", "true"}, 1, "lockstepctl agent: project directory nowhere: No such file or directory"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {LOCKSTEPCTL_BINARY};
    argv.insert(argv.end(), c.argv.begin(), c.argv.end());
    const Exit exit = run_program(argv, dir.path());
    EXPECT_EQ(exit.status, c.status) << argv.back();
    const std::string& stream = c.status == 0 ? exit.out : exit.err;
    EXPECT_EQ(stream.substr(0, stream.find('\n')), c.first_line);
  }
  // One usage line, and it names the command.
  const std::string help = run_program({LOCKSTEPCTL_BINARY, "agent", "--help"}, dir.path()).out;
  EXPECT_EQ(help.find("Usage:"), help.rfind("Usage:"));
  EXPECT_EQ(help.find("lockstepctl agent [OPTIONS]"), help.rfind("lockstepctl agent [OPTIONS]"));
  EXPECT_NE(help.find("\nUsage: lockstepctl agent [OPTIONS] -- COMMAND [ARGS...]\n"), std::string::npos);
}

// A command that marks its start and runs until the test lets it go.
const std::string kHeldCommand =
    "touch \"$LOCKSTEP_PROJECT_DIR/started.$3\"; "
    "while [ ! -e \"$LOCKSTEP_PROJECT_DIR/release\" ]; do sleep 0.01; done; " + kLogCommand;

// Gone, or a zombie waiting for its parent: it runs no more.
bool gone(pid_t pid) {
  const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  return stat.empty() || stat.find(") Z ") != std::string::npos;
}

// The driver stops waiting while the command still runs, and resets and
// hands out the next request: the late request is never reported done.
TEST_F(AgentAloneTest, ARequestServedAfterTheDriverMovedOnIsNotReportedDone) {
  for (const bool carry_on : {false, true}) {
    SCOPED_TRACE(carry_on ? "--carry-on" : "by default");
    for (const char* name : {"release", "started.1", "started.2", "agent.log"}) std::filesystem::remove(project() / name);
    hand_out(stage_record(1, 1, 1));
    std::vector<std::string> options = {"--last-cycle", "1"};
    if (carry_on) options.push_back("--carry-on");
    Exit exit;
    std::thread agent_run([&] { exit = run_program(agent(project(), options, kHeldCommand), dir.path()); });
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(project() / "started.1"); }));
    hand_out(stage_record(1, 1, 2));
    write_file(project() / "release", "");
    if (carry_on) {
      // Serves the request pending now; the cycle end lets it stop.
      EXPECT_TRUE(wait_until([&] { return read_file(project() / "go2.dat") == "0\n"; }));
      hand_out(handshake::cycle_end_record(1));
    }
    agent_run.join();
    // The library's own words, which its tests check, then the agent's.
    EXPECT_THAT(exit.err, ::testing::StartsWith("lockstepctl agent: cycle 1, time step 1, stage 1 was served too late"));
    EXPECT_THAT(exit.err, ::testing::EndsWith(carry_on ? "not reported done; going on with the request pending now\n"
                                                         "lockstepctl agent: served 2 requests, 0 failed\n"
                                                       : "not reported done\nlockstepctl agent: served 0 requests, 0 failed\n"));
    EXPECT_EQ(exit.status, carry_on ? 0 : 3);
    EXPECT_EQ(read_file(project() / "go2.dat"), carry_on ? "0\n" : reset_record());
  }
}

// A graceful command traps SIGTERM and exits 0; its request is still not
// done, and its own children go with it.
TEST_F(AgentAloneTest, AnInterruptedRequestIsNotDoneWhateverTheExitStatus) {
  Background served(agent(project(), {},
                          "trap 'exit 0' TERM; "
                          "sh -c 'echo $$ > \"$LOCKSTEP_PROJECT_DIR/grandchild\"; exec sleep 300' & wait"),
                    dir.path(), dir.path() / "err");
  ASSERT_TRUE(wait_until([&] { return !read_file(project() / "grandchild").empty(); }));
  const pid_t grandchild = std::stoi(read_file(project() / "grandchild"));
  kill(served.pid(), SIGTERM);
  ASSERT_EQ(served.wait(kStall), 128 + SIGTERM);
  EXPECT_EQ(read_file(dir.path() / "err"),
            "lockstepctl agent: stopped by signal 15 while /bin/sh served cycle 1, time step 1, stage 1; left not done\n"
            "lockstepctl agent: served 0 requests, 0 failed\n");
  EXPECT_EQ(read_file(project() / "go2.dat"), reset_record());
  EXPECT_TRUE(wait_until([&] { return gone(grandchild); }));
}

// kill -9 of an agent takes its command along and leaves no stale lock: an
// agent started next serves the request, and refuses to serve it twice when
// a driver restarted from the start hands it out again. A second agent
// beside a live one is refused.
TEST_F(AgentAloneTest, OneAgentPerDirectoryAndNoneOutlivedByItsCommand) {
  auto first = std::make_unique<Background>(
      agent(project(), {}, "echo $$ > \"$LOCKSTEP_PROJECT_DIR/command.pid\"; exec sleep 300"), dir.path());
  ASSERT_TRUE(wait_until([&] { return !read_file(project() / "command.pid").empty(); }));
  const pid_t command = std::stoi(read_file(project() / "command.pid"));

  const Exit second = run_program(agent(project(), {}, kLogCommand), dir.path());
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.err, ::testing::StartsWith("lockstepctl agent: " + project().string() + " is already served by PID " +
                                                std::to_string(first->pid()) + " "));

  first.reset();  // SIGKILL
  ASSERT_TRUE(wait_until([&] { return gone(command); }));
  Background next(agent(project(), {}, kLogCommand), dir.path(), dir.path() / "err");
  EXPECT_TRUE(wait_until([&] { return read_file(project() / "go2.dat") == "0\n"; }));
  hand_out(stage_record(1, 1, 2));
  EXPECT_TRUE(wait_until([&] { return read_file(project() / "go2.dat") == "0\n"; }));
  hand_out(stage_record(1, 1, 1));
  EXPECT_EQ(next.wait(kStall), 3);
  EXPECT_EQ(read_file(dir.path() / "err"),
            "lockstepctl agent: the driver asks for cycle 1, time step 1, stage 1, which does not come after cycle 1, "
            "time step 1, stage 2, the last request served here: was the driver restarted?\n"
            "lockstepctl agent: served 2 requests, 0 failed\n");
  EXPECT_EQ(read_file(project() / "go2.dat"), reset_record());
  EXPECT_EQ(read_file(project() / "agent.log"), "1 1 1\n1 1 2\n");
}

// Out of descriptors, the agent says so within seconds and keeps trying.
TEST_F(AgentAloneTest, AGoFileThatCannotBeOpenedIsReportedAndRetried) {
  const auto err = dir.path() / "err";
  Background served({"sh", "-c",
                     "exec 2> " + err.string() + " 3>&- 4>&-; ulimit -n 5; exec " + std::string(LOCKSTEPCTL_BINARY) +
                         " agent --dir " + project().string() + " -- true"},
                    dir.path());
  const std::string message = "lockstepctl agent: cannot read " + project().string() +
                              "/go2.dat: Too many open files; still trying\n";
  EXPECT_TRUE(wait_until([&] { return read_file(err) == message; })) << read_file(err);
  kill(served.pid(), SIGTERM);
  EXPECT_EQ(served.wait(kStall), 0);
  EXPECT_EQ(read_file(project() / "go2.dat"), reset_record());
}

}  // namespace
}  // namespace lockstep::testing
