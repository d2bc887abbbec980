#include "ctl/exchange_check.h"

#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include "exchange/table.h"
#include "config/project_tree.h"
#include "fields/store.h"
#include "mapping/method.h"
#include "mapping/store.h"

namespace lockstep::ctl {
namespace {

// A mapping line whose meshes are published: what it maps and how far the
// target points lie from the source mesh, or what is wrong with them.
void check_mapping(TreeState& tree, const exchange::Copy& copy, const std::string& where) {
  mapping::Method method;
  std::map<std::string, std::string> names;
  mapping::parse_method(copy.mapping, method, names);
  const auto name = [&](const char* key) { return names.count(key) > 0 ? &names.at(key) : nullptr; };
  // The files as they are, stamps aside: a mesh not published yet leaves
  // the reason empty.
  const mapping::FieldReader read = [&tree](int project, const std::string& field, fields::Header& header,
                                            const fields::Destination& into, std::string& reason) {
    const std::string directory = (tree.run_directory / config::project_directory(project)).string();
    return fields::read_field(fields::field_path(directory, fields::Role::kOutput, field), header, into, reason) ==
           fields::ReadOutcome::kRead;
  };
  mapping::Points from, to;
  std::optional<mapping::Cells> from_cells, to_cells;
  std::string error;
  if (!mapping::read_mesh(read, copy.from, names.at("from-mesh"), name("from-cells"), from, from_cells, error) ||
      !mapping::read_mesh(read, copy.to, names.at("to-mesh"), name("to-cells"), to, to_cells, error)) {
    if (!error.empty()) {
      tree.run_problems.push_back(where + error);
      return;
    }
    // Each mesh or cells field not published yet, with its project.
    for (const auto& [project, key] : {std::pair{copy.from, "from-mesh"}, std::pair{copy.from, "from-cells"},
                                       std::pair{copy.to, "to-mesh"}, std::pair{copy.to, "to-cells"}}) {
      if (name(key) == nullptr) continue;
      ProjectState& owner = tree.projects.at(static_cast<std::size_t>(project));
      const std::string path = owner.directory + "fields/out/" + *name(key) + ".npy";
      std::error_code missing;
      if (std::filesystem::exists(tree.run_directory / path, missing)) continue;
      owner.warnings.push_back(where + "its " + key + " \"" + *name(key) + "\" has not been published (" + path +
                               "): its solver must put it before the first stage");
    }
    return;
  }
  const mapping::Mapping wanted{method, &from, from_cells ? &*from_cells : nullptr, &to,
                                to_cells ? &*to_cells : nullptr, {}};
  if (error = mapping::validate(tree.run_directory.string(), wanted); !error.empty()) {
    tree.run_problems.push_back(where + error);
    return;
  }
  // The values, where published, must lie on the source mesh.
  fields::Header header;
  const std::string values_path = fields::field_path(
      (tree.run_directory / config::project_directory(copy.from)).string(), fields::Role::kOutput, copy.output);
  std::size_t components = 0;
  if (fields::read_header(values_path, header, error) == fields::ReadOutcome::kRead &&
      !(error = mapping::components_of(header, from.count, components)).empty()) {
    tree.run_problems.push_back(where + "output \"" + copy.output + "\" of " + fields::project_name(copy.from) +
                                " on mesh \"" + names.at("from-mesh") + "\": " + error);
    return;
  }
  const mapping::Reach reach = mapping::reach(from, from_cells ? &*from_cells : nullptr, to);
  char distance[32];
  std::snprintf(distance, sizeof distance, "%.6g", reach.largest_distance);
  tree.mappings.push_back(where + copy.mapping.at("map") + (method.conservative ? " (conservative)" : "") + ", " +
                          fields::project_name(copy.from) + " " + names.at("from-mesh") + " (" +
                          std::to_string(from.count) + " points) to " + fields::project_name(copy.to) + " " +
                          names.at("to-mesh") + " (" + std::to_string(to.count) + " points): largest distance to a "
                          "source point " + distance + ", " + std::to_string(reach.outside) +
                          " target points outside the source mesh");
}

}  // namespace

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
    if (!copy.mapping.empty()) check_mapping(tree, copy, where);
    const fs::path output = tree.run_directory / fields::field_path(source.directory, fields::Role::kOutput, copy.output);
    if (!fs::exists(output, error)) {
      source.warnings.push_back(where + "its output \"" + copy.output + "\" has not been published (" +
                                source.directory + "fields/out/" + copy.output +
                                ".npy): its solver must put it before the first stage; " +
                                fields::published_outputs((tree.run_directory / source.directory).string(), copy.from));
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
