#include "project/directory_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "records/status.h"

namespace lockstep::project {
namespace {

std::string host_name() {
  std::array<char, 256> host{};
  if (::gethostname(host.data(), host.size() - 1) != 0) return "?";
  return host.data();
}

// "PID 123 on host n1" from the lock file's "123 n1\n"; empty when it
// holds no such line.
std::string recorded_holder(int fd) {
  std::array<char, 256> text{};
  const ssize_t got = ::pread(fd, text.data(), text.size() - 1, 0);
  std::string content(text.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
  const std::size_t blank = content.find(' ');
  if (content.empty() || content.back() != '\n' || blank == std::string::npos) return {};
  content.pop_back();
  return "PID " + content.substr(0, blank) + " on host " + content.substr(blank + 1);
}

// Who holds the lock, from what the holder wrote into the lock file, and the
// way out: "PID 123 on host node7 (...); stop that one first".
std::string holder(int fd, const std::string& path) {
  const std::string holds = " (it holds " + path + ")";
  const std::string recorded = recorded_holder(fd);
  if (recorded.empty()) return "another process" + holds + "; stop that one first";
  if (recorded == "PID " + std::to_string(::getpid()) + " on host " + host_name()) {
    return "this process (" + recorded.substr(0, recorded.find(" on host ")) + ")" + holds +
           ": open each project directory once per process";
  }
  return recorded + holds + "; stop that one first";
}

}  // namespace

LockProbe DirectoryLock::probe(const std::string& directory) {
  LockProbe probe;
  const std::string path = directory + "/" + kLockFileName;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) probe.outcome = LockProbe::Outcome::kNeverLocked;
    return probe;
  }
  struct stat info {};
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && ::fcntl(fd, F_OFD_GETLK, &whole) == 0) {
    probe.outcome = whole.l_type == F_UNLCK ? LockProbe::Outcome::kFree : LockProbe::Outcome::kHeld;
    probe.holder = recorded_holder(fd);
    probe.taken = std::chrono::system_clock::time_point(std::chrono::seconds(info.st_mtim.tv_sec) +
                                                        std::chrono::nanoseconds(info.st_mtim.tv_nsec));
  }
  ::close(fd);
  return probe;
}

std::unique_ptr<DirectoryLock> DirectoryLock::acquire(const std::string& directory, std::string& error) {
  const std::string path = directory + "/" + kLockFileName;
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    error = "cannot open the lock file " + path + ": " + records::os_error_text(errno);
    return nullptr;
  }
  std::unique_ptr<DirectoryLock> lock(new DirectoryLock(fd));
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (::fcntl(fd, F_OFD_SETLK, &whole) != 0) {
    if (errno == EAGAIN || errno == EACCES) {
      error = directory + " is already served by " + holder(fd, path);
    } else {
      error = "cannot lock " + path + ": " + records::os_error_text(errno) +
              (errno == ENOLCK ? " (on NFS the mount needs lock support: no \"nolock\" or \"local_lock\" option)"
                               : "");
    }
    return nullptr;
  }
  const std::string content = std::to_string(::getpid()) + " " + host_name() + "\n";
  if (::ftruncate(fd, 0) != 0 ||
      ::pwrite(fd, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
    error = "cannot write the lock file " + path + ": " + records::os_error_text(errno);
    return nullptr;
  }
  return lock;
}

DirectoryLock::~DirectoryLock() { ::close(fd_); }

}  // namespace lockstep::project
