// The chain example's C++ solver in a real run whose interaction programs
// (lockstep-exchange behind a wrapper) go wrong in one stage: the solver
// that would read the stale input stops with the error that names it.
#include <nlohmann/json.hpp>

#include "fields/store.h"
#include "run_tree.h"

namespace lockstep::testing {
namespace {

// The chain's table: each block's boundary to its neighbour.
constexpr const char* kTable =
    "main last sub1 left\nsub1 first main right\nsub1 last sub2 left\nsub2 first sub1 right\n";

// A run of 3 cycles of 2 time steps over the chain's three blocks, each
// project's interaction program the shell `wrapper` around lockstep-exchange
// ($EXCHANGE); sub1's solver's exit status and stderr.
Exit run_with(RunTree& tree, const std::string& wrapper) {
  tree.settings(2, 3, 2);
  tree.projects(2, "#!/bin/sh\nEXCHANGE=" + std::string(EXCHANGE_BINARY) + "\n" + wrapper, "exchange.sh");
  write_file(tree.run() / "exchange.dat", kTable);
  std::vector<std::unique_ptr<Background>> solvers;
  for (int index = 0; index <= 2; ++index) {
    solvers.push_back(std::make_unique<Background>(
        std::vector<std::string>{CHAIN_SOLVER_BINARY, tree.project(index).string(), std::to_string(4 * index), "4",
                                 "3"},
        tree.run(), tree.project(index) / "solver.err"));
  }
  for (int index = 0; index <= 2; ++index) {
    EXPECT_TRUE(wait_until([&] { return std::filesystem::exists(tree.project(index) / "fields/out/last.npy"); }));
  }
  Background driver({LOCKSTEP_BINARY}, tree.run(), tree.run() / "lockstep.err");
  Exit sub1;
  sub1.status = solvers[1]->wait(kStall).value_or(-2);
  sub1.err = read_file(tree.project(1) / "solver.err");
  return sub1;
}

TEST(FieldsRunTest, AStaleInputStopsTheSolverThatReadsItNamingStageAndProject) {
  const struct {
    const char* name;
    std::string wrapper;
    std::string error;
  } cases[] = {
      {"every program copies: the run completes", "exec $EXCHANGE \"$@\"\n", ""},
      {"sub1's program fails in one stage", "[ \"$*\" = \"1 2 1 3\" ] && exit 1\nexec $EXCHANGE \"$@\"\n",
       "chain_solver: input \"right\" of sub1 is stale: its file was written for cycle 2, time step 1, stage 2, but "
       "cycle 2, time step 1, stage 3 needs it written for cycle 2, time step 1, stage 3; the interaction program of "
       "sub1 did not write it in cycle 2, time step 1, stage 3: it failed or did not run\n"},
      {"sub1's program is missing", "[ \"$1\" = 1 ] && exit 127\nexec $EXCHANGE \"$@\"\n",
       "chain_solver: input \"right\" of sub1 has never been written: the interaction program of sub1 did not write "
       "it, by cycle 1, time step 1, stage 1 (it failed, did not run, or does not write this field)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RunTree tree;
    const Exit sub1 = run_with(tree, c.wrapper);
    EXPECT_EQ(sub1.status, c.error.empty() ? 0 : 1);
    EXPECT_EQ(sub1.err, c.error);
  }
}

TEST(FieldsRunTest, TheToolsShowAFieldsStampAndValuesAndTheTablesFaults) {
  RunTree tree;
  ASSERT_EQ(run_with(tree, "exec $EXCHANGE \"$@\"\n").status, 0);
  const auto ctl = [&](const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {LOCKSTEPCTL_BINARY};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return run_program(argv, tree.run());
  };
  const Exit shown = ctl({"field", "show", "../sub2/fields/in/left.npy"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_THAT(shown.out, ::testing::MatchesRegex("field: \\.\\./sub2/fields/in/left\\.npy\n"
                                                 "stamp: input of sub2 for cycle 3, time step 2, stage 4\n"
                                                 "type:  float64\n"
                                                 "shape: \\(1,\\), row-major\n"
                                                 "values:\n"
                                                 "  -?[0-9.e-]+\n"));
  const nlohmann::json json = nlohmann::json::parse(ctl({"field", "show", "--json", "../main/fields/out/last.npy"}).out);
  EXPECT_EQ(json["request"], (nlohmann::json{{"cycle", 3}, {"time_step", 2}, {"stage", 4}}));
  EXPECT_EQ(json["role"], "output");
  EXPECT_EQ(json["values"].size(), 1u);
  // Several values: all in the text eight to a line, in JSON as numbers, cut at --limit.
  const std::vector<std::int32_t> values = {1, -2, 3, 4, 5, 6, 7, 8, 9, 10};
  std::string error;
  ASSERT_TRUE(fields::write_field((tree.run() / "ten.npy").string(),
                                  {fields::Type::kInt32, true, {2, 5}, {1, fields::Role::kInput, {2, 1, 3}}},
                                  values.data(), error))
      << error;
  EXPECT_EQ(ctl({"field", "show", "ten.npy", "--limit", "9"}).out,
            "field: ten.npy\nstamp: input of sub1 for cycle 2, time step 1, stage 3\ntype:  int32\n"
            "shape: (2, 5), column-major\nvalues (the first 9 of 10):\n  1 -2 3 4 5 6 7 8\n  9\n");
  EXPECT_EQ(nlohmann::json::parse(ctl({"field", "show", "--json", "ten.npy"}).out)["values"],
            nlohmann::json(values));
  const Exit odd = ctl({"field", "show", "analysis_settings.dat"});
  EXPECT_EQ(odd.status, 1);
  EXPECT_EQ(odd.err, "lockstepctl field: analysis_settings.dat: not a field file (no NumPy .npy header)\n");

  EXPECT_THAT(ctl({"status"}).out, HasSubstr("newest outputs:\n  main    cycle 3, time step 2, stage 4 ("));

  write_file(tree.run() / "exchange.dat", std::string(kTable) + "sub3 last main left\nmain middle sub1 x\nmain\n"
                                                   "main last sub1 y map=nearest-neighbour from-mesh=xy to-mesh=pts\n");
  std::filesystem::remove(tree.project(2) / "exchange.sh");
  std::filesystem::create_symlink("/nonexistent/lockstep-exchange", tree.project(2) / "exchange.sh");
  const Exit check = ctl({"check"});
  EXPECT_EQ(check.status, 1);
  EXPECT_THAT(check.out, HasSubstr("\nsettings: time_step=2 cycle_num=3 num_subprojects=2\n"));
  EXPECT_THAT(check.out, HasSubstr("exchange.dat:7: a line holds four words, FROM OUTPUT TO INPUT, not 1\n"));
  EXPECT_THAT(check.out, HasSubstr("exchange.dat:5: sub3 is not in this run (2 sub projects); fix the line or "
                                   "num_subprojects=\n"));
  EXPECT_THAT(check.out, HasSubstr("main: warning: exchange.dat:6: its output \"middle\" has not been published "
                                   "(../main/fields/out/middle.npy): its solver must put it before the first stage; "
                                   "the outputs main has published: first, last\n"));
  // A mapping's meshes not yet published: each named with its project.
  EXPECT_THAT(check.out, HasSubstr("\nmain: warning: exchange.dat:8: its from-mesh \"xy\" has not been published "
                                   "(../main/fields/out/xy.npy): its solver must put it before the first stage\n"));
  EXPECT_THAT(check.out, HasSubstr("\nsub1: warning: exchange.dat:8: its to-mesh \"pts\" has not been published "
                                   "(../sub1/fields/out/pts.npy): its solver must put it before the first stage\n"));
  EXPECT_THAT(check.out, HasSubstr("sub2: exchange.sh links to /nonexistent/lockstep-exchange, which does not "
                                   "exist: link it to the installed lockstep-exchange\n"));
}

// Slices are checked against the output without arithmetic that wraps, and
// two lines that write one input are refused; what is refused is not
// written, what is right is.
TEST(FieldsRunTest, TheExchangeRefusesSlicesPastTheEndAndInputsWrittenTwice) {
  RunTree tree;
  tree.settings(1, 1, 1);
  tree.projects(1, "");
  const std::vector<double> u = {10, 11, 12, 13, 14};
  std::string error;
  ASSERT_TRUE(fields::write_field(fields::field_path(tree.project(0).string(), fields::Role::kOutput, "u"),
                                  {fields::Type::kFloat64, false, {5}, {0, fields::Role::kOutput, {0, 0, 0}}},
                                  u.data(), error))
      << error;
  write_file(tree.run() / "exchange.dat",
             "main u[2305843009213693952:2305843009213693953] sub1 a\n"
             "main u[3:2305843009213693955] sub1 b\n"
             "main u[4:6] sub1 c\n"
             "main u[1:3] sub1 d\n"
             "main u sub1 e\n"
             "main u[0:1] sub1 e\n"
             "main U sub1 f\n");
  const Exit exchange = run_program({EXCHANGE_BINARY, "1", "1", "1", "1"}, tree.run());
  EXPECT_EQ(exchange.status, 2);
  EXPECT_EQ(exchange.err,
            "lockstep-exchange: exchange.dat:6: input \"e\" of sub1 is already written by line 5: an input comes from "
            "one line only; neither line is carried out\n"
            "lockstep-exchange: exchange.dat:1: output \"u\" of main has 5 values, fewer than 2305843009213693953\n"
            "lockstep-exchange: exchange.dat:2: output \"u\" of main has 5 values, fewer than 2305843009213693955\n"
            "lockstep-exchange: exchange.dat:3: output \"u\" of main has 5 values, fewer than 6\n"
            "lockstep-exchange: exchange.dat:7: output \"U\" of main has never been written: the solver of main has "
            "not put it (not even before the first request); the outputs main has published: u\n");
  for (const char* name : {"a", "b", "c", "e", "f"}) {
    EXPECT_FALSE(std::filesystem::exists(tree.project(1) / "fields/in" / (std::string(name) + ".npy"))) << name;
  }
  fields::Header header;
  std::vector<char> values;
  ASSERT_EQ(fields::read_field(fields::field_path(tree.project(1).string(), fields::Role::kInput, "d"), header,
                               fields::into_buffer(values), error),
            fields::ReadOutcome::kRead)
      << error;
  EXPECT_EQ(header.shape, std::vector<std::int64_t>{2});
  EXPECT_EQ(std::vector<double>(reinterpret_cast<double*>(values.data()), reinterpret_cast<double*>(values.data()) + 2),
            (std::vector<double>{11, 12}));
}

}  // namespace
}  // namespace lockstep::testing
