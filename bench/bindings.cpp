// Turnaround per binding: from the driver's write of a request to go2.dat
// reporting done, with the project served by a separate process through the
// C++ endpoint, the C interface and the Python package, each doing nothing
// but wait and report done. Prints the median and 99th percentile of each
// and the ratio of Python's median to C++'s.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "handshake/go_files.h"
#include "bench_tree.h"
#include "process.h"

namespace lockstep::bench {
namespace {

double median_of[3];


std::vector<std::string> server(std::int64_t binding, const std::string& directory) {
  switch (binding) {
    case 0: return {SERVE_CPP_BINARY, directory};
    case 1: return {SERVE_C_BINARY, directory};
    default: return {"env", "PYTHONPATH=" PYTHON_PACKAGE_DIR, PYTHON_EXECUTABLE, SERVE_PY, directory};
  }
}

void binding_turnaround(benchmark::State& state) {
  const std::int64_t binding = state.range(0);  // 0: C++, 1: C, 2: Python
  if (binding == 2 && std::string(PYTHON_EXECUTABLE).empty()) {
    state.SkipWithError("the Python package is not built");
    return;
  }
  testing::TempDir dir;
  const std::string go = (dir.path() / "go.dat").string();
  const std::string go2 = (dir.path() / "go2.dat").string();
  replace(go2, "0\n");
  testing::Background serving(server(binding, dir.path().string()), dir.path());

  std::int32_t stage = 0;
  const auto request = [&] {
    replace(go, handshake::reset_record());
    replace(go2, handshake::reset_record());
    const auto start = std::chrono::steady_clock::now();
    replace(go, handshake::stage_record(1, 1, ++stage));
    while (!done(go2)) {
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  for (int i = 0; i < 50; ++i) request();  // the server starts and warms up
  std::vector<double> samples;
  for (auto _ : state) {
    samples.push_back(request());
    state.SetIterationTime(samples.back());
  }
  std::sort(samples.begin(), samples.end());
  median_of[binding] = samples[samples.size() / 2];
  state.counters["median_us"] = 1e6 * median_of[binding];
  state.counters["p99_us"] = 1e6 * samples[samples.size() * 99 / 100];
}

BENCHMARK(binding_turnaround)
    ->ArgName("binding")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(2000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace lockstep::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  using lockstep::bench::median_of;
  if (median_of[0] > 0 && median_of[2] > 0) {
    std::printf("ratio (median, Python / C++): %.2f\n", median_of[2] / median_of[0]);
  }
  return 0;
}
