#include "ctl/status.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>

#include "ctl/command_line.h"
#include "ctl/text.h"
#include "ctl/tree.h"
#include "resume/checkpoint.h"
#include "fields/store.h"

namespace lockstep::ctl {
namespace {

constexpr const char* kStatusFooter =
    "Read from the run tree without touching it: whether lockstep runs in RUN_DIR on\n"
    "this machine, the current request, the position in the schedule, which projects\n"
    "have reported done, for how long each other project has held the run and whether\n"
    "a process still serves it, and the request each project's newest output field\n"
    "was written for.";

std::string seconds_since(std::chrono::system_clock::time_point since) {
  const double seconds = std::chrono::duration<double>(std::chrono::system_clock::now() - since).count();
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", seconds < 0 ? 0.0 : seconds);
  return text;
}

// Where a request stands in the schedule: its number among the stages, from
// 1, and the number of stages. The largest schedule, (4 x (2^31 - 1) + 1) x
// (2^31 - 1) stages, fits 64 unsigned bits.
struct Position {
  std::uint64_t index = 0;
  std::uint64_t total = 0;
};

// The run's own cycle count: in a resumed run, its settings' and the cycles
// before the resume.
std::int32_t run_cycles(const TreeState& tree) {
  return *tree.cycle_num + (tree.resumed ? tree.resumed->after_cycle : 0);
}

// `request` in the run's own cycle numbers.
std::optional<Position> position(const project::Request& request, const TreeState& tree) {
  if (!tree.time_step || !tree.cycle_num || *tree.time_step < 0) return std::nullopt;
  if (request.cycle < 1 || request.cycle > run_cycles(tree)) return std::nullopt;
  const bool stage_in_schedule = request.time_step >= 1 && request.time_step <= *tree.time_step &&
                                 request.stage >= 1 && request.stage <= 4;
  if (!request.cycle_end() && !stage_in_schedule) return std::nullopt;
  const std::uint64_t per_cycle = 4 * static_cast<std::uint64_t>(*tree.time_step) + 1;
  const std::uint64_t within =
      request.cycle_end() ? per_cycle
                          : 4 * static_cast<std::uint64_t>(request.time_step - 1) + static_cast<std::uint64_t>(request.stage);
  return Position{(static_cast<std::uint64_t>(request.cycle) - 1) * per_cycle + within,
                  per_cycle * static_cast<std::uint64_t>(run_cycles(tree))};
}

struct View {
  std::string text;
  bool finished = false;  // the run is complete, or no driver is running it
};

// For each project that publishes fields, the request its newest output
// was written for; nothing when none does.
std::string newest_outputs(const TreeState& tree) {
  constexpr std::size_t kLookLimit = 1000;  // field files looked at per project
  std::ostringstream out;
  for (const ProjectState& project : tree.projects) {
    const std::filesystem::path directory = tree.run_directory / project.directory / "fields" / "out";
    std::error_code error;
    std::optional<project::Request> newest;
    std::string name;
    std::size_t looked = 0;
    for (auto entry = std::filesystem::directory_iterator(directory, error);
         !error && entry != std::filesystem::directory_iterator() && looked < kLookLimit; entry.increment(error)) {
      const std::filesystem::path& path = entry->path();
      if (path.extension() != ".npy" || path.filename().string().front() == '.') continue;
      ++looked;
      fields::Header header;
      std::string reason;
      if (fields::read_header(path.string(), header, reason) != fields::ReadOutcome::kRead) continue;
      if (!newest || project::comes_after(header.stamp.request, *newest)) {
        newest = header.stamp.request;
        name = path.stem().string();
      }
    }
    if (!newest) continue;
    out << "  " << std::left << std::setw(8) << project.name() << fields::describe_request(*newest) << " (\""
        << text::printable(name) << "\")\n";
  }
  const std::string lines = out.str();
  return lines.empty() ? "" : "\nnewest outputs:\n" + lines;
}

// The checkpoints a resume set aside, by project: they belong to a timeline
// the run left, and no resume uses them.
std::string set_aside(const TreeState& tree) {
  std::string listed;
  for (const ProjectState& project : tree.projects) {
    const std::vector<std::int32_t> cycles =
        resume::set_aside_cycles((tree.run_directory / project.directory).lexically_normal().string());
    if (cycles.empty()) continue;
    listed += "  " + project.name() + ": cycles";
    for (std::size_t i = 0; i < cycles.size(); ++i) listed += (i == 0 ? " " : ", ") + std::to_string(cycles[i]);
    listed += " (checkpoints/abandoned-*)\n";
  }
  return listed.empty() ? listed
                        : "\ncheckpoints set aside by a resume that went back to an earlier cycle (never used "
                          "again):\n" + listed;
}

View status_view(const TreeState& tree, bool colour) {
  const auto paint = [colour](const std::string& text, const char* code) {
    return colour ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
  };
  std::ostringstream out;
  out << "run tree: " << text::printable(tree.run_directory.string()) << "\n";
  for (const std::string& problem : tree.settings_problems) out << "settings: " << text::printable(problem) << "\n";
  const bool running = !tree.drivers.empty();
  out << "lockstep: "
      << (running ? "running (PID " + std::to_string(tree.drivers.front()) + ")"
                  : std::string("not running in this directory on this machine (other machines were not looked at)"))
      << "\n";

  std::string polled;
  for (const ProjectState& project : tree.projects) {
    if (!project.network_file_system.empty()) {
      polled += (polled.empty() ? "" : ", ") + project.name() + " (" + project.network_file_system + ")";
    }
  }
  out << "wake-up: " << (polled.empty() ? "inotify in every project directory" : "polling in " + polled) << "\n";

  const ProjectState* main = tree.projects.empty() ? nullptr : &tree.projects.front();
  bool all_done = true;
  for (const ProjectState& project : tree.projects) all_done = all_done && project.done && *project.done == 0;

  bool complete = false;
  if (main == nullptr || main->request.kind != project::GoRecord::Kind::kRequest) {
    out << "request: none yet (../main/go.dat holds no request)\n";
  } else {
    project::Request request = main->request.request;
    if (tree.resumed) request.cycle += tree.resumed->after_cycle;
    out << "request: " << project::describe(request)
        << (tree.resumed ? " (the run resumed after cycle " + std::to_string(tree.resumed->after_cycle) + ")" : "")
        << "\n";
    if (const std::optional<Position> at = position(request, tree)) {
      out << "position: cycle " << request.cycle << " of " << run_cycles(tree) << ", "
          << (request.cycle_end() ? "closing time step"
                                  : "time step " + std::to_string(request.time_step) + " of " +
                                        std::to_string(*tree.time_step) + ", stage " +
                                        std::to_string(request.stage) + " of 4")
          << "; " << (all_done ? at->index : at->index - 1) << " of " << at->total << " stages done\n";
      complete = all_done && at->index == at->total;
    } else if (tree.time_step && tree.cycle_num) {
      out << "position: outside the schedule of analysis_settings.dat\n";
    }
  }

  out << "\n" << std::left << std::setw(8) << "PROJECT" << std::setw(8) << "DONE" << "HOLDING THE RUN FOR\n";
  std::string holders;
  for (const ProjectState& project : tree.projects) {
    out << std::setw(8) << project.name();
    if (!project.done) {
      out << paint("?", "33") << "       "
          << (project.problems.empty() ? "" : text::printable(project.problems.front())) << "\n";
    } else if (*project.done == 0) {
      out << paint("yes", "32") << "\n";
    } else {
      out << paint("no", "31") << "      " << (project.done_changed ? seconds_since(*project.done_changed) : "?")
          << (project.unserved() ? paint(", no process serves it", "31") : "") << "\n";
      holders += (holders.empty() ? "" : ", ") + project.name();
    }
  }
  out << newest_outputs(tree);
  out << set_aside(tree);
  // A run that has begun leaves a request in go.dat, or reset go2.dat files.
  bool started = main != nullptr && main->request.kind == project::GoRecord::Kind::kRequest;
  for (const ProjectState& project : tree.projects) started = started || (project.done && *project.done != 0);
  if (complete) {
    out << "\nthe run is complete\n";
    std::string still;
    for (const ProjectState& project : tree.projects) {
      if (project.lock.outcome != project::LockProbe::Outcome::kHeld) continue;
      still += (still.empty() ? "" : ", ") + project.name() +
               (project.lock.holder.empty() ? "" : " (" + project.lock.holder + ")");
    }
    if (!still.empty()) {
      out << "still served, waiting for requests that will not come: " << text::printable(still)
          << "; their solvers expect more cycles than the run's " << run_cycles(tree) << ": stop them\n";
    }
  } else if (!running && !started) {
    out << "\nno run has started in this tree: look at it with 'lockstepctl check', then start lockstep in it\n";
  } else if (!running) {
    out << "\nlockstep has stopped before the end of the run; after a crash, 'lockstepctl check --fix' "
           "prepares the tree for a fresh start\n";
  } else if (!holders.empty()) {
    out << "\nwaiting for: " << holders << "\n";
    for (const ProjectState& project : tree.projects) {
      if (project.done && *project.done != 0 && project.unserved()) {
        out << text::printable(unserved_advice(project, tree.drivers.front())) << "\n";
      }
    }
  } else if (all_done) {
    out << "\nevery project has reported done\n";
  }
  return {out.str(), complete || !running};
}

}  // namespace

int status_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  std::string run_directory = ".";
  bool watch = false;
  CLI::App app("Shows what a running lockstep is waiting for.", "lockstepctl status");
  set_up(app);
  app.footer(kStatusFooter);
  add_run_directory(app, run_directory);
  app.add_flag("--watch", watch, "refresh every half second until the run is complete or lockstep has stopped");
  if (const auto status = parse(app, words(argc, argv), out, err)) return *status;
  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  for (;;) {
    const TreeState tree = inspect_tree(run_directory, false);
    const View view = status_view(tree, terminal);
    if (watch && terminal) out << "\033[H\033[2J";
    out << view.text << std::flush;
    if (!watch || view.finished) return tree.settings_problems.empty() ? 0 : 1;
    if (!terminal) out << "\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
}

}  // namespace lockstep::ctl
