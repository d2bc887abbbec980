#include "ctl/field_export.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "fields/store.h"
#include "mapping/mesh.h"

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
  std::string collection = "<?xml version=\"1.0\"?>\n<VTKFile type=\"Collection\" version=\"0.1\">\n<Collection>\n";
  const std::string name = shared_name(values);
  for (Values& step : values) step.name = name;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::string grid = output.stem().string() + "-" + std::to_string(i + 1) + ".vtu";
    const std::string path = (output.parent_path() / grid).string();
    if (!write_grid(path, points, cells, {&values[i]}, error)) return false;
    written.push_back(path);
    collection += "<DataSet timestep=\"" + std::to_string(values[i].cycle) + "\" part=\"0\" file=\"" + attribute(grid) + "\"/>\n";
  }
  std::ofstream out(request.output);
  out << collection << "</Collection>\n</VTKFile>\n";
  out.close();
  if (!out) {
    error = "cannot write " + request.output;
    return false;
  }
  written.push_back(request.output);
  return true;
}

}  // namespace lockstep::ctl
