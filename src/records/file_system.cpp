#include "records/file_system.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace lockstep::records {

int PosixFileSystem::open(const std::string& path, OpenMode mode) {
  int flags = O_CLOEXEC;
  switch (mode) {
    case OpenMode::kReadOnly: flags |= O_RDONLY; break;
    case OpenMode::kReadWriteCreate: flags |= O_RDWR | O_CREAT; break;
    case OpenMode::kReplace: flags |= O_WRONLY | O_CREAT | O_TRUNC; break;
  }
  for (;;) {
    const int fd = ::open(path.c_str(), flags, 0666);
    if (fd >= 0) return fd;
    if (errno != EINTR) return -errno;
  }
}

ssize_t PosixFileSystem::read(int fd, char* buffer, std::size_t size) {
  for (;;) {
    const ssize_t n = ::read(fd, buffer, size);
    if (n >= 0) return n;
    if (errno != EINTR) return -errno;
  }
}

ssize_t PosixFileSystem::write(int fd, const char* data, std::size_t size) {
  for (;;) {
    const ssize_t n = ::write(fd, data, size);
    if (n >= 0) return n;
    if (errno != EINTR) return -errno;
  }
}

int PosixFileSystem::close(int fd) {
  // On Linux the descriptor is released even when close reports EINTR, so it
  // is never closed twice.
  return ::close(fd) == 0 ? 0 : -errno;
}

std::string PosixFileSystem::current_directory() {
  char buffer[PATH_MAX];
  return ::getcwd(buffer, sizeof buffer) != nullptr ? std::string(buffer) : std::string();
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    reset();
    fs_ = other.fs_;
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

int Descriptor::close() {
  if (fd_ < 0) return 0;
  const int result = fs_->close(fd_);
  fd_ = -1;
  return result;
}

void Descriptor::reset() { static_cast<void>(close()); }

std::string full_path_name(FileSystem& fs, const std::string& name) {
  if (!name.empty() && name.front() == '/') return name;
  return fs.current_directory() + "/" + name;
}

}  // namespace lockstep::records
