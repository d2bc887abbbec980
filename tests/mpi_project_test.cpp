// The MPI project library on three ranks (mpirun -n 3), each test run by
// every rank: requests written as the driver writes them, inputs as an
// interaction program writes them, and what every rank gets checked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <numeric>

#include "fields/access.h"
#include "fields/store.h"
#include "handshake/go_files.h"
#include "mpi/parallel_project.h"

namespace lockstep::mpi {
namespace {

using fields::Outcome;
using fields::Type;
using testing::HasSubstr;

std::string base_directory;  // shared by every rank

int world_rank() {
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  return rank;
}

void write_file(const std::filesystem::path& path, const std::string& content) {
  std::ofstream(path) << content;
}

// A fresh project directory sub1 for this test, on every rank; rank 0 makes
// it, with `request` pending when given.
std::string project_directory(const std::string& test, std::optional<project::Request> request = {}) {
  const std::filesystem::path directory = std::filesystem::path(base_directory) / test / "sub1";
  if (world_rank() == 0) {
    std::filesystem::create_directories(directory);
    write_file(directory / "go2.dat", handshake::reset_record());
    write_file(directory / "go.dat", request ? handshake::stage_record(request->cycle, request->time_step,
                                                                       request->stage)
                                             : handshake::reset_record());
  }
  MPI_Barrier(MPI_COMM_WORLD);
  return directory.string();
}

// The input `name` as sub1's interaction program writes it for `request`.
void write_input(const std::string& directory, const std::string& name, const project::Request& request,
                 const fields::Values& values) {
  if (world_rank() != 0) return;
  std::string error;
  ASSERT_EQ(fields::put_field(name, fields::field_path(directory, fields::Role::kInput, name),
                              {1, fields::Role::kInput, request}, values, error),
            Outcome::kOk)
      << error;
}

std::unique_ptr<Project> open_project(const std::string& directory) {
  std::string error;
  auto project = Project::open(directory, MPI_COMM_WORLD, error);
  EXPECT_TRUE(project) << error;
  return project;
}

constexpr project::Request kRequest{1, 1, 1};

// Rank r has r rows of two columns, given in column-major order as Fortran
// gives them; the file holds them row-major in rank order, and an input with
// the same parts gives each rank its own rows back, in either order.
TEST(ParallelProjectTest, ColumnMajorPartsGoInRankOrderAndComeBackToTheirRanks) {
  const std::string directory = project_directory("parts", kRequest);
  auto project = open_project(directory);
  ASSERT_TRUE(project);
  project::Request request;
  ASSERT_EQ(project->wait(request), project::WaitResult::kRequest) << project->error();
  EXPECT_EQ(request, kRequest);
  const int rank = project->rank();
  // Row i of rank r is (10r + i, 100 + 10r + i); column-major: first column, then second.
  std::vector<std::int32_t> mine;
  for (int column = 0; column < 2; ++column) {
    for (int row = 0; row < rank; ++row) mine.push_back(column * 100 + 10 * rank + row);
  }
  ASSERT_EQ(project->put("pairs", {Type::kInt32, {rank, 2}, true, mine.data()}), Outcome::kOk) << project->error();

  fields::Header header;
  std::vector<char> stored;
  std::string error;
  if (rank == 0) {
    ASSERT_EQ(fields::read_field(fields::field_path(directory, fields::Role::kOutput, "pairs"), header,
                                 fields::into_buffer(stored), error),
              fields::ReadOutcome::kRead);
    EXPECT_EQ(header.shape, (std::vector<std::int64_t>{3, 2}));
    EXPECT_EQ(header.parts, (std::vector<std::int64_t>{0, 1, 2}));
    EXPECT_FALSE(header.column_major);
    const auto* values = reinterpret_cast<const std::int32_t*>(stored.data());
    EXPECT_EQ(std::vector<std::int32_t>(values, values + 6), (std::vector<std::int32_t>{10, 110, 20, 120, 21, 121}));
  }
  write_input(directory, "pairs", kRequest,
              {Type::kInt32, {3, 2}, false, stored.data(), {0, 1, 2}});
  std::vector<std::int32_t> back(mine.size(), -1);
  ASSERT_EQ(project->get("pairs", {Type::kInt32, {rank, 2}, true, back.data()}), Outcome::kOk) << project->error();
  EXPECT_EQ(back, mine);
  // Any shape: the rows of this rank, row-major, with the file's stamp.
  std::vector<char> rows;
  ASSERT_EQ(project->get("pairs", fields::into_buffer(rows), header), Outcome::kOk) << project->error();
  EXPECT_EQ(header.shape, (std::vector<std::int64_t>{rank, 2}));
  EXPECT_EQ(header.stamp, (fields::Stamp{1, fields::Role::kInput, kRequest}));
  EXPECT_EQ(rows.size(), static_cast<std::size_t>(rank) * 2 * sizeof(std::int32_t));
  EXPECT_EQ(project->done(), project::DoneResult::kDone) << project->error();
}

// The rule for how recent an input must be reaches rank 0, which reads it,
// through either kind of get.
TEST(ParallelProjectTest, AnInputOfAnEarlierRequestIsStaleUnlessAnyTimeIsAccepted) {
  const std::string directory = project_directory("accept", kRequest);
  auto project = open_project(directory);
  ASSERT_TRUE(project);
  project::Request request;
  ASSERT_EQ(project->wait(request), project::WaitResult::kRequest) << project->error();
  std::int32_t constant = 7, got = 0;
  write_input(directory, "constant", fields::kStartRequest, {Type::kInt32, {1}, false, &constant});
  std::vector<char> rows;
  fields::Header header;
  EXPECT_EQ(project->get("constant", fields::into_buffer(rows), header, fields::Accept::kAny), Outcome::kOk)
      << project->error();
  EXPECT_EQ(project->get("constant", {Type::kInt32, {1}, false, &got}, fields::Accept::kAny), Outcome::kOk)
      << project->error();
  EXPECT_EQ(got, 7);
  EXPECT_EQ(project->get("constant", {Type::kInt32, {1}, false, &got}), Outcome::kStale);
  EXPECT_THAT(project->error(), HasSubstr("input \"constant\" of sub1 is stale"));
}

// An input without parts reaches every rank whole; a rank that asks for
// other rows fails the call on every rank, and nothing is done after it.
TEST(ParallelProjectTest, AnInputWithoutPartsIsWholeOnEveryRankAndAWrongShapeStopsAll) {
  const std::string directory = project_directory("whole", kRequest);
  auto project = open_project(directory);
  ASSERT_TRUE(project);
  project::Request request;
  ASSERT_EQ(project->wait(request), project::WaitResult::kRequest) << project->error();
  std::vector<double> whole(5);
  std::iota(whole.begin(), whole.end(), 1.0);
  write_input(directory, "scale", kRequest, {Type::kFloat64, {5}, false, whole.data()});
  std::vector<double> got(5, 0.0);
  ASSERT_EQ(project->get("scale", {Type::kFloat64, {5}, false, got.data()}), Outcome::kOk) << project->error();
  EXPECT_EQ(got, whole);

  const std::int64_t asked = project->rank() == 2 ? 4 : 5;
  EXPECT_EQ(project->get("scale", {Type::kFloat64, {asked}, false, got.data()}), Outcome::kError);
  EXPECT_EQ(project->error(),
            "rank 2 of 3 asks for its rows of input \"scale\" of sub1 as float64 values of shape (4,), but they are "
            "float64 values of shape (5,) (the input has no parts: every rank gets it whole)");
  EXPECT_EQ(project->done(), project::DoneResult::kError);
  EXPECT_THAT(project->error(), HasSubstr("the project stopped at an earlier failure: rank 2 of 3 asks for"));
  if (project->rank() == 0) {
    EXPECT_EQ(project::parse_go_record(project::read_go_file(directory + "/go2.dat").content).kind,
              project::GoRecord::Kind::kReset);
  }
}

// Ranks that call different things fail together, each told which rank
// did what; so do parts of another type, and a rank's own bad call.
TEST(ParallelProjectTest, CallsThatDoNotMatchFailOnEveryRankNamingTheRank) {
  struct Case {
    const char* test;
    std::function<Outcome(Project&)> call;
    std::string message;
  };
  double value = 1.0;
  const std::vector<Case> cases = {
      {"done-while-put",
       [&](Project& project) {
         if (project.rank() == 1) return project.done() == project::DoneResult::kDone ? Outcome::kOk : Outcome::kError;
         return project.put("a", {Type::kFloat64, {1}, false, &value});
       },
       "rank 1 of 3 called done where rank 0 called put(\"a\"): every rank makes the same calls of the project, "
       "in the same order"},
      {"another-type",
       [&](Project& project) {
         return project.put("a", {project.rank() == 2 ? Type::kInt64 : Type::kFloat64, {1}, false, &value});
       },
       "rank 2 of 3 puts \"a\" as int64 values of shape (1,), rank 0 as float64 values of shape (1,): the ranks' "
       "parts of a field have one type and the same extents after the first"},
      {"bad-name",
       [&](Project& project) {
         return project.put(project.rank() == 1 ? "../a" : "a", {Type::kFloat64, {1}, false, &value});
       },
       "rank 1 of 3: the field name \"../a\" is not allowed: use letters, digits, '_', '-' and '.', not starting "
       "with '.'"},
      {"scalar",
       [&](Project& project) { return project.put("a", {Type::kFloat64, {}, false, &value}); },
       "rank 0 of 3: field \"a\": a rank's rows have 1 to 8 dimensions, the first counting its rows, not 0 (put a "
       "single value as shape (1,) from one rank and (0,) from the others)"},
  };
  for (const Case& c : cases) {
    auto project = open_project(project_directory(c.test));
    ASSERT_TRUE(project);
    EXPECT_EQ(c.call(*project), Outcome::kError) << c.test;
    EXPECT_EQ(project->error(), c.message) << c.test;
    EXPECT_FALSE(project->checkpoint());
  }
}

}  // namespace
}  // namespace lockstep::mpi

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  testing::InitGoogleTest(&argc, argv);
  // Only rank 0 reports; every rank runs every test.
  if (lockstep::mpi::world_rank() != 0) {
    delete testing::UnitTest::GetInstance()->listeners().Release(
        testing::UnitTest::GetInstance()->listeners().default_result_printer());
  }
  char made[] = "/tmp/lockstep-mpi-test.XXXXXX";
  if (lockstep::mpi::world_rank() == 0 && mkdtemp(made) == nullptr) MPI_Abort(MPI_COMM_WORLD, 1);
  MPI_Bcast(made, sizeof made, MPI_CHAR, 0, MPI_COMM_WORLD);
  lockstep::mpi::base_directory = made;
  const int failed = RUN_ALL_TESTS();
  int any = 0;
  MPI_Allreduce(&failed, &any, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
  if (lockstep::mpi::world_rank() == 0) std::filesystem::remove_all(made);
  MPI_Finalize();
  return any;
}
