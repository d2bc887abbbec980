// lockstepctl: companion tools for lockstep run trees.
#include <cstring>
#include <iostream>
#include <string>

#include "ctl/agent.h"
#include "ctl/check.h"
#include "ctl/field.h"
#include "ctl/record.h"
#include "ctl/report.h"
#include "ctl/resume.h"
#include "ctl/status.h"

namespace {

constexpr const char* kHelp =
    "usage: lockstepctl SUBCOMMAND [OPTIONS]\n"
    "\n"
    "Subcommands:\n"
    "  agent   serve a project directory by running a command once per request\n"
    "  check   check a run tree before a run\n"
    "  field   show a field file (its stamp, type, shape and values) or a mapping's weights; export\n"
    "          fields with their mesh as VTK files for ParaView\n"
    "  record  record every request and done report of a run, with its time\n"
    "  report  summarise a recording: where the run's time went, as text, SVG or a trace\n"
    "  resume  prepare a stopped run to go on after the newest cycle every project recorded\n"
    "  status  show what a running lockstep is waiting for\n"
    "\n"
    "'lockstepctl SUBCOMMAND --help' describes each; 'lockstepctl --version' prints the version.\n";

}  // namespace

int main(int argc, char** argv) {
  const std::string subcommand = argc > 1 ? argv[1] : "";
  if (subcommand == "agent") return lockstep::ctl::agent_main(argc - 2, argv + 2, std::cout, std::cerr);
  if (subcommand == "check") return lockstep::ctl::check_main(argc - 2, argv + 2, std::cout, std::cerr);
  if (subcommand == "field") return lockstep::ctl::field_main(argc - 2, argv + 2, std::cout, std::cerr);
  if (subcommand == "record") return lockstep::ctl::record_main(argc - 2, argv + 2, std::cout, std::cerr);
  if (subcommand == "report") return lockstep::ctl::report_main(argc - 2, argv + 2, std::cout, std::cerr);
  if (subcommand == "resume") return lockstep::ctl::resume_main(argc - 2, argv + 2, std::cout, std::cerr);
  if (subcommand == "status") return lockstep::ctl::status_main(argc - 2, argv + 2, std::cout, std::cerr);
  if (subcommand == "--version") {
    std::cout << "lockstepctl " LOCKSTEP_VERSION "\n";
    return 0;
  }
  if (subcommand == "--help" || subcommand == "-h" || subcommand == "help") {
    std::cout << kHelp;
    return 0;
  }
  std::cerr << (subcommand.empty() ? "lockstepctl: no subcommand given\n"
                                   : "lockstepctl: unknown subcommand \"" + subcommand + "\"\n")
            << kHelp;
  return 2;
}
