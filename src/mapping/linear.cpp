#include <Eigen/Dense>
#include <boost/geometry.hpp>
#include <boost/geometry/index/rtree.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <set>
#include <utility>

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
// how far from it and the coordinates of the nearest point of it. A cell
// of lower dimension than the space (a segment in the plane, a triangle in
// space) holds p when p's projection onto it falls inside it.
Candidate locate(const std::array<Vector, 4>& corner, int corners, int dimension, const Vector& p) {
  Candidate found;
  if (corners == 2) {
    const Vector along = corner[1] - corner[0];
    const double raw = (p - corner[0]).dot(along) / along.squaredNorm();
    const double t = std::clamp(raw, 0.0, 1.0);
    found.weights = {1 - t, t, 0, 0};
    found.distance = (p - (corner[0] + t * along)).norm();
    found.inside = raw >= -kInside && raw <= 1 + kInside;
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
    if (smallest >= -kInside) {
      found.inside = true;
      found.distance = 0;
      return found;
    }
  }
  // Outside, or a triangle in space: the nearest point of the cell's faces.
  static constexpr int kFaces[4][3] = {{0, 1, 2}, {0, 1, 3}, {0, 2, 3}, {1, 2, 3}};
  const int faces = corners == 4 ? 4 : 1;
  found.weights = {};
  for (int f = 0; f < faces; ++f) {
    const auto& face = kFaces[f];
    const auto a = static_cast<std::size_t>(face[0]), b = static_cast<std::size_t>(face[1]),
               c = static_cast<std::size_t>(face[2]);
    const auto w = closest_on_triangle(p, corner[a], corner[b], corner[c]);
    const double distance = (p - (w[0] * corner[a] + w[1] * corner[b] + w[2] * corner[c])).norm();
    if (distance < found.distance) {
      found.distance = distance;
      found.weights = {};
      found.weights[a] = w[0];
      found.weights[b] = w[1];
      found.weights[c] = w[2];
    }
  }
  return found;
}

namespace bg = boost::geometry;
namespace bgi = boost::geometry::index;
using TreePoint = bg::model::point<double, 3, bg::cs::cartesian>;
using Box = bg::model::box<TreePoint>;
using Entry = std::pair<Box, std::size_t>;

TreePoint tree_point(const Vector& p) { return {p[0], p[1], p[2]}; }

// Where a mesh of cells of lower dimension than its space (a line, a
// surface) ends: the corners and edges of only one cell. A target whose
// nearest point lies there is off the mesh's edge, not merely off its
// surface.
struct Rim {
  std::set<std::int64_t> corners;
  std::set<std::pair<std::int64_t, std::int64_t>> edges;
};

Rim rim_of(const Cells& cells) {
  Rim rim;
  if (cells.corners == 2) {
    std::map<std::int64_t, int> uses;
    for (std::size_t c = 0; c < cells.count; ++c) {
      ++uses[cells.at(c)[0]];
      ++uses[cells.at(c)[1]];
    }
    for (const auto& [corner, count] : uses) {
      if (count == 1) rim.corners.insert(corner);
    }
    return rim;
  }
  std::map<std::pair<std::int64_t, std::int64_t>, int> uses;
  for (std::size_t c = 0; c < cells.count; ++c) {
    for (int j = 0; j < 3; ++j) {
      const std::int64_t a = cells.at(c)[j], b = cells.at(c)[(j + 1) % 3];
      ++uses[std::minmax(a, b)];
    }
  }
  for (const auto& [edge, count] : uses) {
    if (count != 1) continue;
    rim.edges.insert(edge);
    rim.corners.insert(edge.first);
    rim.corners.insert(edge.second);
  }
  return rim;
}

// Whether the nearest point (weights on `corner`s, some zero) lies on the rim.
bool on_rim(const Rim& rim, const std::int64_t* corner, int corners, const std::array<double, 4>& weights) {
  std::vector<std::int64_t> support;
  for (int j = 0; j < corners; ++j) {
    if (weights[static_cast<std::size_t>(j)] > kInside) support.push_back(corner[j]);
  }
  if (support.size() == 1) return rim.corners.count(support[0]) > 0;
  if (support.size() == 2 && corners == 3) return rim.edges.count(std::minmax(support[0], support[1])) > 0;
  return false;
}

}  // namespace

Weights linear_weights(const Points& from, const Cells& cells, const Points& to, std::size_t& outside) {
  // An R-tree over the cells' boxes, walked from the target outwards: the
  // first cell that holds the target, else the nearest point of the mesh,
  // found exactly (a box nearer than the best cell so far is opened).
  std::vector<Entry> boxes(cells.count);
  for (std::size_t c = 0; c < cells.count; ++c) {
    Vector low = point3(from, static_cast<std::size_t>(cells.at(c)[0])), high = low;
    for (int j = 1; j < cells.corners; ++j) {
      const Vector corner = point3(from, static_cast<std::size_t>(cells.at(c)[j]));
      low = low.cwiseMin(corner);
      high = high.cwiseMax(corner);
    }
    boxes[c] = {Box(tree_point(low), tree_point(high)), c};
  }
  const bgi::rtree<Entry, bgi::rstar<16>> tree(boxes.begin(), boxes.end());
  // Cells as wide as the space hold a target or not; lines and surfaces
  // end at their rim.
  const bool lower = cells.corners - 1 < from.dimension;
  const Rim rim = lower ? rim_of(cells) : Rim{};
  Weights weights;
  weights.columns = from.count;
  outside = 0;
  std::vector<Column> columns(static_cast<std::size_t>(cells.corners));
  std::vector<double> values(static_cast<std::size_t>(cells.corners));
  for (std::size_t i = 0; i < to.count; ++i) {
    const Vector p = point3(to, i);
    const TreePoint at = tree_point(p);
    Candidate best;
    std::size_t best_cell = 0;
    for (auto entry = tree.qbegin(bgi::nearest(at, static_cast<unsigned>(cells.count))); entry != tree.qend();
         ++entry) {
      if (bg::distance(at, entry->first) > best.distance) break;
      std::array<Vector, 4> corner;
      for (int j = 0; j < cells.corners; ++j) {
        corner[static_cast<std::size_t>(j)] = point3(from, static_cast<std::size_t>(cells.at(entry->second)[j]));
      }
      const Candidate found = locate(corner, cells.corners, from.dimension, p);
      if (found.distance < best.distance || (found.distance == best.distance && found.inside && !best.inside)) {
        best = found;
        best_cell = entry->second;
      }
      if (best.inside && best.distance == 0) break;
    }
    const std::int64_t* corner = cells.at(best_cell);
    if (lower ? on_rim(rim, corner, cells.corners, best.weights) : !best.inside) ++outside;
    for (int j = 0; j < cells.corners; ++j) {
      columns[static_cast<std::size_t>(j)] = static_cast<Column>(corner[j]);
      values[static_cast<std::size_t>(j)] = best.weights[static_cast<std::size_t>(j)];
    }
    weights.add_row(columns, values);
  }
  return weights;
}

}  // namespace lockstep::mapping
