#include "ctl/tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "config/interaction.h"
#include "config/project_tree.h"
#include "config/settings.h"
#include "records/input.h"
#include "records/status.h"

namespace lockstep::ctl {
namespace {

// The longest first line looked at; a program name needs far less.
constexpr std::size_t kWideRecord = 4096;

std::string settings_problem(const records::Status& status, std::string_view key, long line) {
  const std::string where = "analysis_settings.dat: key \"" + std::string(key) + "\"";
  switch (status.number()) {
    case records::error::kFileNotFound: return "analysis_settings.dat is missing";
    case records::error::kPermissionDenied: return "analysis_settings.dat cannot be read: permission denied";
    case records::error::kEndOfFile:
      return where + " not found (the file ends at line " + std::to_string(line) + ")";
    case records::error::kSyntaxError: return where + ": line " + std::to_string(line) + " holds no integer";
    case records::error::kConversionError:
      return where + ": the value on line " + std::to_string(line) + " is outside -2147483648 to 2147483647";
    default: return status.headline();
  }
}

void read_settings(records::FileSystem& fs, TreeState& tree) {
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

bool holds_shell_specials(const std::string& text) { return text.find_first_of("\"$`\\") != std::string::npos; }

void check_interaction(records::FileSystem& fs, const std::filesystem::path& run, ProjectState& project) {
  records::InputFile file(fs);
  std::string line;
  records::Status status =
      file.open(records::unit::kProjectFile, config::interaction_file(project.index), records::Access::kRead);
  if (status.ok()) status = file.read_text(kWideRecord, line);
  if (status.number() == records::error::kFileNotFound) {
    project.problems.push_back("CalculateInteraction.dat is missing");
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
    project.problems.push_back("program " + program + " is missing");
  } else if (!S_ISREG(info.st_mode) || ::access((run / program).c_str(), X_OK) != 0) {
    project.problems.push_back("program " + program + " is not executable");
  }
}

void read_go_files(records::FileSystem& fs, const std::filesystem::path& run, ProjectState& project) {
  const std::string go2 = project.directory + "go2.dat";
  records::InputFile file(fs);
  std::optional<std::int32_t> done = -1;
  records::Status status = file.open(records::unit::kProjectFile, go2, records::Access::kRead);
  if (status.ok()) status = file.read_integer(done);
  if (status.number() == records::error::kFileNotFound) {
    project.problems.push_back("go2.dat is missing");
  } else if (status.number() == records::error::kPermissionDenied) {
    project.problems.push_back("go2.dat cannot be read: permission denied");
  } else if (!status.ok()) {
    project.problems.push_back("go2.dat holds no integer");
  } else {
    project.done = done;
    struct stat info {};
    if (::stat((run / go2).c_str(), &info) == 0) {
      project.done_changed = std::chrono::system_clock::time_point(
          std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec));
    }
  }

  std::ifstream in(run / (project.directory + "go.dat"), std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  project.request = project::parse_go_record(content.str());
}

}  // namespace

InspectionFileSystem::InspectionFileSystem(std::filesystem::path run_directory)
    : run_directory_(std::filesystem::absolute(run_directory).lexically_normal()) {
  // "/a/run/" names the same directory as "/a/run"; keep the shorter form.
  if (!run_directory_.has_filename()) run_directory_ = run_directory_.parent_path();
}

int InspectionFileSystem::open(const std::string& path, records::OpenMode mode) {
  if (mode == records::OpenMode::kReplace) return -EROFS;
  const std::filesystem::path full = path.empty() || path.front() != '/' ? run_directory_ / path : std::filesystem::path(path);
  return posix_.open(full.string(), records::OpenMode::kReadOnly);
}

ssize_t InspectionFileSystem::write(int, const char*, std::size_t) { return -EROFS; }

std::size_t TreeState::problem_count() const {
  std::size_t count = settings_problems.size() + run_problems.size();
  for (const ProjectState& project : projects) count += project.problems.size();
  return count;
}

TreeState inspect_tree(const std::filesystem::path& run_directory, bool interaction) {
  InspectionFileSystem fs(run_directory);
  TreeState tree;
  tree.run_directory = fs.current_directory();
  read_settings(fs, tree);

  // Past the limit the driver touches no project; the main project alone is
  // still worth a look.
  int last = std::max(tree.num_subprojects.value_or(0), 0);
  if (last > config::kMaxSubprojects) last = 0;
  bool all_read = true;
  std::int64_t sum = 0;
  for (int index = 0; index <= last; ++index) {
    ProjectState project;
    project.index = index;
    project.directory = config::project_directory(index);
    struct stat info {};
    if (::stat((tree.run_directory / project.directory).c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      project.problems.push_back("project directory " + project.directory + " is missing");
      all_read = false;
    } else {
      if (interaction) check_interaction(fs, tree.run_directory, project);
      read_go_files(fs, tree.run_directory, project);
      if (project.done) {
        sum += *project.done;
      } else {
        all_read = false;
      }
      if (interaction && project.request.kind == project::GoRecord::Kind::kRequest) {
        project.problems.push_back("go.dat holds a request from an earlier run (" +
                                   project::describe(project.request.request) + ")");
      }
    }
    tree.projects.push_back(std::move(project));
  }
  if (all_read && sum != 0) {
    std::string holders;
    for (const ProjectState& project : tree.projects) {
      if (*project.done != 0) {
        holders += (holders.empty() ? "" : ", ") + project.directory + " (" + std::to_string(*project.done) + ")";
      }
    }
    tree.run_problems.push_back("the done values add up to " + std::to_string(sum) +
                                ", not 0: the first stage would wait; not done: " + holders);
  }
  return tree;
}

}  // namespace lockstep::ctl
