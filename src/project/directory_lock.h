// An exclusive lock on a project directory, so that one process serves it.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace lockstep::project {

// The lock file, left in place: removing it would let a second process lock
// a fresh file while the first still holds the old one.
inline constexpr const char* kLockFileName = ".lockstep.lock";

// An open file description lock (fcntl), which the NFS client passes on to
// the server's lock manager and the kernel drops when the holder dies, so a
// crash leaves no stale lock behind.
// Whether a process serves a project directory now, as its lock shows.
struct LockProbe {
  enum class Outcome {
    kNeverLocked,  // no lock file: no process of the project library took it
    kFree,         // a process took it once and holds it no longer
    kHeld,
    kUnknown,      // the lock cannot be asked
  };
  Outcome outcome = Outcome::kUnknown;
  std::string holder;  // what the last holder wrote: "PID 123 on host n1", or empty
  std::chrono::system_clock::time_point taken{};  // when the last holder took it
};

class DirectoryLock {
 public:
  // Asks, without taking it, whether the lock in `directory` is held. On a
  // file system that keeps locks on each machine apart from the others
  // (sshfs, other FUSE mounts), a holder elsewhere cannot be seen: ask only
  // where locks are shared, a local file system or NFS.
  static LockProbe probe(const std::string& directory);
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
