#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <set>

#include "mapping/check.h"
#include "mapping/kernels.h"
#include "mapping/local.h"
#include "mapping/method.h"
#include "mapping/store.h"

namespace lockstep::mapping {
namespace {

Points random_points(std::size_t count, int dimension, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> unit(0, 1);
  Points points;
  points.count = count;
  points.dimension = dimension;
  for (std::size_t i = 0; i < count * static_cast<std::size_t>(dimension); ++i) points.coordinates.push_back(unit(random));
  return points;
}

std::vector<double> sampled(const Points& points, double (*f)(const double*)) {
  std::vector<double> values(points.count);
  for (std::size_t i = 0; i < points.count; ++i) values[i] = f(points.at(i));
  return values;
}

Method method_of(const std::map<std::string, std::string>& words) {
  Method method;
  std::map<std::string, std::string> names;
  EXPECT_EQ(parse_method(words, method, names), "");
  return method;
}

TEST(MappingTest, EveryWrongWordIsRefusedWithWhatToWrite) {
  const std::map<std::string, std::string> meshes = {{"from-mesh", "a"}, {"to-mesh", "b"}};
  const struct {
    std::map<std::string, std::string> words;
    std::string error;
  } cases[] = {
      {{}, "a mapping needs map=: linear, nearest-neighbour, rbf, rbf-pum"},
      {{{"map", "cubic"}}, "map=cubic is no method: use linear, nearest-neighbour, rbf, rbf-pum"},
      {{{"map", "rbf"}, {"basis", "multiquadric"}},
       "basis=multiquadric is no basis: use gaussian, quintic, thin-plate-spline, wendland-c2, wendland-c4, wendland-c6"},
      {{{"map", "linear"}, {"basis", "gaussian"}}, "basis= applies to map=rbf and map=rbf-pum, not map=linear"},
      {{{"map", "rbf"}, {"basis", "gaussian"}, {"shape", "-1"}}, "shape=-1: give a positive number"},
      {{{"map", "rbf"}, {"shape", "2"}}, "shape= applies to basis=gaussian"},
      {{{"map", "rbf"}, {"radius", "nan"}}, "radius=nan: give a positive number"},
      {{{"map", "rbf"}, {"polynomial", "yes"}}, "polynomial=yes: use on or off"},
      {{{"map", "rbf"}, {"cluster-size", "9"}}, "cluster-size= applies to map=rbf-pum, not map=rbf"},
      {{{"map", "rbf-pum"}, {"cluster-size", "4"}}, "cluster-size=4: give a whole number from 5 to 1000"},
      {{{"map", "rbf-pum"}, {"cluster-size", "12.5"}}, "cluster-size=12.5: give a whole number from 5 to 1000"},
      {{{"map", "nearest-neighbour"}, {"constraint", "exact"}}, "constraint=exact: use consistent or conservative"},
      {{{"map", "nearest-neighbour"}, {"weight", "1"}},
       "\"weight=\" is no mapping word: use map, constraint, from-mesh, to-mesh, from-cells, to-cells, basis, shape, "
       "radius, polynomial, cluster-size, overlap"},
      {{{"map", "linear"}}, "map=linear needs from-cells=, the source mesh's segments, triangles or tetrahedra"},
      {{{"map", "linear"}, {"constraint", "conservative"}, {"from-cells", "t"}},
       "a conservative map=linear needs to-cells=, the target mesh's segments, triangles or tetrahedra (it is the "
       "transpose of the linear map from the target mesh)"},
  };
  for (const auto& c : cases) {
    auto words = c.words;
    words.insert(meshes.begin(), meshes.end());
    Method method;
    std::map<std::string, std::string> names;
    EXPECT_EQ(parse_method(words, method, names), c.error);
  }
  Method method;
  std::map<std::string, std::string> names;
  EXPECT_EQ(parse_method({{"map", "rbf"}, {"from-mesh", "a"}}, method, names), "a mapping needs from-mesh= and to-mesh=");
  EXPECT_EQ(method_of({{"map", "rbf-pum"}, {"from-mesh", "a"}, {"to-mesh", "b"}}).canonical(),
            "map=rbf-pum constraint=consistent basis=default polynomial=on cluster-size=70 overlap=0.10000000000000001");
}

TEST(MappingTest, MeshesAndCellsAreCheckedBeforeUse) {
  const double coordinates[] = {0, 0, 1, 0, 0, 1, NAN, 0};
  Points points;
  EXPECT_EQ(points_from_field({fields::Type::kFloat64, false, {4, 2}, {}}, coordinates, points),
            "point 3 has a coordinate that is not finite (nan)");
  EXPECT_EQ(points_from_field({fields::Type::kFloat64, false, {2, 4}, {}}, coordinates, points),
            "a mesh has shape (n,) or (n, d) with d 1, 2 or 3, not (2, 4)");
  EXPECT_EQ(points_from_field({fields::Type::kInt64, false, {4}, {}}, coordinates, points),
            "a mesh holds float64 coordinates, not int64");
  ASSERT_EQ(points_from_field({fields::Type::kFloat64, false, {3, 1}, {}}, coordinates, points), "");
  EXPECT_EQ(points.dimension, 1);
  ASSERT_EQ(points_from_field({fields::Type::kFloat64, false, {3, 2}, {}}, coordinates, points), "");
  // As Fortran writes them, one axis after the other.
  const double by_axis[] = {1, 2, 3, 10, 20, 30};
  Points fortran;
  ASSERT_EQ(points_from_field({fields::Type::kFloat64, true, {3, 2}, {}}, by_axis, fortran), "");
  EXPECT_EQ(fortran.coordinates, (std::vector<double>{1, 10, 2, 20, 3, 30}));
  const std::int32_t triangle[] = {0, 1, 3};
  Cells cells;
  EXPECT_EQ(cells_from_field({fields::Type::kInt32, false, {1, 3}, {}}, triangle, points, cells),
            "cell 0 names point 3, but the mesh has points 0 to 2");
  EXPECT_EQ(cells_from_field({fields::Type::kInt32, false, {1, 4}, {}}, triangle, points, cells),
            "tetrahedra need 3-D points, not 2-D");
  for (const std::vector<std::int64_t>& shape : {std::vector<std::int64_t>{1, 5}, {3, 1}, {3}}) {
    EXPECT_EQ(cells_from_field({fields::Type::kInt32, false, shape, {}}, triangle, points, cells),
              "cells have shape (m, 2) for segments, (m, 3) for triangles or (m, 4) for tetrahedra, not " +
                  fields::shape_text(shape));
  }
  EXPECT_EQ(cells_from_field({fields::Type::kFloat64, false, {1, 3}, {}}, coordinates, points, cells),
            "cells hold int32 or int64 point indices, not float64");
  // Cells without size would capture the targets near them.
  const Points line{4, 1, {0, 1, 2, 3}}, plane{4, 2, {0, 0, 1, 0, 2, 0, 0, 1}}, space{5, 3, {0, 0, 0, 1, 0, 0, 0, 1,
                                                                                             0, 1, 1, 0, 0, 0, 1}};
  const std::int64_t segments[] = {0, 1, 1, 2, 3, 3}, triangles[] = {0, 1, 3, 0, 1, 2}, tetrahedra[] = {0, 1, 2, 4,
                                                                                                       0, 1, 2, 3};
  EXPECT_EQ(cells_from_field({fields::Type::kInt64, false, {3, 2}, {}}, segments, line, cells),
            "cell 2 (points 3, 3) has no length: its points coincide or lie on one line; remove it");
  EXPECT_EQ(cells_from_field({fields::Type::kInt64, false, {2, 3}, {}}, triangles, plane, cells),
            "cell 1 (points 0, 1, 2) has no area: its points coincide or lie on one line; remove it");
  EXPECT_EQ(cells_from_field({fields::Type::kInt64, false, {2, 4}, {}}, tetrahedra, space, cells),
            "cell 1 (points 0, 1, 2, 3) has no volume: its points coincide or lie on one plane; remove it");
  std::size_t components = 0;
  EXPECT_EQ(components_of({fields::Type::kFloat64, false, {4, 2}, {}}, 3, components),
            "the values have shape (4, 2), but their mesh has 3 points: give (3,) or (3, k)");
  ASSERT_EQ(components_of({fields::Type::kFloat64, false, {3, 2}, {}}, 3, components), "");
  EXPECT_EQ(components, 2u);
}

double linear_field(const double* x) { return 1 + 2 * x[0] - 3 * x[1] + 0.5 * x[2]; }

// What every method must do on any mesh: constants and linear fields kept
// where the method promises it, and conservation of the sum.
TEST(MappingTest, ConstantsLinearFieldsAndSumsAreKept) {
  const Points from = random_points(400, 3, 1), to = random_points(300, 3, 2);
  for (const char* kind : {"nearest-neighbour", "rbf", "rbf-pum"}) {
    SCOPED_TRACE(kind);
    const Method consistent = method_of({{"map", kind}, {"from-mesh", "a"}, {"to-mesh", "b"}});
    Weights weights;
    ASSERT_EQ(compute_weights(consistent, from, nullptr, to, nullptr, weights), "");
    EXPECT_EQ(weights.defect(), nullptr);
    ASSERT_EQ(weights.rows, to.count);
    const std::vector<double> source = sampled(from, linear_field);
    std::vector<double> target(to.count);
    weights.apply(source.data(), 1, target.data());
    for (std::size_t row = 0; row < weights.rows; ++row) {
      double sum = 0;
      for (auto at = weights.row_start[row]; at < weights.row_start[row + 1]; ++at) sum += weights.value[static_cast<std::size_t>(at)];
      ASSERT_NEAR(sum, 1, 1e-9) << row;
      if (std::string(kind) != "nearest-neighbour") {
        ASSERT_NEAR(target[row], linear_field(to.at(row)), 1e-7) << row;
      }
    }
    // Conservative: the transpose of the map the other way; the sum kept.
    Method conservative = consistent;
    conservative.conservative = true;
    Weights kept, backwards;
    ASSERT_EQ(compute_weights(conservative, from, nullptr, to, nullptr, kept), "");
    ASSERT_EQ(compute_weights(consistent, to, nullptr, from, nullptr, backwards), "");
    const Weights twice = backwards.transposed();
    EXPECT_EQ(kept.row_start, twice.row_start);
    EXPECT_EQ(kept.column_of, twice.column_of);
    EXPECT_EQ(kept.value, twice.value);
    std::vector<double> forces(from.count), moved(to.count);
    std::iota(forces.begin(), forces.end(), 1.0);
    kept.apply(forces.data(), 1, moved.data());
    const double before = std::accumulate(forces.begin(), forces.end(), 0.0);
    EXPECT_NEAR(std::accumulate(moved.begin(), moved.end(), 0.0), before, 1e-12 * before);
  }
  // Two source points at one place cannot carry an RBF system; the first
  // pair in order is named.
  Points twin = from;
  std::copy_n(twin.at(300), 3, twin.coordinates.begin() + 3 * 350);
  std::copy_n(twin.at(7), 3, twin.coordinates.begin() + 3 * 150);
  Weights weights;
  EXPECT_EQ(compute_weights(method_of({{"map", "rbf"}, {"from-mesh", "a"}, {"to-mesh", "b"}}), twin, nullptr, to,
                            nullptr, weights),
            "source points 7 and 150 are at one place, which makes the RBF system singular: remove one");
  // Two patches 1e5 apart, as the interfaces of two bodies: clusters sit
  // where the points are, and each patch keeps its linear field.
  Points patches = from, near = to;
  for (std::size_t i = 0; i < 600; ++i) patches.coordinates[i] += 1e5;
  for (std::size_t i = 0; i < 450; ++i) near.coordinates[i] += 1e5;
  ASSERT_EQ(compute_weights(method_of({{"map", "rbf-pum"}, {"from-mesh", "a"}, {"to-mesh", "b"}}), patches, nullptr,
                            near, nullptr, weights),
            "");
  const std::vector<double> source = sampled(patches, linear_field);
  std::vector<double> target(near.count);
  weights.apply(source.data(), 1, target.data());
  for (std::size_t row = 0; row < near.count; ++row) {
    ASSERT_NEAR(target[row], linear_field(near.at(row)), 1e-9 * 1e5) << row;
  }
}

// Two source points on a line, 1 apart, no polynomial, a target halfway:
// each weight is phi(1/2) / (1 + phi(1)), so each basis is pinned to its
// published formula (the thin-plate spline, singular here, is pinned by
// the SciPy oracle).
TEST(MappingTest, EachBasisIsItsPublishedFunction) {
  const auto wendland = [](double rho, int order) {
    const double s = 1 - rho;
    return order == 2   ? std::pow(s, 4) * (4 * rho + 1)
           : order == 4 ? std::pow(s, 6) * (35 * rho * rho + 18 * rho + 3) / 3
                        : std::pow(s, 8) * (32 * rho * rho * rho + 25 * rho * rho + 8 * rho + 1);
  };
  const struct {
    std::map<std::string, std::string> words;
    double half, one;  // phi(1/2), phi(1)
  } cases[] = {
      {{{"basis", "gaussian"}, {"shape", "0.8"}}, std::exp(-0.16), std::exp(-0.64)},
      {{{"basis", "wendland-c2"}, {"radius", "2"}}, wendland(0.25, 2), wendland(0.5, 2)},
      {{{"basis", "wendland-c4"}, {"radius", "2"}}, wendland(0.25, 4), wendland(0.5, 4)},
      {{{"basis", "wendland-c6"}, {"radius", "2"}}, wendland(0.25, 6), wendland(0.5, 6)},
      // The defaults from the spacing, 1 here: shape 1/3, radius 6.
      {{{"basis", "gaussian"}}, std::exp(-1.0 / 36), std::exp(-1.0 / 9)},
      {{{"basis", "wendland-c2"}}, wendland(1.0 / 12, 2), wendland(1.0 / 6, 2)},
  };
  const Points ends{2, 1, {0, 1}}, middle{1, 1, {0.5}};
  for (const auto& c : cases) {
    auto words = c.words;
    words.insert({{"map", "rbf"}, {"polynomial", "off"}, {"from-mesh", "a"}, {"to-mesh", "b"}});
    SCOPED_TRACE(words.at("basis"));
    Weights weights;
    ASSERT_EQ(compute_weights(method_of(words), ends, nullptr, middle, nullptr, weights), "");
    ASSERT_EQ(weights.value.size(), 2u);
    EXPECT_NEAR(weights.value[0], c.half / (1 + c.one), 1e-14);
    EXPECT_NEAR(weights.value[1], c.half / (1 + c.one), 1e-14);
  }
}

TEST(MappingTest, ReachCountsTheTargetsOutsideTheSourceMesh) {
  // The unit square in two triangles, flat in 2-D and lying in space.
  const Points flat{4, 2, {0, 0, 1, 0, 0, 1, 1, 1}};
  const Points lying{4, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0}};
  const Cells triangles{2, 3, {0, 1, 2, 1, 3, 2}};
  // Inside, on the diagonal, beyond the right edge.
  const Points flat_targets{3, 2, {0.25, 0.25, 0.5, 0.5, 1.5, 0.5}};
  // Beyond the top edge: outside along the second axis only.
  const Points above{1, 2, {0.5, 1.5}};
  // Above the square (projected inside), beyond it.
  const Points lying_targets{2, 3, {0.25, 0.25, 0.1, 1.5, 0.5, 0}};
  const Reach on_flat = reach(flat, &triangles, flat_targets);
  EXPECT_EQ(on_flat.outside, 1u);
  EXPECT_DOUBLE_EQ(on_flat.largest_distance, std::sqrt(0.5));
  EXPECT_EQ(reach(lying, &triangles, lying_targets).outside, 1u);
  // Without cells: outside the source points' bounding box.
  EXPECT_EQ(reach(flat, nullptr, flat_targets).outside, 1u);
  EXPECT_EQ(reach(flat, nullptr, above).outside, 1u);
  // A closed surface has no rim: targets off it, beyond its corners and
  // edges too, are on it, not outside. A polyline ends at its ends.
  const Points tetrahedron{4, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}};
  const Cells surface{4, 3, {0, 1, 2, 0, 1, 3, 0, 2, 3, 1, 2, 3}};
  const Points around{4, 3, {-1, -1, -1, 2, 0, 0, 0.5, 0.5, 0.5, 0.6, -0.5, 0.2}};
  EXPECT_EQ(reach(tetrahedron, &surface, around).outside, 0u);
  const Cells polyline{2, 2, {0, 1, 1, 2}};
  EXPECT_EQ(reach(tetrahedron, &polyline, around).outside, 1u);  // beyond its end at the origin
}

// The two builds of a cluster's solve give the same weights, to rounding,
// for every basis; the processor's own is the one used.
TEST(MappingTest, BothBuildsOfTheLocalSolveAgree) {
#ifdef LOCKSTEP_WIDE_LOCAL
  if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) GTEST_SKIP() << "no AVX2 and FMA here";
  EXPECT_EQ(local_solver(), &wide::solve);
  const Points from = random_points(55, 3, 5), to = random_points(40, 3, 6);
  std::vector<std::size_t> sources(from.count), targets(to.count);
  std::iota(sources.begin(), sources.end(), 0);
  std::iota(targets.begin(), targets.end(), 0);
  for (const Basis basis : {Basis::kQuintic, Basis::kThinPlateSpline, Basis::kGaussian, Basis::kWendlandC2}) {
    const Local local{{basis, 2, 1.5}, true, 3, from.coordinates.data(), sources.data(), sources.size(),
                      to.coordinates.data(), targets.data(), targets.size()};
    std::vector<double> narrow(from.count * to.count), wide(narrow.size());
    ASSERT_TRUE(baseline::solve(local, narrow.data()));
    ASSERT_TRUE(wide::solve(local, wide.data()));
    double largest = 0, difference = 0;
    for (std::size_t i = 0; i < narrow.size(); ++i) {
      largest = std::max(largest, std::abs(narrow[i]));
      difference = std::max(difference, std::abs(narrow[i] - wide[i]));
    }
    EXPECT_LT(difference, 1e-9 * largest) << static_cast<int>(basis);
    EXPECT_NE(narrow, wide) << "the same rounding: is the wide build the baseline?";
  }
#else
  EXPECT_EQ(local_solver(), &baseline::solve);
#endif
}

// Weights are kept under a key of everything they depend on: the same
// numbers read as another mesh, or with other cells or words, name other
// weights.
TEST(MappingTest, AKeyChangesWithEverythingTheWeightsDependOn) {
  const Points line{6, 1, {0, 1, 2, 3, 4, 5}}, plane{3, 2, {0, 1, 2, 3, 4, 5}}, to{2, 1, {0.5, 1.5}};
  const Cells segments{1, 2, {0, 1}}, other_segments{1, 2, {1, 2}};
  const Method nearest = method_of({{"map", "nearest-neighbour"}, {"from-mesh", "a"}, {"to-mesh", "b"}});
  const Method rbf = method_of({{"map", "rbf"}, {"from-mesh", "a"}, {"to-mesh", "b"}});
  const std::string key = weights_key({nearest, &line, nullptr, &to, nullptr, "main a -> sub1 b"});
  EXPECT_EQ(weights_key({nearest, &line, nullptr, &to, nullptr, "another description"}), key);
  const Mapping others[] = {
      {nearest, &plane, nullptr, &to, nullptr, ""},        {rbf, &line, nullptr, &to, nullptr, ""},   
      {nearest, &line, &segments, &to, nullptr, ""},       {nearest, &line, nullptr, &to, &segments, ""},
      {nearest, &to, nullptr, &line, nullptr, ""},
  };
  std::set<std::string> keys{key};
  for (const Mapping& other : others) keys.insert(weights_key(other));
  EXPECT_EQ(keys.size(), std::size(others) + 1);
  EXPECT_NE(weights_key({nearest, &line, &segments, &to, nullptr, ""}),
            weights_key({nearest, &line, &other_segments, &to, nullptr, ""}));
}

// Weights are checked before use: each fault names its target point.
TEST(MappingTest, WeightsThatFailTheirMethodAreRefused) {
  const Points line{4, 1, {0, 1, 2, 3}}, target{2, 1, {2.9, 1}};
  const auto weights_of = [](std::vector<Column> columns, std::vector<double> values) {
    Weights weights;
    weights.columns = 4;
    weights.add_row({3}, {1.0});
    weights.add_row(columns, values);
    return weights;
  };
  // Nearest-neighbour rows are checked for their sums only: their position
  // is the nearest point by construction.
  const Method nearest = method_of({{"map", "nearest-neighbour"}, {"from-mesh", "a"}, {"to-mesh", "b"}});
  const Method rbf = method_of({{"map", "rbf"}, {"from-mesh", "a"}, {"to-mesh", "b"}});
  Method unpolished = method_of({{"map", "rbf"}, {"polynomial", "off"}, {"from-mesh", "a"}, {"to-mesh", "b"}});
  const struct {
    const Method& method;
    Weights weights;
    std::string error;
  } cases[] = {
      {rbf, weights_of({1}, {1.0}), ""},
      {rbf, weights_of({0, 2}, {0.5, 0.5}), ""},
      {nearest, weights_of({3}, {1.0}), ""},
      {rbf, weights_of({0, 1}, {0.5, 0.5}),
       "the weights of target point 1 (1) map it to a point 0.5 from it, farther than its nearest source point (0): "
       "the method failed on this mesh"},
      {rbf, weights_of({3}, {1.0}),
       "the weights of target point 1 (1) map it to a point 2 from it, farther than its nearest source point (0): "
       "the method failed on this mesh"},
      {nearest, weights_of({1}, {0.5}), "the weights of target point 1 (1) sum to 0.5, not 1: the method failed on "
                                        "this mesh"},
      {nearest, weights_of({1}, {NAN}), "the weights of target point 1 (1) are not finite"},
      {unpolished, weights_of({1}, {0.5}), ""},
      {unpolished, weights_of({1}, {INFINITY}), "the weights of target point 1 (1) are not finite"},
      {rbf, weights_of({4}, {1.0}), "the weights name a point outside the meshes"},
  };
  for (const auto& c : cases) {
    Deviation largest;
    EXPECT_EQ(check_weights(c.method, line, target, c.weights.view(), largest), c.error);
  }
  Weights three_rows = weights_of({1}, {1.0});
  three_rows.add_row({1}, {1.0});
  Deviation ignored;
  EXPECT_EQ(check_weights(rbf, line, target, three_rows.view(), ignored), "the weights name a point outside the meshes");
  // A conservative map is checked as the consistent map it transposes.
  Method conservative = rbf;
  conservative.conservative = true;
  Deviation largest;
  EXPECT_EQ(check_weights(conservative, target, line, weights_of({1}, {1.0}).transposed().view(), largest), "");
  EXPECT_EQ(check_weights(conservative, target, line, weights_of({3}, {1.0}).transposed().view(), largest),
            "the weights of target point 1 (1) map it to a point 2 from it, farther than its nearest source point "
            "(0): the method failed on this mesh");
}

// Keeps what it is given in vectors of its own, or refuses.
struct VectorRoom : Room {
  explicit VectorRoom(bool takes) : open(takes) {}
  bool take(std::size_t count, Column*& columns_out, double*& values_out) override {
    if (!open) return false;
    columns.resize(count);
    values.resize(count);
    columns_out = columns.data();
    values_out = values.data();
    return true;
  }
  bool open;
  std::vector<Column> columns;
  std::vector<double> values;
};

// Weights read back or made are sound before any row is applied: offsets
// from 0 rising to the number of values, columns within the source mesh.
TEST(MappingTest, UnsoundOffsetsAndColumnsAreNamed) {
  struct Case {
    std::size_t rows;
    std::vector<std::int64_t> row_start;
    std::vector<Column> columns;
    const char* defect;
  };
  const char* const offsets = "its row offsets do not match its values";
  const char* const outside = "a column lies outside the source mesh";
  for (const Case& c : {Case{2, {0, 1, 3}, {0, 1, 2}, nullptr}, Case{2, {1, 1, 3}, {0, 1, 2}, offsets},
                        Case{2, {0, 1, 2}, {0, 1, 2}, offsets}, Case{2, {0, 1, 2, 3}, {0, 1, 2}, offsets},
                        Case{3, {0, 2, 1, 3}, {0, 1, 2}, "its row offsets fall"},
                        Case{2, {0, 2, 3}, {0, 3, 2}, outside}, Case{2, {0, 2, 3}, {0, -1, 2}, outside}}) {
    Weights weights;
    weights.rows = c.rows;
    weights.columns = 3;
    weights.row_start = c.row_start;
    weights.column_of.assign(c.columns.begin(), c.columns.end());
    weights.value.assign(3, 0.5);
    EXPECT_STREQ(weights.defect(), c.defect) << ::testing::PrintToString(c.row_start);
  }
}

// Enough points for several batches of clusters, each solved, merged and
// its memory passed on while others are still needed; rbf's targets are
// solved in chunks of 1024: 2500 of them take three.
TEST(MappingTest, TheRbfMethodsFillTheRoomTheyAreOfferedOrMemoryOfTheirOwn) {
  struct Case {
    const char* kind;
    std::size_t sources, targets;
  };
  Method method;
  Points from, to;
  for (const Case& c : {Case{"rbf", 300, 2500}, Case{"rbf-pum", 6000, 3000}}) {
    SCOPED_TRACE(c.kind);
    from = random_points(c.sources, 3, 3);
    to = random_points(c.targets, 3, 4);
    method = method_of({{"map", c.kind}, {"from-mesh", "a"}, {"to-mesh", "b"}});
    Weights own, placed, refused;
    ASSERT_EQ(compute_weights(method, from, nullptr, to, nullptr, own), "");
    VectorRoom taking(true), full(false);
    ASSERT_EQ(compute_weights(method, from, nullptr, to, nullptr, placed, &taking), "");
    ASSERT_EQ(compute_weights(method, from, nullptr, to, nullptr, refused, &full), "");
    EXPECT_TRUE(placed.column_of.empty() && placed.value.empty());
    EXPECT_EQ(placed.row_start, own.row_start);
    EXPECT_EQ(taking.columns, std::vector<Column>(own.column_of.begin(), own.column_of.end()));
    EXPECT_EQ(taking.values, std::vector<double>(own.value.begin(), own.value.end()));
    EXPECT_EQ(refused.column_of, own.column_of);
    EXPECT_EQ(refused.value, own.value);
    EXPECT_EQ(own.defect(), nullptr);
    const std::vector<double> source = sampled(from, linear_field);
    std::vector<double> target(to.count);
    own.apply(source.data(), 1, target.data());
    for (std::size_t row = 0; row < to.count; ++row) ASSERT_NEAR(target[row], linear_field(to.at(row)), 1e-7) << row;
  }
  // Dense weights past 100,000,000 are refused before any is made.
  Weights none;
  EXPECT_EQ(compute_weights(method_of({{"map", "rbf"}, {"from-mesh", "a"}, {"to-mesh", "b"}}),
                            random_points(10000, 3, 5), nullptr, random_points(10001, 3, 6), nullptr, none),
            "map=rbf gives each of the 10001 target points a weight for each of the 10000 source points, more than "
            "100000000 weights in all: use map=rbf-pum");
  // A conservative map is a transpose made in memory: the room stays empty.
  Method conservative = method;
  conservative.conservative = true;
  VectorRoom unused(true);
  Weights transposed;
  ASSERT_EQ(compute_weights(conservative, from, nullptr, to, nullptr, transposed, &unused), "");
  EXPECT_TRUE(unused.columns.empty());
  EXPECT_EQ(transposed.defect(), nullptr);
}

// A mesh is read into its points, as written or axis after axis; a wrong
// shape is refused before anything is read into it, a reader's failure
// passes through, and each error names the field and its project.
TEST(MappingTest, AMeshIsReadWhereItStaysAndItsFaultsAreNamed) {
  struct Stored {
    fields::Header header;
    std::vector<double> values;
  };
  std::map<std::string, Stored> stored = {
      {"rows", {{fields::Type::kFloat64, false, {3, 2}, {}}, {1, 10, 2, 20, 3, 30}}},
      {"by-axis", {{fields::Type::kFloat64, true, {3, 2}, {}}, {1, 2, 3, 10, 20, 30}}},
      {"wide", {{fields::Type::kFloat64, false, {1, 4}, {}}, {1, 2, 3, 4}}},
      {"nan", {{fields::Type::kFloat64, false, {2, 1}, {}}, {1, NAN}}},
  };
  int written = 0;
  const FieldReader read = [&](int, const std::string& name, fields::Header& header, const fields::Destination& into,
                               std::string& error) {
    if (stored.count(name) == 0) {
      error = "no field " + name;
      return false;
    }
    header = stored.at(name).header;
    void* values = into(header, error);
    if (values == nullptr) return false;
    std::memcpy(values, stored.at(name).values.data(), stored.at(name).values.size() * sizeof(double));
    ++written;
    return true;
  };
  std::optional<Cells> cells;
  for (const char* name : {"rows", "by-axis"}) {
    Points points;
    std::string error;
    ASSERT_TRUE(read_mesh(read, 1, name, nullptr, points, cells, error)) << error;
    EXPECT_EQ(points.coordinates, (std::vector<double>{1, 10, 2, 20, 3, 30})) << name;
  }
  const std::pair<const char*, const char*> faults[] = {
      {"wide", "mesh \"wide\" of sub1: a mesh has shape (n,) or (n, d) with d 1, 2 or 3, not (1, 4)"},
      {"nan", "mesh \"nan\" of sub1: point 1 has a coordinate that is not finite (nan)"},
      {"missing", "no field missing"},
  };
  for (const auto& [name, message] : faults) {
    Points points;
    std::string error;
    EXPECT_FALSE(read_mesh(read, 1, name, nullptr, points, cells, error));
    EXPECT_EQ(error, message);
  }
  EXPECT_EQ(written, 3);  // the wide mesh was never read
}

// rbf-pum's cells in space are those of the nearest body-centred lattice
// point, found here by trying every candidate; lines and planes keep
// squares; points beyond the lattice's range have none.
TEST(MappingTest, ClusterCellsAreTheNearestLatticePoints) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> coordinate(0, 50);
  for (int trial = 0; trial < 3000; ++trial) {
    const double u[3] = {coordinate(random), coordinate(random), coordinate(random)};
    const auto cell = lattice_cell(u, 3);
    ASSERT_TRUE(cell.has_value());
    double best = INFINITY;
    std::array<std::int64_t, 3> nearest{};
    // Lattice points in half steps: all three coordinates even or all odd.
    for (std::int64_t parity = 0; parity < 2; ++parity) {
      for (std::int64_t x = -2; x <= 2; ++x) {
        for (std::int64_t y = -2; y <= 2; ++y) {
          for (std::int64_t z = -2; z <= 2; ++z) {
            const std::array<std::int64_t, 3> c{2 * (static_cast<std::int64_t>(u[0]) + x) + parity,
                                                 2 * (static_cast<std::int64_t>(u[1]) + y) + parity,
                                                 2 * (static_cast<std::int64_t>(u[2]) + z) + parity};
            double squared = 0;
            for (int k = 0; k < 3; ++k) squared += std::pow(u[k] - 0.5 * static_cast<double>(c[k]), 2);
            if (squared < best) {
              best = squared;
              nearest = c;
            }
          }
        }
      }
    }
    ASSERT_EQ(*cell, nearest) << u[0] << " " << u[1] << " " << u[2];
    ASSERT_LE(std::sqrt(best), std::sqrt(5.0) / 4 + 1e-12);
  }
  const double plane[2] = {3.99, 0.5};
  EXPECT_EQ(lattice_cell(plane, 2), (std::array<std::int64_t, 3>{3, 0, 0}));
  const double far[3] = {1, 0x1p61, 1}, nan[3] = {1, NAN, 1};
  EXPECT_FALSE(lattice_cell(far, 3).has_value());
  EXPECT_FALSE(lattice_cell(nan, 3).has_value());
}

}  // namespace
}  // namespace lockstep::mapping
