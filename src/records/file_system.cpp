#include "records/file_system.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace lockstep::records {

int PosixFileSystem::open(const std::string& path, OpenMode mode) {
  int flags = O_CLOEXEC;
  switch (mode) {
    case OpenMode::kReadOnly: flags |= O_RDONLY; break;
    case OpenMode::kReadWriteCreate: flags |= O_RDWR | O_CREAT; break;
    case OpenMode::kReplace: flags |= O_WRONLY | O_CREAT | O_TRUNC; break;
    case OpenMode::kCreateNew: flags |= O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW; break;
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

namespace {

// ".NAME.RANDOM.tmp" beside `path`; false when no random bytes could be had.
bool random_sibling(const std::string& path, std::string& temporary) {
  std::uint64_t bits = 0;
  if (::getrandom(&bits, sizeof bits, 0) != static_cast<ssize_t>(sizeof bits)) return false;
  const std::size_t slash = path.rfind('/') + 1;
  char digits[17];
  for (int i = 15; i >= 0; --i, bits >>= 4) digits[i] = "0123456789abcdef"[bits & 15];
  digits[16] = '\0';
  temporary = path.substr(0, slash) + "." + path.substr(slash) + "." + digits + ".tmp";
  return true;
}

// Tries `make` under fresh names while a name is taken: a name can only be
// taken by chance or by someone who guessed it, so a few tries suffice.
template <typename Make>
int with_fresh_name(const std::string& path, std::string& temporary, Make make) {
  int result = -EEXIST;
  for (int attempt = 0; attempt < 8 && result == -EEXIST; ++attempt) {
    if (!random_sibling(path, temporary)) return -errno;
    result = make(temporary);
  }
  return result;
}

}  // namespace

std::string network_file_system_kind(unsigned long type) {
  switch (type) {
    case 0x6969: return "nfs";
    case 0x0bd00bd0: return "lustre";
    case 0x47504653: return "gpfs";
    case 0x19830326: return "beegfs";
    case 0xff534d42: return "cifs";
    case 0xfe534d42: return "smb2";
    case 0x00c36400: return "ceph";
    case 0x65735546: return "fuse";
    default: return {};
  }
}

bool read_past_cache(int fd) {
  struct statfs info {};
  if (::fstatfs(fd, &info) != 0 || network_file_system_kind(static_cast<unsigned long>(info.f_type)).empty()) {
    return false;
  }
  // A hint: where it fails nothing better can be done than to read.
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  return true;
}

std::string mount_of(const std::string& path) {
  char resolved[PATH_MAX];
  // The file or, when it is missing, its directory.
  std::string target = path;
  while (::realpath(target.c_str(), resolved) == nullptr) {
    const std::size_t slash = target.rfind('/');
    if (slash == std::string::npos || slash == 0) return "an unknown mount";
    target.resize(slash);
  }
  std::ifstream mounts("/proc/self/mountinfo");
  return mount_in(resolved, mounts);
}

std::string mount_in(const std::string& full, std::istream& mountinfo) {
  std::string line, best_point, best_type;
  // ID PARENT MAJOR:MINOR ROOT POINT OPTIONS [OPTIONAL...] - TYPE SOURCE ...
  while (std::getline(mountinfo, line)) {
    std::istringstream words(line);
    std::string id, parent, device, root, point, word;
    words >> id >> parent >> device >> root >> point;
    while (words >> word && word != "-") {}
    std::string type;
    words >> type;
    const bool holds = full == point || point == "/" || full.rfind(point + "/", 0) == 0;
    if (holds && point.size() >= best_point.size()) {
      best_point = point;
      best_type = type;
    }
  }
  return best_point.empty() ? "an unknown mount" : best_type + " at " + best_point;
}

int create_temporary(FileSystem& fs, const std::string& path, std::string& temporary) {
  return with_fresh_name(path, temporary, [&fs](const std::string& name) { return fs.open(name, OpenMode::kCreateNew); });
}

int create_temporary_directory(const std::string& path, std::string& temporary) {
  return with_fresh_name(path, temporary,
                         [](const std::string& name) { return ::mkdir(name.c_str(), 0777) == 0 ? 0 : -errno; });
}

bool is_temporary_name(const std::string& name) {
  return name.size() > 22 && name.front() == '.' && name.ends_with(".tmp") &&
         name.find_first_not_of("0123456789abcdef", name.size() - 20) == name.size() - 4 &&
         name[name.size() - 21] == '.';
}

}  // namespace lockstep::records
