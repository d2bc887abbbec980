// The consistent weights of each method, for method.cpp.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "mapping/method.h"
#include "mapping/search.h"

namespace lockstep::mapping {

// Each target point takes its nearest source point's value.
Weights nearest_weights(const Points& from, const PointSearch& search, const Points& to);

// Barycentric weights in the cell that holds each target point, or, for a
// point outside every cell (or off a surface of triangles), in the nearest
// cell at the point's projection onto it. `outside` counts those.
Weights linear_weights(const Points& from, const Cells& cells, const Points& to, std::size_t& outside);

// One global RBF system over every source point: at most this many, and
// this many weights in all (1.2 GB kept).
inline constexpr std::size_t kMostRbfSources = 20000;
inline constexpr std::size_t kMostRbfWeights = 100000000;
// With a `room` that takes them, the columns and values go there.
std::string rbf_weights(const Method& method, const Points& from, const PointSearch& search, const Points& to,
                        Weights& weights, Room* room);

// Partition of unity: a small RBF system per cluster, blended. With a
// `room` that takes them, the columns and values go there, not into
// `weights`.
std::string rbf_pum_weights(const Method& method, const Points& from, const PointSearch& search, const Points& to,
                            Weights& weights, Room* room);

// rbf-pum's cell for the point at `u` (coordinates in grid steps, d of
// them): on a line or in a plane the square it lies in; in space the
// nearest point of a body-centred cubic lattice, counted in half steps.
// Nothing for a point 2^61 steps or more from the origin.
std::optional<std::array<std::int64_t, 3>> lattice_cell(const double* u, std::size_t d);

// Two source points at one place make an RBF system singular: their
// indices, if any.
std::string duplicate_points(const Points& from, const PointSearch& search);

}  // namespace lockstep::mapping
