#include "mapping/method.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <set>

#include "mapping/kernels.h"
#include "mapping/search.h"

namespace lockstep::mapping {
namespace {

const std::map<std::string, Kind> kKinds = {{"nearest-neighbour", Kind::kNearestNeighbour},
                                            {"linear", Kind::kLinear},
                                            {"rbf", Kind::kRbf},
                                            {"rbf-pum", Kind::kRbfPum}};
const std::map<std::string, Basis> kBases = {{"thin-plate-spline", Basis::kThinPlateSpline},
                                             {"gaussian", Basis::kGaussian},
                                             {"quintic", Basis::kQuintic},
                                             {"wendland-c2", Basis::kWendlandC2},
                                             {"wendland-c4", Basis::kWendlandC4},
                                             {"wendland-c6", Basis::kWendlandC6}};
const std::set<std::string> kNames = {"from-mesh", "to-mesh", "from-cells", "to-cells"};

template <typename Value>
std::string name_of(const std::map<std::string, Value>& table, Value value) {
  for (const auto& [name, entry] : table) {
    if (entry == value) return name;
  }
  return {};
}

template <typename Value>
std::string choices(const std::map<std::string, Value>& table) {
  std::string text;
  for (const auto& [name, ignored] : table) text += (text.empty() ? "" : ", ") + name;
  return text;
}

bool positive_number(const std::string& text, double& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() && std::isfinite(value) && value > 0;
}

}  // namespace

std::string Method::canonical() const {
  std::string text = "map=" + name_of(kKinds, kind) + " constraint=" + (conservative ? "conservative" : "consistent");
  if (kind == Kind::kRbf || kind == Kind::kRbfPum) {
    char number[64];
    text += " basis=" + (basis ? name_of(kBases, *basis) : std::string("default")) +
            " polynomial=" + (polynomial ? "on" : "off");
    if (shape) text += (std::snprintf(number, sizeof number, " shape=%.17g", *shape), number);
    if (radius) text += (std::snprintf(number, sizeof number, " radius=%.17g", *radius), number);
    if (kind == Kind::kRbfPum) {
      text += " cluster-size=" + std::to_string(cluster_size);
      text += (std::snprintf(number, sizeof number, " overlap=%.17g", overlap), number);
    }
  }
  return text;
}

std::string parse_method(const std::map<std::string, std::string>& words, Method& method,
                         std::map<std::string, std::string>& names) {
  method = Method{};
  const auto given = [&](const char* key) { return words.count(key) > 0; };
  const auto map = words.find("map");
  if (map == words.end()) return "a mapping needs map=: " + choices(kKinds);
  const auto kind = kKinds.find(map->second);
  if (kind == kKinds.end()) return "map=" + map->second + " is no method: use " + choices(kKinds);
  method.kind = kind->second;
  const bool rbf = method.kind == Kind::kRbf || method.kind == Kind::kRbfPum;
  for (const auto& [key, value] : words) {
    double number = 0;
    if (key == "map") continue;
    if (kNames.count(key) > 0) {
      names[key] = value;
    } else if (key == "constraint" && (value == "consistent" || value == "conservative")) {
      method.conservative = value == "conservative";
    } else if (key == "constraint") {
      return "constraint=" + value + ": use consistent or conservative";
    } else if (!rbf && (key == "basis" || key == "shape" || key == "radius" || key == "polynomial")) {
      return key + "= applies to map=rbf and map=rbf-pum, not map=" + map->second;
    } else if (key == "basis" && kBases.count(value) > 0) {
      method.basis = kBases.at(value);
    } else if (key == "basis") {
      return "basis=" + value + " is no basis: use " + choices(kBases);
    } else if ((key == "shape" || key == "radius") && !positive_number(value, number)) {
      return key + "=" + value + ": give a positive number";
    } else if (key == "shape") {
      method.shape = number;
    } else if (key == "radius") {
      method.radius = number;
    } else if (key == "polynomial" && (value == "on" || value == "off")) {
      method.polynomial = value == "on";
    } else if (key == "polynomial") {
      return "polynomial=" + value + ": use on or off";
    } else if ((key == "cluster-size" || key == "overlap") && method.kind != Kind::kRbfPum) {
      return key + "= applies to map=rbf-pum, not map=" + map->second;
    } else if (key == "cluster-size" && (!positive_number(value, number) || number != std::floor(number) ||
                                         number < 5 || number > 1000)) {
      return "cluster-size=" + value + ": give a whole number from 5 to 1000";
    } else if (key == "cluster-size") {
      method.cluster_size = static_cast<std::size_t>(number);
    } else if (key == "overlap" && (!positive_number(value, number) || number > 2)) {
      return "overlap=" + value + ": give a number above 0, at most 2";
    } else if (key == "overlap") {
      method.overlap = number;
    } else {
      return "\"" + key + "=\" is no mapping word: use map, constraint, from-mesh, to-mesh, from-cells, to-cells, "
             "basis, shape, radius, polynomial, cluster-size, overlap";
    }
  }
  if (method.shape && method.basis != Basis::kGaussian) return "shape= applies to basis=gaussian";
  if (method.radius && method.basis != Basis::kWendlandC2 && method.basis != Basis::kWendlandC4 &&
      method.basis != Basis::kWendlandC6) {
    return "radius= applies to the wendland bases";
  }
  if (!given("from-mesh") || !given("to-mesh")) return "a mapping needs from-mesh= and to-mesh=";
  if (method.kind == Kind::kLinear && !method.conservative && !given("from-cells")) {
    return "map=linear needs from-cells=, the source mesh's segments, triangles or tetrahedra";
  }
  if (method.kind == Kind::kLinear && method.conservative && !given("to-cells")) {
    return "a conservative map=linear needs to-cells=, the target mesh's segments, triangles or tetrahedra (it is the "
           "transpose of the linear map from the target mesh)";
  }
  return {};
}

std::string compute_weights(const Method& method, const Points& from, const Cells* from_cells, const Points& to,
                            const Cells* to_cells, Weights& weights, Room* room) {
  if (from.dimension != to.dimension) {
    return "the source mesh is " + std::to_string(from.dimension) + "-D but the target mesh " +
           std::to_string(to.dimension) + "-D";
  }
  if (method.conservative) {
    Method consistent = method;
    consistent.conservative = false;
    Weights backwards;
    if (std::string error = compute_weights(consistent, to, to_cells, from, nullptr, backwards); !error.empty()) {
      return error;
    }
    weights = backwards.transposed();
    return {};
  }
  const PointSearch search(from);
  switch (method.kind) {
    case Kind::kNearestNeighbour: weights = nearest_weights(from, search, to); return {};
    case Kind::kLinear: {
      std::size_t outside = 0;
      weights = linear_weights(from, *from_cells, to, outside);
      return {};
    }
    case Kind::kRbf: return rbf_weights(method, from, search, to, weights, room);
    case Kind::kRbfPum: return rbf_pum_weights(method, from, search, to, weights, room);
  }
  return {};
}

Reach reach(const Points& from, const Cells* from_cells, const Points& to) {
  Reach found;
  const PointSearch search(from);
  for (std::size_t i = 0; i < to.count; ++i) {
    found.largest_distance = std::max(found.largest_distance, std::sqrt(search.nearest(to.at(i), 1).front().second));
  }
  if (from_cells != nullptr) {
    linear_weights(from, *from_cells, to, found.outside);
    return found;
  }
  std::vector<double> low(static_cast<std::size_t>(from.dimension), std::numeric_limits<double>::infinity());
  std::vector<double> high(low.size(), -std::numeric_limits<double>::infinity());
  for (std::size_t j = 0; j < from.count; ++j) {
    for (std::size_t k = 0; k < low.size(); ++k) {
      low[k] = std::min(low[k], from.at(j)[k]);
      high[k] = std::max(high[k], from.at(j)[k]);
    }
  }
  for (std::size_t i = 0; i < to.count; ++i) {
    for (std::size_t k = 0; k < low.size(); ++k) {
      if (to.at(i)[k] < low[k] || to.at(i)[k] > high[k]) {
        ++found.outside;
        break;
      }
    }
  }
  return found;
}

}  // namespace lockstep::mapping
