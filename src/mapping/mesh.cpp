#include "mapping/mesh.h"

#include <Eigen/Dense>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "mapping/weights.h"

namespace lockstep::mapping {
namespace {

using Vector = Eigen::Vector3d;

Vector point3(const Points& points, std::size_t i) {
  Vector p = Vector::Zero();
  for (int k = 0; k < points.dimension; ++k) p[k] = points.at(i)[k];
  return p;
}

// A cell with no length, area or volume: its index and points, or empty.
std::string zero_size_cell(const Points& points, const Cells& cells) {
  // Sizes relative to the mesh's extent, so that units do not matter.
  Vector low = point3(points, 0), high = low;
  for (std::size_t i = 1; i < points.count; ++i) {
    low = low.cwiseMin(point3(points, i));
    high = high.cwiseMax(point3(points, i));
  }
  const double extent = (high - low).norm();
  for (std::size_t c = 0; c < cells.count; ++c) {
    std::array<Vector, 4> corner;
    corner.fill(Vector::Zero());
    double longest = 0;
    for (int j = 0; j < cells.corners; ++j) {
      corner[static_cast<std::size_t>(j)] = point3(points, static_cast<std::size_t>(cells.at(c)[j]));
    }
    for (int j = 1; j < cells.corners; ++j) {
      for (int k = 0; k < j; ++k) {
        longest = std::max(longest, (corner[static_cast<std::size_t>(j)] - corner[static_cast<std::size_t>(k)]).norm());
      }
    }
    const Vector a = corner[1] - corner[0], b = corner[2] - corner[0], e = corner[3] - corner[0];
    // The cell's length, area or volume against its longest edge's.
    const double size = cells.corners == 2   ? longest
                        : cells.corners == 3 ? a.cross(b).norm()
                                             : std::abs(a.cross(b).dot(e));
    const double scale = cells.corners == 2 ? extent : std::pow(longest, cells.corners - 1);
    if (!(size > 1e-12 * scale)) {
      std::string names;
      for (int j = 0; j < cells.corners; ++j) names += (j == 0 ? "" : ", ") + std::to_string(cells.at(c)[j]);
      return "cell " + std::to_string(c) + " (points " + names + ") has no " +
             (cells.corners == 2 ? "length" : cells.corners == 3 ? "area" : "volume") +
             ": its points coincide or lie on one " + (cells.corners == 4 ? "plane" : "line") + "; remove it";
    }
  }
  return {};
}

}  // namespace

namespace {

// The number and dimension of the points a field's header promises,
// checked before anything is allocated for them.
std::string points_shape(const fields::Header& header, Points& points) {
  const auto& shape = header.shape;
  if (header.type != fields::Type::kFloat64) {
    return "a mesh holds float64 coordinates, not " + fields::type_name(header.type);
  }
  if (shape.empty() || shape.size() > 2 || (shape.size() == 2 && (shape[1] < 1 || shape[1] > 3))) {
    return "a mesh has shape (n,) or (n, d) with d 1, 2 or 3, not " + fields::shape_text(shape);
  }
  points.count = static_cast<std::size_t>(shape[0]);
  points.dimension = shape.size() == 1 ? 1 : static_cast<int>(shape[1]);
  if (points.count == 0) return "a mesh needs at least one point";
  if (points.count > static_cast<std::size_t>(std::numeric_limits<Column>::max())) {
    return "a mesh holds fewer than 2^31 points, not " + std::to_string(points.count);
  }
  return {};
}

std::string finite_points(const Points& points) {
  for (std::size_t i = 0; i < points.coordinates.size(); ++i) {
    if (!std::isfinite(points.coordinates[i])) {
      return "point " + std::to_string(i / static_cast<std::size_t>(points.dimension)) +
             " has a coordinate that is not finite (" + std::to_string(points.coordinates[i]) + ")";
    }
  }
  return {};
}

// Column-major (n, d) coordinates come from Fortran: put row by row.
bool by_axis(const fields::Header& header, const Points& points) {
  return header.column_major && points.dimension > 1;
}

}  // namespace

std::string points_from_field(const fields::Header& header, const void* values, Points& points) {
  if (std::string error = points_shape(header, points); !error.empty()) return error;
  const std::size_t total = points.count * static_cast<std::size_t>(points.dimension);
  points.coordinates.resize(total);
  if (by_axis(header, points)) {
    fields::reorder(header.shape, sizeof(double), false, values, points.coordinates.data());
  } else {
    std::memcpy(points.coordinates.data(), values, total * sizeof(double));
  }
  return finite_points(points);
}

std::string cells_from_field(const fields::Header& header, const void* values, const Points& points, Cells& cells) {
  const auto& shape = header.shape;
  if (header.type == fields::Type::kFloat64) return "cells hold int32 or int64 point indices, not float64";
  if (shape.size() != 2 || shape[1] < 2 || shape[1] > 4) {
    return "cells have shape (m, 2) for segments, (m, 3) for triangles or (m, 4) for tetrahedra, not " +
           fields::shape_text(shape);
  }
  cells.count = static_cast<std::size_t>(shape[0]);
  cells.corners = static_cast<int>(shape[1]);
  if (cells.corners == 4 && points.dimension != 3) {
    return "tetrahedra need 3-D points, not " + std::to_string(points.dimension) + "-D";
  }
  if (cells.corners == 3 && points.dimension == 1) return "triangles need 2-D or 3-D points, not 1-D";
  const std::size_t total = cells.count * static_cast<std::size_t>(cells.corners);
  cells.indices.resize(total);
  std::vector<std::int64_t> stored(total);
  for (std::size_t i = 0; i < total; ++i) {
    stored[i] = header.type == fields::Type::kInt32 ? static_cast<const std::int32_t*>(values)[i]
                                                    : static_cast<const std::int64_t*>(values)[i];
  }
  if (header.column_major) {
    fields::reorder(shape, sizeof(std::int64_t), false, stored.data(), cells.indices.data());
  } else {
    cells.indices = std::move(stored);
  }
  for (std::size_t i = 0; i < total; ++i) {
    if (cells.indices[i] < 0 || static_cast<std::size_t>(cells.indices[i]) >= points.count) {
      return "cell " + std::to_string(i / static_cast<std::size_t>(cells.corners)) + " names point " +
             std::to_string(cells.indices[i]) + ", but the mesh has points 0 to " + std::to_string(points.count - 1);
    }
  }
  if (cells.count == 0) return "no cells are given";
  return zero_size_cell(points, cells);
}

bool read_mesh(const FieldReader& read, int project, const std::string& points_name, const std::string* cells_name,
               Points& points, std::optional<Cells>& cells, std::string& error) {
  fields::Header header;
  // The coordinates are read where they stay, once their shape is checked:
  // a copy of a large mesh would cost as much as its reading.
  std::string wrong;
  std::vector<char> values;
  const fields::Destination into_points = [&](const fields::Header& found, std::string&) -> void* {
    if (wrong = points_shape(found, points); !wrong.empty()) return nullptr;
    points.coordinates.resize(points.count * static_cast<std::size_t>(points.dimension));
    if (!by_axis(found, points)) return points.coordinates.data();
    values.resize(points.coordinates.size() * sizeof(double));
    return values.data();
  };
  if (!read(project, points_name, header, into_points, error) && wrong.empty()) return false;
  if (wrong.empty() && by_axis(header, points)) {
    fields::reorder(header.shape, sizeof(double), false, values.data(), points.coordinates.data());
  }
  if (wrong.empty()) wrong = finite_points(points);
  if (!wrong.empty()) {
    error = "mesh \"" + points_name + "\" of " + fields::project_name(project) + ": " + wrong;
    return false;
  }
  if (cells_name == nullptr) return true;
  if (!read(project, *cells_name, header, fields::into_buffer(values), error)) return false;
  cells.emplace();
  if (error = cells_from_field(header, values.data(), points, *cells); !error.empty()) {
    error = "cells \"" + *cells_name + "\" of " + fields::project_name(project) + ": " + error;
    return false;
  }
  return true;
}

std::string components_of(const fields::Header& header, std::size_t count, std::size_t& components) {
  const auto& shape = header.shape;
  if (header.type != fields::Type::kFloat64) {
    return "mapped values are float64, not " + fields::type_name(header.type);
  }
  if (shape.empty() || shape.size() > 2 || static_cast<std::size_t>(shape[0]) != count) {
    return "the values have shape " + fields::shape_text(shape) + ", but their mesh has " + std::to_string(count) +
           " points: give (" + std::to_string(count) + ",) or (" + std::to_string(count) + ", k)";
  }
  components = shape.size() == 1 ? 1 : static_cast<std::size_t>(shape[1]);
  return {};
}

}  // namespace lockstep::mapping
