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

// A name a writer uses while a file is not yet whole: ".NAME.PID.tmp".
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

}  // namespace

bool copy_file(const std::string& from, const std::string& to, std::string& error) {
  records::PosixFileSystem posix;
  records::Descriptor in(posix, ::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in.valid()) {
    error = "cannot read " + from + ": " + records::os_error_text(errno);
    return false;
  }
  records::Descriptor out(posix, posix.open(to, records::OpenMode::kReplace));
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
  const std::string building = checkpoints + "/." + std::to_string(cycle) + "." + std::to_string(::getpid()) + ".tmp";
  // What a killed checkpoint of this PID left goes first.
  remove_tree(building);
  if (!make_directory(checkpoints, error) || !make_directory(building, error) ||
      !make_directory(building + "/fields", error)) {
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
  std::vector<std::int32_t> cycles;
  std::error_code error;
  const fs::path checkpoints = fs::path(directory) / kCheckpointDirectory;
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
