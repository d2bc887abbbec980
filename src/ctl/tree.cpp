#include "ctl/tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "config/interaction.h"
#include "config/project_tree.h"
#include "config/settings.h"
#include "ctl/drivers.h"
#include "handshake/readiness.h"
#include "records/input.h"
#include "records/status.h"

namespace lockstep::ctl {
namespace {

// The longest first line looked at; a program name needs far less.
constexpr std::size_t kWideRecord = 4096;

std::string settings_problem(const records::Status& status, std::string_view key, long line) {
  const std::string where = "analysis_settings.dat: key \"" + std::string(key) + "\"";
  switch (status.number()) {
    case records::error::kFileNotFound:
      return "analysis_settings.dat is missing: start from one with your run's time steps per cycle, cycles and sub "
             "projects (printf 'time_step=\\n4\\ncycle_num=\\n2\\nnum_subprojects=\\n1\\n' > analysis_settings.dat)";
    case records::error::kPermissionDenied: return "analysis_settings.dat cannot be read: permission denied";
    case records::error::kEndOfFile:
      return where + " not found (the file ends at line " + std::to_string(line) + ")";
    case records::error::kSyntaxError: return where + ": line " + std::to_string(line) + " holds no integer";
    case records::error::kConversionError:
      return where + ": the value on line " + std::to_string(line) + " is outside -2147483648 to 2147483647";
    default:
      if (status.os_error() == EFBIG) return "analysis_settings.dat is too large to be a settings file (more than 1 MiB)";
      return status.headline();
  }
}

// Why the file at `path` (followed through links) cannot be one lockstep
// reads or writes as a text file; empty when it is a regular file or absent.
std::string not_regular(const std::filesystem::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || S_ISREG(info.st_mode)) return {};
  return project::file_kind(info.st_mode);
}

std::string removal(const std::filesystem::path& path, bool directory) {
  return (directory ? "rmdir " : "rm ") + path.string();
}

void read_settings(records::FileSystem& fs, TreeState& tree) {
  const std::filesystem::path file = tree.run_directory / "analysis_settings.dat";
  if (const std::string kind = not_regular(file); !kind.empty()) {
    tree.settings_problems.push_back("analysis_settings.dat is " + kind + ", not a regular file: replace it with one (" +
                                     removal(file, kind == "a directory") + ")");
    return;
  }
  std::optional<std::int32_t>* fields[] = {&tree.time_step, &tree.cycle_num, &tree.num_subprojects};
  for (std::size_t i = 0; i < config::kSettingKeys.size(); ++i) {
    config::KeySearch search;
    const records::Status status = config::find_setting(fs, config::kSettingKeys[i], search);
    if (!status.ok()) {
      tree.settings_problems.push_back(settings_problem(status, config::kSettingKeys[i], search.line));
      // A file that cannot be opened has the same problem for every key.
      if (status.number() != records::error::kEndOfFile && status.number() != records::error::kSyntaxError &&
          status.number() != records::error::kConversionError) {
        return;
      }
    } else if (!search.found) {
      tree.settings_problems.push_back("analysis_settings.dat: key \"" + std::string(config::kSettingKeys[i]) +
                                       "\" not found within the first 10,000 lines");
    } else {
      *fields[i] = search.value;
    }
  }
  if (tree.num_subprojects && *tree.num_subprojects > config::kMaxSubprojects) {
    tree.settings_problems.push_back("num_subprojects is " + std::to_string(*tree.num_subprojects) +
                                     "; the limit is " + std::to_string(config::kMaxSubprojects));
  }
}

// Settings that lockstep accepts but under which it does not do what anyone
// would want.
void judge_settings(TreeState& tree) {
  if (tree.num_subprojects && *tree.num_subprojects < 0) {
    tree.settings_problems.push_back("num_subprojects is " + std::to_string(*tree.num_subprojects) +
                                     ", below 0: write 0 for the main project alone");
  }
  if (tree.cycle_num && *tree.cycle_num <= 0) {
    tree.settings_problems.push_back("cycle_num is " + std::to_string(*tree.cycle_num) +
                                     ": lockstep would run no stage; write the number of cycles, 1 or more");
  }
  if (tree.time_step && *tree.time_step < 0) {
    tree.settings_problems.push_back("time_step is " + std::to_string(*tree.time_step) +
                                     ": lockstep would run no stage; write the number of time steps per cycle, "
                                     "0 or more");
  }
}

bool holds_shell_specials(const std::string& text) { return text.find_first_of("\"$`\\") != std::string::npos; }

void check_interaction(records::FileSystem& fs, const std::filesystem::path& run, ProjectState& project) {
  const std::filesystem::path path = run / project.directory / "CalculateInteraction.dat";
  if (const std::string kind = not_regular(path); !kind.empty()) {
    project.problems.push_back("CalculateInteraction.dat is " + kind +
                               ", not a regular file: replace it with a file whose first line names the program (" +
                               removal(path.lexically_normal(), kind == "a directory") + ")");
    return;
  }
  records::InputFile file(fs);
  std::string line;
  records::Status status =
      file.open(records::unit::kProjectFile, config::interaction_file(project.index), records::Access::kRead);
  if (status.ok()) status = file.read_text(kWideRecord, line);
  if (status.number() == records::error::kFileNotFound) {
    project.problems.push_back("CalculateInteraction.dat is missing: name the program lockstep runs for " +
                               project.name() + " in each stage in its first line, for example lockstep-exchange (echo "
                               "lockstep-exchange > " + path.lexically_normal().string() + ")");
    return;
  }
  if (status.end_of_file()) {
    project.problems.push_back("CalculateInteraction.dat is empty");
    return;
  }
  if (!status.ok()) {
    project.problems.push_back("CalculateInteraction.dat cannot be read: " + status.headline());
    return;
  }
  const std::size_t last = line.find_last_not_of(' ');
  const std::string record = line.substr(0, config::kInteractionRecordLength);
  if (last != std::string::npos && last >= config::kInteractionRecordLength) {
    project.problems.push_back("the first line of CalculateInteraction.dat is longer than 30 characters; "
                               "lockstep runs \"" + record.substr(0, record.find_last_not_of(' ') + 1) + "\"");
  }
  const std::size_t end = record.find_last_not_of(' ');
  if (end == std::string::npos) {
    project.problems.push_back("CalculateInteraction.dat names no program");
    return;
  }
  project.program = record.substr(0, end + 1);
  const std::string program = project.directory + project.program;
  if (holds_shell_specials(record)) {
    project.problems.push_back("the program name \"" + project.program +
                               "\" holds characters the shell treats specially (\" $ ` \\)");
  }
  struct stat info {};
  if (::stat((run / program).c_str(), &info) != 0) {
    const std::filesystem::path where = (run / program).lexically_normal();
    project.problems.push_back(
        "program " + program + " is missing: put " + project.name() + "'s interaction program there" +
        (where.filename() == "lockstep-exchange"
             ? ", or link the installed one (ln -s \"$(command -v lockstep-exchange)\" " + where.string() + ")"
             : std::string()));
  } else if (!S_ISREG(info.st_mode) || ::access((run / program).c_str(), X_OK) != 0) {
    project.problems.push_back("program " + program + " is not executable");
  }
}

void read_go_files(records::FileSystem& fs, const std::filesystem::path& run, ProjectState& project, bool live) {
  // --fix is refused while lockstep runs; its writes are then the cause.
  const std::string live_note = "lockstep is running here and writes it: look again once it has ended";
  const std::string run_fix = "run 'lockstepctl check --fix'";
  const std::string go2 = project.directory + "go2.dat";
  const std::filesystem::path go2_path = (run / go2).lexically_normal();
  if (const std::string kind = not_regular(go2_path); !kind.empty()) {
    project.problems.push_back("go2.dat is " + kind + ", not a regular file: remove it (" +
                               removal(go2_path, kind == "a directory") + ")" +
                               (live ? "; " + live_note : " and " + run_fix));
  } else {
    records::InputFile file(fs);
    std::optional<std::int32_t> done = -1;
    records::Status status = file.open(records::unit::kProjectFile, go2, records::Access::kRead);
    if (status.ok()) status = file.read_integer(done);
    struct stat info {};
    if (status.number() == records::error::kFileNotFound) {
      project.problems.push_back("go2.dat is missing" +
                                 (live ? "; " + live_note : ": " + run_fix + " to create it reporting done"));
    } else if (status.number() == records::error::kPermissionDenied) {
      project.problems.push_back("go2.dat cannot be read: permission denied");
    } else if (status.end_of_file()) {
      project.problems.push_back("go2.dat is empty, as a killed lockstep leaves it: lockstep would wait for it "
                                 "forever; " + (live ? live_note : run_fix));
    } else if (!status.ok()) {
      project.problems.push_back("go2.dat holds no integer");
    } else {
      project.done = done;
      if (::stat(go2_path.c_str(), &info) == 0) {
        project.done_changed = std::chrono::system_clock::time_point(
            std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec));
      }
    }
  }

  const std::filesystem::path go_path = (run / project.directory / "go.dat").lexically_normal();
  const project::GoFileRead go = project::read_go_file(go_path.string());
  if (go.outcome == project::GoFileRead::Outcome::kNotRegular) {
    project.problems.push_back("go.dat is " + go.kind + ", not a regular file: remove it (" +
                               removal(go_path, go.kind == "a directory") + ")");
  }
  project.request = project::parse_go_record(go.content);
}

// What lockstep's writes into the project directory would meet: a directory
// it cannot write, go files it cannot write, links that lead its writes
// elsewhere.
void check_writes(const std::filesystem::path& run, const std::vector<std::filesystem::path>& tree_directories,
                  ProjectState& project) {
  std::filesystem::path directory = (run / project.directory).lexically_normal();
  if (!directory.has_filename()) directory = directory.parent_path();
  if (::access(directory.c_str(), W_OK) != 0) {
    project.problems.push_back("project directory " + project.directory +
                               " is not writable: the project cannot report done by rename and lockstep cannot "
                               "create its go files; make it writable (chmod u+w " + directory.string() + ")");
  }
  for (const char* name : {"go.dat", "go2.dat"}) {
    const std::filesystem::path path = directory / name;
    std::error_code error;
    if (std::filesystem::is_symlink(path, error)) {
      const std::filesystem::path link = std::filesystem::read_symlink(path, error);
      const std::filesystem::path target = std::filesystem::weakly_canonical(directory / link, error);
      const bool inside = std::any_of(tree_directories.begin(), tree_directories.end(), [&](const auto& root) {
        const auto [end, ignored] = std::mismatch(root.begin(), root.end(), target.begin(), target.end());
        return end == root.end();
      });
      if (inside) {
        project.warnings.push_back(std::string(name) + " is a symbolic link to " + target.string() +
                                   ": lockstep writes through it");
      } else {
        project.problems.push_back(std::string(name) + " is a symbolic link to " + target.string() +
                                   ", outside the run tree: lockstep would overwrite that file; replace the link "
                                   "with a regular file (rm " + path.string() + ")");
      }
    }
    if (::access(path.c_str(), F_OK) == 0 && not_regular(path).empty() && ::access(path.c_str(), W_OK) != 0) {
      project.problems.push_back(std::string(name) + " is not writable: lockstep would retry writing it "
                                 "forever; make it writable (chmod u+w " + path.string() + ")");
    }
  }
}

}  // namespace

InspectionFileSystem::InspectionFileSystem(std::filesystem::path run_directory)
    : run_directory_(std::filesystem::absolute(run_directory).lexically_normal()) {
  // "/a/run/" names the same directory as "/a/run"; keep the shorter form.
  if (!run_directory_.has_filename()) run_directory_ = run_directory_.parent_path();
}

int InspectionFileSystem::open(const std::string& path, records::OpenMode mode) {
  if (mode == records::OpenMode::kReplace || mode == records::OpenMode::kCreateNew) return -EROFS;
  const std::filesystem::path full = path.empty() || path.front() != '/' ? run_directory_ / path : std::filesystem::path(path);
  const int fd = ::open(full.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return -errno;
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return -EINVAL;
  }
  read_so_far_[fd] = 0;
  return fd;
}

ssize_t InspectionFileSystem::read(int fd, char* buffer, std::size_t size) {
  std::size_t& so_far = read_so_far_[fd];
  if (so_far >= kInspectionReadLimit) return -EFBIG;
  const ssize_t got = posix_.read(fd, buffer, std::min(size, kInspectionReadLimit - so_far));
  if (got > 0) so_far += static_cast<std::size_t>(got);
  return got;
}

int InspectionFileSystem::close(int fd) {
  read_so_far_.erase(fd);
  return posix_.close(fd);
}

ssize_t InspectionFileSystem::write(int, const char*, std::size_t) { return -EROFS; }

std::string ProjectState::name() const { return index == 0 ? "main" : "sub" + std::to_string(index); }

std::string ProjectState::lock_history() const {
  const double seconds = std::chrono::duration<double>(std::chrono::system_clock::now() - lock.taken).count();
  char ago[32];
  std::snprintf(ago, sizeof ago, "%.1f s", seconds < 0 ? 0.0 : seconds);
  return "its lock is free; " + (lock.holder.empty() ? std::string("a process") : lock.holder) + " took it last, " +
         ago + " ago";
}

std::string unserved_advice(const ProjectState& project, pid_t driver) {
  static_assert(handshake::kPollLimit == 1'000'000 && handshake::kPollPause.count() == 1,
                "the advice names the driver's poll limit and pause");
  return "no process serves " + project.name() + " (" + project.lock_history() +
         "), and lockstep waits for its done: it goes on without it once its wait reaches 1,000,000 passes, at "
         "least 17 minutes into the stage, and the run is wrong from there. Restart the solver in " +
         project.directory + " if it can take up the pending request where it stopped; otherwise stop lockstep (kill " +
         std::to_string(driver) + ") and go on from the last checkpoint with 'lockstepctl resume'";
}

int last_project(const TreeState& tree) {
  // Past the limit the driver touches no project; the main project alone is
  // still worth a look.
  const int last = std::max(tree.num_subprojects.value_or(0), 0);
  return last > config::kMaxSubprojects ? 0 : last;
}

std::size_t TreeState::problem_count() const {
  std::size_t count = settings_problems.size() + run_problems.size();
  for (const ProjectState& project : projects) count += project.problems.size();
  return count;
}

namespace {

// A resumed run: the settings must be those lockstepctl resume left.
void check_resume_record(TreeState& tree) {
  resume::Record record;
  std::string error;
  const resume::ReadOutcome read = resume::read_record(tree.run_directory.string(), record, error);
  if (read == resume::ReadOutcome::kError) {
    tree.run_problems.push_back(error + "; run lockstepctl resume again to write it anew");
  }
  fields::RunSettings first;
  if (std::string problem = settings_backup_problem(tree.run_directory, first); !problem.empty()) {
    tree.run_problems.push_back(std::move(problem));
  }
  if (read != resume::ReadOutcome::kRead) return;
  tree.resumed = record;
  if (tree.time_step == record.time_step && tree.cycle_num == record.remaining() &&
      tree.num_subprojects == record.num_subprojects) {
    return;
  }
  tree.run_problems.push_back(
      "analysis_settings.dat was changed after lockstepctl resume: the run resumes after cycle " +
      std::to_string(record.after_cycle) + " with time_step=" + std::to_string(record.time_step) + " cycle_num=" +
      std::to_string(record.remaining()) + " num_subprojects=" + std::to_string(record.num_subprojects) +
      "; put those back, or run lockstepctl resume again");
}

// Every project's record says what the run directory's says, or both say
// nothing.
void check_project_resume_record(const TreeState& tree, ProjectState& project) {
  resume::Record record;
  std::string error;
  const std::filesystem::path directory = (tree.run_directory / project.directory).lexically_normal();
  const resume::ReadOutcome read = resume::read_record(directory.string(), record, error);
  if (read == resume::ReadOutcome::kError) {
    project.problems.push_back(error);
  } else if (tree.resumed && (read == resume::ReadOutcome::kMissing || !(record == *tree.resumed))) {
    project.problems.push_back(
        std::string(resume::kRecordFile) +
        (read == resume::ReadOutcome::kMissing ? " is missing"
                                                : " says the run resumes after cycle " +
                                                      std::to_string(record.after_cycle)) +
        ", but the run resumes after cycle " + std::to_string(tree.resumed->after_cycle) +
        ": its solver would count cycles wrong; run lockstepctl resume again");
  } else if (!tree.resumed && read == resume::ReadOutcome::kRead) {
    project.problems.push_back(std::string(resume::kRecordFile) + " says the run resumes after cycle " +
                               std::to_string(record.after_cycle) +
                               ", but the run directory has no such record: run lockstepctl resume, or remove it (rm " +
                               (directory / resume::kRecordFile).string() + ") to run from cycle 1");
  }
}

}  // namespace

std::string settings_backup_problem(const std::filesystem::path& run_directory, fields::RunSettings& settings) {
  const std::filesystem::path backup = run_directory / resume::kSettingsBackupFile;
  std::error_code error;
  if (!std::filesystem::exists(std::filesystem::symlink_status(backup, error))) return {};
  std::string why;
  if (fields::read_run_settings(backup.string(), settings, why) && settings.cycles >= 1) return {};
  return std::string(resume::kSettingsBackupFile) + ", the settings as first written that lockstepctl resume " +
         "keeps, cannot be used (" + (why.empty() ? "cycle_num= is below 1" : why) +
         "): write the run's first time_step=, cycle_num= and num_subprojects= into " + backup.string() +
         ", then run lockstepctl resume again";
}

TreeState inspect_tree(const std::filesystem::path& run_directory, bool before_run) {
  InspectionFileSystem fs(run_directory);
  TreeState tree;
  tree.run_directory = fs.current_directory();
  read_settings(fs, tree);
  if (before_run) judge_settings(tree);
  tree.drivers = running_drivers(tree.run_directory);
  check_resume_record(tree);

  const int last = last_project(tree);
  // Where go files may lead without leaving the run tree; only the check
  // before a run asks.
  std::vector<std::filesystem::path> tree_directories;
  for (int index = -1; before_run && index <= last; ++index) {
    const std::filesystem::path directory =
        index < 0 ? tree.run_directory : tree.run_directory / config::project_directory(index);
    std::error_code ignored;
    tree_directories.push_back(std::filesystem::weakly_canonical(directory, ignored));
  }
  bool all_read = true;
  std::int64_t sum = 0;
  for (int index = 0; index <= last; ++index) {
    ProjectState project;
    project.index = index;
    project.directory = config::project_directory(index);
    struct stat info {};
    if (::stat((tree.run_directory / project.directory).c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      project.problems.push_back("project directory " + project.directory + " is missing: create it (mkdir " +
                                 (tree.run_directory / project.directory).lexically_normal().string() +
                                 ") with its CalculateInteraction.dat, or lower num_subprojects");
      all_read = false;
    } else {
      project.network_file_system = project::network_file_system((tree.run_directory / project.directory).string());
      if (before_run) check_interaction(fs, tree.run_directory, project);
      read_go_files(fs, tree.run_directory, project, !tree.drivers.empty());
      if (project.network_file_system.empty() || project.network_file_system == "nfs") {
        project.lock = project::DirectoryLock::probe((tree.run_directory / project.directory).string());
      }
      if (before_run) check_writes(tree.run_directory, tree_directories, project);
      if (project.done) {
        sum += *project.done;
      } else {
        all_read = false;
      }
      check_project_resume_record(tree, project);
      if (before_run && !tree.drivers.empty() && project.request.kind == project::GoRecord::Kind::kRequest) {
        project.notes.push_back("go.dat holds the request of the running lockstep (PID " +
                                std::to_string(tree.drivers.front()) + "): " +
                                project::describe(project.request.request));
      }
      if (before_run && project.unserved()) {
        if (tree.drivers.empty()) {
          project.warnings.push_back("no process serves it now (" + project.lock_history() +
                                     "): start its solver before lockstep");
        } else if (project.done && *project.done != 0) {
          project.problems.push_back(unserved_advice(project, tree.drivers.front()));
        }
      }
    }
    tree.projects.push_back(std::move(project));
  }
  // While lockstep runs, done values that do not add up are its stage.
  if (before_run && all_read && sum != 0 && tree.drivers.empty()) {
    std::string holders;
    bool served_again = false;
    for (const ProjectState& project : tree.projects) {
      if (*project.done != 0) {
        holders += (holders.empty() ? "" : ", ") + project.directory + " (" + std::to_string(*project.done) + ")";
        served_again = served_again || project.request.kind == project::GoRecord::Kind::kRequest;
      }
    }
    tree.run_problems.push_back("the done values add up to " + std::to_string(sum) + ", not 0: the first stage would "
                                "wait" + (served_again ? ", and a solver started now would serve again the request "
                                                         "its go.dat still holds" : "") +
                                "; not done: " + holders + ", as a finished or stopped run leaves them: run "
                                "'lockstepctl check --fix' to report them done");
  }
  if (before_run && !tree.drivers.empty()) {
    tree.run_problems.push_back("lockstep is already running in this run directory (PID " +
                                std::to_string(tree.drivers.front()) +
                                "): a second driver would lose stages; wait for it to end or stop it (kill " +
                                std::to_string(tree.drivers.front()) + ")");
  }
  return tree;
}

}  // namespace lockstep::ctl
