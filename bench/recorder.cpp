// What recording costs. "cost": lockstep alone and under 'lockstepctl record
// -- lockstep', alternating on the same tree of 11 projects, the median of
// the pairs' ratios; "footprint":
// the recorder attached to a run of 101 projects, its CPU time against the
// run's time and its peak memory.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "bench_tree.h"

namespace lockstep::bench {
namespace {

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string settings(int time_steps, int subprojects) {
  return "time_step=\n" + std::to_string(time_steps) + "\ncycle_num=\n1\nnum_subprojects=\n" +
         std::to_string(subprojects) + "\n";
}

void recorder_cost(benchmark::State& state) {
  const BenchTree tree(10, settings(10, 10));
  const std::string recording = (tree.run() / "../cost.rec").string();
  const std::vector<std::string> plain = {LOCKSTEP_BINARY};
  const std::vector<std::string> recorded = {LOCKSTEPCTL_BINARY, "record", "--output", recording, "--",
                                             LOCKSTEP_BINARY};
  std::vector<double> plain_seconds, recorded_seconds, ratios;
  bool plain_first = true;
  for (auto _ : state) {
    double plain_run = 0;
    if (plain_first) plain_run = timed_run(plain, tree.run());
    recorded_seconds.push_back(timed_run(recorded, tree.run()));
    if (!plain_first) plain_run = timed_run(plain, tree.run());
    plain_seconds.push_back(plain_run);
    ratios.push_back(recorded_seconds.back() / plain_run);
    plain_first = !plain_first;
  }
  // Medians: one run slowed by something else on the machine moves them
  // little.
  state.counters["plain_s"] = median(plain_seconds);
  state.counters["recorded_s"] = median(recorded_seconds);
  state.counters["ratio"] = median(ratios);
}

void recorder_footprint(benchmark::State& state) {
  const BenchTree tree(100, settings(2, 100));
  const std::string recording = (tree.run() / "../footprint.rec").string();
  for (auto _ : state) {
    testing::Exit recorder;
    std::thread attached([&] {
      recorder = testing::run_program({LOCKSTEPCTL_BINARY, "record", "--output", recording, tree.run().string()},
                                      tree.run());
    });
    testing::wait_until([&] { return !testing::read_file(recording).empty(); });
    const double run_seconds = timed_run({LOCKSTEP_BINARY}, tree.run());
    attached.join();
    state.counters["run_s"] = run_seconds;
    state.counters["cpu_percent"] = 100 * recorder.cpu_seconds / run_seconds;
    state.counters["peak_rss_mb"] = static_cast<double>(recorder.max_rss_kib) / 1024;
  }
}

BENCHMARK(recorder_cost)->Iterations(10)->Unit(benchmark::kSecond);
BENCHMARK(recorder_footprint)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace lockstep::bench

BENCHMARK_MAIN();
