#include "timeline/report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <sstream>

#include <nlohmann/json.hpp>

namespace lockstep::timeline {
namespace {

using nlohmann::ordered_json;

constexpr std::size_t kSlowestShown = 5;
constexpr std::size_t kTrendMinimum = 20;  // stages, for a first and a last tenth of two or more

std::string milliseconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", seconds * 1e3);
  return text;
}

std::string seconds_text(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", seconds);
  return text;
}

std::string percent(std::size_t part, std::size_t whole) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f%%", whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
  return text;
}

std::string project_name(const Timeline& timeline, int index) {
  return index >= 0 && static_cast<std::size_t>(index) < timeline.projects.size()
             ? timeline.projects[static_cast<std::size_t>(index)].name
             : "?";
}

double duration(const Stage& stage) { return stage.end ? *stage.end - stage.start : 0; }

std::vector<const Stage*> complete(const Timeline& timeline) {
  std::vector<const Stage*> stages;
  for (const Stage& stage : timeline.stages) {
    if (stage.end) stages.push_back(&stage);
  }
  return stages;
}

std::vector<const Stage*> slowest(const Timeline& timeline) {
  std::vector<const Stage*> stages = complete(timeline);
  std::stable_sort(stages.begin(), stages.end(), [](const Stage* a, const Stage* b) { return duration(*a) > duration(*b); });
  if (stages.size() > kSlowestShown) stages.resize(kSlowestShown);
  return stages;
}

double median_of(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return percentile(values, 0.5);
}

// Medians of the first and the last tenth of the complete stages: of the
// stage times, and of each project's request-to-done times.
struct Trend {
  double first = 0, last = 0;
};
std::vector<Trend> trends(const Timeline& timeline) {
  const std::vector<const Stage*> stages = complete(timeline);
  if (stages.size() < kTrendMinimum) return {};
  const std::size_t tenth = stages.size() / 10;
  const auto median_over = [&](std::size_t from, auto value) {
    std::vector<double> values;
    for (std::size_t i = from; i < from + tenth; ++i) {
      if (const auto v = value(*stages[i]); v) values.push_back(*v);
    }
    return values.empty() ? 0.0 : median_of(values);
  };
  std::vector<Trend> result;
  const auto stage_time = [](const Stage& stage) { return std::optional<double>(duration(stage)); };
  result.push_back({median_over(0, stage_time), median_over(stages.size() - tenth, stage_time)});
  for (std::size_t index = 0; index < timeline.projects.size(); ++index) {
    const auto turnaround = [index](const Stage& stage) -> std::optional<double> {
      const auto& served = stage.projects[index];
      if (!served || !served->done) return std::nullopt;
      return *served->done - served->written;
    };
    result.push_back({median_over(0, turnaround), median_over(stages.size() - tenth, turnaround)});
  }
  return result;
}

std::string exit_text(const std::optional<Event>& exit) {
  if (!exit) return "the recording ends before the driver did";
  if (exit->signal != 0) return "the driver was killed by signal " + std::to_string(exit->signal);
  // Attached, the recorder sees the driver go, not its status.
  if (exit->exit_status < 0) return "the driver ended";
  return "the driver exited with status " + std::to_string(exit->exit_status);
}

std::string stage_range(const Timeline& timeline) {
  if (timeline.stages.empty()) return "";
  return " (" + project::describe(timeline.stages.front().request) + " to " +
         project::describe(timeline.stages.back().request) + ")";
}

}  // namespace

std::string text_report(const Timeline& timeline) {
  std::ostringstream out;
  const std::size_t stages = timeline.stages.size();
  out << "run: " << seconds_text(timeline.run_time) << ", " << stages << (stages == 1 ? " stage" : " stages")
      << stage_range(timeline) << "; " << exit_text(timeline.exit) << "\n";
  if (timeline.complete_stages != stages) {
    out << "  " << stages - timeline.complete_stages << " of them not done by every project:";
    // The first few: a run cut short has one, the one it stopped in.
    constexpr std::size_t kNamed = 5;
    std::size_t named = 0;
    for (const Stage& stage : timeline.stages) {
      if (stage.end) continue;
      if (named++ == kNamed) {
        out << " ...";
        break;
      }
      std::string missing;
      for (std::size_t index = 0; index < stage.projects.size(); ++index) {
        if (stage.projects[index] && stage.projects[index]->done) continue;
        missing += (missing.empty() ? "" : ", ") + project_name(timeline, static_cast<int>(index));
      }
      out << (named == 1 ? " " : "; ") << project::describe(stage.request) << " by "
          << (missing.empty() ? std::string("?") : missing);
    }
    out << "\n";
  }
  if (timeline.bad_lines > 0) out << "  " << timeline.bad_lines << " unreadable lines skipped (a recording cut short?)\n";
  out << "\n";
  char line[256];
  std::snprintf(line, sizeof line, "%-10s %8s %10s %10s %10s %14s\n", "PROJECT", "SERVED", "MEDIAN ms", "P95 ms",
                "MAX ms", "HELD THE RUN");
  out << line;
  for (const ProjectSummary& project : timeline.projects) {
    const auto value = [](const std::optional<double>& v) { return v ? milliseconds(*v) : std::string("-"); };
    std::snprintf(line, sizeof line, "%-10s %8zu %10s %10s %10s %14s\n", project.name.c_str(), project.served,
                  value(project.median).c_str(), value(project.p95).c_str(), value(project.max).c_str(),
                  percent(project.held, timeline.complete_stages).c_str());
    out << line;
  }
  std::vector<double> gaps;
  for (const Stage& stage : timeline.stages) {
    if (stage.driver_before) gaps.push_back(*stage.driver_before);
  }
  if (!gaps.empty()) {
    out << "driver: " << percent(static_cast<std::size_t>(timeline.driver_time * 1e6),
                                 static_cast<std::size_t>(timeline.run_time * 1e6))
        << " of the run from the last done to the next request (readiness pause, launches), median "
        << milliseconds(median_of(gaps)) << " ms a stage\n";
  }
  if (const auto slow = slowest(timeline); !slow.empty()) {
    out << "\nslowest stages:\n";
    for (const Stage* stage : slow) {
      out << "  " << project::describe(stage->request) << ": " << milliseconds(duration(*stage)) << " ms, held by "
          << project_name(timeline, stage->holder) << "\n";
    }
  }
  if (const auto trend = trends(timeline); !trend.empty()) {
    out << "\ntrend, first tenth against last tenth of the stages (medians):\n"
        << "  stage  " << milliseconds(trend[0].first) << " ms -> " << milliseconds(trend[0].last) << " ms\n";
    for (std::size_t index = 0; index < timeline.projects.size(); ++index) {
      out << "  " << timeline.projects[index].name << "  " << milliseconds(trend[index + 1].first) << " ms -> "
          << milliseconds(trend[index + 1].last) << " ms\n";
    }
  }
  if (!timeline.launch_failures.empty()) {
    out << "\nthe driver's standard error (failed launches):\n";
    for (const LaunchFailure& failure : timeline.launch_failures) {
      out << "  " << seconds_text(failure.time) << "  "
          << (failure.stage ? "before the stage after " + project::describe(*failure.stage) : std::string("before the first stage"))
          << (failure.project >= 0 ? ", " + project_name(timeline, failure.project) : std::string()) << ": "
          << failure.text << "\n";
    }
  }
  return out.str();
}

std::string json_report(const Timeline& timeline) {
  const auto request_json = [](const project::Request& request) {
    return ordered_json{{"cycle", request.cycle}, {"time_step", request.time_step}, {"stage", request.stage}};
  };
  const auto optional = [](const std::optional<double>& value) { return value ? ordered_json(*value) : ordered_json(); };
  ordered_json projects = ordered_json::array();
  for (const ProjectSummary& project : timeline.projects) {
    projects.push_back({{"name", project.name},
                        {"served", project.served},
                        {"unfinished", project.unfinished},
                        {"inferred", project.inferred},
                        {"median_s", optional(project.median)},
                        {"p95_s", optional(project.p95)},
                        {"max_s", optional(project.max)},
                        {"held", project.held},
                        {"held_share", timeline.complete_stages == 0
                                           ? 0.0
                                           : static_cast<double>(project.held) /
                                                 static_cast<double>(timeline.complete_stages)}});
  }
  ordered_json slow = ordered_json::array();
  for (const Stage* stage : slowest(timeline)) {
    slow.push_back({{"request", request_json(stage->request)},
                    {"seconds", duration(*stage)},
                    {"held_by", project_name(timeline, stage->holder)}});
  }
  ordered_json stages = ordered_json::array();
  for (const Stage& stage : timeline.stages) {
    ordered_json served = ordered_json::array();
    for (const auto& project : stage.projects) {
      served.push_back(project ? ordered_json{{"written_s", project->written}, {"done_s", optional(project->done)}}
                               : ordered_json());
    }
    stages.push_back({{"request", request_json(stage.request)},
                      {"start_s", stage.start},
                      {"end_s", optional(stage.end)},
                      {"held_by", stage.holder >= 0 ? ordered_json(project_name(timeline, stage.holder)) : ordered_json()},
                      {"driver_before_s", optional(stage.driver_before)},
                      {"projects", served}});
  }
  ordered_json failures = ordered_json::array();
  for (const LaunchFailure& failure : timeline.launch_failures) {
    failures.push_back({{"time_s", failure.time},
                        {"after", failure.stage ? request_json(*failure.stage) : ordered_json()},
                        {"project", failure.project >= 0 ? ordered_json(project_name(timeline, failure.project))
                                                         : ordered_json()},
                        {"text", failure.text}});
  }
  ordered_json trend = ordered_json();
  if (const auto values = trends(timeline); !values.empty()) {
    trend = {{"stage_s", {values[0].first, values[0].last}}};
    for (std::size_t index = 0; index < timeline.projects.size(); ++index) {
      trend[timeline.projects[index].name + "_s"] = {values[index + 1].first, values[index + 1].last};
    }
  }
  ordered_json exit = ordered_json();
  if (timeline.exit) {
    exit = timeline.exit->signal != 0 ? ordered_json{{"signal", timeline.exit->signal}}
                                      : ordered_json{{"status", timeline.exit->exit_status < 0
                                                                    ? ordered_json()
                                                                    : ordered_json(timeline.exit->exit_status)}};
  }
  const ordered_json report = {{"run_directory", timeline.header.run_directory},
                               {"started", timeline.header.started},
                               {"run_time_s", timeline.run_time},
                               {"stages", timeline.stages.size()},
                               {"complete_stages", timeline.complete_stages},
                               {"driver_exit", exit},
                               {"driver_s", timeline.driver_time},
                               {"projects", projects},
                               {"slowest", slow},
                               {"trend", trend},
                               {"launch_failures", failures},
                               {"unreadable_lines", timeline.bad_lines},
                               {"timeline", stages}};
  return report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string chrome_trace(const Timeline& timeline) {
  constexpr int kProcess = 1;
  ordered_json events = ordered_json::array();
  const auto lane_name = [&](int tid, const std::string& name) {
    events.push_back({{"name", "thread_name"}, {"ph", "M"}, {"pid", kProcess}, {"tid", tid}, {"args", {{"name", name}}}});
    events.push_back({{"name", "thread_sort_index"}, {"ph", "M"}, {"pid", kProcess}, {"tid", tid},
                      {"args", {{"sort_index", tid}}}});
  };
  events.push_back({{"name", "process_name"}, {"ph", "M"}, {"pid", kProcess}, {"args", {{"name", "lockstep run"}}}});
  lane_name(0, "driver");
  for (std::size_t index = 0; index < timeline.projects.size(); ++index) {
    lane_name(static_cast<int>(index) + 1, timeline.projects[index].name);
  }
  const auto microseconds = [](double seconds) { return std::round(seconds * 1e7) / 10; };
  for (const Stage& stage : timeline.stages) {
    const std::string name = project::describe(stage.request);
    if (stage.driver_before) {
      events.push_back({{"name", "between stages"}, {"ph", "X"}, {"pid", kProcess}, {"tid", 0},
                        {"ts", microseconds(stage.start - *stage.driver_before)},
                        {"dur", microseconds(*stage.driver_before)}});
    }
    for (std::size_t index = 0; index < stage.projects.size(); ++index) {
      const auto& served = stage.projects[index];
      if (!served || !served->done) continue;
      const bool held = stage.end && stage.holder == static_cast<int>(index);
      events.push_back({{"name", name},
                        {"cat", held ? "held the stage" : "request"},
                        {"ph", "X"},
                        {"pid", kProcess},
                        {"tid", static_cast<int>(index) + 1},
                        {"ts", microseconds(served->written)},
                        {"dur", microseconds(*served->done - served->written)},
                        {"args", {{"held the stage", held}}}});
    }
  }
  for (const LaunchFailure& failure : timeline.launch_failures) {
    events.push_back({{"name", failure.text}, {"ph", "i"}, {"s", "t"}, {"pid", kProcess}, {"tid", 0},
                      {"ts", microseconds(failure.time)}});
  }
  const ordered_json trace = {{"traceEvents", events}, {"displayTimeUnit", "ms"}};
  return trace.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace lockstep::timeline
