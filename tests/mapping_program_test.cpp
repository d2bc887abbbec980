// lockstep-exchange mapping between meshes that do not match: what it
// writes, the weights it keeps and computes anew, and every fault of a
// mapping line, each refused with its line number and nothing written.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "fields/store.h"
#include "resume/checkpoint.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

using fields::Role;
using fields::Type;

class MappingRunTest : public ::testing::Test {
 protected:
  MappingRunTest() {
    tree.settings(1, 1, 1);
    tree.projects(1, "");
  }
  // An output of `project`, published before the first request.
  template <typename T>
  void publish(int project, const std::string& name, Type type, std::vector<std::int64_t> shape,
               const std::vector<T>& values) {
    std::string error;
    ASSERT_TRUE(fields::write_field(fields::field_path(tree.project(project).string(), Role::kOutput, name),
                                    {type, false, std::move(shape), {project, Role::kOutput, {0, 0, 0}}},
                                    values.data(), error))
        << error;
  }
  Exit exchange(const std::string& table) {
    write_file(tree.run() / "exchange.dat", table);
    return run_program({EXCHANGE_BINARY, "1", "1", "1", "1"}, tree.run());
  }
  std::vector<double> input(const std::string& name, std::vector<std::int64_t>* shape = nullptr) {
    fields::Header header;
    std::vector<char> bytes;
    std::string error;
    EXPECT_EQ(fields::read_field(fields::field_path(tree.project(1).string(), Role::kInput, name), header,
                                 fields::into_buffer(bytes), error),
              fields::ReadOutcome::kRead)
        << error;
    if (shape != nullptr) *shape = header.shape;
    const auto* first = reinterpret_cast<const double*>(bytes.data());
    return std::vector<double>(first, first + bytes.size() / sizeof(double));
  }
  std::size_t kept_weights() {
    std::error_code error;
    const auto folder = tree.run() / "mappings";
    return std::filesystem::exists(folder) ? static_cast<std::size_t>(std::distance(
                                                 std::filesystem::directory_iterator(folder, error), {}))
                                           : 0;
  }
  RunTree tree;
};

// Nearest points on a line, two components each; the weights are kept,
// used again, and computed anew when the target mesh changes.
TEST_F(MappingRunTest, ValuesFollowTheMeshesAndWeightsAreKeptPerMesh) {
  publish<double>(0, "x", Type::kFloat64, {4}, {0, 1, 2, 3});
  publish<double>(0, "u", Type::kFloat64, {4, 2}, {10, -10, 11, -11, 12, -12, 13, -13});
  publish<double>(0, "w", Type::kFloat64, {4}, {5, 6, 7, 8});
  publish<double>(1, "y", Type::kFloat64, {3}, {2.9, 0.2, 1.6});
  // Two lines over the same meshes share their weights: one field of two
  // components, one of one, each applied its own way.
  const std::string table = "main u sub1 v map=nearest-neighbour from-mesh=x to-mesh=y\n"
                            "main w sub1 z map=nearest-neighbour from-mesh=x to-mesh=y\n";
  const Exit first = exchange(table);
  ASSERT_EQ(first.status, 0) << first.err;
  std::vector<std::int64_t> shape;
  EXPECT_EQ(input("v", &shape), (std::vector<double>{13, -13, 10, -10, 12, -12}));
  EXPECT_EQ(shape, (std::vector<std::int64_t>{3, 2}));
  EXPECT_EQ(input("z"), (std::vector<double>{8, 5, 7}));
  EXPECT_EQ(kept_weights(), 1u);
  // A later stage loads the stored weights, files and all: each file is
  // still the one linked beside the run, not one computed anew and renamed
  // over it (the file system may give a new file a freed inode's number).
  const std::filesystem::path links = tree.run().parent_path() / "links";
  std::filesystem::create_directory(links);
  std::size_t linked = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(tree.run() / "mappings")) {
    if (entry.is_regular_file()) std::filesystem::create_hard_link(entry.path(), links / std::to_string(linked++));
  }
  ASSERT_EQ(linked, 4u);
  ASSERT_EQ(exchange(table).status, 0);
  EXPECT_EQ(kept_weights(), 1u);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(tree.run() / "mappings")) {
    if (entry.is_regular_file()) {
      EXPECT_EQ(entry.hard_link_count(), 2u) << entry.path();
    }
  }
  // The weights described: what they map, their size, their row sums.
  const std::filesystem::path kept = std::filesystem::directory_iterator(tree.run() / "mappings")->path();
  const Exit described = run_program({LOCKSTEPCTL_BINARY, "field", "weights", kept.string()}, tree.run());
  EXPECT_EQ(described.status, 0) << described.err;
  EXPECT_THAT(described.out, ::testing::StartsWith("main x -> sub1 y\nmap=nearest-neighbour constraint=consistent\n"
                                                   "rows 3 (target points), columns 4 (source points), values 3\n"
                                                   "checked: row sums at most 0 from 1, mapped positions at most 0 "
                                                   "farther from their targets than the nearest source point\n"
                                                   "checksum 28e5609f7c746c6f70134785799e5cdd\n"
                                                   "row sums from 1 to 1\n"));
  const Exit parent = run_program({LOCKSTEPCTL_BINARY, "field", "weights", "mappings"}, tree.run());
  EXPECT_EQ(parent.status, 1);
  EXPECT_EQ(parent.err, "lockstepctl field: mappings holds the weights of 1 mapping in directories of their own: give "
                        "one of them (mappings/" + kept.filename().string() + ")\n");
  const Exit nothing = run_program({LOCKSTEPCTL_BINARY, "field", "weights", tree.run().string()}, tree.run());
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(nothing.err, "lockstepctl field: " + tree.run().string() + " holds no weights that lockstep-exchange "
                         "wrote (about.txt, indptr.npy, indices.npy, data.npy): remove it, and the next stage computes "
                         "them again\n");
  // check says what the line maps, and how far the targets are.
  EXPECT_THAT(run_program({LOCKSTEPCTL_BINARY, "check", "."}, tree.run()).out,
              HasSubstr("\nmappings:\n  exchange.dat:1: nearest-neighbour, main x (4 points) to sub1 y (3 points): "
                        "largest distance to a source point 0.4, 0 target points outside the source mesh\n"));
  // The target project re-meshes with as many points: new weights.
  publish<double>(1, "y", Type::kFloat64, {3}, {0.1, 1.2, 2.2});
  ASSERT_EQ(exchange(table).status, 0);
  EXPECT_EQ(input("v"), (std::vector<double>{10, -10, 11, -11, 12, -12}));
  EXPECT_EQ(kept_weights(), 2u);
  // Damaged weights are not applied: they are computed again. A file that
  // is no array, and one whose columns lie outside the source mesh.
  for (const auto& entry : std::filesystem::directory_iterator(tree.run() / "mappings")) {
    write_file(entry.path() / "indices.npy", "damaged");
  }
  ASSERT_EQ(exchange(table).status, 0);
  EXPECT_EQ(input("v"), (std::vector<double>{10, -10, 11, -11, 12, -12}));
  for (const auto& entry : std::filesystem::directory_iterator(tree.run() / "mappings")) {
    std::string error;
    const std::vector<std::int32_t> outside = {0, 4000000, 2};
    ASSERT_TRUE(fields::write_field((entry.path() / "indices.npy").string(),
                                    {Type::kInt32, false, {3}, {0, Role::kOutput, {0, 0, 0}}}, outside.data(), error));
  }
  ASSERT_EQ(exchange(table).status, 0);
  EXPECT_EQ(input("v"), (std::vector<double>{10, -10, 11, -11, 12, -12}));
  // Columns within the mesh and rows that still sum to 1, but not the
  // columns written: the checksum tells, and so does its absence.
  for (const bool without_checksum : {false, true}) {
    for (const auto& entry : std::filesystem::directory_iterator(tree.run() / "mappings")) {
      std::string error;
      const std::vector<std::int32_t> moved = {0, 0, 0};
      ASSERT_TRUE(fields::write_field((entry.path() / "indices.npy").string(),
                                      {Type::kInt32, false, {3}, {0, Role::kOutput, {0, 0, 0}}}, moved.data(), error));
      const std::string about = read_file(entry.path() / "about.txt");
      if (without_checksum) write_file(entry.path() / "about.txt", about.substr(0, about.find("checksum ")));
    }
    ASSERT_EQ(exchange(table).status, 0);
    EXPECT_EQ(input("v"), (std::vector<double>{10, -10, 11, -11, 12, -12})) << without_checksum;
  }
  // Weights that are not finite, or whose rows do not sum to 1.
  for (const std::vector<double>& planted : {std::vector<double>{NAN, 1, 1}, std::vector<double>{1, 1, 1e300},
                                             std::vector<double>{1, 0.5, 1}}) {
    for (const auto& entry : std::filesystem::directory_iterator(tree.run() / "mappings")) {
      std::string error;
      ASSERT_TRUE(fields::write_field((entry.path() / "data.npy").string(),
                                      {Type::kFloat64, false, {3}, {0, Role::kOutput, {0, 0, 0}}}, planted.data(),
                                      error));
    }
    ASSERT_EQ(exchange(table).status, 0);
    EXPECT_EQ(input("v"), (std::vector<double>{10, -10, 11, -11, 12, -12})) << planted[0];
  }
}

// A whole run for ParaView: a collection per mesh a mapping names, over
// the checkpoints and the fields as they stand, the inputs beside the
// outputs.
TEST_F(MappingRunTest, TheWholeRunExportsACollectionPerMeshOverTheStagesKept) {
  publish<double>(0, "x", Type::kFloat64, {3}, {0, 1, 2});
  publish<std::int32_t>(0, "seg", Type::kInt32, {2, 2}, {0, 1, 1, 2});
  publish<double>(0, "T", Type::kFloat64, {3}, {1, 2, 3});
  publish<double>(1, "y", Type::kFloat64, {2}, {0.5, 1.5});
  ASSERT_EQ(exchange("main T sub1 T map=linear from-mesh=x from-cells=seg to-mesh=y\n").status, 0);
  std::string error;
  // sub1's fields as they stand are its checkpoint's: one step, not two.
  for (const int project : {0, 1}) ASSERT_TRUE(resume::record_checkpoint(tree.project(project).string(), 1, error)) << error;
  const std::vector<double> later = {4, 5, 6};
  ASSERT_TRUE(fields::write_field(fields::field_path(tree.project(0).string(), Role::kOutput, "T"),
                                  {Type::kFloat64, false, {3}, {0, Role::kOutput, {2, 1, 1}}}, later.data(), error));
  const Exit exported = run_program({LOCKSTEPCTL_BINARY, "field", "export", "--run", ".", "--output", "vtk"}, tree.run());
  ASSERT_EQ(exported.status, 0) << exported.err;
  EXPECT_EQ(exported.out, "wrote vtk/main-x-1.vtu\nwrote vtk/main-x-2.vtu\nwrote vtk/main-x.pvd\n"
                          "wrote vtk/sub1-y-1.vtu\nwrote vtk/sub1-y.pvd\n");
  const auto vtk = tree.run() / "vtk";
  EXPECT_EQ(read_file(vtk / "main-x.pvd"),
            "<?xml version=\"1.0\"?>\n<VTKFile type=\"Collection\" version=\"0.1\">\n<Collection>\n"
            "<DataSet timestep=\"1\" part=\"0\" file=\"main-x-1.vtu\"/>\n"
            "<DataSet timestep=\"2\" part=\"0\" file=\"main-x-2.vtu\"/>\n</Collection>\n</VTKFile>\n");
  EXPECT_THAT(read_file(vtk / "main-x-1.vtu"), HasSubstr("Name=\"T\" NumberOfComponents=\"1\" format=\"ascii\">\n1 2 3 \n"));
  EXPECT_THAT(read_file(vtk / "main-x-2.vtu"), HasSubstr("Name=\"T\" NumberOfComponents=\"1\" format=\"ascii\">\n4 5 6 \n"));
  EXPECT_THAT(read_file(vtk / "main-x-2.vtu"), HasSubstr("NumberOfPoints=\"3\" NumberOfCells=\"2\""));
  EXPECT_EQ(read_file(vtk / "sub1-y.pvd"),
            "<?xml version=\"1.0\"?>\n<VTKFile type=\"Collection\" version=\"0.1\">\n<Collection>\n"
            "<DataSet timestep=\"1\" part=\"0\" file=\"sub1-y-1.vtu\"/>\n</Collection>\n</VTKFile>\n");
  EXPECT_THAT(read_file(vtk / "sub1-y-1.vtu"),
              HasSubstr("Name=\"T (input)\" NumberOfComponents=\"1\" format=\"ascii\">\n1.5 2.5 \n"));
  // A table without a mapping names no mesh; nothing is a usage error.
  write_file(tree.run() / "exchange.dat", "main T sub1 T\n");
  const Exit no_mesh = run_program({LOCKSTEPCTL_BINARY, "field", "export", "--run", ".", "--output", "vtk"}, tree.run());
  EXPECT_EQ(no_mesh.status, 1);
  EXPECT_EQ(no_mesh.err, "lockstepctl field: ./exchange.dat names no mesh (map= lines with from-mesh= and to-mesh=): "
                         "export the fields of a mesh with --mesh instead\n");
  const Exit neither = run_program({LOCKSTEPCTL_BINARY, "field", "export", "--output", "vtk"}, tree.run());
  EXPECT_EQ(neither.status, 2);
  EXPECT_EQ(neither.err, "lockstepctl field export: give --mesh FILE and FIELD files, or --run RUN_DIR\n");
}

TEST_F(MappingRunTest, EveryFaultOfAMappingIsRefusedWithItsLine) {
  publish<double>(0, "xy", Type::kFloat64, {4, 2}, {0, 0, 1, 0, 0, 1, 1, 1});
  publish<double>(0, "twin", Type::kFloat64, {3, 2}, {0, 0, 1, 0, 0, 0});
  publish<double>(0, "bad", Type::kFloat64, {2, 2}, {0, 0, NAN, 1});
  publish<double>(0, "wide", Type::kFloat64, {2, 4}, {0, 0, 0, 0, 1, 1, 1, 1});
  publish<std::int64_t>(0, "ints", Type::kInt64, {4, 2}, {0, 0, 1, 0, 0, 1, 1, 1});
  publish<std::int32_t>(0, "tri", Type::kInt32, {2, 3}, {0, 1, 2, 1, 2, 4});
  publish<double>(0, "T", Type::kFloat64, {4}, {1, 2, 3, 4});
  publish<double>(0, "T3", Type::kFloat64, {3}, {1, 2, 3});
  publish<double>(0, "Tnan", Type::kFloat64, {4}, {1, 2, NAN, 4});
  publish<double>(0, "pair", Type::kFloat64, {2, 2}, {0, 0, 1, 1});
  publish<double>(0, "T2", Type::kFloat64, {2}, {1, 2});
  publish<std::int32_t>(0, "flat", Type::kInt32, {2, 3}, {0, 1, 2, 0, 3, 0});
  publish<double>(1, "xy", Type::kFloat64, {2, 2}, {0.5, 0.5, 0.2, 0.1});
  const struct {
    std::string words;
    std::string error;
    std::string output = "T";
  } cases[] = {
      {"map=cubic from-mesh=xy to-mesh=xy", "map=cubic is no method: use linear, nearest-neighbour, rbf, rbf-pum"},
      {"map=rbf basis=multiquadric from-mesh=xy to-mesh=xy",
       "basis=multiquadric is no basis: use gaussian, quintic, thin-plate-spline, wendland-c2, wendland-c4, "
       "wendland-c6"},
      {"map=rbf from-mesh=xy to-mesh=xy stiffness=2",
       "\"stiffness=\" is no mapping word: use map, constraint, from-mesh, to-mesh, from-cells, to-cells, basis, "
       "shape, radius, polynomial, cluster-size, overlap"},
      {"map=nearest-neighbour from-mesh=ints to-mesh=xy", "mesh \"ints\" of main: a mesh holds float64 "
                                                           "coordinates, not int64"},
      {"map=nearest-neighbour from-mesh=wide to-mesh=xy",
       "mesh \"wide\" of main: a mesh has shape (n,) or (n, d) with d 1, 2 or 3, not (2, 4)"},
      {"map=nearest-neighbour from-mesh=bad to-mesh=xy",
       "mesh \"bad\" of main: point 1 has a coordinate that is not finite (nan)"},
      {"map=linear from-mesh=xy from-cells=tri to-mesh=xy",
       "cells \"tri\" of main: cell 1 names point 4, but the mesh has points 0 to 3"},
      {"map=linear from-mesh=xy from-cells=flat to-mesh=xy",
       "cells \"flat\" of main: cell 1 (points 0, 3, 0) has no area: its points coincide or lie on one line; remove "
       "it"},
      {"map=rbf-pum from-mesh=pair to-mesh=xy", "too few source points for rbf-pum's clusters: use map=rbf", "T2"},
      {"map=rbf from-mesh=xy to-mesh=xy",
       "output \"Tnan\" of main holds NaN at point 2: a mapping needs finite values (has its solver blown up?)",
       "Tnan"},
      {"map=rbf from-mesh=twin to-mesh=xy",
       "source points 0 and 2 are at one place, which makes the RBF system singular: remove one", "T3"},
      {"map=nearest-neighbour from-mesh=xy to-mesh=xy",
       "output \"T3\" of main on mesh \"xy\": the values have shape (3,), but their mesh has 4 points: give (4,) "
       "or (4, k)", "T3"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words);
    const Exit run = exchange("# a mapping\nmain " + c.output + " sub1 T_in " + c.words + "\n");
    EXPECT_NE(run.status, 0);
    EXPECT_EQ(run.err, "lockstep-exchange: exchange.dat:2: " + c.error + "\n");
    EXPECT_FALSE(std::filesystem::exists(tree.project(1) / "fields/in/T_in.npy"));
  }
  // check finds the same faults before a run.
  write_file(tree.run() / "exchange.dat",
             "main T sub1 T_in map=linear from-mesh=xy to-mesh=xy\n"
             "main T3 sub1 T_a map=rbf from-mesh=twin to-mesh=xy\n"
             "main T sub1 T_b map=linear from-mesh=xy from-cells=tri to-mesh=xy\n"
             "main T3 sub1 T_c map=nearest-neighbour from-mesh=xy to-mesh=xy\n"
             "main T2 sub1 T_d map=rbf-pum from-mesh=pair to-mesh=xy\n");
  const Exit check = run_program({LOCKSTEPCTL_BINARY, "check", "."}, tree.run());
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(check.out, HasSubstr("exchange.dat:1: map=linear needs from-cells=, the source mesh's segments, "
                                   "triangles or tetrahedra\n"));
  EXPECT_THAT(check.out, HasSubstr("exchange.dat:2: source points 0 and 2 are at one place, which makes the RBF "
                                   "system singular: remove one\n"));
  EXPECT_THAT(check.out, HasSubstr("exchange.dat:3: cells \"tri\" of main: cell 1 names point 4, but the mesh has "
                                   "points 0 to 3\n"));
  EXPECT_THAT(check.out, HasSubstr("exchange.dat:4: output \"T3\" of main on mesh \"xy\": the values have shape (3,), "
                                   "but their mesh has 4 points: give (4,) or (4, k)\n"));
  EXPECT_THAT(check.out, HasSubstr("exchange.dat:5: too few source points for rbf-pum's clusters: use map=rbf\n"));
}

// Two sub projects' exchange programs computing the same weights at once:
// neither sees the other's half-written files, both write the same values,
// and one set of weights stays, with no temporary directory left.
TEST_F(MappingRunTest, ProgramsComputingTheSameWeightsAtOnceAgree) {
  tree.settings(1, 1, 2);
  tree.projects(2, "");
  std::vector<double> source(3 * 1500), target(3 * 1000), values(1500);
  unsigned state = 1;
  const auto next = [&state] { return (state = state * 1103515245u + 12345u) / 4294967296.0; };
  for (double& x : source) x = next();
  for (double& x : target) x = 0.05 + 0.9 * next();
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = source[3 * i] * source[3 * i + 1] + source[3 * i + 2];
  publish(0, "xyz", Type::kFloat64, {1500, 3}, source);
  publish(0, "T", Type::kFloat64, {1500}, values);
  publish(1, "xyz", Type::kFloat64, {1000, 3}, target);
  publish(2, "xyz", Type::kFloat64, {1000, 3}, target);
  write_file(tree.run() / "exchange.dat",
             "main T sub1 T map=rbf-pum from-mesh=xyz to-mesh=xyz\n"
             "main T sub2 T map=rbf-pum from-mesh=xyz to-mesh=xyz\n");
  for (int round = 0; round < 2; ++round) {
    std::filesystem::remove_all(tree.run() / "mappings");
    Background sub1({EXCHANGE_BINARY, "1", "1", "1", "1"}, tree.run()), sub2({EXCHANGE_BINARY, "2", "1", "1", "1"}, tree.run());
    ASSERT_EQ(sub1.wait(kStall), 0);
    ASSERT_EQ(sub2.wait(kStall), 0);
    const auto read = [&](int project) {
      fields::Header header;
      std::vector<char> bytes;
      std::string error;
      fields::read_field(fields::field_path(tree.project(project).string(), Role::kInput, "T"), header,
                         fields::into_buffer(bytes), error);
      return bytes;
    };
    EXPECT_EQ(read(1), read(2));
    EXPECT_EQ(read(1).size(), 1000 * sizeof(double));
    EXPECT_EQ(kept_weights(), 1u);
  }
}

// The weights' place is the run tree's own: a link there is not followed,
// a FIFO does not hang the reader, and the temporary directory of a writer
// that died is removed, that of a live one kept.
TEST_F(MappingRunTest, WeightsAreTakenFromTheRunTreeOnlyAndDeadWritersCleared) {
  namespace fs = std::filesystem;
  publish<double>(0, "x", Type::kFloat64, {4}, {0, 1, 2, 3});
  publish<double>(0, "u", Type::kFloat64, {4}, {10, 11, 12, 13});
  publish<double>(1, "y", Type::kFloat64, {3}, {2.9, 0.2, 1.6});
  const std::string table = "main u sub1 v map=nearest-neighbour from-mesh=x to-mesh=y\n";
  ASSERT_EQ(exchange(table).status, 0);
  const fs::path kept = fs::directory_iterator(tree.run() / "mappings")->path();
  // Sound weights elsewhere, mapping every target to point 0, behind a link.
  const fs::path elsewhere = tree.run().parent_path() / "elsewhere";
  fs::rename(kept, elsewhere);
  std::string error;
  const std::vector<std::int32_t> zeros = {0, 0, 0};
  ASSERT_TRUE(fields::write_field((elsewhere / "indices.npy").string(),
                                  {Type::kInt32, false, {3}, {0, Role::kOutput, {0, 0, 0}}}, zeros.data(), error));
  fs::create_directory_symlink(elsewhere, kept);
  ASSERT_EQ(exchange(table).status, 0);
  EXPECT_EQ(input("v"), (std::vector<double>{13, 10, 12}));
  EXPECT_FALSE(fs::is_symlink(kept));
  // A FIFO for about.txt: described as no weights, at once.
  fs::remove(kept / "about.txt");
  ASSERT_EQ(::mkfifo((kept / "about.txt").c_str(), 0600), 0);
  const Exit described = run_program({LOCKSTEPCTL_BINARY, "field", "weights", kept.string()}, tree.run());
  EXPECT_EQ(described.status, 1);
  EXPECT_THAT(described.err, ::testing::HasSubstr("holds no weights that lockstep-exchange wrote"));
  // Two writers' temporary directories a while old: one died, one holds
  // its lock.
  const fs::path dead = tree.run() / "mappings" / ".0123.0123456789abcdef.tmp";
  const fs::path live = tree.run() / "mappings" / ".0123.fedcba9876543210.tmp";
  for (const fs::path& directory : {dead, live}) {
    fs::create_directory(directory);
    write_file(directory / "data.npy", std::string(4096, 'x'));
    fs::last_write_time(directory, fs::file_time_type::clock::now() - std::chrono::minutes(5));
  }
  const int held = ::open(live.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  ASSERT_EQ(exchange(table).status, 0);
  EXPECT_FALSE(fs::exists(dead));
  EXPECT_TRUE(fs::exists(live / "data.npy"));
  ::close(held);
}

}  // namespace
}  // namespace lockstep::testing
