// The words that check and status take: one RUN_DIR at most, and flags.
#pragma once

#include <initializer_list>
#include <ostream>
#include <set>
#include <string>
#include <string_view>

namespace lockstep::ctl {

struct RunArguments {
  std::string run_directory = ".";
  std::set<std::string, std::less<>> flags;  // those given, "--json", ...
  bool help = false;

  bool has(std::string_view flag) const { return flags.contains(flag); }
};

// Parses argv (the words after the subcommand) into `arguments`; false,
// with the complaint on `err`, for a word that is neither a known flag nor
// the first RUN_DIR.
bool parse_run_arguments(int argc, char** argv, std::string_view subcommand,
                         std::initializer_list<std::string_view> known_flags, RunArguments& arguments,
                         std::ostream& err);

}  // namespace lockstep::ctl
