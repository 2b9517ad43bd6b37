#include <gtest/gtest.h>

#include "tests/support/OptimiserOracle.h"
#include "tests/support/RandomDomain.h"

namespace rrm::test {
namespace {

constexpr std::uint32_t kDomains = 4000;

TEST(TpcDcaOptimiserOracle, AgreesOnRandomDomainsWithDcaAndTpc) {
  for (std::uint32_t seed = 1; seed <= kDomains; ++seed) {
    const auto domain = random_domain(seed);
    ASSERT_EQ(optimised_text(*domain, true, true),
              text_of(oracle_optimise(domain->aps, domain->config, true, true)))
        << "seed " << seed;
  }
}

TEST(TpcDcaOptimiserOracle, AgreesOnRandomDomainsWithDcaOnly) {
  for (std::uint32_t seed = 1; seed <= kDomains / 4; ++seed) {
    const auto domain = random_domain(seed);
    ASSERT_EQ(optimised_text(*domain, true, false),
              text_of(oracle_optimise(domain->aps, domain->config, true, false)))
        << "seed " << seed;
  }
}

TEST(TpcDcaOptimiserOracle, AgreesOnRandomDomainsWithTpcOnly) {
  for (std::uint32_t seed = 1; seed <= kDomains / 4; ++seed) {
    const auto domain = random_domain(seed);
    ASSERT_EQ(optimised_text(*domain, false, true),
              text_of(oracle_optimise(domain->aps, domain->config, false, true)))
        << "seed " << seed;
  }
}

TEST(TpcDcaOptimiserOracle, AgreesOnCampuses) {
  for (std::uint32_t seed = 1; seed <= 6; ++seed) {
    const auto domain = campus(40, 15, seed);
    domain->config.use_hd_mode = seed % 2 == 0;
    ASSERT_EQ(optimised_text(*domain, true, true),
              text_of(oracle_optimise(domain->aps, domain->config, true, true)))
        << "seed " << seed;
  }
}

TEST(TpcDcaOptimiserOracle, RandomDomainsMoveChannelsAndPowersBothWays) {
  int moved = 0;
  int lowered = 0;
  int raised = 0;
  for (std::uint32_t seed = 1; seed <= 200; ++seed) {
    const auto domain = random_domain(seed);
    for (const auto& [mac, radios] : oracle_optimise(domain->aps, domain->config, true, true))
      for (const OracleRadio& radio : radios) {
        const Radio& before = *domain->aps.find(mac)->radios.find(radio.id);
        moved += radio.channel != before.channel;
        lowered += radio.power < before.power;
        raised += radio.power > before.power;
      }
  }
  EXPECT_GT(moved, 500);
  EXPECT_GT(lowered, 100);
  EXPECT_GT(raised, 100);
}

}  // namespace
}  // namespace rrm::test
