#include "ctl/report.h"

#include <cerrno>
#include <fstream>
#include <string>

#include "ctl/command_line.h"
#include "records/status.h"
#include "timeline/report.h"
#include "timeline/timeline.h"

namespace lockstep::ctl {
namespace {

constexpr const char* kFooter =
    "The text summary gives the run time and stages; per project the requests served,\n"
    "the median, 95th percentile and longest time from request to done, and the share\n"
    "of stages in which its done came last (it held the run); the driver's own share,\n"
    "from the last done of a stage to the next request (the readiness pause and the\n"
    "launches); the slowest stages; the trend from the first tenth of the run to the\n"
    "last; and the failed launches a recording with --capture-stderr holds.\n"
    "\n"
    "Exit status: 0, 1 when FILE cannot be read or OUT written, 2 on a usage error.";

bool write_file(const std::string& path, const std::string& content, std::ostream& err) {
  std::ofstream file(path, std::ios::trunc);
  if (file << content && file.flush()) return true;
  err << "lockstepctl report: cannot write " << path << ": " << records::os_error_text(errno) << "\n";
  return false;
}

}  // namespace

int report_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  std::string recording_path, svg_path, chrome_path;
  bool as_json = false;
  CLI::App app("Summarises a recording made by 'lockstepctl record'.", "lockstepctl report");
  set_up(app);
  app.footer(kFooter);
  app.add_option("FILE", recording_path, "the recording")->required()->type_name("");
  app.add_flag("--json", as_json, "print the summary, with every stage, as JSON");
  app.add_option("--svg", svg_path, "also draw the run's timeline into this SVG file")->type_name("OUT");
  app.add_option("--chrome", chrome_path, "also write the trace event format (Perfetto, chrome://tracing)")
      ->type_name("OUT");
  if (const auto status = parse(app, words(argc, argv), out, err)) return *status;

  std::ifstream in(recording_path);
  if (!in) {
    err << "lockstepctl report: cannot read " << recording_path << ": " << records::os_error_text(errno) << "\n";
    return 1;
  }
  timeline::Timeline run;
  std::string error;
  if (!timeline::read_timeline(in, run, error)) {
    err << "lockstepctl report: " << recording_path << ": " << error << "\n";
    return 1;
  }
  if (!svg_path.empty() && !write_file(svg_path, timeline::svg_timeline(run), err)) return 1;
  if (!chrome_path.empty() && !write_file(chrome_path, timeline::chrome_trace(run), err)) return 1;
  out << (as_json ? timeline::json_report(run) : timeline::text_report(run));
  return 0;
}

}  // namespace lockstep::ctl
