// A mapping's method, as the words of an exchange line give it, and the
// weights it computes between two meshes.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "mapping/mesh.h"
#include "mapping/weights.h"

namespace lockstep::mapping {

enum class Kind { kNearestNeighbour, kLinear, kRbf, kRbfPum };
enum class Basis { kThinPlateSpline, kGaussian, kQuintic, kWendlandC2, kWendlandC4, kWendlandC6 };

struct Method {
  Kind kind = Kind::kNearestNeighbour;
  bool conservative = false;
  std::optional<Basis> basis;  // when not given: basis_for()
  std::optional<double> shape;   // gaussian: exp(-(shape r)^2)
  std::optional<double> radius;  // wendland: the support radius
  bool polynomial = true;        // a linear polynomial in the RBF system
  std::size_t cluster_size = 70;  // rbf-pum: source points per cluster, about
  double overlap = 0.1;           // rbf-pum: how far clusters reach into each other

  // The basis given, or the default: the thin-plate spline, but for
  // rbf-pum in 3-D the quintic with a quadratic polynomial, as accurate as
  // a flat Gaussian was and stable: its weights' absolute row sums stay
  // near 10 where the Gaussian's reached 65 in a cube and thousands on a
  // sphere. In 1-D and 2-D the thin-plate spline's stay near 1, which an
  // explicit coupled run needs.
  Basis basis_for(int dimension) const {
    return basis.value_or(kind == Kind::kRbfPum && dimension == 3 ? Basis::kQuintic : Basis::kThinPlateSpline);
  }
  // The words in one fixed order: part of the weights' identity.
  std::string canonical() const;
};

// Every word of a mapping, key=value, parsed and checked. The mesh and cell
// names are taken out into `names` ("from-mesh", "to-mesh", "from-cells",
// "to-cells"). Empty on success, else why not.
std::string parse_method(const std::map<std::string, std::string>& words, Method& method,
                         std::map<std::string, std::string>& names);

// The weights that map values on `from` to values on `to`. A consistent map
// uses `from_cells` (linear); a conservative one is the transpose of the
// consistent map from `to` to `from`, with `to_cells`. Empty on success,
// else why not (duplicate source points under an RBF, a singular system).
// Given a `room`, a method may put the columns and values there (when the
// room takes them) and leave those of `weights` empty.
std::string compute_weights(const Method& method, const Points& from, const Cells* from_cells, const Points& to,
                            const Cells* to_cells, Weights& weights, Room* room = nullptr);

// How far the target points lie from the source mesh: the largest
// distance to a nearest source point, and how many lie outside its cells
// (linear) or beyond the source points' bounding box (the other methods).
struct Reach {
  double largest_distance = 0;
  std::size_t outside = 0;
};
Reach reach(const Points& from, const Cells* from_cells, const Points& to);

}  // namespace lockstep::mapping
