#include "timeline/timeline.h"

#include <algorithm>
#include <cmath>

namespace lockstep::timeline {

double percentile(const std::vector<double>& sorted, double share) {
  if (sorted.empty()) return 0;
  const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
  return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

namespace {

// The project a launch failure names: the shell's message quotes the
// program's path, "../sub3/prog" or "../main/prog".
int named_project(const std::string& text, std::size_t projects) {
  for (std::size_t index = projects; index-- > 0;) {
    const std::string directory = index == 0 ? "../main/" : "../sub" + std::to_string(index) + "/";
    if (text.find(directory) != std::string::npos) return static_cast<int>(index);
  }
  return -1;
}

void close_stage(Stage& stage) {
  double last = -1;
  for (std::size_t index = 0; index < stage.projects.size(); ++index) {
    const auto& served = stage.projects[index];
    if (!served) continue;
    if (!served->done) return;
    if (*served->done >= last) {
      last = *served->done;
      stage.holder = static_cast<int>(index);
    }
  }
  if (last >= 0) stage.end = last;
}

}  // namespace

TimelineBuilder::TimelineBuilder(const Header& header) : outstanding_(header.projects.size()) {
  timeline_.header = header;
}

void TimelineBuilder::add(const Event& event) {
  Timeline& timeline = timeline_;
  const std::size_t count = timeline.header.projects.size();
  timeline.run_time = std::max(timeline.run_time, event.time);
  switch (event.kind) {
    case Event::Kind::kRequest: {
      const project::Request request{event.cycle, event.time_step, event.stage};
      const auto index = static_cast<std::size_t>(event.project);
      // A new stage begins with other numbers, or with a project handed the
      // same numbers twice (a driver started again).
      if (timeline.stages.empty() || !(timeline.stages.back().request == request) ||
          timeline.stages.back().projects[index]) {
        Stage stage;
        stage.request = request;
        stage.projects.resize(count);
        stage.start = event.time;
        timeline.stages.push_back(std::move(stage));
      }
      timeline.stages.back().projects[index] = Served{event.time, std::nullopt, false};
      outstanding_[index] = timeline.stages.size() - 1;
      break;
    }
    case Event::Kind::kDone: {
      const auto index = static_cast<std::size_t>(event.project);
      if (!outstanding_[index]) break;
      Stage& stage = timeline.stages[*outstanding_[index]];
      stage.projects[index]->done = event.time;
      stage.projects[index]->inferred = event.inferred;
      outstanding_[index].reset();
      break;
    }
    case Event::Kind::kExit: timeline.exit = event; break;
    case Event::Kind::kStderr: {
      LaunchFailure failure{event.time, std::nullopt, named_project(event.text, count), event.text};
      if (!timeline.stages.empty()) failure.stage = timeline.stages.back().request;
      timeline.launch_failures.push_back(std::move(failure));
      break;
    }
    case Event::Kind::kReset: break;
  }
}

Timeline TimelineBuilder::finish(std::size_t bad_lines) {
  Timeline timeline = std::move(timeline_);
  const std::size_t count = timeline.header.projects.size();
  timeline.bad_lines = bad_lines;
  std::optional<double> previous_end;
  for (Stage& stage : timeline.stages) {
    close_stage(stage);
    if (previous_end) {
      stage.driver_before = std::max(0.0, stage.start - *previous_end);
      timeline.driver_time += *stage.driver_before;
    }
    previous_end = stage.end;
    if (stage.end) ++timeline.complete_stages;
  }

  for (std::size_t index = 0; index < count; ++index) {
    ProjectSummary summary;
    summary.name = timeline.header.projects[index];
    std::vector<double> durations;
    for (const Stage& stage : timeline.stages) {
      const auto& served = stage.projects[index];
      if (!served) continue;
      if (!served->done) {
        ++summary.unfinished;
        continue;
      }
      ++summary.served;
      if (served->inferred) ++summary.inferred;
      durations.push_back(*served->done - served->written);
      if (stage.end && stage.holder == static_cast<int>(index)) ++summary.held;
    }
    std::sort(durations.begin(), durations.end());
    if (!durations.empty()) {
      summary.median = percentile(durations, 0.5);
      summary.p95 = percentile(durations, 0.95);
      summary.max = durations.back();
    }
    timeline.projects.push_back(std::move(summary));
  }
  return timeline;
}

bool read_timeline(std::istream& in, Timeline& timeline, std::string& error) {
  Header header;
  std::optional<TimelineBuilder> builder;
  std::size_t bad_lines = 0;
  const bool read = read_recording(
      in, header,
      [&](const Event& event) {
        if (!builder) builder.emplace(header);
        builder->add(event);
      },
      bad_lines, error);
  if (!read) return false;
  if (!builder) builder.emplace(header);
  timeline = builder->finish(bad_lines);
  return true;
}

}  // namespace lockstep::timeline
