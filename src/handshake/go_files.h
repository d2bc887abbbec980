// The driver's side of the go files: their paths, the records it writes, and
// the writer that puts them in place.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "handshake/pacer.h"
#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::handshake {

struct GoFilePaths {
  std::string go;   // the request, written by the driver
  std::string go2;  // done or not, written by the project after each reset
};

// Paths of the main project and sub projects 1 to num_subprojects, in index
// order.
std::vector<GoFilePaths> go_file_paths(int num_subprojects);

// The three records, each with its line feed.
std::string reset_record();
std::string stage_record(std::int32_t cycle, std::int32_t time_step, std::int32_t stage);
std::string cycle_end_record(std::int32_t cycle);

// Writes go files in place. A request must never be dropped, so a failing
// open or write is retried until it succeeds: at once at first, then with a
// pause that grows to kLongestPause. A failure that lasts kReportAfter is
// reported on `warnings` once, and so is its end.
class GoFileWriter {
 public:
  static constexpr int kImmediateAttempts = 100;
  static constexpr std::chrono::milliseconds kLongestPause{100};
  static constexpr std::chrono::seconds kReportAfter{1};

  GoFileWriter(records::FileSystem& fs, Pacer& pacer, std::ostream& warnings, std::vector<GoFilePaths> paths)
      : fs_(fs), pacer_(pacer), warnings_(warnings), paths_(std::move(paths)) {}

  // The reset record into every go.dat and go2.dat, main project first.
  records::Status reset_all();
  // The stage record, or in the closing time step the cycle-end record, into
  // every go.dat, main project first.
  records::Status send_request(std::int32_t cycle, std::int32_t time_step, std::int32_t stage, bool closing);

  // Replaces the whole content of `path` with `line`. Only a failing close
  // comes back as a status: it is not retried.
  records::Status write(const std::string& path, std::string_view line);

 private:
  records::FileSystem& fs_;
  Pacer& pacer_;
  std::ostream& warnings_;
  std::vector<GoFilePaths> paths_;
};

}  // namespace lockstep::handshake
