// An in-memory file system for tests: files, directories, injected failures
// and a log of every open, write and close in the order they happened.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "records/file_system.h"

namespace lockstep::testing {

class MemoryFileSystem final : public records::FileSystem {
 public:
  static constexpr const char* kWorkingDirectory = "/run";

  void add_directory(const std::string& path) { directories_.insert(path); }
  void set_file(const std::string& path, std::string content) { files_[path] = std::move(content); }
  std::optional<std::string> file(const std::string& path) const;

  // The next `count` calls on `path` fail with `os_error`.
  void fail_opens(const std::string& path, int count, int os_error) { open_failures_[path] = {count, os_error}; }
  void fail_writes(const std::string& path, int count, int os_error) { write_failures_[path] = {count, os_error}; }
  void fail_closes(const std::string& path, int count, int os_error) { close_failures_[path] = {count, os_error}; }

  // Called before every read of a file, with its path.
  std::function<void(const std::string&)> before_read;

  // "open PATH MODE", "write PATH", "close PATH", in order, while `logging`.
  bool logging = true;
  const std::vector<std::string>& log() const { return log_; }
  const std::string& standard_output() const { return standard_output_; }

  int open(const std::string& path, records::OpenMode mode) override;
  ssize_t read(int fd, char* buffer, std::size_t size) override;
  ssize_t write(int fd, const char* data, std::size_t size) override;
  int close(int fd) override;
  std::string current_directory() override { return kWorkingDirectory; }

 private:
  struct Failure {
    int count = 0;
    int os_error = 0;
  };
  struct OpenFile {
    std::string path;
    std::size_t position = 0;
  };
  // The injected error for the next call on `path`, or 0.
  static int take_failure(std::map<std::string, Failure>& failures, const std::string& path);

  std::map<std::string, std::string> files_;
  std::set<std::string> directories_;
  std::map<std::string, Failure> open_failures_;
  std::map<std::string, Failure> write_failures_;
  std::map<std::string, Failure> close_failures_;
  std::map<int, OpenFile> open_files_;
  int next_fd_ = 10;
  std::vector<std::string> log_;
  std::string standard_output_;
};

}  // namespace lockstep::testing
