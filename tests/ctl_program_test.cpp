// lockstepctl check and status on run trees, good, faulty and frozen mid-run.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <map>

#include "handshake/go_files.h"
#include "project/directory_lock.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using handshake::cycle_end_record;
using handshake::reset_record;
using handshake::stage_record;
using ::testing::Not;

// Every file under the tree with its content, to prove nothing changed.
std::map<std::string, std::string> snapshot(const std::filesystem::path& root) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    files[entry.path().string()] = entry.is_symlink()        ? "<link>"
                                   : entry.is_regular_file() ? read_file(entry.path())
                                                             : "<not regular>";
  }
  return files;
}

// A ready tree: three projects, each with an executable program.
struct GoodTree {
  GoodTree() {
    tree.projects(2, "#!/bin/sh\n", "step.sh");
    tree.settings(3, 2, 2);
  }
  // As a user runs it: as root, who may write anywhere, the tree is handed to
  // nobody and check runs as nobody.
  Exit check(const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv = {LOCKSTEPCTL_BINARY, "check", "run"};
    argv.insert(argv.end(), options.begin(), options.end());
    if (geteuid() == 0) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(tree.run().parent_path())) {
        EXPECT_EQ(lchown(entry.path().c_str(), 65534, 65534), 0);
      }
      argv.insert(argv.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    }
    return run_program(argv, tree.run().parent_path());
  }

  RunTree tree;
};

class CheckTest : public ::testing::Test, protected GoodTree {};

// Peak memory of a tool that read a FIFO or /dev/zero, well below what the
// first megabytes of an endless file would take.
constexpr long kMemoryBoundKib = 400 * 1024;

TEST_F(CheckTest, EachPlantedFaultIsNamedWithItsFixAndNothingChanges) {
  struct Case {
    const char* name;
    std::string path;  // in the tree
    std::string content;
    std::string line;  // of the report; {root} is the tree, {real} the tree with links resolved
    int problems = 1;
    std::string also_path = "", also_content = "";  // a second file planted
  };
  const std::string settings = "run/analysis_settings.dat";
  const std::string fix = "'lockstepctl check --fix'";
  const Case cases[] = {
      {"nothing planted", "", "", "ready: 3 projects, no problems", 0},
      {"settings missing", settings, "<missing>",
       "  analysis_settings.dat is missing: start from one with your run's time steps per cycle, cycles and sub "
       "projects (printf 'time_step=\\n4\\ncycle_num=\\n2\\nnum_subprojects=\\n1\\n' > analysis_settings.dat)"},
      {"settings malformed", settings, "time_step=\nabc\ncycle_num=\n1\nnum_subprojects=\n0\n",
       "  analysis_settings.dat: key \"time_step=\": line 2 holds no integer"},
      {"key missing", settings, "time_step=\n1\nnum_subprojects=\n2\n",
       "  analysis_settings.dat: key \"cycle_num=\" not found (the file ends at line 4)"},
      {"too many sub projects", settings, settings_text(3, 2, 101), "  num_subprojects is 101; the limit is 100"},
      {"as many sub projects as allowed", settings, settings_text(3, 2, 100), "sub100: project directory ../sub**/ is missing: "
       "create it (mkdir {root}/sub**/) with its CalculateInteraction.dat, or lower num_subprojects", 98},
      {"negative sub projects", settings, settings_text(3, 2, -1),
       "  num_subprojects is -1, below 0: write 0 for the main project alone"},
      {"no cycles", settings, settings_text(3, 0, 2),
       "  cycle_num is 0: lockstep would run no stage; write the number of cycles, 1 or more"},
      {"negative time steps", settings, settings_text(-5, 2, 2),
       "  time_step is -5: lockstep would run no stage; write the number of time steps per cycle, 0 or more"},
      {"settings a FIFO", settings, "<fifo>",
       "  analysis_settings.dat is a FIFO, not a regular file: replace it with one (rm {root}/run/analysis_settings.dat)"},
      {"project directory missing", "sub2", "<missing>",
       "sub2: project directory ../sub2/ is missing: create it (mkdir {root}/sub2/) with its CalculateInteraction.dat, "
       "or lower num_subprojects"},
      {"interaction file missing", "sub1/CalculateInteraction.dat", "<missing>",
       "sub1: CalculateInteraction.dat is missing: name the program lockstep runs for sub1 in each stage in its first "
       "line, for example lockstep-exchange (echo lockstep-exchange > {root}/sub1/CalculateInteraction.dat)"},
      {"interaction file empty", "sub1/CalculateInteraction.dat", "", "sub1: CalculateInteraction.dat is empty"},
      {"interaction file a FIFO", "sub1/CalculateInteraction.dat", "<fifo>",
       "sub1: CalculateInteraction.dat is a FIFO, not a regular file: replace it with a file whose first line "
       "names the program (rm {root}/sub1/CalculateInteraction.dat)"},
      {"first line too long", "sub1/CalculateInteraction.dat", std::string(30, 'a') + "b.sh\n",
       "sub1: the first line of CalculateInteraction.dat is longer than 30 characters; lockstep runs \"" +
           std::string(30, 'a') + "\"",
       2},
      {"program missing", "sub1/step.sh", "<missing>",
       "sub1: program ../sub1/step.sh is missing: put sub1's interaction program there"},
      {"exchange link missing", "sub1/CalculateInteraction.dat", "lockstep-exchange\n",
       "sub1: program ../sub1/lockstep-exchange is missing: put sub1's interaction program there, or link the installed "
       "one (ln -s \"$(command -v lockstep-exchange)\" {root}/sub1/lockstep-exchange)"},
      {"program not executable", "main/step.sh", "<read-only>", "main: program ../main/step.sh is not executable"},
      {"project directory read-only", "sub1", "<read-only>",
       "sub1: project directory ../sub1/ is not writable: the project cannot report done by rename and lockstep cannot "
       "create its go files; make it writable (chmod u+w {root}/sub1)"},
      {"shell specials", "sub2/CalculateInteraction.dat", "step$1.sh\n",
       "sub2: the program name \"step$1.sh\" holds characters the shell treats specially (\" $ ` \\)", 2},
      {"go2.dat missing", "sub1/go2.dat", "<missing>", "sub1: go2.dat is missing: run " + fix + " to create it reporting done"},
      {"go2.dat garbage", "sub1/go2.dat", "busy\n", "sub1: go2.dat holds no integer"},
      {"go2.dat read-only", "sub2/go2.dat", "<read-only>",
       "sub2: go2.dat is not writable: lockstep would retry writing it forever; make it writable (chmod u+w "
       "{root}/sub2/go2.dat)"},
      {"go2.dat empty", "sub2/go2.dat", "",
       "sub2: go2.dat is empty, as a killed lockstep leaves it: lockstep would wait for it forever; run " + fix},
      {"go2.dat a FIFO", "sub1/go2.dat", "<fifo>",
       "sub1: go2.dat is a FIFO, not a regular file: remove it (rm {root}/sub1/go2.dat) and run " + fix},
      {"go2.dat a device", "sub1/go2.dat", "-> /dev/zero",
       "sub1: go2.dat is a symbolic link to /dev/zero, outside the run tree: lockstep would overwrite that file; "
       "replace the link with a regular file (rm {root}/sub1/go2.dat)",
       2},
      {"go.dat a directory", "sub2/go.dat", "<directory>",
       "sub2: go.dat is a directory, not a regular file: remove it (rmdir {root}/sub2/go.dat)"},
      {"go.dat linked out of the tree", "main/go.dat", "-> ../elsewhere.dat",
       "main: go.dat is a symbolic link to {real}/elsewhere.dat, outside the run tree: lockstep would overwrite "
       "that file; replace the link with a regular file (rm {root}/main/go.dat)"},
      {"go.dat linked within the tree", "main/go.dat", "-> ../run/main-go.dat",
       "main: warning: go.dat is a symbolic link to {real}/run/main-go.dat: lockstep writes through it", 0},
      {"first stage would wait", "sub1/go2.dat", reset_record(),
       "the done values add up to -1000, not 0: the first stage would wait; not done: ../sub1/ (-1000), as a finished "
       "or stopped run leaves them: run " + fix + " to report them done"},
      // Harmless once go2.dat reports done: no solver serves it then.
      {"request left in go.dat", "sub2/go.dat", stage_record(1, 2, 3), "ready: 3 projects, no problems", 0},
      {"a finished run's request and reset", "sub2/go2.dat", reset_record(),
       "the done values add up to -1000, not 0: the first stage would wait, and a solver started now would serve "
       "again the request its go.dat still holds; not done: ../sub2/ (-1000), as a finished or stopped run leaves "
       "them: run " + fix + " to report them done",
       1, "sub2/go.dat", cycle_end_record(2)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    GoodTree fresh;
    const std::filesystem::path root = fresh.tree.run().parent_path();
    write_file(root / "elsewhere.dat", "");
    if (!c.path.empty()) plant(root / c.path, c.content);
    if (!c.also_path.empty()) plant(root / c.also_path, c.also_content);
    std::string line = c.line;
    for (const auto& [name, value] : {std::pair{std::string("{root}"), std::filesystem::absolute(root).string()},
                                      std::pair{std::string("{real}"), std::filesystem::canonical(root).string()}}) {
      for (std::size_t at; (at = line.find(name)) != std::string::npos;) line.replace(at, name.size(), value);
    }
    const auto before = snapshot(root);
    const Exit exit = fresh.check();
    EXPECT_EQ(exit.status, c.problems == 0 ? 0 : 1) << exit.err;
    EXPECT_THAT(exit.out, HasSubstr("\n" + line + "\n")) << exit.err;
    EXPECT_THAT(exit.out, HasSubstr(c.problems == 0 ? "\nready: " : "\nnot ready: " + std::to_string(c.problems) +
                                    (c.problems == 1 ? " problem\n" : " problems\n")));
    EXPECT_LT(exit.max_rss_kib, kMemoryBoundKib);
    EXPECT_EQ(snapshot(root), before);
  }
}

// Every problem at once; what files hold reaches the terminal as visible
// escapes and the JSON as valid UTF-8.
TEST_F(CheckTest, EveryProblemAtOnceEscapedForTheTerminalAndAsJson) {
  write_file(tree.project(1) / "CalculateInteraction.dat", "st\x1b]0;x\x07" "ep\xff.sh\n");
  std::filesystem::remove(tree.project(2) / "step.sh");
  const Exit text = check();
  EXPECT_EQ(text.status, 1);
  EXPECT_THAT(text.out, HasSubstr("sub1: program ../sub1/st\\x1b]0;x\\x07ep\\xff.sh is missing: put sub1's "
                                  "interaction program there\nsub2: program ../sub2/step.sh is missing: put sub2's "
                                  "interaction program there\n\nnot ready: 2 problems"));
  EXPECT_EQ(text.out.find_first_of("\x1b\x07\xff"), std::string::npos);

  const Exit json = check({"--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.out.rfind("{\"run_directory\":", 0), 0u);
  EXPECT_THAT(json.out, HasSubstr("\"ready\":false"));
  EXPECT_THAT(json.out, HasSubstr("{\"index\":1,\"directory\":\"../sub1/\",\"program\":\"st\\u001b]0;x\\u0007ep\xef\xbf\xbd.sh\","
                                  "\"done\":0,\"problems\":[\"program ../sub1/st\\u001b]0;x\\u0007ep\xef\xbf\xbd.sh is missing: put "
                                  "sub1's interaction program there\"],\"warnings\":[],\"notes\":[]}"));
  EXPECT_EQ(json.out.find('\xff'), std::string::npos);
}

// What a killed driver and killed projects leave behind, made ready for a
// fresh start, with nothing else touched.
TEST_F(CheckTest, FixPreparesACrashedTreeAndListsWhatItChanged) {
  write_file(tree.project(0) / "go.dat", stage_record(1, 2, 3));
  write_file(tree.project(0) / "go2.dat", reset_record());
  write_file(tree.project(1) / "go2.dat", "");
  write_file(tree.project(2) / ".go2.dat.4242.tmp", "0\n");
  write_file(tree.project(2) / "go2.dat", "0\n");
  const Exit exit = check({"--fix"});
  EXPECT_EQ(exit.out.substr(0, exit.out.find("\n\n")),
            "wrote 0 into ../main/go2.dat (it held -1000)\n"
            "wrote 0 into ../sub1/go2.dat\n"
            "removed ../sub2/.go2.dat.4242.tmp\n"
            "changed 3 files");
  for (int index = 0; index <= 2; ++index) EXPECT_EQ(read_file(tree.project(index) / "go2.dat"), "0\n");
  EXPECT_FALSE(std::filesystem::exists(tree.project(2) / ".go2.dat.4242.tmp"));
  EXPECT_EQ(read_file(tree.project(0) / "go.dat"), stage_record(1, 2, 3));
  // The request left in go.dat is no problem once go2.dat reports done.
  EXPECT_EQ(exit.status, 0);
  EXPECT_THAT(exit.out, HasSubstr("\nready: 3 projects, no problems\n"));
  EXPECT_EQ(check({"--fix"}).out.substr(0, 18), "nothing to change\n");
}

// Nobody plays sub1: the driver waits for it. status names it, how long it
// has held the run and where the run stands; check names the driver, and
// --fix touches nothing while it runs.
TEST(LiveRunTest, AProjectThatNeverAnswersHoldsTheRunAndTheToolsSayWhy) {
  RunTree tree;
  tree.projects(1, "#!/bin/sh\n");
  tree.settings(1, 1, 1);
  Players players(tree);
  players.play(0, 0, 5);
  Background driver({LOCKSTEP_BINARY}, tree.run());
  // Every request handed out (the go files were reset before), main's served.
  ASSERT_TRUE(wait_until([&] {
    return read_file(tree.project(1) / "go.dat") == stage_record(1, 1, 1) && read_file(tree.project(0) / "go2.dat") == "0\n";
  }));
  const std::string pid = std::to_string(driver.pid());
  // Reset 90 seconds ago, as status sees it.
  const auto held = tree.project(1) / "go2.dat";
  std::filesystem::last_write_time(held, std::filesystem::file_time_type::clock::now() - std::chrono::seconds(90));
  const auto before = snapshot(tree.run().parent_path());
  const Exit status = run_program({LOCKSTEPCTL_BINARY, "status", "."}, tree.run());
  EXPECT_THAT(status.out, HasSubstr("\nlockstep: running (PID " + pid + ")\n"));
  EXPECT_THAT(status.out, HasSubstr("request: cycle 1, time step 1, stage 1\n"
                                    "position: cycle 1 of 1, time step 1 of 1, stage 1 of 4; 0 of 5 stages done\n"));
  const std::string held_row = "\nPROJECT DONE    HOLDING THE RUN FOR\nmain    yes\nsub1    no      ";
  const std::size_t row = status.out.find(held_row);
  ASSERT_NE(row, std::string::npos) << status.out;
  const double held_for = std::strtod(status.out.c_str() + row + held_row.size(), nullptr);
  EXPECT_GE(held_for, 90.0);
  EXPECT_LT(held_for, 150.0);
  EXPECT_THAT(status.out, HasSubstr("\nwaiting for: sub1\n"));

  // As the driver's user: another one may not see which directory it works in.
  const Exit check = run_program({LOCKSTEPCTL_BINARY, "check", "run"}, tree.run().parent_path());
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(check.out, HasSubstr("\nlockstep is already running in this run directory (PID " + pid +
                                   "): a second driver would lose stages; wait for it to end or stop it (kill " + pid +
                                   ")\n"));
  const Exit fix = run_program({LOCKSTEPCTL_BINARY, "check", "run", "--fix"}, tree.run().parent_path());
  EXPECT_EQ(fix.status, 1);
  EXPECT_EQ(fix.err, "lockstepctl check: lockstep is running in " + std::filesystem::absolute(tree.run()).string() +
                         " (PID " + pid + "); --fix changes nothing while it runs\n");
  EXPECT_EQ(snapshot(tree.run().parent_path()), before);
  // The live request is no leftover, and the stage's done values are the
  // driver's: nothing to remove, nothing for --fix.
  EXPECT_THAT(check.out, HasSubstr("\nmain: go.dat holds the request of the running lockstep (PID " + pid +
                                   "): cycle 1, time step 1, stage 1\n"));
  EXPECT_THAT(check.out, HasSubstr("\nnot ready: 1 problem\n"));
  EXPECT_THAT(check.out, Not(HasSubstr("rm ")));
  EXPECT_THAT(check.out, Not(HasSubstr("--fix")));

  // A solver that takes the request and is killed: its lock is free, and
  // both tools say what that means and how to go on.
  {
    Background agent({LOCKSTEPCTL_BINARY, "agent", "--dir", tree.project(1).string(), "--", "sleep", "1"}, tree.run());
    ASSERT_TRUE(wait_until([&] {
      return read_file(tree.project(1) / ".lockstep.lock").rfind(std::to_string(agent.pid()) + " ", 0) == 0;
    }));
    const pid_t served_by = agent.pid();
    ASSERT_EQ(::kill(served_by, SIGKILL), 0);
    EXPECT_EQ(agent.wait(std::chrono::seconds(60)), -1);
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    const std::string advice = "no process serves sub1 (its lock is free; PID " + std::to_string(served_by) +
                               " on host " + host.data() + " took it last, ";
    const std::string outcome =
        " ago), and lockstep waits for its done: it goes on without it once its wait reaches 1,000,000 passes, at "
        "least 17 minutes into the stage, and the run is wrong from there. Restart the solver in ../sub1/ if it can "
        "take up the pending request where it stopped; otherwise stop lockstep (kill " + pid + ") and go on from "
        "the last checkpoint with 'lockstepctl resume'\n";
    const Exit dead = run_program({LOCKSTEPCTL_BINARY, "status", "."}, tree.run());
    EXPECT_THAT(dead.out, HasSubstr(" s, no process serves it\n"));
    EXPECT_THAT(dead.out, HasSubstr("\nwaiting for: sub1\n" + advice));
    EXPECT_THAT(dead.out, HasSubstr(outcome));
    const Exit checked = run_program({LOCKSTEPCTL_BINARY, "check", "."}, tree.run());
    EXPECT_THAT(checked.out, HasSubstr("\nsub1: " + advice));
    EXPECT_THAT(checked.out, HasSubstr(outcome));
    EXPECT_THAT(checked.out, HasSubstr("\nnot ready: 2 problems\n"));
  }
  EXPECT_FALSE(driver.wait(std::chrono::seconds(0)));
  EXPECT_EQ(read_file(tree.project(0) / "requests.log"), stage_record(1, 1, 1));
}

// Without a driver, status tells a finished run from a stopped one, counts
// exactly at the largest settings, and --watch ends by itself. FIFOs and
// endless devices where go files and settings belong neither block it nor
// fill its memory.
TEST(StatusTest, StoppedCompleteHugeAndHostileRuns) {
  struct Case {
    const char* name;
    int time_step, cycle_num;
    std::string go, go2;  // of both projects
    std::vector<std::string> lines;  // that the report holds
    std::string path = {}, content = {};  // planted in the tree
    int status = 0;
  };
  const std::string stopped =
      "\nlockstep has stopped before the end of the run; after a crash, 'lockstepctl check --fix' prepares the "
      "tree for a fresh start\n";
  const Case cases[] = {
      {"stopped between reset and request", 3, 2, reset_record(), reset_record(),
       {"request: none yet (../main/go.dat holds no request)\n", stopped}},
      {"stopped mid-run", 3, 2, stage_record(1, 2, 3), reset_record(), {"; 6 of 26 stages done\n", stopped}},
      {"complete", 3, 2, handshake::cycle_end_record(2), "0\n", {"; 26 of 26 stages done\n", "\nthe run is complete\n"}},
      {"never started", 3, 2, "", "0\n",
       {"\nno run has started in this tree: look at it with 'lockstepctl check', then start lockstep in it\n"}},
      {"largest schedule", 2147483647, 2147483647, handshake::cycle_end_record(2147483647), "0\n",
       {"; 18446744058677166083 of 18446744058677166083 stages done\n"}},
      {"no time steps", 0, 2, handshake::cycle_end_record(1), reset_record(),
       {"position: cycle 1 of 2, closing time step; 0 of 2 stages done\n"}},
      {"outside the schedule", 3, 2, stage_record(5, 1, 1), reset_record(),
       {"position: outside the schedule of analysis_settings.dat\n"}},
      {"no such stage", 3, 2, stage_record(1, 1, 7), reset_record(),
       {"position: outside the schedule of analysis_settings.dat\n"}},
      {"go.dat a FIFO", 3, 2, stage_record(1, 1, 1), reset_record(),
       {"request: none yet (../main/go.dat holds no request)\n"}, "main/go.dat", "<fifo>"},
      {"go2.dat an endless device", 3, 2, stage_record(1, 1, 1), reset_record(),
       {"\nmain    ?       go2.dat is a character device"}, "main/go2.dat", "-> /dev/zero"},
      {"settings a FIFO", 3, 2, stage_record(1, 1, 1), reset_record(),
       {"\nsettings: analysis_settings.dat is a FIFO"}, "run/analysis_settings.dat", "<fifo>", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree tree;
    tree.projects(1);
    tree.settings(c.time_step, c.cycle_num, 1);
    for (int index = 0; index <= 1; ++index) {
      write_file(tree.project(index) / "go.dat", c.go);
      write_file(tree.project(index) / "go2.dat", c.go2);
    }
    if (!c.path.empty()) plant(tree.run().parent_path() / c.path, c.content);
    const Exit exit = run_program({LOCKSTEPCTL_BINARY, "status", "--watch"}, tree.run());
    EXPECT_EQ(exit.status, c.status);
    EXPECT_THAT(exit.out, HasSubstr("\nlockstep: not running in this directory on this machine (other machines were not "
                                    "looked at)\n"));
    for (const std::string& line : c.lines) EXPECT_THAT(exit.out, HasSubstr(line));
    EXPECT_EQ(exit.out.find("waiting for"), std::string::npos) << exit.out;
    EXPECT_LT(exit.max_rss_kib, kMemoryBoundKib);
  }
}

// A solver that expects more cycles than the run has waits on after the
// driver's end: status names it.
TEST(StatusTest, ACompleteRunNamesTheSolversStillWaiting) {
  RunTree tree;
  tree.projects(1);
  tree.settings(3, 2, 1);
  for (int index = 0; index <= 1; ++index) {
    write_file(tree.project(index) / "go.dat", handshake::cycle_end_record(2));
    write_file(tree.project(index) / "go2.dat", "0\n");
  }
  std::string error;
  const auto served = project::DirectoryLock::acquire(tree.project(1).string(), error);
  ASSERT_NE(served, nullptr) << error;
  std::array<char, 256> host{};
  ::gethostname(host.data(), host.size() - 1);
  const Exit exit = run_program({LOCKSTEPCTL_BINARY, "status"}, tree.run());
  EXPECT_THAT(exit.out, HasSubstr("\nthe run is complete\nstill served, waiting for requests that will not come: "
                                  "sub1 (PID " + std::to_string(::getpid()) + " on host " + host.data() +
                                  "); their solvers expect more cycles than the run's 2: stop them\n"));
}

}  // namespace
}  // namespace lockstep::testing
