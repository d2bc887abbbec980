#include "resume/checkpoint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::resume {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRoles[] = {"fields/in", "fields/out"};
constexpr const char* kAbandonedPrefix = "abandoned-";

// A name a writer uses while a file is not yet whole: ".NAME.RANDOM.tmp".
bool temporary_name(const std::string& name) { return !name.empty() && name.front() == '.'; }

// The regular files of `directory` (none when it is missing), by name.
std::vector<std::string> files_in(const fs::path& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->is_regular_file(error)) names.push_back(entry->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> directories_in(const fs::path& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->is_directory(error)) names.push_back(entry->path().filename().string());
  }
  return names;
}

bool make_directory(const std::string& path, std::string& error) {
  if (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) return true;
  error = "cannot create " + path + ": " + records::os_error_text(errno);
  return false;
}

// `to` as a second name of `from`, or a copy of it.
bool link_or_copy(const std::string& from, const std::string& to, std::string& error) {
  if (::link(from.c_str(), to.c_str()) == 0) return true;
  return copy_file(from, to, error);
}

// A directory being built, or the older record it replaced; a failure
// shows at the next step that needs the name.
void remove_tree(const std::string& path) {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

std::vector<std::int32_t> cycles_in(const fs::path& checkpoints) {
  std::vector<std::int32_t> cycles;
  std::error_code error;
  for (fs::directory_iterator entry(checkpoints, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    std::int32_t cycle = 0;
    const auto [stop, failure] = std::from_chars(name.data(), name.data() + name.size(), cycle);
    if (failure == std::errc() && stop == name.data() + name.size() && cycle > 0 && entry->is_directory(error)) {
      cycles.push_back(cycle);
    }
  }
  std::sort(cycles.begin(), cycles.end());
  return cycles;
}

}  // namespace

bool copy_file(const std::string& from, const std::string& to, std::string& error) {
  records::PosixFileSystem posix;
  records::Descriptor in(posix, ::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in.valid()) {
    error = "cannot read " + from + ": " + records::os_error_text(errno);
    return false;
  }
  records::Descriptor out(posix, posix.open(to, records::OpenMode::kCreateNew));
  if (!out.valid()) {
    error = "cannot write " + to + ": " + records::os_error_text(-out.get());
    return false;
  }
  std::vector<char> buffer(1 << 20);
  for (;;) {
    const ssize_t got = posix.read(in.get(), buffer.data(), buffer.size());
    if (got < 0) {
      error = "cannot read " + from + ": " + records::os_error_text(static_cast<int>(-got));
      return false;
    }
    if (got == 0) break;
    for (ssize_t done = 0; done < got;) {
      const ssize_t written = posix.write(out.get(), buffer.data() + done, static_cast<std::size_t>(got - done));
      if (written < 0) {
        error = "cannot write " + to + ": " + records::os_error_text(static_cast<int>(-written));
        return false;
      }
      done += written;
    }
  }
  if (const int closed = out.close(); closed != 0) {
    error = "cannot write " + to + ": " + records::os_error_text(-closed);
    return false;
  }
  return true;
}

bool record_checkpoint(const std::string& directory, std::int32_t cycle, std::string& error) {
  const std::string checkpoints = directory + "/" + kCheckpointDirectory;
  const std::string final_path = checkpoints + "/" + std::to_string(cycle);
  if (!make_directory(checkpoints, error)) return false;
  // What killed checkpoints left goes first: one process serves a project.
  for (const std::string& name : directories_in(checkpoints)) {
    if (records::is_temporary_name(name)) remove_tree(checkpoints + "/" + name);
  }
  std::string building;
  if (const int failed = records::create_temporary_directory(final_path, building); failed != 0) {
    error = "cannot create a directory beside " + final_path + ": " + records::os_error_text(-failed);
    return false;
  }
  if (!make_directory(building + "/fields", error)) {
    remove_tree(building);
    return false;
  }
  bool copied = true;
  for (const char* role : kRoles) {
    copied = copied && make_directory(building + "/" + role, error);
    for (const std::string& name : files_in(directory + "/" + role)) {
      if (!copied || temporary_name(name)) continue;
      copied = link_or_copy(directory + "/" + role + "/" + name, building + "/" + role + "/" + name, error);
    }
  }
  // An older record of this cycle is exchanged for the new one in one step.
  const bool exchanged = copied && ::renameat2(AT_FDCWD, building.c_str(), AT_FDCWD, final_path.c_str(),
                                               RENAME_EXCHANGE) == 0;
  if (copied && !exchanged && ::rename(building.c_str(), final_path.c_str()) != 0) {
    error = "cannot rename " + building + " to " + final_path + ": " + records::os_error_text(errno);
    copied = false;
  }
  if (!copied || exchanged) remove_tree(building);
  return copied;
}

std::vector<std::int32_t> recorded_cycles(const std::string& directory) {
  return cycles_in(fs::path(directory) / kCheckpointDirectory);
}

std::vector<Change> set_aside_checkpoints(const std::string& directory, const std::string& name, std::int32_t cycle) {
  std::vector<Change> changes;
  const std::vector<std::int32_t> cycles = recorded_cycles(directory);
  const auto after = std::upper_bound(cycles.begin(), cycles.end(), cycle);
  if (after == cycles.end()) return changes;
  const fs::path checkpoints = fs::path(directory) / kCheckpointDirectory;
  int free = 1;
  std::error_code error;
  while (fs::exists(fs::symlink_status(checkpoints / (kAbandonedPrefix + std::to_string(free)), error))) ++free;
  const std::string folder = kAbandonedPrefix + std::to_string(free);
  for (auto later = after; later != cycles.end(); ++later) {
    const std::string number = std::to_string(*later);
    const fs::path from = checkpoints / number;
    const fs::path to = checkpoints / folder / number;
    changes.push_back({name + ": " + kCheckpointDirectory + "/" + number + " set aside as " + kCheckpointDirectory +
                           "/" + folder + "/" + number + " (recorded before this resume, after cycle " +
                           std::to_string(cycle) + ": no resume uses it)",
                       [from, to](std::string& why) {
                         if (!make_directory(to.parent_path().string(), why)) return false;
                         if (::rename(from.c_str(), to.c_str()) == 0) return true;
                         why = "cannot move " + from.string() + " to " + to.string() + ": " +
                               records::os_error_text(errno);
                         return false;
                       }});
  }
  return changes;
}

std::vector<std::int32_t> set_aside_cycles(const std::string& directory) {
  std::vector<std::int32_t> cycles;
  const fs::path checkpoints = fs::path(directory) / kCheckpointDirectory;
  for (const std::string& name : directories_in(checkpoints)) {
    if (name.rfind(kAbandonedPrefix, 0) != 0) continue;
    for (const std::int32_t cycle : cycles_in(checkpoints / name)) cycles.push_back(cycle);
  }
  std::sort(cycles.begin(), cycles.end());
  return cycles;
}

std::vector<Change> restore_fields(const std::string& directory, const std::string& name, std::int32_t cycle) {
  std::vector<Change> changes;
  const std::string saved = std::string(kCheckpointDirectory) + "/" + std::to_string(cycle);
  for (const char* role : kRoles) {
    const std::string live = directory + "/" + role;
    const std::vector<std::string> kept = files_in(directory + "/" + saved + "/" + role);
    for (const std::string& file : files_in(live)) {
      if (!temporary_name(file) && std::binary_search(kept.begin(), kept.end(), file)) continue;
      const std::string path = live + "/" + file;
      changes.push_back({name + ": " + role + "/" + file + " removed (" +
                             (temporary_name(file) ? "left by a writer that was stopped" : "written after cycle " +
                                                                                               std::to_string(cycle)) +
                             ")",
                         [path](std::string& error) {
                           if (::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
                           error = "cannot remove " + path + ": " + records::os_error_text(errno);
                           return false;
                         }});
    }
    for (const std::string& file : kept) {
      const std::string from = directory + "/" + saved + "/" + role + "/" + file;
      const std::string to = live + "/" + file;
      changes.push_back({name + ": " + role + "/" + file + " restored from " + saved,
                         [directory, live, from, to](std::string& error) {
                           const std::string temporary = live + "/." + to.substr(live.size() + 1) + ".resume.tmp";
                           ::unlink(temporary.c_str());
                           if (!make_directory(directory + "/fields", error) || !make_directory(live, error) ||
                               !link_or_copy(from, temporary, error)) {
                             return false;
                           }
                           if (::rename(temporary.c_str(), to.c_str()) == 0) return true;
                           error = "cannot rename " + temporary + " to " + to + ": " + records::os_error_text(errno);
                           ::unlink(temporary.c_str());
                           return false;
                         }});
    }
  }
  return changes;
}

}  // namespace lockstep::resume
