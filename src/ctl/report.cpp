#include "ctl/report.h"

#include <unistd.h>

#include <cstdio>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ctl/json.h"
#include "ctl/tree.h"

namespace lockstep::ctl {
namespace {

constexpr int kUsageStatus = 2;

constexpr const char* kCheckHelp =
    "usage: lockstepctl check [RUN_DIR] [--json]\n"
    "\n"
    "Checks a run tree before a run, reading it as lockstep will without creating or\n"
    "changing any file, and reports every problem found: the settings file, each\n"
    "project directory, its CalculateInteraction.dat and program, its go2.dat, done\n"
    "values that would hold up the first stage, and go.dat files left holding a\n"
    "request. RUN_DIR is lockstep's working directory (default: the current one).\n"
    "\n"
    "  --json   print the report as JSON\n"
    "  --help   show this help\n"
    "\n"
    "Exit status: 0 when the tree is ready, 1 when it is not, 2 on a usage error.\n";

constexpr const char* kStatusHelp =
    "usage: lockstepctl status [RUN_DIR] [--watch]\n"
    "\n"
    "Shows what a running lockstep is waiting for, read from the run tree without\n"
    "touching it: the current request, the position in the schedule, which projects\n"
    "have reported done, and for how long each other project has held the run.\n"
    "RUN_DIR is lockstep's working directory (default: the current one).\n"
    "\n"
    "  --watch  refresh every half second until interrupted\n"
    "  --help   show this help\n";

struct Arguments {
  std::string run_directory = ".";
  bool flag = false;  // --json or --watch
  bool help = false;
};

bool parse(int argc, char** argv, const std::string& flag, const std::string& subcommand, Arguments& arguments,
           std::ostream& err) {
  bool have_directory = false;
  for (int i = 0; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help" || word == "-h") {
      arguments.help = true;
    } else if (word == flag) {
      arguments.flag = true;
    } else if (!word.empty() && word.front() != '-' && !have_directory) {
      arguments.run_directory = word;
      have_directory = true;
    } else {
      err << "lockstepctl " << subcommand << ": unexpected argument \"" << word << "\"\n"
          << "Try 'lockstepctl " << subcommand << " --help'.\n";
      return false;
    }
  }
  return true;
}

std::string project_name(const ProjectState& project) {
  return project.index == 0 ? "main" : "sub" + std::to_string(project.index);
}

std::string settings_line(const TreeState& tree) {
  const auto value = [](const std::optional<std::int32_t>& v) { return v ? std::to_string(*v) : std::string("?"); };
  return "time_step=" + value(tree.time_step) + " cycle_num=" + value(tree.cycle_num) +
         " num_subprojects=" + value(tree.num_subprojects);
}

std::string check_json(const TreeState& tree) {
  const auto number = [](const std::optional<std::int32_t>& v) { return v ? std::to_string(*v) : "null"; };
  std::vector<std::string> projects;
  for (const ProjectState& project : tree.projects) {
    projects.push_back("{\"index\":" + std::to_string(project.index) +
                       ",\"directory\":" + json::quoted(project.directory) +
                       ",\"program\":" + json::quoted(project.program) + ",\"done\":" + number(project.done) +
                       ",\"problems\":" + json::strings(project.problems) + "}");
  }
  return "{\"run_directory\":" + json::quoted(tree.run_directory.string()) +
         ",\"ready\":" + (tree.problem_count() == 0 ? "true" : "false") +
         ",\"settings\":{\"time_step\":" + number(tree.time_step) + ",\"cycle_num\":" + number(tree.cycle_num) +
         ",\"num_subprojects\":" + number(tree.num_subprojects) +
         "},\"settings_problems\":" + json::strings(tree.settings_problems) +
         ",\"projects\":" + json::array(projects) + ",\"run_problems\":" + json::strings(tree.run_problems) + "}\n";
}

std::string check_text(const TreeState& tree) {
  std::ostringstream out;
  out << "run tree: " << tree.run_directory.string() << "\n"
      << "settings: " << settings_line(tree) << "\n";
  for (const std::string& problem : tree.settings_problems) out << "  " << problem << "\n";
  out << "\n" << std::left << std::setw(8) << "PROJECT" << std::setw(12) << "DIRECTORY" << std::setw(32) << "PROGRAM"
      << std::setw(8) << "DONE" << "PROBLEMS\n";
  for (const ProjectState& project : tree.projects) {
    out << std::setw(8) << project_name(project) << std::setw(12) << project.directory << std::setw(32)
        << (project.program.empty() ? "-" : project.program) << std::setw(8)
        << (project.done ? std::to_string(*project.done) : "-") << project.problems.size() << "\n";
  }
  bool listed = false;
  for (const ProjectState& project : tree.projects) {
    for (const std::string& problem : project.problems) {
      out << (listed ? "" : "\n") << project_name(project) << ": " << problem << "\n";
      listed = true;
    }
  }
  for (const std::string& problem : tree.run_problems) out << (listed ? "" : "\n") << problem << "\n";
  const std::size_t problems = tree.problem_count();
  if (problems == 0) {
    out << "\nready: " << tree.projects.size() << (tree.projects.size() == 1 ? " project" : " projects")
        << ", no problems\n";
  } else {
    out << "\nnot ready: " << problems << (problems == 1 ? " problem" : " problems") << "\n";
  }
  return out.str();
}

std::string seconds_since(std::chrono::system_clock::time_point since) {
  const double seconds = std::chrono::duration<double>(std::chrono::system_clock::now() - since).count();
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", seconds < 0 ? 0.0 : seconds);
  return text;
}

std::string status_text(const TreeState& tree, bool colour) {
  const auto paint = [colour](const std::string& text, const char* code) {
    return colour ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
  };
  std::ostringstream out;
  out << "run tree: " << tree.run_directory.string() << "\n";
  for (const std::string& problem : tree.settings_problems) out << "settings: " << problem << "\n";

  const ProjectState* main = tree.projects.empty() ? nullptr : &tree.projects.front();
  bool all_done = true;
  for (const ProjectState& project : tree.projects) all_done = all_done && project.done && *project.done == 0;

  if (main == nullptr || main->request.kind != project::GoRecord::Kind::kRequest) {
    out << "request: none yet (../main/go.dat holds no request)\n";
  } else {
    const project::Request& request = main->request.request;
    out << "request: " << project::describe(request) << "\n";
    if (tree.time_step && tree.cycle_num && *tree.time_step >= 0) {
      const long per_cycle = 4L * *tree.time_step + 1;
      const long index = (request.cycle - 1L) * per_cycle +
                         (request.cycle_end() ? per_cycle : (request.time_step - 1L) * 4 + request.stage);
      const long total = per_cycle * *tree.cycle_num;
      out << "position: cycle " << request.cycle << " of " << *tree.cycle_num << ", "
          << (request.cycle_end() ? "closing time step"
                                  : "time step " + std::to_string(request.time_step) + " of " +
                                        std::to_string(*tree.time_step) + ", stage " +
                                        std::to_string(request.stage) + " of 4")
          << "; " << (all_done ? index : index - 1) << " of " << total << " stages done\n";
      if (all_done && index == total) out << "the run is complete\n";
    }
  }

  out << "\n" << std::left << std::setw(8) << "PROJECT" << std::setw(8) << "DONE" << "HOLDING THE RUN FOR\n";
  std::string holders;
  for (const ProjectState& project : tree.projects) {
    out << std::setw(8) << project_name(project);
    if (!project.done) {
      out << paint("?", "33") << "       " << (project.problems.empty() ? "" : project.problems.front()) << "\n";
    } else if (*project.done == 0) {
      out << paint("yes", "32") << "\n";
    } else {
      out << paint("no", "31") << "      " << (project.done_changed ? seconds_since(*project.done_changed) : "?")
          << "\n";
      holders += (holders.empty() ? "" : ", ") + project_name(project);
    }
  }
  if (!holders.empty()) {
    out << "\nwaiting for: " << holders << "\n";
  } else if (all_done) {
    out << "\nevery project has reported done\n";
  }
  return out.str();
}

}  // namespace

int check_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  Arguments arguments;
  if (!parse(argc, argv, "--json", "check", arguments, err)) return kUsageStatus;
  if (arguments.help) {
    out << kCheckHelp;
    return 0;
  }
  const TreeState tree = inspect_tree(arguments.run_directory, true);
  out << (arguments.flag ? check_json(tree) : check_text(tree));
  return tree.problem_count() == 0 ? 0 : 1;
}

int status_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  Arguments arguments;
  if (!parse(argc, argv, "--watch", "status", arguments, err)) return kUsageStatus;
  if (arguments.help) {
    out << kStatusHelp;
    return 0;
  }
  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  for (;;) {
    const TreeState tree = inspect_tree(arguments.run_directory, false);
    if (arguments.flag && terminal) out << "\033[H\033[2J";
    out << status_text(tree, terminal) << std::flush;
    if (!arguments.flag) return tree.settings_problems.empty() ? 0 : 1;
    if (!terminal) out << "\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
}

}  // namespace lockstep::ctl
