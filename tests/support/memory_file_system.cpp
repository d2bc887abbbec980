#include "memory_file_system.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace lockstep::testing {
namespace {

const char* mode_name(records::OpenMode mode) {
  switch (mode) {
    case records::OpenMode::kReadOnly: return "read";
    case records::OpenMode::kReadWriteCreate: return "readwrite";
    case records::OpenMode::kReplace: return "replace";
  }
  return "?";
}

std::string parent_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

std::optional<std::string> MemoryFileSystem::file(const std::string& path) const {
  const auto found = files_.find(path);
  if (found == files_.end()) return std::nullopt;
  return found->second;
}

int MemoryFileSystem::take_failure(std::map<std::string, Failure>& failures, const std::string& path) {
  const auto found = failures.find(path);
  if (found == failures.end() || found->second.count == 0) return 0;
  --found->second.count;
  return found->second.os_error;
}

int MemoryFileSystem::open(const std::string& path, records::OpenMode mode) {
  if (logging) log_.push_back("open " + path + " " + mode_name(mode));
  if (const int os_error = take_failure(open_failures_, path)) return -os_error;
  const std::string parent = parent_of(path);
  if (!parent.empty() && directories_.count(parent) == 0) return -ENOENT;
  if (directories_.count(path) != 0) return -EISDIR;
  const bool exists = files_.count(path) != 0;
  if (!exists && mode == records::OpenMode::kReadOnly) return -ENOENT;
  if (!exists || mode == records::OpenMode::kReplace) files_[path].clear();
  open_files_[next_fd_] = {path, 0};
  return next_fd_++;
}

ssize_t MemoryFileSystem::read(int fd, char* buffer, std::size_t size) {
  const auto found = open_files_.find(fd);
  if (found == open_files_.end()) return -EBADF;
  OpenFile& open_file = found->second;
  if (before_read) before_read(open_file.path);
  const std::string& content = files_[open_file.path];
  std::size_t n = content.size() > open_file.position ? content.size() - open_file.position : 0;
  n = std::min(n, size);
  std::memcpy(buffer, content.data() + open_file.position, n);
  open_file.position += n;
  return static_cast<ssize_t>(n);
}

ssize_t MemoryFileSystem::write(int fd, const char* data, std::size_t size) {
  if (fd == records::kStandardOutputFd) {
    standard_output_.append(data, size);
    return static_cast<ssize_t>(size);
  }
  const auto found = open_files_.find(fd);
  if (found == open_files_.end()) return -EBADF;
  OpenFile& open_file = found->second;
  if (logging) log_.push_back("write " + open_file.path);
  if (const int os_error = take_failure(write_failures_, open_file.path)) return -os_error;
  std::string& content = files_[open_file.path];
  content.resize(std::max(content.size(), open_file.position + size));
  content.replace(open_file.position, size, data, size);
  open_file.position += size;
  return static_cast<ssize_t>(size);
}

int MemoryFileSystem::close(int fd) {
  const auto found = open_files_.find(fd);
  if (found == open_files_.end()) return -EBADF;
  const std::string path = found->second.path;
  open_files_.erase(found);
  if (logging) log_.push_back("close " + path);
  if (const int os_error = take_failure(close_failures_, path)) return -os_error;
  return 0;
}

}  // namespace lockstep::testing
