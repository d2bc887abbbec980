// The file operations the record layer needs, behind an interface so that
// readers and writers can be tested against an in-memory file system and so
// that the order of file operations can be recorded.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <istream>
#include <string>

namespace lockstep::records {

enum class OpenMode {
  kReadOnly,         // the file must exist
  kReadWriteCreate,  // created empty (0666 less umask) when missing
  kReplace,          // write-only, created when missing, truncated in place
  kCreateNew,        // write-only, created; fails when anything, a link too, has the name
};

// Standard output's descriptor, valid for every implementation.
inline constexpr int kStandardOutputFd = 1;

// Every call returns a non-negative result or the negated system error
// number (-ENOENT, ...).
class FileSystem {
 public:
  virtual ~FileSystem() = default;
  virtual int open(const std::string& path, OpenMode mode) = 0;
  virtual ssize_t read(int fd, char* buffer, std::size_t size) = 0;
  virtual ssize_t write(int fd, const char* data, std::size_t size) = 0;
  virtual int close(int fd) = 0;
  // The working directory, or an empty string when it cannot be named.
  virtual std::string current_directory() = 0;
};

// The process's own file system, through POSIX calls.
class PosixFileSystem final : public FileSystem {
 public:
  int open(const std::string& path, OpenMode mode) override;
  ssize_t read(int fd, char* buffer, std::size_t size) override;
  ssize_t write(int fd, const char* data, std::size_t size) override;
  int close(int fd) override;
  std::string current_directory() override;
};

// Owns one open descriptor and closes it, ignoring the result, unless it has
// been closed explicitly first.
class Descriptor {
 public:
  Descriptor() = default;
  Descriptor(FileSystem& fs, int fd) : fs_(&fs), fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : fs_(other.fs_), fd_(other.fd_) { other.fd_ = -1; }
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { reset(); }

  bool valid() const { return fd_ >= 0; }
  int get() const { return fd_; }
  // Closes and reports the result: 0 or a negated system error number.
  int close();
  void reset();

 private:
  FileSystem* fs_ = nullptr;
  int fd_ = -1;
};

// "name" when it begins with a slash, else the working directory, a slash and
// the name, relative parts kept as written.
std::string full_path_name(FileSystem& fs, const std::string& name);

// The name of a network file system by its statfs type ("nfs", "fuse", ...):
// one where other machines' writes may be seen late, and inotify misses
// them. Empty for any other.
std::string network_file_system_kind(unsigned long type);

// Where the open file `fd` is on a network file system, drops the pages of
// it this machine has cached, so that the next read asks the server: a
// caching client (sshfs with auto_cache, NFS with nocto) may otherwise show
// the old content of a file replaced elsewhere with the same size and time.
// True when it is on one.
bool read_past_cache(int fd);

// "fuse.sshfs at /mnt/view": the type and mount point of the mount that
// holds `path`, from /proc/self/mountinfo; "an unknown mount" when unknown.
std::string mount_of(const std::string& path);
// The same for a resolved path, from a mount table in mountinfo's format:
// the longest mount point that is the path or one of its parents.
std::string mount_in(const std::string& resolved_path, std::istream& mountinfo);

// A file written whole beside `path` before it is renamed over it: created
// new (kCreateNew) under ".NAME.RANDOM.tmp" in the same directory, RANDOM
// being 16 hex digits from the kernel's random source, so that no other
// process can plant a link under the name beforehand. The descriptor, or
// the negated system error number; `temporary` holds the name.
int create_temporary(FileSystem& fs, const std::string& path, std::string& temporary);
// The same for a directory: created by mkdir, which never follows a link.
// 0 or the negated system error number.
int create_temporary_directory(const std::string& path, std::string& temporary);
// True for a name that create_temporary* gave (the final part of a path).
bool is_temporary_name(const std::string& name);

}  // namespace lockstep::records
