#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace rrm::bench {

/// Keeps the compiler from throwing a result away.
template <typename T>
inline void keep(const T& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

/// One thing to be measured: `run` does it once.
struct Contender {
  std::string name;
  std::function<void()> run;
};

/// Median seconds of one run of each contender. They take turns in short slices, so that a change
/// of the machine's speed hits all alike; the ratios of the medians are what to look at.
inline std::vector<double> interleaved_medians(const std::vector<Contender>& contenders,
                                               int rounds = 25, double slice_s = 0.008) {
  using Clock = std::chrono::steady_clock;
  const auto seconds = [](const Contender& contender, std::size_t runs) {
    const auto begin = Clock::now();
    for (std::size_t i = 0; i < runs; ++i) contender.run();
    return std::chrono::duration<double>(Clock::now() - begin).count();
  };
  std::vector<std::size_t> runs;
  for (const Contender& contender : contenders) {
    const double once = std::max(std::min(seconds(contender, 1), seconds(contender, 1)), 1e-9);
    runs.push_back(std::max<std::size_t>(1, static_cast<std::size_t>(std::lround(slice_s / once))));
  }
  std::vector<std::vector<double>> samples(contenders.size());
  for (int round = 0; round < rounds; ++round)
    for (std::size_t i = 0; i < contenders.size(); ++i)
      samples[i].push_back(seconds(contenders[i], runs[i]) / static_cast<double>(runs[i]));
  std::vector<double> medians;
  for (auto& sample : samples) {
    std::nth_element(sample.begin(), sample.begin() + rounds / 2, sample.end());
    medians.push_back(sample[static_cast<std::size_t>(rounds / 2)]);
  }
  return medians;
}

}  // namespace rrm::bench
