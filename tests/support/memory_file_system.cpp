#include "memory_file_system.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace lockstep::testing {

int MemoryFileSystem::call(const std::string& operation, const std::string& path, const std::string& mode) {
  if (logging) log_.push_back(operation + " " + path + mode);
  const auto failure = failures_.find({operation, path});
  if (failure == failures_.end() || failure->second.first == 0) return 0;
  --failure->second.first;
  return failure->second.second;
}

int MemoryFileSystem::open(const std::string& path, records::OpenMode mode) {
  const char* mode_names[] = {" read", " readwrite", " replace", " new"};
  if (const int os_error = call("open", path, mode_names[static_cast<int>(mode)])) return -os_error;
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && directories_.count(path.substr(0, slash)) == 0) return -ENOENT;
  if (directories_.count(path) != 0) return -EISDIR;
  const bool exists = files_.count(path) != 0;
  if (!exists && mode == records::OpenMode::kReadOnly) return -ENOENT;
  if (exists && mode == records::OpenMode::kCreateNew) return -EEXIST;
  if (!exists || mode == records::OpenMode::kReplace) files_[path].clear();
  open_files_[next_fd_] = {path, 0};
  return next_fd_++;
}

ssize_t MemoryFileSystem::read(int fd, char* buffer, std::size_t size) {
  const auto found = open_files_.find(fd);
  if (found == open_files_.end()) return -EBADF;
  auto& [path, position] = found->second;
  if (before_read) before_read(path);
  const std::string& content = files_[path];
  const std::size_t n = std::min({content.size() > position ? content.size() - position : 0, size,
                                   read_chunk > 0 ? read_chunk : size});
  std::memcpy(buffer, content.data() + position, n);
  position += n;
  return static_cast<ssize_t>(n);
}

ssize_t MemoryFileSystem::write(int fd, const char* data, std::size_t size) {
  if (fd == records::kStandardOutputFd) {
    standard_output_.append(data, size);
    return static_cast<ssize_t>(size);
  }
  const auto found = open_files_.find(fd);
  if (found == open_files_.end()) return -EBADF;
  auto& [path, position] = found->second;
  if (const int os_error = call("write", path)) return -os_error;
  std::string& content = files_[path];
  content.resize(std::max(content.size(), position + size));
  content.replace(position, size, data, size);
  position += size;
  return static_cast<ssize_t>(size);
}

int MemoryFileSystem::close(int fd) {
  const auto found = open_files_.find(fd);
  if (found == open_files_.end()) return -EBADF;
  const std::string path = found->second.first;
  open_files_.erase(found);
  return -call("close", path);
}

}  // namespace lockstep::testing
