#include "ctl/agent.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "project/endpoint.h"
#include "records/status.h"

namespace lockstep::ctl {
namespace {

constexpr int kUsageStatus = 2;

constexpr const char* kHelp =
    "usage: lockstepctl agent [--dir DIR] [--last-cycle N] [--done-on-failure] -- COMMAND [ARGS...]\n"
    "\n"
    "Serves one project directory: waits for each request of the lockstep driver,\n"
    "runs COMMAND with the cycle, time-step and stage numbers appended (time step -1\n"
    "and stage 5 for the cycle-end request) and in LOCKSTEP_CYCLE, LOCKSTEP_TIME_STEP,\n"
    "LOCKSTEP_STAGE and LOCKSTEP_PROJECT_DIR, and reports the request done when\n"
    "COMMAND succeeds.\n"
    "\n"
    "  --dir DIR          the project directory (default: the current directory)\n"
    "  --last-cycle N     stop after the cycle-end request of cycle N\n"
    "  --done-on-failure  report a request done even when COMMAND fails\n"
    "  --help             show this help\n"
    "\n"
    "SIGINT and SIGTERM stop the agent; a running COMMAND is passed the signal and\n"
    "its request is left not done.\n";

volatile sig_atomic_t stop_signal = 0;

extern "C" void remember_signal(int signal_number) { stop_signal = signal_number; }

void install_stop_handlers() {
  struct sigaction action {};
  action.sa_handler = remember_signal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: a blocked waitpid must see the signal
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

struct Options {
  std::string directory = ".";
  std::optional<long> last_cycle;
  bool done_on_failure = false;
  std::vector<std::string> command;
};

// Parses the options; an empty string on success, else the complaint.
std::string parse(int argc, char** argv, Options& options, bool& help) {
  int i = 0;
  for (; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--") {
      ++i;
      break;
    }
    if (word == "--help" || word == "-h") {
      help = true;
      return {};
    }
    if (word == "--done-on-failure") {
      options.done_on_failure = true;
    } else if (word == "--dir" || word == "--last-cycle") {
      if (i + 1 >= argc) return word + " needs a value";
      const std::string value = argv[++i];
      if (word == "--dir") {
        options.directory = value;
      } else {
        char* end = nullptr;
        const long cycle = std::strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || cycle < 1 || cycle > INT_MAX) {
          return "--last-cycle needs a cycle number, not \"" + value + "\"";
        }
        options.last_cycle = cycle;
      }
    } else {
      return "unknown option \"" + word + "\"; the command follows \"--\"";
    }
  }
  for (; i < argc; ++i) options.command.emplace_back(argv[i]);
  if (options.command.empty()) return "no command given after \"--\"";
  return {};
}

// Runs the command for `request` and waits for it; returns the wait status,
// or -1 when no process could be started.
int run_command(const Options& options, const std::string& directory, const project::Request& request) {
  const std::string cycle = std::to_string(request.cycle);
  const std::string time_step = std::to_string(request.time_step);
  const std::string stage = std::to_string(request.stage);
  std::vector<std::string> words = options.command;
  words.insert(words.end(), {cycle, time_step, stage});
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    setenv("LOCKSTEP_CYCLE", cycle.c_str(), 1);
    setenv("LOCKSTEP_TIME_STEP", time_step.c_str(), 1);
    setenv("LOCKSTEP_STAGE", stage.c_str(), 1);
    setenv("LOCKSTEP_PROJECT_DIR", directory.c_str(), 1);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    execvp(arguments[0], arguments.data());
    const std::string message =
        "lockstepctl agent: cannot run " + words.front() + ": " + records::os_error_text(errno) + "\n";
    static_cast<void>(write(STDERR_FILENO, message.data(), message.size()));
    _exit(127);
  }
  bool forwarded = false;
  for (;;) {
    int status = 0;
    if (waitpid(child, &status, 0) == child) return status;
    if (errno != EINTR) return -1;
    if (stop_signal != 0 && !forwarded) {
      kill(child, stop_signal);
      forwarded = true;
    }
  }
}

std::string how_it_ended(int status) {
  if (status < 0) return "it could not be started";
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

int agent_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  Options options;
  bool help = false;
  if (const std::string complaint = parse(argc, argv, options, help); !complaint.empty()) {
    err << "lockstepctl agent: " << complaint << "\n"
        << "Try 'lockstepctl agent --help'.\n";
    return kUsageStatus;
  }
  if (help) {
    out << kHelp;
    return 0;
  }

  std::string reason;
  const auto endpoint = project::Endpoint::open(options.directory, reason);
  if (!endpoint) {
    err << "lockstepctl agent: " << reason << "\n";
    return 1;
  }
  std::error_code ignored;
  const std::string absolute = std::filesystem::absolute(options.directory, ignored).lexically_normal().string();
  install_stop_handlers();

  for (;;) {
    project::Request request;
    const project::WaitResult waited = endpoint->wait(request, [] { return stop_signal != 0; });
    if (waited == project::WaitResult::kStopped) return 0;
    if (waited == project::WaitResult::kError) {
      err << "lockstepctl agent: " << endpoint->error() << "\n";
      return 1;
    }

    const int status = run_command(options, absolute, request);
    const bool succeeded = status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (stop_signal != 0 && !succeeded) return 0;
    if (!succeeded) {
      err << "lockstepctl agent: " << options.command.front() << " failed on " << project::describe(request) << ": "
          << how_it_ended(status) << (options.done_on_failure ? "; reported done anyway" : "; left not done")
          << "\n";
      if (!options.done_on_failure) return 1;
    }
    if (!endpoint->report_done()) {
      err << "lockstepctl agent: " << endpoint->error() << "\n";
      return 1;
    }
    if (stop_signal != 0) return 0;
    if (request.cycle_end() && options.last_cycle && request.cycle >= *options.last_cycle) return 0;
  }
}

}  // namespace lockstep::ctl
