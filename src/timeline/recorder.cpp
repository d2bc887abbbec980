#include "timeline/recorder.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "records/status.h"

namespace lockstep::timeline {
namespace {

constexpr std::size_t kStderrLineLimit = 4096;

}  // namespace

Recorder::Recorder(std::vector<WatchedProject> projects, std::function<void(const std::string&)> write_line)
    : write_line_(std::move(write_line)), started_(std::chrono::steady_clock::now()) {
  for (WatchedProject& project : projects) {
    State state;
    state.project = std::move(project);
    states_.push_back(std::move(state));
  }
}

Recorder::~Recorder() {
  if (watch_fd_ >= 0) ::close(watch_fd_);
}

bool Recorder::start(std::string& error) {
  watch_fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watch_fd_ < 0) {
    error = "cannot watch the project directories: " + records::os_error_text(errno);
    return false;
  }
  for (State& state : states_) {
    // Every writer of a go file closes it (in place) or renames it over the
    // old one: one notice a write, and a look at the whole file.
    state.watch = inotify_add_watch(watch_fd_, state.project.directory.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
    if (state.watch < 0) {
      error = "cannot watch " + state.project.directory + ": " + records::os_error_text(errno);
      return false;
    }
    read(state, false);
  }
  started_ = std::chrono::steady_clock::now();
  return true;
}

bool Recorder::polling() const {
  return std::any_of(states_.begin(), states_.end(), [](const State& state) { return state.project.polled; });
}

double Recorder::elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
}

void Recorder::write(const Event& event) { write_line_(event_line(event)); }

void Recorder::look() {
  std::vector<bool> changed(states_.size(), false);
  alignas(inotify_event) std::array<char, 16384> buffer{};
  for (;;) {
    const ssize_t length = ::read(watch_fd_, buffer.data(), buffer.size());
    if (length <= 0) break;
    for (ssize_t at = 0; at < length;) {
      inotify_event notice{};
      std::memcpy(&notice, buffer.data() + at, sizeof notice);
      const char* name = buffer.data() + at + sizeof notice;
      const bool go_file =
          notice.len > 0 && (std::strcmp(name, "go.dat") == 0 || std::strcmp(name, "go2.dat") == 0);
      // An overflow loses notices: look at everything.
      const bool overflow = (notice.mask & IN_Q_OVERFLOW) != 0;
      for (std::size_t i = 0; i < states_.size(); ++i) {
        if (overflow || (go_file && states_[i].watch == notice.wd)) changed[i] = true;
      }
      at += static_cast<ssize_t>(sizeof notice + notice.len);
    }
  }
  for (std::size_t i = 0; i < states_.size(); ++i) {
    if (changed[i] || states_[i].project.polled) read(states_[i], true);
  }
}

void Recorder::look_everywhere() {
  for (State& state : states_) read(state, true);
}

// What changed since the last look, recorded in the order the driver and
// the project write: a done report, then the driver's resets, then its
// next request. go.dat is read before go2.dat: the driver resets go2.dat
// before it writes a request, so a done seen after a new request is that
// request's.
void Recorder::read(State& state, bool record) {
  using project::GoFileRead;
  using project::GoRecord;
  const GoFileRead go_file = project::read_go_file(state.project.directory + "/go.dat");
  const GoFileRead done_file = project::read_go_file(state.project.directory + "/go2.dat");
  std::optional<GoRecord> go;
  if (go_file.outcome == GoFileRead::Outcome::kRead) {
    const GoRecord record_now = project::parse_go_record(go_file.content);
    if (record_now.kind == GoRecord::Kind::kRequest || record_now.kind == GoRecord::Kind::kReset) go = record_now;
  }
  std::optional<bool> done;
  if (done_file.outcome == GoFileRead::Outcome::kRead) {
    if (project::parse_go_record(done_file.content).kind == GoRecord::Kind::kReset) done = false;
    if (!done_file.content.empty() && done_file.content.back() == '\n' && done_file.content.front() == '0') {
      done = true;
    }
  }
  const double now = elapsed();
  const auto emit = [&](Event event) {
    event.time = now;
    event.project = state.project.index;
    if (record) write(event);
  };
  const auto finish = [&](bool inferred) {
    if (!state.outstanding) return;
    Event event(Event::Kind::kDone);
    event.inferred = inferred;
    emit(event);
    state.last_done = state.outstanding;
    state.outstanding.reset();
  };

  const bool go_reset_now = go && go->kind == GoRecord::Kind::kReset && !state.go_reset;
  const bool go2_reset_now = done && !*done && state.done != false;
  const bool request_now = go && go->kind == GoRecord::Kind::kRequest && state.go != go->request;
  const bool done_now = done && *done && (state.done != true || request_now);
  if (done_now && !request_now) finish(false);
  // The driver resets only once every project is done: a done report that
  // came and went between two looks shows as the reset after it. A new
  // request implies the resets before it, seen or not.
  if (go_reset_now || request_now) finish(true);
  if (go_reset_now || (request_now && !state.go_reset)) {
    Event event(Event::Kind::kReset);
    event.file = "go.dat";
    emit(event);
  }
  if (go2_reset_now || (request_now && !state.go2_reset_recorded)) {
    Event event(Event::Kind::kReset);
    event.file = "go2.dat";
    emit(event);
    state.go2_reset_recorded = true;
  }
  if (request_now) {
    Event event(Event::Kind::kRequest);
    event.cycle = go->request.cycle + after_cycle_;
    event.time_step = go->request.time_step;
    event.stage = go->request.stage;
    emit(event);
    if (record) state.outstanding = project::Request{event.cycle, event.time_step, event.stage};
    state.go2_reset_recorded = false;
    if (done_now) finish(false);
  }
  if (done) state.done = done;
  if (go) {
    state.go_reset = go->kind == GoRecord::Kind::kReset;
    state.go = state.go_reset ? std::nullopt : std::optional<project::Request>(go->request);
  }
}

void Recorder::record_exit(int exit_status, int signal) {
  Event event(Event::Kind::kExit);
  event.time = elapsed();
  event.exit_status = exit_status;
  event.signal = signal;
  write(event);
}

void Recorder::record_stderr(const std::string& line) {
  Event event(Event::Kind::kStderr);
  event.time = elapsed();
  event.text = line.substr(0, kStderrLineLimit);
  write(event);
}

bool Recorder::served_cycle_end(std::int32_t cycle) const {
  return std::all_of(states_.begin(), states_.end(), [cycle](const State& state) {
    return state.last_done && state.last_done->cycle_end() && state.last_done->cycle >= cycle;
  });
}

bool Recorder::all_done() const {
  return std::none_of(states_.begin(), states_.end(), [](const State& state) { return state.outstanding.has_value(); });
}

}  // namespace lockstep::timeline
