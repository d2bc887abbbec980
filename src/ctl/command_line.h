// What every lockstepctl subcommand shares on its command line: one CLI11
// parser each, the same --help, --version and usage errors, and a COMMAND
// after "--" for those that run one.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace lockstep::ctl {

inline constexpr int kUsageStatus = 2;

// Gives a subcommand's parser, named "lockstepctl NAME", what all share:
// --version and the help's layout.
void set_up(CLI::App& app);

// The words after the subcommand.
std::vector<std::string> words(int argc, char** argv);

// The optional RUN_DIR of check and status, lockstep's working directory.
void add_run_directory(CLI::App& app, std::string& run_directory);

struct CommandLine {
  std::vector<std::string> options;  // the words before "--"
  std::vector<std::string> command;  // the words after it
  bool has_command_separator = false;
};
CommandLine split_command(int argc, char** argv);

// Parses `words`; the exit status when the command ends here (0 after
// --help or --version, kUsageStatus on a usage error, with the complaint on
// `err`), or nothing to go on.
std::optional<int> parse(CLI::App& app, const std::vector<std::string>& words, std::ostream& out, std::ostream& err);

}  // namespace lockstep::ctl
