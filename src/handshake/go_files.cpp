#include "handshake/go_files.h"

#include <algorithm>
#include <cstdio>

#include "config/project_tree.h"
#include "records/output.h"

namespace lockstep::handshake {

std::vector<GoFilePaths> go_file_paths(int num_subprojects) {
  std::vector<GoFilePaths> paths;
  for (int index = 0; index <= std::max(num_subprojects, 0); ++index) {
    const std::string directory = config::project_directory(index);
    paths.push_back({directory + "go.dat", directory + "go2.dat"});
  }
  return paths;
}

std::string reset_record() { return records::FreeFormRecord().text("-1000 0 0 0").line(); }

std::string stage_record(std::int32_t cycle, std::int32_t time_step, std::int32_t stage) {
  return records::FreeFormRecord().text("1 ").integer(cycle).integer(time_step).integer(stage).line();
}

std::string cycle_end_record(std::int32_t cycle) {
  return records::FreeFormRecord().text("1 ").integer(cycle).text(" -1  5").line();
}

records::Status GoFileWriter::reset_all() {
  const std::string record = reset_record();
  for (const GoFilePaths& project : paths_) {
    if (records::Status status = write(project.go, record); !status.ok()) return status;
    if (records::Status status = write(project.go2, record); !status.ok()) return status;
  }
  return {};
}

records::Status GoFileWriter::send_request(std::int32_t cycle, std::int32_t time_step, std::int32_t stage,
                                           bool closing) {
  const std::string record = closing ? cycle_end_record(cycle) : stage_record(cycle, time_step, stage);
  for (const GoFilePaths& project : paths_) {
    if (records::Status status = write(project.go, record); !status.ok()) return status;
  }
  return {};
}

records::Status GoFileWriter::write(const std::string& path, std::string_view line) {
  int failures = 0;
  Pacer::Clock::time_point failing_since;
  std::chrono::milliseconds pause{1};
  bool reported = false;
  for (;;) {
    records::OutputFile file(fs_);
    records::Status status = file.open_for_replacement(records::unit::kProjectFile, path);
    if (status.ok()) status = file.write(line);
    if (status.ok()) {
      if (reported) {
        const auto lasted = std::chrono::duration<double>(pacer_.now() - failing_since).count();
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%.1f", lasted);
        warnings_ << "lockstep: wrote " << path << " again after " << seconds << " s of failures\n"
                  << std::flush;
      }
      return file.close().within("go-file write");
    }
    // The failed attempt's descriptor is closed as `file` goes; the next
    // attempt truncates whatever part of the record reached the file.
    if (failures++ == 0) failing_since = pacer_.now();
    if (!reported && pacer_.now() - failing_since >= kReportAfter) {
      warnings_ << "lockstep: cannot write " << path << ": " << records::os_error_text(status.os_error())
                << "; retrying until it can be written\n"
                << std::flush;
      reported = true;
    }
    if (failures > kImmediateAttempts) {
      pacer_.pause(pause);
      pause = std::min(pause * 2, kLongestPause);
    }
  }
}

}  // namespace lockstep::handshake
