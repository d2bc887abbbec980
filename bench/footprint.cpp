// What the driver costs while a stage waits on a project that never
// answers: its CPU use over a few seconds of waiting, and its peak resident
// memory.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "bench_tree.h"

namespace lockstep::bench {
namespace {

constexpr auto kWaiting = std::chrono::seconds(3);

// utime + stime of `pid`, in seconds.
double cpu_seconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::stod(field);
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// VmHWM of `pid`, in megabytes.
double peak_resident_mb(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

void waiting_on_a_silent_project(benchmark::State& state) {
  // Sub 1 never answers: the first stage waits out the whole measurement.
  const BenchTree tree(1, "time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n1\n", false, "-1000\n");
  for (auto _ : state) {
    const pid_t driver = fork();
    if (driver == 0) {
      if (chdir(tree.run().c_str()) != 0) _exit(126);
      execl(LOCKSTEP_BINARY, LOCKSTEP_BINARY, static_cast<char*>(nullptr));
      _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double cpu_before = cpu_seconds(driver);
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(kWaiting);
    const double cpu = cpu_seconds(driver) - cpu_before;
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["cpu_percent_of_one_core"] = 100 * cpu / elapsed;
    state.counters["peak_rss_mb"] = peak_resident_mb(driver);
    kill(driver, SIGKILL);
    waitpid(driver, nullptr, 0);
  }
}

BENCHMARK(waiting_on_a_silent_project)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace lockstep::bench

BENCHMARK_MAIN();
