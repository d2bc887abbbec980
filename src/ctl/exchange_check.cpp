#include "ctl/exchange_check.h"

#include <set>

#include "exchange/table.h"
#include "fields/store.h"

namespace lockstep::ctl {

void check_exchange(TreeState& tree) {
  namespace fs = std::filesystem;
  const fs::path table_path = tree.run_directory / exchange::kTableFile;
  std::error_code error;
  if (!fs::exists(fs::symlink_status(table_path, error))) return;
  exchange::Table table;
  std::string reason;
  if (!exchange::read_table(table_path.string(), table, reason)) {
    tree.run_problems.push_back(reason);
    return;
  }
  for (const std::string& line : table.errors) tree.run_problems.push_back(line);
  const int last = last_project(tree);
  std::set<int> receivers;
  for (const exchange::Copy& copy : table.copies) {
    const std::string where = std::string(exchange::kTableFile) + ":" + std::to_string(copy.line) + ": ";
    bool inside = true;
    for (const int project : {copy.from, copy.to}) {
      if (project > last) {
        tree.run_problems.push_back(where + fields::project_name(project) + " is not in this run (" +
                                    std::to_string(last) + " sub projects); fix the line or num_subprojects=");
        inside = false;
      }
    }
    if (!inside) continue;
    receivers.insert(copy.to);
    ProjectState& source = tree.projects.at(static_cast<std::size_t>(copy.from));
    const fs::path output = tree.run_directory / fields::field_path(source.directory, fields::Role::kOutput, copy.output);
    if (!fs::exists(output, error)) {
      source.warnings.push_back(where + "its output \"" + copy.output + "\" has not been published (" +
                                source.directory + "fields/out/" + copy.output +
                                ".npy): its solver must put it before the first stage");
    }
  }
  // A project that receives inputs through a link to lockstep-exchange: the
  // link must lead to it.
  for (const int index : receivers) {
    ProjectState& project = tree.projects.at(static_cast<std::size_t>(index));
    if (project.program.empty()) continue;
    const fs::path program = tree.run_directory / project.directory / project.program;
    if (!fs::is_symlink(program, error)) continue;
    const fs::path target = fs::read_symlink(program, error);
    if (target.filename() == "lockstep-exchange" && !fs::exists(program, error)) {
      project.problems.push_back(project.program + " links to " + target.string() +
                                 ", which does not exist: link it to the installed lockstep-exchange");
    }
  }
}

}  // namespace lockstep::ctl
