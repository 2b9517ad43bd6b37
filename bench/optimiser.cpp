// Planning of channels and powers on campuses where every access point has three radios and hears
// 96 BSSIDs, beside the slow oracle of the tests, which recounts everything after every move.
// The figures are medians of interleaved runs. "channels" is the snapshot and both passes of
// channel assignment, result and clean-up included; it should grow with the number of access
// points.

#include <atomic>
#include <cstdio>

#include "bench/Interleaved.h"
#include "server/lib/TpcDcaOptimiser.h"
#include "tests/support/OptimiserOracle.h"
#include "tests/support/RandomDomain.h"

namespace {

using rrm::bench::Contender;
using rrm::bench::keep;
using rrm::test::MadeDomain;

constexpr std::size_t kSmall = 300;
constexpr std::size_t kLarge = 1000;
constexpr std::size_t kNeighbours = 32;

void plan(const MadeDomain& domain, bool use_tpc, bool use_report) {
  const std::atomic<bool> cancel{false};
  rrm::ApMap snapshot = domain.aps.snapshot();
  keep(rrm::optimise(snapshot, domain.config, {true, use_tpc, use_report}, 0, cancel).ok);
}

Contender channels(const MadeDomain& domain) {
  return {"snapshot, channels", [&domain] { plan(domain, false, false); }};
}

}  // namespace

int main() {
  const auto small = rrm::test::campus(kSmall, kNeighbours, 1);
  const auto large = rrm::test::campus(kLarge, kNeighbours, 1);
  const std::vector<Contender> contenders = {
      channels(*small),
      channels(*large),
      {"snapshot only", [&large] { keep(large->aps.snapshot().size()); }},
      {"snapshot, channels, powers", [&large] { plan(*large, true, false); }},
      {"snapshot, channels, powers, report", [&large] { plan(*large, true, true); }},
  };
  const std::size_t sizes[] = {kSmall, kLarge, kLarge, kLarge, kLarge};
  const std::vector<double> seconds = rrm::bench::interleaved_medians(contenders, 15);
  for (std::size_t i = 0; i < contenders.size(); ++i)
    std::printf("%5zu access points  %-36s %8.2f ms\n", sizes[i], contenders[i].name.c_str(),
                seconds[i] * 1e3);
  std::printf("channels, time(%zu) / time(%zu): %.2f\n", kLarge, kSmall, seconds[1] / seconds[0]);

  const std::vector<double> beside = rrm::bench::interleaved_medians(
      {channels(*small),
       {"oracle",
        [&small] {
          keep(rrm::test::oracle_optimise(small->aps, small->config, true, false).size());
        }}},
      3);
  std::printf("%5zu access points  %-36s %8.2f ms, %.0f x ours\n", kSmall, "oracle, channels",
              beside[1] * 1e3, beside[1] / beside[0]);
}
