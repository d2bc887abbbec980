// The project library's turnaround: from the driver's write of a request to
// go2.dat reporting done, with the library woken by inotify, by inotify
// with a look every millisecond besides (the wait as it was before it slept
// between changes), and polling with a ceiling of 1 ms and of 20 ms (the
// default on network file systems). Prints the median and 99th percentile
// of each and the ratio of the medians of inotify and 1 ms polling.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "handshake/go_files.h"
#include "bench_tree.h"
#include "process.h"
#include "project/endpoint.h"

namespace lockstep::bench {
namespace {

double median_of[4];


void turnaround(benchmark::State& state) {
  const auto ceiling = state.range(0);  // 0: inotify; -1: inotify and a look every millisecond
  testing::TempDir dir;
  const std::string go = (dir.path() / "go.dat").string();
  const std::string go2 = (dir.path() / "go2.dat").string();
  replace(go2, "0\n");
  std::string error;
  const auto endpoint = project::Endpoint::open(
      dir.path().string(), error,
      {ceiling <= 0 ? project::WaitMode::kChanges : project::WaitMode::kPolling,
       std::chrono::milliseconds(std::max<std::int64_t>(ceiling, 1)),
       std::chrono::milliseconds(ceiling < 0 ? 1 : 500)});
  std::atomic<bool> stop = false;
  std::thread responder([&] {
    project::Request request;
    while (endpoint->wait(request, [&] { return stop.load(); }) == project::WaitResult::kRequest) {
      endpoint->report_done();
    }
  });

  std::vector<double> samples;
  std::int32_t stage = 0;
  for (auto _ : state) {
    replace(go, handshake::reset_record());
    replace(go2, handshake::reset_record());
    const auto start = std::chrono::steady_clock::now();
    replace(go, handshake::stage_record(1, 1, ++stage));
    while (!done(go2)) {
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    samples.push_back(seconds);
    state.SetIterationTime(seconds);
  }
  stop = true;
  responder.join();

  std::sort(samples.begin(), samples.end());
  const double median = samples[samples.size() / 2];
  state.counters["median_us"] = 1e6 * median;
  state.counters["p99_us"] = 1e6 * samples[samples.size() * 99 / 100];
  median_of[ceiling == 0 ? 0 : ceiling == 1 ? 1 : ceiling < 0 ? 3 : 2] = median;
}

BENCHMARK(turnaround)
    ->ArgName("poll_ceiling_ms")
    ->Arg(-1)
    ->Arg(0)
    ->Arg(1)
    ->Arg(20)
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
  if (median_of[0] > 0 && median_of[1] > 0) {
    std::printf("ratio (median, inotify / polling every 1 ms): %.2f\n", median_of[0] / median_of[1]);
  }
  return 0;
}
