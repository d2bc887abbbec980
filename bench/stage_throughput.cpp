// Stage throughput of lockstep against the floor program, which performs
// only what the protocol demands of the same stages. Each iteration runs
// both, in alternating order, on the same tree with the same responders, so
// that they are measured in one run; "ratio" is driver time over floor time.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_tree.h"

namespace lockstep::bench {
namespace {

void stage_throughput(benchmark::State& state) {
  const auto projects = static_cast<int>(state.range(0));
  // Large trees get fewer stages: every launching stage runs every program.
  const int time_steps = projects > 50 ? 2 : 10;
  const int stages = 4 * time_steps + 1;
  const std::string settings =
      "time_step=\n" + std::to_string(time_steps) + "\ncycle_num=\n1\nnum_subprojects=\n" +
      std::to_string(projects - 1) + "\n";
  const BenchTree tree(projects - 1, settings);
  const std::vector<std::string> driver = {LOCKSTEP_BINARY};
  const std::vector<std::string> floor = {FLOOR_BINARY, std::to_string(projects - 1), "1", std::to_string(time_steps),
                                          "noop"};
  double driver_seconds = 0;
  double floor_seconds = 0;
  bool driver_first = true;
  for (auto _ : state) {
    if (driver_first) driver_seconds += timed_run(driver, tree.run());
    floor_seconds += timed_run(floor, tree.run());
    if (!driver_first) driver_seconds += timed_run(driver, tree.run());
    driver_first = !driver_first;
  }
  const auto runs = static_cast<double>(state.iterations());
  state.counters["driver_ms_per_stage"] = 1000 * driver_seconds / runs / stages;
  state.counters["floor_ms_per_stage"] = 1000 * floor_seconds / runs / stages;
  state.counters["ratio"] = driver_seconds / floor_seconds;
}

BENCHMARK(stage_throughput)->ArgName("projects")->Arg(1)->Arg(11)->Arg(101)->Iterations(6)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace lockstep::bench

BENCHMARK_MAIN();
