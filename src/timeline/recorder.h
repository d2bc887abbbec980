// Watches every project directory of a run and records what the go files
// show: each request the driver writes, each reset, each done report. It
// only reads: nothing is written into the run tree.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "project/endpoint.h"
#include "timeline/recording.h"

namespace lockstep::timeline {

struct WatchedProject {
  int index = 0;
  std::string directory;  // absolute
  bool polled = false;    // on a file system whose writes inotify may not see
};

class Recorder {
 public:
  // Each event goes to `write_line` as a JSON line as it is seen.
  Recorder(std::vector<WatchedProject> projects, std::function<void(const std::string&)> write_line);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // In a resumed run: requests are recorded in the run's own cycle numbers,
  // the driver's plus `after_cycle`.
  void resumed_after(std::int32_t after_cycle) { after_cycle_ = after_cycle; }

  // Sets up the watches and takes the go files as they are now, recording
  // nothing of them; false, with the reason, when inotify cannot be used.
  bool start(std::string& error);

  // The descriptor that becomes readable when a watched directory changes.
  int watch_fd() const { return watch_fd_; }
  // True when some project is polled: look() then needs calling often.
  bool polling() const;

  // Reads the change notices, then the go files of every project that
  // changed (and of every polled one), and records what is new.
  void look();
  // Reads every project's go files, whatever the notices say.
  void look_everywhere();

  void record_exit(int exit_status, int signal);
  void record_stderr(const std::string& line);

  // True once every project has reported done the cycle-end request of
  // `cycle`.
  bool served_cycle_end(std::int32_t cycle) const;
  // True once every project has reported done the last request it was
  // handed (or was handed none since the recording began).
  bool all_done() const;

  double elapsed() const;

 private:
  struct State {
    WatchedProject project;
    int watch = -1;
    std::optional<project::Request> go;  // go.dat's request; empty while it holds the reset
    bool go_reset = false;
    std::optional<bool> done;  // go2.dat: done, or reset
    bool go2_reset_recorded = false;  // since the last request
    std::optional<project::Request> outstanding;  // handed out and recorded, not yet done
    std::optional<project::Request> last_done;
  };
  void read(State& state, bool record);
  void write(const Event& event);

  std::vector<State> states_;
  std::function<void(const std::string&)> write_line_;
  int watch_fd_ = -1;
  std::chrono::steady_clock::time_point started_;
  std::int32_t after_cycle_ = 0;
};

}  // namespace lockstep::timeline
