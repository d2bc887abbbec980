// A recording of a run: what each project's go files showed, and when, as
// JSON lines. The first line describes the run; each further line is one
// event, written and flushed as it happens, so that a recording cut short
// by a crash is still read up to its last whole line.
#pragma once

#include <cstdint>
#include <functional>
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
  int exit_status = -1;  // kExit: the exit status; -1 when killed, or when seen from outside
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

// The longest line read; a longer one is skipped as unreadable, so that any
// file is read in bounded memory.
inline constexpr std::size_t kLineLimit = 1 << 20;

// Reads a recording: the header, then each event handed to `on_event` as it
// is read. Lines that are no event (a line cut short by a crash, one
// edited by hand) are counted in `bad_lines` and skipped. False, with the
// reason in `error`, when the first line is no header.
bool read_recording(std::istream& in, Header& header, const std::function<void(const Event&)>& on_event,
                    std::size_t& bad_lines, std::string& error);

}  // namespace lockstep::timeline
