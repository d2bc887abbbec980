// What a timeline says, for a terminal, as data, and as pictures.
#pragma once

#include <string>

#include "timeline/timeline.h"

namespace lockstep::timeline {

// The summary for a terminal: run time, stages, per project the requests
// served, request-to-done times and share of stages held, the driver's own
// share, the slowest stages, trends and failed launches.
std::string text_report(const Timeline& timeline);
// The same as JSON.
std::string json_report(const Timeline& timeline);
// A lane per project and one for the driver, time across.
std::string svg_timeline(const Timeline& timeline);
// The trace event format that Perfetto and the browsers' trace viewers open.
std::string chrome_trace(const Timeline& timeline);

}  // namespace lockstep::timeline
