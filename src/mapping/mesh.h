// Meshes as the mapping sees them: points of dimension 1 to 3, and cells
// (segments, triangles or tetrahedra) as 0-based indices into them. Both
// come from fields: float64 (n, d) or (n,) for points, int32 or int64
// (m, 2), (m, 3) or (m, 4) for cells.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fields/access.h"
#include "fields/format.h"

namespace lockstep::mapping {

struct Points {
  std::size_t count = 0;
  int dimension = 0;
  std::vector<double> coordinates;  // count x dimension, row by row
  const double* at(std::size_t i) const { return coordinates.data() + i * static_cast<std::size_t>(dimension); }
};

struct Cells {
  std::size_t count = 0;
  int corners = 0;  // 2: segments, 3: triangles, 4: tetrahedra
  std::vector<std::int64_t> indices;  // count x corners
  const std::int64_t* at(std::size_t i) const { return indices.data() + i * static_cast<std::size_t>(corners); }
};

// The points a field holds, checked: float64 of shape (n,) or (n, d) with d
// 1 to 3, every coordinate finite. Empty on success, else why not.
std::string points_from_field(const fields::Header& header, const void* values, Points& points);

// The cells a field holds, checked against `points`: int32 or int64 of
// shape (m, 2), (m, 3) or (m, 4), every index within the points.
std::string cells_from_field(const fields::Header& header, const void* values, const Points& points, Cells& cells);

// Reads one field of `project` by name: its header, and its values into
// what `into` gives for that header; or false with the reason in `error`
// (empty when there is nothing to read yet).
using FieldReader = std::function<bool(int project, const std::string& name, fields::Header& header,
                                       const fields::Destination& into, std::string& error)>;

// The mesh `points_name` of `project` and, when `cells_name` is given, its
// cells, read by `read` and checked; errors name the field and project.
bool read_mesh(const FieldReader& read, int project, const std::string& points_name, const std::string* cells_name,
               Points& points, std::optional<Cells>& cells, std::string& error);

// Values on a mesh of `count` points: shape (count,) or (count, k); the
// number of components k. Empty on success, else why not.
std::string components_of(const fields::Header& header, std::size_t count, std::size_t& components);

}  // namespace lockstep::mapping
