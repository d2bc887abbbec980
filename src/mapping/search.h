// Nearest-point search over a mesh's points, by nanoflann's k-d tree.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "mapping/mesh.h"

namespace lockstep::mapping {

class PointSearch {
 public:
  explicit PointSearch(const Points& points);
  ~PointSearch();
  PointSearch(const PointSearch&) = delete;
  PointSearch& operator=(const PointSearch&) = delete;

  // The `k` nearest points to `query` (of the points' dimension), nearest
  // first, as (index, squared distance).
  std::vector<std::pair<std::size_t, double>> nearest(const double* query, std::size_t k) const;
  // Every point within `radius` of `query`, as (index, squared distance).
  std::vector<std::pair<std::size_t, double>> within(const double* query, double radius) const;

 private:
  struct Tree;
  std::unique_ptr<Tree> tree_;
};

// The mean distance from each point to its nearest other point: the
// spacing that default radii are derived from.
double mean_spacing(const Points& points, const PointSearch& search);

}  // namespace lockstep::mapping
