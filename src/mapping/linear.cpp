#include <Eigen/Dense>

#include <algorithm>
#include <array>
#include <limits>

#include "mapping/kernels.h"

namespace lockstep::mapping {
namespace {

using Vector = Eigen::Vector3d;

// Barycentric coordinates within this much below zero count as inside:
// a point on a shared face belongs to either cell.
constexpr double kInside = 1e-12;

Vector point3(const Points& points, std::size_t i) {
  Vector p = Vector::Zero();
  for (int k = 0; k < points.dimension; ++k) p[k] = points.at(i)[k];
  return p;
}

// The barycentric coordinates of the point of triangle abc nearest p
// (Ericson, Real-Time Collision Detection, 5.1.5).
std::array<double, 3> closest_on_triangle(const Vector& p, const Vector& a, const Vector& b, const Vector& c) {
  const Vector ab = b - a, ac = c - a, ap = p - a;
  const double d1 = ab.dot(ap), d2 = ac.dot(ap);
  if (d1 <= 0 && d2 <= 0) return {1, 0, 0};
  const Vector bp = p - b;
  const double d3 = ab.dot(bp), d4 = ac.dot(bp);
  if (d3 >= 0 && d4 <= d3) return {0, 1, 0};
  const double vc = d1 * d4 - d3 * d2;
  if (vc <= 0 && d1 >= 0 && d3 <= 0) {
    const double v = d1 / (d1 - d3);
    return {1 - v, v, 0};
  }
  const Vector cp = p - c;
  const double d5 = ab.dot(cp), d6 = ac.dot(cp);
  if (d6 >= 0 && d5 <= d6) return {0, 0, 1};
  const double vb = d5 * d2 - d1 * d6;
  if (vb <= 0 && d2 >= 0 && d6 <= 0) {
    const double w = d2 / (d2 - d6);
    return {1 - w, 0, w};
  }
  const double va = d3 * d6 - d5 * d4;
  if (va <= 0 && (d4 - d3) >= 0 && (d5 - d6) >= 0) {
    const double w = (d4 - d3) / ((d4 - d3) + (d5 - d6));
    return {0, 1 - w, w};
  }
  const double denominator = 1 / (va + vb + vc);
  const double v = vb * denominator, w = vc * denominator;
  return {1 - v - w, v, w};
}

struct Candidate {
  std::array<double, 4> weights{};
  double distance = std::numeric_limits<double>::infinity();
  bool inside = false;
};

// Where p lies in one cell: inside with its barycentric coordinates, or
// how far from it and the coordinates of the nearest point of it.
Candidate locate(const std::array<Vector, 4>& corner, int corners, int dimension, const Vector& p) {
  Candidate found;
  if (corners == 2) {
    // A segment: the nearest point on it; inside when that is between its
    // ends and, off a line (in 2-D or 3-D), the projection.
    const Vector along = corner[1] - corner[0];
    const double length = along.squaredNorm();
    const double raw = length > 0 ? (p - corner[0]).dot(along) / length : 0.0;
    const double t = std::clamp(raw, 0.0, 1.0);
    found.weights = {1 - t, t, 0, 0};
    found.distance = (p - (corner[0] + t * along)).norm();
    found.inside = raw >= -kInside && raw <= 1 + kInside;
    if (dimension == 1 && found.inside) found.distance = 0;
    return found;
  }
  if (corners == 4 || dimension == 2) {
    // A tetrahedron, or a triangle in the plane: solve for the coordinates.
    const int n = corners - 1;
    Eigen::Matrix3d edges = Eigen::Matrix3d::Identity();
    for (int j = 0; j < n; ++j) edges.col(j) = corner[static_cast<std::size_t>(j + 1)] - corner[0];
    const Eigen::VectorXd local = edges.topLeftCorner(n, n).fullPivLu().solve((p - corner[0]).head(n));
    double smallest = 1 - local.head(n).sum();
    found.weights[0] = smallest;
    for (int j = 0; j < n; ++j) {
      found.weights[static_cast<std::size_t>(j + 1)] = local[j];
      smallest = std::min(smallest, local[j]);
    }
    if (smallest >= -kInside && local.head(n).allFinite()) {
      found.inside = true;
      found.distance = 0;
      return found;
    }
  }
  // Outside (or a triangle in space): the nearest point of the cell's faces.
  static constexpr int kFaces[4][3] = {{0, 1, 2}, {0, 1, 3}, {0, 2, 3}, {1, 2, 3}};
  const int faces = corners == 4 ? 4 : 1;
  found.weights = {};
  for (int f = 0; f < faces; ++f) {
    const auto& face = kFaces[f];
    const auto a = static_cast<std::size_t>(face[0]), b = static_cast<std::size_t>(face[1]),
               c = static_cast<std::size_t>(face[2]);
    const auto w = closest_on_triangle(p, corner[a], corner[b], corner[c]);
    const Vector nearest = w[0] * corner[a] + w[1] * corner[b] + w[2] * corner[c];
    const double distance = (p - nearest).norm();
    if (distance < found.distance) {
      found.distance = distance;
      found.weights = {};
      found.weights[a] = w[0];
      found.weights[b] = w[1];
      found.weights[c] = w[2];
    }
  }
  // A triangle in space holds the point when its projection falls inside.
  found.inside = corners == 3 && dimension == 3 &&
                 std::min({found.weights[0], found.weights[1], found.weights[2]}) > kInside;
  return found;
}

}  // namespace

Weights linear_weights(const Points& from, const Cells& cells, const Points& to, std::size_t& outside) {
  // The cells' centres, searched for the cells near each target point.
  Points centres;
  centres.count = cells.count;
  centres.dimension = from.dimension;
  centres.coordinates.assign(cells.count * static_cast<std::size_t>(from.dimension), 0.0);
  for (std::size_t c = 0; c < cells.count; ++c) {
    for (int j = 0; j < cells.corners; ++j) {
      const double* corner = from.at(static_cast<std::size_t>(cells.at(c)[j]));
      for (int k = 0; k < from.dimension; ++k) {
        centres.coordinates[c * static_cast<std::size_t>(from.dimension) + static_cast<std::size_t>(k)] +=
            corner[k] / cells.corners;
      }
    }
  }
  const PointSearch search(centres);
  Weights weights;
  weights.columns = from.count;
  outside = 0;
  std::vector<Column> columns(static_cast<std::size_t>(cells.corners));
  std::vector<double> values(static_cast<std::size_t>(cells.corners));
  for (std::size_t i = 0; i < to.count; ++i) {
    const Vector p = point3(to, i);
    Candidate best;
    std::size_t best_cell = 0;
    // The cells whose centres are nearest, then more where none holds it.
    for (const std::size_t k : {std::size_t{16}, std::size_t{128}}) {
      for (const auto& [cell, ignored] : search.nearest(to.at(i), k)) {
        std::array<Vector, 4> corner;
        for (int j = 0; j < cells.corners; ++j) {
          corner[static_cast<std::size_t>(j)] = point3(from, static_cast<std::size_t>(cells.at(cell)[j]));
        }
        const Candidate found = locate(corner, cells.corners, from.dimension, p);
        if ((found.inside && !best.inside) || (found.inside == best.inside && found.distance < best.distance)) {
          best = found;
          best_cell = cell;
        }
        if (best.inside && best.distance == 0) break;
      }
      if (best.inside || k >= cells.count) break;
    }
    if (!best.inside) ++outside;
    for (int j = 0; j < cells.corners; ++j) {
      columns[static_cast<std::size_t>(j)] = static_cast<Column>(cells.at(best_cell)[j]);
      values[static_cast<std::size_t>(j)] = best.weights[static_cast<std::size_t>(j)];
    }
    weights.add_row(columns, values);
  }
  return weights;
}

}  // namespace lockstep::mapping
