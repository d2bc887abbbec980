// Temporary run trees and child processes for whole-program tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace lockstep::testing {

// A fresh directory under the system's temporary directory, removed with
// everything in it at the end of the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::string read_file(const std::filesystem::path& path);
void write_file(const std::filesystem::path& path, const std::string& content);
void make_executable(const std::filesystem::path& path);
// The file's inode number; 0 when there is no such file.
ino_t inode(const std::filesystem::path& path);
// Puts `content` at `path`: "<missing>" removes what is there, "<fifo>"
// makes a FIFO, "<directory>" a directory, "-> TARGET" a symbolic link,
// "<read-only>" leaves a file readable only by its owner and a directory
// readable and searchable only; anything else is written as the file's
// bytes.
void plant(const std::filesystem::path& path, const std::string& content);
// Writes `request` into the project directory's go.dat as the driver does:
// go.dat reset first, then go2.dat, then the request.
void hand_out(const std::filesystem::path& project, const std::string& request);

struct Exit {
  int status = -1;  // exit status, or -1 when killed by a signal
  std::string out;
  std::string err;
  long max_rss_kib = 0;     // the program's peak resident memory
  double cpu_seconds = 0;   // user and system time of the program and its children
};

// How long a test waits for something that shows no progress. Waits end on
// lack of progress, never on total time, so that a busy machine slows a
// test down without failing it.
inline constexpr std::chrono::seconds kStall{60};

// Runs `argv` in `directory` to its end, with its standard output and error
// captured; killed once neither, nor any of the files `growing` (what the
// program writes elsewhere as it goes), has grown for `stall`.
Exit run_program(const std::vector<std::string>& argv, const std::filesystem::path& directory,
                 std::chrono::seconds stall = kStall, const std::vector<std::filesystem::path>& growing = {});

// Waits until `condition` holds; false when `progress` (by default
// nothing) has not changed for `stall` meanwhile.
bool wait_until(const std::function<bool()>& condition, const std::function<std::string()>& progress = {},
                std::chrono::seconds stall = kStall);

// A program running in the background, its standard output discarded and
// its standard error the test's or the file `err`; killed when the object
// goes.
class Background {
 public:
  Background(const std::vector<std::string>& argv, const std::filesystem::path& directory,
             const std::filesystem::path& err = {});
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;
  // Waits for the program to end by itself and returns its exit status, -1
  // when killed by a signal; nothing when it still runs after `timeout`.
  std::optional<int> wait(std::chrono::seconds timeout);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

}  // namespace lockstep::testing
