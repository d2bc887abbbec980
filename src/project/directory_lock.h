// An exclusive lock on a project directory, so that one process serves it.
#pragma once

#include <memory>
#include <string>

namespace lockstep::project {

// The lock file, left in place: removing it would let a second process lock
// a fresh file while the first still holds the old one.
inline constexpr const char* kLockFileName = ".lockstep.lock";

// An open file description lock (fcntl), which the NFS client passes on to
// the server's lock manager and the kernel drops when the holder dies, so a
// crash leaves no stale lock behind.
class DirectoryLock {
 public:
  // Fails with the reason in `error`, naming the holder's PID and host when
  // another process holds the lock.
  static std::unique_ptr<DirectoryLock> acquire(const std::string& directory, std::string& error);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  explicit DirectoryLock(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace lockstep::project
