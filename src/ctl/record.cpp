#include "ctl/record.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "config/project_tree.h"
#include "ctl/command_line.h"
#include "ctl/tree.h"
#include "project/endpoint.h"
#include "records/file_system.h"
#include "records/status.h"
#include "timeline/recorder.h"

namespace lockstep::ctl {
namespace {

constexpr const char* kFooter =
    "With \"-- COMMAND\", runs COMMAND (normally lockstep) in the current directory, the\n"
    "run directory, with its standard input, output and error untouched, records until\n"
    "it ends and exits with its status. With RUN_DIR instead (default: the current\n"
    "directory), records a run already going until SIGINT or SIGTERM, or until every\n"
    "project has reported done the cycle-end request of the last cycle.\n"
    "\n"
    "Every project directory is watched with inotify, and polled where inotify cannot\n"
    "see other machines' writes (NFS, Lustre, ...). Nothing is written into the run\n"
    "tree. FILE gets one JSON line per event (request written, reset written, done\n"
    "reported, the driver's exit, with --capture-stderr its standard error), each\n"
    "flushed as it comes: a recording of a run that crashed is still readable.\n"
    "'lockstepctl report FILE' summarises it.";

// How long, after COMMAND ends, the recorder waits for the projects' last
// done reports (the driver does not wait for the last request).
constexpr std::chrono::seconds kLastDoneGrace{2};
constexpr std::size_t kStderrLineLimit = 4096;

volatile sig_atomic_t stop_signal = 0;
extern "C" void remember_stop_signal(int signal_number) { stop_signal = signal_number; }

void install_stop_handlers() {
  struct sigaction action {};
  action.sa_handler = remember_stop_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

// SCHED_BATCH: the recorder's wake-ups do not preempt the driver or the
// solvers, yet it keeps its fair share of the processor, so that a busy
// machine delays its looks but does not starve them.
void step_aside() {
  sched_param parameters{};
  sched_setscheduler(0, SCHED_BATCH, &parameters);
}

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// Standard error of COMMAND: passed through at once, byte for byte, and
// recorded a line at a time.
class StderrTap {
 public:
  explicit StderrTap(timeline::Recorder& recorder) : recorder_(recorder) {}
  // False at the end of the stream.
  bool drain(int fd) {
    char buffer[4096];
    for (;;) {
      const ssize_t length = ::read(fd, buffer, sizeof buffer);
      if (length == 0) return false;
      if (length < 0) return errno == EAGAIN || errno == EINTR;
      for (ssize_t written = 0; written < length;) {
        const ssize_t n = ::write(STDERR_FILENO, buffer + written, static_cast<std::size_t>(length - written));
        if (n <= 0) break;
        written += n;
      }
      for (ssize_t i = 0; i < length; ++i) {
        if (buffer[i] == '\n' || line_.size() >= kStderrLineLimit) {
          recorder_.record_stderr(line_);
          line_.clear();
        }
        if (buffer[i] != '\n') line_ += buffer[i];
      }
    }
  }
  void finish() {
    if (!line_.empty()) recorder_.record_stderr(line_);
    line_.clear();
  }

 private:
  timeline::Recorder& recorder_;
  std::string line_;
};

struct Options {
  std::string output;
  std::string run_directory = ".";
  bool capture_stderr = false;
  bool poll = false;
  std::vector<std::string> command;
};

[[noreturn]] void exec_command(const std::vector<std::string>& command, int stderr_fd) {
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  if (stderr_fd >= 0) dup2(stderr_fd, STDERR_FILENO);
  std::vector<std::string> words = command;
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  const std::string message = "lockstepctl record: cannot run " + command.front() + ": " +
                              records::os_error_text(errno) + "\n";
  static_cast<void>(::write(STDERR_FILENO, message.data(), message.size()));
  _exit(127);
}

// Runs COMMAND and records until it ends; returns its exit status.
int record_command(const Options& options, timeline::Recorder& recorder, std::ostream& err) {
  int pipe_fds[2] = {-1, -1};
  if (options.capture_stderr && pipe2(pipe_fds, O_CLOEXEC) != 0) {
    err << "lockstepctl record: cannot make a pipe: " << records::os_error_text(errno) << "\n";
    return 1;
  }
  const pid_t child = fork();
  if (child < 0) {
    err << "lockstepctl record: cannot start " << options.command.front() << ": " << records::os_error_text(errno)
        << "\n";
    return 1;
  }
  if (child == 0) exec_command(options.command, pipe_fds[1]);
  // After the fork, so that COMMAND keeps its scheduling.
  step_aside();
  if (pipe_fds[1] >= 0) {
    ::close(pipe_fds[1]);
    fcntl(pipe_fds[0], F_SETFL, O_NONBLOCK);
  }
  StderrTap tap(recorder);
  int stderr_fd = pipe_fds[0];
  int status = 0;
  bool ended = false;
  while (!ended) {
    pollfd watched[2] = {{recorder.watch_fd(), POLLIN, 0}, {stderr_fd, POLLIN, 0}};
    ::poll(watched, stderr_fd >= 0 ? 2 : 1, recorder.polling() ? 2 : 50);
    recorder.look();
    if (stderr_fd >= 0 && !tap.drain(stderr_fd)) {
      ::close(stderr_fd);
      stderr_fd = -1;
    }
    // Ctrl-C reaches COMMAND from the terminal; SIGTERM is passed on.
    if (stop_signal == SIGTERM) kill(child, SIGTERM);
    stop_signal = 0;
    ended = waitpid(child, &status, WNOHANG) == child;
  }
  recorder.look_everywhere();
  if (stderr_fd >= 0) {
    tap.drain(stderr_fd);
    ::close(stderr_fd);
  }
  tap.finish();
  recorder.record_exit(WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  // The projects' done reports for the last request, which the driver does
  // not wait for.
  const auto until = std::chrono::steady_clock::now() + kLastDoneGrace;
  while (!recorder.all_done() && std::chrono::steady_clock::now() < until) {
    pollfd watched{recorder.watch_fd(), POLLIN, 0};
    ::poll(&watched, 1, recorder.polling() ? 2 : 50);
    recorder.look();
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Records a run already going until a stop signal or its last cycle end;
// notes the driver's end when it was seen running.
int record_attached(const std::optional<std::int32_t>& cycle_num, std::vector<pid_t> drivers,
                    timeline::Recorder& recorder) {
  step_aside();
  while (stop_signal == 0) {
    pollfd watched{recorder.watch_fd(), POLLIN, 0};
    ::poll(&watched, 1, recorder.polling() ? 2 : 100);
    recorder.look();
    if (!drivers.empty() && kill(drivers.front(), 0) != 0 && errno == ESRCH) {
      recorder.record_exit(-1, 0);
      drivers.clear();
    }
    if (cycle_num && recorder.served_cycle_end(*cycle_num)) break;
  }
  recorder.look_everywhere();
  return 0;
}

}  // namespace

int record_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  Options options;
  CLI::App app("lockstepctl record --output FILE [OPTIONS] -- COMMAND [ARGS...]\n"
               "lockstepctl record --output FILE [OPTIONS] [RUN_DIR]\n"
               "Records a lockstep run: every request, reset and done report of every project, with its time.",
               "lockstepctl record");
  set_up(app);
  app.footer(kFooter);
  app.add_option("--output,-o", options.output, "the recording to write (JSON lines)")->required()->type_name("FILE");
  app.add_flag("--capture-stderr", options.capture_stderr,
               "also record COMMAND's standard error (still passed through), for the failed launches");
  app.add_flag("--poll", options.poll, "poll every project directory, even on a local file system");
  app.add_option("RUN_DIR", options.run_directory, "the run directory of a run already going")->type_name("");
  const CommandLine line = split_command(argc, argv);
  if (const auto status = parse(app, line.options, out, err)) return *status;
  options.command = line.command;
  const bool command_form = line.has_command_separator;
  if (command_form && options.command.empty()) {
    err << "lockstepctl record: no command given after \"--\"\n";
    return kUsageStatus;
  }
  if (command_form && app.count("RUN_DIR") > 0) {
    err << "lockstepctl record: give RUN_DIR or \"-- COMMAND\", not both; COMMAND runs in the current directory\n";
    return kUsageStatus;
  }

  const TreeState tree = inspect_tree(command_form ? "." : options.run_directory, false);
  if (!tree.num_subprojects || !tree.settings_problems.empty()) {
    err << "lockstepctl record: cannot tell the projects of " << tree.run_directory.string() << ": "
        << (tree.settings_problems.empty() ? "no num_subprojects" : tree.settings_problems.front()) << "\n";
    return 1;
  }
  std::vector<timeline::WatchedProject> projects;
  timeline::Header header;
  header.run_directory = tree.run_directory.string();
  header.time_step = tree.time_step;
  header.cycle_num = tree.cycle_num;
  header.started = utc_now();
  for (int index = 0; index <= last_project(tree); ++index) {
    const std::string directory = (tree.run_directory / config::project_directory(index)).lexically_normal().string();
    projects.push_back({index, directory, options.poll || !project::network_file_system(directory).empty()});
    header.projects.push_back(index == 0 ? "main" : "sub" + std::to_string(index));
  }

  // Not passed on to COMMAND: the recording is opened close-on-exec.
  records::PosixFileSystem fs;
  const int fd = fs.open(options.output, records::OpenMode::kReplace);
  if (fd < 0) {
    err << "lockstepctl record: cannot write " << options.output << ": " << records::os_error_text(-fd) << "\n";
    return 1;
  }
  records::Descriptor file(fs, fd);
  bool write_failed = false;
  const auto write_line = [&](const std::string& text) {
    for (std::size_t written = 0; written < text.size() && !write_failed;) {
      const ssize_t n = fs.write(file.get(), text.data() + written, text.size() - written);
      if (n < 0) {
        err << "lockstepctl record: cannot write " << options.output << ": " << records::os_error_text(static_cast<int>(-n))
            << "; the recording stops here, the run goes on\n";
        write_failed = true;
      }
      written += n < 0 ? 0 : static_cast<std::size_t>(n);
    }
  };
  timeline::Recorder recorder(projects, write_line);
  const std::int32_t after_cycle = tree.resumed ? tree.resumed->after_cycle : 0;
  recorder.resumed_after(after_cycle);
  std::string error;
  if (!recorder.start(error)) {
    err << "lockstepctl record: " << error << "\n";
    return 1;
  }
  write_line(timeline::header_line(header));
  install_stop_handlers();
  return command_form ? record_command(options, recorder, err)
                      : record_attached(tree.cycle_num, tree.drivers, recorder);
}

}  // namespace lockstep::ctl
