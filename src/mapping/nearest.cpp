#include "mapping/kernels.h"

namespace lockstep::mapping {

Weights nearest_weights(const Points& from, const PointSearch& search, const Points& to) {
  Weights weights;
  weights.columns = from.count;
  weights.column_of.reserve(to.count);
  weights.value.reserve(to.count);
  for (std::size_t i = 0; i < to.count; ++i) {
    weights.add_row({static_cast<Column>(search.nearest(to.at(i), 1).front().first)}, {1.0});
  }
  return weights;
}

std::string duplicate_points(const Points& from, const PointSearch& search) {
  for (std::size_t i = 0; i < from.count; ++i) {
    for (const auto& [j, distance] : search.nearest(from.at(i), 2)) {
      if (j != i && distance == 0) {
        return "source points " + std::to_string(std::min(i, j)) + " and " + std::to_string(std::max(i, j)) +
               " are at one place, which makes the RBF system singular: remove one";
      }
    }
  }
  return {};
}

}  // namespace lockstep::mapping
