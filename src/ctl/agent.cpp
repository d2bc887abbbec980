#include "ctl/agent.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ctl/command_line.h"
#include "project/endpoint.h"
#include "records/status.h"

namespace lockstep::ctl {
namespace {

constexpr int kMovedOnStatus = 3;

constexpr const char* kFooter =
    "Serves one project directory: waits for each request of the lockstep driver,\n"
    "runs COMMAND in the project directory with the cycle, time-step and stage\n"
    "numbers appended (time step -1 and stage 5 for the cycle-end request) and in\n"
    "LOCKSTEP_CYCLE, LOCKSTEP_TIME_STEP, LOCKSTEP_STAGE and LOCKSTEP_PROJECT_DIR, and\n"
    "reports the request done when COMMAND succeeds. Network file systems (NFS,\n"
    "Lustre, GPFS, BeeGFS, CIFS) are always polled, since inotify misses other\n"
    "machines' writes. At its end the agent prints how many requests it served and\n"
    "how many failed.\n"
    "\n"
    "With --checkpoint, COMMAND saves its state in every cycle-end request it serves,\n"
    "and the agent then records that the project can restart after that cycle. In a\n"
    "run resumed with 'lockstepctl resume', cycle numbers are the run's own and\n"
    "LOCKSTEP_RESUMES_AFTER holds the cycle whose saved state COMMAND starts from.\n"
    "\n"
    "One agent serves a directory: the agent locks DIR/.lockstep.lock and a second\n"
    "one is refused, with the PID and host of the first.\n"
    "\n"
    "COMMAND runs in a process group of its own and is killed when the agent dies,\n"
    "even by SIGKILL. SIGINT and SIGTERM stop the agent and reach COMMAND's whole\n"
    "group; the request is then left not done, whatever COMMAND's exit status.\n"
    "\n"
    "The driver waits for a stage for at most 1,000,000 polls, about 17 to 19\n"
    "minutes, and then goes on as if every project were done. A request served\n"
    "after that is not reported done: the agent names it and the request pending\n"
    "now. The same holds for a request that does not come after the last one\n"
    "served (a driver restarted from the start). The request reported done last,\n"
    "seen again with go2.dat reset, is a cached view of go.dat: the agent waits\n"
    "on, and says so after 10 s. Keep every request well under 17 minutes, or\n"
    "split the work over more stages.\n"
    "\n"
    "Exit status: 0 when stopped while waiting or after --last-cycle, 1 on an\n"
    "error or a failed COMMAND, 2 on a usage error, 3 when the driver has moved on,\n"
    "128+N when signal N interrupted COMMAND.";

volatile sig_atomic_t stop_signal = 0;

extern "C" void remember_signal(int signal_number) { stop_signal = signal_number; }

void install_stop_handlers() {
  struct sigaction action {};
  action.sa_handler = remember_signal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: the wait's pause must see the signal
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

struct Options {
  std::string directory = ".";
  std::optional<std::string> command_directory;
  std::optional<int> last_cycle;
  bool done_on_failure = false;
  bool carry_on = false;
  bool keep_stdin = false;
  bool verbose = false;
  bool checkpoint = false;
  project::WaitSettings wait;
  std::vector<std::string> command;
};

// SIGINT, SIGTERM and SIGCHLD held back while COMMAND runs, so that none of
// them can slip in between a check and the wait for it.
class HeldSignals {
 public:
  HeldSignals() {
    sigemptyset(&held_);
    for (const int signal_number : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&held_, signal_number);
    sigprocmask(SIG_BLOCK, &held_, &previous_);
  }
  ~HeldSignals() { sigprocmask(SIG_SETMASK, &previous_, nullptr); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;
  const sigset_t& held() const { return held_; }
  const sigset_t& previous() const { return previous_; }

 private:
  sigset_t held_;
  sigset_t previous_;
};

// `directory`: the project directory, absolute; `run_in`: where COMMAND runs.
[[noreturn]] void exec_command(const Options& options, const std::string& directory, const std::string& run_in,
                               const project::Request& request, const HeldSignals& signals, pid_t agent) {
  if (!options.keep_stdin) setpgid(0, 0);
  // Dies with the agent, whatever ends it.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != agent) _exit(127);
  if (!options.keep_stdin) {
    const int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null_fd >= 0) dup2(null_fd, STDIN_FILENO);
  }
  const std::string cycle = std::to_string(request.cycle);
  const std::string time_step = std::to_string(request.time_step);
  const std::string stage = std::to_string(request.stage);
  std::vector<std::string> words = options.command;
  words.insert(words.end(), {cycle, time_step, stage});
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  setenv("LOCKSTEP_CYCLE", cycle.c_str(), 1);
  setenv("LOCKSTEP_TIME_STEP", time_step.c_str(), 1);
  setenv("LOCKSTEP_STAGE", stage.c_str(), 1);
  setenv("LOCKSTEP_PROJECT_DIR", directory.c_str(), 1);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  sigprocmask(SIG_SETMASK, &signals.previous(), nullptr);
  std::string message;
  if (chdir(run_in.c_str()) != 0) {
    message = "lockstepctl agent: cannot run " + words.front() + " in " + run_in + ": " +
              records::os_error_text(errno) + "\n";
  } else {
    execvp(arguments[0], arguments.data());
    message = "lockstepctl agent: cannot run " + words.front() + " in " + run_in + ": " +
              records::os_error_text(errno) + "\n";
  }
  static_cast<void>(write(STDERR_FILENO, message.data(), message.size()));
  _exit(127);
}

// Runs the command for `request` and waits for it; returns the wait status,
// or -1 when no process was started. A stop signal that arrives meanwhile
// is passed to the command's process group and left in stop_signal.
int run_command(const Options& options, const std::string& directory, const std::string& run_in,
                const project::Request& request) {
  const HeldSignals signals;
  if (stop_signal != 0) return -1;
  const pid_t agent = getpid();
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) exec_command(options, directory, run_in, request, signals, agent);
  // Set from both sides, so that the group exists before any signal to it.
  if (!options.keep_stdin) setpgid(child, child);
  const pid_t target = options.keep_stdin ? child : -child;
  for (;;) {
    siginfo_t info{};
    const int signal_number = sigwaitinfo(&signals.held(), &info);
    if (signal_number == SIGINT || signal_number == SIGTERM) {
      stop_signal = signal_number;
      // A key at the terminal has reached a command in the agent's own
      // group already.
      if (!options.keep_stdin || info.si_code != SI_KERNEL) kill(target, signal_number);
    } else if (signal_number == SIGCHLD) {
      int status = 0;
      if (waitpid(child, &status, WNOHANG) == child) return status;
    }
  }
}

std::string how_it_ended(int status) {
  if (status < 0) return "it could not be started";
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exit status " + std::to_string(WEXITSTATUS(status));
}

struct Tally {
  long served = 0;  // reported done
  long failed = 0;  // COMMAND failed
};

// Serves requests until the last cycle, a stop signal or a failure; returns
// the agent's exit status.
int serve(const Options& options, project::Endpoint& endpoint, const std::string& absolute, const std::string& run_in,
          Tally& tally, std::ostream& err) {
  const auto moved_on = [&](const char* what_now) {
    err << "lockstepctl agent: " << endpoint.error() << (options.carry_on ? what_now : "") << "\n";
    return options.carry_on ? 0 : kMovedOnStatus;
  };
  for (;;) {
    project::Request request;
    const project::WaitResult waited = endpoint.wait(request, [] { return stop_signal != 0; });
    if (waited == project::WaitResult::kStopped) return 0;
    if (waited == project::WaitResult::kError) {
      err << "lockstepctl agent: " << endpoint.error() << "\n";
      return 1;
    }
    if (waited == project::WaitResult::kOutOfOrder) {
      if (const int status = moved_on("; serving it"); status != 0) return status;
    }

    const auto started = std::chrono::steady_clock::now();
    const int status = run_command(options, absolute, run_in, request);
    if (options.verbose) {
      char took[32];
      std::snprintf(took, sizeof took, "%.3f s",
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
      err << "lockstepctl agent: " << project::describe(request) << ": " << how_it_ended(status) << " after " << took
          << "\n";
    }
    if (stop_signal != 0) {
      err << "lockstepctl agent: stopped by signal " << stop_signal << " while " << options.command.front()
          << " served " << project::describe(request) << "; left not done\n";
      return 128 + stop_signal;
    }
    const bool succeeded = status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!succeeded) {
      ++tally.failed;
      err << "lockstepctl agent: " << options.command.front() << " failed on " << project::describe(request) << ": "
          << how_it_ended(status) << (options.done_on_failure ? "; reported done anyway" : "; left not done")
          << "\n";
      if (!options.done_on_failure) return 1;
    }
    if (succeeded && options.checkpoint && request.cycle_end() && !endpoint.checkpoint()) {
      err << "lockstepctl agent: cannot record the checkpoint of cycle " << request.cycle << ": " << endpoint.error()
          << "; left not done\n";
      return 1;
    }
    const project::DoneResult done = endpoint.report_done();
    if (done == project::DoneResult::kOverrun) {
      if (const int moved = moved_on("; going on with the request pending now"); moved != 0) return moved;
      continue;
    }
    if (done == project::DoneResult::kError) {
      err << "lockstepctl agent: " << endpoint.error() << "\n";
      return 1;
    }
    ++tally.served;
    if (request.cycle_end() && options.last_cycle && request.cycle >= *options.last_cycle) return 0;
  }
}

// The usage line names the command after "--", which CLI11 cannot know.
class CommandUsage : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: lockstepctl agent [OPTIONS] -- COMMAND [ARGS...]\n";
  }
};

}  // namespace

int agent_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  Options options;
  int ceiling_ms = 20;
  bool poll = false;
  CLI::App app("Serves a project directory by running COMMAND once per request of the lockstep driver.",
               "lockstepctl agent");
  set_up(app);
  app.formatter(std::make_shared<CommandUsage>());
  app.get_formatter()->column_width(24);
  app.footer(kFooter);
  app.add_option("--dir", options.directory, "the project directory (default: the current directory)")
      ->type_name("DIR");
  app.add_option("--last-cycle", options.last_cycle, "stop after the cycle-end request of cycle N")
      ->check(CLI::Range(1, INT_MAX))
      ->type_name("N");
  app.add_flag("--done-on-failure", options.done_on_failure, "report a request done even when COMMAND fails");
  app.add_flag("--carry-on", options.carry_on,
               "when the driver has moved on, say so and serve the request pending now instead of stopping with "
               "status 3");
  app.add_flag("--stdin", options.keep_stdin,
               "give COMMAND the agent's standard input (default: /dev/null); COMMAND then stays in the agent's "
               "process group");
  app.add_option("--command-dir", options.command_directory, "run COMMAND in this directory instead of the project's")
      ->type_name("DIR");
  app.add_flag("--checkpoint", options.checkpoint,
               "COMMAND saves its state in cycle-end requests: record each such cycle as a checkpoint to resume from");
  app.add_flag("--poll", poll, "look for requests by polling even on a local file system");
  app.add_option("--poll-ceiling", ceiling_ms, "when polling, look at least every MS milliseconds (default 20)")
      ->check(CLI::Range(1, 60000))
      ->type_name("MS");
  app.add_flag("--verbose", options.verbose,
               "say how requests are waited for, and print a line per request (how it ended, how long it took)");
  const CommandLine line = split_command(argc, argv);
  if (const auto status = parse(app, line.options, out, err)) return *status;
  if (line.command.empty()) {
    err << "lockstepctl agent: no command given after \"--\"\n"
        << "Try 'lockstepctl agent --help'.\n";
    return kUsageStatus;
  }
  options.command = line.command;
  if (poll) options.wait.mode = project::WaitMode::kPolling;
  options.wait.ceiling = std::chrono::milliseconds(ceiling_ms);

  std::string reason;
  const auto endpoint = project::Endpoint::open(options.directory, reason, options.wait);
  if (!endpoint || !endpoint->lock()) {
    err << "lockstepctl agent: " << (endpoint ? endpoint->error() : reason) << "\n";
    return 1;
  }
  if (endpoint->resumes_after()) {
    setenv("LOCKSTEP_RESUMES_AFTER", std::to_string(*endpoint->resumes_after()).c_str(), 1);
  } else {
    unsetenv("LOCKSTEP_RESUMES_AFTER");
  }
  endpoint->on_trouble([&err, &endpoint](const std::string& message) {
    if (message.empty()) {
      err << "lockstepctl agent: the go files in " << endpoint->directory() << " can be read again\n";
    } else {
      err << "lockstepctl agent: " << message << "\n";
    }
  });
  std::error_code ignored;
  const std::string absolute = std::filesystem::absolute(options.directory, ignored).lexically_normal().string();
  install_stop_handlers();
  if (options.verbose) err << "lockstepctl agent: serving " << absolute << ", waiting by " << endpoint->describe_mode() << "\n";

  const std::string run_in =
      options.command_directory ? std::filesystem::absolute(*options.command_directory, ignored).lexically_normal().string()
                                : absolute;
  Tally tally;
  const int status = serve(options, *endpoint, absolute, run_in, tally, err);
  err << std::string("lockstepctl agent: served ") + std::to_string(tally.served) + (tally.served == 1 ? " request" : " requests") +
             ", " + std::to_string(tally.failed) + " failed\n";
  return status;
}

}  // namespace lockstep::ctl
