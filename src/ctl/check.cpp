#include "ctl/check.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "config/project_tree.h"
#include "ctl/command_line.h"
#include "ctl/exchange_check.h"
#include "ctl/text.h"
#include "ctl/tree.h"
#include "records/status.h"

namespace lockstep::ctl {
namespace {

constexpr const char* kCheckFooter =
    "Reads the tree as lockstep will, without creating or changing any file, and\n"
    "reports every problem found, with the fix where one command or edit makes it: the\n"
    "settings file and settings under which nothing would run, each project directory\n"
    "and whether it can be written, its CalculateInteraction.dat and program, its go\n"
    "files (FIFOs, devices, links out of the run tree, an empty go2.dat left by a\n"
    "killed lockstep), done values that would hold up the first stage, projects whose\n"
    "solver has gone (their lock is free), and a lockstep already running in RUN_DIR\n"
    "on this machine (other machines cannot be looked at; while one runs, its request\n"
    "and stage are no problem). With an exchange.dat in RUN_DIR: its lines that cannot\n"
    "be read, projects it names outside the run, outputs and meshes not yet published,\n"
    "and links to lockstep-exchange that lead nowhere.\n"
    "\n"
    "--fix prepares the tree for a fresh start after a crash: every go2.dat reports\n"
    "done and the temporary files a killed project left are removed; nothing else is\n"
    "touched, and every change is listed. Refused while lockstep runs in RUN_DIR.\n"
    "\n"
    "Exit status: 0 when the tree is ready, 1 when it is not, 2 on a usage error.";

std::string settings_line(const TreeState& tree) {
  const auto value = [](const std::optional<std::int32_t>& v) { return v ? std::to_string(*v) : std::string("?"); };
  return "time_step=" + value(tree.time_step) + " cycle_num=" + value(tree.cycle_num) +
         " num_subprojects=" + value(tree.num_subprojects);
}

std::string check_json(const TreeState& tree) {
  using nlohmann::ordered_json;
  const auto number = [](const std::optional<std::int32_t>& v) { return v ? ordered_json(*v) : ordered_json(); };
  ordered_json projects = ordered_json::array();
  for (const ProjectState& project : tree.projects) {
    projects.push_back({{"index", project.index},
                        {"directory", project.directory},
                        {"program", project.program},
                        {"done", number(project.done)},
                        {"problems", project.problems},
                        {"warnings", project.warnings},
                        {"notes", project.notes}});
  }
  const ordered_json report = {
      {"run_directory", tree.run_directory.string()},
      {"ready", tree.problem_count() == 0},
      {"settings",
       {{"time_step", number(tree.time_step)},
        {"cycle_num", number(tree.cycle_num)},
        {"num_subprojects", number(tree.num_subprojects)}}},
      {"settings_problems", tree.settings_problems},
      {"projects", projects},
      {"run_problems", tree.run_problems},
      {"mappings", tree.mappings},
      {"drivers", tree.drivers}};
  // JSON is UTF-8: bytes that are not become U+FFFD.
  return report.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

std::string check_text(const TreeState& tree) {
  std::ostringstream out;
  out << "run tree: " << text::printable(tree.run_directory.string()) << "\n"
      << "settings: " << settings_line(tree) << "\n";
  for (const std::string& problem : tree.settings_problems) out << "  " << text::printable(problem) << "\n";
  out << "drivers: " << (tree.drivers.empty() ? "none running here" : std::to_string(tree.drivers.size()) + " running")
      << " (processes of this machine only; other machines were not looked at)\n";
  out << "\n" << std::left << std::setw(8) << "PROJECT" << std::setw(12) << "DIRECTORY" << std::setw(32) << "PROGRAM"
      << std::setw(8) << "DONE" << "PROBLEMS\n";
  for (const ProjectState& project : tree.projects) {
    out << std::setw(8) << project.name() << std::setw(12) << project.directory << std::setw(32)
        << (project.program.empty() ? "-" : text::printable(project.program)) << std::setw(8)
        << (project.done ? std::to_string(*project.done) : "-") << project.problems.size() << "\n";
  }
  bool listed = false;
  const auto list = [&](const std::string& line) {
    out << (listed ? "" : "\n") << text::printable(line) << "\n";
    listed = true;
  };
  for (const ProjectState& project : tree.projects) {
    for (const std::string& problem : project.problems) list(project.name() + ": " + problem);
    for (const std::string& warning : project.warnings) list(project.name() + ": warning: " + warning);
    for (const std::string& note : project.notes) list(project.name() + ": " + note);
  }
  for (const std::string& problem : tree.run_problems) list(problem);
  if (!tree.mappings.empty()) out << "\nmappings:\n";
  for (const std::string& mapping : tree.mappings) out << "  " << text::printable(mapping) << "\n";
  const std::size_t problems = tree.problem_count();
  if (problems == 0) {
    out << "\nready: " << tree.projects.size() << (tree.projects.size() == 1 ? " project" : " projects")
        << ", no problems\n";
  } else {
    out << "\nnot ready: " << problems << (problems == 1 ? " problem" : " problems") << "\n";
  }
  return out.str();
}

// After a crash: every go2.dat reports done, the library's temporary files
// go. Returns false when something could not be changed.
bool fix(const TreeState& tree, std::ostream& out, std::ostream& err) {
  bool all_fixed = true;
  std::size_t changes = 0;
  for (const ProjectState& project : tree.projects) {
    const std::filesystem::path directory = (tree.run_directory / project.directory).lexically_normal();
    std::error_code error;
    if (!std::filesystem::is_directory(directory, error)) continue;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
      const std::string name = entry.path().filename().string();
      if (name.rfind(".go2.dat.", 0) == 0 && name.size() > 13 && name.ends_with(".tmp") &&
          std::filesystem::remove(entry.path(), error)) {
        out << "removed " << text::printable(project.directory + name) << "\n";
        ++changes;
      }
    }
    if (project.done == 0) continue;
    const std::filesystem::path go2 = directory / "go2.dat";
    if (std::filesystem::is_symlink(go2, error) ||
        (std::filesystem::exists(go2, error) && !std::filesystem::is_regular_file(go2, error))) {
      err << "lockstepctl check: left " << project.directory << "go2.dat alone: it is not a regular file; remove it "
          << "and run --fix again\n";
      all_fixed = false;
      continue;
    }
    if (const std::string failure = write_done(go2); !failure.empty()) {
      err << "lockstepctl check: cannot write " << project.directory << "go2.dat: " << failure << "\n";
      all_fixed = false;
      continue;
    }
    out << "wrote 0 into " << project.directory << "go2.dat"
        << (project.done ? " (it held " + std::to_string(*project.done) + ")" : "") << "\n";
    ++changes;
  }
  out << (changes == 0 ? "nothing to change" : "changed " + std::to_string(changes) +
                                                   (changes == 1 ? " file" : " files"))
      << "\n\n";
  return all_fixed;
}

}  // namespace

std::string write_done(const std::filesystem::path& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return records::os_error_text(errno);
  const bool written = ::write(fd, "0\n", 2) == 2;
  const int error = errno;
  if (::close(fd) != 0 || !written) return records::os_error_text(written ? errno : error);
  return {};
}

int check_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  std::string run_directory = ".";
  bool as_json = false;
  bool fix_tree = false;
  CLI::App app("Checks a run tree before a run.", "lockstepctl check");
  set_up(app);
  app.footer(kCheckFooter);
  add_run_directory(app, run_directory);
  app.add_flag("--json", as_json, "print the report as JSON");
  app.add_flag("--fix", fix_tree, "make every go2.dat report done after a crash, and list each change");
  if (const auto status = parse(app, words(argc, argv), out, err)) return *status;
  if (fix_tree) {
    const TreeState before = inspect_tree(run_directory, false);
    if (!before.drivers.empty()) {
      err << "lockstepctl check: lockstep is running in " << text::printable(before.run_directory.string())
          << " (PID " << before.drivers.front() << "); --fix changes nothing while it runs\n";
      return 1;
    }
    if (!fix(before, as_json ? err : out, err)) return 1;
  }
  TreeState tree = inspect_tree(run_directory, true);
  check_exchange(tree);
  out << (as_json ? check_json(tree) : check_text(tree));
  return tree.problem_count() == 0 ? 0 : 1;
}

}  // namespace lockstep::ctl
