#include "ctl/field.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ctl/command_line.h"
#include "ctl/field_export.h"
#include "ctl/text.h"
#include "fields/store.h"
#include "mapping/store.h"

namespace lockstep::ctl {
namespace {

constexpr const char* kFooter =
    "PATH is a field file, such as ../sub1/fields/in/left.npy. The values are shown\n"
    "in the file's order, at most --limit of them (all with --limit 0).\n"
    "\n"
    "Exit status: 0, 1 when PATH is no field file, 2 on a usage error.";

// One value as text: integers exactly, floats so that they read back the same.
std::string value_text(const std::vector<char>& values, fields::Type type, std::size_t at) {
  char text[40];
  switch (type) {
    case fields::Type::kFloat64: {
      double value = 0;
      std::memcpy(&value, values.data() + at * 8, 8);
      std::snprintf(text, sizeof text, "%.17g", value);
      break;
    }
    case fields::Type::kInt32: {
      std::int32_t value = 0;
      std::memcpy(&value, values.data() + at * 4, 4);
      std::snprintf(text, sizeof text, "%" PRId32, value);
      break;
    }
    case fields::Type::kInt64: {
      std::int64_t value = 0;
      std::memcpy(&value, values.data() + at * 8, 8);
      std::snprintf(text, sizeof text, "%" PRId64, value);
      break;
    }
  }
  return text;
}

// JSON has no NaN or infinity: those become null.
nlohmann::json json_value(const std::vector<char>& values, fields::Type type, std::size_t at) {
  if (type == fields::Type::kFloat64) {
    double value = 0;
    std::memcpy(&value, values.data() + at * 8, 8);
    return value;
  }
  if (type == fields::Type::kInt32) {
    std::int32_t value = 0;
    std::memcpy(&value, values.data() + at * 4, 4);
    return value;
  }
  std::int64_t value = 0;
  std::memcpy(&value, values.data() + at * 8, 8);
  return value;
}

}  // namespace

int field_main(int argc, char** argv, std::ostream& out, std::ostream& err) {
  std::string path;
  bool as_json = false;
  std::size_t limit = 100;
  CLI::App app("Shows a field file: who wrote it for which request, its type, shape and values; or a "
               "mapping's weights.",
               "lockstepctl field");
  set_up(app);
  app.require_subcommand(1);
  CLI::App* show = app.add_subcommand("show", "show a field file");
  show->footer(kFooter);
  show->add_option("PATH", path, "the field file")->required()->type_name("");
  show->add_flag("--json", as_json, "print it as JSON");
  show->add_option("--limit", limit, "show at most this many values (default 100; 0: all)")->type_name("N");
  std::string weights_directory, error;
  CLI::App* weights = app.add_subcommand("weights", "describe a mapping's stored weights");
  weights->footer("DIR is one directory of mappings/ in the run directory, where lockstep-exchange keeps\n"
                  "a mapping's weights. Prints what they map, their size and the range of their row\n"
                  "sums (1 for a consistent map).\n\nExit status: 0, 1 when DIR holds no weights, 2 on a usage error.");
  weights->add_option("DIR", weights_directory, "the weights' directory")->required()->type_name("");
  ExportRequest exported;
  CLI::App* export_command = app.add_subcommand("export", "write fields with their mesh as VTK files for ParaView");
  export_command->footer(
      "Writes the FIELD files, values on the mesh's points ((n,) or (n, k)), with the mesh\n"
      "(--mesh, points (n,) or (n, d)) and its cells (--cells, (m, 2), (m, 3) or (m, 4);\n"
      "a vertex per point without them) as VTK XML: into one grid when OUTPUT ends in\n"
      ".vtu, each field an array named after its file; or, when OUTPUT ends in .pvd, a\n"
      "grid per FIELD file beside it and a collection over the cycles their stamps name,\n"
      "which ParaView plays as a time series.\n\n"
      "With --run RUN_DIR instead of --mesh and FIELD: the whole run, into the directory\n"
      "OUTPUT: for each mesh that a mapping line of RUN_DIR/exchange.dat names, with its\n"
      "cells, PROJECT-MESH.pvd over the stages the run kept (each checkpoint, then the\n"
      "fields as they stand), each step a grid of the project's outputs and inputs\n"
      "(\"NAME (input)\") on that mesh.\n\n"
      "Exit status: 0, 1 when a file cannot be read or written, 2 on a usage error.");
  std::string run_directory;
  CLI::Option* run_option =
      export_command->add_option("--run", run_directory, "a run directory: export the whole run")->type_name("RUN_DIR");
  CLI::Option* mesh_option =
      export_command->add_option("--mesh", exported.mesh, "the mesh's points (a field file)")->type_name("FILE");
  export_command->add_option("--cells", exported.cells, "the mesh's cells (a field file)")->type_name("FILE")
      ->excludes(run_option);
  export_command->add_option("--output", exported.output, "NAME.vtu or NAME.pvd; with --run, a directory")
      ->required()->type_name("OUTPUT");
  CLI::Option* field_option =
      export_command->add_option("FIELD", exported.fields, "field files on the mesh")->type_name("");
  run_option->excludes(mesh_option)->excludes(field_option);
  mesh_option->needs(field_option);
  field_option->needs(mesh_option);
  if (const auto status = parse(app, words(argc, argv), out, err)) return *status;
  if (export_command->parsed()) {
    if (run_option->count() == 0 && mesh_option->count() == 0) {
      err << "lockstepctl field export: give --mesh FILE and FIELD files, or --run RUN_DIR\n";
      return 2;
    }
    std::vector<std::string> written;
    if (run_option->count() > 0 ? !export_tree(run_directory, exported.output, written, error)
                                : !export_fields(exported, written, error)) {
      err << "lockstepctl field: " << text::printable(error) << "\n";
      return 1;
    }
    for (const std::string& file : written) out << "wrote " << text::printable(file) << "\n";
    return 0;
  }
  if (weights->parsed()) {
    std::string text;
    const bool described = mapping::describe_stored(weights_directory, text);
    (described ? out : err) << (described ? "" : "lockstepctl field: ") << text << (described ? "" : "\n");
    return described ? 0 : 1;
  }

  fields::Header header;
  std::vector<char> values;
  const fields::ReadOutcome outcome = fields::read_field(path, header, fields::into_buffer(values), error);
  if (outcome != fields::ReadOutcome::kRead) {
    err << "lockstepctl field: "
        << (outcome == fields::ReadOutcome::kMissing ? "cannot read " + path + ": no such file" : error) << "\n";
    return 1;
  }
  const std::size_t count = values.size() / fields::element_size(header.type);
  const std::size_t shown = limit == 0 ? count : std::min(count, limit);
  const auto& request = header.stamp.request;
  if (as_json) {
    nlohmann::json json = {
        {"path", path},
        {"project", header.stamp.project},
        {"role", header.stamp.role == fields::Role::kOutput ? "output" : "input"},
        {"request", {{"cycle", request.cycle}, {"time_step", request.time_step}, {"stage", request.stage}}},
        {"type", fields::type_name(header.type)},
        {"shape", header.shape},
        {"order", header.column_major ? "column-major" : "row-major"},
        {"count", count},
        {"values", nlohmann::json::array()},
    };
    if (!header.parts.empty()) json["parts"] = header.parts;
    for (std::size_t i = 0; i < shown; ++i) json["values"].push_back(json_value(values, header.type, i));
    out << json.dump(2) << "\n";
    return 0;
  }
  out << "field: " << text::printable(path) << "\n"
      << "stamp: " << fields::describe(header.stamp) << "\n"
      << "type:  " << fields::type_name(header.type) << "\n"
      << "shape: " << fields::shape_text(header.shape) << ", " << (header.column_major ? "column-major" : "row-major")
      << "\n"
      << (header.parts.empty() ? ""
                               : "parts: " + fields::parts_text(header.parts) + " (" +
                                     std::to_string(header.parts.size()) + " ranks)\n")
      << "values" << (shown < count ? " (the first " + std::to_string(shown) + " of " + std::to_string(count) + ")" : "")
      << ":\n";
  for (std::size_t i = 0; i < shown; ++i) {
    out << (i % 8 == 0 ? "  " : " ") << value_text(values, header.type, i) << (i % 8 == 7 || i + 1 == shown ? "\n" : "");
  }
  return 0;
}

}  // namespace lockstep::ctl
