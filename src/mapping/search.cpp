#include "mapping/search.h"

#include <nanoflann.hpp>

#include <cmath>

namespace lockstep::mapping {
namespace {

// The interface nanoflann reads points through.
struct Cloud {
  const Points* points;
  std::size_t kdtree_get_point_count() const { return points->count; }
  double kdtree_get_pt(std::size_t i, std::size_t dimension) const { return points->at(i)[dimension]; }
  template <class Box>
  bool kdtree_get_bbox(Box&) const {
    return false;
  }
};

using Index = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<double, Cloud>, Cloud, -1, std::size_t>;

}  // namespace

struct PointSearch::Tree {
  Cloud cloud;
  Index index;
  explicit Tree(const Points& points)
      : cloud{&points}, index(points.dimension, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10)) {}
};

PointSearch::PointSearch(const Points& points) : tree_(std::make_unique<Tree>(points)) {
  tree_->index.buildIndex();
}

PointSearch::~PointSearch() = default;

std::vector<std::pair<std::size_t, double>> PointSearch::nearest(const double* query, std::size_t k) const {
  k = std::min(k, tree_->cloud.points->count);
  std::vector<std::size_t> indices(k);
  std::vector<double> distances(k);
  const std::size_t found = tree_->index.knnSearch(query, k, indices.data(), distances.data());
  std::vector<std::pair<std::size_t, double>> result(found);
  for (std::size_t i = 0; i < found; ++i) result[i] = {indices[i], distances[i]};
  return result;
}

std::vector<std::pair<std::size_t, double>> PointSearch::within(const double* query, double radius) const {
  std::vector<std::pair<std::size_t, double>> result;
  tree_->index.radiusSearch(query, radius * radius, result, nanoflann::SearchParams(32, 0, false));
  return result;
}

double mean_spacing(const Points& points, const PointSearch& search) {
  if (points.count < 2) return 1.0;
  double sum = 0;
  for (std::size_t i = 0; i < points.count; ++i) sum += std::sqrt(search.nearest(points.at(i), 2)[1].second);
  return sum / static_cast<double>(points.count);
}

}  // namespace lockstep::mapping
