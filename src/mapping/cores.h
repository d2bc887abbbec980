// The mapping's work is independent per point and per cluster: it is
// spread over the machine's cores.
#pragma once

#include <algorithm>
#include <cstddef>
#include <thread>
#include <vector>

namespace lockstep::mapping {

// All the cores, at most eight: past that, memory bounds the work.
inline unsigned core_count() { return std::clamp(std::thread::hardware_concurrency(), 1u, 8u); }

// Runs work(part) for every part below `parts`, part 0 on this thread,
// and waits for all.
template <typename Work>
void run_parts(unsigned parts, const Work& work) {
  std::vector<std::thread> threads;
  for (unsigned part = 1; part < parts; ++part) threads.emplace_back(work, part);
  work(0u);
  for (std::thread& thread : threads) thread.join();
}

// Where `part` of `parts` even shares of `count` items begins.
inline std::size_t part_begin(std::size_t count, unsigned part, unsigned parts) { return count * part / parts; }

}  // namespace lockstep::mapping
