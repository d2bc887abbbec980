#include "ctl/field_export.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <tuple>

#include "config/project_tree.h"
#include "exchange/table.h"
#include "fields/store.h"
#include "mapping/mesh.h"
#include "resume/checkpoint.h"

namespace lockstep::ctl {
namespace {

namespace fs = std::filesystem;

bool read_whole(const std::string& path, fields::Header& header, std::vector<char>& values, std::string& error) {
  const fields::ReadOutcome outcome = fields::read_field(path, header, fields::into_buffer(values), error);
  if (outcome == fields::ReadOutcome::kMissing) error = "cannot read " + path + ": no such file";
  return outcome == fields::ReadOutcome::kRead;
}

// Text as an XML attribute's value: field and file names may hold any of
// the characters XML reserves, and control characters, which XML forbids.
std::string attribute(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      case '\'': escaped += "&apos;"; break;
      default: escaped += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
    }
  }
  return escaped;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

// A named field's values on the mesh, row by row: count x components.
struct Values {
  std::string name;
  std::size_t components = 1;
  std::vector<double> data;
  int cycle = 0;  // the request its stamp names
};

// The name a collection's steps share: ParaView colours a time series by
// one array name, so T-0001, T-0002, ... are all "T". Their common start,
// without the step's number and the mark before it.
std::string shared_name(const std::vector<Values>& steps) {
  std::string name = steps.front().name;
  for (const Values& step : steps) {
    const auto differ = std::mismatch(name.begin(), name.end(), step.name.begin(), step.name.end());
    name.erase(differ.first, name.end());
  }
  while (!name.empty() && std::isdigit(static_cast<unsigned char>(name.back()))) name.pop_back();
  while (!name.empty() && (name.back() == '-' || name.back() == '_' || name.back() == '.')) name.pop_back();
  return name.empty() ? steps.front().name : name;
}

bool read_values(const std::string& path, std::size_t points, Values& values, std::string& error) {
  fields::Header header;
  std::vector<char> bytes;
  if (!read_whole(path, header, bytes, error)) return false;
  if (error = mapping::components_of(header, points, values.components); !error.empty()) {
    error = path + ": " + error;
    return false;
  }
  values.data.resize(bytes.size() / sizeof(double));
  if (header.column_major && header.shape.size() == 2) {
    fields::reorder(header.shape, sizeof(double), false, bytes.data(), values.data.data());
  } else {
    std::memcpy(values.data.data(), bytes.data(), bytes.size());
  }
  values.name = fs::path(path).stem().string();
  values.cycle = header.stamp.request.cycle;
  return true;
}

// One unstructured grid: the points (padded to 3-D), the cells (a vertex a
// point without them) and each field as point data.
bool write_grid(const std::string& path, const mapping::Points& points, const std::optional<mapping::Cells>& cells,
                const std::vector<const Values*>& values, std::string& error) {
  std::ofstream out(path);
  const std::size_t cell_count = cells ? cells->count : points.count;
  out << "<?xml version=\"1.0\"?>\n"
      << "<VTKFile type=\"UnstructuredGrid\" version=\"1.0\" byte_order=\"LittleEndian\" header_type=\"UInt64\">\n"
      << "<UnstructuredGrid>\n<Piece NumberOfPoints=\"" << points.count << "\" NumberOfCells=\"" << cell_count
      << "\">\n<PointData>\n";
  for (const Values* field : values) {
    out << "<DataArray type=\"Float64\" Name=\"" << attribute(field->name) << "\" NumberOfComponents=\"" << field->components
        << "\" format=\"ascii\">\n";
    for (std::size_t i = 0; i < field->data.size(); ++i) out << number(field->data[i]) << (i % 8 == 7 ? "\n" : " ");
    out << "\n</DataArray>\n";
  }
  out << "</PointData>\n<Points>\n<DataArray type=\"Float64\" NumberOfComponents=\"3\" format=\"ascii\">\n";
  for (std::size_t i = 0; i < points.count; ++i) {
    for (int k = 0; k < 3; ++k) out << (k < points.dimension ? number(points.at(i)[k]) : "0") << (k < 2 ? " " : "\n");
  }
  out << "</DataArray>\n</Points>\n<Cells>\n<DataArray type=\"Int64\" Name=\"connectivity\" format=\"ascii\">\n";
  const std::size_t corners = cells ? static_cast<std::size_t>(cells->corners) : 1;
  for (std::size_t c = 0; c < cell_count; ++c) {
    for (std::size_t j = 0; j < corners; ++j) out << (cells ? cells->at(c)[j] : static_cast<std::int64_t>(c)) << " ";
    out << "\n";
  }
  out << "</DataArray>\n<DataArray type=\"Int64\" Name=\"offsets\" format=\"ascii\">\n";
  for (std::size_t c = 1; c <= cell_count; ++c) out << c * corners << (c % 16 == 0 ? "\n" : " ");
  // VTK's cell types: vertex, line, triangle, tetrahedron.
  const int type = corners == 1 ? 1 : corners == 2 ? 3 : corners == 3 ? 5 : 10;
  out << "\n</DataArray>\n<DataArray type=\"UInt8\" Name=\"types\" format=\"ascii\">\n";
  for (std::size_t c = 1; c <= cell_count; ++c) out << type << (c % 32 == 0 ? "\n" : " ");
  out << "\n</DataArray>\n</Cells>\n</Piece>\n</UnstructuredGrid>\n</VTKFile>\n";
  out.close();
  if (!out) error = "cannot write " + path;
  return static_cast<bool>(out);
}

// One step of a collection: a grid and its fields at one cycle.
struct Step {
  int cycle = 0;
  mapping::Points points;
  std::optional<mapping::Cells> cells;
  std::vector<Values> fields;
};

// The steps as grids beside `output` (its stem, "-1.vtu", "-2.vtu", ...)
// and the collection over them at `output`.
bool write_collection(const std::string& output, const std::vector<Step>& steps, std::vector<std::string>& written,
                      std::string& error) {
  const fs::path path(output);
  std::string collection = "<?xml version=\"1.0\"?>\n<VTKFile type=\"Collection\" version=\"0.1\">\n<Collection>\n";
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const std::string grid = path.stem().string() + "-" + std::to_string(i + 1) + ".vtu";
    const std::string grid_path = (path.parent_path() / grid).string();
    std::vector<const Values*> fields;
    for (const Values& field : steps[i].fields) fields.push_back(&field);
    if (!write_grid(grid_path, steps[i].points, steps[i].cells, fields, error)) return false;
    written.push_back(grid_path);
    collection += "<DataSet timestep=\"" + std::to_string(steps[i].cycle) + "\" part=\"0\" file=\"" +
                  attribute(grid) + "\"/>\n";
  }
  std::ofstream out(output);
  out << collection << "</Collection>\n</VTKFile>\n";
  out.close();
  if (!out) {
    error = "cannot write " + output;
    return false;
  }
  written.push_back(output);
  return true;
}

// The mesh `mesh` (with `cells`, when named) in the fields of `source`, a
// project directory or one of its checkpoints, and every output and input
// there that lies on it: nothing when the mesh is not there; an error only
// when it cannot be read as a mesh. Its cycle: the newest stamp's.
std::optional<Step> tree_step(const fs::path& source, const std::string& mesh, const std::string& cells,
                              std::string& error) {
  const fs::path outputs = source / "fields" / "out";
  std::error_code missing;
  if (!fs::exists(outputs / (mesh + ".npy"), missing)) return std::nullopt;
  Step step;
  fields::Header header;
  std::vector<char> bytes;
  const std::string mesh_path = (outputs / (mesh + ".npy")).string();
  if (!read_whole(mesh_path, header, bytes, error)) return std::nullopt;
  if (error = mapping::points_from_field(header, bytes.data(), step.points); !error.empty()) {
    error = mesh_path + ": " + error;
    return std::nullopt;
  }
  step.cycle = header.stamp.request.cycle;
  if (!cells.empty()) {
    const std::string cells_path = (outputs / (cells + ".npy")).string();
    step.cells.emplace();
    if (!read_whole(cells_path, header, bytes, error) ||
        !(error = mapping::cells_from_field(header, bytes.data(), step.points, *step.cells)).empty()) {
      error = cells_path + ": " + error;
      return std::nullopt;
    }
  }
  for (const std::string role : {"out", "in"}) {
    std::vector<fs::path> files;
    for (fs::directory_iterator entry(source / "fields" / role, missing), end; !missing && entry != end;
         entry.increment(missing)) {
      const std::string name = entry->path().filename().string();
      if (name.front() == '.' || !name.ends_with(".npy")) continue;
      if (role == "out" && (entry->path().stem() == mesh || entry->path().stem() == cells)) continue;
      files.push_back(entry->path());
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
      Values values;
      std::string off_mesh;
      // A field of another mesh, or no values at all: not this grid's.
      if (!read_values(file.string(), step.points.count, values, off_mesh)) continue;
      if (role == "in") values.name += " (input)";
      step.cycle = std::max(step.cycle, values.cycle);
      step.fields.push_back(std::move(values));
    }
  }
  return step;
}

}  // namespace

bool export_fields(const ExportRequest& request, std::vector<std::string>& written, std::string& error) {
  fields::Header header;
  std::vector<char> bytes;
  mapping::Points points;
  if (!read_whole(request.mesh, header, bytes, error)) return false;
  if (error = mapping::points_from_field(header, bytes.data(), points); !error.empty()) {
    error = request.mesh + ": " + error;
    return false;
  }
  std::optional<mapping::Cells> cells;
  if (!request.cells.empty()) {
    if (!read_whole(request.cells, header, bytes, error)) return false;
    cells.emplace();
    if (error = mapping::cells_from_field(header, bytes.data(), points, *cells); !error.empty()) {
      error = request.cells + ": " + error;
      return false;
    }
  }
  std::vector<Values> values(request.fields.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!read_values(request.fields[i], points.count, values[i], error)) return false;
  }
  const fs::path output(request.output);
  if (output.extension() == ".vtu") {
    std::vector<const Values*> all;
    for (const Values& field : values) all.push_back(&field);
    if (!write_grid(request.output, points, cells, all, error)) return false;
    written.push_back(request.output);
    return true;
  }
  if (output.extension() != ".pvd") {
    error = request.output + ": name a .vtu file (one grid) or a .pvd file (a collection, a grid per field file)";
    return false;
  }
  // A time series: one step per cycle, or ParaView shows one of two
  // fields at that time and hides the other.
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (values[j].cycle != values[i].cycle) continue;
      error = request.fields[j] + " and " + request.fields[i] + " are both of cycle " +
              std::to_string(values[i].cycle) + ": a .pvd collection is a time series of one field file per cycle; "
              "give one of them, or write both into one .vtu";
      return false;
    }
  }
  const std::string name = shared_name(values);
  std::vector<Step> steps;
  for (Values& field : values) {
    field.name = name;
    steps.push_back({field.cycle, points, cells, {field}});
  }
  return write_collection(request.output, steps, written, error);
}

bool export_tree(const std::string& run_directory, const std::string& output_directory,
                 std::vector<std::string>& written, std::string& error) {
  const fs::path run(run_directory);
  exchange::Table table;
  if (!exchange::read_table((run / exchange::kTableFile).string(), table, error)) return false;
  // (project, mesh, cells) for every mesh a mapping line names.
  std::set<std::tuple<int, std::string, std::string>> meshes;
  for (const exchange::Copy& copy : table.copies) {
    if (copy.mapping.empty()) continue;
    const auto word = [&copy](const char* key) {
      return copy.mapping.count(key) > 0 ? copy.mapping.at(key) : std::string();
    };
    meshes.insert({copy.from, word("from-mesh"), word("from-cells")});
    meshes.insert({copy.to, word("to-mesh"), word("to-cells")});
  }
  if (meshes.empty()) {
    error = (run / exchange::kTableFile).string() + " names no mesh (map= lines with from-mesh= and to-mesh=): "
            "export the fields of a mesh with --mesh instead";
    return false;
  }
  std::error_code ignored;
  fs::create_directories(output_directory, ignored);
  for (const auto& [project, mesh, cells] : meshes) {
    const fs::path directory = run / config::project_directory(project);
    // The stages kept: each checkpoint, then the fields as they stand.
    std::vector<std::pair<fs::path, std::optional<std::int32_t>>> sources;
    for (const std::int32_t cycle : resume::recorded_cycles(directory.string())) {
      sources.push_back({directory / resume::kCheckpointDirectory / std::to_string(cycle), cycle});
    }
    sources.push_back({directory, std::nullopt});
    std::vector<Step> steps;
    for (const auto& [source, kept_cycle] : sources) {
      std::optional<Step> step = tree_step(source, mesh, cells, error);
      if (!error.empty()) return false;
      if (!step) continue;
      if (kept_cycle) step->cycle = *kept_cycle;
      // The fields as they stand are often the last checkpoint's.
      if (!kept_cycle && !steps.empty() && steps.back().cycle >= step->cycle) continue;
      steps.push_back(std::move(*step));
    }
    if (steps.empty()) continue;
    const std::string name = fields::project_name(project) + "-" + mesh + ".pvd";
    if (!write_collection((fs::path(output_directory) / name).string(), steps, written, error)) return false;
  }
  return true;
}

}  // namespace lockstep::ctl
