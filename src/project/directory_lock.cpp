#include "project/directory_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "records/status.h"

namespace lockstep::project {
namespace {

// "PID 123 on host node7", from what the holder wrote into the lock file.
std::string holder(int fd) {
  std::array<char, 256> text{};
  const ssize_t got = ::pread(fd, text.data(), text.size() - 1, 0);
  std::string content(text.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
  const std::size_t blank = content.find(' ');
  if (content.empty() || content.back() != '\n' || blank == std::string::npos) return "another process";
  content.pop_back();
  return "PID " + content.substr(0, blank) + " on host " + content.substr(blank + 1);
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
      error = directory + " is already served by " + holder(fd) + " (it holds " + path +
              "); stop that one first";
    } else {
      error = "cannot lock " + path + ": " + records::os_error_text(errno) +
              (errno == ENOLCK ? " (on NFS the mount needs lock support: no \"nolock\" or \"local_lock\" option)"
                               : "");
    }
    return nullptr;
  }
  std::array<char, 256> host{};
  if (::gethostname(host.data(), host.size() - 1) != 0) host = {'?'};
  const std::string content = std::to_string(::getpid()) + " " + host.data() + "\n";
  if (::ftruncate(fd, 0) != 0 ||
      ::pwrite(fd, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
    error = "cannot write the lock file " + path + ": " + records::os_error_text(errno);
    return nullptr;
  }
  return lock;
}

DirectoryLock::~DirectoryLock() { ::close(fd_); }

}  // namespace lockstep::project
