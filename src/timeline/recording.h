// A recording of a run: what each project's go files showed, and when, as
// JSON lines. The first line describes the run; each further line is one
// event, written and flushed as it happens, so that a recording cut short
// by a crash is still read up to its last whole line.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace lockstep::timeline {

struct Event {
  enum class Kind {
    kRequest,  // the driver wrote a request into go.dat
    kReset,    // the driver wrote the reset record into go.dat or go2.dat
    kDone,     // the project reported done in go2.dat
    kExit,     // the driver ended
    kStderr,   // a line the driver wrote on standard error
  };
  Event() = default;
  explicit Event(Kind what) : kind(what) {}

  Kind kind = Kind::kRequest;
  double time = 0;  // seconds since the recording began
  int project = -1;  // index; -1 for the driver's own events
  std::int32_t cycle = 0, time_step = 0, stage = 0;  // kRequest
  std::string file;  // kReset: "go.dat" or "go2.dat"
  // kDone: seen only as a reset following it, the done itself having come
  // and gone between two looks; its time is the reset's.
  bool inferred = false;
  int exit_status = -1;  // kExit: the exit status, or -1 when killed
  int signal = 0;        // kExit: the signal that killed it
  std::string text;      // kStderr
};

struct Header {
  std::string run_directory;
  std::vector<std::string> projects;  // names by index: "main", "sub1", ...
  std::optional<std::int32_t> time_step, cycle_num;
  std::string started;  // UTC, ISO 8601
};

std::string header_line(const Header& header);
std::string event_line(const Event& event);

struct Recording {
  Header header;
  std::vector<Event> events;
  std::size_t bad_lines = 0;  // neither an event nor the header (a line cut short)
};

// Reads a recording; false, with the reason in `error`, when the first line
// is no header.
bool read_recording(std::istream& in, Recording& recording, std::string& error);

}  // namespace lockstep::timeline
