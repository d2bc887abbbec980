#include "ctl/run_arguments.h"

#include <algorithm>

namespace lockstep::ctl {

bool parse_run_arguments(int argc, char** argv, std::string_view subcommand,
                         std::initializer_list<std::string_view> known_flags, RunArguments& arguments,
                         std::ostream& err) {
  bool have_directory = false;
  for (int i = 0; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help" || word == "-h") {
      arguments.help = true;
    } else if (std::find(known_flags.begin(), known_flags.end(), word) != known_flags.end()) {
      arguments.flags.insert(word);
    } else if (!word.empty() && word.front() != '-' && !have_directory) {
      arguments.run_directory = word;
      have_directory = true;
    } else {
      err << "lockstepctl " << subcommand << ": unexpected argument \"" << word << "\"\n"
          << "Try 'lockstepctl " << subcommand << " --help'.\n";
      return false;
    }
  }
  return true;
}

}  // namespace lockstep::ctl
