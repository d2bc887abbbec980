#include "ctl/command_line.h"

namespace lockstep::ctl {

void set_up(CLI::App& app) {
  app.set_version_flag("--version", "lockstepctl " LOCKSTEP_VERSION);
  app.get_formatter()->column_width(24);
}

void add_run_directory(CLI::App& app, std::string& run_directory) {
  app.add_option("RUN_DIR", run_directory, "lockstep's working directory (default: the current one)")->type_name("");
}

std::vector<std::string> words(int argc, char** argv) { return std::vector<std::string>(argv, argv + argc); }

CommandLine split_command(int argc, char** argv) {
  CommandLine line;
  int i = 0;
  for (; i < argc; ++i) {
    if (std::string(argv[i]) == "--") {
      line.has_command_separator = true;
      ++i;
      break;
    }
    line.options.emplace_back(argv[i]);
  }
  for (; i < argc; ++i) line.command.emplace_back(argv[i]);
  return line;
}

std::optional<int> parse(CLI::App& app, const std::vector<std::string>& words, std::ostream& out, std::ostream& err) {
  // CLI11 takes the words last first.
  std::vector<std::string> reversed(words.rbegin(), words.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    out << app.help();
    return 0;
  } catch (const CLI::CallForVersion& version) {
    out << version.what() << "\n";
    return 0;
  } catch (const CLI::ParseError& error) {
    err << app.get_name() << ": " << error.what() << "\n"
        << "Try '" << app.get_name() << " --help'.\n";
    return kUsageStatus;
  }
  return std::nullopt;
}

}  // namespace lockstep::ctl
