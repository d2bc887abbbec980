#include "mapping/kernels.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "mapping/cores.h"

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
  // Each core looks through its share for the first point with a twin:
  // the pair reported is the first in order, whatever the core count.
  const unsigned cores = core_count();
  std::vector<std::optional<std::pair<std::size_t, std::size_t>>> found(cores);
  run_parts(cores, [&](unsigned part) {
    for (std::size_t i = part_begin(from.count, part, cores); i < part_begin(from.count, part + 1, cores); ++i) {
      for (const auto& [j, distance] : search.nearest(from.at(i), 2)) {
        if (j == i || distance != 0) continue;
        found[part].emplace(std::min(i, j), std::max(i, j));
        return;
      }
    }
  });
  for (const auto& pair : found) {
    if (!pair) continue;
    return "source points " + std::to_string(pair->first) + " and " + std::to_string(pair->second) +
           " are at one place, which makes the RBF system singular: remove one";
  }
  return {};
}

}  // namespace lockstep::mapping
