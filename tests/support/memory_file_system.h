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
  std::optional<std::string> file(const std::string& path) const {
    const auto found = files_.find(path);
    return found != files_.end() ? std::optional(found->second) : std::nullopt;
  }

  // The next `count` calls of `operation` ("open", "write" or "close") on
  // `path` fail with `os_error`.
  void fail(const std::string& operation, const std::string& path, int count, int os_error) {
    failures_[{operation, path}] = {count, os_error};
  }

  // Called before every read of a file, with its path.
  std::function<void(const std::string&)> before_read;
  // The most a read returns; 0 for as much as is asked for.
  std::size_t read_chunk = 0;

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
  // Logs the call and returns its injected error, or 0.
  int call(const std::string& operation, const std::string& path, const std::string& mode = "");

  std::map<std::string, std::string> files_;
  std::set<std::string> directories_;
  std::map<std::pair<std::string, std::string>, std::pair<int, int>> failures_;  // count, os_error
  std::map<int, std::pair<std::string, std::size_t>> open_files_;                // path, position
  int next_fd_ = 10;
  std::vector<std::string> log_;
  std::string standard_output_;
};

}  // namespace lockstep::testing
