#include "ctl/resume.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "config/project_tree.h"
#include "ctl/check.h"
#include "ctl/command_line.h"
#include "ctl/text.h"
#include "ctl/tree.h"
#include "fields/interaction.h"
#include "records/file_system.h"
#include "records/status.h"
#include "resume/checkpoint.h"
#include "resume/record.h"

namespace lockstep::ctl {
namespace {

namespace fs = std::filesystem;
using resume::Change;

constexpr const char* kSettingsFile = "analysis_settings.dat";
constexpr const char* kBackupFile = resume::kSettingsBackupFile;
constexpr const char* kLockFile = ".lockstep-resume.lock";

constexpr const char* kFooter =
    "Prepares a run that stopped (a crash, a batch job's time limit, a kill) to go\n"
    "on after the newest cycle that every project recorded as a checkpoint (a\n"
    "solver's checkpoint() in a cycle-end request, or the agent's --checkpoint), or\n"
    "after the cycle --after-cycle names. It puts every project's fields as they\n"
    "were after that cycle, makes every go2.dat report done, removes go.dat and the\n"
    "files writers left half written, and sets the settings' cycle_num to the cycles\n"
    "that remain. The settings as first written are kept as\n"
    "analysis_settings.dat.before-resume, and lockstep-resume.dat, in the run\n"
    "directory and in every project directory, records the cycle the run resumes\n"
    "after: lockstep counts the remaining cycles from 1, and the project library,\n"
    "the agent, interaction programs and lockstepctl add that cycle to its numbers.\n"
    "Checkpoints after that cycle are set aside in checkpoints/abandoned-K, where\n"
    "no later resume looks: they belong to the timeline the run leaves.\n"
    "Every change is listed; --dry-run lists them and changes nothing. Refused while\n"
    "lockstep runs in RUN_DIR or another resume prepares it.";

struct Settings {
  int time_step = 0;
  int cycle_num = 0;
  int num_subprojects = 0;
  bool operator==(const Settings&) const = default;
  std::string text() const {
    return "time_step=" + std::to_string(time_step) + " cycle_num=" + std::to_string(cycle_num) +
           " num_subprojects=" + std::to_string(num_subprojects);
  }
};

bool read_settings(const fs::path& path, Settings& settings, std::string& error) {
  fields::RunSettings read;
  if (!fields::read_run_settings(path.string(), read, error)) return false;
  settings = {read.time_steps, read.cycles, read.subprojects};
  return true;
}

std::string read_whole(const fs::path& path, std::string& error) {
  records::PosixFileSystem posix;
  records::Descriptor file(posix, ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string text;
  if (!file.valid()) {
    error = "cannot read " + path.string() + ": " + records::os_error_text(errno);
    return text;
  }
  char buffer[4096];
  for (ssize_t got; (got = posix.read(file.get(), buffer, sizeof buffer)) > 0 && text.size() < kInspectionReadLimit;) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return text;
}

std::string project_name(int index) { return index == 0 ? std::string("main") : "sub" + std::to_string(index); }

// "40, 80" or "none".
std::string list_cycles(const std::vector<std::int32_t>& cycles) {
  std::string text;
  for (const std::int32_t cycle : cycles) text += (text.empty() ? "" : ", ") + std::to_string(cycle);
  return text.empty() ? "none" : text;
}

// The go files as a fresh start wants them: go2.dat reporting done, no
// request left in go.dat, no temporary file of a killed done report.
void go_file_changes(const fs::path& directory, const std::string& name, std::vector<Change>& changes) {
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
    const std::string file = entry->path().filename().string();
    if (file.rfind(".go2.dat.", 0) != 0 || !file.ends_with(".tmp")) continue;
    const fs::path path = entry->path();
    changes.push_back({name + ": " + file + " removed (left by a writer that was stopped)", [path](std::string& why) {
                         std::error_code failure;
                         fs::remove(path, failure);
                         if (failure) why = "cannot remove " + path.string() + ": " + failure.message();
                         return !failure;
                       }});
  }
  const project::GoFileRead done = project::read_go_file((directory / "go2.dat").string());
  if (done.outcome != project::GoFileRead::Outcome::kRead || done.content != "0\n") {
    const fs::path path = directory / "go2.dat";
    changes.push_back({name + ": go2.dat reports done", [path](std::string& why) {
                         why = write_done(path);
                         if (!why.empty()) why = "cannot write " + path.string() + ": " + why;
                         return why.empty();
                       }});
  }
  if (fs::exists(fs::symlink_status(directory / "go.dat", error))) {
    const fs::path path = directory / "go.dat";
    changes.push_back({name + ": go.dat removed (it holds the request of the stopped run)", [path](std::string& why) {
                         if (::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
                         why = "cannot remove " + path.string() + ": " + records::os_error_text(errno);
                         return false;
                       }});
  }
}

// Held while a resume prepares the run directory, so that two cannot
// interleave their changes.
class ResumeLock {
 public:
  bool acquire(const fs::path& run_directory, std::string& error) {
    const std::string path = (run_directory / kLockFile).string();
    file_ = records::Descriptor(posix_, ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!file_.valid()) {
      error = "cannot open " + path + ": " + records::os_error_text(errno);
      return false;
    }
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (::fcntl(file_.get(), F_OFD_SETLK, &whole) == 0) return true;
    error = errno == EAGAIN || errno == EACCES
                ? "another lockstepctl resume is preparing " + run_directory.string() + " (it holds " + path +
                      "); let it finish, then look at the tree with lockstepctl check"
                : "cannot lock " + path + ": " + records::os_error_text(errno);
    return false;
  }

 private:
  records::PosixFileSystem posix_;
  records::Descriptor file_;
};

// The cycle every project can restart after: `wanted`, or the newest all
// recorded. Nothing, with the reason in `error`, when there is none.
std::optional<std::int32_t> choose_cycle(const fs::path& run, const Settings& original,
                                         const std::optional<int>& wanted, std::string& error) {
  std::vector<std::vector<std::int32_t>> cycles;
  std::vector<std::int32_t> common;
  for (int index = 0; index <= original.num_subprojects; ++index) {
    cycles.push_back(resume::recorded_cycles((run / config::project_directory(index)).lexically_normal().string()));
    std::vector<std::int32_t> both;
    const std::vector<std::int32_t>& kept = cycles.back();
    if (index == 0) both = kept;
    std::set_intersection(common.begin(), common.end(), kept.begin(), kept.end(), std::back_inserter(both));
    common = std::move(both);
  }
  if (wanted) {
    for (int index = 0; index <= original.num_subprojects; ++index) {
      const auto& kept = cycles[static_cast<std::size_t>(index)];
      if (!std::binary_search(kept.begin(), kept.end(), *wanted)) {
        error = project_name(index) + " recorded no checkpoint after cycle " + std::to_string(*wanted) +
                " (it recorded: " + list_cycles(kept) + "); every project recorded: " + list_cycles(common);
        return std::nullopt;
      }
    }
    return *wanted;
  }
  if (common.empty()) {
    std::string each;
    for (int index = 0; index <= original.num_subprojects; ++index) {
      each += "; " + project_name(index) + ": " + list_cycles(cycles[static_cast<std::size_t>(index)]);
    }
    error = "no cycle was recorded as a checkpoint by every project" + each +
            ". A solver records one with checkpoint() in a cycle-end request, once it has saved its state; the "
            "agent with --checkpoint";
    return std::nullopt;
  }
  return common.back();
}

// Every change that prepares the tree to go on after `record.after_cycle`,
// in the order they are made; nothing, with the reason in `error`, when the
// settings hold no cycle_num to change.
std::optional<std::vector<Change>> plan_changes(const fs::path& run, const resume::Record& record,
                                                const Settings& now, bool resumed_before, std::string& error) {
  std::vector<Change> changes;
  const std::int32_t after = record.after_cycle;
  for (int index = 0; index <= record.num_subprojects; ++index) {
    const fs::path directory = (run / config::project_directory(index)).lexically_normal();
    for (Change& change : resume::restore_fields(directory.string(), project_name(index), after)) {
      changes.push_back(std::move(change));
    }
    for (Change& change : resume::set_aside_checkpoints(directory.string(), project_name(index), after)) {
      changes.push_back(std::move(change));
    }
    go_file_changes(directory, project_name(index), changes);
    changes.push_back({project_name(index) + ": " + resume::kRecordFile + " written (the run resumes after cycle " +
                           std::to_string(after) + ")",
                       [directory, record](std::string& why) { return resume::write_record(directory, record, why); }});
  }
  const std::string settings_text = read_whole(run / kSettingsFile, error);
  if (!resumed_before) {
    changes.push_back({std::string(kSettingsFile) + " kept as " + kBackupFile, [run, settings_text](std::string& why) {
                         return resume::replace_file((run / kBackupFile).string(), settings_text, why);
                       }});
  }
  changes.push_back({std::string(resume::kRecordFile) + " written in the run directory",
                     [run, record](std::string& why) { return resume::write_record(run.string(), record, why); }});
  const std::optional<std::string> updated = with_cycle_num(settings_text, record.remaining());
  if (!updated) {
    if (error.empty()) error = "no cycle_num= value to change in " + (run / kSettingsFile).string();
    return std::nullopt;
  }
  if (*updated != settings_text) {
    const std::string path = (run / kSettingsFile).string();
    changes.push_back({std::string(kSettingsFile) + ": cycle_num " + std::to_string(now.cycle_num) + " -> " +
                           std::to_string(record.remaining()) + " (the cycles after cycle " + std::to_string(after) +
                           ")",
                       [path, updated](std::string& why) { return resume::replace_file(path, *updated, why); }});
  }
  return changes;
}

struct Options {
  std::string run_directory = ".";
  std::optional<int> after_cycle;
  bool dry_run = false;
};

int fail(std::ostream& err, const std::string& message) {
  err << "lockstepctl resume: " << message << "\n";
  return 1;
}

}  // namespace

std::optional<std::string> with_cycle_num(const std::string& settings, int cycle_num) {
  std::size_t line = 0;
  bool after_key = false;
  while (line < settings.size()) {
    const std::size_t end = std::min(settings.find('\n', line), settings.size());
    const std::string_view text = std::string_view(settings).substr(line, end - line);
    if (after_key) {
      const std::size_t begin = text.find_first_not_of(" \t\r");
      if (begin != std::string_view::npos) {
        const std::size_t stop = std::min(text.find_first_of(" \t,/\r", begin), text.size());
        return settings.substr(0, line + begin) + std::to_string(cycle_num) + settings.substr(line + stop);
      }
    } else if (text.rfind("cycle_num=", 0) == 0) {
      after_key = true;
    }
    line = end + 1;
  }
  return std::nullopt;
}

int resume_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  Options options;
  CLI::App app("Prepares a stopped run to go on after the newest cycle every project recorded.",
               "lockstepctl resume");
  set_up(app);
  app.footer(kFooter);
  add_run_directory(app, options.run_directory);
  app.add_option("--after-cycle", options.after_cycle, "resume after this cycle of the run instead")
      ->check(CLI::Range(1, INT_MAX))
      ->type_name("C");
  app.add_flag("--dry-run", options.dry_run, "list the changes, make none");
  if (const auto status = parse(app, words(argc, argv), out, err)) return *status;

  const TreeState tree = inspect_tree(options.run_directory, false);
  const fs::path run = tree.run_directory;
  const std::string shown = text::printable(run.string());
  if (!tree.drivers.empty()) {
    return fail(err, "lockstep is running in " + shown + " (PID " + std::to_string(tree.drivers.front()) +
                         "); resume prepares a run that has stopped: stop it first");
  }
  ResumeLock lock;
  std::string error;
  if (!options.dry_run && !lock.acquire(run, error)) return fail(err, error);

  // The run's own settings: as first written, before any resume.
  Settings now, original;
  if (!read_settings(run / kSettingsFile, now, error)) return fail(err, error);
  const bool resumed_before = fs::exists(fs::symlink_status(run / kBackupFile));
  fields::RunSettings backup;
  if (const std::string problem = settings_backup_problem(run, backup); !problem.empty()) return fail(err, problem);
  if (resumed_before) original = {backup.time_steps, backup.cycles, backup.subprojects};
  if (!resumed_before) original = now;
  resume::Record previous;
  const resume::ReadOutcome recorded = resume::read_record(run.string(), previous, error);
  if (recorded == resume::ReadOutcome::kError) return fail(err, error);
  if (recorded == resume::ReadOutcome::kRead && now != original &&
      now != Settings{previous.time_step, previous.remaining(), previous.num_subprojects}) {
    return fail(err, shown + "/" + kSettingsFile + " was changed after the last resume (" + now.text() +
                         "; the resumed run has " +
                         Settings{previous.time_step, previous.remaining(), previous.num_subprojects}.text() +
                         "): put back what lockstepctl resume wrote, or start the run afresh from " + kBackupFile);
  }
  if (original.num_subprojects < 0 || original.num_subprojects > config::kMaxSubprojects || original.cycle_num < 1) {
    return fail(err, shown + "/" + (resumed_before ? kBackupFile : kSettingsFile) + " holds no run to resume (" +
                         original.text() + "); lockstepctl check names what is wrong");
  }

  const std::optional<std::int32_t> after = choose_cycle(run, original, options.after_cycle, error);
  if (!after) return fail(err, error);
  if (*after >= original.cycle_num) {
    return fail(err, "cycle " + std::to_string(*after) + " is the run's last (cycle_num=" +
                         std::to_string(original.cycle_num) + "): nothing is left to run");
  }
  const resume::Record record{*after, original.time_step, original.cycle_num, original.num_subprojects};
  const std::optional<std::vector<Change>> changes = plan_changes(run, record, now, resumed_before, error);
  if (!changes) return fail(err, error);

  const std::string remaining =
      record.remaining() == 1
          ? "the cycle that remains as cycle 1, which the projects see as cycle " + std::to_string(*after + 1)
          : "the " + std::to_string(record.remaining()) + " cycles that remain as cycles 1 to " +
                std::to_string(record.remaining()) + ", which the projects see as cycles " +
                std::to_string(*after + 1) + " to " + std::to_string(original.cycle_num);
  out << (options.dry_run ? "would resume " : "resuming ") << shown << " after cycle " << *after << " of "
      << original.cycle_num << ": lockstep runs " << remaining << "\n";
  for (const Change& change : *changes) {
    out << "  " << text::printable(change.text) << "\n";
    if (options.dry_run) continue;
    if (!change.make(error)) {
      return fail(err, error + "; the changes above it were made, none after it: mend the cause and run "
                               "lockstepctl resume again");
    }
  }
  out << (options.dry_run ? "nothing changed (--dry-run)\n" : "ready: start lockstep in " + shown + "\n");
  return 0;
}

}  // namespace lockstep::ctl
