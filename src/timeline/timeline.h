// A recording turned into stages: for each request the driver handed out,
// when each project got it and reported it done, which project held the
// stage, and how long the driver took between stages.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "project/endpoint.h"
#include "timeline/recording.h"

namespace lockstep::timeline {

struct Served {
  double written = 0;           // the request reached go.dat
  std::optional<double> done;   // reported done
  bool inferred = false;        // the done report was seen only by the reset after it
};

struct Stage {
  project::Request request;
  std::vector<std::optional<Served>> projects;  // by project index; empty where not seen
  double start = 0;                             // the first request written
  std::optional<double> end;                    // the last done, once every project is done
  int holder = -1;                              // the project whose done came last
  std::optional<double> driver_before;          // from the previous stage's end to this start
};

struct LaunchFailure {
  double time = 0;
  std::optional<project::Request> stage;  // the stage being prepared
  int project = -1;                       // named in the text, else -1
  std::string text;
};

struct ProjectSummary {
  std::string name;
  std::size_t served = 0;      // requests reported done
  std::size_t unfinished = 0;  // requests handed out, never done
  std::size_t inferred = 0;
  std::optional<double> median, p95, max;  // request to done, seconds
  std::size_t held = 0;                    // stages in which its done came last
};

struct Timeline {
  Header header;
  std::vector<Stage> stages;
  std::vector<ProjectSummary> projects;
  double run_time = 0;                    // first to last event
  std::optional<Event> exit;
  std::vector<LaunchFailure> launch_failures;
  std::size_t complete_stages = 0;
  double driver_time = 0;                 // the sum of driver_before
  std::size_t bad_lines = 0;
};

// Builds a timeline event by event, holding the stages, never the events.
class TimelineBuilder {
 public:
  explicit TimelineBuilder(const Header& header);
  void add(const Event& event);
  Timeline finish(std::size_t bad_lines);

 private:
  Timeline timeline_;
  // The stage each project's outstanding request belongs to.
  std::vector<std::optional<std::size_t>> outstanding_;
};

// Reads a recording into a timeline; false, with the reason in `error`, when
// it is none.
bool read_timeline(std::istream& in, Timeline& timeline, std::string& error);

// The value below which `share` of the sorted values lie.
double percentile(const std::vector<double>& sorted, double share);

}  // namespace lockstep::timeline
