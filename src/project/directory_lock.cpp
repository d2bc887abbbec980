#include "project/directory_lock.h"

#include <fcntl.h>
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

// Who holds the lock, from what the holder wrote into the lock file, and the
// way out: "PID 123 on host node7 (...); stop that one first".
std::string holder(int fd, const std::string& path) {
  std::array<char, 256> text{};
  const ssize_t got = ::pread(fd, text.data(), text.size() - 1, 0);
  std::string content(text.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
  const std::size_t blank = content.find(' ');
  const std::string holds = " (it holds " + path + ")";
  if (content.empty() || content.back() != '\n' || blank == std::string::npos) {
    return "another process" + holds + "; stop that one first";
  }
  content.pop_back();
  const std::string pid = content.substr(0, blank), host = content.substr(blank + 1);
  if (pid == std::to_string(::getpid()) && host == host_name()) {
    return "this process (PID " + pid + ")" + holds + ": open each project directory once per process";
  }
  return "PID " + pid + " on host " + host + holds + "; stop that one first";
}

}  // namespace

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
