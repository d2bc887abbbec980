// Outcome of a record operation: success, end of file, or a numbered record
// error carrying the unit, the file's full path name and a trail of context.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lockstep::records {

// Record error numbers. They are printed in diagnostics and become the exit
// status of a fatal record error.
namespace error {
inline constexpr int kPermissionDenied = 9;
inline constexpr int kEndOfFile = 24;
inline constexpr int kFileNotFound = 29;
inline constexpr int kOpenFailure = 30;
inline constexpr int kWriteError = 38;
inline constexpr int kReadError = 39;
inline constexpr int kNoSuchDevice = 42;
inline constexpr int kFileNameError = 43;
inline constexpr int kSyntaxError = 59;
inline constexpr int kConversionError = 64;
}  // namespace error

// Units named in diagnostics.
namespace unit {
inline constexpr int kSettings = 23;
inline constexpr int kProjectFile = 10;
inline constexpr int kStandardOutput = 6;
}  // namespace unit

// The message format of an error number, "%d" standing for the unit and "%s"
// for the path name.
std::string_view message_format(int number);

// The record error number of a failed open, from the system's reason.
int open_error_number(int os_error);

// Text of a system error number; the only place errno values become words.
std::string os_error_text(int os_error);

class Status {
 public:
  Status() = default;

  static Status failure(int number, int unit, std::string path_name, int os_error = 0);

  bool ok() const { return number_ == 0; }
  bool end_of_file() const { return number_ == error::kEndOfFile; }
  // 0 on success, -1 at end of file, otherwise the error number.
  int code() const { return end_of_file() ? -1 : number_; }
  int number() const { return number_; }
  int unit() const { return unit_; }
  const std::string& path_name() const { return path_name_; }
  int os_error() const { return os_error_; }

  // Context lines, innermost first, each naming an operation of the driver
  // and what it was working on.
  const std::vector<std::string>& trail() const { return trail_; }
  Status& within(std::string context) &;
  Status&& within(std::string context) &&;

  // "recio: severe (N): MESSAGE, unit U, file PATH"
  std::string headline() const;

 private:
  int number_ = 0;
  int unit_ = 0;
  int os_error_ = 0;
  std::string path_name_;
  std::vector<std::string> trail_;
};

}  // namespace lockstep::records
