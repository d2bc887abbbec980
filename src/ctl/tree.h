// A read-only look at a run tree, for lockstepctl check and status: the same
// readers as the driver's, through a file system that never creates or
// changes a file, never blocks and never reads much.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "project/directory_lock.h"
#include "project/endpoint.h"
#include "records/file_system.h"
#include "fields/interaction.h"
#include "resume/record.h"

namespace lockstep::ctl {

// The most read of any one file: settings files are a few lines long.
inline constexpr std::size_t kInspectionReadLimit = std::size_t{1} << 20;

// Relative paths are taken from the run directory; opens that would create
// or write a file are refused, an open for reading and writing is made
// read-only, files that are not regular are refused without waiting for a
// writer (-EINVAL), and a read past kInspectionReadLimit fails with -EFBIG.
class InspectionFileSystem final : public records::FileSystem {
 public:
  explicit InspectionFileSystem(std::filesystem::path run_directory);
  int open(const std::string& path, records::OpenMode mode) override;
  ssize_t read(int fd, char* buffer, std::size_t size) override;
  ssize_t write(int, const char*, std::size_t) override;
  int close(int fd) override;
  std::string current_directory() override { return run_directory_.string(); }

 private:
  std::filesystem::path run_directory_;
  records::PosixFileSystem posix_;
  std::map<int, std::size_t> read_so_far_;
};

struct ProjectState {
  int index = 0;
  std::string directory;                 // as the driver names it, "../sub1/"
  std::string program;                   // the interaction record without trailing blanks
  std::optional<std::int32_t> done;      // go2.dat's first integer
  std::optional<std::chrono::system_clock::time_point> done_changed;  // go2.dat's modification time
  project::GoRecord request{project::GoRecord::Kind::kIncomplete, {}};  // what go.dat holds
  std::vector<std::string> problems;
  std::vector<std::string> warnings;
  std::string network_file_system;  // "nfs", ... where inotify cannot see other machines' writes
  std::vector<std::string> notes;   // what is neither a problem nor a risk: the live request
  // Whether a process serves the directory now: asked where locks are
  // shared between machines (a local file system, NFS), else unknown.
  project::LockProbe lock;

  // "main", "sub1", ...
  std::string name() const;
  // Its lock was taken by a process that is gone, and none holds it now.
  bool unserved() const { return lock.outcome == project::LockProbe::Outcome::kFree; }
  // "its lock is free; PID 123 on host n1 took it last, 12.0 s ago"
  std::string lock_history() const;
};

struct TreeState {
  std::filesystem::path run_directory;
  std::optional<std::int32_t> time_step, cycle_num, num_subprojects;
  std::vector<std::string> settings_problems;
  std::vector<ProjectState> projects;  // the main project, then the sub projects read
  std::vector<std::string> run_problems;
  std::vector<std::string> mappings;  // what each mapping line of the exchange table maps, and how far
  std::vector<pid_t> drivers;  // lockstep processes working in the run directory
  // Set in a resumed run: the driver's cycle c is the run's c + after_cycle.
  std::optional<resume::Record> resumed;

  std::size_t problem_count() const;
};

// What a project nobody serves means while lockstep waits for it, and how
// to go on; `driver` is the running lockstep's PID.
std::string unserved_advice(const ProjectState& project, pid_t driver);

// Reads the settings and every project's go files. With `before_run`, also
// each project's interaction record, program and write access, and whatever
// would go wrong in a run started now.
TreeState inspect_tree(const std::filesystem::path& run_directory, bool before_run);

// Why the settings backup a resume keeps in `run_directory` cannot be used,
// and what to do; empty when it can, or is not there. `settings` gets its
// values.
std::string settings_backup_problem(const std::filesystem::path& run_directory, fields::RunSettings& settings);

// The projects a run with these settings serves: 0 to this index.
int last_project(const TreeState& tree);

}  // namespace lockstep::ctl
