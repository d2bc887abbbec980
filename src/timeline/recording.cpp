#include "timeline/recording.h"

#include <cmath>

#include <nlohmann/json.hpp>

namespace lockstep::timeline {
namespace {

using nlohmann::ordered_json;

constexpr const char* kFormat = "lockstep-recording-1";

const char* kind_name(Event::Kind kind) {
  switch (kind) {
    case Event::Kind::kRequest: return "request";
    case Event::Kind::kReset: return "reset";
    case Event::Kind::kDone: return "done";
    case Event::Kind::kExit: return "exit";
    case Event::Kind::kStderr: return "stderr";
  }
  return "";
}

// A member's value when it has the expected type, else the fallback: a
// recording edited by hand or cut short is read, never thrown at.
int integer(const ordered_json& line, const char* key, int fallback) {
  const auto found = line.find(key);
  return found != line.end() && found->is_number_integer() ? found->get<int>() : fallback;
}

std::string text_of(const ordered_json& line, const char* key) {
  const auto found = line.find(key);
  return found != line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

// One line, without its end; false at the end of the input. A line longer
// than kLineLimit is read through and comes back empty.
bool read_line(std::istream& in, std::string& line) {
  line.clear();
  std::streambuf* buffer = in.rdbuf();
  bool any = false;
  bool too_long = false;
  for (int c = buffer->sbumpc(); c != std::char_traits<char>::eof(); c = buffer->sbumpc()) {
    any = true;
    if (c == '\n') break;
    if (line.size() < kLineLimit) {
      line += static_cast<char>(c);
    } else {
      too_long = true;
    }
  }
  if (too_long) line.clear();
  return any;
}

std::string dump(const ordered_json& line) {
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string header_line(const Header& header) {
  ordered_json line = {{"format", kFormat},
                       {"run_directory", header.run_directory},
                       {"projects", header.projects},
                       {"started", header.started}};
  if (header.time_step) line["time_step"] = *header.time_step;
  if (header.cycle_num) line["cycle_num"] = *header.cycle_num;
  return dump(line);
}

std::string event_line(const Event& event) {
  ordered_json line = {{"t", std::round(event.time * 1e6) / 1e6}, {"event", kind_name(event.kind)}};
  if (event.project >= 0) line["project"] = event.project;
  switch (event.kind) {
    case Event::Kind::kRequest:
      line["cycle"] = event.cycle;
      line["time_step"] = event.time_step;
      line["stage"] = event.stage;
      break;
    case Event::Kind::kReset: line["file"] = event.file; break;
    case Event::Kind::kDone:
      if (event.inferred) line["inferred"] = true;
      break;
    case Event::Kind::kExit:
      if (event.signal != 0) {
        line["signal"] = event.signal;
      } else {
        line["status"] = event.exit_status;
      }
      break;
    case Event::Kind::kStderr: line["text"] = event.text; break;
  }
  return dump(line);
}

bool read_recording(std::istream& in, Header& header, const std::function<void(const Event&)>& on_event,
                    std::size_t& bad_lines, std::string& error) {
  std::string text;
  if (!read_line(in, text)) {
    error = "the recording is empty";
    return false;
  }
  const ordered_json first = ordered_json::parse(text, nullptr, false);
  if (first.is_discarded() || !first.is_object() || text_of(first, "format") != kFormat) {
    error = "the first line is not the header of a lockstep recording";
    return false;
  }
  header.run_directory = text_of(first, "run_directory");
  header.started = text_of(first, "started");
  if (first.contains("projects") && first["projects"].is_array()) {
    for (const auto& name : first["projects"]) header.projects.push_back(name.is_string() ? name.get<std::string>() : "");
  }
  if (first.contains("time_step") && first["time_step"].is_number_integer()) header.time_step = first["time_step"];
  if (first.contains("cycle_num") && first["cycle_num"].is_number_integer()) header.cycle_num = first["cycle_num"];

  while (read_line(in, text)) {
    const ordered_json line = ordered_json::parse(text, nullptr, false);
    if (line.is_discarded() || !line.is_object() || !line.contains("t") || !line["t"].is_number() ||
        !line.contains("event") || !line["event"].is_string()) {
      ++bad_lines;
      continue;
    }
    Event event;
    event.time = line["t"].get<double>();
    event.project = integer(line, "project", -1);
    const std::string kind = text_of(line, "event");
    if (kind == "request") {
      event.kind = Event::Kind::kRequest;
      event.cycle = integer(line, "cycle", 0);
      event.time_step = integer(line, "time_step", 0);
      event.stage = integer(line, "stage", 0);
    } else if (kind == "reset") {
      event.kind = Event::Kind::kReset;
      event.file = text_of(line, "file");
    } else if (kind == "done") {
      event.kind = Event::Kind::kDone;
      event.inferred = line.contains("inferred") && line["inferred"] == true;
    } else if (kind == "exit") {
      event.kind = Event::Kind::kExit;
      event.exit_status = integer(line, "status", -1);
      event.signal = integer(line, "signal", 0);
    } else if (kind == "stderr") {
      event.kind = Event::Kind::kStderr;
      event.text = text_of(line, "text");
    } else {
      ++bad_lines;
      continue;
    }
    const bool needs_project = event.kind != Event::Kind::kExit && event.kind != Event::Kind::kStderr;
    if (needs_project && (event.project < 0 || static_cast<std::size_t>(event.project) >= header.projects.size())) {
      ++bad_lines;
      continue;
    }
    on_event(event);
  }
  return true;
}

}  // namespace lockstep::timeline
