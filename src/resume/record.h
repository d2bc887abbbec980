// A resumed run's record. lockstep always counts its cycles from 1; a run
// resumed after cycle C of its own is, for the driver, a new run of the
// cycles that remain, and the project side adds C to every cycle number the
// driver writes. The record says so: `lockstepctl resume` writes it into the
// run directory and into every project directory, where the project library
// finds it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace lockstep::resume {

inline constexpr const char* kRecordFile = "lockstep-resume.dat";
// The run's settings as first written, kept by the first resume.
inline constexpr const char* kSettingsBackupFile = "analysis_settings.dat.before-resume";

struct Record {
  std::int32_t after_cycle = 0;  // the driver's cycle c is the run's c + after_cycle
  // The run's own settings, as the user wrote them before the first resume.
  std::int32_t time_step = 0;
  std::int32_t cycle_num = 0;
  std::int32_t num_subprojects = 0;
  // The cycles left to the driver: cycle_num - after_cycle.
  std::int32_t remaining() const { return cycle_num - after_cycle; }
  bool operator==(const Record&) const = default;
};

std::string format_record(const Record& record);
// False, with the reason in `error`, for anything format_record does not
// write.
bool parse_record(std::string_view text, Record& record, std::string& error);

enum class ReadOutcome { kRead, kMissing, kError };
// The record in `directory`, if any.
ReadOutcome read_record(const std::string& directory, Record& record, std::string& error);
// Written whole or not at all: a temporary file renamed over the record.
bool write_record(const std::string& directory, const Record& record, std::string& error);

// Replaces the file at `path` by `content` the same way: a temporary file
// beside it, renamed over it.
bool replace_file(const std::string& path, const std::string& content, std::string& error);

// The driver's cycle numbers in the run's own, and back.
struct Offset {
  std::int32_t after_cycle = 0;
  std::int32_t run_cycle(std::int32_t driver_cycle) const { return driver_cycle + after_cycle; }
};

}  // namespace lockstep::resume
